#include "sync/SyncDBManager.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

namespace quillon {

namespace {

struct TableDefinition {
    const char* name;
    std::vector<const char*> statements;
};

const std::vector<TableDefinition>& tableDefinitions() {
    static const std::vector<TableDefinition> tables = {
        {"local_items",
         {"CREATE TABLE IF NOT EXISTS local_items (id INTEGER PRIMARY KEY, name TEXT, path TEXT, "
          "remote_path TEXT, is_dir INTEGER, file_size INTEGER, timestamp REAL)",
          "CREATE INDEX IF NOT EXISTS local_items_path_idx ON local_items (path)",
          "CREATE INDEX IF NOT EXISTS local_items_remote_path_idx ON local_items (remote_path)"}},
        {"remote_items",
         {"CREATE TABLE IF NOT EXISTS remote_items (id INTEGER PRIMARY KEY, name TEXT, path TEXT, "
          "local_path TEXT, parent_path TEXT, is_dir INTEGER, file_size INTEGER, timestamp REAL)",
          "CREATE INDEX IF NOT EXISTS remote_items_path_idx ON remote_items (path)",
          "CREATE INDEX IF NOT EXISTS remote_items_local_path_idx ON remote_items (local_path)"}},
    };
    return tables;
}

}  // namespace

SyncDBManager::SyncDBManager(std::string dbPath) : dbPath_(std::move(dbPath)) {}

SyncDBManager::~SyncDBManager() {
    closeDB();
}

Error SyncDBManager::lastError(const std::string& what) const {
    return KvError::errorWithDomain(
        ErrorDomain::FileSync, db_ ? sqlite3_errcode(db_) : -1,
        fmt::format("{} {}: {}", what, dbPath_, db_ ? sqlite3_errmsg(db_) : "not open"));
}

Status SyncDBManager::openWith(int flags) {
    if (db_) return {};
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(dbPath_.c_str(), &db, flags | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK) {
        auto e =
            KvError::errorWithDomain(ErrorDomain::FileSync, db ? sqlite3_errcode(db) : -1,
                                     fmt::format("Cannot open the sync database {}: {}", dbPath_,
                                                 db ? sqlite3_errmsg(db) : "out of memory"));
        sqlite3_close(db);
        return std::unexpected(e);
    }
    db_ = db;
    sqlite3_busy_timeout(db_, 5000);
    return {};
}

Status SyncDBManager::openDB() {
    if (db_) return {};
    if (auto r = openWith(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE); !r) return r;
    // One sync task owns the file for the whole run (its lock file keeps other runs out): the
    // file lock is taken once instead of around each of the run's many statements, and the
    // write-ahead log keeps its index in memory. Set before the first access, as it must be.
    (void)execDDL("PRAGMA locking_mode=EXCLUSIVE");
    // Records are written one item at a time right after each transfer. A write-ahead log
    // without a sync per commit keeps that cheap, and a killed process still loses nothing
    // that was committed.
    (void)execDDL("PRAGMA journal_mode=WAL");
    (void)execDDL("PRAGMA synchronous=NORMAL");
    if (auto r = createDBTables(); !r) {
        closeDB();
        return r;
    }
    return {};
}

Status SyncDBManager::openDBReadOnly() {
    if (db_) return {};
    if (::access(dbPath_.c_str(), F_OK) != 0) return {};
    return openWith(SQLITE_OPEN_READONLY);
}

void SyncDBManager::closeDB() {
    for (auto& [sql, stmt] : statements_) sqlite3_finalize(stmt);
    statements_.clear();
    if (db_) sqlite3_close(db_);
    db_ = nullptr;
}

Status SyncDBManager::execDDL(const std::string& sql) {
    if (!db_) return std::unexpected(lastError("No database open at"));
    char* message = nullptr;
    if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
        std::string text = message ? message : "unknown error";
        sqlite3_free(message);
        return KvError::fail(
            ErrorDomain::FileSync, sqlite3_errcode(db_),
            fmt::format("Sync database statement failed on {}: {}", dbPath_, text));
    }
    return {};
}

std::vector<std::string> SyncDBManager::allCreatedTables() {
    std::vector<std::string> tables;
    if (!db_) return tables;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, "SELECT name FROM sqlite_master WHERE type='table'", -1, &stmt,
                           nullptr) != SQLITE_OK)
        return tables;
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        auto* t = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
        if (t) tables.emplace_back(t);
    }
    sqlite3_finalize(stmt);
    return tables;
}

bool SyncDBManager::needCreateTable(const std::string& table,
                                    const std::vector<std::string>& allTables) {
    return std::find(allTables.begin(), allTables.end(), table) == allTables.end();
}

Status SyncDBManager::createDBTables() {
    auto existing = allCreatedTables();
    for (auto& table : tableDefinitions()) {
        if (!needCreateTable(table.name, existing)) continue;
        for (auto* sql : table.statements)
            if (auto r = execDDL(sql); !r) return r;
    }
    return {};
}

sqlite3_stmt* SyncDBManager::prepared(const char* sql) {
    if (!db_) return nullptr;
    auto it = statements_.find(sql);
    if (it != statements_.end()) return it->second;
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, sql, -1, &stmt, nullptr) != SQLITE_OK) return nullptr;
    statements_.emplace(sql, stmt);
    return stmt;
}

SyncDBManager::StatementUse::StatementUse(SyncDBManager& db, const char* sql)
    : stmt_(db.prepared(sql)) {}

SyncDBManager::StatementUse::~StatementUse() {
    if (!stmt_) return;
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
}

Status SyncDBManager::run(const char* sql, const std::string& what,
                          const std::function<void(sqlite3_stmt*)>& bind) {
    StatementUse use(*this, sql);
    if (!use) return std::unexpected(lastError(what));
    bind(use.get());
    if (sqlite3_step(use.get()) != SQLITE_DONE) return std::unexpected(lastError(what));
    return {};
}

Status SyncDBManager::transaction(const std::function<Status()>& work) {
    if (auto r = execDDL("BEGIN"); !r) return r;
    auto result = work();
    if (result) {
        if (auto c = execDDL("COMMIT"); !c) {
            (void)execDDL("ROLLBACK");
            return c;
        }
    } else {
        (void)execDDL("ROLLBACK");
    }
    return result;
}

}  // namespace quillon
