#pragma once
// SyncUtils: where sync pairs live on the local disk, the time rule of the sync algorithm, and
// the record paths of remote items (cloud drives address items by identifier).

#include <optional>
#include <string>

#include "core/KvMetadata.h"

namespace quillon::SyncUtils {

// The leading part of a record path built from identifiers.
inline constexpr const char* kCloudPathPrefix = "/CLOUD_PATH/";

// The home folder joined with "Synced".
std::string getSyncBaseFolderPath();
// Creates the base folder (with intermediate folders) when missing; true when it exists.
bool createSyncBaseFolderPath();
// The base folder joined with `name`; created when missing.
std::string getSyncFolderPath(const std::string& name);
// The part of `path` after the base folder's path; `path` unchanged when the base folder does
// not occur in it.
std::string getRelativePath(const std::string& path);
// The base folder joined with a relative path.
std::string getAbsolutePath(const std::string& relativePath);

// The lock file a running sync holds in its local folder.
inline constexpr const char* kLockFileName = ".sync_lock";
// Whether a sync of the pair whose local folder this is runs now (in any process).
bool isSyncRunning(const std::string& localFolderPath);

// True when both dates are present and differ by at most 1.0 second.
bool fuzzyCompareDate(const std::optional<TimePoint>& a, const std::optional<TimePoint>& b);

// Whether items of this kind of server are addressed by identifier (Google Drive, OneDrive, Box).
bool isCloudProtocol(std::int32_t protocolType);
// The path under which a remote item is recorded: its path, or for cloud kinds
// "/CLOUD_PATH/" followed by "identifier::name/" for each ancestor and "identifier::name" for
// the item.
std::string getFullPath(const KvMetadata& item);
// The identifier in the last component of a "/CLOUD_PATH/" path; absent for other paths.
std::optional<std::string> getIdentify(const std::string& path);

// The record of the local item `name` in `folder`, which need not exist yet.
KvMetadata localChild(const KvMetadata& folder, const std::string& name, bool isDir);

}  // namespace quillon::SyncUtils
