#include "core/Migrator.h"

#include <fmt/format.h>

#include "core/Base64.h"
#include "core/ServerInfoService.h"
#include "core/UserDefaults.h"

namespace quillon {

Migrator::Migrator(KeychainLookup keychain) : keychain_(std::move(keychain)) {}

Status Migrator::migrate() {
    return migrateToVersion_3_0();
}

Status Migrator::migrateToVersion_3_0() {
    auto defaults = UserDefaults::standardUserDefaults();
    if (defaults.objectForKey(MIGRATED_TO_VERSION_3_0)) return {};
    defaults.setObject(PlistValue(true), MIGRATED_TO_VERSION_3_0);
    // Without the mark on disk the step could run again at the next launch; do not start it.
    if (auto r = defaults.synchronize(); !r) return r;

    auto& service = ServerInfoService::sharedServerInfoService();
    service.setDisableUpdateCloud(true);
    Status result;
    for (auto& info : service.serverInfosWithProtocolType(ProtocolType::GoogleDrive)) {
        if (info.valueForKey(ServerProp::GoogleAuthorizationData)) continue;
        if (!keychain_) continue;
        auto signIn = keychain_(std::string(kKeychainServerIDPrefix) + info.serverID);
        if (!signIn) continue;
        std::string archived = Plist::toXml(*signIn);
        info.setValue(Base64::encode(reinterpret_cast<const std::uint8_t*>(archived.data()),
                                     archived.size(), 64),
                      ServerProp::GoogleAuthorizationData);
        if (auto r = service.updateServerInfo(info); !r && result) result = r;
    }
    service.setDisableUpdateCloud(false);
    return result;
}

}  // namespace quillon
