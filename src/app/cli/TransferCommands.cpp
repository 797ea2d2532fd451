// quillon cp and quillon mv: every source becomes a transfer task of the one task manager, which
// runs them with progress, asks about name conflicts (or applies --on-conflict), and stops or
// goes on after a failure as the user chooses.

#include <fmt/format.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/cli/Cli.h"
#include "app/cli/Json.h"
#include "app/cli/Location.h"
#include "app/cli/ProgressView.h"
#include "core/MainQueue.h"
#include "core/StringUtils.h"
#include "transfer/CopyTask.h"
#include "transfer/CrossCopyTask.h"
#include "transfer/CrossMoveTask.h"
#include "transfer/DownloadTask.h"
#include "transfer/FileTransferTaskManager.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/MoveTask.h"
#include "transfer/UploadTask.h"

namespace quillon::cli {

namespace {

// Ctrl-C (and a polite SIGTERM or SIGHUP): the first stops every task, a second one ends the
// process at once.
std::atomic<int> gInterrupts{0};
std::atomic<int> gSignal{0};

void onInterrupt(int sig) {
    if (gInterrupts.fetch_add(1) >= 1) ::_exit(128 + (gSignal.load() ? gSignal.load() : sig));
    gSignal = sig;
}

class InterruptGuard {
  public:
    InterruptGuard() {
        gInterrupts = 0;
        gSignal = 0;
        struct sigaction sa {};
        sa.sa_handler = onInterrupt;
        sigemptyset(&sa.sa_mask);
        sa.sa_flags = 0;  // no SA_RESTART: a pending terminal question returns at once
        for (std::size_t i = 0; i < kSignals.size(); ++i)
            ::sigaction(kSignals[i], &sa, &previous_[i]);
    }
    ~InterruptGuard() {
        for (std::size_t i = 0; i < kSignals.size(); ++i)
            ::sigaction(kSignals[i], &previous_[i], nullptr);
    }
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

  private:
    static constexpr std::array<int, 3> kSignals{SIGINT, SIGTERM, SIGHUP};
    std::array<struct sigaction, 3> previous_{};
};

enum class ConflictPolicy { Ask, Replace, KeepBoth, Skip };

struct Options {
    std::vector<std::string> sources;
    std::string target;
    bool recursive = false;
    std::string onConflict;
    int jobs = 0;
    bool json = false;
    bool keepGoing = false;
};

using FileTransferUtils::itemName;

// One line of output per finished task and one live line per running task: redrawn in place on
// a terminal, printed every few seconds otherwise, or JSON objects with --json.
class TransferConsole : public ProgressView {
  public:
    TransferConsole(bool json, bool moving)
        : ProgressView(stderr, /*quiet=*/json), json_(json), moving_(moving) {}

    // Progress and ends are wanted in every mode, JSON included.
    bool isDisplayed() const override { return true; }

    void updateProgress(FileTransferTask& task, std::int64_t done, std::int64_t total) override {
        Row* row = find(task);
        if (!row) return;
        auto state = task.state();
        bool final = state == TransferTaskState::Completed || state == TransferTaskState::Failed ||
                     (state == TransferTaskState::Stopped && task.delegate() == nullptr);
        if (final) {
            if (!row->ended) report(*row);
            return;
        }
        takeSample(*row, done);
        if (json_) {
            auto now = Clock::now();
            auto& last = lastJson_[row->id];
            if (now - last >= std::chrono::milliseconds(100)) {
                last = now;
                emitJsonProgress(*row, done, total);
            }
        }
    }

    void message(const std::string& text) {
        clearBlock();
        fmt::print(stderr, "{}\n", text);
        std::fflush(stderr);
    }

    // A question: the answer is typed on the same line.
    void ask(const std::string& text) {
        clearBlock();
        fmt::print(stderr, "{}", text);
        std::fflush(stderr);
    }

    // Every task has ended (or never started) and its end was delivered.
    bool allDone() const {
        for (auto& row : rows_) {
            auto s = row.task->state();
            if (s == TransferTaskState::Waiting || s == TransferTaskState::Running) return false;
            if (row.task->delegate() != nullptr) return false;
        }
        return true;
    }

    // Reports the tasks that ended without a completion (stopped while waiting).
    void reportRest() {
        for (auto& row : rows_)
            if (!row.ended) report(row);
    }

    bool anyFailed() const {
        return std::any_of(rows_.begin(), rows_.end(), [](const Row& r) {
            return r.task->state() == TransferTaskState::Failed;
        });
    }

