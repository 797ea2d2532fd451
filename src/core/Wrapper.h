#pragma once
// Wrapper: the one storage-client interface. Every place the program browses is reached through
// a Wrapper; one subclass per kind of storage. Long operations exist twice: the synchronous twin
// (ending in Sync) does the work on the calling thread; the asynchronous form, written once here,
// runs the twin on the background queue and delivers the completion on the main queue.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "core/ServerInfo.h"

namespace quillon {

using ProgressHandler = std::function<void(std::int64_t done, std::int64_t total)>;
using CompletionHandler = std::function<void(std::optional<Error>)>;
using ListingHandler = std::function<void(Result<KvMetadataList>)>;
// Takes one batch of a folder's children; false stops the listing.
using ListingBatchHandler = std::function<bool(KvMetadataList&& batch)>;
using Bytes = std::vector<std::uint8_t>;

// Hands a transfer's progress to the main thread a step at a time: a hundredth of the total, a
// thousandth above 500 MiB, so that a fast transfer does not flood the main queue.
class ProgressThrottle {
  public:
    explicit ProgressThrottle(ProgressHandler handler) : handler_(std::move(handler)) {}
    static std::int64_t stepsFor(std::int64_t total);
    // Reports when `done` reaches a step not reported yet.
    void report(std::int64_t done, std::int64_t total);
    // The closing report (`done` of `total`), unless the last step already said so.
    void finish(std::int64_t done, std::int64_t total);

  private:
    ProgressHandler handler_;
    std::int64_t step_ = -1;
};

// Optional operations a client offers; callers test before calling.
struct WrapperCapabilities {
    bool streaming = false;            // initStreamFileMeta, readDataOfLength, offsets, length
    bool streamOffsetOnly = false;     // only setOffset and offset
    bool readFromOffsetToEnd = false;  // readDataFromOffsetToEnd
    bool search = false;               // search
    bool moveItems = false;            // moveItemsSync
    bool checksUploadSize = false;     // uploadSync itself checks the size the server holds
};

class Wrapper : public std::enable_shared_from_this<Wrapper> {
  public:
    explicit Wrapper(ServerInfoPtr serverInfo);
    virtual ~Wrapper() = default;
    Wrapper(const Wrapper&) = delete;
    Wrapper& operator=(const Wrapper&) = delete;

    virtual WrapperCapabilities capabilities() const = 0;

    // Makes the session ready. Fails with the client's login error.
    [[nodiscard]] virtual Status signInSync() = 0;
    // Ends the session.
    virtual void signOut() = 0;
    // Sets `cancelled`; running operations stop at their next progress step.
    virtual void cancelOperation() { cancelled_ = true; }

    // The folder's children. A missing folder fails with 10008 (or the client's listing error).
    [[nodiscard]] virtual Result<KvMetadataList> contentsOfDirectoryAtPathSync(
        const KvMetadata& folder) = 0;
    // The folder's children handed over in batches as they are read, so that a caller can show
    // the first of a big folder before the rest is read. The base lists the whole folder and
    // hands it over as one batch.
    [[nodiscard]] virtual Status contentsOfDirectoryAtPathInBatches(
        const KvMetadata& folder, const ListingBatchHandler& batch);
    // The record of the one item `item` names by its path (the top folder is the root's
    // record). A missing item fails with kind NotFound, code 10008, "File not found!" in the
    // client's domain. The base lists the parent folder, hidden items included; clients that can
    // ask for one item override it.
    [[nodiscard]] virtual Result<KvMetadata> metadataOfItemSync(const KvMetadata& item);
    // Fetches a file to a local path. Fails with 10006 (or the underlying error); a missing item
    // with 10008.
    [[nodiscard]] virtual Status downloadSync(const KvMetadata& file, const std::string& saveTo,
                                              const ProgressHandler& progress) = 0;
    // Puts a local file into the folder under its own name. Fails with 10007 or the underlying
    // error.
    [[nodiscard]] virtual Status uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                                            const ProgressHandler& progress) = 0;
    // Renames or moves: `to` holds the new path and name. Fails with 10005 or the underlying
    // error.
    [[nodiscard]] virtual Status moveSync(const KvMetadata& item, const KvMetadata& to) = 0;
    // Deletes every item, folders with their contents. Fails with 10003 or the underlying error.
    [[nodiscard]] virtual Status removeSync(const KvMetadataList& items) = 0;
    // Writes the item's thumbnail into the thumbnail cache, made by the media layer from the file
    // read through this client. Folders fail with 10009.
    [[nodiscard]] virtual Status downloadThumbnailSync(const KvMetadata& item);
    // Creates the folder named by `folder`'s path. Fails with 10014 or the underlying error.
    [[nodiscard]] virtual Status createFolderSync(const KvMetadata& folder) = 0;
    // A URL a media player can read the file from (the streaming service's, when this program
    // has one), or absent.
    virtual std::optional<std::string> loadStreamableURLForFileSync(const KvMetadata& file);
    // The server's top folder.
    virtual KvMetadata rootFolder() = 0;

