#pragma once
// SyncPlanner: what a sync does with one item, from what the pair's records say and what each
// side holds now. It touches no file, server or database: the task lists both sides, looks up
// the records, asks the planner, and carries the decision out.

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "core/KvMetadata.h"

namespace quillon {

enum class SyncVerdict {
    Nothing,             // both sides are as the records say
    Download,            // the server's file replaces or becomes the local one
    Upload,              // the local file replaces or becomes the server's one
    DeleteRemote,        // deleted here since the last sync
    DeleteLocal,         // deleted on the server since the last sync
    CreateLocalFolder,   // new on the server: made here, then entered
    CreateRemoteFolder,  // new here: made on the server, then entered
    EnterFolder,         // a folder on both sides: its missing records are added, then entered
    DeleteRemoteFolder,  // deleted here: removed on the server after both passes
    DeleteLocalFolder,   // deleted on the server: removed here after both passes
    Skip,                // not synced (a link, or a file facing a folder of the same name)
};

// "nothing", "download", "upload", "delete remote", "delete local", "mkdir local",
// "mkdir remote", "enter", "rmdir remote", "rmdir local", "skip".
std::string_view syncVerdictName(SyncVerdict verdict);

// The four things a decision looks at; absent means not there.
struct SyncItemState {
    std::optional<KvMetadata> remote;        // listed on the server now
    std::optional<KvMetadata> local;         // the local item of the same name
    std::optional<KvMetadata> remoteRecord;  // the server's item as the last sync left it
    std::optional<KvMetadata> localRecord;   // the local item as the last sync left it
};

struct SyncItemPlan {
    SyncVerdict verdict = SyncVerdict::Nothing;
    bool conflict = false;       // both sides have a version of the file; the newer one won
    bool keepLocalCopy = false;  // a download over a local version that lost: kept beside it
    std::string reason;          // why, in a few words
};

// How times compare. The defaults are the plain rules; a server that lists coarse times plugs
// in comparisons that ask it for exact ones.
struct SyncTimeRules {
    std::function<bool(const KvMetadata& remote, const KvMetadata& record)> remoteChanged;
    std::function<bool(const KvMetadata& local, const KvMetadata& remote)> localIsNewer;
};

namespace SyncPlanner {

// The remote item changed since its record: its time differs by more than a second, except
// that a time listed as a bare day (a server's listing of an older file) on the recorded
// time's day counts as the same.
bool remoteChanged(const KvMetadata& item, const KvMetadata& record);
// The local item changed since its record.
bool localChanged(const KvMetadata& item, const KvMetadata& record);
// "Newer wins": the local file wins only when its time is later than the server's.
bool localIsNewer(const KvMetadata& local, const KvMetadata& remote);

// An item listed on the server (the remote pass); `state.remote` is set.
SyncItemPlan planRemoteItem(const SyncItemState& state, const SyncTimeRules& rules = {});
// A local item with nothing of its name on the server (the local pass); `state.local` is set.
SyncItemPlan planLocalOnlyItem(const SyncItemState& state);

}  // namespace SyncPlanner
}  // namespace quillon