  protected:
    // The source's name, then the file being moved when the source is a folder.
    std::string nameOf(const Row& row) const override {
        auto& task = *row.task;
        std::string name = itemName(task.sourceMetadata);
        if (auto current = task.transferringFileMeta(); current && task.sourceMetadata.isDir)
            name += " > " + itemName(*current);
        return name;
    }

  private:
    void emitJsonProgress(const Row& row, std::int64_t done, std::int64_t total) {
        double rate = rateOf(row);
        std::string current = "null";
        if (auto meta = row.task->transferringFileMeta()) current = jsonString(itemName(*meta));
        std::string eta = rate > 0 && total > done
                              ? fmt::format("{:.1f}", static_cast<double>(total - done) / rate)
                              : "null";
        fmt::print(stdout,
                   "{{\"event\":\"progress\",\"id\":{},\"source\":{},\"file\":{},"
                   "\"transferred\":{},\"total\":{},\"percent\":{},\"rate\":{},\"eta\":{}}}\n",
                   row.id, jsonString(row.label), current, done, total,
                   total > 0 ? fmt::format("{:.1f}", 100.0 * static_cast<double>(done) /
                                                         static_cast<double>(total))
                             : "null",
                   static_cast<std::int64_t>(rate), eta);
        std::fflush(stdout);
    }

    void report(Row& row) {
        row.ended = true;
        auto& task = *row.task;
        auto state = task.state();
        auto error = task.error();
        auto failures = task.itemFailures();
        auto errorJson = [](const Error& e) {
            return fmt::format("{{\"domain\":{},\"code\":{},\"reason\":{}}}", jsonString(e.domain),
                               e.code, jsonString(e.reason));
        };
        if (json_) {
            std::string failed;
            for (auto& f : failures)
                failed += fmt::format("{}{{\"path\":{},\"error\":{}}}", failed.empty() ? "" : ",",
                                      jsonString(f.path), errorJson(f.error));
            fmt::print(stdout,
                       "{{\"event\":\"end\",\"id\":{},\"source\":{},\"target\":{},\"state\":{},"
                       "\"transferred\":{},\"total\":{},\"error\":{}{}}}\n",
                       row.id, jsonString(row.label), jsonString(task.targetMetadata.pathOrEmpty()),
                       jsonString(stateName(state)), task.transferredBytes(), task.totalBytes(),
                       error ? errorJson(*error) : "null",
                       failed.empty() ? "" : ",\"failedItems\":[" + failed + "]");
            std::fflush(stdout);
            return;
        }
        // Items of a folder that failed while the rest went on, each on its own line (the task's
        // own line names a single one).
        for (auto& f : failures.size() > 1 ? failures : decltype(failures){})
            message(fmt::format("quillon: {} failed: {}", StringUtils::escapedForDisplay(f.path),
                                f.error.describe()));
        std::string text;
        switch (state) {
            case TransferTaskState::Completed: {
                double seconds = 0;
                if (task.startTime() && task.endTime())
                    seconds =
                        std::chrono::duration<double>(*task.endTime() - *task.startTime()).count();
                text = fmt::format("{} {} -> {}  {} in {}", moving_ ? "moved " : "copied",
                                   row.label, task.targetMetadata.pathOrEmpty(),
                                   formatBytes(task.totalBytes()), formatDuration(seconds));
                break;
            }
            case TransferTaskState::Failed:
                text = fmt::format("quillon: {} failed: {}", row.label,
                                   error ? error->describe() : std::string("unknown error"));
                break;
            default:
                text = fmt::format(
                    "{} {}", task.fileConflict() == ConflictAction::Skip ? "skipped" : "stopped",
                    row.label);
                break;
        }
        message(text);
    }

    bool json_;
    bool moving_;
    std::map<int, Clock::time_point> lastJson_;  // by row id
};

// Answers the engine's questions on the terminal, or from the command's flags.
class TerminalPrompts : public UserPrompts {
  public:
    TerminalPrompts(ConflictPolicy policy, bool keepGoing, bool interactive,
                    std::shared_ptr<TransferConsole> console)
        : policy_(policy),
          keepGoing_(keepGoing),
          interactive_(interactive),
          console_(std::move(console)) {}

