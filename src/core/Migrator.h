#pragma once
// Migrator: the data migrations of earlier versions, each run once per installation.

#include <functional>
#include <optional>
#include <string>

#include "core/Error.h"
#include "core/Plist.h"

namespace quillon {

inline constexpr std::string_view MIGRATED_TO_VERSION_3_0 = "MIGRATED_TO_VERSION_3_0";
inline constexpr std::string_view kKeychainServerIDPrefix = "Kv_KEYCHAIN_ServerID_";

// Reads the sign-in object kept in the keychain under an item name; absent when there is none.
using KeychainLookup = std::function<std::optional<PlistValue>(const std::string& itemName)>;

class Migrator {
  public:
    // `keychain` absent: no keychain is available and no sign-in object is found.
    explicit Migrator(KeychainLookup keychain = {});

    // Runs every migration step.
    [[nodiscard]] Status migrate();
    // Moves Google Drive sign-ins from the keychain into "GoogleAuthorizationData"; marked done
    // in the user defaults before any record is touched, so it never runs twice.
    [[nodiscard]] Status migrateToVersion_3_0();

  private:
    KeychainLookup keychain_;
};

}  // namespace quillon
