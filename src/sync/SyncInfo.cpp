#include "sync/SyncInfo.h"

#include "sync/SyncUtils.h"

namespace quillon {

std::string_view syncStatusName(std::int32_t status) {
    switch (status) {
        case SyncStatus::NeverSynced:
            return "never";
        case SyncStatus::Succeeded:
            return "ok";
        case SyncStatus::Running:
            return "running";
        case SyncStatus::Stopped:
            return "stopped";
        case SyncStatus::Failed:
            return "failed";
        default:
            return "unknown";
    }
}

std::optional<std::string> SyncInfo::valueForKey(std::string_view key) const {
    auto it = props.find(std::string(key));
    if (it == props.end()) return std::nullopt;
    return it->second;
}

void SyncInfo::setValue(const std::string& value, std::string_view key) {
    props[std::string(key)] = value;
}

void SyncInfo::removeObjectForKey(std::string_view key) {
    props.erase(std::string(key));
}

bool SyncInfo::isSafeLocalName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

KvMetadata SyncInfo::localFolderMetaForName(const std::string& name) {
    KvMetadata m;
    m.setName(name);
    m.isDir = true;
    m.protocolType = ProtocolType::Local;
    if (isSafeLocalName(name)) {
        m.setPath(SyncUtils::getSyncBaseFolderPath() + "/" + name);
        m.localPath = m.path();
    }
    return m;
}

KvMetadata SyncInfo::remoteFolderMetaFor(const std::string& name, const std::string& path,
                                         const std::string& serverUUID, std::int32_t protocolType,
                                         const std::optional<std::string>& sharedDriveID) {
    KvMetadata m(path);
    m.setName(name);
    m.isDir = true;
    m.serverID = serverUUID;
    m.protocolType = protocolType;
    m.sharedDriveID = sharedDriveID;
    if (protocolType == ProtocolType::Local) m.localPath = path;
    // Cloud folders are addressed by identifier, which their record path carries.
    if (auto id = SyncUtils::getIdentify(path)) m.identifier = id;
    return m;
}

}  // namespace quillon