    void resolveConflict(const ResolveConflictItem& item, ConflictAnswer answer) override {
        switch (policy_) {
            case ConflictPolicy::Replace:
                answer(ConflictAction::Replace, true);
                return;
            case ConflictPolicy::KeepBoth:
                answer(ConflictAction::KeepBoth, true);
                return;
            case ConflictPolicy::Skip:
                answer(ConflictAction::Skip, true);
                return;
            case ConflictPolicy::Ask:
                break;
        }
        if (!interactive_ || gInterrupts > 0) {
            answer(ConflictAction::Skip, false);
            return;
        }
        std::string choices =
            item.hideReplaceButton ? "[k]eep both, [s]kip" : "[r]eplace, [k]eep both, [s]kip";
        while (true) {
            console_->ask(fmt::format("{}\n{} (a capital letter applies to all later conflicts): ",
                                      item.message, choices));
            auto line = readLine();
            if (!line) {
                answer(ConflictAction::Skip, false);
                return;
            }
            auto text = StringUtils::trim(*line);
            if (text.empty()) continue;
            char c = text[0];
            bool all = c >= 'A' && c <= 'Z';
            switch (c | 0x20) {
                case 'r':
                    if (item.hideReplaceButton) break;
                    answer(ConflictAction::Replace, all);
                    return;
                case 'k':
                    answer(ConflictAction::KeepBoth, all);
                    return;
                case 's':
                    answer(ConflictAction::Skip, all);
                    return;
                default:
                    break;
            }
        }
    }

    FailureChoice alertTaskFailure(const std::string&, bool offerIgnore) override {
        // The error itself was printed with the task's end.
        if (keepGoing_) return FailureChoice::Ignore;
        if (!offerIgnore || !interactive_ || gInterrupts > 0) return FailureChoice::Stop;
        while (true) {
            console_->ask("[s]top all transfers, or [i]gnore and go on? ");
            auto line = readLine();
            if (!line) return FailureChoice::Stop;
            auto text = StringUtils::trim(*line);
            if (text.empty()) continue;
            if ((text[0] | 0x20) == 's') return FailureChoice::Stop;
            if ((text[0] | 0x20) == 'i') return FailureChoice::Ignore;
        }
    }

  private:
    // A line from standard input; absent at the end of input or when Ctrl-C interrupts.
    static std::optional<std::string> readLine() {
        std::string line;
        char c = 0;
        while (true) {
            ssize_t n = ::read(STDIN_FILENO, &c, 1);
            if (n < 0) return std::nullopt;  // EINTR from Ctrl-C, or a read error
            if (n == 0) return line.empty() ? std::nullopt : std::optional(line);
            if (c == '\n') return line;
            line += c;
        }
    }

