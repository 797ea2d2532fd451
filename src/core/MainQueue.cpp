#include "core/MainQueue.h"

namespace quillon {

MainQueue& MainQueue::shared() {
    static MainQueue* queue = new MainQueue();  // never destroyed: workers may post at exit
    return *queue;
}

MainQueue::MainQueue() : mainThread_(std::this_thread::get_id()) {}

void MainQueue::post(std::function<void()> fn) {
    {
        std::lock_guard lock(mutex_);
        tasks_.emplace(nextSeq_++, std::move(fn));
    }
    wake_.notify_all();
    notifyWakeup();
}

MainQueue::TimerId MainQueue::postAfter(std::chrono::nanoseconds delay, std::function<void()> fn) {
    TimerId id;
    {
        std::lock_guard lock(mutex_);
        id = nextTimer_++;
        auto now = clock_ ? clock_() : Clock::now();
        timers_.emplace(id, Timer{now + delay, std::chrono::nanoseconds{0}, std::move(fn)});
    }
    wake_.notify_all();
    notifyWakeup();
    return id;
}

MainQueue::TimerId MainQueue::scheduleRepeating(std::chrono::nanoseconds interval,
                                                std::function<void()> fn) {
    if (interval <= std::chrono::nanoseconds{0}) interval = std::chrono::milliseconds(1);
    TimerId id;
    {
        std::lock_guard lock(mutex_);
        id = nextTimer_++;
        auto now = clock_ ? clock_() : Clock::now();
        timers_.emplace(id, Timer{now + interval, interval, std::move(fn)});
    }
    wake_.notify_all();
    notifyWakeup();
    return id;
}

void MainQueue::setWakeup(std::function<void()> wakeup) {
    std::lock_guard lock(wakeupMutex_);
    wakeup_ = std::move(wakeup);
}

void MainQueue::notifyWakeup() {
    std::lock_guard lock(wakeupMutex_);
    if (wakeup_) wakeup_();
}

std::optional<MainQueue::Clock::time_point> MainQueue::nextTimerDue() const {
    std::lock_guard lock(mutex_);
    std::optional<Clock::time_point> next;
    for (auto& [id, t] : timers_)
        if (!next || t.due < *next) next = t.due;
    return next;
}

void MainQueue::cancel(TimerId id) {
    std::lock_guard lock(mutex_);
    timers_.erase(id);
}

bool MainQueue::hasTimer(TimerId id) const {
    std::lock_guard lock(mutex_);
    return timers_.contains(id);
}

void MainQueue::setClock(std::function<Clock::time_point()> now) {
    std::lock_guard lock(mutex_);
    clock_ = std::move(now);
}

MainQueue::Clock::time_point MainQueue::now() const {
    std::lock_guard lock(mutex_);
    return clock_ ? clock_() : Clock::now();
}

bool MainQueue::isMainThread() const {
    std::lock_guard lock(mutex_);
    return std::this_thread::get_id() == mainThread_;
}

// Runs one queued task, or else one due timer. Called and returns with the lock held.
bool MainQueue::runOne(std::unique_lock<std::mutex>& lock) {
    mainThread_ = std::this_thread::get_id();
    if (!tasks_.empty()) {
        auto node = tasks_.extract(tasks_.begin());
        lock.unlock();
        node.mapped()();
        lock.lock();
        return true;
    }
    auto now = clock_ ? clock_() : Clock::now();
    auto due = timers_.end();
    for (auto it = timers_.begin(); it != timers_.end(); ++it) {
        if (it->second.due <= now && (due == timers_.end() || it->second.due < due->second.due))
            due = it;
    }
    if (due == timers_.end()) return false;
    std::function<void()> fn;
    if (due->second.interval.count() == 0) {
        fn = std::move(due->second.fn);
        timers_.erase(due);
    } else {
        // Repeating timers skip the ticks they missed, as the platform's timers do.
        while (due->second.due <= now) due->second.due += due->second.interval;
        fn = due->second.fn;
    }
    lock.unlock();
    fn();
    lock.lock();
    return true;
}

std::size_t MainQueue::pump() {
    std::unique_lock lock(mutex_);
    std::size_t ran = 0;
    // Bounded so that a repeating timer under a frozen test clock cannot loop for ever.
    std::size_t limit = tasks_.size() + timers_.size() + 1024;
    while (ran < limit && runOne(lock)) ++ran;
    return ran;
}

void MainQueue::runUntil(const std::function<bool()>& done) {
    std::unique_lock lock(mutex_);
    while (true) {
        lock.unlock();
        if (done()) return;
        lock.lock();
        if (runOne(lock)) continue;
        if (clock_) {
            // A test clock does not move by itself; wait briefly for work from other threads.
            wake_.wait_for(lock, std::chrono::milliseconds(5));
            continue;
        }
        auto next = Clock::time_point::max();
        for (auto& [id, t] : timers_) next = std::min(next, t.due);
        if (next == Clock::time_point::max())
            wake_.wait_for(lock, std::chrono::milliseconds(50));
        else
            wake_.wait_until(lock, std::min(next, Clock::now() + std::chrono::milliseconds(50)));
    }
}

void MainQueue::runFor(std::chrono::nanoseconds duration) {
    auto end = Clock::now() + duration;
    runUntil([&] { return Clock::now() >= end; });
}

}  // namespace quillon
