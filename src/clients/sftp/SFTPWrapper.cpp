#include "clients/sftp/SFTPWrapper.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <libssh2.h>
#include <libssh2_sftp.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "core/AppPreference.h"
#include "core/Base64.h"
#include "core/GCD.h"
#include "core/HostKeyPrompt.h"
#include "core/PathUtils.h"
#include "core/StreamingSupport.h"
#include "core/StringUtils.h"

namespace quillon {

namespace {

// libssh2 splits a read or write into packets of at most 30,000 (read) or 32,768 (write) bytes
// and keeps all of a call's packets in flight at once: a large buffer is what makes a transfer
// independent of the round-trip time.
constexpr std::size_t kTransferBuffer = 4 * 1024 * 1024;
// What a streaming fetch hands on at a time: small enough for the player's first bytes to come
// soon.
constexpr std::size_t kStreamChunk = 1024 * 1024;
constexpr long kSessionTimeoutMs = 60000;
constexpr int kConnectTimeoutMs = 15000;

void initLibrary() {
    static std::once_flag once;
    std::call_once(once, [] { libssh2_init(0); });
}

std::string trimmedSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string joinPath(const std::string& folder, const std::string& name) {
    std::string f = trimmedSlashes(folder);
    if (f.empty()) return name;
    if (f == "/") return "/" + name;
    return f + "/" + name;
}

std::string parentOf(const std::string& path) {
    auto p = trimmedSlashes(path);
    auto slash = p.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return p.substr(0, slash);
}

const char* keyTypeName(int type) {
    switch (type) {
        case LIBSSH2_HOSTKEY_TYPE_RSA:
            return "ssh-rsa";
        case LIBSSH2_HOSTKEY_TYPE_DSS:
            return "ssh-dss";
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_256:
            return "ecdsa-sha2-nistp256";
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_384:
            return "ecdsa-sha2-nistp384";
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_521:
            return "ecdsa-sha2-nistp521";
        case LIBSSH2_HOSTKEY_TYPE_ED25519:
            return "ssh-ed25519";
        default:
            return "unknown";
    }
}

int knownHostKeyBit(int type) {
    switch (type) {
        case LIBSSH2_HOSTKEY_TYPE_RSA:
            return LIBSSH2_KNOWNHOST_KEY_SSHRSA;
        case LIBSSH2_HOSTKEY_TYPE_DSS:
            return LIBSSH2_KNOWNHOST_KEY_SSHDSS;
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_256:
            return LIBSSH2_KNOWNHOST_KEY_ECDSA_256;
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_384:
            return LIBSSH2_KNOWNHOST_KEY_ECDSA_384;
        case LIBSSH2_HOSTKEY_TYPE_ECDSA_521:
            return LIBSSH2_KNOWNHOST_KEY_ECDSA_521;
        case LIBSSH2_HOSTKEY_TYPE_ED25519:
            return LIBSSH2_KNOWNHOST_KEY_ED25519;
        default:
            return LIBSSH2_KNOWNHOST_KEY_UNKNOWN;
    }
}

// A TCP connection to the first address of the host that answers within the time limit.
int connectTcp(const std::string& host, const std::string& port, std::string& why) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (int rc = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &found); rc != 0) {
        why = fmt::format("Cannot resolve {}: {}", host, ::gai_strerror(rc));
        return -1;
    }
    int fd = -1;
    for (auto* a = found; a && fd < 0; a = a->ai_next) {
        fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
        if (fd < 0) continue;
        int rc = ::connect(fd, a->ai_addr, a->ai_addrlen);
        if (rc != 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            int err = ETIMEDOUT;
            if (::poll(&p, 1, kConnectTimeoutMs) == 1) {
                socklen_t len = sizeof err;
                ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
            }
            rc = err == 0 ? 0 : -1;
            errno = err;
        }
        if (rc != 0) {
            why = fmt::format("Cannot connect to {}:{}: {}", host, port, std::strerror(errno));
            ::close(fd);
            fd = -1;
        }
    }
    ::freeaddrinfo(found);
    if (fd >= 0) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

std::optional<std::chrono::system_clock::time_point> timeOf(const LIBSSH2_SFTP_ATTRIBUTES& a) {
    if (!(a.flags & LIBSSH2_SFTP_ATTR_ACMODTIME)) return std::nullopt;
    return std::chrono::system_clock::from_time_t(static_cast<std::time_t>(a.mtime));
}

// Closes a handle of a session that is given up (its requests may still be in flight, its peer
// may be gone): the handle's memory is freed, and a dead peer is not waited for long.
void abandonHandle(LIBSSH2_SESSION* session, LIBSSH2_SFTP_HANDLE* handle) {
    if (!session || !handle) return;
    libssh2_session_set_timeout(session, 2000);
    libssh2_sftp_close(handle);
}

Status statusOf(const Result<bool>& r) {
    if (!r) return std::unexpected(r.error());
    return {};
}

}  // namespace

// --- Session

SftpSession::~SftpSession() {
    cleanup();
}

