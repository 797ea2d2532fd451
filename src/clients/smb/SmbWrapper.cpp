#include "clients/smb/SmbWrapper.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <libsmbclient.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "clients/smb/NbtScanner.h"
#include "core/AppPreference.h"
#include "core/GCD.h"
#include "core/StreamingSupport.h"
#include "core/StringUtils.h"

namespace quillon {

namespace {

// SMB2 reads and writes are split by the library into credits of at most the server's maximum
// (8 MiB for Samba); a large buffer keeps several requests in flight.
constexpr std::size_t kTransferBuffer = 4 * 1024 * 1024;
// What a streaming fetch hands on at a time: small enough for the player's first bytes to come
// soon.
constexpr std::size_t kStreamChunk = 1024 * 1024;
constexpr int kTimeoutMs = 20000;

std::string trimmedSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (path.empty()) path = "/";
    if (path.front() != '/') path.insert(path.begin(), '/');
    return path;
}

std::string joinPath(const std::string& folder, const std::string& name) {
    std::string f = trimmedSlashes(folder);
    return f == "/" ? "/" + name : f + "/" + name;
}

std::optional<TimePoint> timeOf(const struct stat& st) {
    if (st.st_mtim.tv_sec <= 0) return std::nullopt;
    return std::chrono::system_clock::from_time_t(st.st_mtim.tv_sec) +
           std::chrono::duration_cast<std::chrono::system_clock::duration>(
               std::chrono::nanoseconds(st.st_mtim.tv_nsec));
}

// The library keeps its per-call memory frames and parameters in process-wide state, whatever
// the context: every call into it, from any client, is made under this one lock.
std::recursive_mutex& libraryLock() {
    static std::recursive_mutex m;
    return m;
}

bool isConnectionErrno(int err) {
    switch (err) {
        case ECONNREFUSED:
        case ECONNRESET:
        case ECONNABORTED:
        case ETIMEDOUT:
        case EPIPE:
        case ENOTCONN:
        case EHOSTUNREACH:
        case ENETUNREACH:
        case ENETRESET:
        case ENETDOWN:
        case EHOSTDOWN:
            return true;
        default:
            return false;
    }
}

void authData(SMBCCTX* c, const char*, const char*, char* wg, int wglen, char* un, int unlen,
              char* pw, int pwlen) {
    auto* creds = static_cast<const SmbWrapper::Credentials*>(smbc_getOptionUserData(c));
    auto copy = [](const std::string& from, char* to, int len) {
        if (len <= 0) return;
        std::size_t n = std::min(from.size(), static_cast<std::size_t>(len - 1));
        std::memcpy(to, from.data(), n);
        to[n] = '\0';
    };
    copy(creds->user, un, unlen);
    copy(creds->password, pw, pwlen);
    if (!creds->workgroup.empty()) copy(creds->workgroup, wg, wglen);
}

}  // namespace

SmbWrapper::SmbWrapper(ServerInfoPtr serverInfo) : Wrapper(std::move(serverInfo)) {}

SmbWrapper::~SmbWrapper() {
    dropContext();
}

WrapperCapabilities SmbWrapper::capabilities() const {
    WrapperCapabilities c;
    c.streaming = true;
    c.readFromOffsetToEnd = true;
    return c;
}

bool SmbWrapper::includesHiddenFiles() const {
    return forceIncludesHiddenFiles() ||
           AppPreference::sharedAppPreference().boolForKey(PrefKey::SYS_SHOW_HIDDEN_FILES);
}

Error SmbWrapper::cancelledError() const {
    return KvError::errorWithDomain(ErrorDomain::SMB, -2, "Operation cancelled",
                                    ErrorKind::Cancelled);
}

Error SmbWrapper::errnoError(int err, long code, std::string_view what) const {
    if (err == ENOENT || err == ENOTDIR)
        return KvError::errorWithDomain(ErrorDomain::SMB, ErrorCode::NotFound, "File not found!",
                                        ErrorKind::NotFound);
    ErrorKind kind = ErrorKind::Other;
    if (err == EACCES || err == EPERM)
        kind = ErrorKind::PermissionDenied;
    else if (err == EEXIST || err == ENOTEMPTY)
        kind = err == EEXIST ? ErrorKind::AlreadyExists : ErrorKind::Other;
    else if (err == ENOSPC || err == EDQUOT)
        kind = ErrorKind::NoSpace;
    else if (isConnectionErrno(err))
        kind = ErrorKind::Connection;
    return KvError::errorWithDomain(ErrorDomain::SMB, code,
                                    fmt::format("{}: {}", what, std::strerror(err)), kind);
}

