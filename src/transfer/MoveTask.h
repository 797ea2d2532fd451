#pragma once
// MoveTask: moves items within one server with the server's own move. Without a name conflict
// every item of the gesture moves in one request where the server can (moveItemsSync), else one
// move per item; "keep both" moves the item alone under a unique name; "replace" deletes the
// existing entry first.

#include "core/Wrapper.h"
#include "transfer/FileTransferNode.h"
#include "transfer/FileTransferTask.h"

namespace quillon {

class MoveTask : public FileTransferTask {
  public:
    void startTransfer() override;
    // The target folder holds an item of the source's name; it is kept as the conflict entry.
    [[nodiscard]] Result<bool> fileExists() override;
    std::string_view taskClassName() const override { return "MoveTask"; }
    bool isMoveTask() const override { return true; }

    // The existing target entry found by fileExists.
    std::optional<KvMetadata> conflictMeta() const;

  private:
    Status moveAll(const KvMetadataList& items, const KvMetadata& folder);

    FileTransferNode::Ptr rootNode_;
    mutable std::mutex mutex_;
    std::optional<KvMetadata> conflictMeta_;
};

}  // namespace quillon
