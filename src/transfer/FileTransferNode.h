#pragma once
// FileTransferNode: one source/target pair in the tree a task builds; a folder's node holds its
// entries as children.

#include <memory>
#include <vector>

#include "core/KvMetadata.h"

namespace quillon {

class FileTransferNode {
  public:
    using Ptr = std::shared_ptr<FileTransferNode>;

    FileTransferNode() = default;
    FileTransferNode(KvMetadata source, KvMetadata target, KvMetadata targetParent)
        : sourceMetadata(std::move(source)),
          targetMetadata(std::move(target)),
          targetParentMetadata(std::move(targetParent)) {}

    // Appends to children.
    void addChild(Ptr child) { children.push_back(std::move(child)); }

    std::vector<Ptr> children;
    KvMetadata sourceMetadata;
    KvMetadata targetMetadata;
    KvMetadata targetParentMetadata;
};

}  // namespace quillon
