#include "app/gui/FolderModel.h"

#include <QApplication>
#include <QDateTime>
#include <QIcon>
#include <QMimeData>
#include <QStyle>
#include <QTimer>
#include <QUrl>
#include <algorithm>
#include <map>
#include <mutex>
#include <unordered_map>

#include "core/FileTypeUtils.h"
#include "core/GCD.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "transfer/FileTransferTaskManager.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/TransferEstimate.h"

namespace quillon::gui {

namespace {

using FileTransferUtils::itemName;

// The desktop theme's icon for the kind FileTypeUtils names, with the style's as fallback.
QIcon iconFor(const KvMetadata& item) {
    static std::map<std::string, QIcon> cache;
    std::string kind = item.isDir ? "folder" : FileTypeUtils::iconNameForFileName(itemName(item));
    auto it = cache.find(kind);
    if (it != cache.end()) return it->second;
    static const std::map<std::string, const char*> themeNames = {
        {"folder", "folder"},
        {"pdf", "application-pdf"},
        {"photo", "image-x-generic"},
        {"video", "video-x-generic"},
        {"music", "audio-x-generic"},
        {"txt", "text-x-generic"},
        {"word", "x-office-document"},
        {"pages", "x-office-document"},
        {"excel", "x-office-spreadsheet"},
        {"numbers", "x-office-spreadsheet"},
        {"ppt", "x-office-presentation"},
        {"keynote", "x-office-presentation"},
        {"zip", "package-x-generic"},
        {"html", "text-html"},
        {"epub", "x-office-document"},
    };
    auto name = themeNames.find(kind);
    QIcon fallback =
        QApplication::style()->standardIcon(item.isDir ? QStyle::SP_DirIcon : QStyle::SP_FileIcon);
    QIcon icon =
        QIcon::fromTheme(name != themeNames.end() ? name->second : "text-x-generic", fallback);
    return cache.emplace(kind, icon).first->second;
}

QString kindOf(const KvMetadata& item) {
    return QString::fromStdString(FileTypeUtils::kindForFileName(itemName(item), item.isDir));
}

}  // namespace

FolderModel::FolderModel(QObject* parent) : QAbstractTableModel(parent) {}

FolderModel::~FolderModel() = default;

std::string FolderModel::locationText(const Location& loc) {
    if (loc.isLocal()) return loc.path;
    return loc.server->serverID + ":" + loc.path;
}

std::string FolderModel::parentFolderPath(const std::string& path) {
    auto parent = FileTransferUtils::parentPath(path);
    return parent.empty() ? std::string(1, '/') : parent;
}

std::string FolderModel::keyOf(const Location& loc) {
    return loc.server->serverID + "\n" + loc.path;
}

Location FolderModel::locationOf(int row) const {
    Location loc = *folder_;
    std::string name = itemName(item(row));
    loc.path = loc.path == "/" ? "/" + name : loc.path + "/" + name;
    return loc;
}

void FolderModel::setFolder(const Location& folder) {
    remember();
    folder_ = folder;
    ++generation_;
    beginResetModel();
    storage_.clear();
    rows_.clear();
    auto key = keyOf(folder);
    for (auto& entry : cache_)
        if (entry.key == key) {
            storage_ = entry.storage;
            rows_ = entry.rows;
            // Shown as the panel is sorted now, not as it was when the folder was left.
            if (entry.sort != sortKey_->load()) sortRows(rows_, sortColumn_, sortOrder_);
        }
    endResetModel();
    startListing();
}

void FolderModel::refresh() {
    if (folder_) startListing();
}

void FolderModel::remember() {
    if (!folder_ || loading_) return;
    auto key = keyOf(*folder_);
    std::erase_if(cache_, [&](const CacheEntry& e) { return e.key == key; });
    cache_.push_front({key, storage_, rows_, sortKey_->load()});
    while (cache_.size() > kCacheSize) cache_.pop_back();
}

namespace {

// Folders first in either order, then by the column, then by name.
struct RowOrder {
    int column;
    bool descending;

