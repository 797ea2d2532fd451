#pragma once
// The main thread's serial queue with one-shot and repeating timers. The command line runs it
// until its command is done; a window toolkit pumps it from its own loop; tests pump it.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

namespace quillon {

class MainQueue {
  public:
    using Clock = std::chrono::steady_clock;
    using TimerId = std::uint64_t;

    static MainQueue& shared();

    // Queues `fn` to run on the main thread, after everything queued before it.
    void post(std::function<void()> fn);
    // Runs `fn` on the main thread once `delay` has passed.
    TimerId postAfter(std::chrono::nanoseconds delay, std::function<void()> fn);
    // Runs `fn` every `interval` until cancelled.
    TimerId scheduleRepeating(std::chrono::nanoseconds interval, std::function<void()> fn);
    // Stops a timer; a timer that already fired (one-shot) or is unknown is ignored.
    void cancel(TimerId id);
    bool hasTimer(TimerId id) const;

    // Runs every task and every due timer now, without waiting; returns how many ran.
    std::size_t pump();
    // Runs tasks and timers, waiting for them, until `done()` is true (checked after each one).
    void runUntil(const std::function<bool()>& done);
    // Runs tasks and timers for `duration` of real time.
    void runFor(std::chrono::nanoseconds duration);

    // The thread that ran the queue last (or created it); true there.
    bool isMainThread() const;

    // A toolkit's event loop that runs the queue is told here, on the posting thread, whenever a
    // task is queued or a timer set, so that it can wake up and pump. Empty: nobody is told.
    void setWakeup(std::function<void()> wakeup);
    // When the earliest timer is due; absent when there is none.
    std::optional<Clock::time_point> nextTimerDue() const;

    // Tests replace the clock to drive timers without waiting; the default is steady_clock.
    void setClock(std::function<Clock::time_point()> now);
    Clock::time_point now() const;

  private:
    MainQueue();
    struct Timer {
        Clock::time_point due;
        std::chrono::nanoseconds interval{0};  // zero for one-shot timers
        std::function<void()> fn;
    };
    bool runOne(std::unique_lock<std::mutex>& lock);
    void notifyWakeup();

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::multimap<std::uint64_t, std::function<void()>> tasks_;  // keyed by sequence number
    std::map<TimerId, Timer> timers_;
    std::uint64_t nextSeq_ = 1;
    TimerId nextTimer_ = 1;
    std::thread::id mainThread_;
    std::function<Clock::time_point()> clock_;
    std::mutex wakeupMutex_;  // held while the hook runs, so that clearing it waits for callers
    std::function<void()> wakeup_;
};

}  // namespace quillon
