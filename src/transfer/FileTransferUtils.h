#pragma once
// FileTransferUtils: the small rules every task shares: unique names for "keep both", free disk
// space, the target record of a copied item, the scratch folder of a task, the into-itself test.

#include <cstdint>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "core/Wrapper.h"

namespace quillon::FileTransferUtils {

// `name` when no entry of the listing has it (case-sensitive); else the first free candidate
// "base-n.ext" (or "base-n" without an extension) for n = 1, 2, ...; after 9999 taken candidates
// the name unchanged.
std::string getUniqueFileName(const KvMetadataList& listing, const std::string& name);
// The same rule against the entries of a local folder; returns the full path.
std::string uniqueFilePathInFolder(const std::string& folder, const std::string& name);

// Bytes free for an unprivileged user on the volume that holds `path` (the home folder by
// default), through statvfs; 0 when it cannot be read.
std::uint64_t totalFreeDiskSpace();
std::uint64_t totalFreeDiskSpace(const std::string& path);

// A copy of the source record placed in the target folder: path = folder path + name (joined
// without normalising), protocol type, server id and parent of the folder, the source's time.
KvMetadata targetMetadataWithSourceMetadata(const KvMetadata& source, const KvMetadata& folder);
// The same record renamed to `name` in the same folder.
void renameTarget(KvMetadata& target, const std::string& name);

// A fresh scratch folder for one task: the program's temporary folder joined with a UUID, held
// by this process until removed (the next start removes those of killed runs).
Result<std::string> makeTaskTempFolder();
// Removes a scratch folder and everything in it; missing is fine.
void removeTaskTempFolder(const std::string& path);
// Whether a listed item is a hidden temporary of an unfinished transfer, which transfers leave
// out of their listings.
bool isTemporary(const KvMetadata& item);

// "Cannot create file %@" in "Local" (10002). With the system's reason `err` when it says more
// than that: a path longer than the system allows names only its end, and says so.
std::unexpected<Error> cannotCreateFile(const std::string& path, int err = 0);

// Whether a server can be given `name`: a local name that is not valid UTF-8 would not arrive
// unchanged, so it is refused with an error naming `localPath`.
Status checkNameForServer(const std::string& name, const std::string& localPath);
// Whether a path lies in the program's temporary folder.
bool isTempFilePath(const std::string& path);

// True when `targetFolder` is `source` or lies below it (the test is on paths with "/" added),
// so copying or moving `source` there must be refused.
bool isCopyIntoItself(std::string_view sourcePath, std::string_view targetFolder);
// The refusal text for that case.
std::string copyIntoItselfMessage();

// After an upload that reported success: the server must list `name` in `folder` with the size
// of the local file at `localPath`, or the upload fails with 10007 (a data connection may end
// early while the server still confirms it). Passes when the client checks this itself, or the
// listing shows no size for the item; a failed listing is returned.
[[nodiscard]] Status checkUploadedSize(Wrapper& wrapper, const std::string& localPath,
                                       const KvMetadata& folder, const std::string& name);

// The parent folder's path of an item path ("/" for top-level items).
std::string parentPath(std::string_view path);
// The item's own name (a link's name, not its target's), or the last component of its path.
std::string itemName(const KvMetadata& item);

}  // namespace quillon::FileTransferUtils
