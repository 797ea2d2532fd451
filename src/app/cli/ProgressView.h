#pragma once
// ProgressView: the transfer manager's view on a terminal. One status line on standard error,
// redrawn at most ten times a second: the file being transferred, bytes done of the total, the
// share and the rate. Shown only when standard error is a terminal.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include "transfer/FileTransferTaskManager.h"

namespace quillon::cli {

// "1.5 MB", "730 B" (decimal units, as file managers show them).
std::string formatBytes(std::int64_t bytes);

class ProgressView : public FileTransferView {
  public:
    // A view on `out`; `displayed` defaults to whether `out` is a terminal.
    explicit ProgressView(std::FILE* out = stderr);
    ProgressView(std::FILE* out, bool displayed);

    bool isDisplayed() const override { return displayed_; }
    void reloadContent() override {}
    void updateProgress(FileTransferTask& task, std::int64_t transferredBytes,
                        std::int64_t totalBytes) override;
    // Clears the status line.
    void close() override;
    // Clears the status line so that other output can follow; the next update draws it again.
    void clearLine();

  private:
    using Clock = std::chrono::steady_clock;
    std::FILE* out_;
    bool displayed_;
    std::size_t drawnWidth_ = 0;
    Clock::time_point lastDraw_{};
    Clock::time_point started_{};
    std::int64_t startBytes_ = 0;
    const FileTransferTask* task_ = nullptr;
};

}  // namespace quillon::cli
