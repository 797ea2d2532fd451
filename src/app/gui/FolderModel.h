#pragma once
// FolderModel: the rows of one folder panel. A folder is listed on the background queue and its
// entries arrive in batches, each sorted there and merged into the rows in order; a listing for a
// folder the panel has already left stops. Recently shown folders appear at once from a small
// cache and refresh after; a refresh keeps the selection and the current item by their names.

#include <QAbstractTableModel>
#include <QStringList>
#include <atomic>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "core/KvMetadata.h"
#include "core/Location.h"

namespace quillon::gui {

class FolderModel : public QAbstractTableModel {
    Q_OBJECT
  public:
    enum Column { Name, Size, Kind, Modified, ColumnCount };
    // The mime type of dragged items: one location per line, as resolveLocation reads them.
    static constexpr const char* kItemsMimeType = "application/x-quillon-items";
    static constexpr std::size_t kCacheSize = 8;

    explicit FolderModel(QObject* parent = nullptr);
    ~FolderModel() override;

    // Shows `folder`: from the cache when it was shown lately, then listed afresh.
    void setFolder(const Location& folder);
    // Lists the shown folder again.
    void refresh();
    const std::optional<Location>& folder() const { return folder_; }
    bool isLoading() const { return loading_; }
    const KvMetadata& item(int row) const { return *rows_[static_cast<std::size_t>(row)]; }
    // The location of the item in `row` (a child of the shown folder).
    Location locationOf(int row) const;
    // How a location is written for resolveLocation: the local path, or "serverID:/path".
    static std::string locationText(const Location& loc);
    // The folder that holds `path` ("/" for the top folder).
    static std::string parentFolderPath(const std::string& path);
    // Expires with the model: work finishing later checks it before touching the window.
    std::weak_ptr<int> alive() const { return alive_; }

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    // A new name typed in place asks for a rename (renameRequested); the rows change when the
    // folder is listed again.
    bool setData(const QModelIndex& index, const QVariant& value, int role) override;
    void sort(int column, Qt::SortOrder order) override;
    QStringList mimeTypes() const override;
    QMimeData* mimeData(const QModelIndexList& indexes) const override;
    Qt::DropActions supportedDropActions() const override;
    Qt::DropActions supportedDragActions() const override;
    bool canDropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                         const QModelIndex& parent) const override;
    bool dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                      const QModelIndex& parent) override;

    // The locations a drag carries: our own items, or local files from other programs.
    static std::vector<std::string> sourcesOf(const QMimeData* data);

  signals:
    void renameRequested(const Location& item, const std::string& newName);
    void loadingChanged(bool loading);
    // The listing failed; the rows shown stay as they were.
    void listingFailed(const QString& message);
    // Items were dropped onto the folder `target` (a location text).
    void dropped(const std::vector<std::string>& sources, const std::string& target, bool moving);

  private:
    // The rows point into batches of records that the model and its cache share.
    using Rows = std::vector<const KvMetadata*>;
    using Storage = std::vector<std::shared_ptr<const KvMetadataList>>;
    struct CacheEntry {
        std::string key;
        Storage storage;
        Rows rows;
        int sort;  // the sort key the rows are in
    };
    void startListing();
    // Shows the rows a listing has read so far, sorted as `key` says.
    void show(Storage storage, Rows rows, int key);
    // Puts `rows` in place of the rows shown; items still there keep their selection.
    void replaceRows(Storage storage, Rows rows);
    void finishLoading();
    void setLoading(bool loading);
    void remember();
    static std::string keyOf(const Location& loc);
    // Sorts `rows` folders first, then by the column.
    static void sortRows(Rows& rows, int column, Qt::SortOrder order);

    std::optional<Location> folder_;
    Storage storage_;
    Rows rows_;
    std::uint64_t generation_ = 0;
    // The generation listed now, read by the listing to stop once the panel has moved on.
    std::shared_ptr<std::atomic<std::uint64_t>> current_ =
        std::make_shared<std::atomic<std::uint64_t>>(0);
    bool loading_ = false;
    int sortColumn_ = Name;
    Qt::SortOrder sortOrder_ = Qt::AscendingOrder;
    // Column and order (column * 2 + 1 when descending), read by the listing as it sorts.
    std::shared_ptr<std::atomic<int>> sortKey_ = std::make_shared<std::atomic<int>>(Name << 1);
    std::deque<CacheEntry> cache_;
    // Listings finishing after the model is gone find this expired.
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace quillon::gui
