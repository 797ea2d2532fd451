#pragma once
// ProgressView: live progress of transfer tasks on a terminal, one line per running task in the
// format of `quillon cp` ("<name> > <file>  <done> of <total> (<share>%)  <rate>/s  ETA m:ss"),
// redrawn in place on a terminal and printed every 2 s otherwise. The helpers that format the
// parts of the line are shared by every command that shows transfers.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "transfer/FileTransferTaskManager.h"
#include "transfer/TransferEstimate.h"
#include "transfer/UserPrompts.h"

namespace quillon::cli {

// One live line; `rate` in bytes per second (0: unknown); cut below `width` when it is not 0.
std::string progressLine(const std::string& name, std::int64_t done, std::int64_t total,
                         double rate, std::size_t width);

class ProgressView : public TransferObserver {
  public:
    using Clock = std::chrono::steady_clock;

    // Draws on `out`: in place when it is a terminal, every 2 s otherwise; `quiet` draws nothing.
    explicit ProgressView(std::FILE* out = stderr, bool quiet = false);

    // Shows `task` as `label` while it runs.
    void add(const FileTransferTaskPtr& task, std::string label);

    void taskStarted(FileTransferTask& task) override;
    // Takes a sample for the task's rate.
    void taskProgressed(FileTransferTask& task, std::int64_t transferredBytes,
                        std::int64_t totalBytes) override;
    // Marks the row ended and reports how the task ended, once.
    void taskEnded(FileTransferTask& task) override;
    // Reports the tasks that ended unseen (stopped while waiting) and clears the live lines.
    void reportRest();

    // Every task has ended, or was stopped before it started.
    bool allDone() const;

    // Redraws the live lines (call it from a repeating timer, ten times a second).
    void tick();
    // Clears the live lines so that other output can follow.
    void clearBlock();

  protected:
    struct Row {
        FileTransferTaskPtr task;
        int id = 0;  // 1, 2, ... in the order the tasks were added
        std::string label;
        bool started = false;
        bool ended = false;  // its end was reported: no live line any more
        RateEstimator rate;
    };
    Row* find(const FileTransferTask& task);
    // Says how a row's task ended; the row is already marked ended. Nothing by default.
    virtual void reportEnd(Row&) {}
    // The name at the start of a row's line: the label, then the file being moved.
    virtual std::string nameOf(const Row& row) const;

    std::FILE* out_;
    std::vector<Row> rows_;

  private:
    std::string lineOf(const Row& row, std::size_t width) const;

    bool quiet_;
    bool terminal_;
    int blockLines_ = 0;
    Clock::time_point lastPlain_{};
};

// Runs `tasks` on the shared manager, `view` watching and redrawing them and `prompts` answering
// the manager's questions, until each task has ended; then reports those that ended unseen.
void runWatched(const std::shared_ptr<ProgressView>& view,
                const std::vector<FileTransferTaskPtr>& tasks,
                std::shared_ptr<UserPrompts> prompts);

}  // namespace quillon::cli
