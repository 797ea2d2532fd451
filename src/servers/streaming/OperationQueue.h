#pragma once
// OperationQueue: runs queued operations on the background queue, at most a set number at once,
// oldest first. An operation cancelled before it starts finishes without running.

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quillon {

class Operation : public std::enable_shared_from_this<Operation> {
  public:
    virtual ~Operation() = default;
    // Marks the operation cancelled; a running one notices it at its next step.
    virtual void cancel() { cancelled_ = true; }
    bool isCancelled() const { return cancelled_; }
    bool isExecuting() const { return executing_; }
    bool isFinished() const { return finished_; }

  protected:
    // The work; runs on a background thread.
    virtual void main() = 0;

  private:
    friend class OperationQueue;
    void start();

    std::atomic<bool> cancelled_{false};
    std::atomic<bool> executing_{false};
    std::atomic<bool> finished_{false};
};

class OperationQueue {
  public:
    explicit OperationQueue(std::string name, int maxConcurrentOperationCount = 1);
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    const std::string& name() const { return name_; }
    // How many operations run at once (at least one).
    void setMaxConcurrentOperationCount(int count);
    int maxConcurrentOperationCount() const;
    void addOperation(std::shared_ptr<Operation> operation);
    // The operations not finished yet, in the order they were added.
    std::vector<std::shared_ptr<Operation>> operations() const;
    void cancelAllOperations();
    void waitUntilAllOperationsAreFinished();

  private:
    void startWaiting(std::unique_lock<std::mutex>& lock);

    std::string name_;
    mutable std::mutex mutex_;
    std::condition_variable finished_;
    std::vector<std::shared_ptr<Operation>> operations_;  // unfinished, in order
    std::deque<std::shared_ptr<Operation>> waiting_;
    int maxConcurrent_;
    int running_ = 0;
};

}  // namespace quillon
