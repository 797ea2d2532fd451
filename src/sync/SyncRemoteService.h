#pragma once
// SyncRemoteService: what the last sync recorded of each remote item of a pair (remote_items):
// the item's record path (SyncUtils::getFullPath), its parent's, and the path of its local twin
// (stored relative to the sync base folder, like SyncLocalService's). A lookup that finds no row
// (or fails) yields no record. Rows are updated and deleted by path alone.

#include <optional>
#include <string>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "sync/SyncDBManager.h"
#include "sync/SyncLocalService.h"

namespace quillon {

class SyncRemoteService {
  public:
    explicit SyncRemoteService(SyncDBManager& db);

    // The record of a remote item, found by its record path and directory flag.
    std::optional<KvMetadata> getRemoteItemByRemoteMeta(const KvMetadata& remote);
    // The record of the remote twin of a local item (by the local path and flag).
    std::optional<KvMetadata> getRemoteItemByLocalMeta(const KvMetadata& local);
    // Adds the record of `remote` (parent path from its parent folder), whose twin is `local`.
    [[nodiscard]] Status addRemoteItem(const KvMetadata& remote, const KvMetadata& local);
    // Stores size and time of the record with the item's record path.
    [[nodiscard]] Status updateRemoteItem(const KvMetadata& remote);
    [[nodiscard]] Status deleteRemoteItem(const KvMetadata& remote);

  private:
    std::optional<KvMetadata> lookup(const char* sql, const std::string& key, bool isDir);
    SyncDBManager& db_;
    SyncLocalService local_;  // for the stored form of local paths
};

}  // namespace quillon
