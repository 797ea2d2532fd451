#pragma once
// SyncInfoService: the sync pairs, kept in the main database next to the server records.

#include <optional>
#include <vector>

#include "core/DBManager.h"
#include "core/Error.h"
#include "sync/SyncInfo.h"

namespace quillon {

class SyncInfoService {
  public:
    // The service on the program's main database.
    static SyncInfoService& sharedInstance();
    // A service on another database (tests, tools).
    explicit SyncInfoService(DBManager& db);

    // The pair of that server and remote folder path, or absent.
    std::optional<SyncInfo> getSyncInfo(const ServerInfo& server, const KvMetadata& remoteFolder);
    // Every pair, oldest first, each with its properties and its server looked up among all
    // configured servers (absent when none has the stored id).
    std::vector<SyncInfo> getAllSyncInfo();
    // The pair with that row id, or absent.
    std::optional<SyncInfo> getSyncInfoByID(std::int64_t syncInfoID);
    // Inserts the pair and its string properties; sets syncInfoID.
    [[nodiscard]] Status saveSyncInfo(SyncInfo& info);
    // Stores lastSyncDate and status.
    [[nodiscard]] Status updateSyncStatus(const SyncInfo& info);
    // Deletes the pair's row and its properties.
    [[nodiscard]] Status deleteSyncInfo(const SyncInfo& info);

  private:
    std::vector<SyncInfo> load(const std::string& sql, const std::vector<SqlValue>& params);

    DBManager& db_;
};

}  // namespace quillon
