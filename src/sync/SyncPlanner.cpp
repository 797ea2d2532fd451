#include "sync/SyncPlanner.h"

#include <chrono>
#include <limits>

#include "sync/SyncUtils.h"

namespace quillon {

std::string_view syncVerdictName(SyncVerdict verdict) {
    switch (verdict) {
        case SyncVerdict::Nothing:
            return "nothing";
        case SyncVerdict::Download:
            return "download";
        case SyncVerdict::Upload:
            return "upload";
        case SyncVerdict::DeleteRemote:
            return "delete remote";
        case SyncVerdict::DeleteLocal:
            return "delete local";
        case SyncVerdict::CreateLocalFolder:
            return "mkdir local";
        case SyncVerdict::CreateRemoteFolder:
            return "mkdir remote";
        case SyncVerdict::EnterFolder:
            return "enter";
        case SyncVerdict::DeleteRemoteFolder:
            return "rmdir remote";
        case SyncVerdict::DeleteLocalFolder:
            return "rmdir local";
        case SyncVerdict::Skip:
            return "skip";
    }
    return "unknown";
}

namespace SyncPlanner {

namespace {

double seconds(const std::optional<TimePoint>& t) {
    if (!t) return -std::numeric_limits<double>::infinity();
    return std::chrono::duration<double>(t->time_since_epoch()).count();
}

SyncItemPlan plan(SyncVerdict verdict, std::string reason, bool conflict = false,
                  bool keepLocalCopy = false) {
    return {verdict, conflict, keepLocalCopy, std::move(reason)};
}

}  // namespace

bool remoteChanged(const KvMetadata& item, const KvMetadata& record) {
    if (!item.timestamp && !record.timestamp) return false;
    if (SyncUtils::fuzzyCompareDate(item.timestamp, record.timestamp)) return false;
    if (item.timestamp && record.timestamp) {
        auto day = std::chrono::floor<std::chrono::days>(*item.timestamp);
        if (*item.timestamp == day &&
            std::chrono::floor<std::chrono::days>(*record.timestamp) == day)
            return false;
    }
    return true;
}

bool localChanged(const KvMetadata& item, const KvMetadata& record) {
    if (!item.timestamp && !record.timestamp) return false;
    return !SyncUtils::fuzzyCompareDate(item.timestamp, record.timestamp);
}

bool localIsNewer(const KvMetadata& local, const KvMetadata& remote) {
    return seconds(local.timestamp) > seconds(remote.timestamp);
}

SyncItemPlan planRemoteItem(const SyncItemState& state, const SyncTimeRules& rules) {
    const KvMetadata& r = *state.remote;
    const auto& l = state.local;
    const auto& sr = state.remoteRecord;
    const auto& sl = state.localRecord;
    if (r.isSymbolLink || (l && l->isSymbolLink))
        return plan(SyncVerdict::Skip, "links are not synced");
    if (l && l->isDir != r.isDir)
        return plan(SyncVerdict::Skip, r.isDir ? "a folder on the server, a file here"
                                               : "a file on the server, a folder here");
    if (r.isDir) {
        // A folder deleted here (or whose deletion was interrupted) goes after both passes.
        if (sr && !l) return plan(SyncVerdict::DeleteRemoteFolder, "deleted here");
        if (!l) return plan(SyncVerdict::CreateLocalFolder, "new on the server");
        return plan(SyncVerdict::EnterFolder, "on both sides");
    }

    auto changedThere = [&] {
        return rules.remoteChanged ? rules.remoteChanged(r, *sr) : remoteChanged(r, *sr);
    };
    // The local version that loses is kept beside the winner, whether or not the pair was
    // synced before.
    auto newerWins = [&](const std::string& why) {
        bool localWins = rules.localIsNewer ? rules.localIsNewer(*l, r) : localIsNewer(*l, r);
        if (!localWins)
            return plan(SyncVerdict::Download, why + "; the server's is newer", true, true);
        return plan(SyncVerdict::Upload, why + "; the local one is newer", true);
    };
    if (!sr) {
        if (!l) return plan(SyncVerdict::Download, "new on the server");
        return newerWins("on both sides, never synced");
    }
    if (changedThere()) {
        if (l && sl) {
            if (!localChanged(*l, *sl)) return plan(SyncVerdict::Download, "changed on the server");
            return newerWins("changed on both sides");
        }
        if (!l)
            return plan(SyncVerdict::Download, "changed on the server since it was deleted here");
        return newerWins("changed on the server, no local record");
    }
    if (!l)
        return plan(SyncVerdict::DeleteRemote,
                    sl ? "deleted here" : "deleted here (finishing an interrupted run)");
    if (sl) {
        if (localChanged(*l, *sl)) return plan(SyncVerdict::Upload, "changed here");
        return plan(SyncVerdict::Nothing, "unchanged");
    }
    return newerWins("no local record");
}

SyncItemPlan planLocalOnlyItem(const SyncItemState& state) {
    const KvMetadata& l = *state.local;
    const auto& sl = state.localRecord;
    if (l.isSymbolLink) return plan(SyncVerdict::Skip, "links are not synced");
    if (l.isDir) {
        // A folder deleted on the server (or whose deletion was interrupted) goes at the end.
        if (sl) return plan(SyncVerdict::DeleteLocalFolder, "deleted on the server");
        return plan(SyncVerdict::CreateRemoteFolder, "new here");
    }
    if (!sl) return plan(SyncVerdict::Upload, "new here");
    if (!localChanged(l, *sl))
        return plan(SyncVerdict::DeleteLocal,
                    state.remoteRecord ? "deleted on the server"
                                       : "deleted on the server (finishing an interrupted run)");
    return plan(SyncVerdict::Upload, "changed here since it was deleted on the server");
}

}  // namespace SyncPlanner
}  // namespace quillon
