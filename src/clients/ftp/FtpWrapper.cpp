#include "clients/ftp/FtpWrapper.h"

#include <curl/curl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <charconv>
#include <ctime>
#include <map>
#include <thread>

#include "clients/ftp/FTPDirListParser.h"
#include "core/AppPreference.h"
#include "core/GCD.h"
#include "core/StreamingSupport.h"
#include "core/StringUtils.h"
#include "core/ThumbnailSupport.h"

namespace quillon {

namespace {

constexpr std::int64_t kResumeStepBack = 10240;
constexpr int kMaxAttempts = 10;
constexpr std::int64_t kFineProgressAbove = 524288000;  // 500 MiB: 1000 steps instead of 100
constexpr int kStreamingPort = 21901;

FtpWrapper::Operation& opOf(void* self) {
    return *static_cast<FtpWrapper::Operation*>(self);
}
size_t headerCb(char* d, size_t s, size_t n, void* self) {
    return opOf(self).client->onHeader(opOf(self), d, s * n);
}
size_t bodyCb(char* d, size_t s, size_t n, void* self) {
    return opOf(self).client->onBody(opOf(self), d, s * n);
}
size_t fileWriteCb(char* d, size_t s, size_t n, void* self) {
    return opOf(self).client->onFileWrite(opOf(self), d, s * n);
}
size_t fileReadCb(char* d, size_t s, size_t n, void* self) {
    return opOf(self).client->onFileRead(opOf(self), d, s * n);
}
size_t streamCb(char* d, size_t s, size_t n, void* self) {
    return opOf(self).client->onStreamData(opOf(self), d, s * n);
}
int streamProgressCb(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return opOf(self).client->onStreamProgress(opOf(self));
}
int progressCb(void* self, curl_off_t dt, curl_off_t dn, curl_off_t ut, curl_off_t un) {
    return opOf(self).client->onProgress(opOf(self), dt, dn, ut, un);
}
int seekCb(void* stream, curl_off_t offset, int origin) {
    return ::fseeko(static_cast<std::FILE*>(stream), offset, origin) == 0 ? CURL_SEEKFUNC_OK
                                                                          : CURL_SEEKFUNC_CANTSEEK;
}

std::string parentPath(const std::string& path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return {};
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

}  // namespace

FtpWrapper::FtpWrapper(ServerInfoPtr serverInfo) : Wrapper(std::move(serverInfo)) {}

FtpWrapper::~FtpWrapper() = default;

WrapperCapabilities FtpWrapper::capabilities() const {
    WrapperCapabilities c;
    c.streaming = true;
    c.readFromOffsetToEnd = true;
    c.checksUploadSize = true;
    return c;
}

void FtpWrapper::deliverCompletion(std::function<void()> fn) {
    fn();
}

bool FtpWrapper::includesHiddenFiles() const {
    return forceIncludesHiddenFiles() ||
           AppPreference::sharedAppPreference().boolForKey(PrefKey::SYS_SHOW_HIDDEN_FILES);
}

Status FtpWrapper::probe(bool forListing) {
    bool probed;
    {
        auto recordLock = lockRecord();
        auto& info = *serverInfo();
        probed = forListing ? info.supportMLSD.has_value() : info.supportUTF8.has_value();
    }
    if (!probed) {
        sendFEATCommand();
        if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Operation cancelled");
    }
    if (canSendUTF8Command()) {
        sendUTF8Command();
        if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Operation cancelled");
    }
    return {};
}

Status FtpWrapper::signInSync() {
    auto reply = curl_runCommandWithoutBody("FEAT", baseServerPath());
    if (!reply) return std::unexpected(reply.error());
    sendFEATCommand();
    return {};
}

void FtpWrapper::signOut() {}

void FtpWrapper::cancelOperation() {
    Wrapper::cancelOperation();
}

KvMetadata FtpWrapper::rootFolder() {
    auto recordLock = lockRecord();
    auto& info = *serverInfo();
    std::string path = StringUtils::trim(info.valueForKey(ServerProp::PATH).value_or(""));
    // An empty setting means the login folder; the first listing learns its name from PWD.
    if (path.empty()) info.needRunPWD = true;
    KvMetadata root(path);
    root.isDir = true;
    root.protocolType = ProtocolType::FTP;
    root.serverID = info.serverID;
    if (path.empty() || path == "/") root.setName(std::string("/"));
    return root;
}

// --- Listing

Result<KvMetadataList> FtpWrapper::contentsOfDirectoryAtPathSync(const KvMetadata& folder) {
    (void)probe(true);
    if (cancelled()) return KvMetadataList{};
    auto result = features().mlsd ? mlsdCmd(folder) : listCmd(folder);
    if (!result) {
        if (result.error().code == CURLE_REMOTE_ACCESS_DENIED && isMissing(folder)) {
            result.error().code = ErrorCode::NotFound;
            result.error().kind = ErrorKind::NotFound;
        }
        return result;
    }
    if (cancelled()) return KvMetadataList{};
    folderList_ = *result;
    return result;
}

Result<KvMetadata> FtpWrapper::metadataOfItemSync(const KvMetadata& item) {
    std::string path = item.pathOrEmpty();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (path.empty() || path == "/") return rootFolder();
    if (auto s = probe(true); !s) return std::unexpected(s.error());
    auto record = [&](KvMetadata m) {
        m.setPath(path);
        m.setName(StringUtils::lastPathComponent(path));
        m.serverID = serverInfo()->serverID;
        m.protocolType = ProtocolType::FTP;
        return m;
    };
    if (features().mlsd) {
        auto reply = curl_runCommandWithoutBody("MLST " + path, baseServerPath());
        if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Operation cancelled");
        if (reply) {
            // "250-..." then one line of facts, led by a blank, then "250 ...".
            std::optional<KvMetadata> found;
            std::string_view text = *reply;
            bool inReply = false;
            while (!text.empty()) {
                auto nl = text.find('\n');
                auto line = text.substr(0, nl);
                text = nl == std::string_view::npos ? std::string_view{} : text.substr(nl + 1);
                if (line.starts_with("250-")) {
                    inReply = true;
                } else if (inReply && line.starts_with(' ')) {
                    // The item itself may be typed as the current folder.
                    std::string facts(line.substr(1));
                    auto lowered = StringUtils::toLower(facts);
                    if (auto at = lowered.find("type=cdir;"); at != std::string::npos)
                        facts.replace(at, 10, "type=dir;");
                    found = FTPDirListParser::parseMlsdLine(facts);
                    inReply = false;
                } else {
                    inReply = false;
                }
            }
            if (found) return record(*found);
        }
    } else {
        auto size = curl_runCommandWithoutBody("SIZE " + path, baseServerPath());
        if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Operation cancelled");
        std::optional<std::uint64_t> bytes;
        if (size) {
            auto at = size->rfind("213 ");
            if (at != std::string::npos) {
                std::uint64_t n = 0;
                auto digits = std::string_view(*size).substr(at + 4);
                auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), n);
                if (ec == std::errc() && end != digits.data()) bytes = n;
            }
        }
        if (bytes) {
            // Servers answer SIZE for files only.
            KvMetadata m;
            m.fileSizeInBytes = *bytes;
            KvMetadata file(path);
            if (auto when = modificationTimeSync(file); when && *when) m.timestamp = **when;
            if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Operation cancelled");
            return record(std::move(m));
        }
    }
    // Folders, missing items and servers that answer neither: the parent's listing decides.
    auto listed = Wrapper::metadataOfItemSync(item);
    if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Operation cancelled");
    return listed;
}

