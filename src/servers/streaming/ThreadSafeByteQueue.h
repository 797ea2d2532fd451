#pragma once
// ThreadSafeByteQueue: a bounded blocking byte pipe between a producing download and a consuming
// reader. A side that waits 30 seconds without the other moving cancels the pipe instead of
// blocking for ever.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <vector>

namespace quillon {

class ThreadSafeByteQueue {
  public:
    static constexpr std::size_t kMaxQueuedBytes = 262144;  // push waits while this much is held
    static constexpr std::chrono::seconds kStallLimit{30};

    // `stallLimit` replaces the 30 seconds for tests.
    explicit ThreadSafeByteQueue(std::chrono::milliseconds stallLimit = kStallLimit);
    ~ThreadSafeByteQueue();
    ThreadSafeByteQueue(const ThreadSafeByteQueue&) = delete;
    ThreadSafeByteQueue& operator=(const ThreadSafeByteQueue&) = delete;

    // Appends the bytes, first waiting while 256 KiB or more are queued. When the queue is still
    // full after the stall limit, it becomes cancelled and the bytes are dropped; a cancelled
    // queue drops them at once. True when the bytes were queued.
    bool push(const std::vector<std::uint8_t>& data);
    // Up to `maxLength` bytes from the front, first waiting while the queue is empty and more
    // data may come. Absent when the queue is empty and cancelled (also by a stall) or done
    // (setNoMoreDataFlag).
    std::optional<std::vector<std::uint8_t>> pop(std::size_t maxLength);
    std::size_t size() const;
    // The producer has pushed its last bytes.
    void setNoMoreDataFlag();
    // Sets both flags, wakes every waiter and empties the queue.
    void reset();
    bool cancelled() const;

  private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::uint8_t> bytes_;
    bool cancelled_ = false;
    bool nomoredata_ = false;
    std::chrono::milliseconds stallLimit_;
};

}  // namespace quillon
