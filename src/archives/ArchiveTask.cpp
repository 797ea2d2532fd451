#include "archives/ArchiveTask.h"

#include <optional>

namespace quillon {

void ArchiveTask::startTransfer() {
    beginTransfer();
    compressor.progressHandler = [this](int, std::int64_t done, std::int64_t total) {
        setTotalBytes(total);
        raiseTransferredBytes(done);
        reportProgress();
    };
    auto result = work_(compressor);
    completeFileTransfer(result ? std::nullopt : std::optional<Error>(result.error()));
}

void ArchiveTask::cancelTransfer() {
    setState(TransferTaskState::Stopped);
    compressor.cancelOperation();
}

}  // namespace quillon