bool FtpWrapper::isMissing(const KvMetadata& item) {
    // A refused CWD reads the same for a missing folder and a forbidden one: the parent's
    // listing tells them apart.
    std::string path = item.pathOrEmpty();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (path.empty() || path == "/") return false;
    KvMetadata parent(parentPath(path));
    parent.isDir = true;
    bool previous = forceIncludesHiddenFiles();
    setForceIncludesHiddenFiles(true);
    auto siblings = features().mlsd ? mlsdCmd(parent) : listCmd(parent);
    setForceIncludesHiddenFiles(previous);
    if (!siblings) return false;
    std::string name = StringUtils::lastPathComponent(path);
    for (auto& s : *siblings)
        if (s.nameIgnoreLinkResolve() == name) return false;
    return true;
}

Result<KvMetadataList> FtpWrapper::mlsdCmd(const KvMetadata& folder) {
    return listDir(folder, "MLSD");
}

Result<KvMetadataList> FtpWrapper::listCmd(const KvMetadata& folder) {
    return listDir(folder);
}

Result<KvMetadataList> FtpWrapper::listDir(const KvMetadata& folder, const char* customRequest) {
    std::string path = folder.pathOrEmpty();
    if (auto s = refuseUnsafe(path); !s) return std::unexpected(s.error());
    auto conn = retrieveFTPConnection();
    if (!conn) return std::unexpected(conn.error());
    Operation op{this, *conn};
    op.item = path;
    CURL* curl = (*conn)->curl();
    resetCURL(op);
    // A trailing "/" makes libcurl list the folder instead of fetching a file of that name.
    std::string urlPath = path;
    if (!urlPath.empty() && urlPath.back() != '/') urlPath += '/';
    std::string url = cStringForURL(FTPUrlString(urlPath));
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &op);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, bodyCb);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &op);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, headerCb);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
    if (customRequest) curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, customRequest);
    op.direction_ = Direction::None;
    int rc = runCurlEasyPerform(op);
    std::string body = std::move(op.data_);

    // The folder's absolute name, asked on the same control connection: the quoted PWD runs
    // before libcurl changes folder, so the server is still in the folder just listed.
    std::optional<std::string> pwd;
    auto& info = *serverInfo();
    bool needPwd;
    {
        auto recordLock = lockRecord();
        needPwd = info.needRunPWD;
    }
    if ((rc == CURLE_OK || rc == CURLE_REMOTE_FILE_NOT_FOUND) && !cancelled() &&
        (needPwd || path.empty() || path[0] != '/')) {
        resetCURL(op);
        std::string base = cStringForURL(FTPUrlString(baseServerPath()));
        curl_slist* list = curl_slist_append(nullptr, "PWD");
        curl_easy_setopt(curl, CURLOPT_URL, base.c_str());
        curl_easy_setopt(curl, CURLOPT_QUOTE, list);
        curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        curl_easy_setopt(curl, CURLOPT_HEADERDATA, &op);
        curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, headerCb);
        if ((*conn)->perform(stopWhenCancelled()) == CURLE_OK) {
            // The last 257 line is the reply to our PWD (libcurl runs one of its own at login).
            auto text = stringForHeaderResp(op);
            auto at = text.rfind("257 ");
            if (at != std::string::npos) {
                auto q1 = text.find('"', at);
                auto q2 = q1 == std::string::npos ? q1 : text.find('"', q1 + 1);
                if (q2 != std::string::npos) pwd = text.substr(q1 + 1, q2 - q1 - 1);
            }
        }
        curl_easy_setopt(curl, CURLOPT_QUOTE, nullptr);
        curl_slist_free_all(list);
        auto recordLock = lockRecord();
        info.needRunPWD = false;
    }
    recycleFTPConnection(*conn, rc);
    if (cancelled()) return KvMetadataList{};
    if (rc != CURLE_OK && rc != CURLE_REMOTE_FILE_NOT_FOUND)
        return std::unexpected(curlError(rc, errorBuffer, op, true));

    std::string folderPath = path;
    if (pwd && !pwd->empty() && *pwd != path) folderPath = *pwd;
    FTPDirListParser::Options options;
    options.folderPath = folderPath;
    options.serverID = info.serverID;
    options.includeHidden = includesHiddenFiles();
    std::string text = decodeFromServer(body);
    if (customRequest && std::string_view(customRequest) == "MLSD")
        return FTPDirListParser::parseMlsd(text, options);
    return FTPDirListParser::parse(text, options);
}

