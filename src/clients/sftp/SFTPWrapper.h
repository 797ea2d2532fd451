#pragma once
// SFTPWrapper: the Wrapper of SFTP servers, over libssh2 driven directly (libcurl's SFTP gives
// listings only as `ls` text and waits for every uploaded chunk). Sessions are pooled per server;
// the host key is checked against ~/.ssh/known_hosts and an unknown or changed key is put to the
// user through HostKeyPrompt. Errors are of domain "SFTP".

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "clients/ResumableTransfer.h"
#include "core/ClientExtras.h"
#include "core/KvConnectionPool.h"
#include "core/Wrapper.h"

typedef struct _LIBSSH2_SESSION LIBSSH2_SESSION;
typedef struct _LIBSSH2_SFTP LIBSSH2_SFTP;
typedef struct _LIBSSH2_SFTP_HANDLE LIBSSH2_SFTP_HANDLE;
typedef struct _LIBSSH2_SFTP_ATTRIBUTES LIBSSH2_SFTP_ATTRIBUTES;

namespace quillon {

// Settings of an SFTP server record besides ADDR, PORT, USERNAME and PASSWORD.
namespace SftpProp {
// "SFTP_LOGIN_TYPE_NORMAL" (password), "SFTP_LOGIN_TYPE_KEYFILE" or "SFTP_LOGIN_TYPE_AGENT".
inline constexpr std::string_view LOGIN_TYPE = "SFTP_LOGIN_TYPE";
inline constexpr std::string_view KEYFILE = "SFTP_KEYFILE";                // private key path
inline constexpr std::string_view PASSPHRASE = "SFTP_KEYFILE_PASSPHRASE";  // of the key file
}  // namespace SftpProp

// One logged-in SSH connection with its SFTP channel.
class SftpSession : public KvConnection {
  public:
    ~SftpSession() override;
    void cleanup() override;
    int fd = -1;
    LIBSSH2_SESSION* session = nullptr;
    LIBSSH2_SFTP* sftp = nullptr;
};

class SFTPWrapper : public Wrapper, public LinkReader {
  public:
    explicit SFTPWrapper(ServerInfoPtr serverInfo);
    ~SFTPWrapper() override;

    WrapperCapabilities capabilities() const override;
    std::string_view errorDomain() const override { return ErrorDomain::SFTP; }
    std::string_view thumbnailErrorDomain() const override { return ErrorDomain::SFTP; }

    // Connects, checks the host key and logs in.
    [[nodiscard]] Status signInSync() override;
    void signOut() override {}
    [[nodiscard]] Result<KvMetadataList> contentsOfDirectoryAtPathSync(
        const KvMetadata& folder) override;
    // lstat of the item; a link is reported as a link, with the kind of what it points to.
    [[nodiscard]] Result<KvMetadata> metadataOfItemSync(const KvMetadata& item) override;
    // Pipelined reads into `saveTo`, resumed after a broken connection; the server's time is
    // kept. A file that did not arrive whole is removed. A large file into a regular file comes
    // in two halves over two sessions at once: libssh2 decrypts a block at a time, so one
    // session keeps one core busy before the network is.
    [[nodiscard]] Status downloadSync(const KvMetadata& file, const std::string& saveTo,
                                      const ProgressHandler& progress) override;
    // Pipelined writes to a hidden name beside the target, resumed after a broken connection,
    // then renamed over the target; the local file's time is kept.
    [[nodiscard]] Status uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                                    const ProgressHandler& progress) override;
    [[nodiscard]] Status moveSync(const KvMetadata& item, const KvMetadata& to) override;
    [[nodiscard]] Status removeSync(const KvMetadataList& items) override;
    [[nodiscard]] Status createFolderSync(const KvMetadata& folder) override;
    // The link's own text (readlink). Links are not made: the servers disagree on the order of
    // the request's two paths.
    [[nodiscard]] Result<std::string> linkTextSync(const KvMetadata& link) override;
    // The "PATH" setting; the login folder when it is empty.
    KvMetadata rootFolder() override;

    [[nodiscard]] Status initStreamFileMeta(const KvMetadata& file) override;
    [[nodiscard]] Result<Bytes> readDataOfLength(std::uint64_t length) override;
    // Pipelined reads handed to `handler` until the end, or until it wants no more.
    [[nodiscard]] Status readDataFromOffsetToEnd(
        std::int64_t start, const std::function<bool(const Bytes&)>& handler) override;

    // How many times a broken transfer is taken up again, and the pause before each attempt.
    void setRetries(int attempts, std::chrono::milliseconds pause) {
        attempts_ = {attempts, pause};
    }
    // Downloads of at least this many bytes are split over two sessions (0: never).
    void setSplitDownloadsFrom(std::int64_t bytes) { splitDownloadsFrom_ = bytes; }
    // The known_hosts file consulted and extended (~/.ssh/known_hosts of the program's home).
    static std::string knownHostsPath();

  private:
    using SessionPtr = std::shared_ptr<SftpSession>;
    struct Download;
    struct DownloadPart;
    // A pooled session (connected and logged in), or the connection's error.
    Result<SessionPtr> takeSession();
    void giveBack(const SessionPtr& s);
    // A request on `s` failed with `e`: a broken session is dropped, a sound one goes back to the
    // pool.
    std::unexpected<Error> failedOn(const SessionPtr& s, Error e);
    Status connect(SftpSession& s);
    Status checkHostKey(SftpSession& s, const std::string& host, int port);
    Status authenticate(SftpSession& s);
    // Runs `work` on a session; a session from the pool that turns out dead is replaced once.
    template <typename T>
    Result<T> withSession(const std::function<Result<T>(SftpSession&)>& work);

    // The error of the last libssh2 call on the session: the server's SFTP status mapped to the
    // shared codes (`code` for those without their own), else a connection error.
    Error lastError(SftpSession& s, long code, std::string_view what) const;
    static bool isConnectionError(const Error& e);
    Error cancelledError() const;

    KvMetadata recordOf(const std::string& path, const std::string& name,
                        const LIBSSH2_SFTP_ATTRIBUTES& attrs, SftpSession* s) const;
    // Reads `part` of the file into the download's target, on `first` when given and on fresh
    // sessions after a broken connection; `opened` sees the handle of the first open.
    Status fetchPart(Download& d, DownloadPart& part, SessionPtr first,
                     const std::function<Status(SftpSession&, LIBSSH2_SFTP_HANDLE*)>& opened,
                     const std::function<void()>& received);
    Result<KvMetadataList> list(SftpSession& s, const std::string& path, bool includeHidden);
    Status removeTree(SftpSession& s, const std::string& path);
    bool includesHiddenFiles() const;

    std::optional<KvMetadata> streamFile_;
    std::optional<std::string> loginFolder_;
    TransferAttempts attempts_;
    std::int64_t splitDownloadsFrom_ = 64 * 1024 * 1024;
};

}  // namespace quillon