std::string SmbWrapper::urlOf(const std::string& path) const {
    std::string host =
        host_.empty() ? serverInfo()->valueForKey(ServerProp::ADDR).value_or("") : host_;
    // An IPv6 literal is written in brackets.
    if (host.find(':') != std::string::npos && host.front() != '[') host = "[" + host + "]";
    std::string port = StringUtils::trim(serverInfo()->valueForKey(ServerProp::PORT).value_or(""));
    std::string url = "smb://" + host;
    if (!port.empty() && port != "445") url += ":" + port;
    static const char* hex = "0123456789ABCDEF";
    for (unsigned char c : trimmedSlashes(path)) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
            url += static_cast<char>(c);
        } else {
            url += '%';
            url += hex[c >> 4];
            url += hex[c & 15];
        }
    }
    return url;
}

Result<SMBCCTX*> SmbWrapper::context() {
    if (ctx_) return ctx_;
    // A NetBIOS name a sweep has seen reaches the address it was seen at.
    auto hosts =
        NbtScanner::ipListWithHostName(serverInfo()->valueForKey(ServerProp::ADDR).value_or(""));
    host_ = hosts.empty() ? std::string() : hosts.front();
    SMBCCTX* ctx = smbc_new_context();
    if (!ctx)
        return KvError::fail(ErrorDomain::SMB, -1, "The SMB library cannot start",
                             ErrorKind::Connection);
    creds_.user = serverInfo()->valueForKey(ServerProp::USERNAME).value_or("");
    creds_.password = serverInfo()->valueForKey(ServerProp::PASSWORD).value_or("");
    creds_.workgroup.clear();
    // "DOMAIN\user" and "DOMAIN;user" name the workgroup too.
    if (auto sep = creds_.user.find_first_of("\\;"); sep != std::string::npos) {
        creds_.workgroup = creds_.user.substr(0, sep);
        creds_.user = creds_.user.substr(sep + 1);
    }
    // A refused password must not end up as a guest login behind the user's back.
    smbc_setOptionNoAutoAnonymousLogin(ctx, !creds_.user.empty());
    if (creds_.user.empty()) creds_.user = "guest";
    smbc_setDebug(ctx, 0);
    smbc_setTimeout(ctx, kTimeoutMs);
    smbc_setOptionUserData(ctx, &creds_);
    smbc_setFunctionAuthDataWithContext(ctx, authData);
    smbc_setOptionUseKerberos(ctx, false);
    smbc_setOptionFallbackAfterKerberos(ctx, true);
    smbc_setOptionUseCCache(ctx, false);
    std::string port = StringUtils::trim(serverInfo()->valueForKey(ServerProp::PORT).value_or(""));
    if (!port.empty()) {
        char* end = nullptr;
        long p = std::strtol(port.c_str(), &end, 10);
        if (end && *end == '\0' && p > 0 && p < 65536) smbc_setPort(ctx, static_cast<uint16_t>(p));
    }
    if (!smbc_init_context(ctx)) {
        int err = errno;
        smbc_free_context(ctx, 1);
        return std::unexpected(errnoError(err, -1, "Starting the SMB library"));
    }
    smbc_setOptionProtocols(ctx, "SMB2_02", "SMB3");
    ctx_ = ctx;
    return ctx_;
}

Status SmbWrapper::runAttempts(const std::function<Status(int)>& attempt,
                               std::unique_lock<std::recursive_mutex>& guard) {
    auto result = attempts_.run(
        attempt, [this] { return cancelled(); },
        [&](std::chrono::milliseconds pause) {
            dropContext();
            guard.unlock();
            std::this_thread::sleep_for(pause);
            guard.lock();
        });
    if (!result && cancelled()) return std::unexpected(cancelledError());
    return result;
}

void SmbWrapper::dropContext() {
    std::lock_guard guard(libraryLock());
    if (!ctx_) return;
    smbc_free_context(ctx_, 1);
    ctx_ = nullptr;
}

