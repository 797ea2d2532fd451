#include "transfer/RemoteUpload.h"

#include <unistd.h>

#include "core/Location.h"
#include "core/ServerInfo.h"
#include "core/StringUtils.h"
#include "core/TemporaryItems.h"
#include "transfer/FileTransferUtils.h"

namespace quillon::RemoteUpload {

KvMetadata itemInFolder(const KvMetadata& folder, const std::string& name, bool isDir) {
    KvMetadata item(
        StringUtils::stringByAppendingPathComponentDirectly(folder.pathOrEmpty(), name));
    item.setName(name);
    item.isDir = isDir;
    item.serverID = folder.serverID;
    item.protocolType = folder.protocolType;
    item.parentFolderMeta = std::make_shared<KvMetadata>(folder);
    if (folder.protocolType == 0) item.localPath = item.path();
    return item;
}

namespace {

Status sendFile(Wrapper& wrapper, const KvMetadata& record, const std::string& localPath,
                const KvMetadata& folder, const std::string& name,
                const ProgressHandler& progress) {
    KvMetadata local = record.copy();
    local.setPath(localPath);
    local.localPath = localPath;
    local.setName(name);
    local.protocolType = 0;
    local.isDir = false;
    local.isSymbolLink = false;
    local.symbolLinkTarget.reset();
    local.fileSizeInBytes = record.fileSizeInBytes;
    local.timestamp = record.timestamp;
    if (folder.protocolType == 0 || StringUtils::lastPathComponent(localPath) == name)
        return wrapper.uploadSync(local, folder, progress);
    // Some clients name the uploaded file after its local path: a link of the wanted name in a
    // scratch folder gives them that name without copying a byte.
    auto scratch = FileTransferUtils::makeTaskTempFolder();
    if (!scratch) return std::unexpected(scratch.error());
    std::string alias = StringUtils::stringByAppendingPathComponentDirectly(*scratch, name);
    Status result;
    if (::symlink(localPath.c_str(), alias.c_str()) != 0) {
        result = KvError::fail(ErrorDomain::Local, ErrorCode::TransferFailed,
                               "Cannot create file " + alias);
    } else {
        local.setPath(alias);
        local.localPath = alias;
        result = wrapper.uploadSync(local, folder, progress);
    }
    FileTransferUtils::removeTaskTempFolder(*scratch);
    return result;
}

// A client may report success for a file that did not arrive whole: what the server lists
// decides.
Status sendAs(Wrapper& wrapper, const KvMetadata& record, const std::string& localPath,
              const KvMetadata& folder, const std::string& name, const ProgressHandler& progress) {
    auto sent = sendFile(wrapper, record, localPath, folder, name, progress);
    if (!sent) return sent;
    return FileTransferUtils::checkUploadedSize(wrapper, localPath, folder, name);
}

// Removes a leftover; the wrapper may have been cancelled, which must not stop the clean-up.
void removeQuietly(Wrapper& wrapper, const KvMetadata& item) {
    bool wasCancelled = wrapper.cancelled();
    wrapper.setCancelled(false);
    (void)wrapper.removeSync({item});
    wrapper.setCancelled(wasCancelled);
}

}  // namespace

Status uploadFile(Wrapper& wrapper, const KvMetadata& record, const std::string& localPath,
                  const KvMetadata& folder, const std::string& name, bool replace,
                  const ProgressHandler& progress, const std::function<bool()>& stopped) {
    // The local client itself writes under a hidden name and renames into place.
    if (folder.protocolType == ProtocolType::Local)
        return sendAs(wrapper, record, localPath, folder, name, progress);
    if (auto usable = FileTransferUtils::checkNameForServer(name, localPath); !usable)
        return usable;

    // The file goes up under a hidden temporary name and takes its own name only when complete,
    // so a run killed mid-upload leaves no partial file under the user's name; the temporary is
    // noted so that the next transfer to this server removes such a leftover.
    std::string place = TemporaryItems::placeOf(wrapper.serverInfo().get());
    auto target = itemInFolder(folder, name, false);
    auto partial = itemInFolder(folder, TemporaryItems::nameFor(name), false);
    TemporaryItems::noteTemporary(place, partial.pathOrEmpty());
    auto r = sendAs(wrapper, record, localPath, folder, partial.nameOrEmpty(), progress);
    if (r && !stopped()) {
        r = wrapper.moveSync(partial, target);
        // A server that will not rename over an existing item: the old item steps aside first,
        // and comes back if the new one cannot take its place.
        if (!r && replace) {
            // The old item may be a folder, which goes as a whole.
            auto old = wrapper.metadataOfItemSync(target);
            bool oldIsDir = old && old->isDir && !old->isSymbolLink;
            auto aside = itemInFolder(folder, TemporaryItems::nameFor(name), oldIsDir);
            TemporaryItems::noteAside(place, aside.pathOrEmpty(), target.pathOrEmpty());
            if (wrapper.moveSync(target, aside)) {
                r = wrapper.moveSync(partial, target);
                if (r)
                    removeQuietly(wrapper, aside);
                else
                    (void)wrapper.moveSync(aside, target);
            }
            TemporaryItems::forgetTemporary(place, aside.pathOrEmpty());
        }
    }
    if (!r || stopped()) removeQuietly(wrapper, partial);
    TemporaryItems::forgetTemporary(place, partial.pathOrEmpty());
    if (!r) {
        // The failure is the file's, not that of the hidden name it travelled under.
        Error failure = r.error();
        failure.item = displayItem(target);
        return std::unexpected(failure);
    }
    return r;
}

KvMetadata stagedFolderFor(Wrapper& wrapper, const KvMetadata& target) {
    KvMetadata folder(FileTransferUtils::parentPath(target.pathOrEmpty()));
    folder.isDir = true;
    folder.serverID = target.serverID;
    folder.protocolType = target.protocolType;
    std::string name = FileTransferUtils::itemName(target);
    auto staged = itemInFolder(folder, TemporaryItems::nameFor(name), true);
    TemporaryItems::noteTemporary(TemporaryItems::placeOf(wrapper.serverInfo().get()),
                                  staged.pathOrEmpty());
    return staged;
}

Status finishStagedFolder(Wrapper& wrapper, const KvMetadata& staged, const KvMetadata& target,
                          bool built) {
    std::string place = TemporaryItems::placeOf(wrapper.serverInfo().get());
    Status r;
    if (built) {
        KvMetadata folder(FileTransferUtils::parentPath(target.pathOrEmpty()));
        folder.isDir = true;
        folder.serverID = target.serverID;
        folder.protocolType = target.protocolType;
        std::string name = FileTransferUtils::itemName(target);
        auto old = wrapper.metadataOfItemSync(target);
        if (!old && !old.error().is(ErrorKind::NotFound)) {
            r = std::unexpected(old.error());
        } else if (!old) {
            r = wrapper.moveSync(staged, itemInFolder(folder, name, true));
        } else {
            bool oldIsDir = old->isDir && !old->isSymbolLink;
            auto aside = itemInFolder(folder, TemporaryItems::nameFor(name), oldIsDir);
            auto placed = itemInFolder(folder, name, oldIsDir);
            TemporaryItems::noteAside(place, aside.pathOrEmpty(), target.pathOrEmpty());
            r = wrapper.moveSync(placed, aside);
            if (r) {
                r = wrapper.moveSync(staged, itemInFolder(folder, name, true));
                if (r)
                    removeQuietly(wrapper, aside);
                else
                    (void)wrapper.moveSync(aside, placed);
            }
            TemporaryItems::forgetTemporary(place, aside.pathOrEmpty());
        }
    }
    if (!built || !r) removeQuietly(wrapper, staged);
    TemporaryItems::forgetTemporary(place, staged.pathOrEmpty());
    return r;
}

void removeLeftovers(Wrapper& wrapper) {
    const auto& server = wrapper.serverInfo();
    std::string place = TemporaryItems::placeOf(server.get());
    auto leftovers = TemporaryItems::takeLeftovers(place);
    auto folderOf = [&](const std::string& path) {
        KvMetadata folder(FileTransferUtils::parentPath(path));
        folder.isDir = true;
        folder.serverID = server->serverID;
        folder.protocolType = server->protocolType;
        return folder;
    };
    for (auto& leftover : leftovers) {
        auto folder = folderOf(leftover.path);
        std::string name = StringUtils::lastPathComponent(leftover.path);
        if (leftover.restoreTo.empty()) {
            removeQuietly(wrapper, itemInFolder(folder, name, false));
            TemporaryItems::forgetTemporary(place, leftover.path);
            continue;
        }
        // An old item that stepped aside for a new one: back to its place when nothing took
        // that, else it is no longer needed.
        auto listing = wrapper.contentsOfDirectoryAtPathSync(folder);
        if (listing) {
            std::string targetName = StringUtils::lastPathComponent(leftover.restoreTo);
            const KvMetadata* aside = nullptr;
            bool targetThere = false;
            for (auto& entry : *listing) {
                auto entryName = FileTransferUtils::itemName(entry);
                if (entryName == name) aside = &entry;
                targetThere |= entryName == targetName;
            }
            if (aside && targetThere)
                removeQuietly(wrapper, itemInFolder(folder, name, aside->isDir));
            else if (aside)
                (void)wrapper.moveSync(itemInFolder(folder, name, aside->isDir),
                                       itemInFolder(folder, targetName, aside->isDir));
        }
        TemporaryItems::forgetTemporary(place, leftover.path);
    }
}

}  // namespace quillon::RemoteUpload
