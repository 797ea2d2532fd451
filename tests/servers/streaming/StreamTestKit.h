#pragma once
// Shared by the streaming tests: files of a known byte pattern, the streaming debug lines, and
// HTTP requests made with the curl program.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "servers/streaming/StreamingLog.h"
#include "support/TestEnv.h"

namespace quillon::test {

// The byte at `offset` of every test file: no two nearby offsets agree, so a read from the wrong
// place shows.
inline std::vector<std::uint8_t> patternBytes(std::uint64_t offset, std::uint64_t size) {
    std::vector<std::uint8_t> out(size);
    for (std::uint64_t i = 0; i < size; ++i) {
        std::uint64_t at = offset + i;
        std::uint64_t word = (at / 8 + 1) * 0x9E3779B97F4A7C15ULL;
        out[i] = static_cast<std::uint8_t>(word >> (8 * (at % 8)));
    }
    return out;
}
inline std::string patternString(std::uint64_t offset, std::uint64_t size) {
    auto bytes = patternBytes(offset, size);
    return std::string(bytes.begin(), bytes.end());
}

// Collects the streaming debug lines while it lives.
class LogCapture {
  public:
    LogCapture() {
        StreamingLog::setHandler([this](const std::string& line) {
            std::lock_guard lock(mutex_);
            lines_.push_back(line);
        });
    }
    ~LogCapture() { StreamingLog::setHandler(nullptr); }
    bool has(const std::string& line) const {
        std::lock_guard lock(mutex_);
        return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

struct HttpReply {
    int status = 0;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    int curlExit = -1;
};

// GET with the curl program; `extra` are further curl arguments (a Range header, --range).
inline HttpReply httpGet(const std::string& url, std::vector<std::string> extra = {}) {
    ScratchDir dir("http");
    std::vector<std::string> argv{"curl", "-s",      "--max-time", "120",
                                  "-D",   dir / "h", "-o",         dir / "b"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    argv.push_back(url);
    HttpReply reply;
    reply.curlExit = runProgram(argv).exitCode;
    reply.body = readFile(dir / "b");
    std::smatch m;
    std::string head = readFile(dir / "h");
    if (std::regex_search(head, m, std::regex(R"(HTTP/1\.[01] (\d{3}))")))
        reply.status = std::stoi(m[1]);
    std::regex line(R"(([A-Za-z-]+): ([^\r\n]*)\r?\n)");
    for (std::sregex_iterator it(head.begin(), head.end(), line), end; it != end; ++it) {
        std::string name = (*it)[1];
        std::transform(name.begin(), name.end(), name.begin(), ::tolower);
        reply.headers[name] = (*it)[2];
    }
    return reply;
}

}  // namespace quillon::test
