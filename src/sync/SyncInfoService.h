#pragma once
// SyncInfoService: the sync pairs, kept in the main database next to the server records.

#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "core/DBManager.h"
#include "core/Error.h"
#include "core/Location.h"
#include "core/Refusal.h"
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
    // The pairs whose server has that id, oldest first.
    std::vector<SyncInfo> pairsUsingServer(const std::string& serverID);
    // The pair with that row id, or absent.
    std::optional<SyncInfo> getSyncInfoByID(std::int64_t syncInfoID);
    // Inserts the pair and its string properties; sets syncInfoID.
    [[nodiscard]] Status saveSyncInfo(SyncInfo& info);
    // Stores lastSyncDate and status.
    [[nodiscard]] Status updateSyncStatus(const SyncInfo& info);
    // Deletes the pair's row and its properties.
    [[nodiscard]] Status deleteSyncInfo(const SyncInfo& info);

    // The pair rules every face applies.

    // A name a new pair's local folder may get: safe, and visible (not starting with ".").
    static bool isValidNewLocalName(const std::string& name);
    // Pairs the folder at `remote` with "Synced/`localName`": refused for a bad local name, a
    // quick-connect server, a missing folder or a file, a local name or folder already paired,
    // and a local folder that overlaps its own sync folder. Records left in that sync folder by
    // a forgotten pair of the same name are removed.
    std::expected<SyncInfo, Refusal> addPair(const Location& remote, const std::string& localName);
    // Forgets the pair with that id and its records in the sync folder; the user's files stay.
    // Refused for an unknown id and while the pair is syncing. Returns the pair as it was.
    std::expected<SyncInfo, Refusal> removePair(std::int64_t syncInfoID);
    // The status as a user reads it: "refused" for an unsafe local name, "interrupted" for a pair
    // left running by a process that is gone, else the stored status's name.
    static std::string statusText(const SyncInfo& info);
    // Removes a pair's own records from its sync folder: the pair database and its journals, and
    // the run lock.
    static void removePairRecords(const std::string& localFolderPath);

  private:
    std::vector<SyncInfo> load(const std::string& sql, const std::vector<SqlValue>& params);

    DBManager& db_;
};

}  // namespace quillon
