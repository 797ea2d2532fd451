#include "transfer/RemoteUpload.h"

#include <unistd.h>

#include "core/ServerInfo.h"
#include "core/StringUtils.h"
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

Status sendAs(Wrapper& wrapper, const KvMetadata& record, const std::string& localPath,
              const KvMetadata& folder, const std::string& name, const ProgressHandler& progress) {
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
    auto target = itemInFolder(folder, name, false);
    if (!replace) {
        auto r = sendAs(wrapper, record, localPath, folder, name, progress);
        if (!r || stopped()) removeQuietly(wrapper, target);
        return r;
    }
    std::string token = makeUUID().substr(0, 8);
    auto partial = itemInFolder(folder, "." + name + ".part-" + token, false);
    auto r = sendAs(wrapper, record, localPath, folder, partial.nameOrEmpty(), progress);
    if (!r || stopped()) {
        removeQuietly(wrapper, partial);
        return r;
    }
    // The old item steps aside before the new one takes its name, and comes back if that fails.
    auto aside = itemInFolder(folder, "." + name + ".old-" + token, false);
    bool hadOld = wrapper.moveSync(target, aside).has_value();
    if (auto moved = wrapper.moveSync(partial, target); !moved) {
        if (hadOld) (void)wrapper.moveSync(aside, target);
        removeQuietly(wrapper, partial);
        return moved;
    }
    if (hadOld) removeQuietly(wrapper, aside);
    return {};
}

}  // namespace quillon::RemoteUpload
