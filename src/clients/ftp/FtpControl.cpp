// FtpWrapper: the control-connection layer shared by every operation (pooled handles, handle
// configuration, URLs and command bytes in the server's encoding, FEAT, commands without a data
// phase, error texts).

#include <arpa/inet.h>
#include <curl/curl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>

#include "clients/ftp/FtpWrapper.h"
#include "core/LocalizedUtils.h"
#include "core/Location.h"
#include "core/ServerInfoService.h"
#include "core/StringEncoding.h"
#include "core/StringUtils.h"

namespace quillon {

namespace {

constexpr std::string_view kFtpSkipPasvIp = "FTP_SKIP_PASV_IP";
constexpr std::size_t kMaxReplyBytes = 4 * 1024 * 1024;

size_t headerTrampoline(char* data, size_t size, size_t n, void* self) {
    auto* op = static_cast<FtpWrapper::Operation*>(self);
    return op->client->onHeader(*op, data, size * n);
}

// Notes the commands sent and which of them a 4xx or 5xx reply answered; passwords are not
// kept.
int traceTrampoline(CURL*, curl_infotype type, char* data, size_t size, void* self) {
    auto* op = static_cast<FtpWrapper::Operation*>(self);
    std::string_view text(data, size);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    if (type == CURLINFO_HEADER_OUT)
        op->lastSent = text.starts_with("PASS ") ? "PASS ********" : std::string(text);
    else if (type == CURLINFO_HEADER_IN && text.size() >= 4 && (text[0] == '4' || text[0] == '5') &&
             text[3] == ' ')
        op->refused = op->lastSent;
    return 0;
}

size_t refuseBytes(char*, size_t, size_t, void*) {
    return 0;
}

curl_socket_t openSocketTrampoline(void* self, curlsocktype purpose, curl_sockaddr* address) {
    auto* op = static_cast<FtpWrapper::Operation*>(self);
    if (purpose == CURLSOCKTYPE_IPCXN && op && !op->client->mayConnect(*op, &address->addr))
        return CURL_SOCKET_BAD;
    return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

// Whether a socket address is the numeric address `ip` (as libcurl reports it).
bool sameAddress(const sockaddr* a, const char* ip) {
    if (!ip || !*ip) return false;
    if (a->sa_family == AF_INET) {
        in_addr want{};
        return ::inet_pton(AF_INET, ip, &want) == 1 &&
               reinterpret_cast<const sockaddr_in*>(a)->sin_addr.s_addr == want.s_addr;
    }
    if (a->sa_family == AF_INET6) {
        in6_addr want{};
        return ::inet_pton(AF_INET6, ip, &want) == 1 &&
               std::memcmp(&reinterpret_cast<const sockaddr_in6*>(a)->sin6_addr, &want,
                           sizeof want) == 0;
    }
    return false;
}

std::string asciiOnly(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (unsigned char c : s) out += c < 0x80 ? static_cast<char>(c) : '?';
    return out;
}

// The platform's URL escaping with "[" and "]" left alone and "!'();&=+$,?%#" forced: only
// letters, digits, "-._~*/:@" and the brackets travel as they are.
std::string percentEscape(std::string_view bytes) {
    return StringUtils::percentEncode(bytes, "-._~*/:@[]");
}

// The server's last refusal among the replies of a request ("553 Prohibited file name"), or its
// last reply when it refused nothing; without the line end.
std::string lastRefusal(std::string_view replies) {
    std::string_view refusal, last;
    while (!replies.empty()) {
        auto nl = replies.find('\n');
        auto line = replies.substr(0, nl);
        replies = nl == std::string_view::npos ? std::string_view{} : replies.substr(nl + 1);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.remove_suffix(1);
        if (line.size() < 4 || !std::isdigit(static_cast<unsigned char>(line[0])) ||
            !std::isdigit(static_cast<unsigned char>(line[1])) ||
            !std::isdigit(static_cast<unsigned char>(line[2])) || line[3] != ' ')
            continue;
        last = line;
        if (line[0] == '4' || line[0] == '5') refusal = line;
    }
    return std::string(refusal.empty() ? last : refusal);
}

// Whether a refusal asks for an encrypted session.
bool asksForTls(std::string_view reply) {
    reply.remove_prefix(std::min<std::size_t>(4, reply.size()));
    return StringUtils::containsIgnoreCase(reply, "TLS") ||
           StringUtils::containsIgnoreCase(reply, "SSL") ||
           StringUtils::containsIgnoreCase(reply, "encrypt");
}

// The item a command list is about: the argument of its first command that names one.
std::string itemOfCommands(const std::vector<std::string>& commands) {
    for (auto& c : commands) {
        auto space = c.find(' ');
        if (space == std::string::npos) continue;
        auto verb = StringUtils::toUpper(c.substr(0, space));
        if (verb == "MKD" || verb == "RMD" || verb == "DELE" || verb == "RNFR" || verb == "MLST" ||
            verb == "SIZE" || verb == "MDTM")
            return c.substr(space + 1);
        if (verb == "SITE" || verb == "MFMT") {
            // "SITE CHMOD 644 /a", "MFMT 20240101000000 /a": the path comes third.
            auto second = c.find(' ', c.find_first_not_of(' ', space));
            auto third = second == std::string::npos ? second : c.find(' ', second + 1);
            if (verb == "MFMT" && second != std::string::npos) return c.substr(second + 1);
            if (third != std::string::npos) return c.substr(third + 1);
        }
    }
    return {};
}

}  // namespace

std::unique_lock<std::recursive_mutex> FtpWrapper::lockRecord() const {
    struct Entry {
        std::weak_ptr<ServerInfo> record;
        std::shared_ptr<std::recursive_mutex> mutex;
    };
    static std::mutex registryMutex;
    static std::map<const ServerInfo*, Entry> registry;
    const auto& info = serverInfo();
    std::shared_ptr<std::recursive_mutex> mutex;
    {
        std::lock_guard guard(registryMutex);
        auto& entry = registry[info.get()];
        // A record at the address of one that is gone gets a lock of its own.
        if (!entry.mutex || entry.record.expired() || entry.record.lock() != info) {
            entry.record = info;
            entry.mutex = std::make_shared<std::recursive_mutex>();
            std::erase_if(registry, [](const auto& e) { return e.second.record.expired(); });
        }
        mutex = registry[info.get()].mutex;
    }
    // The record keeps its entry, and so the mutex, alive while this client holds it.
    return std::unique_lock(*mutex);
}

FtpWrapper::Features FtpWrapper::features() const {
    auto lock = lockRecord();
    const auto& info = *serverInfo();
    return {info.supportMLSD.value_or(false), info.supportMFMT.value_or(false),
            info.supportUTF8.value_or(false), info.supportEPSV.value_or(false)};
}

Result<std::shared_ptr<CURLConnection>> FtpWrapper::retrieveFTPConnection() {
    auto conn = std::dynamic_pointer_cast<CURLConnection>(
        KvConnectionPool::sharedInstance().retrieveConnection(
            *serverInfo(), [] { return std::make_shared<CURLConnection>(); }));
    if (!conn || !conn->curl()) return ftpFailure(kNoConnection, "No connection available");
    return conn;
}

void FtpWrapper::recycleFTPConnection(const std::shared_ptr<CURLConnection>& connection,
                                      int responseCode) {
    if (!connection) return;
    if (CURL* curl = connection->curl()) {
        // The pooled handle must keep no pointer into this wrapper or this request: the session
        // may be closed later, from another thread, after both are gone.
        curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
        curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, refuseBytes);
        curl_easy_setopt(curl, CURLOPT_HEADERDATA, nullptr);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, refuseBytes);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, nullptr);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, nullptr);
        curl_easy_setopt(curl, CURLOPT_READDATA, nullptr);
        curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, nullptr);
        curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
        curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, nullptr);
        curl_easy_setopt(curl, CURLOPT_XFERINFODATA, nullptr);
        curl_easy_setopt(curl, CURLOPT_QUOTE, nullptr);
        curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, nullptr);
        curl_easy_setopt(curl, CURLOPT_OPENSOCKETDATA, nullptr);
    }
    if (responseCode == CURLE_OPERATION_TIMEDOUT)
        connection->cleanup();
    else
        KvConnectionPool::sharedInstance().recycleConnection(connection);
}

