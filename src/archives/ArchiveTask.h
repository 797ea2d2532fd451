#pragma once
// ArchiveTask: one FileCompressor run (making a zip, extracting an archive) as a transfer task,
// so the task manager runs it beside copies and every transfer list shows it: the compressor's
// bytes are the task's progress, and a stop cancels it (which removes its partial output).

#include <functional>
#include <string_view>

#include "archives/FileCompressor.h"
#include "core/Error.h"
#include "transfer/FileTransferTask.h"

namespace quillon {

class ArchiveTask : public FileTransferTask {
  public:
    // The work done with the task's compressor, on the task's thread.
    using Work = std::function<Status(FileCompressor&)>;
    // `encoding`: of zip entry names not stored as UTF-8.
    ArchiveTask(unsigned long encoding, Work work) : compressor(encoding), work_(std::move(work)) {}

    void startTransfer() override;
    void cancelTransfer() override;
    std::string_view taskClassName() const override { return "ArchiveTask"; }

    FileCompressor compressor;

  private:
    Work work_;
};

}  // namespace quillon
