#pragma once
// ServerInfoService: the configured servers, kept in "db.sqlite" (server_info and server_props),
// the mounted local volumes, and the mirror of the records in the cloud key-value store.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
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

    // Parses /proc/self/mountinfo text into local volume records (for tests).
    static std::vector<ServerInfo> localServerInfosFromMountInfo(const std::string& mountinfo);

private:
    ServerInfoService() = default;
    Result<std::vector<ServerInfo>> loadRecords(const std::string& sql,
                                                const std::vector<std::string>& params);
    Status insertProps(const ServerInfo& info);

    mutable std::mutex mutex_;
    bool disableUpdateCloud_ = false;
    std::shared_ptr<CloudKeyValueStore> cloudStore_;
};

}  // namespace quillon
