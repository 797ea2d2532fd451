// quillon zip and quillon extract. The archive work runs as a task of the one transfer manager,
// so it shows progress as cp does and Ctrl-C stops it; an archive on a server is downloaded into
// the cache first, and an extraction into a server folder is made in a scratch folder and
// uploaded from there.

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/cli/Cli.h"
#include "app/cli/ProgressView.h"
#include "app/cli/StopSignals.h"
#include "archives/ArchiveTask.h"
#include "archives/ExtractionPlan.h"
#include "archives/FileCompressor.h"
#include "core/Location.h"
#include "core/MainQueue.h"
#include "core/PathUtils.h"
#include "core/StringEncoding.h"
#include "core/StringUtils.h"
#include "transfer/FileTransferTaskManager.h"

namespace quillon::cli {

namespace {

namespace fs = std::filesystem;

std::string errorText(const Error& error) {
    if (error.domain == ErrorDomain::Archive)
        return ArchiveError::title(error) + ": " + error.reason;
    return error.describe();
}

// Answers the manager's questions without asking: one conflict choice for every item, and a
// failure never stops the other tasks (each is reported on its own).
class FixedPrompts : public UserPrompts {
  public:
    explicit FixedPrompts(ConflictAction action) : action_(action) {}
    void resolveConflict(const ResolveConflictItem&, ConflictAnswer answer) override {
        answer(action_, true);
    }
    void alertTaskFailure(const std::string&, bool, FailureAnswer answer) override {
        answer(FailureChoice::Ignore);
    }

  private:
    ConflictAction action_;
};

// Live lines while tasks run, and one line for each task's end: the text given with the task
// when it completed, the error under its title when it failed.
class ArchiveConsole : public ProgressView {
  public:
    ArchiveConsole() : ProgressView(stderr) {}

    void add(const FileTransferTaskPtr& task, std::string label,
             std::function<std::string()> doneText) {
        ProgressView::add(task, std::move(label));
        doneTexts_[task.get()] = std::move(doneText);
    }

  private:
    void reportEnd(Row& row) override {
        clearBlock();
        auto& task = *row.task;
        std::string text;
        if (task.state() == TransferTaskState::Completed) {
            auto& doneText = doneTexts_[&task];
            if (!doneText) return;
            text = doneText();
        } else if (auto error = task.error()) {
            text = fmt::format("quillon: {}: {}", row.label, errorText(*error));
        } else {
            text = fmt::format("stopped {}", row.label);
        }
        fmt::print(stderr, "{}\n", text);
        std::fflush(stderr);
    }

