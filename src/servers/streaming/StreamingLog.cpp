#include "servers/streaming/StreamingLog.h"

#include <mutex>

namespace quillon::StreamingLog {

namespace {
std::mutex& mutex() {
    static std::mutex m;
    return m;
}
std::function<void(const std::string&)>& handler() {
    static std::function<void(const std::string&)> h;
    return h;
}
}  // namespace

void setHandler(std::function<void(const std::string&)> h) {
    std::lock_guard lock(mutex());
    handler() = std::move(h);
}

void log(const std::string& line) {
    std::lock_guard lock(mutex());
    if (handler()) handler()(line);
}

}  // namespace quillon::StreamingLog