void SftpSession::cleanup() {
    if (sftp) libssh2_sftp_shutdown(sftp);
    sftp = nullptr;
    if (session) {
        // A dead peer must not hold the closing thread for the whole session time-out.
        libssh2_session_set_timeout(session, 2000);
        libssh2_session_disconnect(session, "Bye");
        libssh2_session_free(session);
    }
    session = nullptr;
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// --- Wrapper

SFTPWrapper::SFTPWrapper(ServerInfoPtr serverInfo) : Wrapper(std::move(serverInfo)) {
    initLibrary();
}

SFTPWrapper::~SFTPWrapper() = default;

WrapperCapabilities SFTPWrapper::capabilities() const {
    WrapperCapabilities c;
    c.streaming = true;
    c.checksUploadSize = true;
    c.readFromOffsetToEnd = true;
    return c;
}

std::string SFTPWrapper::knownHostsPath() {
    return PathUtils::getHomeFolderPath() + "/.ssh/known_hosts";
}

bool SFTPWrapper::includesHiddenFiles() const {
    return forceIncludesHiddenFiles() ||
           AppPreference::sharedAppPreference().boolForKey(PrefKey::SYS_SHOW_HIDDEN_FILES);
}

Error SFTPWrapper::cancelledError() const {
    return KvError::errorWithDomain(ErrorDomain::SFTP, -2, "Operation cancelled",
                                    ErrorKind::Cancelled);
}

bool SFTPWrapper::isConnectionError(const Error& e) {
    return e.kind == ErrorKind::Connection;
}

Error SFTPWrapper::lastError(SftpSession& s, long code, std::string_view what) const {
    int err = s.session ? libssh2_session_last_errno(s.session) : LIBSSH2_ERROR_SOCKET_DISCONNECT;
    if (err == LIBSSH2_ERROR_SFTP_PROTOCOL && s.sftp) {
        unsigned long fx = libssh2_sftp_last_error(s.sftp);
        switch (fx) {
            case LIBSSH2_FX_NO_SUCH_FILE:
            case LIBSSH2_FX_NO_SUCH_PATH:
                return KvError::errorWithDomain(ErrorDomain::SFTP, ErrorCode::NotFound,
                                                "File not found!", ErrorKind::NotFound);
            case LIBSSH2_FX_PERMISSION_DENIED:
            case LIBSSH2_FX_WRITE_PROTECT:
                return KvError::errorWithDomain(ErrorDomain::SFTP, code,
                                                fmt::format("{}: Permission denied", what),
                                                ErrorKind::PermissionDenied);
            case LIBSSH2_FX_FILE_ALREADY_EXISTS:
                return KvError::errorWithDomain(ErrorDomain::SFTP, code,
                                                fmt::format("{}: the item exists already", what),
                                                ErrorKind::AlreadyExists);
            case LIBSSH2_FX_NO_SPACE_ON_FILESYSTEM:
            case LIBSSH2_FX_QUOTA_EXCEEDED:
                return KvError::errorWithDomain(
                    ErrorDomain::SFTP, code, fmt::format("{}: no space left on the server", what),
                    ErrorKind::NoSpace);
            default:
                return KvError::errorWithDomain(
                    ErrorDomain::SFTP, code,
                    fmt::format("{}: the server refused (status {})", what, fx), ErrorKind::Other);
        }
    }
    char* message = nullptr;
    if (s.session) libssh2_session_last_error(s.session, &message, nullptr, 0);
    return KvError::errorWithDomain(
        ErrorDomain::SFTP, err,
        fmt::format("{}: {}", what, message && *message ? message : "the connection failed"),
        ErrorKind::Connection);
}

Status SFTPWrapper::connect(SftpSession& s) {
    std::string host, port;
    {
        auto& info = *serverInfo();
        host = StringUtils::trim(info.valueForKey(ServerProp::ADDR).value_or(""));
        port = StringUtils::trim(info.valueForKey(ServerProp::PORT).value_or(""));
    }
    if (StringUtils::toLower(host).starts_with("sftp://")) host = host.substr(7);
    while (!host.empty() && host.back() == '/') host.pop_back();
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    if (port.empty()) port = "22";
    int portNumber = std::atoi(port.c_str());
    if (host.empty() || portNumber <= 0 || portNumber > 65535)
        return KvError::fail(ErrorDomain::SFTP, -1, "The server's address is incomplete",
                             ErrorKind::Connection);

    std::string why;
    s.fd = connectTcp(host, port, why);
    if (s.fd < 0) return KvError::fail(ErrorDomain::SFTP, -1, why, ErrorKind::Connection);
    s.session = libssh2_session_init();
    if (!s.session)
        return KvError::fail(ErrorDomain::SFTP, -1, "Out of memory", ErrorKind::Connection);
    libssh2_session_set_blocking(s.session, 1);
    libssh2_session_set_timeout(s.session, kSessionTimeoutMs);
    if (libssh2_session_handshake(s.session, s.fd) != 0)
        return std::unexpected(lastError(s, -1, "SSH handshake"));
    if (auto ok = checkHostKey(s, host, portNumber); !ok) return ok;
    if (auto ok = authenticate(s); !ok) return ok;
    s.sftp = libssh2_sftp_init(s.session);
    if (!s.sftp) return std::unexpected(lastError(s, -1, "Starting SFTP"));
    return {};
}

Status SFTPWrapper::checkHostKey(SftpSession& s, const std::string& host, int port) {
    std::size_t length = 0;
    int type = 0;
    const char* key = libssh2_session_hostkey(s.session, &length, &type);
    if (!key) return std::unexpected(lastError(s, -1, "Reading the host key"));
    const int typeMask =
        LIBSSH2_KNOWNHOST_TYPE_PLAIN | LIBSSH2_KNOWNHOST_KEYENC_RAW | knownHostKeyBit(type);
    const std::string name = port == 22 ? host : fmt::format("[{}]:{}", host, port);
    const std::string path = knownHostsPath();

    // One question at a time, and each against the file as the last answer left it.
    static std::mutex fileMutex;
    std::lock_guard lock(fileMutex);
    std::unique_ptr<LIBSSH2_KNOWNHOSTS, void (*)(LIBSSH2_KNOWNHOSTS*)> hosts(
        libssh2_knownhost_init(s.session), libssh2_knownhost_free);
    if (!hosts) return KvError::fail(ErrorDomain::SFTP, -1, "Out of memory", ErrorKind::Other);
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 &&
        libssh2_knownhost_readfile(hosts.get(), path.c_str(), LIBSSH2_KNOWNHOST_FILE_OPENSSH) < 0)
        return KvError::fail(ErrorDomain::SFTP, -1, "Cannot read " + path,
                             ErrorKind::PermissionDenied);
    libssh2_knownhost* entry = nullptr;
    int check =
        libssh2_knownhost_checkp(hosts.get(), host.c_str(), port, key, length, typeMask, &entry);
    if (check == LIBSSH2_KNOWNHOST_CHECK_MATCH) return {};

    HostKeyQuestion question;
    question.host = name;
    question.keyType = keyTypeName(type);
    const char* hash = libssh2_hostkey_hash(s.session, LIBSSH2_HOSTKEY_HASH_SHA256);
    std::string digest =
        hash ? Base64::encode(reinterpret_cast<const std::uint8_t*>(hash), 32) : "";
    while (!digest.empty() && digest.back() == '=') digest.pop_back();
    question.fingerprint = "SHA256:" + digest;
    question.changed = check == LIBSSH2_KNOWNHOST_CHECK_MISMATCH;
    if (HostKeyPrompt::ask(question) != HostKeyAnswer::Accept)
        return KvError::fail(
            ErrorDomain::SFTP, -1,
            question.changed
                ? fmt::format("The host key of {} has changed and was not accepted", name)
                : fmt::format("The host key of {} is unknown and was not accepted", name),
            ErrorKind::PermissionDenied);
    if (question.changed && entry) libssh2_knownhost_del(hosts.get(), entry);
    if (libssh2_knownhost_addc(hosts.get(), name.c_str(), nullptr, key, length, nullptr, 0,
                               typeMask, nullptr) != 0)
        return {};
    std::error_code ec;
    std::string folder = parentOf(path);
    if (std::filesystem::create_directories(folder, ec); !ec) ::chmod(folder.c_str(), 0700);
    // A key the user accepted is used for this session even when it cannot be remembered.
    (void)libssh2_knownhost_writefile(hosts.get(), path.c_str(), LIBSSH2_KNOWNHOST_FILE_OPENSSH);
    return {};
}

