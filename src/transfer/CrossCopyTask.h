#pragma once
// CrossCopyTask: copies one item from one server to another. Every byte passes through a local
// scratch file, one file at a time (a local source is sent straight from its own path); nothing
// is streamed from server to server.

#include <string>
#include <vector>

#include "core/Wrapper.h"
#include "transfer/FileTransferNode.h"
#include "transfer/FileTransferTask.h"

namespace quillon {

class CrossCopyTask : public FileTransferTask {
  public:
    void startTransfer() override;
    // The target server's folder holds an item of the source's name.
    [[nodiscard]] Result<bool> fileExists() override;
    std::string_view taskClassName() const override { return "CrossCopyTask"; }

    // The name chosen for "keep both" (empty otherwise).
    std::string fileNameForConflict() const;
    std::string taskTempFolderPath() const;

  private:
    Status contentsOfDirectory(const FileTransferNode::Ptr& node);
    Status transferFiles();
    Status transferFile(const FileTransferNode& node, std::int64_t base);
    void finish(std::optional<Error> error);

    std::vector<FileTransferNode::Ptr> fileNodes_;
    mutable std::mutex mutex_;
    std::string taskTempFolderPath_;
    std::string fileNameForConflict_;
};

}  // namespace quillon