std::size_t FtpWrapper::onBody(Operation& op, const char* data, std::size_t size) {
    if (cancelled()) return 0;
    op.data_.append(data, size);
    return size;
}

// --- Progress

int FtpWrapper::onProgress(Operation& op, std::int64_t dltotal, std::int64_t dlnow,
                           std::int64_t ultotal, std::int64_t ulnow) {
    if (cancelled()) return 1;
    std::int64_t total = op.direction_ == Direction::Upload ? ultotal : dltotal;
    std::int64_t now = op.direction_ == Direction::Upload ? ulnow : dlnow;
    if (total == 0 || now == total) return 0;
    if (op.skipProgressUpdate_) return 0;
    if (op.totalDlSize_ == -1) op.totalDlSize_ = total + op.finishedDlSize_;
    if (op.totalDlSize_ <= 0) return 0;
    std::int64_t scale = op.totalDlSize_ > kFineProgressAbove ? 1000 : 100;
    std::int64_t done = op.finishedDlSize_ + now;
    int step = static_cast<int>(scale * done / op.totalDlSize_);
    if (step != op.currentProgress_) {
        op.currentProgress_ = step;
        postProgress(op, done, op.totalDlSize_);
    }
    return 0;
}

void FtpWrapper::finishProgress(Operation& op, std::int64_t total) {
    if (total <= 0 || op.skipProgressUpdate_) return;
    std::int64_t scale = total > kFineProgressAbove ? 1000 : 100;
    // libcurl's last report comes with done equal to total, which the callback passes over: the
    // final step is reported here, once the transfer is known to be complete.
    if (op.currentProgress_ == static_cast<int>(scale)) return;
    op.currentProgress_ = static_cast<int>(scale);
    postProgress(op, total, total);
}

void FtpWrapper::postProgress(Operation& op, std::int64_t done, std::int64_t total) {
    auto handler = op.progress_;
    if (!handler) return;
    GCD::doInForeground([handler, done, total] { handler(done, total); });
}

// --- Download

Status FtpWrapper::downloadSync(const KvMetadata& file, const std::string& saveTo,
                                const ProgressHandler& progress) {
    if (file.isDir) return ftpFailure(ErrorCode::DownloadFailed, "Internal Error: download folder");
    if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Download Canncelled");
    if (auto s = probe(false); !s) return s;
    auto result = downloadFile(file, saveTo, 0, progress);
    // A file that did not arrive whole must not look as if it had.
    if (!result) ::unlink(saveTo.c_str());
    return result;
}

std::size_t FtpWrapper::onFileWrite(Operation& op, const char* data, std::size_t size) {
    if (cancelled() || !op.file_) return 0;
    return std::fwrite(data, 1, size, op.file_);
}

void FtpWrapper::watchTransfer(Operation& op, char* errorBuffer) {
    CURL* curl = op.connection->curl();
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &op);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, headerCb);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &op);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, progressCb);
}

