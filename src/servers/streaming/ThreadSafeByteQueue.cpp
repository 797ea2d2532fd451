#include "servers/streaming/ThreadSafeByteQueue.h"

namespace quillon {

ThreadSafeByteQueue::ThreadSafeByteQueue(std::chrono::milliseconds stallLimit)
    : stallLimit_(stallLimit) {}

ThreadSafeByteQueue::~ThreadSafeByteQueue() {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
    cv_.notify_all();
}

bool ThreadSafeByteQueue::push(const std::vector<std::uint8_t>& data) {
    std::unique_lock lock(mutex_);
    auto deadline = std::chrono::steady_clock::now() + stallLimit_;
    bool room = cv_.wait_until(lock, deadline,
                               [&] { return cancelled_ || bytes_.size() < kMaxQueuedBytes; });
    if (!room) {
        // The reader has not taken anything for the whole limit: give up rather than block.
        cancelled_ = true;
        cv_.notify_all();
        return false;
    }
    if (cancelled_) return false;
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    cv_.notify_all();
    return true;
}

std::optional<std::vector<std::uint8_t>> ThreadSafeByteQueue::pop(std::size_t maxLength) {
    std::unique_lock lock(mutex_);
    auto deadline = std::chrono::steady_clock::now() + stallLimit_;
    bool ready = cv_.wait_until(lock, deadline,
                                [&] { return cancelled_ || !bytes_.empty() || nomoredata_; });
    if (!ready) {
        cancelled_ = true;
        cv_.notify_all();
        return std::nullopt;
    }
    // What was queued before a cancellation is still handed out.
    if (bytes_.empty()) return std::nullopt;
    std::size_t n = std::min(maxLength, bytes_.size());
    std::vector<std::uint8_t> out(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(n));
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(n));
    cv_.notify_all();
    return out;
}

std::size_t ThreadSafeByteQueue::size() const {
    std::lock_guard lock(mutex_);
    return bytes_.size();
}

void ThreadSafeByteQueue::setNoMoreDataFlag() {
    std::lock_guard lock(mutex_);
    nomoredata_ = true;
    cv_.notify_all();
}

void ThreadSafeByteQueue::reset() {
    std::lock_guard lock(mutex_);
    cancelled_ = true;
    nomoredata_ = true;
    bytes_.clear();
    cv_.notify_all();
}

bool ThreadSafeByteQueue::cancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

}  // namespace quillon
