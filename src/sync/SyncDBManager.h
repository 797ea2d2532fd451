#pragma once
// SyncDBManager: the database of one sync pair, the file ".sync_db" in the pair's local folder.
// It records what the last sync saw of each item on each side (local_items, remote_items).

#include <sqlite3.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "core/Error.h"

namespace quillon {

class SyncDBManager {
  public:
    // The file name of a pair's database inside its local folder.
    static constexpr const char* kFileName = ".sync_db";

    explicit SyncDBManager(std::string dbPath);
    ~SyncDBManager();
    SyncDBManager(const SyncDBManager&) = delete;
    SyncDBManager& operator=(const SyncDBManager&) = delete;

    // Opens the file (creating it), then creates the missing tables.
    [[nodiscard]] Status openDB();
    // Opens an existing file for reading only; a missing file is no error and leaves the manager
    // closed (every lookup then finds nothing).
    [[nodiscard]] Status openDBReadOnly();
    void closeDB();
    sqlite3* getDatabase() const { return db_; }
    bool isOpened() const { return db_ != nullptr; }
    const std::string& dbPath() const { return dbPath_; }

    // Runs one statement that returns no rows.
    [[nodiscard]] Status execDDL(const std::string& sql);
    // Names of the tables in the database.
    std::vector<std::string> allCreatedTables();
    // True when `table` is not among `allTables`.
    static bool needCreateTable(const std::string& table,
                                const std::vector<std::string>& allTables);
    // Creates local_items and remote_items with their indexes, each only when the table is
    // missing.
    [[nodiscard]] Status createDBTables();

    // A prepared statement for `sql`, kept for the life of the connection; reset and unbound
    // when `StatementUse` ends.
    class StatementUse {
      public:
        StatementUse(SyncDBManager& db, const char* sql);
        ~StatementUse();
        StatementUse(const StatementUse&) = delete;
        StatementUse& operator=(const StatementUse&) = delete;
        sqlite3_stmt* get() const { return stmt_; }
        explicit operator bool() const { return stmt_ != nullptr; }

      private:
        sqlite3_stmt* stmt_ = nullptr;
    };
    // Runs a statement that returns no rows: `bind` binds its parameters. An error names `what`
    // ("Cannot record a local item in").
    [[nodiscard]] Status run(const char* sql, const std::string& what,
                             const std::function<void(sqlite3_stmt*)>& bind);
    // Runs `work` in one transaction; rolled back when it fails.
    [[nodiscard]] Status transaction(const std::function<Status()>& work);
    // The error of the connection's last failed call.
    Error lastError(const std::string& what) const;

  private:
    Status openWith(int flags);
    sqlite3_stmt* prepared(const char* sql);

    std::string dbPath_;
    sqlite3* db_ = nullptr;
    std::map<std::string, sqlite3_stmt*> statements_;
};

}  // namespace quillon