bool FtpWrapper::pauseBeforeRetry() {
    for (auto waited = std::chrono::milliseconds(0); waited < retryDelay_ && !cancelled();
         waited += std::chrono::milliseconds(50))
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return !cancelled();
}

Status FtpWrapper::downloadFile(const KvMetadata& file, const std::string& saveTo,
                                std::int64_t resumeFrom, const ProgressHandler& progress) {
    Operation op{this, nullptr};
    op.progress_ = progress;
    std::string path = file.pathOrEmpty();
    op.item = path;
    if (auto s = refuseUnsafe(path); !s) return s;
    std::FILE* f = nullptr;
    if (resumeFrom > 0) {
        f = std::fopen(saveTo.c_str(), "r+b");
        if (f && ::fseeko(f, resumeFrom, SEEK_SET) != 0) {
            std::fclose(f);
            f = nullptr;
        }
    }
    if (!f) {
        resumeFrom = 0;
        f = std::fopen(saveTo.c_str(), "wb");
    }
    if (!f) return ftpFailure(ErrorCode::DownloadFailed, "Cannot open file to write");
    op.file_ = f;
    op.currentProgress_ = -1;
    op.totalDlSize_ = -1;
    op.finishedDlSize_ = resumeFrom;

    auto conn = retrieveFTPConnection();
    if (!conn) {
        std::fclose(op.file_);
        op.file_ = nullptr;
        return std::unexpected(conn.error());
    }
    op.connection = *conn;
    CURL* curl = (*conn)->curl();
    resetCURL(op);
    std::string url = cStringForURL(FTPUrlString(path));
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(resumeFrom));
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &op);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, fileWriteCb);
    watchTransfer(op, errorBuffer);
    op.direction_ = Direction::Download;

    // The listed size is what the file must come to: a server may end the transfer early, or
    // answer SIZE wrongly, and still report success. A short file is resumed like a broken
    // transfer; a long one fails. (A link is listed with its own size, not its target's.)
    std::optional<std::int64_t> expected;
    if (file.fileSizeInBytes && !file.isSymbolLink)
        expected = static_cast<std::int64_t>(*file.fileSizeInBytes);
    auto checked = [&](int rc) -> int {
        if (rc != CURLE_OK || !expected || cancelled()) return rc;
        std::fflush(op.file_);
        std::int64_t got = ::ftello(op.file_);
        if (got == *expected) return rc;
        std::snprintf(errorBuffer, CURL_ERROR_SIZE, "Received %lld bytes of the %lld listed",
                      static_cast<long long>(got), static_cast<long long>(*expected));
        return got < *expected ? CURLE_PARTIAL_FILE : CURLE_FILESIZE_EXCEEDED;
    };
    int rc = checked(runCurlEasyPerform(op));
    int attempts = 1;
    while (rc == CURLE_PARTIAL_FILE && attempts < kMaxAttempts && !cancelled()) {
        // Re-fetch the last 10 KB written, on the chance that they were damaged.
        std::fflush(op.file_);
        std::int64_t pos = std::max<std::int64_t>(0, ::ftello(op.file_) - kResumeStepBack);
        ::fseeko(op.file_, pos, SEEK_SET);
        if (::ftruncate(::fileno(op.file_), pos) != 0) break;
        op.finishedDlSize_ = pos;
        if (!pauseBeforeRetry()) break;
        curl_easy_setopt(curl, CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(pos));
        rc = checked(runCurlEasyPerform(op));
        ++attempts;
    }
    recycleFTPConnection(*conn, rc);
    std::fclose(op.file_);
    op.file_ = nullptr;
    op.direction_ = Direction::None;

    if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Download Canncelled");
    if (rc == CURLE_OK) {
        curl_off_t got = 0;
        curl_easy_getinfo(curl, CURLINFO_SIZE_DOWNLOAD_T, &got);
        finishProgress(op, op.totalDlSize_ > 0 ? op.totalDlSize_ : op.finishedDlSize_ + got);
        return {};
    }
    if (rc == CURLE_REMOTE_FILE_NOT_FOUND) {
        auto e = curlError(rc, errorBuffer, op);
        e.code = ErrorCode::NotFound;
        e.reason = "File not found, check permission";
        return std::unexpected(e);
    }
    return std::unexpected(curlError(rc, errorBuffer, op));
}

// --- Upload

Status FtpWrapper::uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                              const ProgressHandler& progress) {
    if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Upload Cancelled");
    if (auto s = probe(false); !s) return s;
    return uploadFileForFTP(localFile, toFolder, std::nullopt, 0, progress);
}

std::size_t FtpWrapper::onFileRead(Operation& op, char* buffer, std::size_t size) {
    if (cancelled()) return CURL_READFUNC_ABORT;
    if (!op.file_) return CURL_READFUNC_ABORT;
    std::size_t n = std::fread(buffer, 1, size, op.file_);
    if (n == 0 && std::ferror(op.file_)) return CURL_READFUNC_ABORT;
    return n;
}

