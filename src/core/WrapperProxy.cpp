#include "core/WrapperProxy.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <unistd.h>
#include <array>
#include <chrono>
#include <cmath>
#include <map>
#include <mutex>

#include "core/FileService.h"
#include "core/ServerInfoService.h"

namespace quillon::WrapperProxy {

namespace {
struct Kind {
    std::int32_t type;
    std::string_view className;  // empty: no client for this kind
    std::string_view name;
};
constexpr std::array kKinds = {
    Kind{0, "LocalWrapper", "local file system"},
    Kind{1, "DropboxWrapper", "Dropbox"},
    Kind{2, "GoogledriveWrapper", "Google Drive"},
    Kind{3, "SmbWrapper", "SMB"},
    Kind{4, "OnedriveWrapper", "OneDrive"},
    Kind{5, "BoxWrapper", "Box"},
    Kind{6, "WebdavWrapper", "WebDAV"},
    Kind{7, "FtpWrapper", "FTP"},
    Kind{8, "", "reserved kind 8"},
    Kind{9, "WebdavWrapper", "WebDAV"},
    Kind{10, "SFTPWrapper", "SFTP"},
    Kind{11, "", "reserved kind 11"},
    Kind{12, "BaiduPanWrapper", "Baidu Pan"},
};

std::mutex& registryMutex() {
    static std::mutex m;
    return m;
}
std::map<std::string, Factory, std::less<>>& registry() {
    static std::map<std::string, Factory, std::less<>> r;
    return r;
}
}  // namespace

std::optional<std::string_view> classNameForProtocolType(std::int32_t protocolType) {
    for (auto& k : kKinds)
        if (k.type == protocolType && !k.className.empty()) return k.className;
    return std::nullopt;
}

std::string_view kindName(std::int32_t protocolType) {
    for (auto& k : kKinds)
        if (k.type == protocolType) return k.name;
    return "unknown kind";
}

void registerClass(std::string_view className, Factory factory) {
    std::lock_guard lock(registryMutex());
    registry()[std::string(className)] = std::move(factory);
}

Result<WrapperPtr> clientForServerInfo(const ServerInfoPtr& serverInfo) {
    if (!serverInfo) return KvError::fail(ErrorDomain::Generic, -1, "No server record was given.");
    auto cls = classNameForProtocolType(serverInfo->protocolType);
    if (!cls)
        return KvError::fail(
            ErrorDomain::Generic, -1,
            fmt::format("Servers of kind {} ({}) cannot be browsed.", serverInfo->protocolType,
                        kindName(serverInfo->protocolType)));
    Factory factory;
    {
        std::lock_guard lock(registryMutex());
        auto it = registry().find(*cls);
        if (it != registry().end()) factory = it->second;
    }
    if (!factory)
        return KvError::fail(ErrorDomain::Generic, -1,
                             fmt::format("This version of Quillon has no {} client yet.",
                                         kindName(serverInfo->protocolType)));
    auto w = factory(serverInfo);
    if (!w)
        return KvError::fail(
            ErrorDomain::Generic, -1,
            fmt::format("The {} client could not be created.", kindName(serverInfo->protocolType)));
    return w;
}

WrapperPtr wrapperWithServerInfo(const ServerInfoPtr& serverInfo) {
    auto r = clientForServerInfo(serverInfo);
    return r ? *r : nullptr;
}

WrapperPtr wrapperWithServerID(const std::string& serverID) {
    auto info = ServerInfoService::sharedServerInfoService().serverInfoWithServerID(serverID);
    if (!info) return nullptr;
    return wrapperWithServerInfo(std::make_shared<ServerInfo>(*info));
}

bool needDownloadFile(const KvMetadata& file, const ServerInfo& server) {
    if (file.protocolType == 0) return true;
    if (!file.timestamp || !file.fileSizeInBytes || file.isDir) return true;
    auto cachePath = FileService::sharedService().cachePathForMetadata(file, server);
    struct stat st {};
    if (::stat(cachePath.c_str(), &st) != 0) return true;
    auto cached = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(st.st_mtim.tv_sec) +
            std::chrono::nanoseconds(st.st_mtim.tv_nsec)));
    double diff = std::chrono::duration<double>(*file.timestamp - cached).count();
    if (static_cast<std::uint64_t>(st.st_size) == *file.fileSizeInBytes && std::fabs(diff) < 2.0)
        return false;
    ::unlink(cachePath.c_str());
    return true;
}

}  // namespace quillon::WrapperProxy