Status SmbWrapper::signInSync() {
    std::lock_guard guard(libraryLock());
    auto ctx = context();
    if (!ctx) return std::unexpected(ctx.error());
    std::string root = rootFolder().pathOrEmpty();
    struct stat st {};
    if (root == "/") {
        SMBCFILE* dir = smbc_getFunctionOpendir(*ctx)(*ctx, urlOf("/").c_str());
        if (!dir) {
            int err = errno;
            dropContext();
            return std::unexpected(errnoError(err, -1, "Logging in"));
        }
        smbc_getFunctionClosedir (*ctx)(*ctx, dir);
        return {};
    }
    if (smbc_getFunctionStat(*ctx)(*ctx, urlOf(root).c_str(), &st) != 0) {
        int err = errno;
        dropContext();
        return std::unexpected(errnoError(err, -1, "Logging in"));
    }
    return {};
}

void SmbWrapper::signOut() {
    dropContext();
}

KvMetadata SmbWrapper::rootFolder() {
    std::string path = StringUtils::trim(serverInfo()->valueForKey(ServerProp::PATH).value_or(""));
    path = trimmedSlashes(path);
    KvMetadata root(path);
    root.isDir = true;
    root.protocolType = ProtocolType::SMB;
    root.serverID = serverInfo()->serverID;
    root.setName(path == "/" ? std::string("/") : StringUtils::lastPathComponent(path));
    return root;
}

KvMetadata SmbWrapper::recordOf(const std::string& path, const std::string& name, bool isDir,
                                std::uint64_t size, std::optional<TimePoint> mtime) const {
    KvMetadata m(path);
    m.setName(name);
    m.serverID = serverInfo()->serverID;
    m.protocolType = ProtocolType::SMB;
    m.isDir = isDir;
    if (!isDir) m.fileSizeInBytes = size;
    m.timestamp = mtime;
    return m;
}

Result<KvMetadataList> SmbWrapper::list(SMBCCTX* ctx, const std::string& path, bool includeHidden) {
    SMBCFILE* dir = smbc_getFunctionOpendir(ctx)(ctx, urlOf(path).c_str());
    if (!dir) return std::unexpected(errnoError(errno, ErrorCode::NotFound, "Listing " + path));
    KvMetadataList items;
    auto closeDir = [&] { smbc_getFunctionClosedir(ctx)(ctx, dir); };
    if (path == "/") {
        // The server's shares; administrative ones ("C$", "IPC$") are not browsed.
        while (const smbc_dirent* e = smbc_getFunctionReaddir(ctx)(ctx, dir)) {
            std::string name(e->name);
            if (e->smbc_type != SMBC_FILE_SHARE || name.empty() || name.back() == '$') continue;
            items.push_back(recordOf("/" + name, name, true, 0, std::nullopt));
        }
        closeDir();
        return items;
    }
    for (;;) {
        if (cancelled()) {
            closeDir();
            return std::unexpected(cancelledError());
        }
        struct stat st {};
        errno = 0;
        const libsmb_file_info* e = smbc_getFunctionReaddirPlus2(ctx)(ctx, dir, &st);
        if (!e) break;
        std::string name(e->name ? e->name : "");
        if (name.empty() || name == "." || name == "..") continue;
        if (!includeHidden && name.starts_with('.')) continue;
        bool isDir = S_ISDIR(st.st_mode);
        items.push_back(recordOf(joinPath(path, name), name, isDir,
                                 static_cast<std::uint64_t>(st.st_size), timeOf(st)));
    }
    closeDir();
    return items;
}

Result<KvMetadataList> SmbWrapper::contentsOfDirectoryAtPathSync(const KvMetadata& folder) {
    if (cancelled()) return std::unexpected(cancelledError());
    std::string path = folder.pathOrEmpty().empty() ? rootFolder().pathOrEmpty()
                                                    : trimmedSlashes(folder.pathOrEmpty());
    std::lock_guard guard(libraryLock());
    auto ctx = context();
    if (!ctx) return std::unexpected(ctx.error());
    auto r = list(*ctx, path, includesHiddenFiles());
    if (!r && r.error().is(ErrorKind::Connection)) dropContext();
    return r;
}

