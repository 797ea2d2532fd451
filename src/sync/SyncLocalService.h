#pragma once
// SyncLocalService: what the last sync recorded of each local item of a pair (local_items).
// Local paths are stored relative to the sync base folder, so a pair survives a moved home
// folder; they are given and returned absolute. A lookup that finds no row (or fails) yields no
// record. Rows are updated and deleted by path and directory flag.

#include <optional>
#include <string>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "sync/SyncDBManager.h"

namespace quillon {

class SyncLocalService {
  public:
    explicit SyncLocalService(SyncDBManager& db);

    // The record of a local item, found by its path and directory flag.
    std::optional<KvMetadata> getLocalItemByLocalMeta(const KvMetadata& local);
    // The record of the local twin of a remote item (by its record path and flag).
    std::optional<KvMetadata> getLocalItemByRemoteMeta(const KvMetadata& remote);
    // Adds the record of `local`, whose twin is `remote`.
    [[nodiscard]] Status addLocalItem(const KvMetadata& local, const KvMetadata& remote);
    // Stores size and time of the record with the item's path and flag.
    [[nodiscard]] Status updateLocalItem(const KvMetadata& local);
    [[nodiscard]] Status deleteLocalItem(const KvMetadata& local);

    // The stored form of an absolute local path, and back.
    std::string storedPath(const std::string& absolute) const;
    std::string absolutePath(const std::string& stored) const;

  private:
    std::optional<KvMetadata> lookup(const char* sql, const std::string& key, bool isDir);
    SyncDBManager& db_;
    std::string base_;
};

}  // namespace quillon