Status SFTPWrapper::authenticate(SftpSession& s) {
    std::string user, password, loginType, keyFile, passphrase;
    {
        auto& info = *serverInfo();
        auto nonEmpty = [&](std::string_view preferred, std::string_view fallback) {
            auto v = info.valueForKey(preferred);
            if (!v || v->empty()) v = info.valueForKey(fallback);
            return v.value_or("");
        };
        user = nonEmpty(ServerProp::TEMP_USERNAME, ServerProp::USERNAME);
        password = nonEmpty(ServerProp::TEMP_PASSWORD, ServerProp::PASSWORD);
        loginType = info.valueForKey(SftpProp::LOGIN_TYPE).value_or("");
        keyFile = info.valueForKey(SftpProp::KEYFILE).value_or("");
        passphrase = info.valueForKey(SftpProp::PASSPHRASE).value_or("");
    }
    if (user.empty()) {
        if (const char* login = std::getenv("USER")) user = login;
    }
    // The list of methods is asked first: some servers accept a user without any.
    libssh2_userauth_list(s.session, user.c_str(), static_cast<unsigned>(user.size()));
    if (libssh2_userauth_authenticated(s.session)) return {};
    auto refused = [&](std::string_view how) {
        char* message = nullptr;
        libssh2_session_last_error(s.session, &message, nullptr, 0);
        return KvError::fail(
            ErrorDomain::SFTP, libssh2_session_last_errno(s.session),
            fmt::format("Login with {} failed: {}", how, message && *message ? message : "refused"),
            ErrorKind::PermissionDenied);
    };
    if (loginType == "SFTP_LOGIN_TYPE_KEYFILE" || (loginType.empty() && !keyFile.empty())) {
        if (keyFile.empty())
            return KvError::fail(ErrorDomain::SFTP, -1, "No key file is set for this server",
                                 ErrorKind::PermissionDenied);
        if (libssh2_userauth_publickey_fromfile_ex(
                s.session, user.c_str(), static_cast<unsigned>(user.size()), nullptr,
                keyFile.c_str(), passphrase.empty() ? nullptr : passphrase.c_str()) == 0)
            return {};
        return refused("the key file");
    }
    if (loginType == "SFTP_LOGIN_TYPE_AGENT" || (loginType.empty() && password.empty())) {
        std::unique_ptr<LIBSSH2_AGENT, void (*)(LIBSSH2_AGENT*)> agent(
            libssh2_agent_init(s.session), libssh2_agent_free);
        if (agent && libssh2_agent_connect(agent.get()) == 0) {
            bool in = false;
            if (libssh2_agent_list_identities(agent.get()) == 0) {
                libssh2_agent_publickey* identity = nullptr;
                libssh2_agent_publickey* previous = nullptr;
                while (!in && libssh2_agent_get_identity(agent.get(), &identity, previous) == 0) {
                    in = libssh2_agent_userauth(agent.get(), user.c_str(), identity) == 0;
                    previous = identity;
                }
            }
            libssh2_agent_disconnect(agent.get());
            if (in) return {};
        }
        if (loginType == "SFTP_LOGIN_TYPE_AGENT") return refused("the SSH agent");
    }
    if (libssh2_userauth_password_ex(s.session, user.c_str(), static_cast<unsigned>(user.size()),
                                     password.c_str(), static_cast<unsigned>(password.size()),
                                     nullptr) == 0)
        return {};
    return refused("password");
}

Result<SFTPWrapper::SessionPtr> SFTPWrapper::takeSession() {
    auto conn = KvConnectionPool::sharedInstance().retrieveConnection(
        *serverInfo(), [] { return std::make_shared<SftpSession>(); });
    auto session = std::dynamic_pointer_cast<SftpSession>(conn);
    if (!session) return KvError::fail(ErrorDomain::SFTP, -1, "No connection available");
    if (!session->session) {
        if (auto ok = connect(*session); !ok) {
            session->cleanup();
            return std::unexpected(ok.error());
        }
    }
    return session;
}

