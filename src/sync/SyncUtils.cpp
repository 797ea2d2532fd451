#include "sync/SyncUtils.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <vector>

#include "core/PathUtils.h"
#include "core/ServerInfo.h"
#include "core/StringUtils.h"

namespace quillon::SyncUtils {

std::string getSyncBaseFolderPath() {
    return StringUtils::stringByAppendingPathComponentDirectly(PathUtils::getHomeFolderPath(),
                                                               "Synced");
}

bool createSyncBaseFolderPath() {
    // Linux file managers keep no custom folder icon that a program can set portably, so the
    // folder is only created.
    return PathUtils::ensureFolder(getSyncBaseFolderPath());
}

std::string getSyncFolderPath(const std::string& name) {
    createSyncBaseFolderPath();
    std::string path =
        StringUtils::stringByAppendingPathComponentDirectly(getSyncBaseFolderPath(), name);
    PathUtils::ensureFolder(path);
    return path;
}

std::string getRelativePath(const std::string& path) {
    const std::string base = getSyncBaseFolderPath();
    auto at = path.find(base);
    if (at == std::string::npos) return path;
    return path.substr(at + base.size());
}

std::string getAbsolutePath(const std::string& relativePath) {
    std::string base = getSyncBaseFolderPath();
    if (relativePath.empty()) return base;
    if (relativePath.front() == '/') return base + relativePath;
    return base + "/" + relativePath;
}

bool isSyncRunning(const std::string& localFolderPath) {
    int fd = ::open((localFolderPath + "/" + kLockFileName).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool busy = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return busy;
}

bool fuzzyCompareDate(const std::optional<TimePoint>& a, const std::optional<TimePoint>& b) {
    if (!a || !b) return false;
    auto diff = std::chrono::duration<double>(*a - *b).count();
    return std::fabs(diff) <= 1.0;
}

bool isCloudProtocol(std::int32_t protocolType) {
    return protocolType == ProtocolType::GoogleDrive || protocolType == ProtocolType::OneDrive ||
           protocolType == ProtocolType::Box;
}

std::string getFullPath(const KvMetadata& item) {
    if (!isCloudProtocol(item.protocolType)) return item.pathOrEmpty();
    std::vector<const KvMetadata*> ancestors;
    for (auto p = item.parentFolderMeta.get(); p; p = p->parentFolderMeta.get())
        ancestors.push_back(p);
    std::string full = kCloudPathPrefix;
    for (auto it = ancestors.rbegin(); it != ancestors.rend(); ++it)
        full += (*it)->identifier.value_or("") + "::" + (*it)->nameOrEmpty() + "/";
    full += item.identifier.value_or("") + "::" + item.nameOrEmpty();
    return full;
}

KvMetadata localChild(const KvMetadata& folder, const std::string& name, bool isDir) {
    KvMetadata m(StringUtils::stringByAppendingPathComponentDirectly(folder.pathOrEmpty(), name));
    m.setName(name);
    m.isDir = isDir;
    m.protocolType = ProtocolType::Local;
    m.serverID = folder.serverID;
    m.localPath = m.path();
    m.parentFolderMeta = std::make_shared<const KvMetadata>(folder);
    return m;
}

std::optional<std::string> getIdentify(const std::string& path) {
    if (!path.starts_with(kCloudPathPrefix)) return std::nullopt;
    std::string last = StringUtils::lastPathComponent(path);
    auto sep = last.find("::");
    return sep == std::string::npos ? last : last.substr(0, sep);
}

}  // namespace quillon::SyncUtils