    // Optional streaming: open for random reads, then read from `offset` on.
    [[nodiscard]] virtual Status initStreamFileMeta(const KvMetadata& file);
    [[nodiscard]] virtual Result<Bytes> readDataOfLength(std::uint64_t length);
    virtual void setOffset(std::uint64_t offset) { offset_ = offset; }
    virtual std::uint64_t offset() const { return offset_; }
    virtual std::uint64_t contentLength() const { return contentLength_; }
    // Optional: reads from `start` to the end, handing each chunk to `handler` until it returns
    // false.
    [[nodiscard]] virtual Status readDataFromOffsetToEnd(
        std::int64_t start, const std::function<bool(const Bytes&)>& handler);
    // Optional: moves several items into a folder in one request.
    [[nodiscard]] virtual Status moveItemsSync(const KvMetadataList& items,
                                               const KvMetadata& toFolder);
    // Optional: searches below a folder; results arrive through `update`.
    [[nodiscard]] virtual Status searchSync(
        const KvMetadata& folder, const std::string& keyword,
        const std::function<void(const KvMetadataList&)>& update);

    // Asynchronous forms.
    void signIn(CompletionHandler complete);
    void contentsOfDirectoryAtPath(const KvMetadata& folder, ListingHandler complete);
    void download(const KvMetadata& file, const std::string& saveTo, CompletionHandler complete,
                  ProgressHandler progress);
    void upload(const KvMetadata& localFile, const KvMetadata& toFolder, CompletionHandler complete,
                ProgressHandler progress);
    void move(const KvMetadata& item, const KvMetadata& to, CompletionHandler complete);
    void remove(const KvMetadataList& items, CompletionHandler complete);
    void downloadThumbnail(const KvMetadata& item, CompletionHandler complete);
    void createFolder(const KvMetadata& folder, CompletionHandler complete);
    void moveItems(const KvMetadataList& items, const KvMetadata& toFolder,
                   CompletionHandler complete);
    void search(const KvMetadata& folder, const std::string& keyword, CompletionHandler complete,
                std::function<void(const KvMetadataList&)> update);

    const ServerInfoPtr& serverInfo() const { return serverInfo_; }
    void setServerInfo(ServerInfoPtr info) { serverInfo_ = std::move(info); }
    // Cancelled on its own, or with every client of the process.
    bool cancelled() const { return cancelled_ || everyOperationCancelled(); }
    void setCancelled(bool c) { cancelled_ = c; }
    // Cancels every operation of every client, running or to come, for the rest of the process:
    // a command that the user stops (Ctrl-C) must not wait for a client it does not hold, such
    // as one still connecting to a server that never answers. Safe from any thread.
    static void cancelEveryOperation();
    static bool everyOperationCancelled();
    bool isServiceForThumbnail() const { return isServiceForThumbnail_; }
    void setIsServiceForThumbnail(bool b) { isServiceForThumbnail_ = b; }
    bool forceIncludesHiddenFiles() const { return forceIncludesHiddenFiles_; }
    void setForceIncludesHiddenFiles(bool b) { forceIncludesHiddenFiles_ = b; }

  protected:
    // Where completions of asynchronous forms run: the main queue. A client that calls back on
    // its worker overrides this one choice.
    virtual void deliverCompletion(std::function<void()> fn);
    // The error for an optional operation this client does not offer.
    Error unsupported(std::string_view operation) const;
    // The domain of this client's errors ("Local", "FTP", ...).
    virtual std::string_view errorDomain() const { return ErrorDomain::Generic; }
    // "Cannot write PATH: reason" of a local file a download goes to, in this client's domain
    // (a full disk is NoSpace).
    Error localWriteError(long code, const std::string& path, int err) const;
    // The domain of thumbnail refusals: "Local" for most clients, whatever their own domain.
    virtual std::string_view thumbnailErrorDomain() const { return ErrorDomain::Local; }

    std::uint64_t offset_ = 0;
    std::uint64_t contentLength_ = 0;

  private:
    void runAsync(std::function<std::optional<Error>()> work, CompletionHandler complete);

    ServerInfoPtr serverInfo_;
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> isServiceForThumbnail_{false};
    std::atomic<bool> forceIncludesHiddenFiles_{false};
};

using WrapperPtr = std::shared_ptr<Wrapper>;

}  // namespace quillon