void SFTPWrapper::giveBack(const SessionPtr& s) {
    KvConnectionPool::sharedInstance().recycleConnection(s);
}

std::unexpected<Error> SFTPWrapper::failedOn(const SessionPtr& s, Error e) {
    if (isConnectionError(e))
        s->cleanup();
    else
        giveBack(s);
    return std::unexpected(std::move(e));
}

template <typename T>
Result<T> SFTPWrapper::withSession(const std::function<Result<T>(SftpSession&)>& work) {
    if (cancelled()) return std::unexpected(cancelledError());
    for (int attempt = 0;; ++attempt) {
        bool fromPool = KvConnectionPool::sharedInstance().idleCount(serverInfo()->serverID) > 0;
        auto s = takeSession();
        if (!s) return std::unexpected(s.error());
        auto result = work(**s);
        if (!result && isConnectionError(result.error())) {
            (*s)->cleanup();
            // An idle session the server has closed meanwhile is no fault of the request.
            if (fromPool && attempt == 0 && !cancelled()) continue;
            return result;
        }
        giveBack(*s);
        return result;
    }
}

Status SFTPWrapper::signInSync() {
    return statusOf(withSession<bool>([](SftpSession&) -> Result<bool> { return true; }));
}

KvMetadata SFTPWrapper::rootFolder() {
    std::string path = StringUtils::trim(serverInfo()->valueForKey(ServerProp::PATH).value_or(""));
    if (path.empty()) {
        if (!loginFolder_) {
            auto found = withSession<std::string>([this](SftpSession& s) -> Result<std::string> {
                char buffer[4096];
                int n = libssh2_sftp_realpath(s.sftp, ".", buffer, sizeof buffer);
                if (n < 0) return std::unexpected(lastError(s, -1, "Finding the login folder"));
                return std::string(buffer, static_cast<std::size_t>(n));
            });
            if (found) loginFolder_ = *found;
        }
        path = loginFolder_.value_or("/");
    }
    KvMetadata root(trimmedSlashes(path));
    root.isDir = true;
    root.protocolType = ProtocolType::SFTP;
    root.serverID = serverInfo()->serverID;
    if (root.pathOrEmpty() == "/")
        root.setName(std::string("/"));
    else
        root.setName(StringUtils::lastPathComponent(root.pathOrEmpty()));
    return root;
}

KvMetadata SFTPWrapper::recordOf(const std::string& path, const std::string& name,
                                 const LIBSSH2_SFTP_ATTRIBUTES& attrs, SftpSession* s) const {
    KvMetadata m(path);
    m.setName(name);
    m.serverID = serverInfo()->serverID;
    m.protocolType = ProtocolType::SFTP;
    LIBSSH2_SFTP_ATTRIBUTES shown = attrs;
    if ((attrs.flags & LIBSSH2_SFTP_ATTR_PERMISSIONS) && LIBSSH2_SFTP_S_ISLNK(attrs.permissions)) {
        m.isSymbolLink = true;
        if (s) {
            char target[4096];
            int n = libssh2_sftp_readlink(s->sftp, path.c_str(), target, sizeof target);
            if (n > 0) {
                std::string t(target, static_cast<std::size_t>(n));
                m.symbolLinkTarget = t.starts_with('/') ? t : joinPath(parentOf(path), t);
            }
            // What the link points to decides whether it is opened as a folder; a dangling
            // link stays a file of its own size.
            LIBSSH2_SFTP_ATTRIBUTES followed{};
            if (libssh2_sftp_stat(s->sftp, path.c_str(), &followed) == 0) shown = followed;
        }
    }
    m.isDir =
        (shown.flags & LIBSSH2_SFTP_ATTR_PERMISSIONS) && LIBSSH2_SFTP_S_ISDIR(shown.permissions);
    if (!m.isDir && (shown.flags & LIBSSH2_SFTP_ATTR_SIZE)) m.fileSizeInBytes = shown.filesize;
    m.timestamp = timeOf(attrs);
    if (attrs.flags & LIBSSH2_SFTP_ATTR_PERMISSIONS)
        m.unixPermission = fmt::format("{:o}", attrs.permissions & 07777);
    return m;
}

Result<KvMetadataList> SFTPWrapper::list(SftpSession& s, const std::string& path,
                                         bool includeHidden) {
    LIBSSH2_SFTP_HANDLE* dir = libssh2_sftp_opendir(s.sftp, path.c_str());
    if (!dir) return std::unexpected(lastError(s, ErrorCode::NotFound, "Listing " + path));
    KvMetadataList items;
    std::vector<char> name(4096);
    for (;;) {
        if (cancelled()) {
            libssh2_sftp_closedir(dir);
            return std::unexpected(cancelledError());
        }
        LIBSSH2_SFTP_ATTRIBUTES attrs{};
        int n = libssh2_sftp_readdir_ex(dir, name.data(), name.size(), nullptr, 0, &attrs);
        if (n == 0) break;
        if (n < 0) {
            auto e = lastError(s, ErrorCode::NotFound, "Listing " + path);
            libssh2_sftp_closedir(dir);
            return std::unexpected(e);
        }
        std::string entry(name.data(), static_cast<std::size_t>(n));
        if (entry == "." || entry == "..") continue;
        if (!includeHidden && entry.starts_with('.')) continue;
        items.push_back(recordOf(joinPath(path, entry), entry, attrs, &s));
    }
    libssh2_sftp_closedir(dir);
    return items;
}

Result<KvMetadataList> SFTPWrapper::contentsOfDirectoryAtPathSync(const KvMetadata& folder) {
    std::string path = trimmedSlashes(folder.pathOrEmpty());
    if (path.empty()) path = rootFolder().pathOrEmpty();
    bool hidden = includesHiddenFiles();
    return withSession<KvMetadataList>([&](SftpSession& s) { return list(s, path, hidden); });
}

