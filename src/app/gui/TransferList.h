#pragma once
// TransferList: the rows of the transfers dock, one per task of the transfer manager, fed by
// its observer calls (started, progressed, ended); never by polling the tasks.

#include <QAbstractTableModel>
#include <QTimer>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "transfer/FileTransferTaskManager.h"
#include "transfer/TransferEstimate.h"

namespace quillon::gui {

class TransferList : public QAbstractTableModel {
    Q_OBJECT
  public:
    enum Column { Name, Progress, Rate, TimeLeft, State, ColumnCount };
    static constexpr int kProgressRole = Qt::UserRole + 1;  // 0..100, -1 unknown

    // Follows `manager` while it lives.
    explicit TransferList(FileTransferTaskManager& manager, QObject* parent = nullptr);
    ~TransferList() override;

    // How a copy or move is asked for again: its source, its target folder (location texts, as
    // resolveLocation reads them) and whether it moves.
    struct Retry {
        std::string source;
        std::string target;
        bool moving = false;
    };

    // Shows `task` as `label` (call before it is added to the manager).
    void add(const FileTransferTaskPtr& task, std::string label);
    // A row named by `title` rather than by the item it works on (a sync pair's run).
    void addTitled(const FileTransferTaskPtr& task, std::string title);
    FileTransferTaskPtr taskAt(int row) const;
    // What retrying the row's task asks for: none while it waits or runs, once it completed, or
    // for a task that is not a copy or move between two places (an archive's work).
    std::optional<Retry> retryOf(int row) const;
    // How many rows wait or run.
    int activeCount() const;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

  signals:
    // A task's run ended (completed, failed or stopped).
    void taskEnded(const FileTransferTaskPtr& task);

  private:
    class Feed;
    struct Row {
        FileTransferTaskPtr task;
        std::string label;
        RateEstimator rate;
        std::int64_t done = 0;
        std::int64_t total = 0;
        std::optional<Retry> retry;  // taken when the task is added, before it can change
        bool titled = false;
    };
    Row* find(const FileTransferTask& task);
    void started(FileTransferTask& task);
    void progressed(FileTransferTask& task, std::int64_t done, std::int64_t total);
    void ended(FileTransferTask& task);

    FileTransferTaskManager& manager_;
    std::shared_ptr<Feed> feed_;
    std::vector<Row> rows_;
    QTimer repaint_;  // progress is shown a few times a second, not on every report
    bool dirty_ = false;
};

}  // namespace quillon::gui
