#pragma once
// Running work on the background queue and hopping back to the main thread.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

namespace quillon {

// A counting semaphore whose signal can release every waiter at once.
class Semaphore {
  public:
    // Signals once; true when the signal woke a waiting thread.
    bool signal();
    // Waits for a signal; false on time-out.
    bool wait(std::chrono::nanoseconds timeout);
    int waiters() const;

  private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    long value_ = 0;
    int waiting_ = 0;
    int woken_ = 0;  // waiters released by a signal and not yet gone
};
using SemaphorePtr = std::shared_ptr<Semaphore>;

namespace GCD {
// Runs `block` on the global background queue, whose threads grow with the work (a blocked
// task never keeps another from starting) and end when idle.
void doInBackground(std::function<void()> block);
// Runs `block` on the main queue.
void doInForeground(std::function<void()> block);
// Runs `block` on the main queue after `seconds`.
void doInForeground(std::function<void()> block, double afterSeconds);
// The flag is taken by value: true runs the block on the main queue at once; false leaves a
// background task sleeping in 1-second steps for ever and the block never runs.
void doInForegroundWhen(std::function<void()> block, bool flag);
// Loops for ever on a background task: run the block on the main queue, sleep the whole seconds
// of `seconds`.
void doInForegroundEvery(std::function<void()> block, double seconds);
// The same loop, running the block on the background task itself.
void doInBackgroundEvery(std::function<void()> block, double seconds);
// Runs the block at most once per process through one once-token shared by every caller: only
// the first block ever passed runs.
void doOnce(const std::function<void()>& block);

SemaphorePtr initSema();
// Waits until signalled or `seconds` passed; an absent semaphore returns at once. True when
// signalled.
bool waitSema(const SemaphorePtr& sema, double seconds);
// Signals until a signal wakes no waiter, so every thread waiting now is released.
void signalSema(const SemaphorePtr& sema);

// Threads of the background queue alive now (for tests).
int backgroundThreadCount();
}  // namespace GCD

}  // namespace quillon
