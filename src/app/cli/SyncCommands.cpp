// quillon sync add | list | run | rm: sync pairs on the command line. Runs go through the
// transfer manager like every other transfer, with the same progress line as cp.

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <mutex>

#include "app/cli/Cli.h"
#include "app/cli/Json.h"
#include "app/cli/ProgressView.h"
#include "app/cli/StopSignals.h"
#include "core/GCD.h"
#include "core/Location.h"
#include "core/MainQueue.h"
#include "sync/SyncInfoService.h"
#include "sync/SyncTask.h"
#include "sync/SyncUtils.h"
#include "transfer/FileTransferTaskManager.h"

namespace quillon::cli {

namespace {

// A failed pair does not stop the others: the failure is reported with the summary.
class SyncPrompts : public UserPrompts {
  public:
    void resolveConflict(const ResolveConflictItem&, ConflictAnswer answer) override {
        answer(ConflictAction::Skip, false);
    }
    void alertTaskFailure(const std::string&, bool offerIgnore, FailureAnswer answer) override {
        answer(offerIgnore ? FailureChoice::Ignore : FailureChoice::Stop);
    }
};

std::string timeText(const std::optional<TimePoint>& t) {
    if (!t) return "never";
    std::time_t tt = std::chrono::system_clock::to_time_t(*t);
    std::tm tm{};
    localtime_r(&tt, &tm);
    return fmt::format("{:%Y-%m-%d %H:%M:%S}", tm);
}

std::string serverText(const SyncInfo& info) {
    if (!info.serverInfo) return "(missing server " + info.serverUUID + ")";
    if (info.serverInfo->protocolType == ProtocolType::Local) return "local";
    return info.serverInfo->displayName;
}

std::string remoteText(const SyncInfo& info) {
    std::string path = info.remoteFolderMeta.pathOrEmpty();
    if (info.serverInfo && info.serverInfo->protocolType == ProtocolType::Local) return path;
    return serverText(info) + ":" + path;
}

// The local folder as shown: its path, or the stored name of a refused pair.
std::string localText(const SyncInfo& info) {
    if (info.hasSafeLocalName()) return info.localFolderMeta.pathOrEmpty();
    return fmt::format("(refused local name \"{}\")", info.localFolderMeta.nameOrEmpty());
}

int addPair(const std::string& locationText, const std::string& localName) {
    if (auto r = startApplication(); !r) return reportError(r.error());
    auto& service = SyncInfoService::sharedInstance();
    // Checked before the location is resolved, which may save a quick-connect record.
    if (!SyncInfoService::isValidNewLocalName(localName))
        return reportMessage("LOCAL_NAME must be a plain folder name (no \"/\", not hidden).",
                             kExitUsage);
    auto loc = resolveLocation(locationText);
    if (!loc) return reportError(loc.error());
    auto info = service.addPair(*loc, localName);
    if (!info) return reportRefusal(info.error());
    fmt::print("Added sync pair {}: {} <-> {}\n", info->syncInfoID, loc->display(),
               SyncUtils::getSyncFolderPath(localName));
    return kExitOk;
}

int listPairs(bool json) {
    if (auto r = startApplication(); !r) return reportError(r.error());
    auto pairs = SyncInfoService::sharedInstance().getAllSyncInfo();
    if (json) {
        std::string out = "[";
        for (std::size_t i = 0; i < pairs.size(); ++i) {
            auto& p = pairs[i];
            out += i ? ",\n" : "\n";
            out += fmt::format(
                "{{\"id\":{},\"server\":{},\"serverID\":{},\"remoteFolder\":{},\"localName\":{},"
                "\"localFolder\":{},\"lastSync\":{},\"status\":{},\"statusCode\":{}}}",
                p.syncInfoID, jsonString(serverText(p)), jsonString(p.serverUUID),
                jsonString(p.remoteFolderMeta.pathOrEmpty()),
                jsonString(p.localFolderMeta.nameOrEmpty()),
                jsonString(p.localFolderMeta.pathOrEmpty()), jsonTime(p.lastSyncDate),
                jsonString(SyncInfoService::statusText(p)), p.status);
        }
        out += pairs.empty() ? "]\n" : "\n]\n";
        std::fwrite(out.data(), 1, out.size(), stdout);
        return kExitOk;
    }
    if (pairs.empty()) {
        fmt::print("No sync pairs. Add one with `quillon sync add LOCATION LOCAL_NAME`.\n");
        return kExitOk;
    }
    fmt::print("{:>4}  {:<11}  {:<19}  {}\n", "ID", "STATUS", "LAST SYNC", "FOLDERS");
    for (auto& p : pairs)
        fmt::print("{:>4}  {:<11}  {:<19}  {} <-> {}\n", p.syncInfoID,
                   SyncInfoService::statusText(p), timeText(p.lastSyncDate), remoteText(p),
                   localText(p));
    return kExitOk;
}

int removePair(std::int64_t id) {
    if (auto r = startApplication(); !r) return reportError(r.error());
    auto info = SyncInfoService::sharedInstance().removePair(id);
    if (!info) return reportRefusal(info.error());
    fmt::print("Removed sync pair {}; the files in {} and in {} are kept.\n", id, localText(*info),
               remoteText(*info));
    return kExitOk;
}

std::string plural(std::int64_t n, const char* one, const char* many) {
    return fmt::format("{} {}", n, n == 1 ? one : many);
}

void printSummary(const SyncTask& task, bool dryRun) {
    auto info = task.syncInfo();
    auto s = task.summary();
    std::string outcome;
    switch (task.state()) {
        case TransferTaskState::Completed:
            outcome = dryRun ? "dry run" : "completed";
            break;
        case TransferTaskState::Stopped:
            outcome = "stopped";
            break;
        case TransferTaskState::Failed:
            outcome = "failed";
            break;
        default:
            outcome = std::string(stateName(task.state()));
    }
    double secs = 0;
    if (task.startTime() && task.endTime())
        secs = std::chrono::duration<double>(*task.endTime() - *task.startTime()).count();
    fmt::print("sync {}: {} <-> {}: {} in {:.1f} s\n", info.syncInfoID, remoteText(info),
               localText(info), outcome, secs);
    const char* verb = dryRun ? "would be " : "";
    auto side = [&](const char* label, std::int64_t in, std::int64_t bytes, std::int64_t deleted,
                    std::int64_t made, std::int64_t removed, const char* inVerb) {
        std::string line = fmt::format("  {}: {} {}{} ({})", label, plural(in, "file", "files"),
                                       verb, inVerb, formatBytes(bytes));
        line += fmt::format(", {} {}deleted", plural(deleted, "file", "files"), verb);
        if (made) line += fmt::format(", {} {}created", plural(made, "folder", "folders"), verb);
        if (removed)
            line += fmt::format(", {} {}removed", plural(removed, "folder", "folders"), verb);
        fmt::print("{}\n", line);
    };
    side("local ", s.downloaded, s.bytesDownloaded, s.deletedLocal, s.localFoldersCreated,
         s.localFoldersDeleted, "downloaded");
    side("server", s.uploaded, s.bytesUploaded, s.deletedRemote, s.remoteFoldersCreated,
         s.remoteFoldersDeleted, "uploaded");
    if (s.conflicts)
        fmt::print("  {}: the newer version {}\n", plural(s.conflicts, "conflict", "conflicts"),
                   dryRun ? "would win" : "won");
    if (s.kept)
        fmt::print("  {} inside deleted folders kept (new or changed since the last sync)\n",
                   plural(s.kept, "item", "items"));
    if (s.skipped)
        fmt::print("  {} not synced (links or kind clashes)\n", plural(s.skipped, "item", "items"));
    if (auto e = task.error()) fmt::print("  error: {}\n", e->describe());
    if (s.deletePercentNeeded)
        fmt::print(
            "  Nothing was deleted. If these deletions are meant, run `quillon sync run {} "
            "--max-delete {:g}`.\n",
            info.syncInfoID, *s.deletePercentNeeded);
}

struct RunOptions {
    std::vector<std::int64_t> ids;
    bool all = false;
    bool dryRun = false;
    std::optional<double> maxDelete;
    bool verbose = false;
};

int runPairs(const RunOptions& opts) {
    if (opts.ids.empty() && !opts.all)
        return reportMessage(
            "Name the sync pairs to run (IDs from `quillon sync list`) or give --all.", kExitUsage);
    if (auto r = startApplication(); !r) return reportError(r.error());
    auto all = SyncInfoService::sharedInstance().getAllSyncInfo();
    std::vector<SyncInfo> chosen;
    if (opts.all) {
        chosen = all;
    } else {
        for (auto id : opts.ids) {
            auto it = std::find_if(all.begin(), all.end(),
                                   [&](const SyncInfo& i) { return i.syncInfoID == id; });
            if (it == all.end()) return reportMessage(fmt::format("No sync pair {}.", id));
            chosen.push_back(*it);
        }
    }
    if (chosen.empty()) {
        fmt::print("No sync pairs to run.\n");
        return kExitOk;
    }

    SyncOptions options;
    options.dryRun = opts.dryRun;
    if (opts.maxDelete) options.maxDeletePercent = opts.maxDelete;
    auto view = std::make_shared<ProgressView>(stderr, opts.dryRun);
    auto& manager = FileTransferTaskManager::sharedInstance();
    manager.setUserPrompts(std::make_shared<SyncPrompts>());
    manager.addObserver(view);

    std::vector<std::shared_ptr<SyncTask>> tasks;
    for (auto& info : chosen) {
        auto task = std::make_shared<SyncTask>(info, options);
        {
            std::int64_t id = info.syncInfoID;
            bool everyAction = opts.dryRun || opts.verbose;
            // Decisions are printed on the main thread, where the progress line is drawn too.
            // The view holds the task: the task holds the view weakly, or neither would go.
            // What is not synced (links) is always told, once per item.
            std::weak_ptr<ProgressView> weakView = view;
            task->decisionHandler = [id, weakView, everyAction](const SyncDecision& d) {
                if (!everyAction && d.action != SyncAction::Skip) return;
                GCD::doInForeground([id, weakView, d] {
                    if (auto v = weakView.lock()) v->clearBlock();
                    std::string what(syncActionName(d.action));
                    if (d.conflict) what = "conflict: " + what;
                    fmt::print("[{}] {:<18} {}{}  ({})\n", id, what, d.path, d.isDir ? "/" : "",
                               d.reason);
                    std::fflush(stdout);
                });
            };
        }
        tasks.push_back(task);
        view->add(task, fmt::format("sync {}", info.syncInfoID));
        manager.addTask(task);
    }

    // A stop signal stops the syncs between items, and they record it.
    StopSignals signals(StopSignals::Second::Ignore, [&](int) { manager.stopAllTasks(); });
    auto& queue = MainQueue::shared();
    auto timer = queue.scheduleRepeating(std::chrono::milliseconds(100), [&] { view->tick(); });
    manager.start();
    auto finished = [&] {
        return std::all_of(tasks.begin(), tasks.end(), [](const std::shared_ptr<SyncTask>& t) {
            // A task stopped while waiting never runs.
            return t->runFinished() ||
                   (t->state() == TransferTaskState::Stopped && !t->startTime());
        });
    };
    queue.runUntil([&] { return finished() && !manager.hasActiveTasks(); });
    queue.cancel(timer);
    // Decisions and completions already queued.
    while (queue.pump() > 0) {
    }
    view->clearBlock();
    manager.removeObserver(view);

    int rc = kExitOk;
    for (auto& t : tasks) {
        printSummary(*t, opts.dryRun);
        if (t->state() != TransferTaskState::Completed) rc = kExitError;
    }
    // Stopped by the user: the status says so, as for every other command.
    if (StopSignals::stopRequested()) return 128 + StopSignals::signal();
    return rc;
}

}  // namespace

void registerSyncCommands(Cli& cli) {
    auto* sync = cli.app.add_subcommand("sync", "Keep a server folder and a local folder in step");
    sync->require_subcommand(1);

    auto addArgs = std::make_shared<std::pair<std::string, std::string>>();
    auto* add = sync->add_subcommand(
        "add", "Pair a folder (NAME:/path, or a local folder) with \"Synced/LOCAL_NAME\"");
    add->add_option("LOCATION", addArgs->first,
                    "NAME:/path on a configured server, or a local folder")
        ->required();
    add->add_option("LOCAL_NAME", addArgs->second, "Name of the local folder under \"Synced\"")
        ->required();
    add->callback([&cli, addArgs] {
        cli.action = [addArgs] { return addPair(addArgs->first, addArgs->second); };
    });

    auto listJson = std::make_shared<bool>(false);
    auto* list = sync->add_subcommand("list", "List the sync pairs: folders, last sync, status");
    list->add_flag("--json", *listJson, "Print a JSON array");
    list->callback([&cli, listJson] { cli.action = [listJson] { return listPairs(*listJson); }; });

    auto run = std::make_shared<RunOptions>();
    auto maxDelete = std::make_shared<double>(0);
    auto* runCmd = sync->add_subcommand("run", "Sync pairs now");
    runCmd->add_option("ID", run->ids, "Sync pair IDs (see `quillon sync list`)");
    runCmd->add_flag("--all", run->all, "Every sync pair");
    runCmd->add_flag("--dry-run", run->dryRun, "Print what would be done; change nothing");
    auto* md = runCmd
                   ->add_option("--max-delete", *maxDelete,
                                "Stop before deleting anything when a run would delete more "
                                "than PERCENT of a side's files (default 50; 100: no limit)")
                   ->check(CLI::Range(0.0, 100.0));
    runCmd->add_flag("-v,--verbose", run->verbose, "Print every action");
    runCmd->callback([&cli, run, maxDelete, md] {
        if (md->count()) run->maxDelete = *maxDelete;
        cli.action = [run] { return runPairs(*run); };
    });

    auto rmId = std::make_shared<std::int64_t>(0);
    auto* rm = sync->add_subcommand("rm", "Forget a sync pair (its files stay on both sides)");
    rm->add_option("ID", *rmId, "Sync pair ID")->required();
    rm->callback([&cli, rmId] { cli.action = [rmId] { return removePair(*rmId); }; });
}

}  // namespace quillon::cli