Result<KvMetadata> SFTPWrapper::metadataOfItemSync(const KvMetadata& item) {
    std::string path = trimmedSlashes(item.pathOrEmpty());
    if (path.empty()) return rootFolder();
    return withSession<KvMetadata>([&](SftpSession& s) -> Result<KvMetadata> {
        LIBSSH2_SFTP_ATTRIBUTES attrs{};
        if (libssh2_sftp_lstat(s.sftp, path.c_str(), &attrs) != 0) {
            auto e = lastError(s, ErrorCode::NotFound, "Looking up " + path);
            if (e.is(ErrorKind::NotFound) || e.is(ErrorKind::PermissionDenied))
                return KvError::fail(ErrorDomain::SFTP, ErrorCode::NotFound, "File not found!",
                                     ErrorKind::NotFound);
            return std::unexpected(e);
        }
        return recordOf(path, path == "/" ? "/" : StringUtils::lastPathComponent(path), attrs, &s);
    });
}

// --- Download

// What the parts of one download share.
struct SFTPWrapper::Download {
    std::string path;  // on the server
    DownloadSink* sink = nullptr;
    std::atomic<std::int64_t> done{0};
    // Set by a part that failed for good: the others stop too.
    std::atomic<bool> stop{false};
};

// The bytes [from, to) of the file, `to` < 0 meaning its end.
struct SFTPWrapper::DownloadPart {
    DownloadPart(std::int64_t from, std::int64_t to) : from(from), to(to) {}
    std::int64_t from;
    std::int64_t to;
    std::int64_t got = 0;
};

Status SFTPWrapper::fetchPart(
    Download& d, DownloadPart& part, SessionPtr first,
    const std::function<Status(SftpSession&, LIBSSH2_SFTP_HANDLE*)>& opened,
    const std::function<void()>& received) {
    std::vector<char> buffer(kTransferBuffer);
    bool openedOnce = false;
    auto stopped = [&] { return cancelled() || d.stop.load(); };
    auto fetch = [&](int) -> Status {
        auto s = first ? Result<SessionPtr>(std::move(first)) : takeSession();
        first.reset();
        if (!s) return std::unexpected(s.error());
        SftpSession& session = **s;
        LIBSSH2_SFTP_HANDLE* h =
            libssh2_sftp_open(session.sftp, d.path.c_str(), LIBSSH2_FXF_READ, 0);
        if (!h)
            return failedOn(*s, lastError(session, ErrorCode::DownloadFailed, "Opening " + d.path));
        if (!openedOnce && opened) {
            if (auto ok = opened(session, h); !ok) {
                libssh2_sftp_close(h);
                giveBack(*s);
                return ok;
            }
        }
        openedOnce = true;
        std::int64_t at = part.from + part.got;
        libssh2_sftp_seek64(h, static_cast<libssh2_uint64_t>(at));
        std::optional<Error> failure;
        for (;;) {
            if (stopped()) {
                failure = cancelledError();
                break;
            }
            std::size_t want = buffer.size();
            if (part.to >= 0) {
                if (at >= part.to) break;
                want = static_cast<std::size_t>(
                    std::min<std::int64_t>(static_cast<std::int64_t>(want), part.to - at));
            }
            ssize_t n = libssh2_sftp_read(h, buffer.data(), want);
            if (n == 0) {
                libssh2_sftp_close(h);
                giveBack(*s);
                return {};
            }
            if (n < 0) {
                failure = lastError(session, ErrorCode::DownloadFailed, "Reading " + d.path);
                break;
            }
            if (int err = d.sink->write(at, buffer.data(), static_cast<std::size_t>(n))) {
                failure = localWriteError(ErrorCode::DownloadFailed, d.sink->path(), err);
                break;
            }
            at += n;
            part.got += n;
            d.done += n;
            if (received) received();
        }
        // Read-ahead requests are still in flight (past the part's end, or unanswered): the
        // session is not reused.
        abandonHandle(session.session, h);
        session.cleanup();
        if (failure) return std::unexpected(*failure);
        return {};
    };
    auto result = attempts_.run(fetch, stopped);
    if (result && stopped()) return std::unexpected(cancelledError());
    return result;
}

