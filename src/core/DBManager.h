#pragma once
// DBManager: the one connection to "db.sqlite" (servers, favourites, sync pairs, bookmarks).
// Opening creates every table that is missing; columns are never altered.

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "core/Error.h"

namespace quillon {

// A value bound to a statement parameter or read from a column.
using SqlValue = std::variant<std::nullptr_t, std::int64_t, double, std::string>;
using SqlRow = std::vector<SqlValue>;

class DBManager {
  public:
    static DBManager& sharedDBManager();
    // A manager for one database file, for tests and tools.
    explicit DBManager(std::string path);
    ~DBManager();

    // Opens the database (once) and creates the missing tables. A file that is not a database
    // fails with a clear error and is left untouched.
    Status openDB();
    void closeDB();
    bool isOpen() const;
    const std::string& path() const { return path_; }

    // Runs one statement with bound parameters; rows are handed to `row` if given.
    Status execute(const std::string& sql, const std::vector<SqlValue>& params = {},
                   const std::function<void(const SqlRow&)>& row = {});
    // Collects all rows.
    Result<std::vector<SqlRow>> query(const std::string& sql,
                                      const std::vector<SqlValue>& params = {});
    // Runs `work` inside one transaction, rolled back when it fails.
    Status transaction(const std::function<Status()>& work);
    std::int64_t lastInsertRowId();

    // The table statements run when a table is missing.
    static const std::vector<std::pair<std::string, std::string>>& tableStatements();

  private:
    std::string path_;
    sqlite3* db_ = nullptr;
    std::recursive_mutex mutex_;
};

// Column helpers for SqlRow values.
std::string sqlText(const SqlValue& v);
std::int64_t sqlInt(const SqlValue& v);
double sqlReal(const SqlValue& v);

}  // namespace quillon
