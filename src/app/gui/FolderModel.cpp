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
    pending_.clear();
    pendingAt_ = 0;
    beginResetModel();
    rows_.clear();
    auto key = keyOf(folder);
    for (auto& entry : cache_)
        if (entry.key == key) rows_ = entry.rows;
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
    cache_.push_front({key, rows_});
    while (cache_.size() > kCacheSize) cache_.pop_back();
}

void FolderModel::sortRows(KvMetadataList& rows, int column, Qt::SortOrder order) {
    auto less = [column](const KvMetadata& a, const KvMetadata& b) {
        switch (column) {
            case Size: {
                auto sa = a.fileSizeInBytes.value_or(0), sb = b.fileSizeInBytes.value_or(0);
                if (sa != sb) return sa < sb;
                break;
            }
            case Kind: {
                if (!a.isDir) {
                    int c = StringUtils::localizedStandardCompare(
                        FileTypeUtils::kindForFileName(itemName(a), false),
                        FileTypeUtils::kindForFileName(itemName(b), false));
                    if (c != 0) return c < 0;
                }
                break;
            }
            case Modified:
                if (a.timestamp != b.timestamp) return a.timestamp < b.timestamp;
                break;
            default:
                break;
        }
        return StringUtils::localizedStandardCompare(a.nameIgnoreLinkResolve().value_or(""),
                                                     b.nameIgnoreLinkResolve().value_or("")) < 0;
    };
    bool descending = order == Qt::DescendingOrder;
    // Folders stay on top in either order.
    std::stable_sort(rows.begin(), rows.end(), [&](const KvMetadata& a, const KvMetadata& b) {
        if (a.isDir != b.isDir) return a.isDir;
        return descending ? less(b, a) : less(a, b);
    });
}

void FolderModel::startListing() {
    auto generation = ++generation_;
    pending_.clear();
    pendingAt_ = 0;
    setLoading(true);
    std::weak_ptr<int> alive = alive_;
    auto server = folder_->server;
    auto folder = folder_->metadata(true);
    int column = sortColumn_;
    auto order = sortOrder_;
    GCD::doInBackground([this, alive, server, folder, generation, column, order] {
        // A listing's own client: it never shares a session with the next listing or a transfer.
        auto client = WrapperProxy::clientForServerInfo(server);
        Result<KvMetadataList> listing =
            client ? (*client)->contentsOfDirectoryAtPathSync(folder)
                   : Result<KvMetadataList>(std::unexpected(client.error()));
        if (listing) sortRows(*listing, column, order);
        GCD::doInForeground([this, alive, generation, listing = std::move(listing)]() mutable {
            if (alive.expired() || generation != generation_) return;
            if (!listing) {
                setLoading(false);
                emit listingFailed(QString::fromStdString(listing.error().describe()));
                return;
            }
            deliver(generation, std::move(*listing));
        });
    });
}

void FolderModel::deliver(std::uint64_t generation, KvMetadataList rows) {
    if (!rows_.empty()) {
        // A folder shown from the cache (or refreshed): the fresh rows replace it in one step.
        beginResetModel();
        rows_ = std::move(rows);
        endResetModel();
        finishLoading();
        return;
    }
    pending_ = std::move(rows);
    pendingAt_ = 0;
    (void)generation;
    mergeNextBatch();
}

void FolderModel::mergeNextBatch() {
    if (pendingAt_ < pending_.size()) {
        std::size_t n = std::min<std::size_t>(kBatchSize, pending_.size() - pendingAt_);
        int first = static_cast<int>(rows_.size());
        beginInsertRows({}, first, first + static_cast<int>(n) - 1);
        auto from = pending_.begin() + static_cast<std::ptrdiff_t>(pendingAt_);
        rows_.insert(rows_.end(), std::make_move_iterator(from),
                     std::make_move_iterator(from + static_cast<std::ptrdiff_t>(n)));
        pendingAt_ += n;
        endInsertRows();
    }
    if (pendingAt_ >= pending_.size()) {
        finishLoading();
        return;
    }
    // The window paints and takes input between batches; a later listing drops this one.
    std::weak_ptr<int> alive = alive_;
    auto generation = generation_;
    QTimer::singleShot(0, this, [this, alive, generation] {
        if (!alive.expired() && generation == generation_) mergeNextBatch();
    });
}

void FolderModel::finishLoading() {
    pending_.clear();
    pendingAt_ = 0;
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
    std::vector<std::string> names;
    for (auto& index : before) names.push_back(itemName(item(index.row())));
    // Rows still waiting to be merged join now, so that the whole folder is in the new order.
    bool merged = pendingAt_ < pending_.size();
    if (merged) {
        rows_.insert(
            rows_.end(),
            std::make_move_iterator(pending_.begin() + static_cast<std::ptrdiff_t>(pendingAt_)),
            std::make_move_iterator(pending_.end()));
        pending_.clear();
        pendingAt_ = 0;
    }
    sortRows(rows_, column, order);
    std::map<std::string, int> rowOf;
    for (std::size_t i = 0; i < rows_.size(); ++i)
        rowOf.emplace(itemName(rows_[i]), static_cast<int>(i));
    QModelIndexList after;
    for (qsizetype i = 0; i < before.size(); ++i)
        after.push_back(index(rowOf.at(names[static_cast<std::size_t>(i)]), before[i].column()));
    changePersistentIndexList(before, after);
    emit layoutChanged({}, QAbstractItemModel::VerticalSortHint);
    if (merged) finishLoading();
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
