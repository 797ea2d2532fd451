#include "transfer/FileTransferUtils.h"

#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <climits>

#include <filesystem>
#include <unordered_set>

#include "core/LocalizedUtils.h"
#include "core/PathUtils.h"
#include "core/ServerInfo.h"
#include "core/StringUtils.h"
#include "core/TemporaryItems.h"

namespace quillon::FileTransferUtils {

namespace {

// The name's base and extension as the platform splits them: a leading dot is no extension.
std::pair<std::string, std::string> splitName(const std::string& name) {
    auto dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return {name, ""};
    return {name.substr(0, dot), name.substr(dot + 1)};
}

std::string uniqueName(const std::unordered_set<std::string>& taken, const std::string& name) {
    if (!taken.contains(name)) return name;
    auto [base, ext] = splitName(name);
    for (int n = 1; n < 10000; ++n) {
        std::string candidate = ext.empty() ? base + "-" + std::to_string(n)
                                            : base + "-" + std::to_string(n) + "." + ext;
        if (!taken.contains(candidate)) return candidate;
    }
    // Every candidate is taken: give up; the later write meets the conflict again.
    return name;
}

}  // namespace

std::string getUniqueFileName(const KvMetadataList& listing, const std::string& name) {
    std::unordered_set<std::string> taken;
    taken.reserve(listing.size());
    for (auto& m : listing) {
        if (auto n = m.nameIgnoreLinkResolve())
            taken.insert(*n);
        else
            taken.insert(StringUtils::lastPathComponent(m.pathOrEmpty()));
    }
    return uniqueName(taken, name);
}

std::string uniqueFilePathInFolder(const std::string& folder, const std::string& name) {
    std::unordered_set<std::string> taken;
    if (DIR* d = ::opendir(folder.c_str())) {
        while (auto* e = ::readdir(d)) taken.insert(e->d_name);
        ::closedir(d);
    }
    return StringUtils::stringByAppendingPathComponentDirectly(folder, uniqueName(taken, name));
}

std::uint64_t totalFreeDiskSpace() {
    return totalFreeDiskSpace(PathUtils::getHomeFolderPath());
}

std::uint64_t totalFreeDiskSpace(const std::string& path) {
    // The nearest existing folder decides the volume.
    std::filesystem::path p(path.empty() ? "/" : path);
    std::error_code ec;
    while (!p.empty() && !std::filesystem::exists(p, ec) && p != p.root_path()) p = p.parent_path();
    struct statvfs st {};
    if (::statvfs(p.empty() ? "/" : p.c_str(), &st) != 0) return 0;
    return static_cast<std::uint64_t>(st.f_bavail) * st.f_frsize;
}

KvMetadata targetMetadataWithSourceMetadata(const KvMetadata& source, const KvMetadata& folder) {
    KvMetadata target = source.copy();
    auto name = source.nameIgnoreLinkResolve().value_or(
        StringUtils::lastPathComponent(source.pathOrEmpty()));
    target.setName(name);
    target.setPath(StringUtils::stringByAppendingPathComponentDirectly(folder.pathOrEmpty(), name));
    target.protocolType = folder.protocolType;
    target.serverID = folder.serverID;
    target.timestamp = source.timestamp;
    target.isDir = source.isDir;
    target.isSymbolLink = source.isSymbolLink;
    target.symbolLinkTarget = source.symbolLinkTarget;
    target.fileSizeInBytes = source.fileSizeInBytes;
    target.identifier = makeUUID();
    target.localPath = folder.protocolType == 0 ? target.path() : std::nullopt;
    target.parentFolderMeta = std::make_shared<KvMetadata>(folder);
    return target;
}

void renameTarget(KvMetadata& target, const std::string& name) {
    std::string parent = target.parentFolderMeta ? target.parentFolderMeta->pathOrEmpty()
                                                 : parentPath(target.pathOrEmpty());
    target.setName(name);
    target.setPath(StringUtils::stringByAppendingPathComponentDirectly(parent, name));
    if (target.localPath) target.localPath = target.path();
}

Result<std::string> makeTaskTempFolder() {
    return TemporaryItems::makeScratchFolder();
}

void removeTaskTempFolder(const std::string& path) {
    TemporaryItems::removeScratchFolder(path);
}

bool isTemporary(const KvMetadata& item) {
    return TemporaryItems::isTemporaryName(itemName(item));
}

std::unexpected<Error> cannotCreateFile(const std::string& path, int err) {
    if (err == ENAMETOOLONG) {
        constexpr std::size_t kShown = 120;
        std::string shown = path;
        if (path.size() > kShown) {
            // The end of the path, from a character boundary.
            std::size_t from = path.size() - kShown;
            while (from < path.size() && (static_cast<unsigned char>(path[from]) & 0xC0) == 0x80)
                ++from;
            shown = "…" + path.substr(from);
        }
        return KvError::fail(ErrorDomain::Local, ErrorCode::TransferFailed,
                             fmt::format("Cannot create file {}: the path is {} bytes long, longer "
                                         "than this system allows ({} bytes for a path, {} for a "
                                         "name).",
                                         shown, path.size(), PATH_MAX, NAME_MAX));
    }
    return KvError::fail(ErrorDomain::Local, ErrorCode::TransferFailed,
                         "Cannot create file " + path);
}

Status checkNameForServer(const std::string& name, const std::string& localPath) {
    if (StringUtils::isValidUtf8(name)) return {};
    return KvError::fail(
        ErrorDomain::FileTransfer, ErrorCode::TransferFailed,
        fmt::format("The name of {} is not valid UTF-8 text, so a server would not store it "
                    "unchanged. Rename it to send it.",
                    StringUtils::escapedForDisplay(localPath)));
}

bool isTempFilePath(const std::string& path) {
    auto temp = PathUtils::getAppTempPath();
    return path.starts_with(temp + "/");
}

bool isCopyIntoItself(std::string_view sourcePath, std::string_view targetFolder) {
    std::string source(sourcePath), target(targetFolder);
    while (source.size() > 1 && source.back() == '/') source.pop_back();
    while (target.size() > 1 && target.back() == '/') target.pop_back();
    if (source == "/") return true;
    return (target + "/").starts_with(source + "/");
}

std::string copyIntoItselfMessage() {
    return LocalizedUtils::localizedStringForKey("trans.error_copy_move_to_itself");
}

Status checkUploadedSize(Wrapper& wrapper, const std::string& localPath, const KvMetadata& folder,
                         const std::string& name) {
    struct stat st {};
    if (wrapper.capabilities().checksUploadSize || ::stat(localPath.c_str(), &st) != 0) return {};
    // One lookup, not a listing of the folder: n uploads into a folder stay O(n).
    KvMetadata uploaded(
        StringUtils::stringByAppendingPathComponentDirectly(folder.pathOrEmpty(), name));
    uploaded.setName(name);
    uploaded.serverID = folder.serverID;
    uploaded.protocolType = folder.protocolType;
    uploaded.parentFolderMeta = std::make_shared<KvMetadata>(folder);
    if (folder.protocolType == 0) uploaded.localPath = uploaded.path();
    auto item = wrapper.metadataOfItemSync(uploaded);
    if (!item) {
        if (item.error().is(ErrorKind::NotFound)) return {};
        return std::unexpected(item.error());
    }
    auto expected = static_cast<std::uint64_t>(st.st_size);
    if (item->isDir || !item->fileSizeInBytes || *item->fileSizeInBytes == expected) return {};
    return KvError::fail(
        ErrorDomain::FileTransfer, ErrorCode::UploadFailed,
        fmt::format("{} arrived with {} of its {} bytes", name, *item->fileSizeInBytes, expected));
}

std::string parentPath(std::string_view path) {
    std::string p(path);
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    auto parent = StringUtils::stringByDeletingLastPathComponentDirectly(p);
    return parent.empty() ? std::string("/") : parent;
}

std::string itemName(const KvMetadata& item) {
    return item.nameIgnoreLinkResolve().value_or(
        StringUtils::lastPathComponent(item.pathOrEmpty()));
}

}  // namespace quillon::FileTransferUtils