    static bool less(int column, const KvMetadata& a, const KvMetadata& b) {
        switch (column) {
            case FolderModel::Size: {
                auto sa = a.fileSizeInBytes.value_or(0), sb = b.fileSizeInBytes.value_or(0);
                if (sa != sb) return sa < sb;
                break;
            }
            case FolderModel::Kind: {
                if (!a.isDir) {
                    int c = StringUtils::localizedStandardCompare(
                        FileTypeUtils::kindForFileName(itemName(a), false),
                        FileTypeUtils::kindForFileName(itemName(b), false));
                    if (c != 0) return c < 0;
                }
                break;
            }
            case FolderModel::Modified:
                if (a.timestamp != b.timestamp) return a.timestamp < b.timestamp;
                break;
            default:
                break;
        }
        const auto& na = a.nameIgnoreLinkResolve();
        const auto& nb = b.nameIgnoreLinkResolve();
        return StringUtils::localizedStandardCompare(na ? *na : std::string_view(),
                                                     nb ? *nb : std::string_view()) < 0;
    }
    bool operator()(const KvMetadata* a, const KvMetadata* b) const {
        if (a->isDir != b->isDir) return a->isDir;
        return descending ? less(column, *b, *a) : less(column, *a, *b);
    }
};

}  // namespace

void FolderModel::sortRows(Rows& rows, int column, Qt::SortOrder order) {
    std::stable_sort(rows.begin(), rows.end(), RowOrder{column, order == Qt::DescendingOrder});
}

void FolderModel::startListing() {
    auto generation = ++generation_;
    current_->store(generation);
    setLoading(true);
    std::weak_ptr<int> alive = alive_;
    std::shared_ptr<const std::atomic<std::uint64_t>> current = current_;
    std::shared_ptr<const std::atomic<int>> sortKey = sortKey_;
    auto server = folder_->server;
    auto folder = folder_->metadata(true);
    // An empty panel shows the rows as they come; rows on show are replaced in one step, so that
    // a refresh does not empty the panel on the way.
    bool streaming = rows_.empty();
    GCD::doInBackground([this, alive, current, sortKey, server, folder, generation, streaming] {
        // What has been read so far, sorted. The window takes the latest when it gets to it, so
        // that a busy window skips steps rather than falling behind.
        struct Latest {
            std::mutex mutex;
            Storage storage;
            Rows rows;
            int key = 0;
            bool posted = false;
        };
        auto latest = std::make_shared<Latest>();
        auto take = [this, alive, generation, latest] {
            if (alive.expired() || generation != generation_) return;
            std::unique_lock lock(latest->mutex);
            auto storage = latest->storage;
            auto rows = std::move(latest->rows);
            int key = latest->key;
            latest->posted = false;
            lock.unlock();
            show(std::move(storage), std::move(rows), key);
        };
        // Each batch is sorted and merged here, off the window's thread, in the order the panel
        // has now.
        Storage storage;
        Rows all, merged;
        int key = sortKey->load();
        auto merge = [&](const KvMetadataList& batch) {
            if (int now = sortKey->load(); now != key) {
                key = now;
                sortRows(all, key >> 1, key & 1 ? Qt::DescendingOrder : Qt::AscendingOrder);
            }
            int column = key >> 1;
            auto order = key & 1 ? Qt::DescendingOrder : Qt::AscendingOrder;
            Rows sorted;
            sorted.reserve(batch.size());
            for (auto& record : batch) sorted.push_back(&record);
            sortRows(sorted, column, order);
            merged.clear();
            merged.reserve(all.size() + sorted.size());
            std::merge(all.begin(), all.end(), sorted.begin(), sorted.end(),
                       std::back_inserter(merged), RowOrder{column, order == Qt::DescendingOrder});
            all.swap(merged);
        };
        // A listing's own client: it never shares a session with the next listing or a transfer.
        auto client = WrapperProxy::clientForServerInfo(server);
        Status listed = client ? Status() : Status(std::unexpected(client.error()));
        if (client)
            listed = (*client)->contentsOfDirectoryAtPathInBatches(
                folder, [&](KvMetadataList&& records) {
                    if (alive.expired() || current->load() != generation) return false;
                    storage.push_back(std::make_shared<const KvMetadataList>(std::move(records)));
                    merge(*storage.back());
                    if (!streaming) return true;
                    if (storage.size() == 1) {
                        // The first rows go at once, on their own.
                        GCD::doInForeground([this, alive, generation, storage, all, key] {
                            if (!alive.expired() && generation == generation_)
                                show(storage, all, key);
                        });
                        return true;
                    }
                    std::lock_guard lock(latest->mutex);
                    latest->storage = storage;
                    latest->rows = all;
                    latest->key = key;
                    if (!latest->posted) {
                        latest->posted = true;
                        GCD::doInForeground(take);
                    }
                    return true;
                });
        GCD::doInForeground([this, alive, generation, listed, key, streaming,
                             storage = std::move(storage), all = std::move(all)]() mutable {
            if (alive.expired() || generation != generation_) return;
            if (!listed) {
                setLoading(false);
                emit listingFailed(QString::fromStdString(listed.error().describe()));
                return;
            }
            if (!streaming) show(std::move(storage), std::move(all), key);
            finishLoading();
        });
    });
}

void FolderModel::show(Storage storage, Rows rows, int key) {
    // Sorted otherwise since the listing last looked.
    if (key != sortKey_->load()) sortRows(rows, sortColumn_, sortOrder_);
    if (!rows_.empty()) {
        replaceRows(std::move(storage), std::move(rows));
        return;
    }
    storage_ = std::move(storage);
    if (rows.empty()) return;
    beginInsertRows({}, 0, static_cast<int>(rows.size()) - 1);
    rows_ = std::move(rows);
    endInsertRows();
}

void FolderModel::replaceRows(Storage storage, Rows rows) {
    emit layoutAboutToBeChanged();
    auto before = persistentIndexList();
    // Selected and current rows follow their names; those whose item is gone end.
    auto nameOf = [](const KvMetadata* record) -> std::string_view {
        const auto& name = record->nameIgnoreLinkResolve();
        return name ? std::string_view(*name) : std::string_view();
    };
    std::unordered_map<std::string_view, int> rowOf;
    for (auto& index : before)
        rowOf.emplace(nameOf(rows_[static_cast<std::size_t>(index.row())]), -1);
    if (!rowOf.empty())
        for (std::size_t r = 0; r < rows.size(); ++r)
            if (auto it = rowOf.find(nameOf(rows[r])); it != rowOf.end() && it->second < 0)
                it->second = static_cast<int>(r);
    QModelIndexList after;
    for (auto& index : before) {
        int row = rowOf.at(nameOf(rows_[static_cast<std::size_t>(index.row())]));
        after.push_back(row < 0 ? QModelIndex() : createIndex(row, index.column()));
    }
    // The rows left go only now: the names looked up above live in their records.
    auto gone = std::move(storage_);
    storage_ = std::move(storage);
    rows_ = std::move(rows);
    changePersistentIndexList(before, after);
    emit layoutChanged();
}

void FolderModel::finishLoading() {
    setLoading(false);
    remember();
}

void FolderModel::setLoading(bool loading) {
    if (loading_ == loading) return;
    loading_ = loading;
    emit loadingChanged(loading);
}

int FolderModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

int FolderModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant FolderModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount()) return {};
    const auto& m = item(index.row());
    switch (role) {
        case Qt::DisplayRole:
        case Qt::EditRole:
            switch (index.column()) {
                case Name:
                    return QString::fromStdString(itemName(m));
                case Size:
                    if (m.isDir || !m.fileSizeInBytes) return QString();
                    return QString::fromStdString(
                        formatBytes(static_cast<std::int64_t>(*m.fileSizeInBytes)));
                case Kind:
                    return kindOf(m);
                case Modified:
                    if (!m.timestamp) return QString();
                    return QDateTime::fromSecsSinceEpoch(
                               std::chrono::duration_cast<std::chrono::seconds>(
                                   m.timestamp->time_since_epoch())
                                   .count())
                        .toString(QStringLiteral("yyyy-MM-dd HH:mm"));
            }
            return {};
        case Qt::DecorationRole:
            if (index.column() == Name) return iconFor(m);
            return {};
        case Qt::TextAlignmentRole:
            if (index.column() == Size)
                return QVariant::fromValue(Qt::Alignment(Qt::AlignRight | Qt::AlignVCenter));
            return {};
        case Qt::ToolTipRole:
            return QString::fromStdString(StringUtils::escapedForDisplay(m.pathOrEmpty()));
        default:
            return {};
    }
}