    std::map<const FileTransferTask*, std::function<std::string()>> doneTexts_;
};

// Runs the tasks on the shared manager until each has ended; false when one failed or the user
// interrupted.
bool runTasks(const std::shared_ptr<ArchiveConsole>& console,
              const std::vector<FileTransferTaskPtr>& tasks, ConflictAction onConflict) {
    if (tasks.empty()) return true;
    runWatched(console, tasks, std::make_shared<FixedPrompts>(onConflict));
    bool ok = !StopSignals::stopRequested();
    for (auto& t : tasks) ok = ok && t->state() == TransferTaskState::Completed;
    return ok;
}

std::string absoluteCurrentFolder() {
    std::error_code ec;
    auto cwd = fs::current_path(ec);
    return ec ? PathUtils::getHomeFolderPath() : cwd.string();
}

// Without TZ the C library reads /etc/localtime again at every local-time conversion (twice per
// zip entry); naming that file keeps its first reading.
void keepTimeZone() {
    ::setenv("TZ", ":/etc/localtime", 0);
}

int interruptedOr(int rc) {
    return StopSignals::stopRequested() ? 128 + SIGINT : rc;
}

Result<std::optional<std::string>> passwordOption(bool fromStdin) {
    if (!fromStdin) return std::optional<std::string>{};
    auto password = readPasswordFromStdin();
    if (!password || password->empty())
        return std::unexpected(KvError::errorWithDomain(
            ErrorDomain::Generic, -1, "--password-stdin needs a password on standard input."));
    return password;
}

struct ZipOptions {
    std::vector<std::string> items;
    std::string output;
    bool passwordStdin = false;
    bool aes = false;
};

int runZip(const ZipOptions& opt) {
    keepTimeZone();
    auto password = passwordOption(opt.passwordStdin);
    if (!password) return reportMessage(password.error().reason, kExitUsage);
    if (opt.aes && !*password) return reportMessage("--aes needs --password-stdin.", kExitUsage);
    if (auto r = startApplication(); !r) return reportError(r.error());
    auto out = resolveLocation(opt.output);
    if (!out) return reportError(out.error());
    if (!out->isLocal())
        return reportMessage("the zip is made on this computer: -o takes a local path.");
    std::vector<std::string> items;
    for (auto& text : opt.items) {
        auto loc = resolveLocation(text);
        if (!loc) return reportError(loc.error());
        if (!loc->isLocal()) return reportMessage(loc->display() + ": zip takes local items.");
        items.push_back(loc->path);
    }
    std::string zipPath = out->path;
    auto task = std::make_shared<ArchiveTask>(StringEncoding::UTF8, [=](FileCompressor& c) {
        c.zipEncryption =
            opt.aes ? ZipArchive::Encryption::Aes256 : ZipArchive::Encryption::Traditional;
        return c.compressItems(items, zipPath, *password);
    });
    task->sourceMetadata = out->metadata(false);
    task->targetMetadata = out->metadata(false);
    auto console = std::make_shared<ArchiveConsole>();
    console->add(task, StringUtils::lastPathComponent(zipPath), [task, zipPath] {
        std::error_code ec;
        auto size = fs::file_size(zipPath, ec);
        return fmt::format("zipped {} -> {}  {}", formatBytes(task->totalBytes()), zipPath,
                           formatBytes(ec ? 0 : static_cast<std::int64_t>(size)));
    });
    // Ctrl-C (or SIGTERM, SIGHUP) stops the work and removes its partial output; a second one
    // ends the process at once.
    StopSignals signals(StopSignals::Second::Exit,
                        [](int) { FileTransferTaskManager::sharedInstance().stopAllTasks(); });
    bool ok = runTasks(console, {task}, ConflictAction::Replace);
    return interruptedOr(ok ? kExitOk : kExitError);
}

struct ExtractOptions {
    std::vector<std::string> archives;
    std::string to;
    bool passwordStdin = false;
    std::string encoding;
};

int runExtract(const ExtractOptions& opt) {
    keepTimeZone();
    unsigned long encoding = StringEncoding::UTF8;
    if (!opt.encoding.empty()) {
        auto number = StringEncoding::encodingNumberForName(opt.encoding);
        if (!number) return reportMessage("unknown encoding " + opt.encoding + ".", kExitUsage);
        encoding = *number;
    }
    auto password = passwordOption(opt.passwordStdin);
    if (!password) return reportMessage(password.error().reason, kExitUsage);
    if (auto r = startApplication(); !r) return reportError(r.error());

    std::optional<Location> target;
    if (!opt.to.empty()) {
        auto loc = resolveLocation(opt.to);
        if (!loc) return reportError(loc.error());
        target = *loc;
    }
    auto plan = ExtractionPlan::into(target, absoluteCurrentFolder(), encoding, *password);
    if (!plan) return reportRefusal(plan.error());

    int rc = kExitOk;
    for (auto& text : opt.archives) {
        auto loc = resolveLocation(text);
        if (!loc) {
            rc = reportError(loc.error());
            continue;
        }
        if (auto refusal = plan->add(*loc)) rc = reportRefusal(*refusal);
    }
    if (plan->empty()) return rc;

    auto console = std::make_shared<ArchiveConsole>();
    StopSignals signals(StopSignals::Second::Exit,
                        [](int) { FileTransferTaskManager::sharedInstance().stopAllTasks(); });
    auto downloads = plan->downloadTasks();
    if (!downloads) return reportError(downloads.error());
    std::vector<FileTransferTaskPtr> tasks;
    for (auto& d : *downloads) {
        console->add(d.task, d.label, nullptr);
        tasks.push_back(d.task);
    }
    if (!runTasks(console, tasks, ConflictAction::Replace)) rc = kExitError;
    if (StopSignals::stopRequested()) return interruptedOr(rc);

    tasks.clear();
    bool uploading = plan->uploads();
    for (auto& [task, label] : plan->extractionTasks()) {
        console->add(task, label, [task = task.get(), label, uploading] {
            if (uploading) return std::string();
            return fmt::format("extracted {} -> {}", label,
                               task->compressor.decompressOutputFolder());
        });
        tasks.push_back(task);
    }
    if (!runTasks(console, tasks, ConflictAction::Replace)) rc = kExitError;
    if (StopSignals::stopRequested() || !uploading) return interruptedOr(rc);

    // Into the server: each output folder is uploaded; a name taken there keeps both.
    auto uploads = plan->uploadTasks();
    if (!uploads) return reportError(uploads.error());
    tasks.clear();
    std::string where = target->display();
    for (auto& u : *uploads) {
        console->add(u.task, u.label, [label = u.label, where] {
            return fmt::format("extracted {} -> {}", label, where);
        });
        tasks.push_back(u.task);
    }
    if (!runTasks(console, tasks, ConflictAction::KeepBoth)) rc = kExitError;
    return interruptedOr(rc);
}

}  // namespace

void registerArchiveCommands(Cli& cli) {
    auto zipOpt = std::make_shared<ZipOptions>();
    auto* zip = cli.app.add_subcommand(
        "zip", "Make a zip of local files and folders: zip ITEM... -o OUT.zip");
    zip->add_option("ITEMS", zipOpt->items, "Files and folders to put in the zip")->required();
    zip->add_option("-o,--output", zipOpt->output, "The zip to make")->required();
    zip->add_flag("--password-stdin", zipOpt->passwordStdin,
                  "Protect the zip with a password read from standard input");
    zip->add_flag("--aes", zipOpt->aes,
                  "Encrypt with AES-256 instead of traditional zip encryption (which every "
                  "unzip program opens)");
    zip->callback([&cli, zipOpt] { cli.action = [zipOpt] { return runZip(*zipOpt); }; });

    auto exOpt = std::make_shared<ExtractOptions>();
    auto* extract = cli.app.add_subcommand(
        "extract",
        "Extract zip, 7z, rar, tar, gzip and bzip2 archives, each into a new folder beside it "
        "(or in --to)");
    extract->add_option("ARCHIVES", exOpt->archives, "Archives: local paths, NAME:/path or URLs")
        ->required();
    extract->add_option("--to", exOpt->to, "The folder to put the new folders in (any location)");
    extract->add_flag("--password-stdin", exOpt->passwordStdin,
                      "Read the archives' password from standard input");
    extract->add_option("--encoding", exOpt->encoding,
                        "Encoding of zip entry names not stored as UTF-8 (CP866, Shift_JIS, ...)");
    extract->callback([&cli, exOpt] { cli.action = [exOpt] { return runExtract(*exOpt); }; });
}

}  // namespace quillon::cli
