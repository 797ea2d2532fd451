#pragma once
// KvMetadata: one file or folder on any storage, the unit every Wrapper operation takes and
// returns. FolderItemCount: the result of counting a folder's contents.

#include <any>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Plist.h"

namespace quillon {

using TimePoint = std::chrono::system_clock::time_point;
using OptString = std::optional<std::string>;

class KvMetadata {
  public:
    // Plain fields, in declaration order.
    bool isDir = false;
    bool isSymbolLink = false;
    bool isIcloudPlaceHold = false;
    bool file_update = false;
    std::int32_t iCloudDownloadPercent = 0;
    std::int32_t protocolType = 0;
    std::any userData;
    std::optional<TimePoint> timestamp;
    std::optional<TimePoint> createTimestamp;
    OptString localPath;
    std::optional<std::uint64_t> fileSizeInBytes;
    std::shared_ptr<const KvMetadata> parentFolderMeta;
    std::any iCloudQuery;
    OptString etag;
    OptString fileExtension;
    OptString identifier;
    OptString downloadLink;
    OptString thumbnailLink;
    OptString file_update_fileid;
    OptString serverID;
    OptString gdocs_editlink;
    OptString sharedDriveID;
    OptString unixPermission;
    OptString owner;
    OptString group;
    OptString timestampString;
    OptString symbolLinkTarget;
    std::shared_ptr<std::vector<std::uint8_t>> streamHeaderCache;

    KvMetadata() = default;
    // A record whose path is `path` and whose name is its last path component.
    explicit KvMetadata(const std::string& path);

    // Builds the record of a local item and, eagerly, its chain of ancestors up to "/".
    // An empty path gives no record.
    static std::shared_ptr<KvMetadata> generateLocalMetadata(const std::string& path, bool isDir);

    // The name of what a symbolic link points to when symbolLinkTarget is set, else the stored
    // name.
    OptString name() const;
    void setName(OptString n) { name_ = std::move(n); }
    // The stored name, link or not.
    const OptString& nameIgnoreLinkResolve() const { return name_; }
    // The stored path; SFTP records holding "sftp://host/..." are normalised on first read.
    OptString path() const;
    void setPath(OptString p) { path_ = std::move(p); }
    // name() or "" and path() or "" for callers that need plain text.
    std::string nameOrEmpty() const { return name().value_or(""); }
    std::string pathOrEmpty() const { return path().value_or(""); }

    // "serverID:isDir:identifier:path" ("(null)" for absent parts), lower-cased for Dropbox.
    std::string keyID() const;
    // A folder whose name is an iWork document package.
    bool iWorkDocFolder() const;
    // "Name=...; PATH=..."
    std::string description() const;

    // Keyed archive: exactly "timestamp", "isDir", "path", "name", "filesize", "identifier",
    // "protocolType", "serverID".
    PlistDict encode() const;
    static KvMetadata decode(const PlistDict& archive);
    // The archive as bytes (an XML property list) and back.
    std::string archivedData() const;
    static Result<KvMetadata> unarchive(std::string_view data);

    // The record's copy: exactly the nineteen copied fields; the rest start empty.
    KvMetadata copy() const;

  private:
    mutable OptString path_;
    OptString name_;
};

using KvMetadataPtr = std::shared_ptr<KvMetadata>;
using KvMetadataList = std::vector<KvMetadata>;

struct FolderItemCount {
    std::int64_t itemCount = 0;
    std::int64_t totalBytes = 0;
};

}  // namespace quillon
