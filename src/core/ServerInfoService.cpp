#include "core/ServerInfoService.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "core/DBManager.h"
#include "core/StringUtils.h"

namespace quillon {

ServerInfoService& ServerInfoService::sharedServerInfoService() {
    static ServerInfoService* shared = new ServerInfoService();
    return *shared;
}

void ServerInfoService::setDisableUpdateCloud(bool disable) {
    std::lock_guard lock(mutex_);
    disableUpdateCloud_ = disable;
}

bool ServerInfoService::disableUpdateCloud() const {
    std::lock_guard lock(mutex_);
    return disableUpdateCloud_;
}

Result<std::vector<ServerInfo>> ServerInfoService::loadRecords(
    const std::string& sql, const std::vector<std::string>& params) {
    auto& db = DBManager::sharedDBManager();
    std::vector<SqlValue> bound(params.begin(), params.end());
    auto rows = db.query(sql, bound);
    if (!rows) return std::unexpected(rows.error());
    std::vector<ServerInfo> infos;
    for (auto& r : *rows) {
        ServerInfo info;
        info.serverID = sqlText(r[0]);
        info.protocolType = static_cast<std::int32_t>(sqlInt(r[1]));
        info.displayName = sqlText(r[2]);
        info.sortID = sqlInt(r[3]);
        auto props =
            db.query("SELECT key, value FROM server_props WHERE server_uuid = ?", {info.serverID});
        if (!props) return std::unexpected(props.error());
        for (auto& p : *props) info.props[sqlText(p[0])] = sqlText(p[1]);
        infos.push_back(std::move(info));
    }
    return infos;
}

std::vector<ServerInfo> ServerInfoService::remoteServerInfos() {
    auto r =
        loadRecords("SELECT server_uuid, protocol_type, display_name, sort FROM server_info", {});
    return r ? *r : std::vector<ServerInfo>{};
}

std::vector<ServerInfo> ServerInfoService::serverInfosWithProtocolType(std::int32_t protocolType) {
    auto& db = DBManager::sharedDBManager();
    auto rows = db.query(
        "SELECT server_uuid, protocol_type, display_name, sort FROM server_info WHERE "
        "protocol_type=?",
        {std::int64_t{protocolType}});
    if (!rows) return {};
    std::vector<ServerInfo> out;
    for (auto& r : *rows) {
        auto one = serverInfoWithServerID(sqlText(r[0]));
        if (one) out.push_back(std::move(*one));
    }
    return out;
}

std::optional<ServerInfo> ServerInfoService::serverInfoWithServerID(const std::string& serverID) {
    auto r = loadRecords(
        "SELECT server_uuid, protocol_type, display_name, sort FROM server_info WHERE "
        "server_uuid=?",
        {serverID});
    if (!r || r->empty()) return std::nullopt;
    return r->front();
}

Status ServerInfoService::insertProps(const ServerInfo& info) {
    auto& db = DBManager::sharedDBManager();
    for (auto& [key, value] : info.props) {
        if (auto r =
                db.execute("INSERT INTO server_props (server_uuid, key, value) VALUES (?, ?, ?)",
                           {info.serverID, key, value});
            !r)
            return r;
    }
    return {};
}

Status ServerInfoService::writeRecord(const ServerInfo& info, bool exists) {
    auto& db = DBManager::sharedDBManager();
    return db.transaction([&]() -> Status {
        if (exists) {
            if (auto r =
                    db.execute("UPDATE server_info SET display_name=?, sort=? WHERE server_uuid=?",
                               {info.displayName, info.sortID, info.serverID});
                !r)
                return r;
            if (auto r =
                    db.execute("DELETE FROM server_props WHERE server_uuid=?", {info.serverID});
                !r)
                return r;
        } else {
            if (auto r = db.execute(
                    "INSERT INTO server_info (server_uuid, protocol_type, display_name, sort) "
                    "VALUES (?, ?, ?, ?)",
                    {info.serverID, std::int64_t{info.protocolType}, info.displayName,
                     info.sortID});
                !r)
                return r;
        }
        return insertProps(info);
    });
}

Status ServerInfoService::storeServerInfo(const ServerInfo& info) {
    return writeRecord(info, serverInfoWithServerID(info.serverID).has_value());
}

Status ServerInfoService::saveServerInfo(ServerInfo& info) {
    tickForServerInfo(info);
    auto r = writeRecord(info, false);
    if (r) uploadServerInfoToCloud(info, false);
    return r;
}

Status ServerInfoService::updateServerInfo(ServerInfo& info) {
    tickForServerInfo(info);
    auto r = writeRecord(info, true);
    if (r) uploadServerInfoToCloud(info, false);
    return r;
}

Status ServerInfoService::updateSortID(const ServerInfo& info) {
    return DBManager::sharedDBManager().execute("UPDATE server_info SET sort=? WHERE server_uuid=?",
                                                {info.sortID, info.serverID});
}

Status ServerInfoService::deleteServerInfo(const ServerInfo& info) {
    auto& db = DBManager::sharedDBManager();
    auto r = db.transaction([&]() -> Status {
        if (auto r = db.execute("DELETE FROM server_info WHERE server_uuid=?", {info.serverID}); !r)
            return r;
        return db.execute("DELETE FROM server_props WHERE server_uuid=?", {info.serverID});
    });
    if (r) uploadServerInfoToCloud(info, true);
    return r;
}

Status ServerInfoService::saveOrUpdateServerInfo(ServerInfo& info) {
    if (serverInfoWithServerID(info.serverID)) return updateServerInfo(info);
    return saveServerInfo(info);
}

namespace {

// Octal escapes of mountinfo fields ("\040" for a blank).
std::string unescapeMountField(const std::string& s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() &&
            std::isdigit(static_cast<unsigned char>(s[i + 1]))) {
            out += static_cast<char>(std::stoi(s.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            out += s[i];
        }
    }
    return out;
}

const std::set<std::string> kNetworkFs = {"nfs",       "nfs4",       "cifs",       "smb3",
                                          "smbfs",     "fuse.sshfs", "9p",         "ceph",
                                          "glusterfs", "davfs",      "fuse.rclone"};
const std::set<std::string> kPseudoFs = {
    "proc",    "sysfs",    "devtmpfs", "devpts",          "tmpfs",       "cgroup",     "cgroup2",
    "pstore",  "bpf",      "tracefs",  "debugfs",         "securityfs",  "mqueue",     "hugetlbfs",
    "fusectl", "configfs", "autofs",   "binfmt_misc",     "efivarfs",    "rpc_pipefs", "nsfs",
    "ramfs",   "squashfs", "overlay",  "fuse.gvfsd-fuse", "fuse.portal", "fuse.lxcfs"};

std::string volumeName(const std::string& mountPoint, const std::string& source) {
    // A file-system label, when the device has one.
    std::error_code ec;
    // Stepped with increment(ec): the range-for's ++ throws on a read error.
    for (std::filesystem::directory_iterator it("/dev/disk/by-label", ec), end; !ec && it != end;
         it.increment(ec)) {
        std::error_code linkEc;
        auto target = std::filesystem::canonical(it->path(), linkEc);
        if (!linkEc && target.string() == source)
            return unescapeMountField(it->path().filename().string());
    }
    if (mountPoint == "/") return "File System";
    auto name = std::filesystem::path(mountPoint).filename().string();
    return name.empty() ? "No Name" : name;
}

}  // namespace

std::vector<ServerInfo> ServerInfoService::localServerInfosFromMountInfo(const std::string& text) {
    std::vector<ServerInfo> out;
    std::istringstream in(text);
    std::string line;
    std::set<std::string> seen;
    while (std::getline(in, line)) {
        // id parent major:minor root mount-point options [optional fields] - type source super
        std::istringstream ls(line);
        std::vector<std::string> f;
        std::string w;
        while (ls >> w) f.push_back(w);
        auto dash = std::find(f.begin(), f.end(), "-");
        if (f.size() < 6 || dash == f.end() || std::distance(dash, f.end()) < 3) continue;
        std::string mountPoint = unescapeMountField(f[4]);
        std::string options = f[5];
        std::string fsType = *(dash + 1);
        std::string source = unescapeMountField(*(dash + 2));
        bool network = kNetworkFs.contains(fsType);
        bool root = mountPoint == "/";
        if (!root) {
            if (kPseudoFs.contains(fsType)) continue;
            if (!network && !source.starts_with("/dev/")) continue;
            // System areas and files bind-mounted into containers are not volumes a user browses.
            if (mountPoint.starts_with("/proc") || mountPoint.starts_with("/sys") ||
                mountPoint.starts_with("/dev") || mountPoint == "/boot" ||
                mountPoint.starts_with("/boot/") || mountPoint.starts_with("/snap/") ||
                mountPoint.starts_with("/etc/") || mountPoint.starts_with("/var/lib/"))
                continue;
            if (mountPoint.starts_with("/run/") && !mountPoint.starts_with("/run/media/")) continue;
            std::error_code ec;
            if (!std::filesystem::is_directory(mountPoint, ec)) continue;
        }
        if (!seen.insert(mountPoint).second) continue;
        ServerInfo info;
        info.serverID = "LOCAL:" + mountPoint;
        info.protocolType = ProtocolType::Local;
        info.rootFolderPath = mountPoint;
        info.displayName = volumeName(mountPoint, source);
        info.volumeType = network ? VolumeType::Network : VolumeType::Local;
        if (mountPoint.starts_with("/media/") || mountPoint.starts_with("/run/media/") ||
            mountPoint.starts_with("/mnt/"))
            info.volumeType |= VolumeType::Removable;
        if (options == "ro" || options.starts_with("ro,")) info.volumeType |= VolumeType::ReadOnly;
        out.push_back(std::move(info));
    }
    std::stable_partition(out.begin(), out.end(),
                          [](const ServerInfo& i) { return i.rootFolderPath == "/"; });
    if (out.empty() || out.front().rootFolderPath != "/") {
        ServerInfo rootInfo;
        rootInfo.serverID = "LOCAL:/";
        rootInfo.protocolType = ProtocolType::Local;
        rootInfo.rootFolderPath = "/";
        rootInfo.displayName = "File System";
        rootInfo.volumeType = VolumeType::Local;
        out.insert(out.begin(), rootInfo);
    }
    return out;
}

std::vector<ServerInfo> ServerInfoService::localServerInfos() {
    std::ifstream in("/proc/self/mountinfo");
    std::ostringstream ss;
    ss << in.rdbuf();
    return localServerInfosFromMountInfo(ss.str());
}

ServerInfo ServerInfoService::rootLocalServerInfo() {
    return localServerInfos().front();
}

std::vector<ServerInfo> ServerInfoService::allServerInfos() {
    auto all = localServerInfos();
    auto remote = remoteServerInfos();
    all.insert(all.end(), remote.begin(), remote.end());
    return all;
}

void ServerInfoService::sortConnections(std::vector<ServerInfo>& infos) {
    std::stable_sort(infos.begin(), infos.end(), [](const ServerInfo& a, const ServerInfo& b) {
        auto sa = a.valueForKey(ServerProp::CONNECTION_SORT_ID);
        auto sb = b.valueForKey(ServerProp::CONNECTION_SORT_ID);
        if (!sa || !sb) return false;
        return StringUtils::localizedStandardCompare(*sa, *sb) < 0;
    });
}

std::vector<ServerInfo> ServerInfoService::serverInfosForSync() {
    std::vector<ServerInfo> out;
    for (auto& info : remoteServerInfos())
        if (!info.boolValueForKey(ServerProp::QUICK_CONNECT)) out.push_back(info);
    return out;
}

}  // namespace quillon
