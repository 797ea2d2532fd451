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

// Removes the temporaries that killed runs left on the wrapper's server (taken from
// TemporaryItems::takeLeftovers); failures are ignored.
void removeLeftovers(Wrapper& wrapper);

// The record of `name` in `folder` on the folder's server.
KvMetadata itemInFolder(const KvMetadata& folder, const std::string& name, bool isDir);

}  // namespace quillon::RemoteUpload