void FtpWrapper::resetCURL(Operation& op) {
    CURL* curl = op.connection->curl();
    curl_easy_reset(curl);
    op.currentProgress_ = -1;
    op.data_ = std::string();
    op.data_.reserve(1024);
    op.dataHeader_ = std::string();
    op.dataHeader_.reserve(1024);
    op.dataConnectionNext_ = false;

    auto recordLock = lockRecord();
    const ServerInfo& info = *serverInfo();
    auto nonEmpty = [&](std::string_view preferred, std::string_view fallback) {
        auto v = info.valueForKey(preferred);
        if (!v || v->empty()) v = info.valueForKey(fallback);
        return v.value_or("");
    };
    std::string user = nonEmpty(ServerProp::TEMP_USERNAME, ServerProp::USERNAME);
    std::string password = nonEmpty(ServerProp::TEMP_PASSWORD, ServerProp::PASSWORD);
    if (user.empty()) {
        user = "anonymous";
        if (password.empty()) password = "anonymous";
    }
    if (!password.empty()) {
        std::string userpwd = user + ":" + password;
        curl_easy_setopt(curl, CURLOPT_USERPWD, userpwd.c_str());
    } else {
        curl_easy_setopt(curl, CURLOPT_USERNAME, user.c_str());
    }

    if (info.boolValueForKey(ServerProp::FTP_ACTIVE_MODE)) {
        curl_easy_setopt(curl, CURLOPT_FTPPORT, "-");
    } else {
        // A server never probed is driven with PASV only.
        curl_easy_setopt(curl, CURLOPT_FTP_USE_EPSV, info.supportEPSV.value_or(false) ? 1L : 0L);
    }

    // Server certificates are deliberately not verified: self-signed servers are the rule.
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    auto protocol = info.valueForKey(ServerProp::FTP_PROTOCOL).value_or("");
    if (protocol == "FTP_PROTOCOL_EXPLICIT_IF_AVAILABLE")
        curl_easy_setopt(curl, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_TRY));
    else if (protocol == "FTP_PROTOCOL_EXPLICIT")
        curl_easy_setopt(curl, CURLOPT_USE_SSL, static_cast<long>(CURLUSESSL_ALL));
    // TLS 1.2 at most. Under TLS 1.3 the server sends its session tickets after the handshake;
    // an upload never reads its data connection, so when libcurl closes it the tickets may
    // arrive at a closed socket, and the kernel answers them with a reset that throws away the
    // part of the file still queued to be sent. The server takes the reset for the end of the
    // file and confirms a short one. Data connections resume the control connection's TLS
    // session, so both must use the same version.
    curl_easy_setopt(curl, CURLOPT_SSLVERSION,
                     static_cast<long>(CURL_SSLVERSION_DEFAULT) | CURL_SSLVERSION_MAX_TLSv1_2);

    curl_easy_setopt(curl, CURLOPT_FTP_SKIP_PASV_IP,
                     info.boolValueForKey(kFtpSkipPasvIp) ? 1L : 0L);
    // Requests run on worker threads: no signals.
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 30L);
    // A server that stops answering in the middle of a reply must not hold the caller for
    // libcurl's two minutes (twice, with the retry).
    curl_easy_setopt(curl, CURLOPT_SERVER_RESPONSE_TIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 63488L);
    // A data connection that stops moving bytes ends the request as a time-out instead of
    // holding it forever.
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(stallLimit_.count()));
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, openSocketTrampoline);
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETDATA, &op);
    op.lastSent.clear();
    op.refused.clear();
    if (KvError::recordsRequests()) {
        curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, traceTrampoline);
        curl_easy_setopt(curl, CURLOPT_DEBUGDATA, &op);
        curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
    }
}

