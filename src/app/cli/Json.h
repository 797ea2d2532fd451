#pragma once
// Small helpers for the JSON the command line prints.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"

namespace quillon::cli {

// A JSON string literal, quotes included; invalid UTF-8 bytes become U+FFFD.
std::string jsonString(std::string_view s);
// A JSON string, or null when absent.
inline std::string jsonOptString(const std::optional<std::string>& s) {
    return s ? jsonString(*s) : std::string("null");
}
// {"domain","code","reason","item","serverReply","message"}: the message as a person reads it,
// and its parts for scripts (item and serverReply null when unknown).
std::string errorJson(const Error& error);
// ISO 8601 UTC time, or null.
std::string jsonTime(const std::optional<std::chrono::system_clock::time_point>& t);

}  // namespace quillon::cli
