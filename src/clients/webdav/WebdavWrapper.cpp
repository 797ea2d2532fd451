#include "clients/webdav/WebdavWrapper.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <thread>

#include "core/AppPreference.h"
#include "core/GCD.h"
#include "core/StreamingSupport.h"
#include "core/StringUtils.h"

namespace quillon {

namespace {

constexpr std::int64_t kFineProgressAbove = 524288000;
constexpr const char* kPropfindBody =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<D:propfind xmlns:D=\"DAV:\"><D:prop><D:resourcetype/><D:getcontentlength/>"
    "<D:getlastmodified/><D:getetag/></D:prop></D:propfind>\n";

std::string trimmedSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (path.empty()) path = "/";
    if (path[0] != '/') path = "/" + path;
    return path;
}

std::string joinPath(const std::string& folder, const std::string& name) {
    std::string f = trimmedSlashes(folder);
    return f == "/" ? "/" + name : f + "/" + name;
}

bool isDav(xmlNode* node, const char* name) {
    return node && node->type == XML_ELEMENT_NODE && node->ns && node->ns->href &&
           std::strcmp(reinterpret_cast<const char*>(node->ns->href), "DAV:") == 0 &&
           std::strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

std::string textOf(xmlNode* node) {
    xmlChar* content = xmlNodeGetContent(node);
    std::string t = content ? reinterpret_cast<const char*>(content) : "";
    if (content) xmlFree(content);
    return StringUtils::trim(t);
}

struct Transfer {
    const WebdavWrapper::Request* request = nullptr;
    WebdavWrapper::Reply* reply = nullptr;
    CURL* curl = nullptr;
    bool sinkStopped = false;
    int step = -1;
    std::int64_t total = -1;
    std::int64_t reported = 0;
    std::function<bool()> cancelled;
};

std::size_t onWrite(char* data, std::size_t size, std::size_t n, void* self) {
    auto& t = *static_cast<Transfer*>(self);
    std::size_t bytes = size * n;
    long status = 0;
    curl_easy_getinfo(t.curl, CURLINFO_RESPONSE_CODE, &status);
    // Only a successful reply's body is the file: an error page goes to the reply.
    if (t.request->sink && status >= 200 && status < 300) {
        if (!t.request->sink(data, bytes)) {
            t.sinkStopped = true;
            return 0;
        }
        return bytes;
    }
    // An error page or a listing is kept in memory, up to a bound no real reply reaches.
    if (t.reply->body.size() + bytes > (512u << 20)) return 0;
    t.reply->body.append(data, bytes);
    return bytes;
}

std::size_t onRead(char* buffer, std::size_t size, std::size_t n, void* self) {
    auto& t = *static_cast<Transfer*>(self);
    if (t.cancelled()) return CURL_READFUNC_ABORT;
    return std::fread(buffer, 1, size * n, t.request->upload);
}

int onSeek(void* self, curl_off_t offset, int origin) {
    auto& t = *static_cast<Transfer*>(self);
    return ::fseeko(t.request->upload, offset, origin) == 0 ? CURL_SEEKFUNC_OK
                                                            : CURL_SEEKFUNC_CANTSEEK;
}

int onProgress(void* self, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal,
               curl_off_t ulnow) {
    auto& t = *static_cast<Transfer*>(self);
    if (t.cancelled()) return 1;
    auto& progress = t.request->progress;
    if (!progress) return 0;
    bool up = t.request->upload != nullptr;
    std::int64_t total = t.total > 0 ? t.total : (up ? ultotal : dltotal);
    std::int64_t now = up ? ulnow : dlnow;
    // A body sent again after the login was asked for starts over: no report goes backwards.
    if (total <= 0 || now <= t.reported || now >= total) return 0;
    std::int64_t scale = total > kFineProgressAbove ? 1000 : 100;
    int step = static_cast<int>(scale * now / total);
    if (step == t.step) return 0;
    t.step = step;
    t.reported = now;
    ProgressHandler handler = progress;
    GCD::doInForeground([handler, now, total] { handler(now, total); });
    return 0;
}

}  // namespace

// --- Connection

WebdavConnection::WebdavConnection() : curl(curl_easy_init()) {}

WebdavConnection::~WebdavConnection() {
    cleanup();
}

void WebdavConnection::cleanup() {
    if (curl) curl_easy_cleanup(curl);
    curl = nullptr;
}

// --- Wrapper

WebdavWrapper::WebdavWrapper(ServerInfoPtr serverInfo) : Wrapper(std::move(serverInfo)) {}

WebdavWrapper::~WebdavWrapper() = default;

WrapperCapabilities WebdavWrapper::capabilities() const {
    WrapperCapabilities c;
    c.streaming = true;
    c.readFromOffsetToEnd = true;
    return c;
}

bool WebdavWrapper::includesHiddenFiles() const {
    return forceIncludesHiddenFiles() ||
           AppPreference::sharedAppPreference().boolForKey(PrefKey::SYS_SHOW_HIDDEN_FILES);
}

Error WebdavWrapper::cancelledError() const {
    return KvError::errorWithDomain(ErrorDomain::WebDAV, CURLE_ABORTED_BY_CALLBACK,
                                    "Operation cancelled", ErrorKind::Cancelled);
}

std::string WebdavWrapper::escapePath(const std::string& path) {
    return StringUtils::percentEncode(path, "/-._~");
}

std::string WebdavWrapper::unescape(const std::string& text) {
    std::string out;
    auto value = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && value(text[i + 1]) >= 0 &&
            value(text[i + 2]) >= 0) {
            out += static_cast<char>(value(text[i + 1]) * 16 + value(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string WebdavWrapper::baseUrl() const {
    auto& info = *serverInfo();
    std::string host = StringUtils::trim(info.valueForKey(ServerProp::ADDR).value_or(""));
    std::string port = StringUtils::trim(info.valueForKey(ServerProp::PORT).value_or(""));
    bool https = info.boolValueForKey(WebdavProp::HTTPS) || port == "443";
    std::string lower = StringUtils::toLower(host);
    for (std::string_view scheme : {"https://", "davs://", "http://", "dav://", "webdav://"}) {
        if (lower.starts_with(scheme)) {
            if (scheme == "https://" || scheme == "davs://") https = true;
            host = host.substr(scheme.size());
            break;
        }
    }
    if (auto slash = host.find('/'); slash != std::string::npos) host.resize(slash);
    if (port.empty()) port = https ? "443" : "80";
    return fmt::format("{}://{}:{}", https ? "https" : "http", host, port);
}

std::string WebdavWrapper::urlOf(const std::string& path) const {
    std::string p = path.empty() || path[0] != '/' ? "/" + path : path;
    return baseUrl() + escapePath(p);
}

WebdavWrapper::Reply WebdavWrapper::perform(const Request& request) {
    Reply reply;
    if (cancelled()) {
        reply.curlCode = CURLE_ABORTED_BY_CALLBACK;
        return reply;
    }
    auto conn = std::dynamic_pointer_cast<WebdavConnection>(
        KvConnectionPool::sharedInstance().retrieveConnection(
            *serverInfo(), [] { return std::make_shared<WebdavConnection>(); }));
    if (!conn || !conn->curl) {
        reply.curlCode = CURLE_FAILED_INIT;
        reply.curlMessage = "No connection available";
        return reply;
    }
    CURL* curl = conn->curl;
    curl_easy_reset(curl);
    Transfer t;
    t.request = &request;
    t.reply = &reply;
    t.curl = curl;
    t.cancelled = [this] { return cancelled(); };
    if (request.upload) t.total = request.uploadSize;

    std::string url = urlOf(request.path);
    std::string user, password;
    {
        auto& info = *serverInfo();
        auto nonEmpty = [&](std::string_view preferred, std::string_view fallback) {
            auto v = info.valueForKey(preferred);
            if (!v || v->empty()) v = info.valueForKey(fallback);
            return v.value_or("");
        };
        user = nonEmpty(ServerProp::TEMP_USERNAME, ServerProp::USERNAME);
        password = nonEmpty(ServerProp::TEMP_PASSWORD, ServerProp::PASSWORD);
    }
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 15L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 60L);
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 512L * 1024);
    curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, 2L * 1024 * 1024);
    // Like the FTP client's TLS: self-signed certificates are the rule on these servers.
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    if (!user.empty()) {
        curl_easy_setopt(curl, CURLOPT_USERNAME, user.c_str());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, password.c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPAUTH, CURLAUTH_BASIC | CURLAUTH_DIGEST);
    }
    curl_slist* headers = nullptr;
    for (auto& h : request.headers) headers = curl_slist_append(headers, h.c_str());
    // A file's body waits for "100 Continue": a server that first asks for the login (Digest
    // always does) then refuses before the body was sent in vain. Small bodies go at once.
    if (!request.upload) headers = curl_slist_append(headers, "Expect:");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onWrite);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &t);
    if (request.upload) {
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, onRead);
        curl_easy_setopt(curl, CURLOPT_READDATA, &t);
        curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, onSeek);
        curl_easy_setopt(curl, CURLOPT_SEEKDATA, &t);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE,
                         static_cast<curl_off_t>(request.uploadSize));
        if (request.method != "PUT")
            curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    } else if (!request.body.empty()) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.c_str());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE,
                         static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    } else if (request.method == "HEAD" || request.noBody) {
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        if (request.method != "HEAD")
            curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    } else if (request.method != "GET") {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    reply.curlCode = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply.status);
    reply.curlMessage =
        errorBuffer[0] ? errorBuffer : curl_easy_strerror(static_cast<CURLcode>(reply.curlCode));
    if (t.sinkStopped && reply.curlCode == CURLE_WRITE_ERROR) {
        // The receiver had enough: not a failure of the request.
        reply.curlCode = CURLE_OK;
        reply.curlMessage.clear();
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(headers);
    if (reply.curlCode == CURLE_OK && !t.sinkStopped)
        KvConnectionPool::sharedInstance().recycleConnection(conn);
    else
        conn->cleanup();
    return reply;
}

