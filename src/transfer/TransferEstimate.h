#pragma once
// The figures a transfer list shows beside a running transfer: its rate over the last seconds,
// the time left at that rate, and byte counts and durations as text. Every face (the command
// line's progress lines, a window's transfer list) shows the same figures.

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>

namespace quillon {

// "1.5 MB", "730 B" (decimal units, as file managers show them).
std::string formatBytes(std::int64_t bytes);
// "m:ss", or "h:mm:ss" from an hour on.
std::string formatDuration(double seconds);

// The rate of one transfer from samples of its bytes done; the last five seconds count.
class RateEstimator {
  public:
    using Clock = std::chrono::steady_clock;

    // Adds a sample of the bytes done at `now`.
    void sample(std::int64_t done, Clock::time_point now = Clock::now());
    // Forgets every sample (another file starts).
    void reset() { samples_.clear(); }
    bool hasSamples() const { return !samples_.empty(); }
    // Bytes per second over the samples (0: not known yet).
    double rate() const;
    // Seconds left for `total - done` bytes at the rate; none when the rate or the rest is unknown.
    std::optional<double> secondsLeft(std::int64_t done, std::int64_t total) const;

  private:
    std::deque<std::pair<Clock::time_point, std::int64_t>> samples_;
};

}  // namespace quillon