Result<KvMetadata> SmbWrapper::metadataOfItemSync(const KvMetadata& item) {
    std::string path = trimmedSlashes(item.pathOrEmpty());
    if (path == "/") return rootFolder();
    std::lock_guard guard(libraryLock());
    auto ctx = context();
    if (!ctx) return std::unexpected(ctx.error());
    struct stat st {};
    if (smbc_getFunctionStat(*ctx)(*ctx, urlOf(path).c_str(), &st) != 0) {
        auto e = errnoError(errno, ErrorCode::NotFound, "Looking up " + path);
        if (e.is(ErrorKind::Connection)) dropContext();
        return std::unexpected(e);
    }
    return recordOf(path, StringUtils::lastPathComponent(path), S_ISDIR(st.st_mode),
                    static_cast<std::uint64_t>(st.st_size), timeOf(st));
}

Status SmbWrapper::downloadSync(const KvMetadata& file, const std::string& saveTo,
                                const ProgressHandler& progress) {
    if (file.isDir)
        return KvError::fail(ErrorDomain::SMB, ErrorCode::DownloadFailed,
                             "Internal Error: download folder");
    if (cancelled()) return std::unexpected(cancelledError());
    const std::string path = trimmedSlashes(file.pathOrEmpty());
    const std::string url = urlOf(path);
    std::unique_lock guard(libraryLock());
    DownloadSink sink(saveTo);
    std::int64_t done = 0, total = -1;
    std::optional<TimePoint> mtime;
    ProgressThrottle throttle(progress);
    std::vector<char> buffer(kTransferBuffer);

    auto fetch = [&](int) -> Status {
        auto ctx = context();
        if (!ctx) return std::unexpected(ctx.error());
        if (total < 0) {
            struct stat st {};
            if (smbc_getFunctionStat(*ctx)(*ctx, url.c_str(), &st) != 0)
                return std::unexpected(
                    errnoError(errno, ErrorCode::DownloadFailed, "Opening " + path));
            if (S_ISDIR(st.st_mode))
                return KvError::fail(ErrorDomain::SMB, ErrorCode::DownloadFailed,
                                     "Internal Error: download folder");
            total = st.st_size;
            mtime = timeOf(st);
        }
        SMBCFILE* in = smbc_getFunctionOpen(*ctx)(*ctx, url.c_str(), O_RDONLY, 0);
        if (!in)
            return std::unexpected(errnoError(errno, ErrorCode::DownloadFailed, "Opening " + path));
        std::optional<Error> failure;
        if (int err = sink.open())
            failure = localWriteError(ErrorCode::DownloadFailed, saveTo, err);
        else if (done > 0 &&
                 smbc_getFunctionLseek(*ctx)(*ctx, in, static_cast<off_t>(done), SEEK_SET) < 0)
            failure = errnoError(errno, ErrorCode::DownloadFailed, "Reading " + path);
        while (!failure) {
            if (cancelled()) {
                failure = cancelledError();
                break;
            }
            ssize_t n = smbc_getFunctionRead(*ctx)(*ctx, in, buffer.data(), buffer.size());
            if (n == 0) break;
            if (n < 0) {
                failure = errnoError(errno, ErrorCode::DownloadFailed, "Reading " + path);
                break;
            }
            if (int err = sink.write(done, buffer.data(), static_cast<std::size_t>(n))) {
                failure = localWriteError(ErrorCode::DownloadFailed, saveTo, err);
                break;
            }
            done += n;
            throttle.report(done, std::max(total, done));
        }
        smbc_getFunctionClose (*ctx)(*ctx, in);
        if (failure) return std::unexpected(*failure);
        return {};
    };
    Status result = runAttempts(fetch, guard);
    // A file that shrank on the way is not whole.
    if (result && done < total)
        result = KvError::fail(ErrorDomain::SMB, ErrorCode::DownloadFailed,
                               fmt::format("{} ended after {} of {} bytes", path, done, total));
    if (sink.finish(result.has_value(), mtime) != 0)
        result =
            KvError::fail(ErrorDomain::SMB, ErrorCode::DownloadFailed, "Cannot write " + saveTo);
    if (!result) {
        if (result.error().is(ErrorKind::Connection)) dropContext();
        return result;
    }
    throttle.finish(done, done);
    return {};
}

