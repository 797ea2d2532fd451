#pragma once
// CopyTask: copies one local item (file, folder or link) into a local folder. Files are cloned
// where the file system can, else copied in the kernel in 10 MiB steps; links are copied as
// links; modes and times are kept. Progress is reported at most every half second.

#include "core/Wrapper.h"
#include "transfer/FileTransferTask.h"
#include "transfer/LocalFileCopier.h"

namespace quillon {

class CopyTask : public FileTransferTask {
  public:
    void startTransfer() override;
    // The target folder holds an item of the source's name.
    [[nodiscard]] Result<bool> fileExists() override;
    std::string_view taskClassName() const override { return "CopyTask"; }

  private:
    Status copyRoot(const std::string& from, const std::string& to);
    Status copyFolder(const KvMetadata& folder, const std::string& from, const std::string& to);
    Status copyFile(const KvMetadata& file, const std::string& from, const std::string& to,
                    bool replace, bool staged = false);
    // Reports when more than 0.5 s passed since the last report.
    void tick();

    LocalFileCopier copier_;
    double lastUpdateTick_ = 0;
    bool merging_ = false;  // into an existing folder: files of the same name are replaced
};

}  // namespace quillon
