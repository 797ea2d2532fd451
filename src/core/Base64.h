#pragma once
// Base64 through OpenSSL.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillon::Base64 {
// Base64 text; with lineLength > 0 a line break follows every lineLength characters (not after
// the last line).
std::string encode(const std::uint8_t* data, std::size_t size, std::size_t lineLength = 0);
inline std::string encode(const std::vector<std::uint8_t>& d, std::size_t lineLength = 0) {
    return encode(d.data(), d.size(), lineLength);
}
// Bytes of Base64 text (white space ignored), or absent when it is not Base64.
std::optional<std::vector<std::uint8_t>> decode(std::string_view text);
}  // namespace quillon::Base64
