#pragma once
// Optional abilities a storage client may have beyond the Wrapper contract. A client that has
// one also derives from its interface; callers test with dynamic_cast.

#include <string>
#include <string_view>

#include "core/Error.h"
#include "core/KvMetadata.h"

namespace quillon {

// Reads symbolic links.
class LinkReader {
  public:
    virtual ~LinkReader() = default;
    // What the link holds, as the link itself holds it (not resolved).
    [[nodiscard]] virtual Result<std::string> linkTextSync(const KvMetadata& link) = 0;
};

// Makes symbolic links.
class LinkMaker {
  public:
    virtual ~LinkMaker() = default;
    // Creates a symbolic link at `link`'s path holding `target`; an item already there fails it.
    [[nodiscard]] virtual Status makeLinkSync(const KvMetadata& link,
                                              const std::string& target) = 0;
};

// Knows the folder a login lands in.
class LoginFolder {
  public:
    virtual ~LoginFolder() = default;
    // The absolute path of that folder.
    [[nodiscard]] virtual Result<std::string> loginFolderSync() = 0;
};

// Whether a setting or server property of that name holds a secret (a password, passphrase,
// token or key), which is never shown.
bool isSecretKey(std::string_view key);

}  // namespace quillon
