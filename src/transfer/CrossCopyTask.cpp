#include "transfer/CrossCopyTask.h"

#include <sys/stat.h>
#include <unistd.h>

#include "core/LocalizedUtils.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/RemoteUpload.h"
#include "transfer/UploadTask.h"

namespace quillon {

using FileTransferUtils::itemName;

namespace {

bool isLocal(const ServerInfoPtr& server) {
    return server && server->protocolType == 0;
}

}  // namespace

std::string CrossCopyTask::fileNameForConflict() const {
    std::lock_guard lock(mutex_);
    return fileNameForConflict_;
}

std::string CrossCopyTask::taskTempFolderPath() const {
    std::lock_guard lock(mutex_);
    return taskTempFolderPath_;
}

Result<bool> CrossCopyTask::fileExists() {
    return targetHasSourceName();
}

void CrossCopyTask::finish(std::optional<Error> error) {
    FileTransferUtils::removeTaskTempFolder(taskTempFolderPath());
    completeFileTransfer(std::move(error));
}

void CrossCopyTask::startTransfer() {
    if (!openSides()) return;
    countsArrivals_ = true;
    if (!isLocal(targetServerInfo)) RemoteUpload::removeLeftovers(*targetProxy_);
    auto temp = FileTransferUtils::makeTaskTempFolder();
    if (!temp) {
        completeFileTransfer(temp.error());
        return;
    }
    {
        std::lock_guard lock(mutex_);
        taskTempFolderPath_ = *temp;
    }

    KvMetadata folder = targetMetadata;
    auto targetItem = FileTransferUtils::targetMetadataWithSourceMetadata(sourceMetadata, folder);
    if (auto named = renameForKeepBoth(targetItem, folder); !named) {
        finish(named.error());
        return;
    }
    if (fileConflict() == ConflictAction::KeepBoth) {
        std::lock_guard lock(mutex_);
        fileNameForConflict_ = itemName(targetItem);
    }
    targetMetadata = targetItem;

    if (!isLocal(targetServerInfo))
        if (auto usable = FileTransferUtils::checkNameForServer(itemName(targetItem),
                                                                sourceMetadata.pathOrEmpty());
            !usable) {
            finish(usable.error());
            return;
        }
    if (sourceMetadata.isSymbolLink) {
        auto r =
            transferLink(sourceMetadata, targetItem, *sourceProxy_, *targetProxy_, overwrites());
        finish(r ? std::nullopt : std::optional<Error>(r.error()));
        return;
    }
    auto root = std::make_shared<FileTransferNode>(sourceMetadata, targetItem, folder);
    if (sourceMetadata.isDir) {
        auto r = placeFolder(root, [&] {
            auto s = contentsOfDirectory(root);
            return s && !stopped() ? transferFiles() : s;
        });
        reportProgress();
        finish(r || stopped() ? std::nullopt : std::optional<Error>(r.error()));
        return;
    }
    setTotalBytes(static_cast<std::int64_t>(sourceMetadata.fileSizeInBytes.value_or(0)));
    fileNodes_.push_back(root);
    auto r = transferFiles();
    reportProgress();
    finish(r ? std::nullopt : std::optional<Error>(r.error()));
}

Status CrossCopyTask::contentsOfDirectory(const FileTransferNode::Ptr& node) {
    TreeWalk walk;
    walk.list = [this](const KvMetadata& folder) {
        return isLocal(sourceServerInfo) ? listLocalFolder(folder)
                                         : sourceProxy_->contentsOfDirectoryAtPathSync(folder);
    };
    walk.makeFolder = [this](const KvMetadata& target) -> Status {
        auto made = targetProxy_->createFolderSync(target);
        // Merging: the folder may be there already.
        if (!made && fileConflict() != ConflictAction::Merge) return made;
        return {};
    };
    walk.linkSource = sourceProxy_.get();
    walk.linkTarget = targetProxy_.get();
    return collectTree(node, walk, fileNodes_);
}

Status CrossCopyTask::transferFiles() {
    std::int64_t done = 0;
    for (auto& node : fileNodes_) {
        if (!(state() == TransferTaskState::Running)) return {};
        auto r = transferFile(*node, done);
        auto size = static_cast<std::int64_t>(node->sourceMetadata.fileSizeInBytes.value_or(0));
        done += size;
        raiseTransferredBytes(done);
        if (stopped()) return {};
        if (r) fileArrived(size);
        if (!r) {
            if (auto failed = itemFailed(node->sourceMetadata, r.error()); !failed) return failed;
        }
    }
    return {};
}

Status CrossCopyTask::transferFile(const FileTransferNode& node, std::int64_t base) {
    const auto& source = node.sourceMetadata;
    setTransferringFileMeta(source);
    std::string name = itemName(node.targetMetadata);
    bool replace = overwrites();
    auto stoppedFn = [this] { return stopped(); };

    if (isLocal(sourceServerInfo)) {
        return RemoteUpload::uploadFile(
            *targetProxy_, source, source.pathOrEmpty(), node.targetParentMetadata, name, replace,
            relayProgress([base](std::int64_t sent, std::int64_t) { return base + sent; }),
            stoppedFn);
    }

    std::string temp = taskTempFolderPath();
    auto size = source.fileSizeInBytes.value_or(0);
    if (size > FileTransferUtils::totalFreeDiskSpace(temp))
        return KvError::fail(ErrorDomain::FileTransfer, ErrorCode::TransferFailed,
                             LocalizedUtils::localizedStringForKey("trans.no_space"));
    std::string scratch = StringUtils::stringByAppendingPathComponentDirectly(temp, name);
    ::unlink(scratch.c_str());
    // Each byte is counted half when it arrives and half when it leaves, so that the bar moves
    // through both legs and ends at the file's size.
    auto r = sourceProxy_->downloadSync(
        source, scratch,
        relayProgress([base](std::int64_t got, std::int64_t) { return base + got / 2; }));
    if (!r || stopped()) {
        ::unlink(scratch.c_str());
        return r;
    }
    auto half = static_cast<std::int64_t>(size / 2);
    r = RemoteUpload::uploadFile(*targetProxy_, source, scratch, node.targetParentMetadata, name,
                                 replace,
                                 relayProgress([base, half](std::int64_t sent, std::int64_t) {
                                     return base + half + sent / 2;
                                 }),
                                 stoppedFn);
    ::unlink(scratch.c_str());
    return r;
}

}  // namespace quillon
