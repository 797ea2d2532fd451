#pragma once
// TransferProgress: a small thread-safe progress record (total and completed unit counts, a
// cancelled flag) whose changes can be observed. ProgressObserver bridges one to a delegate.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace quillon {

class TransferProgress {
  public:
    enum class Change { CompletedUnitCount, Cancelled };
    using Observer = std::function<void(Change)>;
    using Token = std::uint64_t;

    std::int64_t totalUnitCount() const { return total_.load(); }
    void setTotalUnitCount(std::int64_t n) { total_.store(n); }
    std::int64_t completedUnitCount() const { return completed_.load(); }
    // Stores the count and tells every observer, on the calling thread.
    void setCompletedUnitCount(std::int64_t n);
    bool isCancelled() const { return cancelled_.load(); }
    // Sets the flag and tells every observer, once.
    void cancel();

    Token addObserver(Observer observer);
    void removeObserver(Token token);

  private:
    void notify(Change change);
    std::atomic<std::int64_t> total_{0};
    std::atomic<std::int64_t> completed_{0};
    std::atomic<bool> cancelled_{false};
    std::mutex mutex_;
    std::map<Token, std::shared_ptr<Observer>> observers_;
    Token next_ = 1;
};

class ProgressObserver;

class ProgressObserverDelegate {
  public:
    virtual ~ProgressObserverDelegate() = default;
    virtual void observerDidChange(ProgressObserver& observer) = 0;
    virtual void observerDidCancel(ProgressObserver& observer) = 0;
    virtual void observerDidComplete(ProgressObserver& observer) = 0;
};

// Watches one progress record from construction to destruction.
class ProgressObserver {
  public:
    explicit ProgressObserver(std::shared_ptr<TransferProgress> progress);
    ProgressObserver(std::string name, std::shared_ptr<TransferProgress> progress);
    ~ProgressObserver();
    ProgressObserver(const ProgressObserver&) = delete;
    ProgressObserver& operator=(const ProgressObserver&) = delete;

    const std::string& name() const { return name_; }
    const std::shared_ptr<TransferProgress>& progress() const { return progress_; }
    // Non-owning; a change of the completed count calls observerDidChange, then
    // observerDidComplete when completed equals total; cancelling calls observerDidCancel.
    void setDelegate(ProgressObserverDelegate* delegate) { delegate_.store(delegate); }
    ProgressObserverDelegate* delegate() const { return delegate_.load(); }

  private:
    std::string name_;
    std::shared_ptr<TransferProgress> progress_;
    std::atomic<ProgressObserverDelegate*> delegate_{nullptr};
    TransferProgress::Token token_ = 0;
};

}  // namespace quillon