Status FtpWrapper::uploadFileForFTP(const KvMetadata& localFile, const KvMetadata& toFolder,
                                    const std::optional<std::string>& serverFileName,
                                    std::int64_t resumeFrom, const ProgressHandler& progress) {
    Operation op{this, nullptr};
    op.progress_ = progress;
    std::string localPath = localFile.pathOrEmpty();
    std::string name = serverFileName.value_or(StringUtils::lastPathComponent(localPath));
    std::string target = FTPDirListParser::childPath(toFolder.pathOrEmpty(), name);
    if (auto s = refuseUnsafe(target); !s) return s;
    op.item = target;
    std::FILE* f = std::fopen(localPath.c_str(), "rb");
    if (!f) return ftpFailure(ErrorCode::UploadFailed, "Cannot open file to read");
    struct stat st {};
    std::int64_t size = ::fstat(::fileno(f), &st) == 0 ? static_cast<std::int64_t>(st.st_size) : -1;
    op.file_ = f;
    op.currentProgress_ = -1;
    op.totalDlSize_ = size;
    op.finishedDlSize_ = 0;

    auto conn = retrieveFTPConnection();
    if (!conn) {
        std::fclose(op.file_);
        op.file_ = nullptr;
        return std::unexpected(conn.error());
    }
    op.connection = *conn;
    CURL* curl = (*conn)->curl();
    std::string url = cStringForURL(FTPUrlString(target));
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    auto send = [&](curl_off_t from) -> int {
        resetCURL(op);
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_RESUME_FROM_LARGE, from);
        curl_easy_setopt(curl, CURLOPT_READDATA, &op);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, fileReadCb);
        curl_easy_setopt(curl, CURLOPT_SEEKDATA, op.file_);
        curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, seekCb);
        watchTransfer(op, errorBuffer);
        op.direction_ = Direction::Upload;
        int rc = runCurlEasyPerform(op);
        if (rc != CURLE_OK || cancelled() || size < 0) return rc;
        // A server may answer 226 for a data connection that ended early: what counts is the
        // size it holds. A short file is resumed like a broken transfer.
        std::int64_t held = -1;
        if (querySize(op, target, nullptr, held) != CURLE_OK || held < 0 || held == size) return rc;
        std::snprintf(errorBuffer, CURL_ERROR_SIZE, "The server holds %lld of the %lld bytes sent",
                      static_cast<long long>(held), static_cast<long long>(size));
        return held < size ? CURLE_PARTIAL_FILE : CURLE_FILESIZE_EXCEEDED;
    };

    int rc = send(static_cast<curl_off_t>(resumeFrom));
    int attempts = 1;
    while (rc == CURLE_PARTIAL_FILE && attempts < kMaxAttempts && !cancelled()) {
        if (!pauseBeforeRetry()) break;
        // What the server holds is what counts when an upload resumes: libcurl asks its SIZE and
        // appends from there, so no byte is sent twice or skipped.
        rc = send(-1);
        ++attempts;
    }
    recycleFTPConnection(*conn, rc);
    std::fclose(op.file_);
    op.file_ = nullptr;

    if (cancelled()) {
        op.direction_ = Direction::None;
        // What arrived of a cancelled upload is not the file: take it away again.
        if (resumeFrom == 0) {
            // This clean-up is the one request that must run although the wrapper is cancelled.
            cleaningUp_ = true;
            (void)curl_runCommandWithoutBody("DELE " + target, baseServerPath());
            cleaningUp_ = false;
        }
        return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Upload Cancelled");
    }
    if (rc != CURLE_OK) {
        op.direction_ = Direction::None;
        return std::unexpected(curlError(rc, errorBuffer, op));
    }
    finishProgress(op, size);
    op.direction_ = Direction::None;
    if (features().mfmt) {
        struct stat ls {};
        if (::stat(localPath.c_str(), &ls) == 0)
            (void)modifyDateTime(std::chrono::system_clock::from_time_t(ls.st_mtime), target);
    }
    return {};
}

Status FtpWrapper::modifyDateTime(std::chrono::system_clock::time_point time,
                                  const std::string& serverFile) {
    // fmt formats a time point in the local zone: the UTC calendar time is made here.
    std::time_t t =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
    std::tm utc{};
    ::gmtime_r(&t, &utc);
    auto reply = curl_runCommandWithoutBody(fmt::format("MFMT {:%Y%m%d%H%M%S} {}", utc, serverFile),
                                            baseServerPath());
    if (!reply) return std::unexpected(reply.error());
    return {};
}

// --- Commands

Status FtpWrapper::moveSync(const KvMetadata& item, const KvMetadata& to) {
    if (auto s = probe(false); !s) return s;
    // Full paths in RNFR and RNTO: the commands do not depend on the folder the session is in.
    auto reply = runCommandList(
        {fmt::format("RNFR {}", item.pathOrEmpty()), fmt::format("RNTO {}", to.pathOrEmpty())},
        baseServerPath());
    if (!reply) return std::unexpected(reply.error());
    return {};
}