bool FtpWrapper::mayConnect(Operation& op, const sockaddr* address) {
    if (!op.dataConnectionNext_) return true;
    op.dataConnectionNext_ = false;
    // A passive data connection goes to the control connection's peer only: a PASV reply that
    // names another host would make us send a file to (or read from) a service of the server's
    // choosing. The refusal fails the request as "could not connect", which turns on the one
    // retry that ignores the PASV address.
    char* peer = nullptr;
    if (!op.connection ||
        curl_easy_getinfo(op.connection->curl(), CURLINFO_PRIMARY_IP, &peer) != CURLE_OK)
        return false;
    return sameAddress(address, peer);
}

int FtpWrapper::runCurlEasyPerform(Operation& op) {
    CURLConnection& connection = *op.connection;
    CURL* curl = connection.curl();
    auto rc = connection.perform(stopWhenCancelled());
    if (rc != CURLE_COULDNT_CONNECT && rc != CURLE_OPERATION_TIMEDOUT &&
        rc != CURLE_SSL_CONNECT_ERROR)
        return rc;
    if (triedAfterTimeout_ || cancelled()) return rc;
    // Servers behind NAT advertise a private address in their PASV reply: try once more with
    // the control connection's host.
    curl_easy_setopt(curl, CURLOPT_FTP_SKIP_PASV_IP, 1L);
    if (op.file_ && op.direction_ == Direction::Download) {
        // A time-out may strike in the middle of a transfer: start the attempt over.
        std::fflush(op.file_);
        std::fseek(op.file_, static_cast<long>(op.finishedDlSize_), SEEK_SET);
    }
    rc = connection.perform(stopWhenCancelled());
    triedAfterTimeout_ = true;
    if (rc != CURLE_OK) return rc;
    auto recordLock = lockRecord();
    auto& info = *serverInfo();
    info.setValue(std::string("TRUE"), kFtpSkipPasvIp);
    (void)ServerInfoService::sharedServerInfoService().saveOrUpdateServerInfo(info);
    return CURLE_OK;
}

