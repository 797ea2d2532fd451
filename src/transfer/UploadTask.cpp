#include "transfer/UploadTask.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "clients/local/LocalFileOps.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/RemoteUpload.h"

namespace quillon {

using FileTransferUtils::itemName;

Result<KvMetadataList> listLocalFolder(const KvMetadata& folder) {
    std::string path = folder.pathOrEmpty();
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), &::closedir);
    if (!dir) return LocalFileOps::posixFailure(errno, path);
    auto parent = std::make_shared<KvMetadata>(folder);
    KvMetadataList entries;
    int fd = ::dirfd(dir.get());
    while (dirent* e = ::readdir(dir.get())) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        struct stat st {};
        if (::fstatat(fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        KvMetadata m(StringUtils::stringByAppendingPathComponentDirectly(path, name));
        m.localPath = m.path();
        m.serverID = folder.serverID;
        m.protocolType = folder.protocolType;
        m.parentFolderMeta = parent;
        m.timestamp = std::chrono::system_clock::time_point(
            std::chrono::duration_cast<std::chrono::system_clock::duration>(
                std::chrono::seconds(st.st_mtim.tv_sec) +
                std::chrono::nanoseconds(st.st_mtim.tv_nsec)));
        if (S_ISLNK(st.st_mode)) {
            m.isSymbolLink = true;
            std::string target(4096, '\0');
            ssize_t n = ::readlink(m.pathOrEmpty().c_str(), target.data(), target.size());
            if (n >= 0) m.symbolLinkTarget = target.substr(0, static_cast<std::size_t>(n));
            // What the link points to decides whether it shows as a folder; a dangling link
            // stays a record of its own.
            struct stat followed {};
            if (::fstatat(fd, e->d_name, &followed, 0) == 0) st = followed;
        }
        bool placeholder = name.size() > 8 && name.front() == '.' && name.ends_with(".icloud");
        if (placeholder) {
            name = name.substr(1, name.size() - 8);
            m.isIcloudPlaceHold = true;
        }
        m.setName(name);
        m.isDir = S_ISDIR(st.st_mode);
        if (!m.isDir) m.fileSizeInBytes = static_cast<std::uint64_t>(st.st_size);
        entries.push_back(std::move(m));
    }
    return entries;
}

Result<bool> UploadTask::fileExists() {
    return targetHasSourceName();
}

void UploadTask::startTransfer() {
    countsArrivals_ = true;
    if (!openSides(false)) return;
    RemoteUpload::removeLeftovers(*targetProxy_);

    KvMetadata folder = targetMetadata;
    auto target = FileTransferUtils::targetMetadataWithSourceMetadata(sourceMetadata, folder);
    if (auto named = renameForKeepBoth(target, folder); !named) {
        completeFileTransfer(named.error());
        return;
    }
    targetMetadata = target;

    struct stat st {};
    std::string sourcePath = sourceMetadata.pathOrEmpty();
    if (::lstat(sourcePath.c_str(), &st) != 0) {
        completeFileTransfer(KvError::errorWithDomain(ErrorDomain::Generic, ErrorCode::NotFound,
                                                      "Not Found: " + sourcePath));
        return;
    }
    if (auto usable = FileTransferUtils::checkNameForServer(itemName(target), sourcePath);
        !usable) {
        completeFileTransfer(usable.error());
        return;
    }
    auto local = WrapperProxy::clientForServerInfo(sourceServerInfo);
    if (!local) {
        completeFileTransfer(local.error());
        return;
    }
    localWrapper_ = *local;
    if (S_ISLNK(st.st_mode)) {
        auto r = transferLink(sourceMetadata, target, *localWrapper_, *targetProxy_, overwrites());
        completeFileTransfer(r ? std::nullopt : std::optional<Error>(r.error()));
        return;
    }
    auto root = std::make_shared<FileTransferNode>(sourceMetadata, target, folder);
    if (S_ISDIR(st.st_mode)) {
        auto r = placeFolder(root, [&] {
            auto s = contentsOfDirectory(root);
            return s && !stopped() ? transferFiles() : s;
        });
        reportProgress();
        completeFileTransfer(r || stopped() ? std::nullopt : std::optional<Error>(r.error()));
        return;
    }
    setTotalBytes(st.st_size);
    root->sourceMetadata.fileSizeInBytes = static_cast<std::uint64_t>(st.st_size);
    fileNodes_.push_back(root);
    auto r = transferFiles();
    reportProgress();
    completeFileTransfer(r ? std::nullopt : std::optional<Error>(r.error()));
}

Status UploadTask::contentsOfDirectory(const FileTransferNode::Ptr& node) {
    TreeWalk walk;
    walk.list = [](const KvMetadata& folder) { return listLocalFolder(folder); };
    walk.makeFolder = [this](const KvMetadata& target) -> Status {
        auto made = targetProxy_->createFolderSync(target);
        // Merging: the folder may be there already.
        if (!made && fileConflict() != ConflictAction::Merge) return made;
        return {};
    };
    walk.linkSource = localWrapper_.get();
    walk.linkTarget = targetProxy_.get();
    return collectTree(node, walk, fileNodes_);
}

Status UploadTask::transferFiles() {
    std::int64_t done = 0;
    bool replace = overwrites();
    for (auto& node : fileNodes_) {
        if (stopped()) return {};
        std::string path = node->sourceMetadata.pathOrEmpty();
        if (::access(path.c_str(), F_OK) != 0) continue;
        setTransferringFileMeta(node->sourceMetadata);
        std::int64_t base = done;
        auto r = RemoteUpload::uploadFile(
            *targetProxy_, node->sourceMetadata, path, node->targetParentMetadata,
            itemName(node->targetMetadata), replace,
            relayProgress([base](std::int64_t sent, std::int64_t) { return base + sent; }),
            [this] { return stopped(); });
        auto size = static_cast<std::int64_t>(node->sourceMetadata.fileSizeInBytes.value_or(0));
        done += size;
        raiseTransferredBytes(done);
        if (FileTransferUtils::isTempFilePath(path)) ::unlink(path.c_str());
        if (stopped()) return {};
        if (r) fileArrived(size);
        if (!r) {
            if (auto failed = itemFailed(node->sourceMetadata, r.error()); !failed) return failed;
        }
    }
    return {};
}

}  // namespace quillon