QVariant FolderModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    switch (section) {
        case Name:
            return tr("Name");
        case Size:
            return tr("Size");
        case Kind:
            return tr("Kind");
        case Modified:
            return tr("Modified");
    }
    return {};
}

Qt::ItemFlags FolderModel::flags(const QModelIndex& index) const {
    if (!index.isValid()) return Qt::ItemIsDropEnabled;
    Qt::ItemFlags f =
        Qt::ItemIsSelectable | Qt::ItemIsEnabled | Qt::ItemIsDragEnabled | Qt::ItemNeverHasChildren;
    if (index.column() == Name) f |= Qt::ItemIsEditable;
    if (item(index.row()).isDir) f |= Qt::ItemIsDropEnabled;
    return f;
}

bool FolderModel::setData(const QModelIndex& index, const QVariant& value, int role) {
    if (role != Qt::EditRole || !index.isValid() || index.column() != Name) return false;
    auto name = value.toString().toStdString();
    if (name.empty() || name == itemName(item(index.row()))) return false;
    emit renameRequested(locationOf(index.row()), name);
    return false;
}

void FolderModel::sort(int column, Qt::SortOrder order) {
    if (column < 0 || column >= ColumnCount) return;
    sortColumn_ = column;
    sortOrder_ = order;
    sortKey_->store(column << 1 | (order == Qt::DescendingOrder ? 1 : 0));
    emit layoutAboutToBeChanged({}, QAbstractItemModel::VerticalSortHint);
    auto before = persistentIndexList();
    std::vector<const KvMetadata*> held;
    for (auto& index : before) held.push_back(rows_[static_cast<std::size_t>(index.row())]);
    sortRows(rows_, column, order);
    std::unordered_map<const KvMetadata*, int> rowOf;
    for (auto* record : held) rowOf.emplace(record, -1);
    if (!rowOf.empty())
        for (std::size_t r = 0; r < rows_.size(); ++r)
            if (auto it = rowOf.find(rows_[r]); it != rowOf.end()) it->second = static_cast<int>(r);
    QModelIndexList after;
    for (qsizetype i = 0; i < before.size(); ++i)
        after.push_back(index(rowOf.at(held[static_cast<std::size_t>(i)]), before[i].column()));
    changePersistentIndexList(before, after);
    emit layoutChanged({}, QAbstractItemModel::VerticalSortHint);
}

