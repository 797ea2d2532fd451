#pragma once
// FileTransferTask: one copy, move, download, upload or sync the user started. A task is a
// self-contained record plus startTransfer, which does all of its work synchronously on the
// thread that calls it; FileTransferTaskManager runs it on a background thread.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "core/ServerInfo.h"
#include "core/Wrapper.h"

namespace quillon {

class FileTransferNode;

// The values of a task's `state`; every task starts waiting.
enum class TransferTaskState : int {
    Waiting = 0,
    Running = 1,
    Completed = 2,
    Stopped = 3,  // cancelled, stopped while waiting, or skipped because of a name conflict
    Failed = 4,
};

// What a task does with an existing target item.
enum class ConflictAction : int {
    NotDecided = 0,  // neither removes nor renames anything
    Replace = 1,
    KeepBoth = 2,
    Skip = 3,
    // A folder meeting a folder: the two are merged, and items of the same name in them are
    // replaced (what cp -r does). Where either side is not a folder it replaces.
    Merge = 4,
};

class FileTransferTask;
class FileTransferTaskManager;
using FileTransferTaskPtr = std::shared_ptr<FileTransferTask>;

// Receives a running task's progress and its end; both calls arrive on the main thread.
class FileTransferTaskDelegate {
  public:
    virtual ~FileTransferTaskDelegate() = default;
    // Progress of one task.
    virtual void updateTask(FileTransferTask& task, std::int64_t transferredBytes,
                            std::int64_t totalBytes) = 0;
    // The task reached state 2, 3 or 4; exactly once per run.
    virtual void didCompleteTask(FileTransferTask& task, const std::optional<Error>& error) = 0;
};

class FileTransferTask : public std::enable_shared_from_this<FileTransferTask> {
  public:
    using Clock = std::function<double()>;  // seconds since 1970

    FileTransferTask();
    virtual ~FileTransferTask();
    FileTransferTask(const FileTransferTask&) = delete;
    FileTransferTask& operator=(const FileTransferTask&) = delete;

    // Does the whole transfer on the calling thread, then completes (state 2, 3 or 4).
    virtual void startTransfer() = 0;
    // Whether the target item already exists (may ask the target server). A lookup that fails
    // is a failure, never taken for "not there": a move onto a server whose rename replaces
    // would otherwise overwrite the item without asking.
    [[nodiscard]] virtual Result<bool> fileExists() { return false; }
    // Ends a run that cannot start because its name-conflict check failed: state failed with
    // that error, reported like any other end.
    void failBeforeStart(const Error& error);
    // Stops a running transfer: state 3, and the wrappers' current requests are cancelled.
    virtual void cancelTransfer();
    // The class name ("CopyTask", ...), for display and for "another task of the same class".
    virtual std::string_view taskClassName() const = 0;
    // Moves ask only "keep both" or "skip" on a name conflict.
    virtual bool isMoveTask() const { return false; }

    // One file or folder of the run that failed while the run went on.
    struct ItemFailure {
        std::string path;
        Error error;
    };

    // Set by the creator before the task is added.
    ServerInfoPtr sourceServerInfo;
    ServerInfoPtr targetServerInfo;
    KvMetadataList sourceItems;  // every item of one gesture
    KvMetadata sourceMetadata;   // the item this task transfers
    KvMetadata targetMetadata;   // the target folder; a running task may replace it by the item
    // With it, an item of a folder that fails (a name the target cannot hold, a file that cannot
    // be read or written) is recorded and the run goes on with the rest; the run then ends
    // failed. Without it, the first failure ends the run.
    bool continueAfterItemFailure = false;

