#pragma once
// FileTransferTaskManager: the one queue of transfer tasks. It keeps every task ever added (the
// transfer window shows finished ones too), runs waiting tasks while fewer than "Max
// Simultaneous Transfers" run, settles name conflicts before a task starts, and asks the user
// what to do when a task fails.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "transfer/FileTransferTask.h"
#include "transfer/UserPrompts.h"

namespace quillon {

// The transfer window, as far as the manager needs it.
class FileTransferView {
  public:
    virtual ~FileTransferView() = default;
    virtual bool isDisplayed() const = 0;
    virtual void reloadContent() = 0;
    virtual void updateProgress(FileTransferTask& task, std::int64_t transferredBytes,
                                std::int64_t totalBytes) = 0;
    virtual void close() = 0;
};

// What a transfer list follows: every face (the command line's progress lines, a window's
// list) hears of each task's start, progress and end instead of polling the tasks. Called on the
// main thread.
class TransferObserver {
  public:
    virtual ~TransferObserver() = default;
    // The manager started the task (it is running; a name conflict may still be settled).
    virtual void taskStarted(FileTransferTask&) {}
    virtual void taskProgressed(FileTransferTask&, std::int64_t /*transferredBytes*/,
                                std::int64_t /*totalBytes*/) {}
    // A started task's run ended: completed, failed or stopped. A task stopped before it started
    // never ends this way; it is Stopped without having started.
    virtual void taskEnded(FileTransferTask&) {}
};

class FileTransferTaskManager : public FileTransferTaskDelegate {
  public:
    // The process-wide manager, created on first use.
    static FileTransferTaskManager& sharedInstance();
    // A manager of its own (tests, or a second queue); the shared one is the program's queue.
    FileTransferTaskManager();
    ~FileTransferTaskManager() override;

    // Appends the task; starts nothing (call start after the last task of a gesture).
    void addTask(FileTransferTaskPtr task);
    // runNextTask, then reloads the transfer view when it is displayed.
    void start();
    std::vector<FileTransferTaskPtr> getAllTasks() const;
    // Running: cancelTransfer; waiting: state 3; otherwise unchanged. Then runNextTask.
    void stopTask(const FileTransferTaskPtr& task);
    // Every waiting task becomes 3, every running task is stopped, the remembered conflict answer
    // is forgotten.
    void stopAllTasks();
    // Whether fewer tasks than the limit are running.
    bool canRunTask(const FileTransferTask& task) const;
    // Starts waiting tasks, oldest first, while the limit allows; a walk that starts none
    // forgets the remembered conflict answer.
    void runNextTask();
    // Starts a waiting task: settles a name conflict (asking the user when needed), then runs
    // startTransfer on a background thread.
    void runTask(const FileTransferTaskPtr& task);

    // The limit: the preference "Max Simultaneous Transfers" (1 when absent or below 1), unless
    // overridden.
    int maxSimultaneousTransfers() const;
    // Overrides the preference for this process (absent: use the preference again; below 1: 1).
    void setMaxSimultaneousTransfers(std::optional<int> limit);

    void setUserPrompts(std::shared_ptr<UserPrompts> prompts);
    void setFileTransferView(std::shared_ptr<FileTransferView> view);
    std::shared_ptr<FileTransferView> getFileTransferView() const;
    void addObserver(std::shared_ptr<TransferObserver> observer);
    void removeObserver(const std::shared_ptr<TransferObserver>& observer);

    bool applyAll() const;
    ConflictAction fileConflict() const;
    // True when a task of the same class as `task`, other than it, is waiting or running.
    bool hasOtherActiveTaskOfClass(const FileTransferTask& task) const;
    // True when any task is waiting or running.
    bool hasActiveTasks() const;

    void updateTask(FileTransferTask& task, std::int64_t transferredBytes,
                    std::int64_t totalBytes) override;
    void didCompleteTask(FileTransferTask& task, const std::optional<Error>& error) override;

  private:
    void askConflict(const FileTransferTaskPtr& task);
    static void startInBackground(const FileTransferTaskPtr& task);
    bool sameFolder(const FileTransferTask& task) const;
    // The answer given for all conflicts, when there is one.
    std::optional<ConflictAction> rememberedConflict() const;
    std::shared_ptr<UserPrompts> prompts() const;
    std::size_t countInState(TransferTaskState state) const;
    std::vector<std::shared_ptr<TransferObserver>> observers() const;
    // After a task's end was told: the next tasks, or the end of all of them.
    void afterTaskEnded(bool stopAll);

    mutable std::recursive_mutex listLock_;
    std::vector<FileTransferTaskPtr> tasks_;
    mutable std::mutex stateMutex_;
    bool applyAll_ = false;
    ConflictAction fileConflict_ = ConflictAction::NotDecided;
    std::optional<int> limitOverride_;
    std::shared_ptr<UserPrompts> prompts_;
    std::shared_ptr<FileTransferView> view_;
    std::vector<std::shared_ptr<TransferObserver>> observers_;
};

}  // namespace quillon
