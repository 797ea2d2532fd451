#pragma once
// DownloadTask: fetches one remote item (file or folder) into a local folder. Every file is
// downloaded into the task's own scratch folder and moved into place only when complete, so a
// cancelled or failed download never leaves partial data at the target; the scratch folder is
// removed however the task ends.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/Wrapper.h"
#include "transfer/FileTransferNode.h"
#include "transfer/FileTransferTask.h"
#include "transfer/LocalFileCopier.h"
#include "transfer/ProgressObserver.h"

namespace quillon {

class DownloadTask : public FileTransferTask {
  public:
    DownloadTask();

    void startTransfer() override;
    // The local target folder holds an item of the source's name.
    [[nodiscard]] Result<bool> fileExists() override;
    void cancelTransfer() override;
    std::string_view taskClassName() const override { return "DownloadTask"; }

    // Total and completed bytes of the whole download.
    const std::shared_ptr<TransferProgress>& progress() const { return progress_; }
    // Optional observers: each progress step (on the thread the client reports on), and the
    // end (on the task's thread).
    std::function<void(std::int64_t done, std::int64_t total)> progressHandler;
    std::function<void(const std::optional<Error>&)> completionHandler;
    // The scratch folder of the running task (empty before it starts).
    std::string taskTempFolderPath() const;

  private:
    Status contentsOfDirectory(const FileTransferNode::Ptr& node);
    Status transferFiles();
    Status transferFile(const FileTransferNode& node);
    void finish(std::optional<Error> error);
    // The local name of a remote item: a link is named after what it points to.
    static std::string localName(const KvMetadata& item);

    WrapperPtr sourceWrapper_;
    std::string taskTempFolderPath_;
    mutable std::mutex tempMutex_;
    std::vector<FileTransferNode::Ptr> fileNodes_;
    std::shared_ptr<TransferProgress> progress_;
    LocalFileCopier copier_;
    std::int64_t doneBytes_ = 0;
};

}  // namespace quillon
