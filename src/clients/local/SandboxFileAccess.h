#pragma once
// SandboxFileAccess: the one choke point for local file-system access. Each operation opens
// access for its paths, does one file-system operation and closes the access again, and the
// listing builds the KvMetadata records of a folder's children. Linux runs the program without
// a sandbox, so the access steps are empty; they stay here so that one place decides access.
//
// Failures are in domain "Local": a missing item is 10008 "File not found!", any other
// platform failure carries errno as its code and reads "<path>: <system message>".

#include <string>
#include <string_view>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "core/Wrapper.h"

namespace quillon::SandboxFileAccess {

// Access to a path for the life of the object. Empty on a system without sandboxing.
class ScopedAccess {
  public:
    explicit ScopedAccess([[maybe_unused]] std::string_view path) {}
    ScopedAccess(const ScopedAccess&) = delete;
    ScopedAccess& operator=(const ScopedAccess&) = delete;
};

// Enumeration options of a listing.
struct ListOptions {
    bool skipsHiddenFiles = false;  // leave out names beginning with "."
};

// The children of `folder` (a symbolic-link folder lists its target). Fails with 10008 for a
// missing folder.
[[nodiscard]] Result<KvMetadataList> contentsOfDirectory(const KvMetadata& folder,
                                                         ListOptions options);
// The same children handed over in batches while the folder is read: the first holds at most
// `firstBatch` records, each later one up to twice the one before (16,384 at most). `batch`
// returning false stops the listing.
[[nodiscard]] Status contentsOfDirectory(const KvMetadata& folder, ListOptions options,
                                         std::size_t firstBatch, const ListingBatchHandler& batch);
// The children of the folder at `path`, each with `folder` as parent record and the folder's
// serverID and protocolType. Fails with 10008 for a missing folder.
[[nodiscard]] Result<KvMetadataList> listDir(const std::string& path, const KvMetadata& folder,
                                             ListOptions options);
// The record of the one item at `path` (a link itself, not its target), as a listing of its
// folder gives it; a file kept in the cloud is found by its placeholder. Fails with 10008 when
// it is missing.
// The record takes serverID and protocolType from `like`.
[[nodiscard]] Result<KvMetadata> itemAt(const std::string& path, const KvMetadata& like);
// Copies the item: folders with their contents, symbolic links as links, files with their mode
// and times. Fails with EEXIST when `to` exists, 10008 when `from` is missing; a failed copy
// leaves nothing at `to`.
[[nodiscard]] Status copyItemFrom(const std::string& from, const std::string& to);
// Moves or renames the item; across file systems it is copied, then removed. Fails with EEXIST
// when `to` exists, 10008 when `from` is missing.
[[nodiscard]] Status moveItemFrom(const std::string& from, const std::string& to);
// Creates one folder; its parent must exist. Fails with EEXIST when something is there.
[[nodiscard]] Status createFolder(const std::string& path);
// Removes the item permanently, folders with their contents; links are removed, never followed.
// Fails with 10008 when it is missing.
[[nodiscard]] Status removeItem(const std::string& path);
// Moves the item into the freedesktop.org Trash (files/ and a .trashinfo in info/) and returns
// its path there. Fails with 10008 when it is missing.
[[nodiscard]] Result<std::string> trashItem(const std::string& path);
// The Trash folder of the user's data home (below the program's home when QUILLON_HOME is set).
std::string trashFolderPath();

}  // namespace quillon::SandboxFileAccess
