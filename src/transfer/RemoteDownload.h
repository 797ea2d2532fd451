#pragma once
// RemoteDownload: fetching one file from a server through a Wrapper into a scratch file, which
// the caller then moves over its target in one step (LocalFileCopier::moveIntoPlace), so that
// partial data never lands where the user's file is.

#include <functional>
#include <string>

#include "core/Wrapper.h"

namespace quillon::RemoteDownload {

// Whether the scratch folder's volume and the target folder's both have room for the file
// ("No enough free space!" otherwise): the file passes through one and lands in the other.
[[nodiscard]] Status checkRoom(const KvMetadata& file, const std::string& scratchFolder,
                               const std::string& targetFolder);

// Fetches the file into `scratch` (a leftover there is removed first) and gives it the
// server's modification time. True: the file is at `scratch`; false: the wrapper produced
// none, or `stopped` turned true (then nothing is left at `scratch`). A failure leaves nothing
// there either.
[[nodiscard]] Result<bool> fetchFile(Wrapper& wrapper, const KvMetadata& file,
                                     const std::string& scratch, const ProgressHandler& progress,
                                     const std::function<bool()>& stopped);

}  // namespace quillon::RemoteDownload
