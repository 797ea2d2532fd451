#include "nearby/NearbyTransferMetadata.h"

#include <charconv>
#include <vector>

namespace quillon::NearbyProtocol {

std::string storeCommand(const NearbyTransferMetadata& meta) {
    long long millis = 0;
    if (meta.lastModified) {
        // Whole seconds (truncated toward zero) times 1000: the millisecond part is always 000.
        auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>(meta.lastModified->time_since_epoch());
        millis = static_cast<long long>(seconds.count()) * 1000;
    }
    std::string command(STORE);
    command += ' ';
    command += std::to_string(static_cast<long long>(meta.fileSize)) + ' ';
    command += std::to_string(millis) + ' ';
    command += meta.name;
    return command;
}

namespace {
std::optional<std::int64_t> decimal(std::string_view text) {
    std::int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
    return value;
}
}  // namespace

std::optional<NearbyTransferMetadata> parseStoreCommand(std::string_view command) {
    std::vector<std::string_view> parts;
    std::size_t start = 0;
    while (true) {
        auto blank = command.find(' ', start);
        parts.push_back(command.substr(
            start, blank == std::string_view::npos ? std::string_view::npos : blank - start));
        if (blank == std::string_view::npos) break;
        start = blank + 1;
    }
    if (parts.size() < 4) return std::nullopt;
    auto size = decimal(parts[1]);
    auto millis = decimal(parts[2]);
    if (!size || !millis) return std::nullopt;
    NearbyTransferMetadata meta;
    meta.fileSize = *size;
    if (*millis > 0)
        meta.lastModified =
            std::chrono::system_clock::time_point(std::chrono::seconds(*millis / 1000));
    // Everything after the third blank is the name, blanks and all.
    std::size_t nameStart = parts[0].size() + parts[1].size() + parts[2].size() + 3;
    meta.name = std::string(command.substr(nameStart));
    return meta;
}

}  // namespace quillon::NearbyProtocol
