#include "core/Base64.h"

#include <openssl/evp.h>

namespace quillon::Base64 {

std::string encode(const std::uint8_t* data, std::size_t size, std::size_t lineLength) {
    std::string out(4 * ((size + 2) / 3) + 1, '\0');
    int n = size ? EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()), data,
                                   static_cast<int>(size))
                 : 0;
    out.resize(static_cast<std::size_t>(n));
    if (lineLength == 0 || out.size() <= lineLength) return out;
    std::string wrapped;
    for (std::size_t i = 0; i < out.size(); i += lineLength) {
        if (i) wrapped += '\n';
        wrapped.append(out, i, lineLength);
    }
    return wrapped;
}

std::optional<std::vector<std::uint8_t>> decode(std::string_view text) {
    std::string clean;
    for (char c : text)
        if (c != ' ' && c != '\n' && c != '\r' && c != '\t') clean += c;
    if (clean.size() % 4 != 0) return std::nullopt;
    std::vector<std::uint8_t> out(clean.size() / 4 * 3 + 1);
    if (clean.empty()) return std::vector<std::uint8_t>{};
    int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(clean.data()),
                            static_cast<int>(clean.size()));
    if (n < 0) return std::nullopt;
    // EVP_DecodeBlock counts the padding as zero bytes; drop them.
    std::size_t pad = 0;
    if (clean.ends_with("=="))
        pad = 2;
    else if (clean.ends_with("="))
        pad = 1;
    out.resize(static_cast<std::size_t>(n) - pad);
    return out;
}

}  // namespace quillon::Base64