Status FtpWrapper::createFolderSync(const KvMetadata& folder) {
    if (auto s = probe(false); !s) return s;
    auto reply =
        curl_runCommandWithoutBody(fmt::format("MKD {}", folder.pathOrEmpty()), baseServerPath());
    if (reply) return {};
    // Servers refuse a folder whose parent is missing in the words of a denial ("550 MKD
    // command failed."): the missing parent is what a person needs to hear.
    Error error = reply.error();
    std::string path = folder.pathOrEmpty();
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    KvMetadata parent(parentPath(path));
    parent.isDir = true;
    if (!error.is(ErrorKind::Cancelled) && !error.is(ErrorKind::Connection) && !cancelled() &&
        isMissing(parent))
        error.reason = "Its parent folder does not exist";
    return std::unexpected(error);
}

Status FtpWrapper::chmodSync(const KvMetadata& item, const std::string& octalPermissions) {
    if (auto s = probe(false); !s) return s;
    auto reply = curl_runCommandWithoutBody(
        fmt::format("SITE CHMOD {} {}", octalPermissions, item.pathOrEmpty()), baseServerPath());
    if (!reply) return std::unexpected(reply.error());
    return {};
}

Result<std::string> FtpWrapper::currentWorkingDirectory() {
    auto reply = curl_runCommandWithoutBody("PWD", baseServerPath());
    if (!reply) return std::unexpected(reply.error());
    auto at = reply->rfind("257 ");
    if (at == std::string::npos) at = reply->rfind("257-");
    if (at == std::string::npos)
        return ftpFailure(CURLE_WEIRD_SERVER_REPLY, parseErrorInMessage(*reply));
    auto q1 = reply->find('"', at);
    auto q2 = q1 == std::string::npos ? q1 : reply->find('"', q1 + 1);
    if (q2 == std::string::npos) return ftpFailure(CURLE_WEIRD_SERVER_REPLY, "Unknown error!");
    return reply->substr(q1 + 1, q2 - q1 - 1);
}

Result<std::optional<std::chrono::system_clock::time_point>> FtpWrapper::modificationTimeSync(
    const KvMetadata& file) {
    if (auto s = probe(false); !s) return std::unexpected(s.error());
    std::string replies;
    auto reply = curl_runCommandWithoutBodyWithCommandList({"MDTM " + file.pathOrEmpty()},
                                                           baseServerPath(), &replies);
    // Other replies of the request (folder changes, a login) come around the one to MDTM:
    // "213 yyyyMMddHHmmss[.fff]", or a refusal.
    const std::string& text = replies;
    std::string answer, refusal;
    for (std::size_t pos = 0; pos < text.size();) {
        auto nl = text.find('\n', pos);
        auto line = StringUtils::trim(std::string_view(text).substr(
            pos, nl == std::string::npos ? std::string::npos : nl - pos));
        pos = nl == std::string::npos ? text.size() : nl + 1;
        if (line.starts_with("213 "))
            answer = line;
        else if (line.size() >= 4 && (line[0] == '4' || line[0] == '5') && line[3] == ' ')
            refusal = line;
    }
    if (!reply) {
        // Not understood or not implemented: a server without MDTM.
        if (refusal.starts_with("500") || refusal.starts_with("502") || refusal.starts_with("504"))
            return std::optional<std::chrono::system_clock::time_point>();
        return std::unexpected(reply.error());
    }
    std::string_view value =
        std::string_view(answer).substr(std::min<std::size_t>(4, answer.size()));
    auto digits = [&](std::size_t at, std::size_t n) -> int {
        int v = 0;
        for (std::size_t i = at; i < at + n; ++i) {
            if (i >= value.size() || !std::isdigit(static_cast<unsigned char>(value[i]))) return -1;
            v = v * 10 + (value[i] - '0');
        }
        return v;
    };
    int year = digits(0, 4), month = digits(4, 2), day = digits(6, 2), hour = digits(8, 2),
        minute = digits(10, 2), second = digits(12, 2);
    std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month),
                                     std::chrono::day(day)};
    if (year < 0 || month < 0 || day < 0 || hour < 0 || hour > 23 || minute < 0 || minute > 59 ||
        second < 0 || second > 60 || !date.ok())
        return ftpFailure(CURLE_WEIRD_SERVER_REPLY, "Unreadable MDTM reply: " + answer);
    auto when = std::chrono::sys_days(date) + std::chrono::hours(hour) +
                std::chrono::minutes(minute) + std::chrono::seconds(second);
    std::chrono::system_clock::time_point t(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(when.time_since_epoch()));
    // Fractions of a second, when the server gives them.
    if (value.size() > 15 && value[14] == '.') {
        double scale = 0.1, fraction = 0;
        for (std::size_t i = 15;
             i < value.size() && std::isdigit(static_cast<unsigned char>(value[i]));
             ++i, scale /= 10)
            fraction += (value[i] - '0') * scale;
        t += std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::duration<double>(fraction));
    }
    return std::optional<std::chrono::system_clock::time_point>(t);
}