Status SFTPWrapper::downloadSync(const KvMetadata& file, const std::string& saveTo,
                                 const ProgressHandler& progress) {
    if (file.isDir)
        return KvError::fail(ErrorDomain::SFTP, ErrorCode::DownloadFailed,
                             "Internal Error: download folder");
    if (cancelled()) return std::unexpected(cancelledError());
    DownloadSink sink(saveTo);
    Download d;
    d.path = trimmedSlashes(file.pathOrEmpty());
    d.sink = &sink;
    std::int64_t total = -1;
    std::optional<std::chrono::system_clock::time_point> mtime;
    ProgressThrottle throttle(progress);
    auto report = [&] {
        std::int64_t done = d.done;
        throttle.report(done, std::max(total, done));
    };

    DownloadPart head(0, -1);
    std::optional<DownloadPart> tail;
    std::optional<Status> tailResult;
    std::mutex tailMutex;
    std::condition_variable tailEnded;
    std::thread helper;

    // On the first open: the file's size and time, the target created, and a large file's
    // second half handed to a helper thread on a session of its own.
    auto opened = [&](SftpSession&, LIBSSH2_SFTP_HANDLE* h) -> Status {
        LIBSSH2_SFTP_ATTRIBUTES attrs{};
        if (libssh2_sftp_fstat(h, &attrs) == 0) {
            if (attrs.flags & LIBSSH2_SFTP_ATTR_SIZE)
                total = static_cast<std::int64_t>(attrs.filesize);
            mtime = timeOf(attrs);
            if ((attrs.flags & LIBSSH2_SFTP_ATTR_PERMISSIONS) &&
                LIBSSH2_SFTP_S_ISDIR(attrs.permissions))
                return KvError::fail(ErrorDomain::SFTP, ErrorCode::DownloadFailed,
                                     "Internal Error: download folder");
        }
        if (int err = sink.open())
            return std::unexpected(localWriteError(ErrorCode::DownloadFailed, saveTo, err));
        if (!sink.seekable() || splitDownloadsFrom_ <= 0 || total < splitDownloadsFrom_) return {};
        // Without a second session (a server that allows one connection) the download simply
        // goes on in one.
        auto second = takeSession();
        if (!second) return {};
        std::int64_t half = total / 2;
        head.to = half;
        tail.emplace(half, -1);
        helper = std::thread([this, &d, &tail, &tailResult, &tailMutex, &tailEnded,
                              session = std::move(*second)]() mutable {
            auto r = fetchPart(d, *tail, std::move(session), {}, {});
            if (!r) d.stop = true;
            std::lock_guard lock(tailMutex);
            tailResult = r;
            tailEnded.notify_all();
        });
        return {};
    };
    Status result = fetchPart(d, head, nullptr, opened, report);
    if (helper.joinable()) {
        if (!result) d.stop = true;
        std::unique_lock lock(tailMutex);
        while (!tailEnded.wait_for(lock, std::chrono::milliseconds(200),
                                   [&] { return tailResult.has_value(); })) {
            lock.unlock();
            report();
            lock.lock();
        }
        lock.unlock();
        helper.join();
        // The error that stopped the other part is the one to tell.
        if (result || result.error().is(ErrorKind::Cancelled)) {
            if (!*tailResult) result = *tailResult;
        }
    }
    bool whole = result && sink.opened() && !cancelled();
    if (sink.finish(whole, mtime) != 0) {
        whole = false;
        result =
            KvError::fail(ErrorDomain::SFTP, ErrorCode::DownloadFailed, "Cannot write " + saveTo);
    }
    if (!whole) return result ? Status(std::unexpected(cancelledError())) : result;
    std::int64_t done = d.done;
    if (done > 0) throttle.finish(done, done);
    return {};
}

// --- Upload

Status SFTPWrapper::uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                               const ProgressHandler& progress) {
    if (cancelled()) return std::unexpected(cancelledError());
    std::string local = localFile.localPath.value_or(localFile.pathOrEmpty());
    std::string name = localFile.nameIgnoreLinkResolve().value_or("");
    if (name.empty()) name = StringUtils::lastPathComponent(local);
    std::string folder = trimmedSlashes(toFolder.pathOrEmpty());
    if (folder.empty()) folder = rootFolder().pathOrEmpty();
    const std::string target = joinPath(folder, name);
    const std::string temporary = joinPath(folder, "." + name + ".quillon-upload");

    UploadSource source(kTransferBuffer);
    if (int err = source.open(local))
        return KvError::fail(ErrorDomain::SFTP, ErrorCode::UploadFailed,
                             fmt::format("Cannot read {}: {}", local, std::strerror(err)));
    const std::int64_t total = source.size();
    ProgressThrottle throttle(progress);
    SessionPtr last;

    auto send = [&](int attempt) -> Status {
        auto s = takeSession();
        if (!s) return std::unexpected(s.error());
        SftpSession& session = **s;
        unsigned long flags = LIBSSH2_FXF_WRITE | LIBSSH2_FXF_CREAT;
        if (attempt == 0) flags |= LIBSSH2_FXF_TRUNC;
        LIBSSH2_SFTP_HANDLE* h = libssh2_sftp_open(session.sftp, temporary.c_str(), flags, 0644);
        if (!h)
            return failedOn(*s, lastError(session, ErrorCode::UploadFailed, "Creating " + target));
        if (attempt > 0) {
            // Continue from what both the server holds and it acknowledged.
            LIBSSH2_SFTP_ATTRIBUTES attrs{};
            std::int64_t held = 0;
            if (libssh2_sftp_fstat(h, &attrs) == 0 && (attrs.flags & LIBSSH2_SFTP_ATTR_SIZE))
                held = static_cast<std::int64_t>(attrs.filesize);
            if (!source.restartAt(std::min(source.sent(), held))) {
                libssh2_sftp_close(h);
                giveBack(*s);
                return KvError::fail(
                    ErrorDomain::SFTP, ErrorCode::UploadFailed,
                    fmt::format("The server lost part of {}, which cannot be read again", local));
            }
            libssh2_sftp_seek64(h, static_cast<libssh2_uint64_t>(source.sent()));
        }
        std::optional<Error> failure;
        const char* data = nullptr;
        std::size_t size = 0;
        int err = 0;
        for (;;) {
            if (cancelled()) {
                failure = cancelledError();
                break;
            }
            if (!source.pending(data, size, err)) {
                failure = KvError::errorWithDomain(
                    ErrorDomain::SFTP, ErrorCode::UploadFailed,
                    fmt::format("Cannot read {}: {}", local, std::strerror(err)));
                break;
            }
            if (size == 0) break;
            ssize_t n = libssh2_sftp_write(h, data, size);
            if (n < 0) {
                failure = lastError(session, ErrorCode::UploadFailed, "Writing " + target);
                break;
            }
            source.taken(static_cast<std::size_t>(n));
            throttle.report(source.sent(), total);
        }
        if (failure) {
            if (failure->is(ErrorKind::Cancelled)) {
                // What was already sent is acknowledged first: the handle then closes cleanly
                // and the session stays good for the clean-up and later requests.
                while (source.rest() > 0 && source.pending(data, size, err)) {
                    ssize_t n = libssh2_sftp_write(h, data, size);
                    if (n <= 0) break;
                    source.taken(static_cast<std::size_t>(n));
                }
                if (source.rest() == 0 && libssh2_sftp_close(h) == 0) {
                    last = *s;
                    return std::unexpected(*failure);
                }
            }
            abandonHandle(session.session, h);
            session.cleanup();
            return std::unexpected(*failure);
        }
        LIBSSH2_SFTP_ATTRIBUTES attrs{};
        attrs.flags = LIBSSH2_SFTP_ATTR_ACMODTIME;
        attrs.atime = static_cast<unsigned long>(source.stat().st_atim.tv_sec);
        attrs.mtime = static_cast<unsigned long>(source.stat().st_mtim.tv_sec);
        (void)libssh2_sftp_fsetstat(h, &attrs);
        LIBSSH2_SFTP_ATTRIBUTES held{};
        bool sized = libssh2_sftp_fstat(h, &held) == 0 && (held.flags & LIBSSH2_SFTP_ATTR_SIZE);
        if (libssh2_sftp_close(h) != 0) {
            auto e = lastError(session, ErrorCode::UploadFailed, "Writing " + target);
            if (isConnectionError(e)) {
                session.cleanup();
                return std::unexpected(e);
            }
            last = *s;
            return std::unexpected(e);
        }
        last = *s;
        // A pipe's size is what came through it.
        const std::int64_t expected = source.seekable() ? total : source.sent();
        if (sized && static_cast<std::int64_t>(held.filesize) != expected)
            return KvError::fail(ErrorDomain::SFTP, ErrorCode::UploadFailed,
                                 fmt::format("The server holds {} of {} bytes of {}", held.filesize,
                                             expected, name));
        return {};
    };
    Status sent = attempts_.run(send, [this] { return cancelled(); });

    auto discard = [&](SftpSession* s) {
        if (s && s->sftp) libssh2_sftp_unlink(s->sftp, temporary.c_str());
    };
    if (!sent) {
        // The hidden partial file goes; from a fresh session when the last one is gone.
        if (last && last->sftp) {
            discard(last.get());
            giveBack(last);
        } else {
            bool wasCancelled = cancelled();
            setCancelled(false);
            (void)withSession<bool>([&](SftpSession& s) -> Result<bool> {
                discard(&s);
                return true;
            });
            setCancelled(wasCancelled);
        }
        return sent;
    }
    SftpSession& s = *last;
    int rc = libssh2_sftp_rename_ex(
        s.sftp, temporary.c_str(), temporary.size(), target.c_str(), target.size(),
        LIBSSH2_SFTP_RENAME_OVERWRITE | LIBSSH2_SFTP_RENAME_ATOMIC | LIBSSH2_SFTP_RENAME_NATIVE);
    if (rc != 0) {
        // Servers of protocol version 3 never rename over an existing file: the old one goes
        // first, now that the new one is complete.
        LIBSSH2_SFTP_ATTRIBUTES attrs{};
        if (libssh2_sftp_lstat(s.sftp, target.c_str(), &attrs) == 0 &&
            !((attrs.flags & LIBSSH2_SFTP_ATTR_PERMISSIONS) &&
              LIBSSH2_SFTP_S_ISDIR(attrs.permissions)) &&
            libssh2_sftp_unlink(s.sftp, target.c_str()) == 0)
            rc = libssh2_sftp_rename(s.sftp, temporary.c_str(), target.c_str());
    }
    if (rc != 0) {
        auto e = lastError(s, ErrorCode::UploadFailed, "Replacing " + target);
        discard(&s);
        return failedOn(last, std::move(e));
    }
    throttle.finish(source.sent(), source.sent());
    giveBack(last);
    return {};
}

