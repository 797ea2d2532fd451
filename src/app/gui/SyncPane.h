#pragma once
// SyncPane: the sync pairs with their status and last sync; add a pair, preview what a sync
// would do (every decision listed before anything happens), sync now, remove a pair. Runs are
// tasks of the transfer manager, shown in the transfers dock.

#include <QDialog>
#include <QPointer>
#include <cstdint>
#include <map>

#include "app/gui/SyncRunner.h"
#include "app/gui/TransferList.h"

class QLabel;
class QTreeWidget;

namespace quillon::gui {

class SyncPane : public QDialog {
    Q_OBJECT
  public:
    SyncPane(FileTransferTaskManager& manager, TransferList* transfers, QWidget* parent = nullptr);

    // Reads the pairs again (in the background).
    void reload();
    // Pairs the folder at `location` with "Synced/`localName`"; refusals show in the pane.
    void addPair(const QString& location, const QString& localName);
    // A dry run of the pair, then the preview window.
    void preview(std::int64_t pairID);
    void run(std::int64_t pairID);
    // Asks first; the files stay on both sides.
    void remove(std::int64_t pairID);

    QTreeWidget* pairs() const { return pairs_; }
    // The pair ID of the selected row, or 0.
    std::int64_t selectedPair() const;
    // The preview window open now, or null.
    QDialog* previewDialog() const { return preview_; }
    // The question about a run's many deletions open now, or null.
    QDialog* deleteQuestion() const { return deleteQuestion_; }
    QString messageText() const;

  signals:
    // The list of pairs was read again (after a change, a run, or reload()).
    void reloaded();
    // A pair was added or removed.
    void pairsChanged();

  private:
    void showMessage(const QString& text, bool error = false);
    void showPreview(std::int64_t pairID, const SyncPreview& preview);
    void openAddDialog();
    void start(std::int64_t pairID, bool dryRun, std::optional<double> allowDeletePercent = {});
    // A run stopped before deleting more than a side's allowed share: asks whether to delete.
    void askToDelete(std::int64_t pairID, const QString& why, double percent);

    FileTransferTaskManager& manager_;
    QPointer<TransferList> transfers_;
    QTreeWidget* pairs_;
    QLabel* message_;
    QPointer<QDialog> preview_;
    QPointer<QDialog> deleteQuestion_;
    std::map<std::int64_t, SyncInfo> known_;
    struct Running {
        std::shared_ptr<SyncTask> task;
        std::int64_t pairID;
        bool dryRun;
    };
    std::map<const FileTransferTask*, Running> running_;
};

}  // namespace quillon::gui