std::string FtpWrapper::FTPUrlString(const std::string& path) const {
    auto recordLock = lockRecord();
    const ServerInfo& info = *serverInfo();
    std::string host = StringUtils::trim(info.valueForKey(ServerProp::ADDR).value_or(""));
    if (StringUtils::startsWithIgnoreCase(host, "ftp://"))
        host = host.substr(6);
    else if (StringUtils::startsWithIgnoreCase(host, "ftps://") ||
             StringUtils::startsWithIgnoreCase(host, "sftp://"))
        host = host.substr(7);
    if (!host.empty() && host.back() == '/') host.pop_back();
    std::string scheme =
        info.valueForKey(ServerProp::FTP_PROTOCOL).value_or("") == "FTP_PROTOCOL_IMPLICIT" ? "ftps"
                                                                                           : "ftp";
    std::string port = info.valueForKey(ServerProp::PORT).value_or("");
    std::string base = port.empty() ? fmt::format("{}://{}", scheme, host)
                                    : fmt::format("{}://{}:{}", scheme, host, port);
    return fmt::format("{}/{}", base, path);
}

unsigned long FtpWrapper::nsEncodingFromSetting() const {
    auto recordLock = lockRecord();
    return StringEncoding::encodingFromProperty(
        serverInfo()->valueForKey(ServerProp::SERVER_ENCODING));
}

unsigned long FtpWrapper::kcfEncodingFromSetting() const {
    unsigned long ns = nsEncodingFromSetting();
    if (ns & 0x80000000UL) return ns & 0x7FFFFFFFUL;
    static const std::pair<unsigned long, unsigned long> builtin[] = {
        {1, 0x0600},
        {2, 0x0B01},
        {3, 0x0920},
        {4, 0x08000100},
        {5, 0x0201},
        {8, 0x0420},
        {9, 0x0202},
        {10, 0x0100},
        {11, 0x0502},
        {12, 0x0500},
        {13, 0x0503},
        {14, 0x0504},
        {15, 0x0501},
        {21, 0x0820},
        {30, 0x0000},
        {0x90000100, 0x10000100},
        {0x94000100, 0x14000100},
    };
    for (auto [n, cf] : builtin)
        if (n == ns) return cf;
    return 0x08000100;  // kCFStringEncodingUTF8
}

