#include "core/ClientExtras.h"

#include "core/StringUtils.h"

namespace quillon {

bool isSecretKey(std::string_view key) {
    std::string k = StringUtils::toLower(key);
    for (std::string_view word : {"password", "passphrase", "passwd", "token", "secret",
                                  "authorization", "credential", "private_key", "privatekey"})
        if (k.find(word) != std::string::npos) return true;
    return false;
}

}  // namespace quillon