Error WebdavWrapper::errorOf(const Reply& reply, long code, std::string_view what) const {
    if (reply.curlCode == CURLE_ABORTED_BY_CALLBACK || cancelled()) return cancelledError();
    if (reply.curlCode != CURLE_OK)
        return KvError::errorWithDomain(ErrorDomain::WebDAV, reply.curlCode,
                                        fmt::format("{}: {}", what, reply.curlMessage),
                                        ErrorKind::Connection);
    switch (reply.status) {
        case 404:
        case 410:
            return KvError::errorWithDomain(ErrorDomain::WebDAV, ErrorCode::NotFound,
                                            "File not found!", ErrorKind::NotFound);
        case 401:
        case 403:
            return KvError::errorWithDomain(
                ErrorDomain::WebDAV, code,
                fmt::format("{}: the server refused (HTTP {})", what, reply.status),
                ErrorKind::PermissionDenied);
        case 405:
        case 412:
            return KvError::errorWithDomain(
                ErrorDomain::WebDAV, code,
                fmt::format("{}: the item exists already or cannot be made (HTTP {})", what,
                            reply.status),
                ErrorKind::AlreadyExists);
        case 507:
            return KvError::errorWithDomain(ErrorDomain::WebDAV, code,
                                            fmt::format("{}: no space left on the server", what),
                                            ErrorKind::NoSpace);
        default:
            return KvError::errorWithDomain(
                ErrorDomain::WebDAV, code,
                fmt::format("{}: the server answered HTTP {}", what, reply.status),
                ErrorKind::Other);
    }
}

