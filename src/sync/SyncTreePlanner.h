#pragma once
// SyncTreePlanner: everything a sync run does, decided at once from both trees as listed at its
// start and the pair's records. It touches no file, server or database, so a dry run, the
// delete limit and the progress total all read the same list the run carries out.
//
// The order is the run's own: the remote pass (items listed on the server, folder by folder),
// the local pass (local items with nothing of their name on the server, and the local versions
// that lost a conflict), then the folders deleted on one side, remote ones first. A folder
// deleted on one side that still holds something new or changed on the other is made again,
// and what it holds follows.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/KvMetadata.h"
#include "sync/SyncPlanner.h"

namespace quillon {

// The file the ability check sends to the server and takes back.
inline constexpr const char* kSyncTestFileName = "test_1f36ebe4-a6a8-11e8-98d0-529269fb1459.txt";

// What a sync does (or, in a dry run, would do) with one item.
enum class SyncAction {
    Download,            // the server's file replaces or becomes the local one
    Upload,              // the local file replaces or becomes the server's one
    DeleteRemote,        // deleted locally since the last sync: deleted on the server
    DeleteLocal,         // deleted on the server since the last sync: deleted locally
    CreateLocalFolder,   // a folder new on the server
    CreateRemoteFolder,  // a folder new locally
    DeleteRemoteFolder,  // a folder deleted locally: removed on the server once empty
    DeleteLocalFolder,   // a folder deleted on the server: removed locally once empty
    Keep,                // inside a deleted folder, but new or changed since: kept
    Skip,                // not synced (a link, or a file facing a folder of the same name)
};

// "download", "upload", "delete remote", "delete local", "mkdir local", "mkdir remote",
// "rmdir remote", "rmdir local", "keep", "skip".
std::string_view syncActionName(SyncAction action);

struct SyncDecision {
    SyncAction action = SyncAction::Skip;
    bool conflict = false;  // both sides had a version of the file; the newer one won
    bool isDir = false;
    bool remoteSide = false;  // Keep and Skip: the item lies on the server
    std::string path;         // relative to the pair's folders ("a/b.txt")
    std::string reason;       // why, in a few words
    std::uint64_t size = 0;   // bytes to transfer
};

// What a run did (or would do) on each side.
struct SyncSummary {
    std::int64_t downloaded = 0;
    std::int64_t uploaded = 0;
    std::int64_t deletedLocal = 0;
    std::int64_t deletedRemote = 0;
    std::int64_t localFoldersCreated = 0;
    std::int64_t remoteFoldersCreated = 0;
    std::int64_t localFoldersDeleted = 0;
    std::int64_t remoteFoldersDeleted = 0;
    std::int64_t conflicts = 0;
    std::int64_t kept = 0;
    std::int64_t skipped = 0;
    std::int64_t bytesDownloaded = 0;
    std::int64_t bytesUploaded = 0;
    // Files seen on each side.
    std::int64_t localFiles = 0;
    std::int64_t remoteFiles = 0;
    // When the delete limit stopped the run: the smallest limit (percent) that lets it go ahead.
    std::optional<double> deletePercentNeeded;
    // True when nothing was transferred, deleted or created.
    bool nothingChanged() const;
};

// The counts of a list of decisions (the files seen are not among them).
SyncSummary summarizeDecisions(const std::vector<SyncDecision>& decisions);

// One side of a pair as listed: each folder's entries, hidden ones included, by the folder's
// path relative to the pair's folder ("" for the pair's folder itself, "a/b" below it). A
// folder that is not there has no entry.
struct SyncTreeSnapshot {
    std::unordered_map<std::string, KvMetadataList> folders;
};

// The pair's records, looked up as the store keeps them; absent: never synced.
struct SyncRecordLookup {
    std::function<std::optional<KvMetadata>(const KvMetadata& remote)> remoteByRemote;
    std::function<std::optional<KvMetadata>(const KvMetadata& remote)> localByRemote;
    std::function<std::optional<KvMetadata>(const KvMetadata& local)> localByLocal;
    std::function<std::optional<KvMetadata>(const KvMetadata& local)> remoteByLocal;
};

// What a step does with the pair's records beyond carrying out its decision.
enum class SyncStepKind {
    Act,           // carries out its decision (and records the outcome)
    RecordFolder,  // a folder on both sides with a record missing: the records are written
    ForgetFolder,  // a deleted folder kept for what it holds: its records go, so that the next
                   // run takes what is left for new
};

// One step of a run, with everything the run needs to carry it out: the item as planned (R, L,
// SR, SL) and the folders it lies in on each side. The run never lists or decides again.
struct SyncStep {
    SyncStepKind kind = SyncStepKind::Act;
    SyncDecision decision;  // Act: what the run reports before carrying it out
    SyncItemState item;
    KvMetadata remoteFolder;  // the item's folder on the server (planned, for a new folder)
    KvMetadata localFolder;   // the item's local folder
    // Download: the local version that loses is kept beside the winner as "<name>.original".
    bool keepLocalCopy = false;
    // Upload of such a loser: the path (relative) of the download that set it aside.
    std::optional<std::string> loserOf;
};

struct SyncPlan {
    std::vector<SyncStep> steps;
    // Synced files seen on each side.
    std::int64_t localFiles = 0;
    std::int64_t remoteFiles = 0;

    // The decisions of the steps that act, in order.
    std::vector<SyncDecision> decisions() const;
    // The decisions' counts with the files seen.
    SyncSummary summary() const;
    // The bytes the run transfers, both ways.
    std::int64_t transferBytes() const;
};

namespace SyncTreePlanner {

struct Input {
    const SyncTreeSnapshot* remote = nullptr;
    const SyncTreeSnapshot* local = nullptr;
    KvMetadata remoteRoot;  // the pair's folders
    KvMetadata localRoot;
    SyncRecordLookup records;
    SyncTimeRules rules;
};

// Whether an item of this name is synced at all (hidden items and the ability-check file are
// not).
bool isSyncedName(std::string_view name);

SyncPlan plan(const Input& input);

}  // namespace SyncTreePlanner
}  // namespace quillon
