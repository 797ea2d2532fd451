#include "sync/SyncInfoService.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>

#include "core/ServerInfoService.h"
#include "core/StringUtils.h"
#include "sync/SyncDBManager.h"
#include "sync/SyncUtils.h"

namespace quillon {

namespace {

constexpr const char* kSelectAll =
    "SELECT id, server_uuid, last_sync_time, sync_status, local_folder_name, remote_folder_name, "
    "remote_folder_path FROM sync_info";
constexpr const char* kSelectOne =
    "SELECT id, server_uuid, last_sync_time, sync_status, local_folder_name, remote_folder_name, "
    "remote_folder_path FROM sync_info WHERE server_uuid=? AND remote_folder_path=?";
constexpr const char* kSelectProps = "SELECT key, value FROM sync_info_props WHERE sync_info_id=?";
constexpr const char* kGoogleShareDriveID = "GOOGLE_SHARE_DRIVE_ID";

SqlValue dateValue(const std::optional<TimePoint>& t) {
    if (!t) return nullptr;
    return std::chrono::duration<double>(t->time_since_epoch()).count();
}

std::optional<TimePoint> dateFrom(const SqlValue& v) {
    if (std::holds_alternative<std::nullptr_t>(v)) return std::nullopt;
    auto secs = std::chrono::duration<double>(sqlReal(v));
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(secs));
}

}  // namespace

SyncInfoService& SyncInfoService::sharedInstance() {
    static SyncInfoService shared(DBManager::sharedDBManager());
    return shared;
}

SyncInfoService::SyncInfoService(DBManager& db) : db_(db) {}

std::vector<SyncInfo> SyncInfoService::load(const std::string& sql,
                                            const std::vector<SqlValue>& params) {
    std::vector<SyncInfo> result;
    auto rows = db_.query(sql, params);
    if (!rows) return result;
    std::vector<ServerInfo> servers;
    bool serversLoaded = false;
    for (auto& r : *rows) {
        SyncInfo info;
        info.syncInfoID = sqlInt(r[0]);
        info.serverUUID = sqlText(r[1]);
        info.lastSyncDate = dateFrom(r[2]);
        info.status = static_cast<std::int32_t>(sqlInt(r[3]));
        std::string localName = sqlText(r[4]);
        std::string remoteName = sqlText(r[5]);
        std::string remotePath = sqlText(r[6]);
        if (auto props = db_.query(kSelectProps, {info.syncInfoID}))
            for (auto& p : *props) info.props[sqlText(p[0])] = sqlText(p[1]);
        if (!serversLoaded) {
            servers = ServerInfoService::sharedServerInfoService().allServerInfos();
            serversLoaded = true;
        }
        for (auto& s : servers)
            if (s.serverID == info.serverUUID) {
                info.serverInfo = std::make_shared<ServerInfo>(s);
                break;
            }
        info.localFolderMeta = SyncInfo::localFolderMetaForName(localName);
        info.remoteFolderMeta =
            SyncInfo::remoteFolderMetaFor(remoteName, remotePath, info.serverUUID,
                                          info.serverInfo ? info.serverInfo->protocolType : 0,
                                          info.valueForKey(kGoogleShareDriveID));
        result.push_back(std::move(info));
    }
    return result;
}

std::optional<SyncInfo> SyncInfoService::getSyncInfo(const ServerInfo& server,
                                                     const KvMetadata& remoteFolder) {
    auto found = load(kSelectOne, {server.serverID, SyncUtils::getFullPath(remoteFolder)});
    if (found.empty()) return std::nullopt;
    return found.front();
}

std::vector<SyncInfo> SyncInfoService::getAllSyncInfo() {
    return load(kSelectAll, {});
}

std::vector<SyncInfo> SyncInfoService::pairsUsingServer(const std::string& serverID) {
    auto all = getAllSyncInfo();
    std::erase_if(all, [&](const SyncInfo& pair) { return pair.serverUUID != serverID; });
    return all;
}

std::optional<SyncInfo> SyncInfoService::getSyncInfoByID(std::int64_t syncInfoID) {
    for (auto& info : getAllSyncInfo())
        if (info.syncInfoID == syncInfoID) return info;
    return std::nullopt;
}

Status SyncInfoService::saveSyncInfo(SyncInfo& info) {
    return db_.transaction([&]() -> Status {
        std::string serverUUID = info.serverInfo ? info.serverInfo->serverID : info.serverUUID;
        auto r = db_.execute(
            "INSERT INTO sync_info (server_uuid, last_sync_time, sync_status, local_folder_name, "
            "remote_folder_name, remote_folder_path) VALUES (?, ?, ?, ?, ?, ?)",
            {serverUUID, dateValue(info.lastSyncDate), std::int64_t{info.status},
             info.localFolderMeta.nameOrEmpty(), info.remoteFolderMeta.nameOrEmpty(),
             SyncUtils::getFullPath(info.remoteFolderMeta)});
        if (!r) return r;
        info.syncInfoID = db_.lastInsertRowId();
        info.serverUUID = serverUUID;
        for (auto& [key, value] : info.props) {
            auto p = db_.execute(
                "INSERT INTO sync_info_props (sync_info_id, key, value) VALUES (?, ?, ?)",
                {info.syncInfoID, key, value});
            if (!p) return p;
        }
        return {};
    });
}

