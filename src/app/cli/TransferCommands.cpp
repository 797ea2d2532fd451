// quillon cp and quillon mv: every source becomes a transfer task of the one task manager, which
// runs them with progress, asks about name conflicts (or applies --on-conflict), and stops or
// goes on after a failure as the user chooses.

#include <fmt/format.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/cli/Cli.h"
#include "app/cli/Json.h"
#include "app/cli/ProgressView.h"
#include "app/cli/StopSignals.h"
#include "core/Location.h"
#include "core/MainQueue.h"
#include "core/StringUtils.h"
#include "transfer/FileTransferTaskManager.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/TransferPlanner.h"

namespace quillon::cli {

namespace {

enum class ConflictPolicy { Ask, Replace, Merge, KeepBoth, Skip };

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

    void taskProgressed(FileTransferTask& task, std::int64_t done, std::int64_t total) override {
        Row* row = find(task);
        if (!row || row->ended) return;
        row->rate.sample(done);
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
        double rate = row.rate.rate();
        std::string current = "null";
        if (auto meta = row.task->transferringFileMeta()) current = jsonString(itemName(*meta));
        auto left = row.rate.secondsLeft(done, total);
        std::string eta = left ? fmt::format("{:.1f}", *left) : "null";
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

    void reportEnd(Row& row) override {
        auto& task = *row.task;
        auto state = task.state();
        auto error = task.error();
        auto failures = task.itemFailures();
        // A conflict answered with skip ends the task stopped: it was skipped, not stopped.
        bool skipped =
            state == TransferTaskState::Stopped && task.fileConflict() == ConflictAction::Skip;
        auto notices = task.notices();
        if (json_) {
            std::string noted;
            for (auto& n : notices) noted += (noted.empty() ? "" : ",") + jsonString(n);
            std::string failed;
            for (auto& f : failures)
                failed += fmt::format("{}{{\"path\":{},\"error\":{}}}", failed.empty() ? "" : ",",
                                      jsonString(f.path), errorJson(f.error));
            fmt::print(stdout,
                       "{{\"event\":\"end\",\"id\":{},\"source\":{},\"target\":{},\"state\":{},"
                       "\"transferred\":{},\"total\":{},\"error\":{}{}{}}}\n",
                       row.id, jsonString(row.label), jsonString(task.targetMetadata.pathOrEmpty()),
                       jsonString(skipped ? "skipped" : stateName(state)), task.transferredBytes(),
                       task.totalBytes(), error ? errorJson(*error) : "null",
                       failed.empty() ? "" : ",\"failedItems\":[" + failed + "]",
                       noted.empty() ? "" : ",\"notices\":[" + noted + "]");
            std::fflush(stdout);
            return;
        }
        for (auto& n : notices) message("quillon: " + n);
        // Items of a folder that failed while the rest went on, each on its own line (the task's
        // own line names a single one).
        for (auto& f : failures.size() > 1 ? failures : decltype(failures){})
            message(fmt::format("quillon: {}", errorText(f.error)));
        std::string text;
        switch (state) {
            case TransferTaskState::Completed: {
                double seconds = 0;
                if (task.startTime() && task.endTime())
                    seconds =
                        std::chrono::duration<double>(*task.endTime() - *task.startTime()).count();
                text = fmt::format("{} {} -> {}  {} in {}", moving_ ? "moved " : "copied",
                                   row.label, displayItem(task.targetMetadata),
                                   formatBytes(bytesOf(task)), formatDuration(seconds));
                break;
            }
            case TransferTaskState::Failed:
                text = error ? fmt::format("quillon: {}", errorText(error->about(row.label)))
                             : fmt::format("quillon: {}: failed", row.label);
                break;
            default:
                text = fmt::format("{} {}", skipped ? "skipped" : "stopped", row.label);
                break;
        }
        message(text);
    }

    // A move within one server transfers nothing: its bytes are those of the files it moved.
    static std::int64_t bytesOf(const FileTransferTask& task) {
        if (task.totalBytes() > 0) return task.totalBytes();
        std::int64_t sum = 0;
        for (auto& item : task.sourceItems)
            if (!item.isDir && item.fileSizeInBytes)
                sum += static_cast<std::int64_t>(*item.fileSizeInBytes);
        return sum;
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
            case ConflictPolicy::Merge:
                // Files meet files: the merged copy replaces them.
                answer(item.offerMerge ? ConflictAction::Merge : ConflictAction::Replace, false);
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
        if (!interactive_ || StopSignals::stopRequested()) {
            answer(ConflictAction::Skip, false);
            return;
        }
        std::string choices = item.hideReplaceButton ? "[k]eep both, [s]kip"
                              : item.offerMerge      ? "[r]eplace, [m]erge, [k]eep both, [s]kip"
                                                     : "[r]eplace, [k]eep both, [s]kip";
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
                case 'm':
                    if (!item.offerMerge) break;
                    answer(ConflictAction::Merge, all);
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

    void alertTaskFailure(const std::string&, bool offerIgnore, FailureAnswer answer) override {
        answer(askAfterFailure(offerIgnore));
    }

  private:
    FailureChoice askAfterFailure(bool offerIgnore) {
        // The error itself was printed with the task's end.
        if (keepGoing_) return FailureChoice::Ignore;
        if (!offerIgnore || !interactive_ || StopSignals::stopRequested())
            return FailureChoice::Stop;
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
    if (text == "merge") return ConflictPolicy::Merge;
    if (text == "keep-both") return ConflictPolicy::KeepBoth;
    if (text == "skip") return ConflictPolicy::Skip;
    return std::nullopt;
}

int runTransfer(const Options& opt, bool moving) {
    bool interactive = ::isatty(STDIN_FILENO) == 1;
    auto policy = parsePolicy(opt.onConflict, interactive);
    if (!policy)
        return reportMessage("--on-conflict takes ask, replace, merge, keep-both or skip.",
                             kExitUsage);
    if (moving && (*policy == ConflictPolicy::Replace || *policy == ConflictPolicy::Merge))
        return reportMessage("a move can only keep both or skip on a name conflict.", kExitUsage);
    if (*policy == ConflictPolicy::Ask && !interactive)
        return reportMessage("--on-conflict ask needs a terminal on standard input.", kExitUsage);
    if (opt.jobs < 0) return reportMessage("--jobs takes a number of 1 or more.", kExitUsage);
    // With --json a failure before the first transfer is a JSON line too, as later ones are.
    auto fail = [&opt](const Error& error) {
        if (!opt.json) return reportError(error);
        fmt::print("{{\"event\":\"error\",\"error\":{}}}\n", errorJson(error));
        std::fflush(stdout);
        return kExitError;
    };
    auto refuse = [&](const Refusal& refusal) {
        if (!opt.json || refusal.error)
            return refusal.error ? fail(*refusal.error) : reportRefusal(refusal);
        fmt::print("{{\"event\":\"error\",\"message\":{}}}\n", jsonString(refusal.message));
        std::fflush(stdout);
        return refusal.badRequest ? kExitUsage : kExitError;
    };
    if (auto r = startApplication(); !r) return fail(r.error());

    auto dst = resolveLocation(opt.target);
    if (!dst) return fail(dst.error());
    auto dstItem = statLocation(*dst);

    if (moving && opt.sources.size() == 1 && (!dstItem || !dstItem->isDir)) {
        auto src = resolveLocation(opt.sources[0]);
        if (!src) return fail(src.error());
        auto item = statLocation(*src);
        if (!item) return fail(item.error());
        if (auto r = TransferPlanner::rename(*src, *item, *dst); !r) return refuse(r.error());
        return kExitOk;
    }
    auto planner = TransferPlanner::into(*dst, dstItem, moving, opt.recursive);
    if (!planner) return refuse(planner.error());

    auto console = std::make_shared<TransferConsole>(opt.json, moving);
    int rc = kExitOk;
    for (auto& text : opt.sources) {
        auto src = resolveLocation(text);
        if (!src) {
            rc = fail(src.error());
            continue;
        }
        auto item = statLocation(*src);
        if (!item) {
            rc = fail(item.error());
            continue;
        }
        if (auto refusal = planner->add(*src, *item)) rc = refuse(*refusal);
    }
    auto planned = planner->tasks();
    if (planned.empty()) return rc;
    std::vector<FileTransferTaskPtr> tasks;
    for (auto& p : planned) {
        p.task->continueAfterItemFailure = opt.keepGoing;
        console->add(p.task, p.label);
        tasks.push_back(p.task);
    }
    auto& manager = FileTransferTaskManager::sharedInstance();
    if (opt.jobs > 0) manager.setMaxSimultaneousTransfers(opt.jobs);

    // Ctrl-C (and a polite SIGTERM or SIGHUP) stops every task; a second one ends the process.
    StopSignals signals(StopSignals::Second::Exit, [&](int) {
        console->message("Stopping transfers...");
        manager.stopAllTasks();
    });
    runWatched(console, tasks,
               std::make_shared<TerminalPrompts>(*policy, opt.keepGoing, interactive, console));
    if (StopSignals::stopRequested())
        return 128 + (StopSignals::signal() ? StopSignals::signal() : SIGINT);
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
                           : "ask, replace, merge, keep-both or skip (default: ask on a terminal, "
                             "else skip). replace removes an existing item first, a folder with "
                             "everything in it; merge copies a folder into an existing folder, "
                             "replacing files of the same name");
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