Status FtpWrapper::changeWorkingDirectory(const std::string& path) {
    // libcurl walks into the URL's folder itself and remembers where the session is; a quoted
    // CWD would leave it believing otherwise.
    std::string p = path;
    if (p.empty() || p.back() != '/') p += '/';
    auto reply = curl_runCommandWithoutBodyWithCommandList({}, p);
    if (!reply) return std::unexpected(reply.error());
    return {};
}

std::string FtpWrapper::genDeleteCommand(const KvMetadata& item) const {
    return (item.isDir ? "RMD " : "DELE ") + item.pathOrEmpty();
}

Status FtpWrapper::removeSync(const KvMetadataList& items) {
    if (auto s = probe(false); !s) return s;
    // Files go in one command list per parent folder.
    std::map<std::string, std::vector<std::string>> filesByParent;
    for (auto& item : items)
        if (!item.isDir)
            filesByParent[parentPath(item.pathOrEmpty())].push_back(genDeleteCommand(item));
    for (auto& [parent, commands] : filesByParent) {
        auto reply = runCommandList(commands, baseServerPath());
        if (!reply) return std::unexpected(reply.error());
    }
    for (auto& item : items) {
        if (!item.isDir) continue;
        if (auto s = deleteFolder(item); !s) return s;
    }
    return {};
}

Result<KvMetadataList> FtpWrapper::listing(const KvMetadata& folder, bool forDelete) {
    if (features().mlsd) return mlsdCmd(folder);
    if (forDelete) {
        // Many LIST servers hide dot files unless asked with "-a"; a server that reads "-a" as a
        // name fails, and the plain LIST is used.
        auto all = listDir(folder, "LIST -a");
        if (all) return all;
    }
    return listCmd(folder);
}

Status FtpWrapper::deleteFolder(const KvMetadata& folder) {
    bool previous = forceIncludesHiddenFiles();
    setForceIncludesHiddenFiles(true);
    auto entries = listing(folder, true);
    setForceIncludesHiddenFiles(previous);
    if (!entries) return std::unexpected(entries.error());
    if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Operation cancelled");
    std::vector<std::string> commands;
    for (auto& entry : *entries) {
        if (entry.isDir) {
            if (auto s = deleteFolder(entry); !s) return s;
        } else {
            commands.push_back(genDeleteCommand(entry));
        }
    }
    if (!commands.empty()) {
        auto reply = runCommandList(commands, baseServerPath());
        if (!reply) return std::unexpected(reply.error());
    }
    auto reply =
        curl_runCommandWithoutBody(fmt::format("RMD {}", folder.pathOrEmpty()), baseServerPath());
    if (!reply) return std::unexpected(reply.error());
    return {};
}

// --- Thumbnails and streaming

Status FtpWrapper::downloadThumbnailSync(const KvMetadata& item) {
    if (item.isDir)
        return KvError::fail(ErrorDomain::Local, ErrorCode::NoThumbnail,
                             "Folder has no thumbnail.");
    return ThumbnailSupport::downloadThumbnailSync(*this, item);
}

std::optional<std::string> FtpWrapper::loadStreamableURLForFileSync(const KvMetadata& file) {
    std::string path = file.pathOrEmpty();
    while (!path.empty() && path.front() == '/') path.erase(0, 1);
    // The streaming service, when this program has one, serves the file from then on.
    if (StreamingSupport::installed())
        return StreamingSupport::streamableURL(serverInfo(), file, path);
    return fmt::format("http://{}:{}/{}", "127.0.0.1", kStreamingPort,
                       StringUtils::stringByEscapingForURL(path));
}

Status FtpWrapper::initStreamFileMeta(const KvMetadata& file) {
    if (file.isDir) return ftpFailure(ErrorCode::DownloadFailed, "Internal Error: download folder");
    if (auto s = refuseUnsafe(file.pathOrEmpty()); !s) return s;
    streamFile_ = file;
    offset_ = 0;
    offsetStreaming_ = 0;
    if (file.fileSizeInBytes) {
        contentLength_ = *file.fileSizeInBytes;
        return {};
    }
    // No size in the record: ask the server.
    auto conn = retrieveFTPConnection();
    if (!conn) return std::unexpected(conn.error());
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    std::int64_t length = -1;
    Operation op{this, *conn};
    op.item = file.pathOrEmpty();
    int rc = querySize(op, file.pathOrEmpty(), errorBuffer, length);
    recycleFTPConnection(*conn, rc);
    if (rc != CURLE_OK) return std::unexpected(curlError(rc, errorBuffer, op));
    contentLength_ = length > 0 ? static_cast<std::uint64_t>(length) : 0;
    return {};
}

int FtpWrapper::querySize(Operation& op, const std::string& path, char* errorBuffer,
                          std::int64_t& length) {
    // SIZE, through a request without a body; libcurl hands the size over as a made-up header
    // through the body callback too.
    CURL* curl = op.connection->curl();
    resetCURL(op);
    std::string url = cStringForURL(FTPUrlString(path));
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &op);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, bodyCb);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &op);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, headerCb);
    int rc = runCurlEasyPerform(op);
    curl_off_t got = -1;
    if (rc == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &got);
    length = got;
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
    return rc;
}

