#include "transfer/CopyTask.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "clients/local/LocalFileOps.h"
#include "clients/local/LocalWrapper.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "transfer/FileTransferUtils.h"

namespace quillon {

using FileTransferUtils::itemName;

namespace {

std::string join(const std::string& folder, const std::string& name) {
    return StringUtils::stringByAppendingPathComponentDirectly(folder, name);
}

// Called right after the failed system call: errno tells why.
std::unexpected<Error> cannotCreate(const std::string& path, int err = errno) {
    return FileTransferUtils::cannotCreateFile(path, err);
}

}  // namespace

Result<bool> CopyTask::fileExists() {
    struct stat st {};
    auto path = join(targetMetadata.pathOrEmpty(), itemName(sourceMetadata));
    return ::lstat(path.c_str(), &st) == 0;
}

void CopyTask::tick() {
    double t = now();
    if (t - lastUpdateTick_ > 0.5) {
        lastUpdateTick_ = t;
        reportProgress();
    }
}

void CopyTask::startTransfer() {
    if (!openSides()) return;
    countsArrivals_ = true;
    copier_.shouldStop = [this] { return stopped(); };

    auto targetItem =
        FileTransferUtils::targetMetadataWithSourceMetadata(sourceMetadata, targetMetadata);
    if (auto named = renameForKeepBoth(targetItem, targetMetadata); !named) {
        completeFileTransfer(named.error());
        return;
    }
    targetMetadata = targetItem;
    auto result = copyRoot(sourceMetadata.pathOrEmpty(), targetItem.pathOrEmpty());
    reportProgress();
    completeFileTransfer(result ? std::nullopt : std::optional<Error>(result.error()));
}

Status CopyTask::copyRoot(const std::string& from, const std::string& to) {
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0)
        return KvError::fail(ErrorDomain::Generic, ErrorCode::NotFound,
                             fmt::format("Not Found: {}", from));
    struct stat existing {};
    bool exists = ::lstat(to.c_str(), &existing) == 0;
    bool replace = overwrites() && exists;

    if (S_ISLNK(st.st_mode)) {
        setTransferringFileMeta(sourceMetadata);
        return copier_.copyLink(from, to, replace);
    }
    if (!S_ISDIR(st.st_mode)) {
        setTotalBytes(st.st_size);
        return copyFile(sourceMetadata, from, to, replace);
    }

    auto count =
        LocalWrapper::calculateLocalFolderItemsAndSize(from, true, [this] { return !stopped(); });
    setTotalBytes(count.totalBytes);
    if (stopped()) return {};
    if (replace && fileConflict() == ConflictAction::Merge && S_ISDIR(existing.st_mode)) {
        // Into the folder that is there, item by item.
        merging_ = true;
        return copyFolder(sourceMetadata, from, to);
    }

    // The new folder is built under a hidden name beside its target and takes the target's name
    // only when complete, so a failed, stopped or killed copy never leaves a partial folder
    // there (nor replaces an existing one).
    std::string staging = LocalFileCopier::hiddenSibling(to);
    auto r = copyFolder(sourceMetadata, from, staging);
    std::error_code ec;
    if (!r || stopped()) {
        std::filesystem::remove_all(staging, ec);
        nothingArrived();
        return r;
    }
    int err = replace ? LocalFileOps::replaceItem(staging, to)
                      : LocalFileOps::renameNoReplace(staging, to);
    if (err != 0) {
        std::filesystem::remove_all(staging, ec);
        nothingArrived();
        return cannotCreate(to, err);
    }
    return {};
}

Status CopyTask::copyFolder(const KvMetadata& folder, const std::string& from,
                            const std::string& to) {
    if (stopped()) return {};
    struct stat st {};
    if (::stat(from.c_str(), &st) != 0)
        return KvError::fail(ErrorDomain::Generic, ErrorCode::NotFound,
                             fmt::format("Not Found: {}", from));
    if (::mkdir(to.c_str(), 0700) != 0) {
        struct stat there {};
        if (errno != EEXIST || ::stat(to.c_str(), &there) != 0 || !S_ISDIR(there.st_mode))
            return cannotCreate(to);
    }
    KvMetadata listed = folder;
    listed.setPath(from);
    listed.isDir = true;
    auto children = sourceProxy_->contentsOfDirectoryAtPathSync(listed);
    if (!children) return itemFailed(folder, children.error());
    for (auto& child : *children) {
        if (stopped()) return {};
        if (FileTransferUtils::isTemporary(child)) continue;
        std::string name = itemName(child);
        std::string childFrom = child.pathOrEmpty();
        std::string childTo = join(to, name);
        Status r;
        if (child.isSymbolLink) {
            setTransferringFileMeta(child);
            r = copier_.copyLink(childFrom, childTo, true);
        } else if (child.isDir) {
            r = copyFolder(child, childFrom, childTo);
        } else if (child.isIcloudPlaceHold) {
            r = sourceProxy_->downloadSync(child, childTo, nullptr);
        } else {
            // Inside the hidden folder that becomes the target: written in place.
            r = merging_ ? copyFile(child, childFrom, childTo, true)
                         : copyFile(child, childFrom, childTo, false, /*staged=*/true);
        }
        if (!r) {
            if (auto failed = itemFailed(child, r.error()); !failed) return failed;
        }
    }
    if (!stopped()) LocalFileCopier::copyFolderAttributes(st, to);
    return {};
}

Status CopyTask::copyFile(const KvMetadata& file, const std::string& from, const std::string& to,
                          bool replace, bool staged) {
    setTransferringFileMeta(file);
    std::int64_t base = transferredBytes();
    copier_.onStep = [this, base](std::uint64_t copied) {
        setTransferredBytes(base + static_cast<std::int64_t>(copied));
        tick();
    };
    auto r = copier_.copyFile(from, to, replace, staged);
    struct stat st {};
    if (r && !stopped() && ::lstat(to.c_str(), &st) == 0) fileArrived(st.st_size);
    return r;
}

}  // namespace quillon