std::string FtpWrapper::cStringForCmd(const std::string& command) const {
    auto bytes = StringEncoding::fromUtf8(command, nsEncodingFromSetting());
    if (bytes) return *bytes;
    return asciiOnly(command);
}

std::string FtpWrapper::cStringForURL(const std::optional<std::string>& path) const {
    if (!path) return {};
    auto bytes = StringEncoding::fromUtf8(*path, nsEncodingFromSetting());
    if (!bytes || bytes->empty()) return percentEscape(asciiOnly(*path));
    return percentEscape(*bytes);
}

bool FtpWrapper::canSendUTF8Command() const {
    return nsEncodingFromSetting() == StringEncoding::UTF8 && features().utf8;
}

int FtpWrapper::sendUTF8Command() {
    auto conn = retrieveFTPConnection();
    if (!conn) return CURLE_FAILED_INIT;
    Operation op{this, *conn};
    int rc = sendUTF8Command(op);
    recycleFTPConnection(*conn, rc);
    return rc;
}

int FtpWrapper::sendUTF8Command(Operation& op) {
    CURL* curl = op.connection->curl();
    resetCURL(op);
    std::string url = cStringForURL(FTPUrlString(baseServerPath()));
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    // The leading "*" tells libcurl that a refusal is no failure: servers that list UTF8 in FEAT
    // may still answer 501, and a failed command would make libcurl drop the session and log
    // in again for the next request.
    curl_slist* list = curl_slist_append(nullptr, ("*" + cStringForCmd("OPTS UTF8 ON")).c_str());
    curl_easy_setopt(curl, CURLOPT_QUOTE, list);
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &op);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, headerTrampoline);
    int rc = runCurlEasyPerform(op);
    curl_slist_free_all(list);
    curl_easy_setopt(curl, CURLOPT_QUOTE, nullptr);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, nullptr);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, nullptr);
    return rc;
}

void FtpWrapper::sendFEATCommand() {
    auto reply = curl_runCommandWithoutBody("FEAT", baseServerPath());
    if (!reply || cancelled()) return;
    Features found;
    std::size_t pos = 0;
    const std::string& text = *reply;
    while (pos < text.size()) {
        auto nl = text.find('\n', pos);
        auto line = StringUtils::trim(std::string_view(text).substr(
            pos, nl == std::string::npos ? std::string::npos : nl - pos));
        pos = nl == std::string::npos ? text.size() : nl + 1;
        if (StringUtils::equalsIgnoreCase(line, "MLSD") || StringUtils::startsWith(line, "MLST"))
            found.mlsd = true;
        else if (StringUtils::equalsIgnoreCase(line, "UTF8"))
            found.utf8 = true;
        else if (line == "MFMT")
            found.mfmt = true;
        else if (line == "EPSV")
            found.epsv = true;
    }
    // One set, at once: a client on another thread sees the features before or after, never
    // half of them.
    auto recordLock = lockRecord();
    auto& info = *serverInfo();
    info.supportMLSD = found.mlsd;
    info.supportMFMT = found.mfmt;
    info.supportUTF8 = found.utf8;
    info.supportEPSV = found.epsv;
}

Result<std::string> FtpWrapper::curl_runCommandWithoutBody(const std::string& command,
                                                           const std::string& path) {
    return curl_runCommandWithoutBodyWithCommandList({command}, path);
}

