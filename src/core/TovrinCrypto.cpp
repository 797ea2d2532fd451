#include "core/TovrinCrypto.h"

#include <openssl/evp.h>

#include <memory>

#include "core/Base64.h"

namespace quillon {

namespace {

constexpr const char* kKey = "QuillonKvCloud16";
constexpr const char* kIV = "QuillonServerIV1";

Error cryptoError(std::string_view what) {
    return KvError::errorWithDomain(ErrorDomain::Generic, -1, what);
}

Result<std::vector<std::uint8_t>> run(bool encrypt, const std::string& key, const std::string& iv,
                                      const std::vector<std::uint8_t>& in) {
    if (key.size() != 16 || iv.size() != 16)
        return std::unexpected(cryptoError("The cipher key and vector must be 16 bytes each."));
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        &EVP_CIPHER_CTX_free);
    if (!ctx) return std::unexpected(cryptoError("Cannot create a cipher context."));
    auto* k = reinterpret_cast<const unsigned char*>(key.data());
    auto* v = reinterpret_cast<const unsigned char*>(iv.data());
    if (EVP_CipherInit_ex(ctx.get(), EVP_aes_128_cbc(), nullptr, k, v, encrypt ? 1 : 0) != 1)
        return std::unexpected(cryptoError("Cannot set up the cipher."));
    EVP_CIPHER_CTX_set_padding(ctx.get(), 1);
    std::vector<std::uint8_t> out(in.size() + 16);
    int n1 = 0, n2 = 0;
    if (EVP_CipherUpdate(ctx.get(), out.data(), &n1, in.data(), static_cast<int>(in.size())) != 1)
        return std::unexpected(cryptoError(encrypt ? "Encryption failed." : "Decryption failed."));
    if (EVP_CipherFinal_ex(ctx.get(), out.data() + n1, &n2) != 1)
        return std::unexpected(cryptoError(encrypt ? "Encryption failed."
                                                   : "Decryption failed: wrong key or padding."));
    out.resize(static_cast<std::size_t>(n1 + n2));
    return out;
}

}  // namespace

TovrinCrypto::TovrinCrypto() : key(kKey), iv(kIV) {}

Result<std::vector<std::uint8_t>> TovrinCrypto::encryptData(
    const std::vector<std::uint8_t>& data) const {
    return run(true, key, iv, data);
}

Result<std::vector<std::uint8_t>> TovrinCrypto::decryptData(
    const std::vector<std::uint8_t>& data) const {
    return run(false, key, iv, data);
}

Result<std::string> TovrinCrypto::encryptString(std::string_view text) const {
    auto cipher = encryptData(std::vector<std::uint8_t>(text.begin(), text.end()));
    if (!cipher) return std::unexpected(cipher.error());
    return Base64::encode(*cipher, 64);
}

Result<std::string> TovrinCrypto::decryptString(std::string_view base64) const {
    auto bytes = Base64::decode(base64);
    if (!bytes) return std::unexpected(cryptoError("The cipher text is not Base64."));
    auto plain = decryptData(*bytes);
    if (!plain) return std::unexpected(plain.error());
    return std::string(plain->begin(), plain->end());
}

}  // namespace quillon
