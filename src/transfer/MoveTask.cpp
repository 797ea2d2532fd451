#include "transfer/MoveTask.h"

#include "core/StringUtils.h"
#include "transfer/FileTransferUtils.h"

namespace quillon {

namespace {

// The moved item's record at its new place; the server assigns the identifier.
KvMetadata movedTarget(const KvMetadata& item, const KvMetadata& folder) {
    auto target = FileTransferUtils::targetMetadataWithSourceMetadata(item, folder);
    target.identifier.reset();
    return target;
}

}  // namespace

std::optional<KvMetadata> MoveTask::conflictMeta() const {
    std::lock_guard lock(mutex_);
    return conflictMeta_;
}

Result<bool> MoveTask::fileExists() {
    auto entry = targetEntryWithSourceName();
    if (!entry) return std::unexpected(entry.error());
    if (!*entry) return false;
    std::lock_guard lock(mutex_);
    conflictMeta_ = std::move(*entry);
    return true;
}

Status MoveTask::moveAll(const KvMetadataList& items, const KvMetadata& folder) {
    if (targetProxy_->capabilities().moveItems) return targetProxy_->moveItemsSync(items, folder);
    // A server without a many-item move gets one move per item.
    for (auto& item : items) {
        if (stopped()) return {};
        if (auto r = targetProxy_->moveSync(item, movedTarget(item, folder)); !r) return r;
    }
    return {};
}

void MoveTask::startTransfer() {
    if (!openSides(false)) return;
    KvMetadata folder = targetMetadata;
    rootNode_ = std::make_shared<FileTransferNode>(sourceMetadata,
                                                   movedTarget(sourceMetadata, folder), folder);
    setTransferringFileMeta(sourceMetadata);

    Status result;
    switch (fileConflict()) {
        case ConflictAction::KeepBoth:
            result = renameForKeepBoth(rootNode_->targetMetadata, folder);
            if (result) result = targetProxy_->moveSync(sourceMetadata, rootNode_->targetMetadata);
            break;
        case ConflictAction::Replace: {
            if (auto existing = conflictMeta()) {
                if (auto r = targetProxy_->removeSync({*existing}); !r) {
                    result = r;
                    break;
                }
            }
            result = targetProxy_->moveSync(sourceMetadata, rootNode_->targetMetadata);
            break;
        }
        default:
            result =
                moveAll(sourceItems.empty() ? KvMetadataList{sourceMetadata} : sourceItems, folder);
            break;
    }
    targetMetadata = rootNode_->targetMetadata;
    completeFileTransfer(result ? std::nullopt : std::optional<Error>(result.error()));
}

}  // namespace quillon
