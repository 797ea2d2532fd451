#pragma once
// TovrinCrypto: the symmetric cipher of the cloud copy of passwords: AES-128 in CBC mode with
// PKCS#7 padding, under a key and initialisation vector fixed in the program (the same on every
// installation that shares a cloud store).

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"

namespace quillon {

class TovrinCrypto {
  public:
    static constexpr int kAlgorithmAES = 0;
    static constexpr int kOptionPKCS7Padding = 1;

    int algo = kAlgorithmAES;
    int opts = kOptionPKCS7Padding;
    std::string key;  // 16 characters
    std::string iv;   // 16 characters

    // AES with PKCS#7 padding in CBC mode under the program's fixed key and vector.
    TovrinCrypto();

    // The enciphered UTF-8 bytes of `text` as Base64 with a line break every 64 characters.
    [[nodiscard]] Result<std::string> encryptString(std::string_view text) const;
    // The text of a Base64 cipher text made by encryptString; fails on bad Base64 or padding.
    [[nodiscard]] Result<std::string> decryptString(std::string_view base64) const;
    [[nodiscard]] Result<std::vector<std::uint8_t>> encryptData(
        const std::vector<std::uint8_t>& data) const;
    [[nodiscard]] Result<std::vector<std::uint8_t>> decryptData(
        const std::vector<std::uint8_t>& data) const;
};

}  // namespace quillon
