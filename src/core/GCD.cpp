#include "core/GCD.h"

#include <deque>
#include <thread>

#include "core/MainQueue.h"

namespace quillon {

bool Semaphore::signal() {
    std::lock_guard lock(mutex_);
    ++value_;
    bool woke = waiting_ > woken_;
    if (woke) ++woken_;
    cv_.notify_one();
    return woke;
}

bool Semaphore::wait(std::chrono::nanoseconds timeout) {
    std::unique_lock lock(mutex_);
    ++waiting_;
    bool ok = cv_.wait_for(lock, timeout, [&] { return value_ > 0; });
    --waiting_;
    if (ok) {
        --value_;
        if (woken_ > 0) --woken_;
    }
    return ok;
}

int Semaphore::waiters() const {
    std::lock_guard lock(mutex_);
    return waiting_;
}

namespace {

// The global queue: a thread pool that starts a thread whenever no thread is idle, and lets a
// thread end after a while without work.
class BackgroundQueue {
  public:
    void submit(std::function<void()> fn) {
        std::unique_lock lock(mutex_);
        work_.push_back(std::move(fn));
        if (idle_ > 0) {
            cv_.notify_one();
            return;
        }
        ++threads_;
        std::thread([this] { worker(); }).detach();
    }
    int threads() {
        std::lock_guard lock(mutex_);
        return threads_;
    }

  private:
    void worker() {
        std::unique_lock lock(mutex_);
        while (true) {
            if (work_.empty()) {
                ++idle_;
                bool got =
                    cv_.wait_for(lock, std::chrono::seconds(10), [&] { return !work_.empty(); });
                --idle_;
                if (!got) {
                    --threads_;
                    return;
                }
            }
            auto fn = std::move(work_.front());
            work_.pop_front();
            lock.unlock();
            fn();
            fn = nullptr;
            lock.lock();
        }
    }
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> work_;
    int idle_ = 0;
    int threads_ = 0;
};

BackgroundQueue& globalQueue() {
    static BackgroundQueue* q = new BackgroundQueue();  // never destroyed: detached workers use it
    return *q;
}

std::chrono::nanoseconds toNanos(double seconds) {
    return std::chrono::nanoseconds(static_cast<long long>(seconds * 1e9));
}

}  // namespace

namespace GCD {

void doInBackground(std::function<void()> block) {
    globalQueue().submit(std::move(block));
}

void doInForeground(std::function<void()> block) {
    MainQueue::shared().post(std::move(block));
}

void doInForeground(std::function<void()> block, double afterSeconds) {
    MainQueue::shared().postAfter(toNanos(afterSeconds), std::move(block));
}

void doInForegroundWhen(std::function<void()> block, bool flag) {
    doInBackground([block = std::move(block), flag]() mutable {
        while (!flag) std::this_thread::sleep_for(std::chrono::seconds(1));
        doInForeground(std::move(block));
    });
}

void doInForegroundEvery(std::function<void()> block, double seconds) {
    doInBackground([block = std::move(block), seconds] {
        while (true) {
            doInForeground(block);
            std::this_thread::sleep_for(std::chrono::seconds(static_cast<long long>(seconds)));
        }
    });
}

void doInBackgroundEvery(std::function<void()> block, double seconds) {
    doInBackground([block = std::move(block), seconds] {
        while (true) {
            block();
            std::this_thread::sleep_for(std::chrono::seconds(static_cast<long long>(seconds)));
        }
    });
}

void doOnce(const std::function<void()>& block) {
    static std::once_flag token;
    std::call_once(token, [&] { block(); });
}

SemaphorePtr initSema() {
    return std::make_shared<Semaphore>();
}

bool waitSema(const SemaphorePtr& sema, double seconds) {
    if (!sema) return false;
    return sema->wait(toNanos(seconds));
}

void signalSema(const SemaphorePtr& sema) {
    if (!sema) return;
    while (sema->signal()) {
    }
}

int backgroundThreadCount() {
    return globalQueue().threads();
}

}  // namespace GCD
}  // namespace quillon