Status SyncInfoService::updateSyncStatus(const SyncInfo& info) {
    return db_.execute("UPDATE sync_info SET last_sync_time=?, sync_status=? WHERE id=?",
                       {dateValue(info.lastSyncDate), std::int64_t{info.status}, info.syncInfoID});
}

Status SyncInfoService::deleteSyncInfo(const SyncInfo& info) {
    return db_.transaction([&]() -> Status {
        if (auto r = db_.execute("DELETE FROM sync_info WHERE id=?", {info.syncInfoID}); !r)
            return r;
        return db_.execute("DELETE FROM sync_info_props WHERE sync_info_id=?", {info.syncInfoID});
    });
}

bool SyncInfoService::isValidNewLocalName(const std::string& name) {
    return SyncInfo::isSafeLocalName(name) && name.front() != '.';
}

std::string SyncInfoService::statusText(const SyncInfo& info) {
    if (!info.hasSafeLocalName()) return "refused";
    if (info.status == SyncStatus::Running &&
        !SyncUtils::isSyncRunning(info.localFolderMeta.pathOrEmpty()))
        return "interrupted";
    return std::string(syncStatusName(info.status));
}

void SyncInfoService::removePairRecords(const std::string& folder) {
    if (folder.empty()) return;
    for (auto suffix : {"", "-wal", "-shm", "-journal"})
        ::unlink((folder + "/" + SyncDBManager::kFileName + suffix).c_str());
    ::unlink((folder + "/" + SyncUtils::kLockFileName).c_str());
}

std::expected<SyncInfo, Refusal> SyncInfoService::addPair(const Location& loc,
                                                          const std::string& localName) {
    auto refuse = [](std::string message) {
        return std::unexpected(Refusal::because(std::move(message)));
    };
    if (!isValidNewLocalName(localName)) {
        auto r = Refusal::because("LOCAL_NAME must be a plain folder name (no \"/\", not hidden).");
        r.badRequest = true;
        return std::unexpected(r);
    }
    if (loc.server->boolValueForKey(ServerProp::QUICK_CONNECT))
        return refuse(
            "A sync pair needs a configured server: add it with `quillon server "
            "add` and give the folder as NAME:/path.");
    auto item = statLocation(loc);
    if (!item) return std::unexpected(Refusal::failed(item.error()));
    if (!item->isDir) return refuse(loc.display() + " is not a folder.");

    auto local = SyncInfo::localFolderMetaForName(localName);
    std::string localPath = local.pathOrEmpty();
    for (auto& other : getAllSyncInfo()) {
        if (other.localFolderMeta.nameOrEmpty() == localName)
            return refuse(fmt::format("The local folder \"{}\" already belongs to sync pair {}.",
                                      localName, other.syncInfoID));
        if (other.serverUUID == loc.server->serverID &&
            other.remoteFolderMeta.pathOrEmpty() == loc.path)
            return refuse(fmt::format("{} is already paired (sync pair {}).", loc.display(),
                                      other.syncInfoID));
    }
    if (loc.isLocal()) {
        // A folder synced with itself, or with a folder inside it, would never settle.
        std::string a = loc.path == "/" ? "/" : loc.path + "/";
        std::string b = localPath + "/";
        if (a.starts_with(b) || b.starts_with(a))
            return refuse("The folder overlaps its own sync folder " + localPath + ".");
    }

    SyncInfo info;
    info.serverInfo = loc.server;
    info.serverUUID = loc.server->serverID;
    std::string remoteName = loc.path == "/" ? "/" : StringUtils::lastPathComponent(loc.path);
    info.remoteFolderMeta = SyncInfo::remoteFolderMetaFor(remoteName, loc.path, info.serverUUID,
                                                          loc.server->protocolType, std::nullopt);
    info.localFolderMeta = local;
    info.status = SyncStatus::NeverSynced;
    if (auto r = saveSyncInfo(info); !r) return std::unexpected(Refusal::failed(r.error()));
    // Records left by a forgotten pair of the same name would be read as this pair's history.
    removePairRecords(SyncUtils::getSyncFolderPath(localName));
    return info;
}

std::expected<SyncInfo, Refusal> SyncInfoService::removePair(std::int64_t id) {
    auto info = getSyncInfoByID(id);
    if (!info) return std::unexpected(Refusal::because(fmt::format("No sync pair {}.", id)));
    std::string localPath = info->localFolderMeta.pathOrEmpty();
    if (!localPath.empty() && SyncUtils::isSyncRunning(localPath))
        return std::unexpected(Refusal::because(
            fmt::format("Sync pair {} is syncing now; try again when it is done.", id)));
    if (auto r = deleteSyncInfo(*info); !r) return std::unexpected(Refusal::failed(r.error()));
    // The pair's own records go with it; the user's files stay where they are.
    removePairRecords(localPath);
    return *info;
}

}  // namespace quillon
