#pragma once
// FtpWrapper: the Wrapper of FTP, explicit FTPS and implicit FTPS servers. Every request drives a
// pooled libcurl easy handle: libcurl speaks the protocol (login, AUTH TLS, PASV/EPSV/PORT, the
// data connection); this class builds URLs and command bytes in the server's encoding, probes
// features, interprets replies and maps libcurl results to errors of domain "FTP".

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "clients/ftp/CURLConnection.h"
#include "core/ClientExtras.h"
#include "core/Wrapper.h"

struct sockaddr;

namespace quillon {

class FtpWrapper : public Wrapper, public LoginFolder {
  public:
    enum class Direction { None, Download, Upload };
    // One request's state, made by the operation that sends it: libcurl's callbacks of that
    // request read and write only this, so no request sees another's replies, file or handlers.
    struct Operation {
        Operation(FtpWrapper* c, std::shared_ptr<CURLConnection> conn)
            : client(c), connection(std::move(conn)) {}
        FtpWrapper* client = nullptr;
        std::shared_ptr<CURLConnection> connection;
        std::string data_;
        std::string dataHeader_;
        int currentProgress_ = -1;
        std::int64_t totalDlSize_ = -1;
        std::int64_t finishedDlSize_ = 0;
        ProgressHandler progress_;
        std::function<bool(const Bytes&)> recievedDataHandler_;
        // What a streamed read received since it last handed a block on.
        Bytes streamBlock_;
        bool skipProgressUpdate_ = false;
        bool streamStopped_ = false;
        Direction direction_ = Direction::None;
        std::FILE* file_ = nullptr;
        // Set by a PASV or EPSV reply: the next connection libcurl opens is the data connection.
        bool dataConnectionNext_ = false;
        // The server path the request is about, named by its errors.
        std::string item;
        // While requests are recorded: the last command sent, and the one a refusal answered.
        std::string lastSent;
        std::string refused;
    };

    explicit FtpWrapper(ServerInfoPtr serverInfo);
    ~FtpWrapper() override;

    WrapperCapabilities capabilities() const override;
    std::string_view errorDomain() const override { return ErrorDomain::FTP; }

    // Checks that the server accepts the login (probing its features on the way).
    [[nodiscard]] Status signInSync() override;
    void signOut() override;
    void cancelOperation() override;

    // MLSD or LIST of the folder. Errors: libcurl's text (code 13 for a refused login).
    [[nodiscard]] Result<KvMetadataList> contentsOfDirectoryAtPathSync(
        const KvMetadata& folder) override;
    // MLST when the server offers it, else SIZE (and MDTM) for a file; a folder, a missing
    // item, or a server that answers neither is looked up in its parent's listing.
    [[nodiscard]] Result<KvMetadata> metadataOfItemSync(const KvMetadata& item) override;
    // RETR into `saveTo`, resuming a broken transfer up to ten attempts. A missing file fails
    // with "File not found, check permission" (code 78).
    [[nodiscard]] Status downloadSync(const KvMetadata& file, const std::string& saveTo,
                                      const ProgressHandler& progress) override;
    // STOR of the local file under its own name; sets the server's time by MFMT when offered.
    [[nodiscard]] Status uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                                    const ProgressHandler& progress) override;
    // RNFR/RNTO. A missing source fails with "Permission denied" (the server's 550).
    [[nodiscard]] Status moveSync(const KvMetadata& item, const KvMetadata& to) override;
    // Files by DELE in one command list per folder, folders recursively with hidden entries.
    [[nodiscard]] Status removeSync(const KvMetadataList& items) override;
    // No thumbnails are made for FTP items yet: fails with 10009.
    [[nodiscard]] Status downloadThumbnailSync(const KvMetadata& item) override;
    // MKD of the folder's last path component in its parent.
    [[nodiscard]] Status createFolderSync(const KvMetadata& folder) override;
    // "http://127.0.0.1:21901/<path>" on the local streaming server, which then serves the file.
    std::optional<std::string> loadStreamableURLForFileSync(const KvMetadata& file) override;
    // The folder of the "PATH" setting; the login folder when it is empty.
    // PWD after the login.
    [[nodiscard]] Result<std::string> loginFolderSync() override {
        return currentWorkingDirectory();
    }
    KvMetadata rootFolder() override;

    // Ranged reads: initStreamFileMeta takes the file's size from the record (or SIZE);
    // readDataOfLength goes through the streaming service's cache when there is one.
    [[nodiscard]] Status initStreamFileMeta(const KvMetadata& file) override;
    [[nodiscard]] Result<Bytes> readDataOfLength(std::uint64_t length) override;
    [[nodiscard]] Status readDataFromOffsetToEnd(
        std::int64_t start, const std::function<bool(const Bytes&)>& handler) override;

