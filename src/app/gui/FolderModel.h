#pragma once
// FolderModel: the rows of one folder panel. A folder is listed on the background queue and its
// entries arrive in batches merged into the model; a listing for a folder the panel has already
// left is dropped. Recently shown folders appear at once from a small cache and refresh after.

#include <QAbstractTableModel>
#include <QStringList>
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
    static constexpr int kBatchSize = 2000;
    static constexpr std::size_t kCacheSize = 8;

    explicit FolderModel(QObject* parent = nullptr);
    ~FolderModel() override;

    // Shows `folder`: from the cache when it was shown lately, then listed afresh.
    void setFolder(const Location& folder);
    // Lists the shown folder again.
    void refresh();
    const std::optional<Location>& folder() const { return folder_; }
    bool isLoading() const { return loading_; }
    const KvMetadata& item(int row) const { return rows_[static_cast<std::size_t>(row)]; }
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
    struct CacheEntry {
        std::string key;
        KvMetadataList rows;
    };
    void startListing();
    void deliver(std::uint64_t generation, KvMetadataList rows);
    void mergeNextBatch();
    void finishLoading();
    void setLoading(bool loading);
    void remember();
    static std::string keyOf(const Location& loc);
    // Sorts `rows` folders first, then by the column.
    static void sortRows(KvMetadataList& rows, int column, Qt::SortOrder order);

    std::optional<Location> folder_;
    KvMetadataList rows_;
    KvMetadataList pending_;  // listed, not yet merged
    std::size_t pendingAt_ = 0;
    std::uint64_t generation_ = 0;
    bool loading_ = false;
    int sortColumn_ = Name;
    Qt::SortOrder sortOrder_ = Qt::AscendingOrder;
    std::deque<CacheEntry> cache_;
    // Listings finishing after the model is gone find this expired.
    std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace quillon::gui
