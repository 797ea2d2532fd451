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
#include "archives/FileCompressor.h"
#include "core/FileService.h"
#include "core/Location.h"
#include "core/MainQueue.h"
#include "core/PathUtils.h"
#include "core/StringEncoding.h"
#include "core/StringUtils.h"
#include "transfer/DownloadTask.h"
#include "transfer/FileTransferTaskManager.h"
#include "transfer/UploadTask.h"

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
    void taskEnded(FileTransferTask& task) override {
        if (Row* row = find(task); row && !row->ended) report(*row);
    }
    void reportRest() {
        for (auto& row : rows_)
            if (!row.ended) report(row);
        clearBlock();
    }

  private:
    void report(Row& row) {
        row.ended = true;
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
    auto& manager = FileTransferTaskManager::sharedInstance();
    manager.setUserPrompts(std::make_shared<FixedPrompts>(onConflict));
    manager.addObserver(console);
    auto timer = MainQueue::shared().scheduleRepeating(std::chrono::milliseconds(100),
                                                       [&] { console->tick(); });
    for (auto& t : tasks) manager.addTask(t);
    manager.start();
    MainQueue::shared().runUntil([&] { return console->allDone(); });
    MainQueue::shared().cancel(timer);
    console->reportRest();
    manager.removeObserver(console);
    manager.setUserPrompts(nullptr);
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

// One archive of `quillon extract` on its way through download, extraction and upload.
struct Planned {
    Location source;
    KvMetadata item;
    std::string localPath;  // the archive on this computer (in the cache for a server's)
    std::string parent;     // the local folder its output folder goes into
    std::shared_ptr<ArchiveTask> extraction;
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
        auto item = statLocation(*loc);
        if (!item) return reportError(item.error());
        if (!item->isDir) return reportMessage(loc->display() + " is not a folder.");
        target = *loc;
    }
    // A server target: extract into a scratch folder of our own, then upload.
    std::string scratch;
    if (target && !target->isLocal()) {
        scratch = PathUtils::getAppTempPath() + "/extract-" + makeUUID();
        if (!PathUtils::ensureFolder(scratch))
            return reportMessage("cannot create the scratch folder " + scratch + ".");
    }
    struct ScratchGuard {
        std::string path;
        ~ScratchGuard() {
            std::error_code ec;
            if (!path.empty()) fs::remove_all(path, ec);
        }
    } scratchGuard{scratch};

    int rc = kExitOk;
    std::vector<Planned> planned;
    for (auto& text : opt.archives) {
        auto loc = resolveLocation(text);
        if (!loc) {
            rc = reportError(loc.error());
            continue;
        }
        auto name = StringUtils::lastPathComponent(loc->path);
        if (!FileCompressor::canDecompress(name)) {
            rc = reportMessage(loc->display() + " is not an archive that can be extracted here.");
            continue;
        }
        auto item = statLocation(*loc);
        if (!item) {
            rc = reportError(item.error());
            continue;
        }
        if (item->isDir) {
            rc = reportMessage(loc->display() + " is a folder.");
            continue;
        }
        Planned p{*loc, *item, loc->path, {}, nullptr};
        if (!loc->isLocal()) {
            auto cached = FileService::sharedService().cachePathForMetadata(*item, *loc->server);
            p.localPath = fs::path(cached).parent_path().string() + "/" + name;
        }
        if (!scratch.empty())
            p.parent = scratch;
        else if (target)
            p.parent = target->path;
        else if (loc->isLocal())
            p.parent = fs::path(loc->path).parent_path().string();
        else
            p.parent = absoluteCurrentFolder();
        planned.push_back(std::move(p));
    }
    if (planned.empty()) return rc;

    auto console = std::make_shared<ArchiveConsole>();
    StopSignals signals(StopSignals::Second::Exit,
                        [](int) { FileTransferTaskManager::sharedInstance().stopAllTasks(); });
    // Archives on servers come into the cache first; a copy there from before is replaced.
    std::vector<FileTransferTaskPtr> downloads;
    for (auto& p : planned) {
        if (p.source.isLocal()) continue;
        std::string folder = fs::path(p.localPath).parent_path().string();
        PathUtils::ensureFolder(folder);
        auto local = resolveLocation(folder);
        if (!local) return reportError(local.error());
        auto task = std::make_shared<DownloadTask>();
        task->sourceServerInfo = p.source.server;
        task->targetServerInfo = local->server;
        task->sourceItems = {p.item};
        task->sourceMetadata = p.item;
        task->targetMetadata = local->metadata(true);
        console->add(task, p.source.display(), nullptr);
        downloads.push_back(task);
    }
    if (!runTasks(console, downloads, ConflictAction::Replace)) rc = kExitError;
    if (StopSignals::stopRequested()) return interruptedOr(rc);

    std::vector<FileTransferTaskPtr> extractions;
    for (auto& p : planned) {
        std::error_code ec;
        if (!p.source.isLocal() && !fs::is_regular_file(p.localPath, ec)) continue;  // not fetched
        std::string archive = p.localPath, parent = p.parent;
        p.extraction = std::make_shared<ArchiveTask>(
            encoding, [archive, parent, password = *password](FileCompressor& c) {
                return c.decompressFile(archive, parent, password);
            });
        auto* task = p.extraction.get();
        task->sourceMetadata = p.source.metadata(false);
        task->targetMetadata = KvMetadata(parent);
        std::string label = StringUtils::lastPathComponent(p.localPath);
        bool uploading = !scratch.empty();
        console->add(p.extraction, label, [task, label, uploading] {
            if (uploading) return std::string();
            return fmt::format("extracted {} -> {}", label,
                               task->compressor.decompressOutputFolder());
        });
        extractions.push_back(p.extraction);
    }
    if (!runTasks(console, extractions, ConflictAction::Replace)) rc = kExitError;
    if (StopSignals::stopRequested() || scratch.empty()) return interruptedOr(rc);

    // Into the server: each output folder is uploaded; a name taken there keeps both.
    std::vector<FileTransferTaskPtr> uploads;
    KvMetadata targetFolder = target->metadata(true);
    for (auto& p : planned) {
        if (!p.extraction || p.extraction->state() != TransferTaskState::Completed) continue;
        auto output = resolveLocation(p.extraction->compressor.decompressOutputFolder());
        if (!output) return reportError(output.error());
        auto item = statLocation(*output);
        if (!item) return reportError(item.error());
        auto task = std::make_shared<UploadTask>();
        task->sourceServerInfo = output->server;
        task->targetServerInfo = target->server;
        task->sourceItems = {*item};
        task->sourceMetadata = *item;
        task->targetMetadata = targetFolder;
        std::string label = StringUtils::lastPathComponent(p.localPath);
        std::string where = target->display();
        console->add(task, label,
                     [label, where] { return fmt::format("extracted {} -> {}", label, where); });
        uploads.push_back(task);
    }
    if (!runTasks(console, uploads, ConflictAction::KeepBoth)) rc = kExitError;
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