KvMetadata WebdavWrapper::rootFolder() {
    std::string path = StringUtils::trim(serverInfo()->valueForKey(ServerProp::PATH).value_or(""));
    KvMetadata root(trimmedSlashes(path));
    root.isDir = true;
    root.protocolType = serverInfo()->protocolType;
    root.serverID = serverInfo()->serverID;
    root.setName(root.pathOrEmpty() == "/" ? std::string("/")
                                           : StringUtils::lastPathComponent(root.pathOrEmpty()));
    return root;
}

Status WebdavWrapper::signInSync() {
    auto r = propfind(rootFolder().pathOrEmpty(), true);
    if (!r) return std::unexpected(r.error());
    return {};
}

// --- Listing

Result<KvMetadataList> WebdavWrapper::parseMultistatus(const std::string& xml,
                                                       const std::string& folderPath,
                                                       bool includeHidden,
                                                       const std::string& serverID, bool keepSelf) {
    auto bad = [](std::string_view why) {
        return KvError::fail(ErrorDomain::WebDAV, -1,
                             fmt::format("The server's listing cannot be read: {}", why),
                             ErrorKind::Other);
    };
    if (xml.size() > static_cast<std::size_t>(INT32_MAX)) return bad("too large");
    // No network, no entity expansion: a reply names nothing this program would fetch.
    std::unique_ptr<xmlDoc, void (*)(xmlDoc*)> doc(
        xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "propfind.xml", nullptr,
                      XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING),
        xmlFreeDoc);
    if (!doc) return bad("not XML");
    xmlNode* root = xmlDocGetRootElement(doc.get());
    if (!isDav(root, "multistatus")) return bad("not a multistatus reply");
    const std::string self = trimmedSlashes(folderPath);
    KvMetadataList items;
    for (xmlNode* response = root->children; response; response = response->next) {
        if (!isDav(response, "response")) continue;
        std::string href;
        bool isDir = false, found = false;
        std::optional<std::uint64_t> size;
        std::optional<std::chrono::system_clock::time_point> modified;
        std::optional<std::string> etag;
        for (xmlNode* part = response->children; part; part = part->next) {
            if (isDav(part, "href")) href = textOf(part);
            if (!isDav(part, "propstat")) continue;
            xmlNode* prop = nullptr;
            bool ok = true;
            for (xmlNode* p = part->children; p; p = p->next) {
                if (isDav(p, "prop")) prop = p;
                if (isDav(p, "status")) ok = textOf(p).find(" 200") != std::string::npos;
            }
            if (!ok || !prop) continue;
            found = true;
            for (xmlNode* p = prop->children; p; p = p->next) {
                if (isDav(p, "resourcetype")) {
                    for (xmlNode* k = p->children; k; k = k->next)
                        if (isDav(k, "collection")) isDir = true;
                } else if (isDav(p, "getcontentlength")) {
                    std::string digits = textOf(p);
                    if (!digits.empty() &&
                        digits.find_first_not_of("0123456789") == std::string::npos &&
                        digits.size() < 20)
                        size = std::stoull(digits);
                } else if (isDav(p, "getlastmodified")) {
                    std::string when = textOf(p);
                    std::time_t t = curl_getdate(when.c_str(), nullptr);
                    if (t > 0) modified = std::chrono::system_clock::from_time_t(t);
                } else if (isDav(p, "getetag")) {
                    etag = textOf(p);
                }
            }
        }
        if (href.empty() || !found) continue;
        // An href is an absolute URL or an absolute path; the name is its last segment.
        if (auto scheme = href.find("://"); scheme != std::string::npos) {
            auto slash = href.find('/', scheme + 3);
            href = slash == std::string::npos ? "/" : href.substr(slash);
        }
        if (auto query = href.find_first_of("?#"); query != std::string::npos) href.resize(query);
        std::string path = unescape(href);
        if (path.find('\0') != std::string::npos) continue;
        if (path.size() > 1 && path.back() == '/') isDir = true;
        path = trimmedSlashes(path);
        bool isSelf = path == self;
        if (isSelf && !keepSelf) continue;
        std::string name = path == "/" ? "/" : path.substr(path.find_last_of('/') + 1);
        // Only the folder's own children: an entry named from elsewhere is left out.
        std::string parent = path.substr(0, path.find_last_of('/'));
        if (!isSelf && (parent.empty() ? std::string("/") : parent) != self) continue;
        if (!isSelf && (name.empty() || name == "." || name == ".." || name == "/")) continue;
        if (!isSelf && !includeHidden && name.starts_with('.')) continue;
        if (keepSelf && !isSelf) continue;
        KvMetadata m(isSelf ? self : joinPath(self, name));
        m.setName(isSelf ? (self == "/" ? std::string("/") : StringUtils::lastPathComponent(self))
                         : name);
        m.isDir = isDir;
        m.serverID = serverID;
        m.protocolType = ProtocolType::WebDAV;
        if (!isDir && size) m.fileSizeInBytes = *size;
        m.timestamp = modified;
        m.etag = etag;
        items.push_back(std::move(m));
    }
    return items;
}

