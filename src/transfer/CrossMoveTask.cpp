#include "transfer/CrossMoveTask.h"

#include "core/GCD.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/UploadTask.h"

namespace quillon {

using FileTransferUtils::itemName;

namespace {

const KvMetadata* findEntry(const KvMetadataList& listing, const std::string& name) {
    for (auto& e : listing)
        if (itemName(e) == name) return &e;
    return nullptr;
}

}  // namespace

Result<bool> CrossMoveTask::fileExists() {
    return targetHasSourceName();
}

void CrossMoveTask::cancelTransfer() {
    FileTransferTask::cancelTransfer();
    std::shared_ptr<CrossCopyTask> inner;
    {
        std::lock_guard lock(innerMutex_);
        inner = crossCopyTask_;
    }
    if (inner) inner->cancelTransfer();
}

KvMetadataList CrossMoveTask::foldersToRefresh() const {
    // The target folder first, then the folder the source left.
    auto folders = FileTransferTask::foldersToRefresh();
    if (folders.size() == 2) std::swap(folders[0], folders[1]);
    return folders;
}

void CrossMoveTask::startTransfer() {
    if (!openSides()) return;

    auto inner = std::make_shared<CrossCopyTask>();
    inner->sourceServerInfo = sourceServerInfo;
    inner->targetServerInfo = targetServerInfo;
    inner->sourceItems = sourceItems;
    inner->sourceMetadata = sourceMetadata;
    inner->targetMetadata = targetMetadata;
    inner->setFileConflict(fileConflict());
    inner->continueAfterItemFailure = continueAfterItemFailure;
    inner->setDelegate(this);
    {
        std::lock_guard lock(innerMutex_);
        crossCopyTask_ = inner;
    }
    if (stopped()) inner->cancelTransfer();
    inner->startTransfer();
}

void CrossMoveTask::updateTask(FileTransferTask&, std::int64_t transferred, std::int64_t total) {
    setTransferredBytes(transferred);
    setTotalBytes(total);
    if (auto* d = delegate(); d && state() == TransferTaskState::Running)
        d->updateTask(*this, transferred, total);
}

void CrossMoveTask::didCompleteTask(FileTransferTask& task, const std::optional<Error>& error) {
    auto& inner = static_cast<CrossCopyTask&>(task);
    setTransferredBytes(inner.transferredBytes());
    setTotalBytes(inner.totalBytes());
    std::string newName = inner.fileNameForConflict();
    targetMetadata = inner.targetMetadata;
    inner.setDelegate(nullptr);
    {
        std::lock_guard lock(innerMutex_);
        crossCopyTask_.reset();
    }
    if (stopped() || error || inner.state() != TransferTaskState::Completed) {
        completeFileTransfer(error);
        return;
    }
    auto self = std::static_pointer_cast<CrossMoveTask>(shared_from_this());
    GCD::doInBackground([self, newName] {
        const auto& source = self->sourceMetadata;
        std::string name = newName.empty() ? itemName(source) : newName;
        bool verified = source.isDir
                            ? self->checkFolderIntegration(source, self->targetFolder_, name)
                            : self->checkFileIntegration(source, self->targetFolder_, name);
        if (self->stopped()) {
            self->completeFileTransfer(std::nullopt);
            return;
        }
        if (!verified) {
            self->completeFileTransfer(KvError::errorWithDomain(ErrorDomain::Generic,
                                                                ErrorCode::CrossCopyFailed,
                                                                "Error occured when cross copy."));
            return;
        }
        auto removed = self->sourceProxy_->removeSync({source});
        self->completeFileTransfer(removed ? std::nullopt : std::optional<Error>(removed.error()));
    });
}

Result<KvMetadataList> CrossMoveTask::listSource(const KvMetadata& folder) {
    if (sourceServerInfo && sourceServerInfo->protocolType == 0) return listLocalFolder(folder);
    return sourceProxy_->contentsOfDirectoryAtPathSync(folder);
}

bool CrossMoveTask::checkFileIntegration(const KvMetadata& source, const KvMetadata& folder,
                                         const std::string& name) {
    auto listing = targetProxy_->contentsOfDirectoryAtPathSync(folder);
    if (!listing) return false;
    auto* copy = findEntry(*listing, name);
    if (!copy || copy->isDir != source.isDir) return false;
    if (source.isDir) return true;
    return copy->fileSizeInBytes.value_or(0) == source.fileSizeInBytes.value_or(0);
}

bool CrossMoveTask::checkFolderIntegration(const KvMetadata& source, const KvMetadata& folder,
                                           const std::string& name) {
    auto listing = targetProxy_->contentsOfDirectoryAtPathSync(folder);
    if (!listing) return false;
    auto* copy = findEntry(*listing, name);
    if (!copy || !copy->isDir) return false;
    KvMetadata copied = *copy;
    copied.setPath(StringUtils::stringByAppendingPathComponentDirectly(folder.pathOrEmpty(), name));
    return checkEntries(source, copied, 0);
}

bool CrossMoveTask::checkEntries(const KvMetadata& sourceFolder, const KvMetadata& copiedFolder,
                                 int depth) {
    if (stopped() || depth > 512) return false;
    auto sources = listSource(sourceFolder);
    auto copies = targetProxy_->contentsOfDirectoryAtPathSync(copiedFolder);
    if (!sources || !copies) return false;
    for (auto& entry : *sources) {
        // Links to folders and temporaries of unfinished transfers are not copied, so they are
        // not looked for.
        if ((entry.isDir && entry.isSymbolLink) || FileTransferUtils::isTemporary(entry)) continue;
        auto* copy = findEntry(*copies, itemName(entry));
        if (!copy || copy->isDir != entry.isDir) return false;
        if (entry.isDir) {
            KvMetadata copied = *copy;
            copied.setPath(StringUtils::stringByAppendingPathComponentDirectly(
                copiedFolder.pathOrEmpty(), itemName(entry)));
            if (!checkEntries(entry, copied, depth + 1)) return false;
        } else if (copy->fileSizeInBytes.value_or(0) != entry.fileSizeInBytes.value_or(0)) {
            return false;
        }
    }
    return true;
}

}  // namespace quillon
