#pragma once
// SyncInfo: one sync pair, a folder on a configured server tied to a local folder under the
// program's sync base folder. Stored in "db.sqlite" (sync_info and sync_info_props).

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "core/KvMetadata.h"
#include "core/ServerInfo.h"

namespace quillon {

// Values of SyncInfo::status. Running is the one value every sync sets while it works; the
// others are this program's choice and mirror the end states of a transfer task.
namespace SyncStatus {
inline constexpr std::int32_t NeverSynced = 0;  // a new pair
inline constexpr std::int32_t Succeeded = 1;    // the last sync completed
inline constexpr std::int32_t Running = 2;      // a sync is running (or was killed while running)
inline constexpr std::int32_t Stopped = 3;      // the last sync was cancelled
inline constexpr std::int32_t Failed = 4;       // the last sync ended with an error
}  // namespace SyncStatus

// "never", "ok", "running", "stopped", "failed" ("unknown" for any other value).
std::string_view syncStatusName(std::int32_t status);

class SyncInfo {
  public:
    std::int64_t syncInfoID = 0;
    // The pair's server; absent when no configured server has the stored id any more.
    ServerInfoPtr serverInfo;
    // The stored server id (kept even when the server is gone).
    std::string serverUUID;
    std::optional<TimePoint> lastSyncDate;
    std::int32_t status = SyncStatus::NeverSynced;
    std::map<std::string, std::string> props;
    // The local folder: the stored name, its path under the sync base folder.
    KvMetadata localFolderMeta;
    // The remote folder: name and path as stored, the pair's server id.
    KvMetadata remoteFolderMeta;

    // The property, or absent.
    std::optional<std::string> valueForKey(std::string_view key) const;
    void setValue(const std::string& value, std::string_view key);
    void removeObjectForKey(std::string_view key);

    // Whether a stored local name names one folder right under the sync base folder: not empty,
    // not "." or "..", without "/" or NUL. A name read from the database that is not is refused.
    static bool isSafeLocalName(std::string_view name);
    // Whether the pair's local name is safe; a pair whose name is not is never run.
    bool hasSafeLocalName() const { return isSafeLocalName(localFolderMeta.nameOrEmpty()); }

    // The local folder record for a stored name: a local folder at the name's place under the
    // sync base folder (the folder is not created here). An unsafe name gets a record with the
    // name and no path, so that nothing acts on a place outside the base folder.
    static KvMetadata localFolderMetaForName(const std::string& name);
    // The remote folder record for a stored name and path on a server.
    static KvMetadata remoteFolderMetaFor(const std::string& name, const std::string& path,
                                          const std::string& serverUUID, std::int32_t protocolType,
                                          const std::optional<std::string>& sharedDriveID);
};

}  // namespace quillon