    // SITE CHMOD with the octal permission text.
    [[nodiscard]] Status chmodSync(const KvMetadata& item, const std::string& octalPermissions);
    // MDTM: the file's modification time (UTC, to the second or finer), or absent when the
    // server has no MDTM. Fails with the server's refusal (a missing file: "Permission denied").
    [[nodiscard]] Result<std::optional<std::chrono::system_clock::time_point>> modificationTimeSync(
        const KvMetadata& file);
    // The server's working folder after login, from the 257 reply of PWD.
    [[nodiscard]] Result<std::string> currentWorkingDirectory();
    // Walks into the folder (a request whose URL names it with a trailing "/").
    [[nodiscard]] Status changeWorkingDirectory(const std::string& path);
    // MFMT with the time in UTC ("yyyyMMddHHmmss").
    [[nodiscard]] Status modifyDateTime(std::chrono::system_clock::time_point time,
                                        const std::string& serverFile);

    // --- Control connection

    // A pooled connection of the server, or 60001 "No connection available".
    [[nodiscard]] Result<std::shared_ptr<CURLConnection>> retrieveFTPConnection();
    // Hands the connection back, or destroys it after a time-out (28).
    void recycleFTPConnection(const std::shared_ptr<CURLConnection>& connection, int responseCode);
    // curl_easy_reset of the operation's handle, then credentials, mode, TLS, PASV address,
    // signals, time-outs, buffer.
    void resetCURL(Operation& op);
    // The operation's request, retried once with the PASV address ignored on 7, 28 or 35.
    int runCurlEasyPerform(Operation& op);
    // "ftp[s]://host[:port]/" + path (a path starting with "/" gives a double slash: from root).
    std::string FTPUrlString(const std::string& path) const;
    std::string baseServerPath() const { return {}; }
    // The "SERVER_ENCODING" number (UTF-8 when absent or unknown), and the platform constant.
    unsigned long nsEncodingFromSetting() const;
    unsigned long kcfEncodingFromSetting() const;
    // Command text as bytes in the server's encoding (ASCII when it cannot hold the text).
    std::string cStringForCmd(const std::string& command) const;
    // A path as percent-escaped bytes of the server's encoding, for a URL.
    std::string cStringForURL(const std::optional<std::string>& path) const;
    // True when the encoding is UTF-8 and FEAT listed UTF8.
    bool canSendUTF8Command() const;
    int sendUTF8Command();
    // FEAT: sets supportMLSD, supportMFMT, supportUTF8 and supportEPSV of the server record.
    void sendFEATCommand();
    // Runs the commands before a request without a data phase; the whole reply text.
    [[nodiscard]] Result<std::string> curl_runCommandWithoutBody(const std::string& command,
                                                                 const std::string& path);
    // `replies`, when given, receives the reply text also of a failed request.
    [[nodiscard]] Result<std::string> curl_runCommandWithoutBodyWithCommandList(
        const std::vector<std::string>& commands, const std::string& path,
        std::string* replies = nullptr);
    [[nodiscard]] Result<std::string> runCommandList(const std::vector<std::string>& commands,
                                                     const std::string& path) {
        return curl_runCommandWithoutBodyWithCommandList(commands, path);
    }
    std::string stringForHeaderResp(const Operation& op) const;
    // From the last "421" of the reply to its end, or "Unknown error!".
    static std::string parseErrorInMessage(const std::string& message);
    // Host part and path part of "scheme://host/path" ("\\" read as "/").
    static std::string pureAddressFromFullPath(const std::string& fullPath);
    static std::string purePathFromFullPath(const std::string& fullPath);

    // --- Listing and transfers
    [[nodiscard]] Result<KvMetadataList> mlsdCmd(const KvMetadata& folder);
    [[nodiscard]] Result<KvMetadataList> listCmd(const KvMetadata& folder);
    [[nodiscard]] Result<KvMetadataList> listDir(const KvMetadata& folder,
                                                 const char* customRequest = nullptr);
    [[nodiscard]] Status downloadFile(const KvMetadata& file, const std::string& saveTo,
                                      std::int64_t resumeFrom, const ProgressHandler& progress);
    [[nodiscard]] Status uploadFileForFTP(const KvMetadata& localFile, const KvMetadata& toFolder,
                                          const std::optional<std::string>& serverFileName,
                                          std::int64_t resumeFrom, const ProgressHandler& progress);
    [[nodiscard]] Status deleteFolder(const KvMetadata& folder);
    std::string genDeleteCommand(const KvMetadata& item) const;

