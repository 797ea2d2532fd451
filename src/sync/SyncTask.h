#pragma once
// SyncTask: makes one sync pair two-way consistent. New and changed files flow both ways,
// deletions since the last sync are carried across, and the state of every item afterwards is
// recorded in the pair's database, so the next run can tell a change on one side from a change
// on the other and from a deletion. It runs under the transfer manager like any other task.
//
// A run lists both trees once, plans every step from them and the records (SyncTreePlanner),
// then carries the steps out in order, writing the records of each as it completes; a dry run
// only reports the plan.
//
// Safety rules beyond the plain algorithm: a file is downloaded into the scratch folder and
// moved over its target in one step; an upload goes to the server under a hidden name and takes
// the file's name only when complete; a deletion drops the record of the side already gone,
// then deletes the item, then its own record, so a run killed in between is finished by the next
// one and never read as a deletion on the other side; a folder
// deleted on one side is removed on the other only down to the items unchanged since the last
// sync, and anything new or changed inside brings the folder back. Hidden items (names starting
// with ".") and links are never synced.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/Wrapper.h"
#include "sync/SyncDBManager.h"
#include "sync/SyncInfo.h"
#include "sync/SyncLocalService.h"
#include "sync/SyncPlanner.h"
#include "sync/SyncRemoteService.h"
#include "sync/SyncTreePlanner.h"
#include "transfer/FileTransferTask.h"

namespace quillon {

struct SyncOptions {
    // Decide and report every action without touching either side or the pair's records.
    bool dryRun = false;
    // Stop before deleting anything when the run would delete more than this share (percent)
    // of either side's files; absent: no limit.
    std::optional<double> maxDeletePercent = 50.0;
    // Seconds to wait after the ability check, before the sync proper.
    double pauseAfterCheck = 1.0;
};

class SyncTask : public FileTransferTask {
  public:
    // The name, text and time (seconds after 2001-01-01 UTC) of the ability-check file.
    static constexpr const char* kTestFileName = kSyncTestFileName;
    static constexpr const char* kTestFileText = "Testing file sync ability...";
    static constexpr double kTestFileReferenceSeconds = 1000000.0;
    // Error codes of domain "File Sync" beyond the listing failure 20001.
    static constexpr long kErrorSyncFolder = 20001;
    static constexpr long kErrorMaxDelete = 20010;
    static constexpr long kErrorBusy = 20011;
    static constexpr long kErrorNoServer = 20012;
    static constexpr long kErrorUnsafeLocalName = 20013;

    // A task for the pair: source = its remote folder, target = its local folder.
    explicit SyncTask(SyncInfo info, SyncOptions options = {});
    ~SyncTask() override;

    void startTransfer() override;
    // State 3, and the wrapper's current request is cancelled.
    void cancelTransfer() override;
    std::string_view taskClassName() const override { return "SyncTask"; }

    // The pair as the task last stored it.
    SyncInfo syncInfo() const;
    const SyncOptions& options() const { return options_; }
    SyncSummary summary() const;
    // The run's plan: every decision, made before anything is changed (a dry run reports it,
    // the delete limit and the progress total read it).
    std::vector<SyncDecision> plannedDecisions() const;
    // True once the run has ended and handed its completion to the main queue (a stopped task
    // reaches state 3 before its thread is done).
    bool runFinished() const { return runFinished_.load(); }
    // Called on the task's thread for each decision, before it is carried out (in a dry run,
    // instead).
    std::function<void(const SyncDecision&)> decisionHandler;

    // Whether the remote item changed since its record: its time differs by more than a second
    // from the recorded one, except that a time listed as a bare day (a server's listing of an
    // older file) on the recorded time's day counts as the same.
    static bool remoteChanged(const KvMetadata& item, const KvMetadata& record);
    // Whether the local item changed since its record.
    static bool localChanged(const KvMetadata& item, const KvMetadata& record);
    // Whether a recorded remote time is the exact time of a file whose listed minute was not
    // over when it was recorded (see remoteChangedSince); such times are never whole minutes.
    static bool isExactRecordedTime(TimePoint recorded);

  private:
    enum class Side { Local, Remote };

    // Ends the run: last sync time, pair status, notification, then the common completion.
    void completeFileTransfer(std::optional<Error> error);
    void finish(std::optional<Error> error);
    bool running() const { return state() == TransferTaskState::Running; }

    // Proves that the server takes and gives back a file; on failure completes the task with
    // the error and returns it.
    Status checkSyncCondition();
    // The folder's entries, hidden ones included: local folders from the file system, remote
    // ones from the wrapper.
    Result<KvMetadataList> contentsOfDirectory(const KvMetadata& folder);
    // The planner's time comparisons, with exact server times where the listing is coarse.
    SyncTimeRules timeRules();
    // Both trees as they are now, and the steps taken from them and the records.
    Result<SyncPlan> makePlan();
    Status snapshot(const KvMetadata& folder, const std::string& rel, SyncTreeSnapshot& tree);
    // The delete limit, read from the plan.
    Status checkPlanDeletes(const SyncSummary& plan);