Result<std::string> FtpWrapper::curl_runCommandWithoutBodyWithCommandList(
    const std::vector<std::string>& commands, const std::string& path, std::string* replies) {
    // A line break or NUL would end the command early and start another one of the name's
    // choosing.
    for (auto& c : commands)
        if (hasControlCharacters(c))
            return ftpFailure(CURLE_BAD_FUNCTION_ARGUMENT,
                              "The name holds a line break or NUL and cannot be sent");
    if (auto s = refuseUnsafe(path); !s) return std::unexpected(s.error());
    auto conn = retrieveFTPConnection();
    if (!conn) return std::unexpected(conn.error());
    Operation op{this, *conn};
    op.item = itemOfCommands(commands);
    CURL* curl = (*conn)->curl();
    resetCURL(op);
    curl_slist* list = nullptr;
    for (auto& c : commands) list = curl_slist_append(list, cStringForCmd(c).c_str());
    std::string url = cStringForURL(FTPUrlString(path));
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_QUOTE, list);
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, refuseBytes);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &op);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, headerTrampoline);
    int rc = runCurlEasyPerform(op);
    curl_easy_setopt(curl, CURLOPT_QUOTE, nullptr);
    curl_slist_free_all(list);
    recycleFTPConnection(*conn, rc);
    if (replies) *replies = stringForHeaderResp(op);
    if (rc == CURLE_OK) return stringForHeaderResp(op);
    return std::unexpected(curlError(rc, errorBuffer, op));
}

Error FtpWrapper::curlError(int code, const char* errorBuffer, const Operation& op,
                            bool forListing) const {
    std::string text = errorBuffer ? errorBuffer : "";
    if (StringUtils::contains(text, "550"))
        text = "Permission denied";
    else if (StringUtils::contains(text, "530"))
        text = "Access denied";
    if (code == CURLE_OPERATION_TIMEDOUT) {
        text = LocalizedUtils::localizedStringForKey("trans.operation.timeout", "");
        if (text == "trans.operation.timeout") text = "Operation Time Out";
    }
    std::string replies = stringForHeaderResp(op);
    if (text.empty()) text = parseErrorInMessage(replies);
    // libcurl leaves some failures without words: say what failed.
    if (text.empty() || text == "Unknown error!") {
        if (code == CURLE_USE_SSL_FAILED)
            text = "TLS is required by the settings, but the server refused it";
        else if (const char* words = curl_easy_strerror(static_cast<CURLcode>(code)))
            text = words;
    }
    // A server that takes encrypted sessions only refuses a plain one in words of its own
    // ("550 SSL/TLS required on the control channel", "530 Non-anonymous sessions must use
    // encryption."), which the code alone turns into "Permission denied".
    std::string refusal = lastRefusal(replies);
    if (!refusal.empty() && (refusal[0] == '4' || refusal[0] == '5') && asksForTls(refusal)) {
        auto protocol = serverInfo()->valueForKey(ServerProp::FTP_PROTOCOL).value_or("");
        if (protocol.empty() || protocol == "FTP_PROTOCOL_PLAIN")
            text =
                "The server accepts encrypted (TLS) sessions only, and this server is set to plain "
                "FTP: use FTPES (explicit TLS)";
    }
    long reported = code;
    if (forListing && (code == CURLE_LOGIN_DENIED || code == 69)) reported = 13;
    auto error = KvError::errorWithDomain(ErrorDomain::FTP, reported, text, kindOfCurlCode(code));
    error.serverReply = refusal;
    if (!op.refused.empty()) error.request = decodeFromServer(op.refused);
    if (!op.item.empty()) error.item = displayItem(*serverInfo(), op.item);
    return error;
}

ErrorKind FtpWrapper::kindOfCurlCode(long code) {
    switch (code) {
        case ErrorCode::NotFound:
        case CURLE_REMOTE_FILE_NOT_FOUND:
            return ErrorKind::NotFound;
        case CURLE_ABORTED_BY_CALLBACK:
            return ErrorKind::Cancelled;
        case CURLE_REMOTE_ACCESS_DENIED:
        case CURLE_LOGIN_DENIED:
        case CURLE_TFTP_PERM:
            return ErrorKind::PermissionDenied;
        case CURLE_REMOTE_FILE_EXISTS:
            return ErrorKind::AlreadyExists;
        case CURLE_REMOTE_DISK_FULL:
            return ErrorKind::NoSpace;
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_NOT_BUILT_IN:
        case CURLE_USE_SSL_FAILED:
            return ErrorKind::Unsupported;
        case kNoConnection:
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
        case CURLE_FTP_ACCEPT_FAILED:
        case CURLE_FTP_ACCEPT_TIMEOUT:
        case CURLE_FTP_WEIRD_PASV_REPLY:
        case CURLE_FTP_WEIRD_227_FORMAT:
        case CURLE_FTP_CANT_GET_HOST:
        case CURLE_FTP_PORT_FAILED:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
            return ErrorKind::Connection;
        default:
            return ErrorKind::Other;
    }
}

