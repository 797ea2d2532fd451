#include "app/cli/Json.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <ctime>

namespace quillon::cli {

std::string jsonString(std::string_view s) {
    std::string out;
    out.reserve(s.size() + 2);
    out += '"';
    for (std::size_t i = 0; i < s.size(); ++i) {
        auto c = static_cast<unsigned char>(s[i]);
        switch (c) {
            case '"':
                out += "\\\"";
                continue;
            case '\\':
                out += "\\\\";
                continue;
            case '\n':
                out += "\\n";
                continue;
            case '\r':
                out += "\\r";
                continue;
            case '\t':
                out += "\\t";
                continue;
            default:
                break;
        }
        if (c < 0x20) {
            out += fmt::format("\\u{:04x}", c);
            continue;
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
            continue;
        }
        // Copy a well-formed UTF-8 sequence; replace anything else.
        int len = (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        bool ok = len > 0 && i + static_cast<std::size_t>(len) <= s.size();
        for (int k = 1; ok && k < len; ++k)
            ok = (static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]) >> 6) == 0x2;
        if (ok) {
            out.append(s.substr(i, static_cast<std::size_t>(len)));
            i += static_cast<std::size_t>(len) - 1;
        } else {
            out += "\xEF\xBF\xBD";
        }
    }
    out += '"';
    return out;
}

std::string errorJson(const Error& error) {
    auto optional = [](const std::string& s) { return s.empty() ? "null" : jsonString(s); };
    return fmt::format(
        "{{\"domain\":{},\"code\":{},\"reason\":{},\"item\":{},\"serverReply\":{},\"message\":{}}}",
        jsonString(error.domain), error.code, jsonString(error.reason), optional(error.item),
        optional(error.serverReply), jsonString(error.describe()));
}

std::string jsonTime(const std::optional<std::chrono::system_clock::time_point>& t) {
    if (!t) return "null";
    // fmt formats a time point in the local zone: the "Z" needs the UTC calendar time.
    std::time_t secs =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(*t));
    std::tm utc{};
    ::gmtime_r(&secs, &utc);
    return fmt::format("\"{:%Y-%m-%dT%H:%M:%SZ}\"", utc);
}

}  // namespace quillon::cli