Result<KvMetadataList> WebdavWrapper::propfind(const std::string& path, bool depthZero) {
    Request request;
    request.method = "PROPFIND";
    request.path = trimmedSlashes(path);
    request.headers = {depthZero ? "Depth: 0" : "Depth: 1",
                       "Content-Type: application/xml; charset=utf-8"};
    request.body = kPropfindBody;
    auto reply = perform(request);
    // Some servers want the trailing slash of a folder and redirect without it.
    if (reply.curlCode == CURLE_OK && (reply.status == 301 || reply.status == 302) &&
        request.path != "/") {
        request.path += "/";
        reply = perform(request);
    }
    if (reply.curlCode != CURLE_OK || reply.status != 207)
        return std::unexpected(errorOf(reply, ErrorCode::NotFound, "Listing " + request.path));
    auto items =
        parseMultistatus(reply.body, request.path, depthZero ? true : includesHiddenFiles(),
                         serverInfo()->serverID, depthZero);
    if (items)
        for (auto& m : *items) m.protocolType = serverInfo()->protocolType;
    return items;
}

Result<KvMetadataList> WebdavWrapper::contentsOfDirectoryAtPathSync(const KvMetadata& folder) {
    std::string path = folder.pathOrEmpty();
    if (path.empty()) path = rootFolder().pathOrEmpty();
    auto items = propfind(path, false);
    if (cancelled()) return std::unexpected(cancelledError());
    return items;
}