// --- Other operations

Status SFTPWrapper::moveSync(const KvMetadata& item, const KvMetadata& to) {
    std::string from = trimmedSlashes(item.pathOrEmpty());
    std::string dest = trimmedSlashes(to.pathOrEmpty());
    return statusOf(withSession<bool>([&](SftpSession& s) -> Result<bool> {
        if (libssh2_sftp_rename_ex(s.sftp, from.c_str(), from.size(), dest.c_str(), dest.size(),
                                   LIBSSH2_SFTP_RENAME_ATOMIC | LIBSSH2_SFTP_RENAME_NATIVE) != 0)
            return std::unexpected(lastError(s, ErrorCode::MoveFailed, "Moving " + from));
        return true;
    }));
}

Status SFTPWrapper::removeTree(SftpSession& s, const std::string& path) {
    auto children = list(s, path, true);
    if (!children) return std::unexpected(children.error());
    for (auto& child : *children) {
        std::string p = child.pathOrEmpty();
        if (child.isDir && !child.isSymbolLink) {
            if (auto r = removeTree(s, p); !r) return r;
        } else if (libssh2_sftp_unlink(s.sftp, p.c_str()) != 0) {
            return std::unexpected(lastError(s, ErrorCode::DeleteFailed, "Deleting " + p));
        }
    }
    if (libssh2_sftp_rmdir(s.sftp, path.c_str()) != 0)
        return std::unexpected(lastError(s, ErrorCode::DeleteFailed, "Deleting " + path));
    return {};
}

Status SFTPWrapper::removeSync(const KvMetadataList& items) {
    return statusOf(withSession<bool>([&](SftpSession& s) -> Result<bool> {
        for (auto& item : items) {
            if (cancelled()) return std::unexpected(cancelledError());
            std::string path = trimmedSlashes(item.pathOrEmpty());
            LIBSSH2_SFTP_ATTRIBUTES attrs{};
            if (libssh2_sftp_lstat(s.sftp, path.c_str(), &attrs) != 0)
                return std::unexpected(lastError(s, ErrorCode::DeleteFailed, "Deleting " + path));
            bool folder = (attrs.flags & LIBSSH2_SFTP_ATTR_PERMISSIONS) &&
                          LIBSSH2_SFTP_S_ISDIR(attrs.permissions);
            if (folder) {
                if (auto r = removeTree(s, path); !r) return std::unexpected(r.error());
            } else if (libssh2_sftp_unlink(s.sftp, path.c_str()) != 0) {
                return std::unexpected(lastError(s, ErrorCode::DeleteFailed, "Deleting " + path));
            }
        }
        return true;
    }));
}

