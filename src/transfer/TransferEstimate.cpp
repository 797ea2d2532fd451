#include "transfer/TransferEstimate.h"

#include <fmt/format.h>

#include <algorithm>

namespace quillon {

std::string formatBytes(std::int64_t bytes) {
    static const char* units[] = {"B", "kB", "MB", "GB", "TB"};
    double v = static_cast<double>(bytes);
    int unit = 0;
    while (v >= 1000.0 && unit < 4) {
        v /= 1000.0;
        ++unit;
    }
    if (unit == 0) return fmt::format("{} B", bytes);
    return fmt::format("{:.1f} {}", v, units[unit]);
}

std::string formatDuration(double seconds) {
    auto s = static_cast<long long>(std::max(0.0, seconds) + 0.5);
    if (s >= 3600) return fmt::format("{}:{:02}:{:02}", s / 3600, s / 60 % 60, s % 60);
    return fmt::format("{}:{:02}", s / 60, s % 60);
}

void RateEstimator::sample(std::int64_t done, Clock::time_point now) {
    samples_.emplace_back(now, done);
    while (samples_.size() > 2 && now - samples_.front().first > std::chrono::seconds(5))
        samples_.pop_front();
}

double RateEstimator::rate() const {
    if (samples_.size() < 2) return 0;
    auto& [t0, b0] = samples_.front();
    auto& [t1, b1] = samples_.back();
    double dt = std::chrono::duration<double>(t1 - t0).count();
    return dt > 0.05 ? static_cast<double>(b1 - b0) / dt : 0;
}

std::optional<double> RateEstimator::secondsLeft(std::int64_t done, std::int64_t total) const {
    double r = rate();
    if (r <= 0 || total <= done) return std::nullopt;
    return static_cast<double>(total - done) / r;
}

}  // namespace quillon
