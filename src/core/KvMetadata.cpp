#include "core/KvMetadata.h"

#include <sys/stat.h>

#include <fmt/format.h>

#include "core/FileTypeUtils.h"
#include "core/ServerInfoService.h"
#include "core/StringUtils.h"

namespace quillon {

namespace {

constexpr std::string_view kSftpScheme = "sftp://";

std::string orNull(const OptString& s) {
    return s.value_or("(null)");
}

std::shared_ptr<KvMetadata> localRecord(const std::string& path, bool isDir,
                                        const std::string& serverID) {
    auto meta = std::make_shared<KvMetadata>(path);
    meta->serverID = serverID;
    meta->protocolType = ProtocolType::Local;
    meta->isDir = isDir;
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
        meta->fileSizeInBytes = static_cast<std::uint64_t>(st.st_size);
        meta->timestamp = std::chrono::system_clock::time_point(
            std::chrono::duration_cast<std::chrono::system_clock::duration>(
                std::chrono::seconds(st.st_mtim.tv_sec) +
                std::chrono::nanoseconds(st.st_mtim.tv_nsec)));
    } else {
        meta->fileSizeInBytes = 0;
    }
    return meta;
}

template <typename T>
const T* field(const PlistDict& dict, const char* key) {
    auto it = dict.find(key);
    return it == dict.end() ? nullptr : it->second.get<T>();
}

}  // namespace

KvMetadata::KvMetadata(const std::string& path)
    : path_(path), name_(StringUtils::lastPathComponent(path)) {}

std::shared_ptr<KvMetadata> KvMetadata::generateLocalMetadata(const std::string& path, bool isDir) {
    if (path.empty()) return nullptr;
    std::string serverID =
        ServerInfoService::sharedServerInfoService().rootLocalServerInfo().serverID;

    // The item and its ancestors, innermost first; every ancestor is a folder.
    std::vector<std::string> chain{path};
    while (chain.back() != "/") {
        std::string parent = StringUtils::stringByDeletingLastPathComponent(chain.back());
        if (parent.empty() || parent == chain.back()) break;
        chain.push_back(parent);
    }
    std::shared_ptr<KvMetadata> parent;
    for (std::size_t k = chain.size(); k-- > 1;) {
        auto meta = localRecord(chain[k], true, serverID);
        meta->parentFolderMeta = parent;
        parent = meta;
    }
    auto meta = localRecord(path, isDir, serverID);
    meta->parentFolderMeta = parent;
    return meta;
}

OptString KvMetadata::name() const {
    if (symbolLinkTarget) return StringUtils::lastPathComponent(*symbolLinkTarget);
    return name_;
}

OptString KvMetadata::path() const {
    if (protocolType == ProtocolType::SFTP && path_ && path_->starts_with(kSftpScheme)) {
        std::string p = *path_;
        if (isDir && !p.ends_with('/')) p += '/';
        auto slash = p.find('/', kSftpScheme.size());
        if (slash != std::string::npos) p = p.substr(slash);
        path_ = p;
    }
    return path_;
}

std::string KvMetadata::keyID() const {
    std::string key = fmt::format("{}:{}:{}:{}", orNull(serverID), isDir ? 1 : 0,
                                  orNull(identifier), orNull(path()));
    // Dropbox paths are case-insensitive, so one item must give one key whatever its case.
    if (protocolType == ProtocolType::Dropbox) return StringUtils::toLower(key);
    return key;
}

bool KvMetadata::iWorkDocFolder() const {
    auto n = name();
    return isDir && n && FileTypeUtils::isIWork(*n);
}

std::string KvMetadata::description() const {
    return fmt::format("Name={}; PATH={}", orNull(name()), orNull(path()));
}

PlistDict KvMetadata::encode() const {
    PlistDict d;
    if (timestamp) d["timestamp"] = *timestamp;
    d["isDir"] = isDir;
    if (auto p = path()) d["path"] = *p;
    if (auto n = name()) d["name"] = *n;
    if (fileSizeInBytes) d["filesize"] = static_cast<std::int64_t>(*fileSizeInBytes);
    if (identifier) d["identifier"] = *identifier;
    d["protocolType"] = protocolType;
    if (serverID) d["serverID"] = *serverID;
    return d;
}

KvMetadata KvMetadata::decode(const PlistDict& archive) {
    KvMetadata m;
    if (auto t = field<PlistDate>(archive, "timestamp")) m.timestamp = *t;
    if (auto it = archive.find("isDir"); it != archive.end()) m.isDir = it->second.toBool();
    if (auto p = field<std::string>(archive, "path")) m.path_ = *p;
    if (auto n = field<std::string>(archive, "name")) m.name_ = *n;
    if (auto s = field<std::int64_t>(archive, "filesize"))
        m.fileSizeInBytes = static_cast<std::uint64_t>(*s);
    if (auto i = field<std::string>(archive, "identifier")) m.identifier = *i;
    if (auto it = archive.find("protocolType"); it != archive.end())
        m.protocolType = static_cast<std::int32_t>(it->second.toInteger());
    if (auto s = field<std::string>(archive, "serverID")) m.serverID = *s;
    return m;
}

std::string KvMetadata::archivedData() const {
    return Plist::toXml(PlistValue(encode()));
}

Result<KvMetadata> KvMetadata::unarchive(std::string_view data) {
    auto root = Plist::fromXml(data);
    if (!root) return std::unexpected(root.error());
    auto dict = root->get<PlistDict>();
    if (!dict)
        return KvError::fail(ErrorDomain::Generic, -1, "Archived record is not a dictionary");
    return decode(*dict);
}

KvMetadata KvMetadata::copy() const {
    KvMetadata c;
    c.timestamp = timestamp;
    c.isDir = isDir;
    c.path_ = path();
    c.localPath = localPath;
    c.name_ = name();
    c.fileSizeInBytes = fileSizeInBytes;
    c.fileExtension = fileExtension;
    c.identifier = identifier;
    c.protocolType = protocolType;
    c.serverID = serverID;
    c.parentFolderMeta = parentFolderMeta;
    c.downloadLink = downloadLink;
    c.isIcloudPlaceHold = isIcloudPlaceHold;
    c.createTimestamp = createTimestamp;
    c.etag = etag;
    c.isSymbolLink = isSymbolLink;
    c.symbolLinkTarget = symbolLinkTarget;
    c.gdocs_editlink = gdocs_editlink;
    c.sharedDriveID = sharedDriveID;
    return c;
}

}  // namespace quillon