    ConflictPolicy policy_;
    bool keepGoing_;
    bool interactive_;
    std::shared_ptr<TransferConsole> console_;
};

std::optional<ConflictPolicy> parsePolicy(const std::string& text, bool interactive) {
    if (text.empty()) return interactive ? ConflictPolicy::Ask : ConflictPolicy::Skip;
    if (text == "ask") return ConflictPolicy::Ask;
    if (text == "replace") return ConflictPolicy::Replace;
    if (text == "keep-both") return ConflictPolicy::KeepBoth;
    if (text == "skip") return ConflictPolicy::Skip;
    return std::nullopt;
}

bool isLocalServer(const ServerInfoPtr& s) {
    return s && s->protocolType == ProtocolType::Local;
}

// The parent folder's record of a located item.
KvMetadata parentRecord(const Location& loc) {
    Location parent = loc;
    parent.path = FileTransferUtils::parentPath(loc.path);
    return parent.metadata(true);
}

FileTransferTaskPtr makeTaskFor(bool moving, const Location& src, const Location& dst) {
    bool srcLocal = isLocalServer(src.server), dstLocal = isLocalServer(dst.server);
    if (moving) {
        // The local disk is one place, whatever volume an item is on.
        bool sameServer = src.server->serverID == dst.server->serverID || (srcLocal && dstLocal);
        if (sameServer) return std::make_shared<MoveTask>();
        return std::make_shared<CrossMoveTask>();
    }
    if (srcLocal && dstLocal) return std::make_shared<CopyTask>();
    if (dstLocal) return std::make_shared<DownloadTask>();
    if (srcLocal) return std::make_shared<UploadTask>();
    return std::make_shared<CrossCopyTask>();
}

// `quillon mv OLD NEW` within one server when NEW is not an existing folder.
int renameItem(const Location& src, const KvMetadata& item, const Location& dst) {
    bool sameServer = src.server->serverID == dst.server->serverID ||
                      (isLocalServer(src.server) && isLocalServer(dst.server));
    if (!sameServer)
        return reportMessage(dst.display() +
                             " is not a folder: moving to a new name works within one server.");
    if (dst.path == src.path) return kExitOk;
    if (item.isDir && FileTransferUtils::isCopyIntoItself(src.path, dst.path))
        return reportMessage(FileTransferUtils::copyIntoItselfMessage());
    if (auto existing = statLocation(dst)) return reportMessage(dst.display() + " already exists.");
    Location parent = dst;
    parent.path = FileTransferUtils::parentPath(dst.path);
    auto folder = statLocation(parent);
    if (!folder || !folder->isDir) return reportMessage(parent.display() + " is not a folder.");
    auto client = isLocalServer(dst.server) ? dst.client : src.client;
    if (auto r = client->moveSync(item, dst.metadata(item.isDir)); !r)
        return reportError(r.error());
    return kExitOk;
}

int runTransfer(const Options& opt, bool moving) {
    bool interactive = ::isatty(STDIN_FILENO) == 1;
    auto policy = parsePolicy(opt.onConflict, interactive);
    if (!policy)
        return reportMessage("--on-conflict takes ask, replace, keep-both or skip.", kExitUsage);
    if (moving && *policy == ConflictPolicy::Replace)
        return reportMessage("a move can only keep both or skip on a name conflict.", kExitUsage);
    if (*policy == ConflictPolicy::Ask && !interactive)
        return reportMessage("--on-conflict ask needs a terminal on standard input.", kExitUsage);
    if (opt.jobs < 0) return reportMessage("--jobs takes a number of 1 or more.", kExitUsage);
    if (auto r = startApplication(); !r) return reportError(r.error());

    auto dst = resolveLocation(opt.target);
    if (!dst) return reportError(dst.error());
    auto dstItem = statLocation(*dst);

    if (moving && opt.sources.size() == 1 && (!dstItem || !dstItem->isDir)) {
        auto src = resolveLocation(opt.sources[0]);
        if (!src) return reportError(src.error());
        auto item = statLocation(*src);
        if (!item) return reportError(item.error());
        return renameItem(*src, *item, *dst);
    }
    if (!dstItem) return reportError(dstItem.error());
    if (!dstItem->isDir) return reportMessage(dst->display() + " is not a folder.");
    KvMetadata folder = dst->metadata(true);

    auto console = std::make_shared<TransferConsole>(opt.json, moving);
    int rc = kExitOk;
    struct Planned {
        Location src;
        KvMetadata item;
    };
    std::vector<Planned> planned;
    for (auto& text : opt.sources) {
        auto src = resolveLocation(text);
        if (!src) {
            rc = reportError(src.error());
            continue;
        }
        auto item = statLocation(*src);
        if (!item) {
            rc = reportError(item.error());
            continue;
        }
        if (item->isDir && !item->isSymbolLink && !moving && !opt.recursive) {
            rc = reportMessage(src->display() + " is a folder: use -r to copy it.");
            continue;
        }
        bool sameServer = src->server->serverID == dst->server->serverID ||
                          (isLocalServer(src->server) && isLocalServer(dst->server));
        if (sameServer && item->isDir && !item->isSymbolLink &&
            FileTransferUtils::isCopyIntoItself(src->path, dst->path)) {
            rc = reportMessage(FileTransferUtils::copyIntoItselfMessage());
            continue;
        }
        // Moving an item into the folder it is in changes nothing.
        if (moving && sameServer && FileTransferUtils::parentPath(src->path) == dst->path) continue;
        item->parentFolderMeta = std::make_shared<KvMetadata>(parentRecord(*src));
        planned.push_back({*src, *item});
    }
    KvMetadataList allItems;
    for (auto& p : planned) allItems.push_back(p.item);

    auto& manager = FileTransferTaskManager::sharedInstance();
    std::vector<FileTransferTaskPtr> tasks;
    auto addTask = [&](const FileTransferTaskPtr& task, const Planned& p, KvMetadataList items) {
        std::string label = p.src.display();
        if (items.size() > 1 && dynamic_cast<MoveTask*>(task.get()))
            label += fmt::format(" (and {} more)", items.size() - 1);
        task->sourceServerInfo = p.src.server;
        task->targetServerInfo = dst->server;
        task->sourceItems = std::move(items);
        task->sourceMetadata = p.item;
        task->targetMetadata = folder;
        task->continueAfterItemFailure = opt.keepGoing;
        console->add(task, label);
        tasks.push_back(task);
    };

    // Items moved within one server without a name conflict go in one request.
    std::vector<const Planned*> batch;
    std::optional<KvMetadataList> targetListing;
    for (auto& p : planned) {
        auto task = makeTaskFor(moving, p.src, *dst);
        if (!dynamic_cast<MoveTask*>(task.get())) {
            addTask(task, p, allItems);
            continue;
        }
        if (!targetListing) {
            dst->client->setForceIncludesHiddenFiles(true);
            auto listing = dst->client->contentsOfDirectoryAtPathSync(folder);
            targetListing = listing ? *listing : KvMetadataList{};
        }
        bool conflict =
            std::any_of(targetListing->begin(), targetListing->end(),
                        [&](const KvMetadata& e) { return itemName(e) == itemName(p.item); });
        if (conflict)
            addTask(task, p, {p.item});
        else
            batch.push_back(&p);
    }
    if (!batch.empty()) {
        KvMetadataList items;
        for (auto* p : batch) items.push_back(p->item);
        addTask(std::make_shared<MoveTask>(), *batch.front(), std::move(items));
    }
    if (tasks.empty()) return rc;

    auto prompts = std::make_shared<TerminalPrompts>(*policy, opt.keepGoing, interactive, console);
    manager.setUserPrompts(prompts);
    manager.setFileTransferView(console);
    if (opt.jobs > 0) manager.setMaxSimultaneousTransfers(opt.jobs);

    InterruptGuard interrupts;
    bool stopping = false;
    auto timer = MainQueue::shared().scheduleRepeating(std::chrono::milliseconds(200), [&] {
        if (gInterrupts > 0 && !stopping) {
            stopping = true;
            console->message("Stopping transfers...");
            manager.stopAllTasks();
        }
        console->tick();
    });
    for (auto& t : tasks) manager.addTask(t);
    manager.start();
    MainQueue::shared().runUntil([&] { return console->allDone(); });
    MainQueue::shared().cancel(timer);
    console->reportRest();
    console->clearBlock();
    manager.setFileTransferView(nullptr);
    manager.setUserPrompts(nullptr);
    if (gInterrupts > 0) return 128 + (gSignal.load() ? gSignal.load() : SIGINT);
    if (console->anyFailed()) return kExitError;
    return rc;
}

void addCommonOptions(CLI::App* cmd, Options& opt, bool moving) {
    cmd->add_option("PATHS", opt.sources,
                    moving ? "Items to move, then the folder to move them into (or, for one item, "
                             "a new name)"
                           : "Items to copy, then the folder to copy them into")
        ->required();
    cmd->add_option("--on-conflict", opt.onConflict,
                    moving ? "ask, keep-both or skip (default: ask on a terminal, else skip)"
                           : "ask, replace, keep-both or skip (default: ask on a terminal, else "
                             "skip)");
    cmd->add_option("--jobs", opt.jobs, "Transfers at once (default: the preference)");
    cmd->add_flag("--json", opt.json, "Print progress and results as JSON lines");
    cmd->add_flag("--keep-going", opt.keepGoing, "After a failure go on with the other transfers");
}

}  // namespace

void registerTransferCommands(Cli& cli) {
    auto cpOpt = std::make_shared<Options>();
    auto* cp = cli.app.add_subcommand(
        "cp", "Copy files and folders between any two places: cp [-r] SRC... DST_FOLDER");
    addCommonOptions(cp, *cpOpt, false);
    cp->add_flag("-r,--recursive", cpOpt->recursive, "Copy folders with their contents");
    cp->callback([&cli, cpOpt] {
        cli.action = [cpOpt] {
            if (cpOpt->sources.size() < 2)
                return reportMessage("cp needs at least one source and a target folder.",
                                     kExitUsage);
            Options o = *cpOpt;
            o.target = o.sources.back();
            o.sources.pop_back();
            return runTransfer(o, false);
        };
    });

    auto mvOpt = std::make_shared<Options>();
    auto* mv = cli.app.add_subcommand(
        "mv", "Move files and folders (mv SRC... DST_FOLDER), or rename one item (mv SRC NEW)");
    addCommonOptions(mv, *mvOpt, true);
    mv->callback([&cli, mvOpt] {
        cli.action = [mvOpt] {
            if (mvOpt->sources.size() < 2)
                return reportMessage("mv needs at least one source and a target.", kExitUsage);
            Options o = *mvOpt;
            o.target = o.sources.back();
            o.sources.pop_back();
            return runTransfer(o, true);
        };
    });
}

}  // namespace quillon::cli