Status SmbWrapper::uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                              const ProgressHandler& progress) {
    if (cancelled()) return std::unexpected(cancelledError());
    std::string local = localFile.localPath.value_or(localFile.pathOrEmpty());
    std::string name = localFile.nameIgnoreLinkResolve().value_or("");
    if (name.empty()) name = StringUtils::lastPathComponent(local);
    std::string folder = toFolder.pathOrEmpty().empty() ? rootFolder().pathOrEmpty()
                                                        : trimmedSlashes(toFolder.pathOrEmpty());
    if (folder == "/")
        return KvError::fail(ErrorDomain::SMB, ErrorCode::UploadFailed,
                             "Files are put into a share, not beside the shares",
                             ErrorKind::PermissionDenied);
    const std::string target = joinPath(folder, name);
    const std::string temporary = joinPath(folder, "." + name + ".quillon-upload");

    // Read once, front to back: what the server has not taken of a piece is offered again after
    // a broken connection.
    UploadSource source(kTransferBuffer);
    if (int err = source.open(local))
        return KvError::fail(ErrorDomain::SMB, ErrorCode::UploadFailed,
                             fmt::format("Cannot read {}: {}", local, std::strerror(err)));
    const std::int64_t total = source.size();
    const struct stat& st = source.stat();

    std::unique_lock guard(libraryLock());
    ProgressThrottle throttle(progress);
    SMBCCTX* ctx = nullptr;
    SMBCFILE* out = nullptr;
    auto send = [&](int attempt) -> Status {
        auto made = context();
        if (!made) return std::unexpected(made.error());
        ctx = *made;
        out = attempt == 0
                  ? smbc_getFunctionCreat(ctx)(ctx, urlOf(temporary).c_str(), 0644)
                  : smbc_getFunctionOpen(ctx)(ctx, urlOf(temporary).c_str(), O_WRONLY, 0644);
        if (!out)
            return std::unexpected(
                errnoError(errno, ErrorCode::UploadFailed, "Creating " + target));
        std::optional<Error> failure;
        if (source.sent() > 0 &&
            smbc_getFunctionLseek(ctx)(ctx, out, static_cast<off_t>(source.sent()), SEEK_SET) < 0)
            failure = errnoError(errno, ErrorCode::UploadFailed, "Writing " + target);
        while (!failure) {
            if (cancelled()) {
                failure = cancelledError();
                break;
            }
            const char* data = nullptr;
            std::size_t size = 0;
            int err = 0;
            if (!source.pending(data, size, err)) {
                failure = KvError::errorWithDomain(
                    ErrorDomain::SMB, ErrorCode::UploadFailed,
                    fmt::format("Cannot read {}: {}", local, std::strerror(err)));
                break;
            }
            // All sent: the file is closed below, where its close can fail the upload.
            if (size == 0) return {};
            ssize_t n = smbc_getFunctionWrite(ctx)(ctx, out, data, size);
            if (n <= 0) {
                failure =
                    errnoError(n < 0 ? errno : EIO, ErrorCode::UploadFailed, "Writing " + target);
                break;
            }
            source.taken(static_cast<std::size_t>(n));
            throttle.report(source.sent(), total);
        }
        smbc_getFunctionClose(ctx)(ctx, out);
        out = nullptr;
        return std::unexpected(*failure);
    };
    Status result = runAttempts(send, guard);
    if (out && smbc_getFunctionClose(ctx)(ctx, out) != 0 && result)
        result = std::unexpected(errnoError(errno, ErrorCode::UploadFailed, "Writing " + target));
    auto discard = [&] {
        if (ctx_) smbc_getFunctionUnlink(ctx_)(ctx_, urlOf(temporary).c_str());
    };
    if (!result) {
        if (result.error().is(ErrorKind::Connection))
            dropContext();
        else
            discard();
        return result;
    }
    // The local file's time is kept.
    struct timeval times[2];
    times[0].tv_sec = st.st_atim.tv_sec;
    times[1].tv_sec = st.st_mtim.tv_sec;
    times[0].tv_usec = times[1].tv_usec = 0;
    smbc_getFunctionUtimes(ctx)(ctx, urlOf(temporary).c_str(), times);

    auto rename = smbc_getFunctionRename(ctx);
    if (rename(ctx, urlOf(temporary).c_str(), ctx, urlOf(target).c_str()) != 0) {
        int err = errno;
        // Servers that refuse to replace: the old file goes first, now that the new one is
        // complete; a folder of that name stays.
        struct stat old {};
        bool replaced = smbc_getFunctionStat(ctx)(ctx, urlOf(target).c_str(), &old) == 0 &&
                        !S_ISDIR(old.st_mode) &&
                        smbc_getFunctionUnlink(ctx)(ctx, urlOf(target).c_str()) == 0 &&
                        rename(ctx, urlOf(temporary).c_str(), ctx, urlOf(target).c_str()) == 0;
        if (!replaced) {
            auto e = errnoError(err, ErrorCode::UploadFailed, "Replacing " + target);
            discard();
            return std::unexpected(e);
        }
    }
    throttle.finish(total, total);
    return {};
}