    // The executor: the plan's steps in order, each recorded as it completes.
    Status carryOut(const SyncPlan& plan);
    Status carryOut(const SyncStep& step);
    Status download(const SyncStep& step);
    Status upload(const SyncStep& step);
    Status deleteRemoteFile(const SyncStep& step);
    Status deleteLocalFile(const SyncStep& step);
    Status createLocalFolder(const SyncStep& step);
    Status createRemoteFolder(const SyncStep& step);
    Status deleteRemoteFolder(const SyncStep& step);
    Status deleteLocalFolder(const SyncStep& step);
    // A folder kept for what it holds: its records go.
    Status forgetFolder(const SyncItemState& item);
    // The step's folder on the server, as made by this run when the plan made it.
    KvMetadata remoteFolderOf(const SyncStep& step) const;
    // Fetches `file` over the local file `expected` saw (none: no file) in `toFolder`;
    // false when the local file changed meanwhile (it is left for the next run) or the run
    // stopped. `keepLocalCopy`: a local version that differs is set aside as a loser of `path`.
    Result<bool> downloadInto(const KvMetadata& file, const KvMetadata& toFolder,
                              const std::optional<KvMetadata>& expected, bool keepLocalCopy,
                              const std::string& path);
    // Sends a scratch copy ("<name>.syncing") of the local file into the remote folder under
    // the file's name.
    Status uploadLocalFile(const KvMetadata& localFile, const KvMetadata& toFolder);
    Status storeRecords(const KvMetadata& r, const KvMetadata& l,
                        const std::optional<KvMetadata>& sr, const std::optional<KvMetadata>& sl);
    Status checkDeleteLimit(Side side);

    // Where the server lists times coarser than a second (FTP without MLSD lists minutes, and
    // days for older files), the times compared are made exact with the server's MDTM.
    bool coarseRemoteTimes() const;
    // The file's exact time on the server (remembered for the run); absent when the server
    // cannot tell.
    std::optional<TimePoint> exactRemoteTime(const KvMetadata& r);
    // remoteChanged() with exact times where the listing cannot tell.
    bool remoteChangedSince(const KvMetadata& r, const KvMetadata& sr);
    // "newer wins" with the server file's exact time where the listing cannot tell.
    bool localIsNewerThan(const KvMetadata& l, const KvMetadata& r);
    // The remote record of a listed file whose exact time is `exact`.
    KvMetadata remoteRecordOf(const KvMetadata& r, const std::optional<TimePoint>& exact) const;
    // Moves a local file to "<name>.original" (a free variant when taken); its new path.
    Result<std::string> moveAsideAsOriginal(const KvMetadata& file);

    void decide(const SyncDecision& decision);
    // The plan sets the total; a file that grew since it was listed raises it.
    void growTotalTo(std::int64_t bytes) {
        if (bytes > totalBytes()) setTotalBytes(bytes);
    }
    // Counts what was done, under the lock.
    template <typename F>
    void count(F&& f) {
        std::lock_guard lock(mutex_);
        f(summary_);
    }
    bool isRemoteRoot(const KvMetadata& folder) const;
    WrapperPtr wrapper() const;

    SyncInfo info_;
    SyncOptions options_;
    mutable std::mutex mutex_;
    WrapperPtr wrapper_;
    std::unique_ptr<SyncDBManager> db_;
    std::unique_ptr<SyncLocalService> localService_;
    std::unique_ptr<SyncRemoteService> remoteService_;
    KvMetadata remoteRoot_;
    KvMetadata localRoot_;
    std::string localRootPrefix_;
    SyncSummary summary_;
    std::vector<SyncDecision> plan_;
    bool checkingSyncCondition_ = false;
    std::string taskTempFolderPath_;
    // Folders this run made on the server, by the full path the plan gave them: what the plan
    // put inside goes into the server's own record of the folder.
    std::unordered_map<std::string, KvMetadata> createdRemote_;
    // Files whose exact recorded time the plan compared after their listed minute was over:
    // their records take the listed time before the steps run.
    KvMetadataList settledTimes_;
    // The local versions that lost a conflict and were set aside, by the download's path.
    std::unordered_map<std::string, KvMetadata> losers_;
    // Exact times asked of the server in this run, by record path, listed time and size.
    std::unordered_map<std::string, std::optional<TimePoint>> exactTimes_;
    // The minute the server's listing showed for the ability-check file: a file listed with an
    // earlier minute cannot be edited unseen within its minute any more.
    std::optional<TimePoint> serverMinute_;
    // Deletions the delete limit allows on each side in this run (absent: no limit).
    std::optional<std::int64_t> allowedLocalDeletes_, allowedRemoteDeletes_;
    std::int64_t doneBytes_ = 0;
    int lockFd_ = -1;
    // Another run holds the pair: this one leaves the pair's stored state alone.
    bool refusedBusy_ = false;
    std::atomic<bool> runFinished_{false};
};

}  // namespace quillon