    // Hidden names are listed: the preference "SYS_SHOW_HIDDEN_FILES" or forceIncludesHiddenFiles.
    bool includesHiddenFiles() const;
    const KvMetadataList& folderList() const { return folderList_; }
    bool triedAfterTimeout() const { return triedAfterTimeout_.load(); }
    // Seconds between resume attempts (one by default).
    void setRetryDelay(std::chrono::milliseconds delay) { retryDelay_ = delay; }
    // How long a data connection may go without a byte before the request times out (60 s by
    // default).
    void setStallLimit(std::chrono::seconds limit) { stallLimit_ = limit; }

    // libcurl callbacks of one operation (public for the C trampolines).
    std::size_t onHeader(Operation& op, const char* data, std::size_t size);
    std::size_t onBody(Operation& op, const char* data, std::size_t size);
    std::size_t onFileWrite(Operation& op, const char* data, std::size_t size);
    std::size_t onFileRead(Operation& op, char* buffer, std::size_t size);
    std::size_t onStreamData(Operation& op, const char* data, std::size_t size);
    // Hands what a streamed read gathered to its handler; false once the reader wants no more.
    bool flushStreamBlock(Operation& op);
    int onStreamProgress(Operation& op);
    int onProgress(Operation& op, std::int64_t dltotal, std::int64_t dlnow, std::int64_t ultotal,
                   std::int64_t ulnow);
    // Whether libcurl may open a connection to `address` (false for a passive data connection
    // to a host other than the control connection's).
    bool mayConnect(Operation& op, const sockaddr* address);

  protected:
    // Completions of the asynchronous forms run on the worker that did the work.
    void deliverCompletion(std::function<void()> fn) override;

    // The kind of an error of this client's code space (libcurl's codes and the shared ones).
    static ErrorKind kindOfCurlCode(long code);
    // An error of domain "FTP" whose kind follows from the code.
    static std::unexpected<Error> ftpFailure(long code, std::string_view reason);
    static constexpr long kNoConnection = 60001;

    // What FEAT reported for a server.
    struct Features {
        bool mlsd = false, mfmt = false, utf8 = false, epsv = false;
    };
    // The server record is shared by every client of the server, on any thread (the tasks of
    // one transfer run side by side): its FEAT results, the login folder's name, the PASV
    // work-around and every setting the clients read are only touched under the record's lock.
    std::unique_lock<std::recursive_mutex> lockRecord() const;
    // The features the record holds now (false where never probed).
    Features features() const;

  private:
    Status probe(bool forListing);
    Error curlError(int code, const char* errorBuffer, const Operation& op,
                    bool forListing = false) const;
    std::string decodeFromServer(const std::string& bytes) const;
    static bool hasControlCharacters(const std::string& s);
    Status refuseUnsafe(const std::string& path) const;
    void postProgress(Operation& op, std::int64_t done, std::int64_t total);
    void finishProgress(Operation& op, std::int64_t total);
    bool isMissing(const KvMetadata& item);
    Result<KvMetadataList> listing(const KvMetadata& folder, bool forDelete);
    // Ends a request of this wrapper early once it is cancelled, even while the server keeps
    // silent.
    std::function<bool()> stopWhenCancelled() const {
        return [this] { return cancelled() && !cleaningUp_; };
    }
    // The error buffer, the reply collector and the progress callback of a transfer.
    void watchTransfer(Operation& op, char* errorBuffer);
    // Waits retryDelay_ before another attempt; false when the wrapper was cancelled meanwhile.
    bool pauseBeforeRetry();
    // The size of a server file by SIZE (-1 when the server gives none); libcurl's result.
    int querySize(Operation& op, const std::string& path, char* errorBuffer, std::int64_t& length);
    int sendUTF8Command(Operation& op);
    Status readRange(std::uint64_t from, std::optional<std::uint64_t> length,
                     const std::function<bool(const Bytes&)>& handler);

    std::atomic<bool> triedAfterTimeout_{false};
    KvMetadataList folderList_;
    std::optional<KvMetadata> streamFile_;
    std::int64_t offsetStreaming_ = 0;
    std::chrono::milliseconds retryDelay_{1000};
    std::chrono::seconds stallLimit_{60};
    // Set while a request that undoes a cancelled one runs (it is not itself cut short).
    std::atomic<bool> cleaningUp_{false};
};

}  // namespace quillon
