#include "sync/SyncLocalService.h"

#include "core/ServerInfo.h"
#include "sync/SyncRecordColumns.h"
#include "sync/SyncUtils.h"

namespace quillon {

using namespace SyncRecordColumns;

namespace {
constexpr const char* kByLocal =
    "SELECT name, path, is_dir, file_size, timestamp FROM local_items WHERE path=? AND is_dir=?";
constexpr const char* kByRemote =
    "SELECT name, path, is_dir, file_size, timestamp FROM local_items WHERE remote_path=? AND "
    "is_dir=?";
constexpr const char* kAdd =
    "INSERT INTO local_items (name, path, is_dir, file_size, timestamp, remote_path) VALUES (?, "
    "?, ?, ?, ?, ?)";
constexpr const char* kUpdate =
    "UPDATE local_items SET file_size=?, timestamp=? WHERE path=? AND is_dir=?";
constexpr const char* kDelete = "DELETE FROM local_items WHERE path=? AND is_dir=?";
}  // namespace

SyncLocalService::SyncLocalService(SyncDBManager& db)
    : db_(db), base_(SyncUtils::getSyncBaseFolderPath()) {}

std::string SyncLocalService::storedPath(const std::string& absolute) const {
    if (absolute.size() > base_.size() && absolute.starts_with(base_) &&
        absolute[base_.size()] == '/')
        return absolute.substr(base_.size());
    return absolute;
}

std::string SyncLocalService::absolutePath(const std::string& stored) const {
    // Every local folder of a pair lies under the base folder, so stored paths are relative.
    return base_ + stored;
}

std::optional<KvMetadata> SyncLocalService::lookup(const char* sql, const std::string& key,
                                                   bool isDir) {
    SyncDBManager::StatementUse use(db_, sql);
    if (!use) return std::nullopt;
    auto* stmt = use.get();
    bindText(stmt, 1, key);
    sqlite3_bind_int(stmt, 2, isDir ? 1 : 0);
    if (sqlite3_step(stmt) != SQLITE_ROW) return std::nullopt;
    KvMetadata m(absolutePath(text(stmt, 1)));
    m.setName(text(stmt, 0));
    m.isDir = sqlite3_column_int(stmt, 2) != 0;
    m.fileSizeInBytes = size(stmt, 3);
    m.timestamp = time(stmt, 4);
    m.protocolType = ProtocolType::Local;
    m.localPath = m.path();
    return m;
}

std::optional<KvMetadata> SyncLocalService::getLocalItemByLocalMeta(const KvMetadata& local) {
    return lookup(kByLocal, storedPath(local.pathOrEmpty()), local.isDir);
}

std::optional<KvMetadata> SyncLocalService::getLocalItemByRemoteMeta(const KvMetadata& remote) {
    return lookup(kByRemote, SyncUtils::getFullPath(remote), remote.isDir);
}

Status SyncLocalService::addLocalItem(const KvMetadata& local, const KvMetadata& remote) {
    return db_.run(kAdd, "Cannot record a local item in", [&](sqlite3_stmt* stmt) {
        bindText(stmt, 1, local.nameOrEmpty());
        bindText(stmt, 2, storedPath(local.pathOrEmpty()));
        sqlite3_bind_int(stmt, 3, local.isDir ? 1 : 0);
        bindSize(stmt, 4, local);
        bindTime(stmt, 5, local.timestamp);
        bindText(stmt, 6, SyncUtils::getFullPath(remote));
    });
}

Status SyncLocalService::updateLocalItem(const KvMetadata& local) {
    return db_.run(kUpdate, "Cannot update a local item in", [&](sqlite3_stmt* stmt) {
        bindSize(stmt, 1, local);
        bindTime(stmt, 2, local.timestamp);
        bindText(stmt, 3, storedPath(local.pathOrEmpty()));
        sqlite3_bind_int(stmt, 4, local.isDir ? 1 : 0);
    });
}

Status SyncLocalService::deleteLocalItem(const KvMetadata& local) {
    return db_.run(kDelete, "Cannot delete a local item from", [&](sqlite3_stmt* stmt) {
        bindText(stmt, 1, storedPath(local.pathOrEmpty()));
        sqlite3_bind_int(stmt, 2, local.isDir ? 1 : 0);
    });
}

}  // namespace quillon
