#include "core/DBManager.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "core/PathUtils.h"

namespace quillon {

const std::vector<std::pair<std::string, std::string>>& DBManager::tableStatements() {
    static const std::vector<std::pair<std::string, std::string>> tables = {
        {"bookmarks",
         "CREATE TABLE IF NOT EXISTS bookmarks (id INTEGER PRIMARY KEY, file_path TEXT, "
         "bookmark_page INTEGER)"},
        {"server_info",
         "CREATE TABLE IF NOT EXISTS server_info (id INTEGER PRIMARY KEY, server_uuid TEXT NOT "
         "NULL, protocol_type INTEGER, display_name TEXT NOT NULL, sort INTEGER)"},
        {"server_props",
         "CREATE TABLE IF NOT EXISTS server_props (id INTEGER PRIMARY KEY, server_uuid TEXT, key "
         "TEXT, value TEXT)"},
        {"ads_2",
         "CREATE TABLE IF NOT EXISTS ads_2 (id INTEGER PRIMARY KEY, app_id INTEGER UNIQUE, link "
         "TEXT, image_name TEXT, version INTEGER, adtype INTEGER, ad_percentage INTEGER, title "
         "TEXT, message TEXT, status INTEGER)"},
        {"favorites",
         "CREATE TABLE IF NOT EXISTS favorites (id INTEGER PRIMARY KEY, name TEXT, path TEXT, "
         "size INTEGER, parent_name TEXT, parent_path TEXT, timestamp REAL, protocol_type "
         "INTEGER, server_uuid TEXT, sort INTEGER, type INTEGER)"},
        {"favorites_props",
         "CREATE TABLE IF NOT EXISTS favorites_props (id INTEGER PRIMARY KEY, favorite_id "
         "INTEGER, key TEXT, value TEXT)"},
        {"sync_info",
         "CREATE TABLE IF NOT EXISTS sync_info (id INTEGER PRIMARY KEY, server_uuid TEXT, "
         "last_sync_time REAL, sync_status INTEGER, remote_folder_path TEXT, remote_folder_name "
         "TEXT, local_folder_name TEXT)"},
        {"sync_info_props",
         "CREATE TABLE IF NOT EXISTS sync_info_props (id INTEGER PRIMARY KEY, sync_info_id "
         "INTEGER, key TEXT, value TEXT)"},
    };
    return tables;
}

DBManager& DBManager::sharedDBManager() {
    static DBManager* shared = new DBManager(PathUtils::getDBFolderPath() + "/db.sqlite");
    return *shared;
}

DBManager::DBManager(std::string path) : path_(std::move(path)) {}

DBManager::~DBManager() {
    closeDB();
}

bool DBManager::isOpen() const {
    return db_ != nullptr;
}

namespace {
Error dbError(const std::string& what, sqlite3* db, const std::string& path) {
    return KvError::errorWithDomain(
        ErrorDomain::Generic, db ? sqlite3_errcode(db) : -1,
        fmt::format("{} {}: {}", what, path, db ? sqlite3_errmsg(db) : "out of memory"));
}
}  // namespace

Status DBManager::openDB() {
    std::lock_guard lock(mutex_);
    if (db_) return {};
    PathUtils::ensureFolder(std::filesystem::path(path_).parent_path().string());
    // The database holds passwords: create it readable by the user only.
    int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return KvError::fail(
            ErrorDomain::Generic, errno,
            fmt::format("Cannot open the database {}: {}", path_, strerror(errno)));
    ::close(fd);
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path_.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        auto e = dbError("Cannot open the database", db, path_);
        sqlite3_close(db);
        return std::unexpected(e);
    }
    sqlite3_busy_timeout(db, 5000);
    db_ = db;
    std::set<std::string> existing;
    auto listed = execute("SELECT name FROM sqlite_master WHERE type='table'", {},
                          [&](const SqlRow& r) { existing.insert(sqlText(r[0])); });
    if (!listed) {
        // Not a database (or a damaged one): leave the file as it is for the user to rescue.
        sqlite3_close(db_);
        db_ = nullptr;
        return KvError::fail(ErrorDomain::Generic, listed.error().code,
                             fmt::format("The database {} cannot be read ({}); it was left "
                                         "untouched. Move it away to start with an empty one.",
                                         path_, listed.error().reason));
    }
    for (auto& [name, sql] : tableStatements()) {
        if (existing.contains(name)) continue;
        if (auto r = execute(sql); !r) {
            sqlite3_close(db_);
            db_ = nullptr;
            return r;
        }
    }
    return {};
}

