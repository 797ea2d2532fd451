#pragma once
// SmbWrapper: the Wrapper of SMB (Windows and Samba) shares, over libsmbclient. Each client owns
// one library context; calls into the library are made one at a time (it is not thread-safe), and
// speaks SMB2 or later. Paths are "/share/folder/file"; "/" lists the server's shares. No session
// is pooled: the context is the session. Errors are of domain "SMB".

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "clients/ResumableTransfer.h"
#include "core/Wrapper.h"

typedef struct _SMBCCTX SMBCCTX;
typedef struct _SMBCFILE SMBCFILE;

namespace quillon {

class SmbWrapper : public Wrapper {
  public:
    explicit SmbWrapper(ServerInfoPtr serverInfo);
    ~SmbWrapper() override;

    WrapperCapabilities capabilities() const override;
    std::string_view errorDomain() const override { return ErrorDomain::SMB; }

    // Logs in (user and password, or as guest without a user) and opens the top folder.
    [[nodiscard]] Status signInSync() override;
    // Drops the context: the next request logs in again.
    void signOut() override;
    [[nodiscard]] Result<KvMetadataList> contentsOfDirectoryAtPathSync(
        const KvMetadata& folder) override;
    [[nodiscard]] Result<KvMetadata> metadataOfItemSync(const KvMetadata& item) override;
    // Reads into `saveTo`, continued after a broken connection; a file that did not arrive whole
    // is removed. The server's time is kept.
    [[nodiscard]] Status downloadSync(const KvMetadata& file, const std::string& saveTo,
                                      const ProgressHandler& progress) override;
    // Writes to a hidden name beside the target, continued after a broken connection, then
    // renames it over the target.
    [[nodiscard]] Status uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                                    const ProgressHandler& progress) override;
    [[nodiscard]] Status moveSync(const KvMetadata& item, const KvMetadata& to) override;
    [[nodiscard]] Status removeSync(const KvMetadataList& items) override;
    [[nodiscard]] Status createFolderSync(const KvMetadata& folder) override;
    // The "PATH" setting ("/share/folder"), or "/" (the list of shares) when it is empty.
    KvMetadata rootFolder() override;

    [[nodiscard]] Status initStreamFileMeta(const KvMetadata& file) override;
    [[nodiscard]] Result<Bytes> readDataOfLength(std::uint64_t length) override;
    [[nodiscard]] Status readDataFromOffsetToEnd(
        std::int64_t start, const std::function<bool(const Bytes&)>& handler) override;

    // How many times a broken transfer is taken up again, and the pause before each attempt.
    void setRetries(int attempts, std::chrono::milliseconds pause) {
        attempts_ = {attempts, pause};
    }

    // "smb://host[:port]" + the percent-escaped path, as libsmbclient takes it.
    std::string urlOf(const std::string& path) const;

    // What the library's login callback hands over.
    struct Credentials {
        std::string user, password, workgroup;
    };

  private:
    // The context, made on first use; none when the library cannot start.
    Result<SMBCCTX*> context();
    // Runs a transfer's attempts: after a broken one, a new context after the pause, in which
    // other clients may call the library.
    Status runAttempts(const std::function<Status(int)>& attempt,
                       std::unique_lock<std::recursive_mutex>& guard);
    void dropContext();
    // The streamed file opened at `offset`; a broken connection drops the context.
    Result<SMBCFILE*> openStreamAt(SMBCCTX* ctx, const std::string& path, std::uint64_t offset);
    Error errnoError(int err, long code, std::string_view what) const;
    Error cancelledError() const;
    KvMetadata recordOf(const std::string& path, const std::string& name, bool isDir,
                        std::uint64_t size, std::optional<TimePoint> mtime) const;
    Result<KvMetadataList> list(SMBCCTX* ctx, const std::string& path, bool includeHidden);
    Status removeTree(SMBCCTX* ctx, const std::string& path);
    bool includesHiddenFiles() const;

    SMBCCTX* ctx_ = nullptr;
    Credentials creds_;
    std::string host_;  // the address the server's name resolved to
    std::optional<KvMetadata> streamFile_;
    TransferAttempts attempts_;
};

}  // namespace quillon