Result<KvMetadata> WebdavWrapper::metadataOfItemSync(const KvMetadata& item) {
    std::string path = trimmedSlashes(item.pathOrEmpty());
    auto found = propfind(path, true);
    if (!found) {
        if (found.error().is(ErrorKind::NotFound) || found.error().code == ErrorCode::NotFound)
            return KvError::fail(ErrorDomain::WebDAV, ErrorCode::NotFound, "File not found!",
                                 ErrorKind::NotFound);
        return std::unexpected(found.error());
    }
    if (found->empty())
        return KvError::fail(ErrorDomain::WebDAV, ErrorCode::NotFound, "File not found!",
                             ErrorKind::NotFound);
    return found->front();
}

// --- Transfers

Status WebdavWrapper::downloadSync(const KvMetadata& file, const std::string& saveTo,
                                   const ProgressHandler& progress) {
    if (file.isDir)
        return KvError::fail(ErrorDomain::WebDAV, ErrorCode::DownloadFailed,
                             "Internal Error: download folder");
    if (cancelled()) return std::unexpected(cancelledError());
    std::string path = trimmedSlashes(file.pathOrEmpty());
    std::FILE* out = std::fopen(saveTo.c_str(), "wb");
    if (!out)
        return KvError::fail(ErrorDomain::WebDAV, ErrorCode::DownloadFailed,
                             fmt::format("Cannot write {}: {}", saveTo, std::strerror(errno)));
    std::int64_t done = 0;
    std::optional<Error> failure;
    bool writeFailed = false;
    for (int attempt = 0; attempt < maxAttempts_; ++attempt) {
        if (attempt > 0) {
            std::this_thread::sleep_for(retryPause_);
            if (cancelled()) break;
        }
        Request request;
        request.path = path;
        if (done > 0) request.headers.push_back(fmt::format("Range: bytes={}-", done));
        request.sink = [&](const char* data, std::size_t size) {
            if (std::fwrite(data, 1, size, out) != size) {
                writeFailed = true;
                return false;
            }
            done += static_cast<std::int64_t>(size);
            return true;
        };
        std::int64_t before = done;
        // Progress in whole-file terms: what arrived before this attempt counts too.
        if (progress)
            request.progress = [progress, before](std::int64_t now, std::int64_t all) {
                progress(before + now, before + all);
            };
        auto reply = perform(request);
        if (writeFailed) {
            failure =
                KvError::errorWithDomain(ErrorDomain::WebDAV, ErrorCode::DownloadFailed,
                                         fmt::format("Cannot write {}", saveTo), ErrorKind::Other);
            break;
        }
        if (reply.curlCode == CURLE_OK && done > 0 && before > 0 && reply.status == 200) {
            // The server ignored the Range: the file starts again from its first byte.
            failure =
                KvError::errorWithDomain(ErrorDomain::WebDAV, ErrorCode::DownloadFailed,
                                         "The server cannot continue a download", ErrorKind::Other);
            break;
        }
        if (reply.curlCode == CURLE_OK && (reply.status == 200 || reply.status == 206)) {
            failure.reset();
            break;
        }
        if (reply.curlCode == CURLE_OK && reply.status == 416 && before > 0) {
            failure.reset();  // everything had arrived
            break;
        }
        failure = errorOf(reply, ErrorCode::DownloadFailed, "Downloading " + path);
        if (!failure->is(ErrorKind::Connection) || cancelled()) break;
    }
    bool closed = std::fclose(out) == 0;
    if (!failure && !closed)
        failure = KvError::errorWithDomain(ErrorDomain::WebDAV, ErrorCode::DownloadFailed,
                                           "Cannot write " + saveTo, ErrorKind::Other);
    if (!failure && cancelled()) failure = cancelledError();
    if (failure) {
        ::unlink(saveTo.c_str());
        return std::unexpected(*failure);
    }
    if (progress) GCD::doInForeground([progress, done] { progress(done, done); });
    return {};
}

