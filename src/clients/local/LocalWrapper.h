#pragma once
// LocalWrapper: the Wrapper of the local file system (protocolType 0). A "download" from it is a
// copy of a local file to a local path, an "upload" to it a copy of a local file into a local
// folder. Every file-system access goes through SandboxFileAccess. Progress of copies is
// delivered on the main queue. Failures are in domain "Local"; a missing item is 10008
// "File not found!".

#include <cstdint>
#include <functional>
#include <string>

#include "core/ClientExtras.h"
#include "core/Wrapper.h"

namespace quillon {

class LocalWrapper : public Wrapper, public LinkReader, public LinkMaker {
  public:
    // Bytes per copy step, and per progress report.
    static constexpr std::uint64_t kCopyChunkSize = 10485760;
    // Records in the first batch of a listing: enough to fill a window.
    static constexpr std::size_t kFirstListingBatch = 256;

    explicit LocalWrapper(ServerInfoPtr serverInfo);
    ~LocalWrapper() override;

    // Streaming reads; links through LinkReader and LinkMaker.
    WrapperCapabilities capabilities() const override;
    std::string_view errorDomain() const override { return ErrorDomain::Local; }

    // Nothing to sign in to.
    [[nodiscard]] Status signInSync() override { return {}; }
    void signOut() override {}

    // The folder's children. Hidden items only with "SYS_SHOW_HIDDEN_FILES" or
    // forceIncludesHiddenFiles; ".name.icloud" placeholders list as "name". Missing: 10008.
    [[nodiscard]] Result<KvMetadataList> contentsOfDirectoryAtPathSync(
        const KvMetadata& folder) override;
    // The same, read in batches: the first of kFirstListingBatch records, each next one twice as
    // big.
    [[nodiscard]] Status contentsOfDirectoryAtPathInBatches(
        const KvMetadata& folder, const ListingBatchHandler& batch) override;
    // readlink and symlink; an existing item at the link's path fails with EEXIST.
    [[nodiscard]] Result<std::string> linkTextSync(const KvMetadata& link) override;
    [[nodiscard]] Status makeLinkSync(const KvMetadata& link, const std::string& target) override;
    // lstat of the one item: a link is described, not followed.
    [[nodiscard]] Result<KvMetadata> metadataOfItemSync(const KvMetadata& item) override;
    // Copies the file to `saveTo` (a link as a link); the same path does nothing. Missing: 10008.
    [[nodiscard]] Status downloadSync(const KvMetadata& file, const std::string& saveTo,
                                      const ProgressHandler& progress) override;
    // Copies the file into the folder under its name; into its own folder does nothing.
    // Missing: 10008.
    [[nodiscard]] Status uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                                    const ProgressHandler& progress) override;
    // Renames or moves to `to`'s path; an existing target is refused (EEXIST). Missing: 10008.
    [[nodiscard]] Status moveSync(const KvMetadata& item, const KvMetadata& to) override;
    // Removes every item permanently, folders with their contents; stops at the first failure.
    // Missing: 10008.
    [[nodiscard]] Status removeSync(const KvMetadataList& items) override;
    // No thumbnails yet: folders 10009 "Folder has no thumbnail.", missing files 10008, other
    // files 10009 "Thumbnails are not available yet.".
    [[nodiscard]] Status downloadThumbnailSync(const KvMetadata& item) override;
    // Creates the folder (its parent must exist). Fails with 10014 and the system's reason.
    [[nodiscard]] Status createFolderSync(const KvMetadata& folder) override;
    // A file:// URL of the file.
    std::optional<std::string> loadStreamableURLForFileSync(const KvMetadata& file) override;
    // The server record's rootFolderPath ("/" when it has none) as a folder record.
    KvMetadata rootFolder() override;

    // Opens the file for random reads: contentLength is its size, offset 0. Missing: 10008.
    [[nodiscard]] Status initStreamFileMeta(const KvMetadata& file) override;
    // Up to `length` bytes from offset on (fewer at the end); advances offset.
    [[nodiscard]] Result<Bytes> readDataOfLength(std::uint64_t length) override;

    // Copies `from` to `to` in 10 MiB steps, reporting (bytes copied, size) on the main queue
    // after each step and stopping before the next step once cancelled. Fails with 10002
    // "Cannot create file %@" or "Cannot complete the operation becasue some data in "%@" cannot
    // be read or written."; a failed or cancelled copy leaves nothing at `to` and an existing
    // file there untouched.
    [[nodiscard]] Status copyFile(const std::string& from, const std::string& to,
                                  const ProgressHandler& progress);

    // Counts the items below `path` and the bytes of its files, recursively, links not followed.
    // Hidden items count when `forceIncludeHidden` or "SYS_SHOW_HIDDEN_FILES" is set. `cont` is
    // asked before each folder is read; once it answers false the count so far is returned. A
    // file counts as one item of its size.
    static FolderItemCount calculateLocalFolderItemsAndSize(const std::string& path,
                                                            bool forceIncludeHidden,
                                                            const std::function<bool()>& cont);

    // Whether the path lies in the cloud-synchronised container. Linux has none: always false.
    static bool isICloudPath(const std::string& path);

  private:
    bool includesHiddenFiles() const;
    // The file to read for `item`: a placeholder reads the file it stands for, if it is there.
    Result<std::string> sourcePathOf(const KvMetadata& item, long failureCode) const;
    // Downloads and uploads: link, folder and file cases.
    Status copyItemForTransfer(const std::string& from, const std::string& to,
                               const ProgressHandler& progress);
    void closeStream();

    int streamFd_ = -1;
};

}  // namespace quillon
