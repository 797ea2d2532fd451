#pragma once
// ServerInfoService: the configured servers, kept in "db.sqlite" (server_info and server_props),
// the mounted local volumes, and the mirror of the records in the cloud key-value store.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/Plist.h"
#include "core/ServerInfo.h"

namespace quillon {

class CloudKeyValueStore;

// Kinds of local volume, as bits of ServerInfo::volumeType.
namespace VolumeType {
inline constexpr std::uint64_t Local = 1;
inline constexpr std::uint64_t Removable = 2;
inline constexpr std::uint64_t Network = 4;
inline constexpr std::uint64_t ReadOnly = 8;
}  // namespace VolumeType

// Operating systems of a server, kept as an integer under "SERVER_TYPE".
namespace ServerOSType {
inline constexpr long Unknown = 0;
inline constexpr long Windows = 1;
inline constexpr long Linux = 2;
inline constexpr long Apple = 3;
inline constexpr long Darwin = 4;
inline constexpr long WDNAS = 5;
inline constexpr long ToshibaNAS = 6;
}  // namespace ServerOSType

class ServerInfoService {
  public:
    static ServerInfoService& sharedServerInfoService();

    std::vector<ServerInfo> remoteServerInfos();
    std::vector<ServerInfo> serverInfosWithProtocolType(std::int32_t protocolType);
    std::optional<ServerInfo> serverInfoWithServerID(const std::string& serverID);
    Status saveServerInfo(ServerInfo& info);
    Status updateServerInfo(ServerInfo& info);
    Status updateSortID(const ServerInfo& info);
    Status deleteServerInfo(const ServerInfo& info);
    Status saveOrUpdateServerInfo(ServerInfo& info);

    // One record per mounted real file system, "/" first.
    std::vector<ServerInfo> localServerInfos();
    ServerInfo rootLocalServerInfo();
    std::vector<ServerInfo> allServerInfos();
    // Orders records for the server list by "CONNECTION_SORT_ID" (natural, case-insensitive);
    // records lacking it compare equal.
    static void sortConnections(std::vector<ServerInfo>& infos);
    // Remote records that are not quick connections.
    std::vector<ServerInfo> serverInfosForSync();

    void setDisableUpdateCloud(bool disable);
    bool disableUpdateCloud() const;

    // Saves or updates the record as it is: no stamp, no cloud mirroring (for records that come
    // from the cloud).
    Status storeServerInfo(const ServerInfo& info);

    // Cloud mirroring of server records (the store is absent until the application sets one).
    void setCloudStore(std::shared_ptr<CloudKeyValueStore> store);
    std::shared_ptr<CloudKeyValueStore> cloudStore() const;
    // Mirrors a changed or deleted record to the cloud store under "S2-<serverID>".
    void uploadServerInfoToCloud(const ServerInfo& info, bool isDel);
    // Merges the cloud copies of the changed keys ("S2-..."; empty: all) into the local records,
    // the newer "SI_LAST_UPDATE" stamp winning.
    void syncServerInfoWithChangedIds(const std::vector<std::string>& changedKeys);
    // Stamps "SI_LAST_UPDATE" with the current time.
    static void tickForServerInfo(ServerInfo& info);

    // Cloud key of a record: "S2-" followed by the serverID.
    static std::string cloudKeyForServerInfo(const ServerInfo& info);
    // Property names and values of the cloud copy; "REMEMBER PASSWORD" is "YES" when the record
    // has none.
    static std::map<std::string, std::string> translatePropsToCloud(
        const std::map<std::string, std::string>& props, const ServerInfo& serverInfo);
    // The reverse of translatePropsToCloud, into serverInfo.props.
    static void translatePropsFromCloud(const std::map<std::string, std::string>& cloudProps,
                                        ServerInfo& serverInfo);
    // "WDNAS", "ToshibaNAS", "Apple", "Linux", "Windows", "Darwin" or "Unknown".
    static std::string serverTypeToCloud(long serverType);
    static long serverTypeFromCloud(std::string_view name);
    // The cloud dictionary of a record: no session-only properties, the password enciphered
    // under "PW_ENCRYPTED", "SID", "SIN" and "SIP" added, names translated.
    static PlistDict cloudDictionaryForServerInfo(const ServerInfo& info);
    // The record of a cloud dictionary; absent when "SID", "SIN" or "SIP" is missing.
    static std::optional<ServerInfo> serverInfoFromCloudDictionary(const PlistDict& dict);

    // What merging cloud copies into the local records decided.
    struct SyncPlan {
        std::vector<ServerInfo> toStore;   // cloud copies to keep locally, as they are
        std::vector<ServerInfo> toDelete;  // local records whose cloud copy was removed
        std::vector<ServerInfo> toUpload;  // local records newer than their cloud copy, or absent
    };
    // Merges by "SI_LAST_UPDATE": the strictly newer side wins, equal stamps change nothing; a
    // cloud entry of absent means removed from the cloud, which deletes the local record; a full
    // pass also uploads the local records the cloud does not have. `cloud` maps serverID to the
    // cloud copy.
    static SyncPlan syncServerInfoWithLocal(
        const std::vector<ServerInfo>& local,
        const std::map<std::string, std::optional<ServerInfo>>& cloud, bool fullPass);

    // Parses /proc/self/mountinfo text into local volume records (for tests).
    static std::vector<ServerInfo> localServerInfosFromMountInfo(const std::string& mountinfo);

  private:
    ServerInfoService() = default;
    Result<std::vector<ServerInfo>> loadRecords(const std::string& sql,
                                                const std::vector<std::string>& params);
    Status insertProps(const ServerInfo& info);
    // The record and its properties in one transaction: an UPDATE of the row and its properties
    // replaced when it `exists`, an INSERT otherwise.
    Status writeRecord(const ServerInfo& info, bool exists);

    mutable std::mutex mutex_;
    bool disableUpdateCloud_ = false;
    std::shared_ptr<CloudKeyValueStore> cloudStore_;
};

}  // namespace quillon