Status WebdavWrapper::uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                                 const ProgressHandler& progress) {
    if (cancelled()) return std::unexpected(cancelledError());
    std::string local = localFile.localPath.value_or(localFile.pathOrEmpty());
    std::string name = localFile.nameIgnoreLinkResolve().value_or("");
    if (name.empty()) name = StringUtils::lastPathComponent(local);
    std::string folder = toFolder.pathOrEmpty();
    if (folder.empty()) folder = rootFolder().pathOrEmpty();
    std::string target = joinPath(folder, name);
    std::FILE* in = std::fopen(local.c_str(), "rb");
    if (!in)
        return KvError::fail(ErrorDomain::WebDAV, ErrorCode::UploadFailed,
                             fmt::format("Cannot read {}: {}", local, std::strerror(errno)));
    struct stat st {};
    ::fstat(::fileno(in), &st);
    // The body goes to a hidden name beside the target and replaces it only once complete:
    // servers that write a PUT straight into place would otherwise leave a broken file.
    const std::string temporary = joinPath(folder, "." + name + ".quillon-upload");
    Request request;
    request.method = "PUT";
    request.path = temporary;
    request.upload = in;
    request.uploadSize = st.st_size;
    request.progress = progress;
    auto reply = perform(request);
    std::fclose(in);
    // A server may go on with an aborted request for a moment, and refuses to delete a file that
    // is still being written: asked again until the partial file is gone, for a bounded time.
    auto discard = [&] {
        bool wasCancelled = cancelled();
        setCancelled(false);
        for (int attempt = 0; attempt < 50; ++attempt) {
            if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(200));
            Request remove;
            remove.method = "DELETE";
            remove.path = temporary;
            remove.noBody = true;
            auto removed = perform(remove);
            if (removed.curlCode != CURLE_OK) break;
            if (removed.status == 404) {
                auto still = propfind(temporary, true);
                if (!still && still.error().is(ErrorKind::NotFound)) break;
            }
        }
        setCancelled(wasCancelled);
    };
    if (reply.curlCode != CURLE_OK || reply.status < 200 || reply.status >= 300) {
        auto e = errorOf(reply, ErrorCode::UploadFailed, "Uploading " + target);
        // 409: the folder is missing.
        if (reply.curlCode == CURLE_OK && reply.status == 409)
            e = KvError::errorWithDomain(ErrorDomain::WebDAV, ErrorCode::UploadFailed,
                                         "The folder does not exist", ErrorKind::NotFound);
        if (reply.curlCode != CURLE_OK) discard();
        return std::unexpected(e);
    }
    Request move;
    move.method = "MOVE";
    move.path = temporary;
    move.headers = {"Destination: " + urlOf(target), "Overwrite: T"};
    move.noBody = true;
    reply = perform(move);
    if (reply.curlCode != CURLE_OK || reply.status < 200 || reply.status >= 300) {
        auto e = errorOf(reply, ErrorCode::UploadFailed, "Replacing " + target);
        discard();
        return std::unexpected(e);
    }
    if (progress && st.st_size > 0) {
        auto size = static_cast<std::int64_t>(st.st_size);
        GCD::doInForeground([progress, size] { progress(size, size); });
    }
    return {};
}

Status WebdavWrapper::moveSync(const KvMetadata& item, const KvMetadata& to) {
    Request request;
    request.method = "MOVE";
    request.path = trimmedSlashes(item.pathOrEmpty());
    std::string dest = trimmedSlashes(to.pathOrEmpty());
    if (item.isDir) {
        request.path += "/";
        dest += "/";
    }
    request.headers = {"Destination: " + urlOf(dest), "Overwrite: F"};
    request.noBody = true;
    auto reply = perform(request);
    if (reply.curlCode == CURLE_OK && reply.status >= 200 && reply.status < 300) return {};
    return std::unexpected(errorOf(reply, ErrorCode::MoveFailed, "Moving " + request.path));
}