void DBManager::closeDB() {
    std::lock_guard lock(mutex_);
    if (db_) sqlite3_close(db_);
    db_ = nullptr;
}

Status DBManager::execute(const std::string& sql, const std::vector<SqlValue>& params,
                          const std::function<void(const SqlRow&)>& row) {
    std::lock_guard lock(mutex_);
    if (!db_) {
        if (auto r = openDB(); !r) return r;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK)
        return std::unexpected(dbError("Database statement failed on", db_, path_));
    for (std::size_t i = 0; i < params.size(); ++i) {
        int idx = static_cast<int>(i + 1);
        std::visit(
            [&](auto&& v) {
                using T = std::decay_t<decltype(v)>;
                if constexpr (std::is_same_v<T, std::nullptr_t>)
                    sqlite3_bind_null(stmt, idx);
                else if constexpr (std::is_same_v<T, std::int64_t>)
                    sqlite3_bind_int64(stmt, idx, v);
                else if constexpr (std::is_same_v<T, double>)
                    sqlite3_bind_double(stmt, idx, v);
                else
                    sqlite3_bind_text(stmt, idx, v.data(), static_cast<int>(v.size()),
                                      SQLITE_TRANSIENT);
            },
            params[i]);
    }
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        if (!row) continue;
        int n = sqlite3_column_count(stmt);
        SqlRow values;
        values.reserve(static_cast<std::size_t>(n));
        for (int c = 0; c < n; ++c) {
            switch (sqlite3_column_type(stmt, c)) {
                case SQLITE_INTEGER:
                    values.emplace_back(std::int64_t{sqlite3_column_int64(stmt, c)});
                    break;
                case SQLITE_FLOAT:
                    values.emplace_back(sqlite3_column_double(stmt, c));
                    break;
                case SQLITE_NULL:
                    values.emplace_back(nullptr);
                    break;
                default: {
                    auto* t = reinterpret_cast<const char*>(sqlite3_column_text(stmt, c));
                    values.emplace_back(std::string(
                        t ? t : "", static_cast<std::size_t>(sqlite3_column_bytes(stmt, c))));
                }
            }
        }
        row(values);
    }
    Status result;
    if (rc != SQLITE_DONE)
        result = std::unexpected(dbError("Database statement failed on", db_, path_));
    sqlite3_finalize(stmt);
    return result;
}

Result<std::vector<SqlRow>> DBManager::query(const std::string& sql,
                                             const std::vector<SqlValue>& params) {
    std::vector<SqlRow> rows;
    auto r = execute(sql, params, [&](const SqlRow& row) { rows.push_back(row); });
    if (!r) return std::unexpected(r.error());
    return rows;
}

Status DBManager::transaction(const std::function<Status()>& work) {
    std::lock_guard lock(mutex_);
    if (auto r = execute("BEGIN"); !r) return r;
    auto result = work();
    if (result) {
        if (auto c = execute("COMMIT"); !c) {
            (void)execute("ROLLBACK");
            return c;
        }
    } else {
        (void)execute("ROLLBACK");
    }
    return result;
}

std::int64_t DBManager::lastInsertRowId() {
    std::lock_guard lock(mutex_);
    return db_ ? sqlite3_last_insert_rowid(db_) : 0;
}

std::string sqlText(const SqlValue& v) {
    if (auto s = std::get_if<std::string>(&v)) return *s;
    if (auto i = std::get_if<std::int64_t>(&v)) return std::to_string(*i);
    if (auto d = std::get_if<double>(&v)) return fmt::format("{}", *d);
    return {};
}

std::int64_t sqlInt(const SqlValue& v) {
    if (auto i = std::get_if<std::int64_t>(&v)) return *i;
    if (auto d = std::get_if<double>(&v)) return static_cast<std::int64_t>(*d);
    if (auto s = std::get_if<std::string>(&v)) return std::strtoll(s->c_str(), nullptr, 10);
    return 0;
}

double sqlReal(const SqlValue& v) {
    if (auto d = std::get_if<double>(&v)) return *d;
    if (auto i = std::get_if<std::int64_t>(&v)) return static_cast<double>(*i);
    if (auto s = std::get_if<std::string>(&v)) return std::strtod(s->c_str(), nullptr);
    return 0;
}

}  // namespace quillon
