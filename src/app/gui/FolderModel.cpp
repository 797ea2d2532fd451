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
            if (entry.column != sortColumn_ || entry.order != sortOrder_)
                sortRows(rows_, sortColumn_, sortOrder_);
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
    cache_.push_front({key, storage_, rows_, sortColumn_, sortOrder_});
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
    auto server = folder_->server;
    auto folder = folder_->metadata(true);
    int column = sortColumn_;
    auto order = sortOrder_;
    // An empty panel shows each batch as it comes; rows on show are replaced in one step, so
    // that a refresh does not empty the panel on the way.
    bool streaming = rows_.empty();
    GCD::doInBackground(
        [this, alive, current, server, folder, generation, column, order, streaming] {
            // A listing's own client: it never shares a session with the next listing or a
            // transfer.
            auto client = WrapperProxy::clientForServerInfo(server);
            Storage gathered;
            Status listed = client ? Status() : Status(std::unexpected(client.error()));
            if (client)
                listed = (*client)->contentsOfDirectoryAtPathInBatches(
                    folder, [&](KvMetadataList&& records) {
                        if (alive.expired() || current->load() != generation) return false;
                        auto batch = std::make_shared<const KvMetadataList>(std::move(records));
                        if (!streaming) {
                            gathered.push_back(std::move(batch));
                            return true;
                        }
                        Rows sorted;
                        sorted.reserve(batch->size());
                        for (auto& record : *batch) sorted.push_back(&record);
                        sortRows(sorted, column, order);
                        GCD::doInForeground([this, alive, generation, batch, column, order,
                                             sorted = std::move(sorted)]() mutable {
                            if (alive.expired() || generation != generation_) return;
                            merge(std::move(batch), std::move(sorted), column, order);
                        });
                        return true;
                    });
            Rows all;
            if (listed && !streaming) {
                for (auto& batch : gathered)
                    for (auto& record : *batch) all.push_back(&record);
                sortRows(all, column, order);
            }
            GCD::doInForeground([this, alive, generation, listed, column, order, streaming,
                                 gathered = std::move(gathered), all = std::move(all)]() mutable {
                if (alive.expired() || generation != generation_) return;
                if (!listed) {
                    setLoading(false);
                    emit listingFailed(QString::fromStdString(listed.error().describe()));
                    return;
                }
                if (!streaming) {
                    if (column != sortColumn_ || order != sortOrder_)
                        sortRows(all, sortColumn_, sortOrder_);
                    replaceRows(std::move(gathered), std::move(all));
                }
                finishLoading();
            });
        });
}

void FolderModel::merge(std::shared_ptr<const KvMetadataList> batch, Rows sorted, int column,
                        Qt::SortOrder order) {
    if (sorted.empty()) return;
    storage_.push_back(std::move(batch));
    // The panel was sorted otherwise while the batch was on its way.
    if (column != sortColumn_ || order != sortOrder_) sortRows(sorted, sortColumn_, sortOrder_);
    if (rows_.empty()) {
        beginInsertRows({}, 0, static_cast<int>(sorted.size()) - 1);
        rows_ = std::move(sorted);
        endInsertRows();
        return;
    }
    emit layoutAboutToBeChanged();
    auto before = persistentIndexList();
    RowOrder less{sortColumn_, sortOrder_ == Qt::DescendingOrder};
    Rows merged;
    merged.reserve(rows_.size() + sorted.size());
    std::vector<int> movedTo(before.isEmpty() ? 0 : rows_.size());
    std::size_t i = 0, j = 0;
    while (i < rows_.size() || j < sorted.size()) {
        // Rows already shown go before new ones that sort the same.
        if (j == sorted.size() || (i < rows_.size() && !less(sorted[j], rows_[i]))) {
            if (!movedTo.empty()) movedTo[i] = static_cast<int>(merged.size());
            merged.push_back(rows_[i++]);
        } else {
            merged.push_back(sorted[j++]);
        }
    }
    rows_ = std::move(merged);
    QModelIndexList after;
    for (auto& index : before)
        after.push_back(
            this->index(movedTo[static_cast<std::size_t>(index.row())], index.column()));
    changePersistentIndexList(before, after);
    emit layoutChanged();
}

void FolderModel::replaceRows(Storage storage, Rows rows) {
    emit layoutAboutToBeChanged();
    auto before = persistentIndexList();
    // Selected and current rows follow their names; those whose item is gone end.
    std::unordered_map<std::string, int> rowOf;
    for (auto& index : before) rowOf.emplace(itemName(item(index.row())), -1);
    if (!rowOf.empty())
        for (std::size_t r = 0; r < rows.size(); ++r)
            if (auto it = rowOf.find(itemName(*rows[r])); it != rowOf.end() && it->second < 0)
                it->second = static_cast<int>(r);
    QModelIndexList after;
    for (auto& index : before) {
        int row = rowOf.at(itemName(item(index.row())));
        after.push_back(row < 0 ? QModelIndex() : createIndex(row, index.column()));
    }
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
    Qt::ItemFlags f = Qt::ItemIsSelectable | Qt::ItemIsEnabled | Qt::ItemIsDragEnabled;
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