namespace {
constexpr std::uint64_t kStreamBlockSize = 524288;
}  // namespace

// libcurl hands what one receive got over in pieces of 16 KiB; a reader (the streaming cache,
// which writes and wakes its readers per block) gets it whole instead: the pieces are gathered
// and handed on after the receive (see onStreamProgress), or when a block is full.
std::size_t FtpWrapper::onStreamData(Operation& op, const char* data, std::size_t size) {
    if (cancelled() || op.streamStopped_) return 0;
    if (!op.recievedDataHandler_) return size;
    if (op.streamBlock_.capacity() < kStreamBlockSize) op.streamBlock_.reserve(kStreamBlockSize);
    op.streamBlock_.insert(op.streamBlock_.end(), reinterpret_cast<const std::uint8_t*>(data),
                           reinterpret_cast<const std::uint8_t*>(data) + size);
    if (op.streamBlock_.size() >= kStreamBlockSize && !flushStreamBlock(op)) return 0;
    return size;
}

bool FtpWrapper::flushStreamBlock(Operation& op) {
    if (op.streamStopped_) return false;
    if (op.streamBlock_.empty() || !op.recievedDataHandler_) return true;
    bool more = op.recievedDataHandler_(op.streamBlock_);
    op.streamBlock_.clear();
    if (!more) op.streamStopped_ = true;
    return more;
}

// Called by libcurl after each receive (and while it waits): what arrived goes on at once.
int FtpWrapper::onStreamProgress(Operation& op) {
    if (cancelled()) return 1;
    return flushStreamBlock(op) ? 0 : 1;
}

Status FtpWrapper::readRange(std::uint64_t from, std::optional<std::uint64_t> length,
                             const std::function<bool(const Bytes&)>& handler) {
    if (!streamFile_) return ftpFailure(ErrorCode::DownloadFailed, "No file opened for streaming");
    auto conn = retrieveFTPConnection();
    if (!conn) return std::unexpected(conn.error());
    Operation op{this, *conn};
    op.item = streamFile_->pathOrEmpty();
    CURL* curl = (*conn)->curl();
    resetCURL(op);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 5L);
    curl_easy_setopt(curl, CURLOPT_FTP_RESPONSE_TIMEOUT, 10L);
    std::string url = cStringForURL(FTPUrlString(streamFile_->pathOrEmpty()));
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    offsetStreaming_ = static_cast<std::int64_t>(from);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    if (length)
        curl_easy_setopt(curl, CURLOPT_RANGE,
                         fmt::format("{}-{}", from, from + *length - 1).c_str());
    else
        curl_easy_setopt(curl, CURLOPT_RESUME_FROM_LARGE,
                         static_cast<curl_off_t>(offsetStreaming_));
    // A read to the end feeds the streaming cache: larger blocks mean fewer cache writes and
    // wake-ups per byte.
    if (!length || *length > kStreamBlockSize)
        curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, static_cast<long>(kStreamBlockSize));
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &op);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, streamCb);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &op);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, headerCb);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &op);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, streamProgressCb);
    op.recievedDataHandler_ = handler;
    op.streamStopped_ = false;
    op.direction_ = Direction::None;
    int rc = runCurlEasyPerform(op);
    recycleFTPConnection(*conn, rc);
    // What arrived before the end (or a failure) is still the file's bytes.
    if (!cancelled()) (void)flushStreamBlock(op);
    op.recievedDataHandler_ = nullptr;
    if (cancelled()) return ftpFailure(CURLE_ABORTED_BY_CALLBACK, "Download Canncelled");
    // A reader that had enough stops the transfer on purpose.
    bool stoppedByReader =
        (rc == CURLE_WRITE_ERROR || rc == CURLE_ABORTED_BY_CALLBACK) && op.streamStopped_;
    if (rc == CURLE_OK || stoppedByReader) return {};
    if (rc == CURLE_REMOTE_FILE_NOT_FOUND)
        return ftpFailure(ErrorCode::NotFound, "File not found, check permission");
    return std::unexpected(curlError(rc, errorBuffer, op));
}

Result<Bytes> FtpWrapper::readDataOfLength(std::uint64_t length) {
    return StreamingSupport::readDataOfLength(
        *this, streamFile_, offset_, length, [this](std::uint64_t from, std::uint64_t count) {
            return StreamingSupport::collectBlocks(
                count, [&](const auto& handler) { return readRange(from, count, handler); });
        });
}

Status FtpWrapper::readDataFromOffsetToEnd(std::int64_t start,
                                           const std::function<bool(const Bytes&)>& handler) {
    return readRange(static_cast<std::uint64_t>(std::max<std::int64_t>(0, start)), std::nullopt,
                     handler);
}

}  // namespace quillon
