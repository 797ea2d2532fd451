#pragma once
// The debug lines of the streaming cache and servers go to one handler the program sets (the
// command line prints them on request; tests collect them). Without a handler they are dropped.

#include <functional>
#include <string>

namespace quillon::StreamingLog {

void setHandler(std::function<void(const std::string&)> handler);
void log(const std::string& line);

}  // namespace quillon::StreamingLog