Status SFTPWrapper::createFolderSync(const KvMetadata& folder) {
    std::string path = trimmedSlashes(folder.pathOrEmpty());
    return statusOf(withSession<bool>([&](SftpSession& s) -> Result<bool> {
        if (libssh2_sftp_mkdir(s.sftp, path.c_str(), 0755) != 0)
            return std::unexpected(lastError(s, ErrorCode::CreateFolderFailed, "Creating " + path));
        return true;
    }));
}

Result<std::string> SFTPWrapper::linkTextSync(const KvMetadata& link) {
    std::string path = trimmedSlashes(link.pathOrEmpty());
    return withSession<std::string>([&](SftpSession& s) -> Result<std::string> {
        char target[4096];
        int n = libssh2_sftp_readlink(s.sftp, path.c_str(), target, sizeof target);
        if (n < 0)
            return std::unexpected(lastError(s, ErrorCode::NotFound, "Reading link " + path));
        return std::string(target, static_cast<std::size_t>(n));
    });
}

Status SFTPWrapper::initStreamFileMeta(const KvMetadata& file) {
    std::string path = trimmedSlashes(file.pathOrEmpty());
    auto size = withSession<std::uint64_t>([&](SftpSession& s) -> Result<std::uint64_t> {
        LIBSSH2_SFTP_ATTRIBUTES attrs{};
        if (libssh2_sftp_stat(s.sftp, path.c_str(), &attrs) != 0)
            return std::unexpected(lastError(s, ErrorCode::DownloadFailed, "Opening " + path));
        if ((attrs.flags & LIBSSH2_SFTP_ATTR_PERMISSIONS) &&
            LIBSSH2_SFTP_S_ISDIR(attrs.permissions))
            return KvError::fail(ErrorDomain::SFTP, ErrorCode::DownloadFailed,
                                 "Internal Error: download folder");
        return static_cast<std::uint64_t>(attrs.filesize);
    });
    if (!size) return std::unexpected(size.error());
    streamFile_ = file;
    streamFile_->setPath(path);
    contentLength_ = *size;
    offset_ = 0;
    return {};
}

Result<Bytes> SFTPWrapper::readDataOfLength(std::uint64_t length) {
    if (!streamFile_)
        return KvError::fail(ErrorDomain::SFTP, ErrorCode::DownloadFailed,
                             "No file opened for streaming");
    return StreamingSupport::readDataOfLength(
        *this, streamFile_, offset_, length,
        [this](std::uint64_t from, std::uint64_t count) -> Result<Bytes> {
            std::string path = streamFile_->pathOrEmpty();
            return withSession<Bytes>([&](SftpSession& s) -> Result<Bytes> {
                LIBSSH2_SFTP_HANDLE* h =
                    libssh2_sftp_open(s.sftp, path.c_str(), LIBSSH2_FXF_READ, 0);
                if (!h)
                    return std::unexpected(
                        lastError(s, ErrorCode::DownloadFailed, "Opening " + path));
                libssh2_sftp_seek64(h, from);
                Bytes data(static_cast<std::size_t>(count));
                std::size_t got = 0;
                while (got < data.size()) {
                    ssize_t n = libssh2_sftp_read(h, reinterpret_cast<char*>(data.data() + got),
                                                  data.size() - got);
                    if (n < 0) {
                        auto e = lastError(s, ErrorCode::DownloadFailed, "Reading " + path);
                        abandonHandle(s.session, h);
                        // A failed read leaves requests in flight: the session must not be reused.
                        return std::unexpected(
                            isConnectionError(e)
                                ? e
                                : Error{e.domain, e.code, e.reason, ErrorKind::Connection});
                    }
                    if (n == 0) break;
                    got += static_cast<std::size_t>(n);
                }
                data.resize(got);
                libssh2_sftp_close(h);
                return data;
            });
        });
}

Status SFTPWrapper::readDataFromOffsetToEnd(std::int64_t start,
                                            const std::function<bool(const Bytes&)>& handler) {
    if (!streamFile_)
        return KvError::fail(ErrorDomain::SFTP, ErrorCode::DownloadFailed,
                             "No file opened for streaming");
    if (cancelled()) return std::unexpected(cancelledError());
    const std::string path = streamFile_->pathOrEmpty();
    auto s = takeSession();
    if (!s) return std::unexpected(s.error());
    SftpSession& session = **s;
    LIBSSH2_SFTP_HANDLE* h = libssh2_sftp_open(session.sftp, path.c_str(), LIBSSH2_FXF_READ, 0);
    if (!h) return failedOn(*s, lastError(session, ErrorCode::DownloadFailed, "Opening " + path));
    libssh2_sftp_seek64(h, static_cast<libssh2_uint64_t>(std::max<std::int64_t>(0, start)));
    std::vector<char> buffer(kStreamChunk);
    std::optional<Error> failure;
    while (!cancelled()) {
        ssize_t n = libssh2_sftp_read(h, buffer.data(), buffer.size());
        if (n == 0) {
            libssh2_sftp_close(h);
            giveBack(*s);
            return {};
        }
        if (n < 0) {
            failure = lastError(session, ErrorCode::DownloadFailed, "Reading " + path);
            break;
        }
        auto* at = reinterpret_cast<const std::uint8_t*>(buffer.data());
        if (!handler(Bytes(at, at + n))) break;
    }
    // Read-ahead requests are still in flight: the session is not reused.
    abandonHandle(session.session, h);
    session.cleanup();
    if (failure) return std::unexpected(*failure);
    if (cancelled()) return std::unexpected(cancelledError());
    return {};
}

}  // namespace quillon
