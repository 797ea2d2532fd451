#include "archives/ExtractionPlan.h"

#include <filesystem>

#include "core/FileService.h"
#include "core/PathUtils.h"
#include "core/StringUtils.h"
#include "transfer/DownloadTask.h"
#include "transfer/UploadTask.h"

namespace quillon {

namespace fs = std::filesystem;

ExtractionPlan::Scratch::~Scratch() {
    std::error_code ec;
    if (!path.empty()) fs::remove_all(path, ec);
}

std::expected<ExtractionPlan, Refusal> ExtractionPlan::into(const std::optional<Location>& target,
                                                            std::string fallbackFolder,
                                                            unsigned long encoding,
                                                            std::optional<std::string> password) {
    ExtractionPlan plan;
    plan.scratch_ = std::make_shared<Scratch>();
    plan.fallbackFolder_ = std::move(fallbackFolder);
    plan.encoding_ = encoding;
    plan.password_ = std::move(password);
    if (target) {
        auto item = statLocation(*target);
        if (!item) return std::unexpected(Refusal::failed(item.error()));
        if (!item->isDir)
            return std::unexpected(Refusal::because(target->display() + " is not a folder."));
        plan.target_ = target;
        // A server target: extract into a scratch folder of our own, then upload.
        if (!target->isLocal()) {
            std::string scratch = PathUtils::getAppTempPath() + "/extract-" + makeUUID();
            if (!PathUtils::ensureFolder(scratch))
                return std::unexpected(
                    Refusal::because("cannot create the scratch folder " + scratch + "."));
            plan.scratch_->path = scratch;
        }
    }
    return plan;
}

std::optional<Refusal> ExtractionPlan::add(const Location& loc) {
    auto name = StringUtils::lastPathComponent(loc.path);
    if (!FileCompressor::canDecompress(name))
        return Refusal::because(loc.display() + " is not an archive that can be extracted here.");
    auto item = statLocation(loc);
    if (!item) return Refusal::failed(item.error());
    if (item->isDir) return Refusal::because(loc.display() + " is a folder.");
    Archive a{loc, *item, loc.path, {}, nullptr};
    if (!loc.isLocal()) {
        auto cached = FileService::sharedService().cachePathForMetadata(*item, *loc.server);
        a.localPath = fs::path(cached).parent_path().string() + "/" + name;
    }
    if (uploads())
        a.parent = scratch_->path;
    else if (target_)
        a.parent = target_->path;
    else if (loc.isLocal())
        a.parent = fs::path(loc.path).parent_path().string();
    else
        a.parent = fallbackFolder_;
    archives_.push_back(std::move(a));
    return std::nullopt;
}

Result<std::vector<PlannedTransfer>> ExtractionPlan::downloadTasks() const {
    std::vector<PlannedTransfer> tasks;
    for (auto& a : archives_) {
        if (a.source.isLocal()) continue;
        std::string folder = fs::path(a.localPath).parent_path().string();
        PathUtils::ensureFolder(folder);
        auto local = resolveLocation(folder);
        if (!local) return std::unexpected(local.error());
        auto task = std::make_shared<DownloadTask>();
        task->sourceServerInfo = a.source.server;
        task->targetServerInfo = local->server;
        task->sourceItems = {a.item};
        task->sourceMetadata = a.item;
        task->targetMetadata = local->metadata(true);
        tasks.push_back({task, a.source.display()});
    }
    return tasks;
}

std::vector<std::pair<std::shared_ptr<ArchiveTask>, std::string>>
ExtractionPlan::extractionTasks() {
    std::vector<std::pair<std::shared_ptr<ArchiveTask>, std::string>> tasks;
    for (auto& a : archives_) {
        std::error_code ec;
        if (!a.source.isLocal() && !fs::is_regular_file(a.localPath, ec)) continue;  // not fetched
        std::string archive = a.localPath, parent = a.parent;
        a.extraction = std::make_shared<ArchiveTask>(
            encoding_, [archive, parent, password = password_](FileCompressor& c) {
                return c.decompressFile(archive, parent, password);
            });
        a.extraction->sourceMetadata = a.source.metadata(false);
        a.extraction->targetMetadata = KvMetadata(parent);
        tasks.emplace_back(a.extraction, StringUtils::lastPathComponent(a.localPath));
    }
    return tasks;
}

Result<std::vector<PlannedTransfer>> ExtractionPlan::uploadTasks() const {
    std::vector<PlannedTransfer> tasks;
    if (!uploads()) return tasks;
    KvMetadata targetFolder = target_->metadata(true);
    for (auto& a : archives_) {
        if (!a.extraction || a.extraction->state() != TransferTaskState::Completed) continue;
        auto output = resolveLocation(a.extraction->compressor.decompressOutputFolder());
        if (!output) return std::unexpected(output.error());
        auto item = statLocation(*output);
        if (!item) return std::unexpected(item.error());
        auto task = std::make_shared<UploadTask>();
        task->sourceServerInfo = output->server;
        task->targetServerInfo = target_->server;
        task->sourceItems = {*item};
        task->sourceMetadata = *item;
        task->targetMetadata = targetFolder;
        tasks.push_back({task, StringUtils::lastPathComponent(a.localPath)});
    }
    return tasks;
}

}  // namespace quillon