    FileTransferTaskDelegate* delegate() const { return delegate_.load(); }
    void setDelegate(FileTransferTaskDelegate* d) { delegate_.store(d); }
    TransferTaskState state() const { return state_.load(); }
    void setState(TransferTaskState s) { state_.store(s); }
    ConflictAction fileConflict() const { return fileConflict_.load(); }
    void setFileConflict(ConflictAction c) { fileConflict_.store(c); }
    std::int64_t totalBytes() const { return totalBytes_.load(); }
    void setTotalBytes(std::int64_t n) { totalBytes_.store(n); }
    std::int64_t transferredBytes() const { return transferredBytes_.load(); }
    void setTransferredBytes(std::int64_t n) { transferredBytes_.store(n); }
    std::optional<Error> error() const;
    std::optional<TimePoint> startTime() const;
    std::optional<TimePoint> endTime() const;
    // The file being transferred now, for the progress row.
    std::optional<KvMetadata> transferringFileMeta() const;
    // The items that failed while the run went on past them, in order.
    std::vector<ItemFailure> itemFailures() const;
    // What the run left out on purpose and the user should hear about ("skipped link a -> b"),
    // in order.
    std::vector<std::string> notices() const;

    // The manager whose list holds the task (set when it runs); none for inner tasks.
    void setManager(FileTransferTaskManager* m) { manager_.store(m); }
    FileTransferTaskManager* manager() const { return manager_.load(); }

    // The time source of progress throttling; tests replace it.
    static void setClock(Clock clock);
    static double now();

  protected:
    // Step 1 of every run: running, start time now, counters at 0.
    void beginTransfer();
    // Ends the run: the state from the error and the conflict choice, the end time, then on the
    // main thread the refresh notification and the delegate's didCompleteTask.
    void completeFileTransfer(std::optional<Error> error);
    // Folders that views should reload when the task completes (the source's parent and the
    // target folder by default).
    virtual KvMetadataList foldersToRefresh() const;
    // Sends the current counters to the delegate on the main thread. Reports coalesce: while
    // one is queued, later calls only update the counters it will read.
    void reportProgress();
    void setTransferringFileMeta(std::optional<KvMetadata> meta);
    // Keeps a wrapper the task works through, so that a stop from another thread reaches its
    // current request; a task already stopped cancels it at once.
    void trackWrapper(const WrapperPtr& wrapper);
    // Cancels the current request of every tracked wrapper.
    void cancelTrackedWrappers();
    // Raises transferredBytes to `n` (a count never goes back: a late report of an earlier step
    // is ignored).
    void raiseTransferredBytes(std::int64_t n);
    // A file that reached its place whole. A run that does not complete reports the bytes of
    // these files as transferred, not what it planned or sent: a file cut off half-way leaves
    // nothing behind, so it counts nothing. Tasks that call it set countsArrivals_.
    void fileArrived(std::int64_t bytes) { arrivedBytes_ += bytes; }
    // A folder built under a hidden name that was never put in place: none of it arrived.
    void nothingArrived() { arrivedBytes_.store(0); }
    bool countsArrivals_ = false;
    // A wrapper progress callback for this task: while the task runs, each report (done, total)
    // raises transferredBytes to `toTransferred(done, total)`, calls `also` and is sent on. Safe
    // to call after the task is gone (clients may deliver reports later, on the main queue).
    ProgressHandler relayProgress(
        std::function<std::int64_t(std::int64_t, std::int64_t)> toTransferred,
        std::function<void(std::int64_t, std::int64_t)> also = nullptr);
    bool stopped() const { return state() == TransferTaskState::Stopped; }
    // The failure of one item: recorded, and success returned, when the run goes on past item
    // failures; otherwise the error itself.
    Status itemFailed(const KvMetadata& item, const Error& error);
    void addNotice(std::string text);
    // Replace or merge: an existing target item may be overwritten.
    bool overwrites() const {
        auto c = fileConflict();
        return c == ConflictAction::Replace || c == ConflictAction::Merge;
    }

    // A symbolic link is never followed: it is made again as a link holding the same text where
    // the target side can make links and the source side tells what the link holds; otherwise it
    // is left out with the notice "skipped link NAME -> TARGET". `replace`: an item already at
    // the target path (not a folder) gives way. A link that cannot be made fails as an item.
    Status transferLink(const KvMetadata& source, const KvMetadata& target, Wrapper& sourceSide,
                        Wrapper& targetSide, bool replace);
    // Leaves the link out with its notice; `holds` is what it points to, when known.
    void skipLink(const KvMetadata& source, std::optional<std::string> holds = std::nullopt);