std::unexpected<Error> FtpWrapper::ftpFailure(long code, std::string_view reason) {
    return KvError::fail(ErrorDomain::FTP, code, reason, kindOfCurlCode(code));
}

std::string FtpWrapper::decodeFromServer(const std::string& bytes) const {
    unsigned long enc = nsEncodingFromSetting();
    if (enc == StringEncoding::UTF8) {
        if (StringUtils::isValidUtf8(bytes)) return bytes;
    } else if (auto text = StringEncoding::toUtf8(bytes, enc)) {
        return *text;
    }
    // Bytes that are not valid in the server's encoding: read line by line, so one bad name
    // does not spoil the others, and fall back to ASCII for the bad lines.
    std::string out;
    std::size_t pos = 0;
    while (pos < bytes.size()) {
        auto nl = bytes.find('\n', pos);
        std::size_t end = nl == std::string::npos ? bytes.size() : nl + 1;
        std::string_view line(bytes.data() + pos, end - pos);
        pos = end;
        if (enc == StringEncoding::UTF8) {
            out += StringUtils::isValidUtf8(line) ? std::string(line) : asciiOnly(line);
        } else if (auto text = StringEncoding::toUtf8(line, enc)) {
            out += *text;
        } else {
            out += asciiOnly(line);
        }
    }
    return out;
}

std::string FtpWrapper::stringForHeaderResp(const Operation& op) const {
    return decodeFromServer(op.dataHeader_);
}

std::string FtpWrapper::parseErrorInMessage(const std::string& message) {
    auto at = message.rfind("421");
    if (at == std::string::npos) return "Unknown error!";
    return message.substr(at);
}

namespace {
std::string withoutScheme(const std::string& fullPath) {
    std::string s = fullPath;
    std::replace(s.begin(), s.end(), '\\', '/');
    auto scheme = s.find("://");
    if (scheme != std::string::npos) s = s.substr(scheme + 3);
    return s;
}
}  // namespace

std::string FtpWrapper::pureAddressFromFullPath(const std::string& fullPath) {
    auto s = withoutScheme(fullPath);
    return s.substr(0, s.find('/'));
}

std::string FtpWrapper::purePathFromFullPath(const std::string& fullPath) {
    auto s = withoutScheme(fullPath);
    auto slash = s.find('/');
    return slash == std::string::npos ? std::string() : s.substr(slash);
}

bool FtpWrapper::hasControlCharacters(const std::string& s) {
    return s.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
}

Status FtpWrapper::refuseUnsafe(const std::string& path) const {
    if (hasControlCharacters(path))
        return ftpFailure(CURLE_BAD_FUNCTION_ARGUMENT,
                          "The name holds a line break or NUL and cannot be sent");
    return {};
}

std::size_t FtpWrapper::onHeader(Operation& op, const char* data, std::size_t size) {
    // The next socket opened after a PASV or EPSV reply is the data connection.
    if (size >= 4 && (std::memcmp(data, "227 ", 4) == 0 || std::memcmp(data, "229 ", 4) == 0))
        op.dataConnectionNext_ = true;
    // A hostile server may send replies without end: keep the first few MiB only.
    if (op.dataHeader_.size() < kMaxReplyBytes)
        op.dataHeader_.append(data, std::min(size, kMaxReplyBytes - op.dataHeader_.size()));
    return size;
}

}  // namespace quillon
