#include "sync/SyncRemoteService.h"

#include "sync/SyncRecordColumns.h"
#include "sync/SyncUtils.h"

namespace quillon {

using namespace SyncRecordColumns;

namespace {
constexpr const char* kByRemote =
    "SELECT name, path, parent_path, is_dir, file_size, timestamp FROM remote_items WHERE path=? "
    "AND is_dir=?";
constexpr const char* kByLocal =
    "SELECT name, path, parent_path, is_dir, file_size, timestamp FROM remote_items WHERE "
    "local_path=? AND is_dir=?";
constexpr const char* kAdd =
    "INSERT INTO remote_items (name, path, parent_path, is_dir, file_size, timestamp, local_path) "
    "VALUES (?, ?, ?, ?, ?, ?, ?)";
constexpr const char* kUpdate = "UPDATE remote_items SET file_size=?, timestamp=? WHERE path=?";
constexpr const char* kDelete = "DELETE FROM remote_items WHERE path=?";

std::string parentRecordPath(const KvMetadata& remote) {
    if (remote.parentFolderMeta) return SyncUtils::getFullPath(*remote.parentFolderMeta);
    return StringUtils::stringByDeletingLastPathComponent(SyncUtils::getFullPath(remote));
}
}  // namespace

SyncRemoteService::SyncRemoteService(SyncDBManager& db) : db_(db), local_(db) {}

std::optional<KvMetadata> SyncRemoteService::lookup(const char* sql, const std::string& key,
                                                    bool isDir) {
    SyncDBManager::StatementUse use(db_, sql);
    if (!use) return std::nullopt;
    auto* stmt = use.get();
    bindText(stmt, 1, key);
    sqlite3_bind_int(stmt, 2, isDir ? 1 : 0);
    if (sqlite3_step(stmt) != SQLITE_ROW) return std::nullopt;
    KvMetadata m(text(stmt, 1));
    m.setName(text(stmt, 0));
    auto parent = std::make_shared<KvMetadata>(text(stmt, 2));
    parent->isDir = true;
    m.parentFolderMeta = std::move(parent);
    m.isDir = sqlite3_column_int(stmt, 3) != 0;
    m.fileSizeInBytes = size(stmt, 4);
    m.timestamp = time(stmt, 5);
    return m;
}

std::optional<KvMetadata> SyncRemoteService::getRemoteItemByRemoteMeta(const KvMetadata& remote) {
    return lookup(kByRemote, SyncUtils::getFullPath(remote), remote.isDir);
}

std::optional<KvMetadata> SyncRemoteService::getRemoteItemByLocalMeta(const KvMetadata& local) {
    return lookup(kByLocal, local_.storedPath(local.pathOrEmpty()), local.isDir);
}

Status SyncRemoteService::addRemoteItem(const KvMetadata& remote, const KvMetadata& local) {
    return db_.run(kAdd, "Cannot record a remote item in", [&](sqlite3_stmt* stmt) {
        bindText(stmt, 1, remote.nameOrEmpty());
        bindText(stmt, 2, SyncUtils::getFullPath(remote));
        bindText(stmt, 3, parentRecordPath(remote));
        sqlite3_bind_int(stmt, 4, remote.isDir ? 1 : 0);
        bindSize(stmt, 5, remote);
        bindTime(stmt, 6, remote.timestamp);
        bindText(stmt, 7, local_.storedPath(local.pathOrEmpty()));
    });
}

Status SyncRemoteService::updateRemoteItem(const KvMetadata& remote) {
    return db_.run(kUpdate, "Cannot update a remote item in", [&](sqlite3_stmt* stmt) {
        bindSize(stmt, 1, remote);
        bindTime(stmt, 2, remote.timestamp);
        bindText(stmt, 3, SyncUtils::getFullPath(remote));
    });
}

Status SyncRemoteService::deleteRemoteItem(const KvMetadata& remote) {
    return db_.run(kDelete, "Cannot delete a remote item from",
                   [&](sqlite3_stmt* stmt) { bindText(stmt, 1, SyncUtils::getFullPath(remote)); });
}

}  // namespace quillon
