#pragma once
// RemoteUpload: sending one local file to a server through a Wrapper so that the server never
// keeps partial data where the user's item is: every upload goes up under a hidden temporary
// name (TemporaryItems) and takes its own name, or the old item's place, only when complete; a
// failed or stopped upload removes what it left.

#include <functional>
#include <string>

#include "core/Wrapper.h"

namespace quillon::RemoteUpload {

// Uploads the file at `localPath` into `folder` under `name`; `record` is the source's record
// (its time and kind travel with it). `stopped` tells whether the task was stopped meanwhile.
// A name a server cannot be given unchanged (FileTransferUtils::checkNameForServer) is refused.
[[nodiscard]] Status uploadFile(Wrapper& wrapper, const KvMetadata& record,
                                const std::string& localPath, const KvMetadata& folder,
                                const std::string& name, bool replace,
                                const ProgressHandler& progress,
                                const std::function<bool()>& stopped);

// Replacing an item on a server by a folder: the new folder is built under a hidden temporary
// name beside the old item (stagedFolderFor, which notes it) and takes the old item's place only
// when complete (finishStagedFolder), so a failed or stopped copy leaves the old item as it was.
KvMetadata stagedFolderFor(Wrapper& wrapper, const KvMetadata& target);
// `built`: the staged folder is complete. Then the old item steps aside, the staged folder takes
// its name and the old item (a folder with its contents) is removed; otherwise, or when that
// fails, the staged folder is removed and the old item stays.
[[nodiscard]] Status finishStagedFolder(Wrapper& wrapper, const KvMetadata& staged,
                                        const KvMetadata& target, bool built);

// Removes the temporaries that killed runs left on the wrapper's server (taken from
// TemporaryItems::takeLeftovers); failures are ignored.
void removeLeftovers(Wrapper& wrapper);

// The record of `name` in `folder` on the folder's server.
KvMetadata itemInFolder(const KvMetadata& folder, const std::string& name, bool isDir);

}  // namespace quillon::RemoteUpload
