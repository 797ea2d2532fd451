#pragma once
// ServerInfoService: the configured servers, kept in "db.sqlite" (server_info and server_props),
// the mounted local volumes, and the mirror of the records in the cloud key-value store.

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/ServerInfo.h"

namespace quillon {

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

private:
    ServerInfoService() = default;
    mutable std::mutex mutex_;
    bool disableUpdateCloud_ = false;
};

}  // namespace quillon