QStringList FolderModel::mimeTypes() const {
    return {QStringLiteral("text/uri-list"), QString::fromLatin1(kItemsMimeType)};
}

QMimeData* FolderModel::mimeData(const QModelIndexList& indexes) const {
    if (!folder_) return nullptr;
    std::vector<int> rows;
    for (auto& index : indexes)
        if (index.isValid()) rows.push_back(index.row());
    std::sort(rows.begin(), rows.end());
    rows.erase(std::unique(rows.begin(), rows.end()), rows.end());
    QList<QUrl> urls;
    QByteArray items;
    for (int row : rows) {
        auto loc = locationOf(row);
        if (loc.isLocal()) urls.push_back(QUrl::fromLocalFile(QString::fromStdString(loc.path)));
        items += QByteArray::fromStdString(locationText(loc)) + '\n';
    }
    auto* data = new QMimeData;
    // Other programs get the local files; remote items travel only inside this program.
    if (!urls.isEmpty()) data->setUrls(urls);
    data->setData(QString::fromLatin1(kItemsMimeType), items);
    return data;
}

Qt::DropActions FolderModel::supportedDropActions() const {
    return Qt::CopyAction | Qt::MoveAction;
}

Qt::DropActions FolderModel::supportedDragActions() const {
    return Qt::CopyAction | Qt::MoveAction;
}

std::vector<std::string> FolderModel::sourcesOf(const QMimeData* data) {
    std::vector<std::string> sources;
    if (!data) return sources;
    if (data->hasFormat(QString::fromLatin1(kItemsMimeType))) {
        for (auto& line : data->data(QString::fromLatin1(kItemsMimeType)).split('\n'))
            if (!line.isEmpty()) sources.push_back(line.toStdString());
        return sources;
    }
    for (auto& url : data->urls())
        if (url.isLocalFile()) sources.push_back(url.toLocalFile().toStdString());
    return sources;
}

bool FolderModel::canDropMimeData(const QMimeData* data, Qt::DropAction action, int, int,
                                  const QModelIndex& parent) const {
    if (!folder_ || (action != Qt::CopyAction && action != Qt::MoveAction)) return false;
    if (parent.isValid() && !item(parent.row()).isDir) return false;
    return !sourcesOf(data).empty();
}

bool FolderModel::dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                               const QModelIndex& parent) {
    if (!canDropMimeData(data, action, row, column, parent)) return false;
    // Onto a folder row: into that folder; anywhere else: into the folder shown.
    std::string target = locationText(parent.isValid() ? locationOf(parent.row()) : *folder_);
    emit dropped(sourcesOf(data), target, action == Qt::MoveAction);
    // The transfer manager does the work; the view must not remove the dragged rows itself.
    return false;
}

}  // namespace quillon::gui