Status SmbWrapper::moveSync(const KvMetadata& item, const KvMetadata& to) {
    if (cancelled()) return std::unexpected(cancelledError());
    std::string from = trimmedSlashes(item.pathOrEmpty());
    std::string dest = trimmedSlashes(to.pathOrEmpty());
    std::lock_guard guard(libraryLock());
    auto ctx = context();
    if (!ctx) return std::unexpected(ctx.error());
    if (smbc_getFunctionRename(*ctx)(*ctx, urlOf(from).c_str(), *ctx, urlOf(dest).c_str()) != 0) {
        auto e = errnoError(errno, ErrorCode::MoveFailed, "Moving " + from);
        if (e.is(ErrorKind::Connection)) dropContext();
        return std::unexpected(e);
    }
    return {};
}

Status SmbWrapper::removeTree(SMBCCTX* ctx, const std::string& path) {
    auto children = list(ctx, path, true);
    if (!children) return std::unexpected(children.error());
    for (auto& child : *children) {
        std::string p = child.pathOrEmpty();
        if (child.isDir) {
            if (auto r = removeTree(ctx, p); !r) return r;
        } else if (smbc_getFunctionUnlink(ctx)(ctx, urlOf(p).c_str()) != 0) {
            return std::unexpected(errnoError(errno, ErrorCode::DeleteFailed, "Deleting " + p));
        }
    }
    if (smbc_getFunctionRmdir(ctx)(ctx, urlOf(path).c_str()) != 0)
        return std::unexpected(errnoError(errno, ErrorCode::DeleteFailed, "Deleting " + path));
    return {};
}

Status SmbWrapper::removeSync(const KvMetadataList& items) {
    std::lock_guard guard(libraryLock());
    auto ctx = context();
    if (!ctx) return std::unexpected(ctx.error());
    for (auto& item : items) {
        if (cancelled()) return std::unexpected(cancelledError());
        std::string path = trimmedSlashes(item.pathOrEmpty());
        struct stat st {};
        Status r;
        if (smbc_getFunctionStat(*ctx)(*ctx, urlOf(path).c_str(), &st) != 0)
            r = std::unexpected(errnoError(errno, ErrorCode::DeleteFailed, "Deleting " + path));
        else if (S_ISDIR(st.st_mode))
            r = removeTree(*ctx, path);
        else if (smbc_getFunctionUnlink(*ctx)(*ctx, urlOf(path).c_str()) != 0)
            r = std::unexpected(errnoError(errno, ErrorCode::DeleteFailed, "Deleting " + path));
        if (!r) {
            if (r.error().is(ErrorKind::Connection)) dropContext();
            return r;
        }
    }
    return {};
}

Status SmbWrapper::createFolderSync(const KvMetadata& folder) {
    std::string path = trimmedSlashes(folder.pathOrEmpty());
    std::lock_guard guard(libraryLock());
    auto ctx = context();
    if (!ctx) return std::unexpected(ctx.error());
    if (smbc_getFunctionMkdir(*ctx)(*ctx, urlOf(path).c_str(), 0755) != 0) {
        int err = errno;
        // A missing parent is not "not found" here: the folder itself is what was asked for.
        auto e = err == ENOENT
                     ? KvError::errorWithDomain(ErrorDomain::SMB, ErrorCode::CreateFolderFailed,
                                                "Creating " + path + ": no such folder")
                     : errnoError(err, ErrorCode::CreateFolderFailed, "Creating " + path);
        if (e.is(ErrorKind::Connection)) dropContext();
        return std::unexpected(e);
    }
    return {};
}

