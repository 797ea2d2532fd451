#pragma once
// UploadTask: sends one local item (file or folder) into a folder on a server. Folder trees are
// listed once, creating the target folders, before the first byte moves.

#include <vector>

#include "core/Wrapper.h"
#include "transfer/FileTransferNode.h"
#include "transfer/FileTransferTask.h"

namespace quillon {

class UploadTask : public FileTransferTask {
  public:
    void startTransfer() override;
    // The server's target folder holds an item of the source's name.
    [[nodiscard]] Result<bool> fileExists() override;
    std::string_view taskClassName() const override { return "UploadTask"; }

  private:
    Status contentsOfDirectory(const FileTransferNode::Ptr& node);
    Status transferFiles();

    WrapperPtr localWrapper_;  // reads links
    std::vector<FileTransferNode::Ptr> fileNodes_;
};

// Reads a local folder's entries as records (hidden entries included; a ".name.icloud"
// placeholder is listed as "name"). A link is marked as one; it shows as a folder when it points to
// one, and a dangling link is listed too.
Result<KvMetadataList> listLocalFolder(const KvMetadata& folder);

}  // namespace quillon
