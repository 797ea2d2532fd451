// The mirror of the server records in the cloud key-value store.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>

#include "core/AppPreference.h"
#include "core/CloudKeyValueStore.h"
#include "core/DBManager.h"
#include "core/ServerInfoService.h"
#include "core/TovrinCrypto.h"

namespace quillon {

namespace {

constexpr std::string_view kCloudKeyPrefix = "S2-";
constexpr std::string_view kPasswordEncrypted = "PW_ENCRYPTED";
constexpr std::string_view kSID = "SID";
constexpr std::string_view kSIN = "SIN";
constexpr std::string_view kSIP = "SIP";

// Properties that belong to one installation's session and never travel.
constexpr std::array<std::string_view, 3> kLocalOnlyProps = {
    ServerProp::ONEDRIVE_TK_EXP, ServerProp::TEMP_USERNAME, ServerProp::TEMP_PASSWORD};

bool isLocalOnly(std::string_view key) {
    return std::find(kLocalOnlyProps.begin(), kLocalOnlyProps.end(), key) != kLocalOnlyProps.end();
}

using NamePair = std::pair<std::string_view, std::string_view>;

// Properties renamed in the cloud copy without a change of value.
constexpr std::array<NamePair, 8> kPlainNames = {{
    {"ADDR", "SMB_SERVER_ADDR_KEY"},
    {"PORT", "SMB_SERVER_PORT"},
    {"PATH", "SMB_SERVER_ADDITIONAL_PATH_KEY"},
    {"USERNAME", "SMB_USER_NAME_KEY"},
    {"TEMP_USERNAME", "SMB_TEMP_LOGIN_NAME_KEY"},
    {"TEMP_PASSWORD", "SMB_TEMP_LOGIN_PASSWD_KEY_2"},
    {"SHOW_ADMIN_SHARES", "SMB_SHOW_ADMIN_SHARES"},
    {"SERVER_ENCODING", "SETTING_FTP_SERVER_CHARSET"},
}};

constexpr std::array<NamePair, 4> kFtpProtocols = {{
    {"FTP_PROTOCOL_PLAIN", "SETTING_PROTOCOL_FTP"},
    {"FTP_PROTOCOL_EXPLICIT_IF_AVAILABLE", "SETTING_PROTOCOL_FTPES_IF_AVAILABLE"},
    {"FTP_PROTOCOL_EXPLICIT", "SETTING_PROTOCOL_FTPES"},
    {"FTP_PROTOCOL_IMPLICIT", "SETTING_PROTOCOL_FTPS"},
}};

constexpr std::array<std::pair<long, std::string_view>, 7> kServerTypes = {{
    {ServerOSType::WDNAS, "WDNAS"},
    {ServerOSType::ToshibaNAS, "ToshibaNAS"},
    {ServerOSType::Apple, "Apple"},
    {ServerOSType::Linux, "Linux"},
    {ServerOSType::Windows, "Windows"},
    {ServerOSType::Darwin, "Darwin"},
    {ServerOSType::Unknown, "Unknown"},
}};

// Kinds whose sign-in belongs to one installation: the receiving one asks the user again.
bool needsSignInElsewhere(std::int32_t protocolType) {
    switch (protocolType) {
        case ProtocolType::Dropbox:
        case ProtocolType::GoogleDrive:
        case ProtocolType::OneDrive:
        case ProtocolType::Box:
        case ProtocolType::BaiduPan:
            return true;
        default:
            return false;
    }
}

double stampOf(const ServerInfo& info) {
    auto v = info.valueForKey(ServerProp::SI_LAST_UPDATE);
    if (!v || v->empty()) return 0;
    char* end = nullptr;
    double d = std::strtod(v->c_str(), &end);
    return end && *end == '\0' ? d : 0;
}

// Puts the cloud copy of `info` in the store without synchronizing it.
void putInCloud(CloudKeyValueStore& store, const ServerInfo& info) {
    store.setDictionary(ServerInfoService::cloudDictionaryForServerInfo(info),
                        ServerInfoService::cloudKeyForServerInfo(info));
}

bool cloudSyncAllowed() {
    return AppPreference::sharedAppPreference().boolForKey(PrefKey::SYS_AUTO_SYNC_CONN);
}

}  // namespace

void ServerInfoService::setCloudStore(std::shared_ptr<CloudKeyValueStore> store) {
    std::lock_guard lock(mutex_);
    cloudStore_ = std::move(store);
}

std::shared_ptr<CloudKeyValueStore> ServerInfoService::cloudStore() const {
    std::lock_guard lock(mutex_);
    return cloudStore_;
}

std::string ServerInfoService::cloudKeyForServerInfo(const ServerInfo& info) {
    return fmt::format("{}{}", kCloudKeyPrefix, info.serverID);
}

void ServerInfoService::tickForServerInfo(ServerInfo& info) {
    double now =
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
    // A change must read as newer than the one before it even when the clock stepped back.
    double stamp = std::max(now, stampOf(info) + 0.001);
    info.setValue(fmt::format("{:.3f}", stamp), ServerProp::SI_LAST_UPDATE);
}

std::string ServerInfoService::serverTypeToCloud(long serverType) {
    for (auto& [type, name] : kServerTypes)
        if (type == serverType) return std::string(name);
    return "Unknown";
}

long ServerInfoService::serverTypeFromCloud(std::string_view name) {
    for (auto& [type, text] : kServerTypes)
        if (text == name) return type;
    return ServerOSType::Unknown;
}

std::map<std::string, std::string> ServerInfoService::translatePropsToCloud(
    const std::map<std::string, std::string>& props, const ServerInfo& serverInfo) {
    std::map<std::string, std::string> out;
    for (auto& [key, value] : props) {
        auto plain = std::find_if(kPlainNames.begin(), kPlainNames.end(),
                                  [&](auto& p) { return p.first == key; });
        if (plain != kPlainNames.end()) {
            out[std::string(plain->second)] = value;
        } else if (key == ServerProp::SERVER_TYPE) {
            out["SMB_SERVER_OS_TYPE"] = serverTypeToCloud(std::strtol(value.c_str(), nullptr, 10));
        } else if (key == ServerProp::FTP_ACTIVE_MODE) {
            out["SETTING_FTP_MODE_KEY"] =
                isTrueProp(value) ? "SETTING_FTP_ACTIVE" : "SETTING_FTP_PASSIVE";
        } else if (key == ServerProp::FTP_PROTOCOL) {
            auto p = std::find_if(kFtpProtocols.begin(), kFtpProtocols.end(),
                                  [&](auto& e) { return e.first == value; });
            // A protocol this table does not know travels unchanged, so it comes back as it was.
            out["SETTING_FTP_PROTOCOL_KEY"] =
                p != kFtpProtocols.end() ? std::string(p->second) : value;
        } else if (key == "SFTP_LOGIN_TYPE") {
            if (value == "SFTP_LOGIN_TYPE_NORMAL")
                out["SETTING_FTP_LOGON_TYPE"] = "SFTP_LOGIN_TYPE_NORMAL";
            else if (value == "SFTP_LOGIN_TYPE_KEYFILE")
                out["SETTING_FTP_LOGON_TYPE"] = "SETTING_FTP_LOGON_TYPE_KEYFILE";
        } else {
            out[key] = value;
        }
    }
    if (!serverInfo.valueForKey(ServerProp::REMEMBER_PASSWORD))
        out[std::string(ServerProp::REMEMBER_PASSWORD)] = "YES";
    return out;
}

void ServerInfoService::translatePropsFromCloud(
    const std::map<std::string, std::string>& cloudProps, ServerInfo& serverInfo) {
    for (auto& [key, value] : cloudProps) {
        auto plain = std::find_if(kPlainNames.begin(), kPlainNames.end(),
                                  [&](auto& p) { return p.second == key; });
        if (plain != kPlainNames.end()) {
            serverInfo.setValue(value, plain->first);
        } else if (key == "SMB_SERVER_OS_TYPE") {
            serverInfo.setServerType(serverTypeFromCloud(value));
        } else if (key == "SETTING_FTP_MODE_KEY") {
            serverInfo.setValue(value == "SETTING_FTP_ACTIVE" ? "YES" : "NO",
                                ServerProp::FTP_ACTIVE_MODE);
        } else if (key == "SETTING_FTP_PROTOCOL_KEY") {
            auto p = std::find_if(kFtpProtocols.begin(), kFtpProtocols.end(),
                                  [&](auto& e) { return e.second == value; });
            serverInfo.setValue(p != kFtpProtocols.end() ? std::string(p->first) : value,
                                ServerProp::FTP_PROTOCOL);
        } else if (key == "SETTING_FTP_LOGON_TYPE") {
            if (value == "SFTP_LOGIN_TYPE_NORMAL")
                serverInfo.setValue("SFTP_LOGIN_TYPE_NORMAL", "SFTP_LOGIN_TYPE");
            else if (value == "SETTING_FTP_LOGON_TYPE_KEYFILE")
                serverInfo.setValue("SFTP_LOGIN_TYPE_KEYFILE", "SFTP_LOGIN_TYPE");
        } else {
            serverInfo.setValue(value, key);
        }
    }
}

PlistDict ServerInfoService::cloudDictionaryForServerInfo(const ServerInfo& info) {
    std::map<std::string, std::string> props;
    for (auto& [key, value] : info.props)
        if (!isLocalOnly(key)) props[key] = value;
    if (auto pw = props.find(std::string(ServerProp::PASSWORD)); pw != props.end()) {
        // The password travels only enciphered; if that fails it does not travel at all.
        auto cipher = TovrinCrypto().encryptString(pw->second);
        props.erase(pw);
        if (cipher) props[std::string(kPasswordEncrypted)] = *cipher;
    }
    if (needsSignInElsewhere(info.protocolType))
        props[std::string(ServerProp::NEED_SIGNIN)] = "YES";
    PlistDict dict;
    for (auto& [key, value] : translatePropsToCloud(props, info)) dict[key] = PlistValue(value);
    dict[std::string(kSID)] = PlistValue(info.serverID);
    dict[std::string(kSIN)] = PlistValue(info.displayName);
    dict[std::string(kSIP)] = PlistValue(static_cast<std::int64_t>(info.protocolType));
    return dict;
}

std::optional<ServerInfo> ServerInfoService::serverInfoFromCloudDictionary(const PlistDict& dict) {
    auto sid = dict.find(std::string(kSID));
    auto sin = dict.find(std::string(kSIN));
    auto sip = dict.find(std::string(kSIP));
    if (sid == dict.end() || sin == dict.end() || sip == dict.end()) return std::nullopt;
    if (!sid->second.is<std::string>() || sid->second.get<std::string>()->empty())
        return std::nullopt;
    ServerInfo info;
    info.serverID = *sid->second.get<std::string>();
    info.displayName = sin->second.toString();
    info.protocolType = static_cast<std::int32_t>(sip->second.toInteger());
    std::map<std::string, std::string> cloudProps;
    std::optional<std::string> cipher;
    for (auto& [key, value] : dict) {
        if (key == kSID || key == kSIN || key == kSIP) continue;
        if (key == kPasswordEncrypted) {
            cipher = value.toString();
            continue;
        }
        cloudProps[key] = value.toString();
    }
    translatePropsFromCloud(cloudProps, info);
    if (cipher) {
        if (auto pw = TovrinCrypto().decryptString(*cipher))
            info.setValue(*pw, ServerProp::PASSWORD);
    }
    if (auto sort = info.valueForKey(ServerProp::CONNECTION_SORT_ID))
        info.sortID = std::strtoll(sort->c_str(), nullptr, 10);
    return info;
}

ServerInfoService::SyncPlan ServerInfoService::syncServerInfoWithLocal(
    const std::vector<ServerInfo>& local,
    const std::map<std::string, std::optional<ServerInfo>>& cloud, bool fullPass) {
    SyncPlan plan;
    std::map<std::string, const ServerInfo*> byID;
    for (auto& info : local)
        if (info.protocolType != ProtocolType::Local) byID[info.serverID] = &info;

    for (auto& [id, cloudInfo] : cloud) {
        auto it = byID.find(id);
        const ServerInfo* mine = it == byID.end() ? nullptr : it->second;
        if (!cloudInfo) {
            // Removed in the cloud: the removal wins whatever the local stamp says, since the
            // store keeps no time of removal to compare with.
            if (mine) plan.toDelete.push_back(*mine);
            continue;
        }
        if (!mine) {
            plan.toStore.push_back(*cloudInfo);
            continue;
        }
        double cloudStamp = stampOf(*cloudInfo), localStamp = stampOf(*mine);
        if (cloudStamp > localStamp) {
            ServerInfo merged = *cloudInfo;
            // Session-only properties never travel: the local ones stay.
            for (auto& key : kLocalOnlyProps) {
                if (auto v = mine->valueForKey(key))
                    merged.setValue(*v, key);
                else
                    merged.removeObjectForKey(key);
            }
            merged.sortID = mine->sortID;
            // The kind of a stored record never changes.
            merged.protocolType = mine->protocolType;
            plan.toStore.push_back(std::move(merged));
        } else if (localStamp > cloudStamp) {
            plan.toUpload.push_back(*mine);
        }
    }
    if (fullPass) {
        for (auto& [id, info] : byID)
            if (!cloud.contains(id)) plan.toUpload.push_back(*info);
    }
    return plan;
}

void ServerInfoService::uploadServerInfoToCloud(const ServerInfo& info, bool isDel) {
    if (disableUpdateCloud() || info.protocolType == ProtocolType::Local) return;
    if (!cloudSyncAllowed()) return;
    auto store = cloudStore();
    if (!store) return;
    if (isDel)
        store->removeObjectForKey(cloudKeyForServerInfo(info));
    else
        putInCloud(*store, info);
    // A store that cannot be reached now keeps the change and shares it at its next synchronize.
    (void)store->synchronize();
}

void ServerInfoService::syncServerInfoWithChangedIds(const std::vector<std::string>& changedKeys) {
    auto store = cloudStore();
    if (!store || !cloudSyncAllowed()) return;
    bool fullPass = changedKeys.empty();
    std::vector<std::string> keys = fullPass ? store->allKeys() : changedKeys;

    std::map<std::string, std::optional<ServerInfo>> cloud;
    for (auto& key : keys) {
        if (!key.starts_with(kCloudKeyPrefix)) continue;
        std::string id = key.substr(kCloudKeyPrefix.size());
        auto dict = store->dictionaryForKey(key);
        if (!dict) {
            if (!fullPass) cloud[id] = std::nullopt;
            continue;
        }
        // An entry this program cannot read is left alone rather than taken for a removal.
        auto info = serverInfoFromCloudDictionary(*dict);
        if (info && info->serverID == id) cloud[id] = std::move(*info);
    }

    auto plan = syncServerInfoWithLocal(remoteServerInfos(), cloud, fullPass);
    for (auto& info : plan.toStore) (void)storeServerInfo(info);
    auto& db = DBManager::sharedDBManager();
    for (auto& info : plan.toDelete) {
        // Already gone from the cloud: delete here without mirroring the deletion back.
        (void)db.transaction([&]() -> Status {
            if (auto r = db.execute("DELETE FROM server_info WHERE server_uuid=?", {info.serverID});
                !r)
                return r;
            return db.execute("DELETE FROM server_props WHERE server_uuid=?", {info.serverID});
        });
    }
    if (!plan.toUpload.empty() && !disableUpdateCloud()) {
        for (auto& info : plan.toUpload) putInCloud(*store, info);
        (void)store->synchronize();
    }
}

}  // namespace quillon