Status WebdavWrapper::copySync(const KvMetadata& item, const KvMetadata& to) {
    Request request;
    request.method = "COPY";
    request.path = trimmedSlashes(item.pathOrEmpty());
    std::string dest = trimmedSlashes(to.pathOrEmpty());
    if (item.isDir) {
        request.path += "/";
        dest += "/";
    }
    request.headers = {"Destination: " + urlOf(dest), "Overwrite: F", "Depth: infinity"};
    request.noBody = true;
    auto reply = perform(request);
    if (reply.curlCode == CURLE_OK && reply.status >= 200 && reply.status < 300) return {};
    return std::unexpected(errorOf(reply, ErrorCode::CrossCopyFailed, "Copying " + request.path));
}

Status WebdavWrapper::removeSync(const KvMetadataList& items) {
    for (auto& item : items) {
        if (cancelled()) return std::unexpected(cancelledError());
        Request request;
        request.method = "DELETE";
        request.path = trimmedSlashes(item.pathOrEmpty());
        if (item.isDir) request.path += "/";
        request.noBody = true;
        auto reply = perform(request);
        if (reply.curlCode != CURLE_OK || reply.status < 200 || reply.status >= 300 ||
            reply.status == 207)
            return std::unexpected(
                errorOf(reply, ErrorCode::DeleteFailed, "Deleting " + request.path));
    }
    return {};
}

Status WebdavWrapper::createFolderSync(const KvMetadata& folder) {
    Request request;
    request.method = "MKCOL";
    request.path = trimmedSlashes(folder.pathOrEmpty()) + "/";
    request.noBody = true;
    auto reply = perform(request);
    if (reply.curlCode == CURLE_OK && reply.status >= 200 && reply.status < 300) return {};
    if (reply.curlCode == CURLE_OK && reply.status == 409)
        return KvError::fail(ErrorDomain::WebDAV, ErrorCode::CreateFolderFailed,
                             "The parent folder does not exist", ErrorKind::NotFound);
    return std::unexpected(
        errorOf(reply, ErrorCode::CreateFolderFailed, "Creating " + request.path));
}

// --- Streaming

Status WebdavWrapper::initStreamFileMeta(const KvMetadata& file) {
    auto item = metadataOfItemSync(file);
    if (!item) return std::unexpected(item.error());
    if (item->isDir)
        return KvError::fail(ErrorDomain::WebDAV, ErrorCode::DownloadFailed,
                             "Internal Error: download folder");
    streamFile_ = *item;
    contentLength_ = item->fileSizeInBytes.value_or(0);
    offset_ = 0;
    return {};
}

Status WebdavWrapper::readRange(std::uint64_t from, std::optional<std::uint64_t> length,
                                const std::function<bool(const Bytes&)>& handler) {
    if (!streamFile_)
        return KvError::fail(ErrorDomain::WebDAV, ErrorCode::DownloadFailed,
                             "No file opened for streaming");
    Request request;
    request.path = streamFile_->pathOrEmpty();
    request.headers.push_back(length ? fmt::format("Range: bytes={}-{}", from, from + *length - 1)
                                     : fmt::format("Range: bytes={}-", from));
    bool ignoredRange = false;
    request.sink = [&](const char* data, std::size_t size) {
        Bytes chunk(reinterpret_cast<const std::uint8_t*>(data),
                    reinterpret_cast<const std::uint8_t*>(data) + size);
        return handler(chunk);
    };
    auto reply = perform(request);
    if (reply.curlCode == CURLE_OK && reply.status == 200 && from > 0) ignoredRange = true;
    if (ignoredRange)
        return KvError::fail(ErrorDomain::WebDAV, ErrorCode::DownloadFailed,
                             "The server cannot read from an offset");
    if (reply.curlCode == CURLE_OK &&
        (reply.status == 200 || reply.status == 206 || reply.status == 416))
        return {};
    return std::unexpected(errorOf(reply, ErrorCode::DownloadFailed, "Reading " + request.path));
}

Result<Bytes> WebdavWrapper::readDataOfLength(std::uint64_t length) {
    return StreamingSupport::readDataOfLength(
        *this, streamFile_, offset_, length, [this](std::uint64_t from, std::uint64_t count) {
            return StreamingSupport::collectBlocks(
                count, [&](const auto& handler) { return readRange(from, count, handler); });
        });
}

Status WebdavWrapper::readDataFromOffsetToEnd(std::int64_t start,
                                              const std::function<bool(const Bytes&)>& handler) {
    return readRange(static_cast<std::uint64_t>(std::max<std::int64_t>(0, start)), std::nullopt,
                     handler);
}

}  // namespace quillon
