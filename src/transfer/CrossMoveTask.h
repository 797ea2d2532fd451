#pragma once
// CrossMoveTask: moves one item from one server to another: an inner CrossCopyTask copies it,
// the copy is checked against the source (names, kinds and sizes, folders recursively), and
// only a verified copy lets the source be deleted. A failed check keeps the source.

#include <memory>

#include "core/Wrapper.h"
#include "transfer/CrossCopyTask.h"

namespace quillon {

class CrossMoveTask : public FileTransferTask, private FileTransferTaskDelegate {
  public:
    void startTransfer() override;
    [[nodiscard]] Result<bool> fileExists() override;
    void cancelTransfer() override;
    std::string_view taskClassName() const override { return "CrossMoveTask"; }
    bool isMoveTask() const override { return true; }

  private:
    void updateTask(FileTransferTask& task, std::int64_t transferredBytes,
                    std::int64_t totalBytes) override;
    void didCompleteTask(FileTransferTask& task, const std::optional<Error>& error) override;
    KvMetadataList foldersToRefresh() const override;
    // Whether the copy of `source` named `name` in `folder` matches it.
    bool checkFileIntegration(const KvMetadata& source, const KvMetadata& folder,
                              const std::string& name);
    bool checkFolderIntegration(const KvMetadata& source, const KvMetadata& folder,
                                const std::string& name);
    bool checkEntries(const KvMetadata& sourceFolder, const KvMetadata& copiedFolder, int depth);
    Result<KvMetadataList> listSource(const KvMetadata& folder);

    std::shared_ptr<CrossCopyTask> crossCopyTask_;
    std::mutex innerMutex_;
};

}  // namespace quillon