Status SmbWrapper::initStreamFileMeta(const KvMetadata& file) {
    auto found = metadataOfItemSync(file);
    if (!found) return std::unexpected(found.error());
    if (found->isDir)
        return KvError::fail(ErrorDomain::SMB, ErrorCode::DownloadFailed,
                             "Internal Error: download folder");
    streamFile_ = *found;
    contentLength_ = found->fileSizeInBytes.value_or(0);
    offset_ = 0;
    return {};
}

Result<Bytes> SmbWrapper::readDataOfLength(std::uint64_t length) {
    if (!streamFile_)
        return KvError::fail(ErrorDomain::SMB, ErrorCode::DownloadFailed,
                             "No file opened for streaming");
    return StreamingSupport::readDataOfLength(
        *this, streamFile_, offset_, length,
        [this](std::uint64_t from, std::uint64_t count) -> Result<Bytes> {
            const std::string path = streamFile_->pathOrEmpty();
            std::lock_guard guard(libraryLock());
            auto ctx = context();
            if (!ctx) return std::unexpected(ctx.error());
            auto opened = openStreamAt(*ctx, path, from);
            if (!opened) return std::unexpected(opened.error());
            SMBCFILE* in = *opened;
            std::optional<Error> failure;
            Bytes data(static_cast<std::size_t>(count));
            std::size_t got = 0;
            while (!failure && got < data.size()) {
                ssize_t n =
                    smbc_getFunctionRead(*ctx)(*ctx, in, data.data() + got, data.size() - got);
                if (n < 0)
                    failure = errnoError(errno, ErrorCode::DownloadFailed, "Reading " + path);
                if (n <= 0) break;
                got += static_cast<std::size_t>(n);
            }
            smbc_getFunctionClose (*ctx)(*ctx, in);
            if (failure) {
                if (failure->is(ErrorKind::Connection)) dropContext();
                return std::unexpected(*failure);
            }
            data.resize(got);
            return data;
        });
}

Result<SMBCFILE*> SmbWrapper::openStreamAt(SMBCCTX* ctx, const std::string& path,
                                           std::uint64_t offset) {
    SMBCFILE* in = smbc_getFunctionOpen(ctx)(ctx, urlOf(path).c_str(), O_RDONLY, 0);
    std::optional<Error> failure;
    if (!in)
        failure = errnoError(errno, ErrorCode::DownloadFailed, "Opening " + path);
    else if (offset > 0 &&
             smbc_getFunctionLseek(ctx)(ctx, in, static_cast<off_t>(offset), SEEK_SET) < 0) {
        failure = errnoError(errno, ErrorCode::DownloadFailed, "Reading " + path);
        smbc_getFunctionClose(ctx)(ctx, in);
    }
    if (!failure) return in;
    if (failure->is(ErrorKind::Connection)) dropContext();
    return std::unexpected(*failure);
}

Status SmbWrapper::readDataFromOffsetToEnd(std::int64_t start,
                                           const std::function<bool(const Bytes&)>& handler) {
    if (!streamFile_)
        return KvError::fail(ErrorDomain::SMB, ErrorCode::DownloadFailed,
                             "No file opened for streaming");
    if (cancelled()) return std::unexpected(cancelledError());
    const std::string path = streamFile_->pathOrEmpty();
    std::lock_guard guard(libraryLock());
    auto ctx = context();
    if (!ctx) return std::unexpected(ctx.error());
    auto opened =
        openStreamAt(*ctx, path, static_cast<std::uint64_t>(std::max<std::int64_t>(start, 0)));
    if (!opened) return std::unexpected(opened.error());
    SMBCFILE* in = *opened;
    std::optional<Error> failure;
    std::vector<std::uint8_t> buffer(kStreamChunk);
    while (!failure && !cancelled()) {
        ssize_t n = smbc_getFunctionRead(*ctx)(*ctx, in, buffer.data(), buffer.size());
        if (n < 0) failure = errnoError(errno, ErrorCode::DownloadFailed, "Reading " + path);
        if (n <= 0 || !handler(Bytes(buffer.begin(), buffer.begin() + n))) break;
    }
    smbc_getFunctionClose (*ctx)(*ctx, in);
    if (failure) {
        if (failure->is(ErrorKind::Connection)) dropContext();
        return std::unexpected(*failure);
    }
    if (cancelled()) return std::unexpected(cancelledError());
    return {};
}

}  // namespace quillon
