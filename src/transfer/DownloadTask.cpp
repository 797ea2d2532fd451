#include "transfer/DownloadTask.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "clients/local/LocalFileOps.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/RemoteDownload.h"

namespace quillon {

namespace {

std::string join(const std::string& folder, const std::string& name) {
    return StringUtils::stringByAppendingPathComponentDirectly(folder, name);
}

bool existsLocally(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

Status makeLocalFolder(const std::string& path) {
    std::error_code ec, there;
    std::filesystem::create_directories(path, ec);
    if (ec && !std::filesystem::is_directory(path, there))
        return FileTransferUtils::cannotCreateFile(path, ec.value());
    return {};
}

}  // namespace

DownloadTask::DownloadTask() : progress_(std::make_shared<TransferProgress>()) {}

std::string DownloadTask::localName(const KvMetadata& item) {
    // A link is fetched as the file it points to, and named so.
    if (item.isSymbolLink && item.symbolLinkTarget && !item.symbolLinkTarget->empty()) {
        auto name = StringUtils::lastPathComponent(*item.symbolLinkTarget);
        if (!name.empty() && name != "/" && name != "." && name != "..") return name;
    }
    return item.nameIgnoreLinkResolve().value_or(
        StringUtils::lastPathComponent(item.pathOrEmpty()));
}

std::string DownloadTask::taskTempFolderPath() const {
    std::lock_guard lock(tempMutex_);
    return taskTempFolderPath_;
}

Result<bool> DownloadTask::fileExists() {
    return existsLocally(join(targetMetadata.pathOrEmpty(), localName(sourceMetadata)));
}

void DownloadTask::cancelTransfer() {
    setState(TransferTaskState::Stopped);
    progress_->cancel();
    cancelTrackedWrappers();
}

void DownloadTask::finish(std::optional<Error> error) {
    FileTransferUtils::removeTaskTempFolder(taskTempFolderPath());
    if (completionHandler) completionHandler(error);
    completeFileTransfer(std::move(error));
}

void DownloadTask::startTransfer() {
    beginTransfer();
    countsArrivals_ = true;
    doneBytes_ = 0;
    if (fileConflict() == ConflictAction::Skip || stopped()) {
        completeFileTransfer(std::nullopt);
        return;
    }
    auto temp = FileTransferUtils::makeTaskTempFolder();
    if (!temp) {
        completeFileTransfer(temp.error());
        return;
    }
    {
        std::lock_guard lock(tempMutex_);
        taskTempFolderPath_ = *temp;
    }
    auto client = WrapperProxy::clientForServerInfo(sourceServerInfo);
    if (!client) {
        finish(client.error());
        return;
    }
    sourceWrapper_ = *client;
    sourceWrapper_->setForceIncludesHiddenFiles(true);
    trackWrapper(sourceWrapper_);
    copier_.shouldStop = [this] { return stopped(); };

    KvMetadata folder = targetMetadata;
    auto target = FileTransferUtils::targetMetadataWithSourceMetadata(sourceMetadata, folder);
    std::string name = localName(sourceMetadata);
    if (fileConflict() == ConflictAction::KeepBoth)
        name = StringUtils::lastPathComponent(
            FileTransferUtils::uniqueFilePathInFolder(folder.pathOrEmpty(), name));
    FileTransferUtils::renameTarget(target, name);
    target.localPath = target.path();
    targetMetadata = target;

    if (sourceMetadata.isSymbolLink && sourceMetadata.isDir) {
        skipLink(sourceMetadata);
        finish(std::nullopt);
        return;
    }
    auto root = std::make_shared<FileTransferNode>(sourceMetadata, target, folder);
    if (sourceMetadata.isDir) {
        // Replacing builds the new folder under a hidden name beside the old one, which it
        // takes the place of only when complete; merging writes into the old one.
        std::string finalPath = target.pathOrEmpty();
        struct stat there {};
        bool exists = ::lstat(finalPath.c_str(), &there) == 0;
        bool swap =
            exists && (fileConflict() == ConflictAction::Replace ||
                       (fileConflict() == ConflictAction::Merge && !S_ISDIR(there.st_mode)));
        if (swap) {
            root->targetMetadata.setPath(LocalFileCopier::hiddenSibling(finalPath));
            root->targetMetadata.localPath = root->targetMetadata.path();
        }
        auto built = makeLocalFolder(root->targetMetadata.pathOrEmpty());
        if (built) built = contentsOfDirectory(root);
        if (built && !stopped()) built = transferFiles();
        reportProgress();
        if (swap) {
            std::string staging = root->targetMetadata.pathOrEmpty();
            int err = built && !stopped() ? LocalFileOps::replaceItem(staging, finalPath) : -1;
            if (err != 0) {
                nothingArrived();
                std::error_code ec;
                std::filesystem::remove_all(staging, ec);
                if (built && err > 0) built = FileTransferUtils::cannotCreateFile(finalPath, err);
            }
        }
        finish(built || stopped() ? std::nullopt : std::optional<Error>(built.error()));
        return;
    } else {
        if (sourceMetadata.fileSizeInBytes)
            setTotalBytes(static_cast<std::int64_t>(*sourceMetadata.fileSizeInBytes));
        progress_->setTotalUnitCount(totalBytes());
        fileNodes_.push_back(root);
    }
    auto r = transferFiles();
    reportProgress();
    finish(r ? std::nullopt : std::optional<Error>(r.error()));
}

Status DownloadTask::contentsOfDirectory(const FileTransferNode::Ptr& node) {
    TreeWalk walk;
    walk.list = [this](const KvMetadata& folder) {
        return sourceWrapper_->contentsOfDirectoryAtPathSync(folder);
    };
    walk.adjustTarget = [this](const KvMetadata& source, KvMetadata& target) {
        FileTransferUtils::renameTarget(target, localName(source));
        target.localPath = target.path();
    };
    walk.makeFolder = [this](const KvMetadata& target) {
        return makeLocalFolder(target.pathOrEmpty());
    };
    walk.fetchLinks = true;
    auto r = collectTree(node, walk, fileNodes_);
    progress_->setTotalUnitCount(totalBytes());
    return r;
}

Status DownloadTask::transferFiles() {
    for (auto& node : fileNodes_) {
        if (stopped()) return {};
        if (auto r = transferFile(*node); !r) {
            if (stopped()) return {};
            // A link the server could not hand over (dangling, or to a folder it listed as a
            // file) is left out, as links are where they cannot be kept.
            if (node->sourceMetadata.isSymbolLink) {
                skipLink(node->sourceMetadata);
                continue;
            }
            if (auto failed = itemFailed(node->sourceMetadata, r.error()); !failed) return failed;
        }
    }
    return {};
}

Status DownloadTask::transferFile(const FileTransferNode& node) {
    const auto& source = node.sourceMetadata;
    std::string targetPath = node.targetMetadata.pathOrEmpty();
    std::string targetFolder = node.targetParentMetadata.pathOrEmpty();
    auto temp = taskTempFolderPath();
    if (auto room = RemoteDownload::checkRoom(source, temp, targetFolder); !room) return room;

    setTransferringFileMeta(source);
    std::string name = StringUtils::lastPathComponent(targetPath);
    std::string scratch = join(temp, name);
    std::int64_t base = doneBytes_;
    std::weak_ptr<FileTransferTask> weak = weak_from_this();
    auto fetched = RemoteDownload::fetchFile(
        *sourceWrapper_, source, scratch,
        relayProgress([base](std::int64_t done, std::int64_t) { return base + done; },
                      [weak](std::int64_t, std::int64_t total) {
                          auto self = std::static_pointer_cast<DownloadTask>(weak.lock());
                          if (!self) return;
                          if (self->totalBytes() == 0 && total > 0) {
                              self->setTotalBytes(total);
                              self->progress_->setTotalUnitCount(total);
                          }
                          self->progress_->setCompletedUnitCount(self->transferredBytes());
                          if (self->progressHandler)
                              self->progressHandler(self->transferredBytes(), self->totalBytes());
                      }),
        [this] { return stopped(); });
    doneBytes_ += static_cast<std::int64_t>(source.fileSizeInBytes.value_or(0));
    raiseTransferredBytes(doneBytes_);
    if (!fetched) return std::unexpected(fetched.error());
    // Stopped, or a wrapper that produced no file skipped it: the next one follows.
    if (!*fetched) return {};
    auto cleanup = [&] {
        if (existsLocally(scratch)) ::unlink(scratch.c_str());
    };

    auto conflict = fileConflict();
    if (conflict == ConflictAction::KeepBoth && existsLocally(targetPath))
        targetPath = FileTransferUtils::uniqueFilePathInFolder(targetFolder, name);
    if (auto made = makeLocalFolder(targetFolder); !made) {
        cleanup();
        return made;
    }
    auto placed = copier_.moveIntoPlace(scratch, targetPath, overwrites());
    cleanup();
    if (placed) fileArrived(static_cast<std::int64_t>(source.fileSizeInBytes.value_or(0)));
    return placed;
}

}  // namespace quillon