    // The start of a run that works through the target's client and, `withSource`, the source's:
    // ends the run at once, and returns false, when the task is to be skipped or was stopped or a
    // side has no client; otherwise targetProxy_ (and sourceProxy_) are set, list hidden items
    // and are tracked.
    bool openSides(bool withSource = true);
    // The record of the target folder's item that bears the source item's name; none when
    // there is no such item; the lookup's error when the target cannot be asked.
    Result<std::optional<KvMetadata>> targetEntryWithSourceName() const;
    // Whether that item exists; the lookup's error when the target cannot be asked.
    Result<bool> targetHasSourceName() const;
    // "Keep both": `target` takes a name that `folder` on the target side does not hold yet (the
    // listing's error when it cannot be listed). Other choices leave it as it is.
    Status renameForKeepBoth(KvMetadata& target, const KvMetadata& folder);
    WrapperPtr sourceProxy_;
    WrapperPtr targetProxy_;

    // How collectTree walks a source folder: `list` lists a folder, `adjustTarget` (optional)
    // fixes a child's target record, `makeFolder` creates a target folder (an error ends the walk),
    // `linkSource` and `linkTarget` are the two sides' clients for links (transferLink).
    // `fetchLinks` (downloads): a link that does not point to a folder is fetched as the file it
    // points to, a link to a folder is skipped with its notice.
    struct TreeWalk {
        std::function<Result<KvMetadataList>(const KvMetadata&)> list;
        std::function<void(const KvMetadata& source, KvMetadata& target)> adjustTarget;
        std::function<Status(const KvMetadata& target)> makeFolder;
        Wrapper* linkSource = nullptr;
        Wrapper* linkTarget = nullptr;
        bool fetchLinks = false;
    };
    // Builds the node's subtree from the source listing: creates every target folder, appends
    // each file's node to `files` and adds its size to totalBytes. Links go to transferLink at
    // once, and temporaries of unfinished transfers are left out. A
    // name a server target cannot hold, a folder that cannot be listed or created fail as items
    // (itemFailed). Stops quietly when the task is stopped.
    Status collectTree(const std::shared_ptr<FileTransferNode>& node, const TreeWalk& walk,
                       std::vector<std::shared_ptr<FileTransferNode>>& files);

    // Makes the folder `root` on the target side (targetProxy_) and has `fill` put what it holds in
    // it. Replacing builds the new folder under a hidden name and swaps it in when complete;
    // merging writes into the folder that is there.
    Status placeFolder(const std::shared_ptr<FileTransferNode>& root,
                       const std::function<Status()>& fill);

    // The target folder as the task was created with, kept for the refresh notification.
    KvMetadata targetFolder_;

  private:
    std::atomic<FileTransferTaskDelegate*> delegate_{nullptr};
    std::atomic<FileTransferTaskManager*> manager_{nullptr};
    std::atomic<TransferTaskState> state_{TransferTaskState::Waiting};
    std::atomic<ConflictAction> fileConflict_{ConflictAction::NotDecided};
    std::atomic<std::int64_t> totalBytes_{0};
    std::atomic<std::int64_t> transferredBytes_{0};
    std::atomic<std::int64_t> arrivedBytes_{0};
    std::atomic<bool> progressQueued_{false};
    std::atomic<bool> completed_{false};
    mutable std::mutex mutex_;
    std::optional<Error> error_;
    std::optional<TimePoint> startTime_;
    std::optional<TimePoint> endTime_;
    std::optional<KvMetadata> transferringFileMeta_;
    std::vector<ItemFailure> itemFailures_;
    std::vector<std::string> notices_;
    std::vector<WrapperPtr> wrappers_;
};

// Text for a state ("waiting", "running", "completed", "stopped", "failed").
std::string_view stateName(TransferTaskState state);

}  // namespace quillon
