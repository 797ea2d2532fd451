#pragma once
// Column helpers shared by SyncLocalService and SyncRemoteService.

#include <sqlite3.h>

#include <chrono>
#include <optional>
#include <string>

#include "core/KvMetadata.h"
#include "core/StringUtils.h"

namespace quillon::SyncRecordColumns {

inline void bindText(sqlite3_stmt* stmt, int idx, const std::string& s) {
    sqlite3_bind_text(stmt, idx, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
}

inline void bindTime(sqlite3_stmt* stmt, int idx, const std::optional<TimePoint>& t) {
    if (!t)
        sqlite3_bind_null(stmt, idx);
    else
        sqlite3_bind_double(stmt, idx,
                            std::chrono::duration<double>(t->time_since_epoch()).count());
}

inline void bindSize(sqlite3_stmt* stmt, int idx, const KvMetadata& m) {
    if (m.fileSizeInBytes)
        sqlite3_bind_int64(stmt, idx, static_cast<sqlite3_int64>(*m.fileSizeInBytes));
    else
        sqlite3_bind_null(stmt, idx);
}

inline std::string text(sqlite3_stmt* stmt, int col) {
    auto* t = reinterpret_cast<const char*>(sqlite3_column_text(stmt, col));
    return t ? std::string(t, static_cast<std::size_t>(sqlite3_column_bytes(stmt, col)))
             : std::string();
}

inline std::optional<TimePoint> time(sqlite3_stmt* stmt, int col) {
    if (sqlite3_column_type(stmt, col) == SQLITE_NULL) return std::nullopt;
    auto secs = std::chrono::duration<double>(sqlite3_column_double(stmt, col));
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(secs));
}

inline std::optional<std::uint64_t> size(sqlite3_stmt* stmt, int col) {
    if (sqlite3_column_type(stmt, col) == SQLITE_NULL) return std::nullopt;
    return static_cast<std::uint64_t>(sqlite3_column_int64(stmt, col));
}

}  // namespace quillon::SyncRecordColumns
