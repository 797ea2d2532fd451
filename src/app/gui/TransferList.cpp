#include "app/gui/TransferList.h"

#include "transfer/FileTransferUtils.h"

namespace quillon::gui {

class TransferList::Feed : public TransferObserver {
  public:
    explicit Feed(TransferList* list) : list_(list) {}
    void detach() { list_ = nullptr; }
    void taskStarted(FileTransferTask& task) override {
        if (list_) list_->started(task);
    }
    void taskProgressed(FileTransferTask& task, std::int64_t done, std::int64_t total) override {
        if (list_) list_->progressed(task, done, total);
    }
    void taskEnded(FileTransferTask& task) override {
        if (list_) list_->ended(task);
    }

  private:
    TransferList* list_;
};

TransferList::TransferList(FileTransferTaskManager& manager, QObject* parent)
    : QAbstractTableModel(parent), manager_(manager), feed_(std::make_shared<Feed>(this)) {
    manager_.addObserver(feed_);
    repaint_.setInterval(250);
    connect(&repaint_, &QTimer::timeout, this, [this] {
        if (!dirty_ || rows_.empty()) return;
        dirty_ = false;
        emit dataChanged(index(0, Progress), index(rowCount() - 1, State));
    });
    repaint_.start();
}

TransferList::~TransferList() {
    feed_->detach();
    manager_.removeObserver(feed_);
}

namespace {

std::string locationText(const ServerInfoPtr& server, const KvMetadata& item) {
    if (server->protocolType == ProtocolType::Local) return item.pathOrEmpty();
    return server->serverID + ":" + item.pathOrEmpty();
}

}  // namespace

void TransferList::add(const FileTransferTaskPtr& task, std::string label) {
    int row = rowCount();
    std::optional<Retry> retry;
    if (task->sourceServerInfo && task->targetServerInfo &&
        !task->sourceMetadata.pathOrEmpty().empty() && !task->targetMetadata.pathOrEmpty().empty())
        retry =
            Retry{locationText(task->sourceServerInfo, task->sourceMetadata),
                  locationText(task->targetServerInfo, task->targetMetadata), task->isMoveTask()};
    beginInsertRows({}, row, row);
    rows_.push_back({task, std::move(label), {}, 0, 0, std::move(retry)});
    endInsertRows();
}

void TransferList::addTitled(const FileTransferTaskPtr& task, std::string title) {
    add(task, std::move(title));
    rows_.back().titled = true;
}

std::optional<TransferList::Retry> TransferList::retryOf(int row) const {
    if (row < 0 || row >= rowCount()) return std::nullopt;
    auto& r = rows_[static_cast<std::size_t>(row)];
    auto state = r.task->state();
    if (state != TransferTaskState::Failed && state != TransferTaskState::Stopped) return {};
    return r.retry;
}

FileTransferTaskPtr TransferList::taskAt(int row) const {
    if (row < 0 || row >= rowCount()) return nullptr;
    return rows_[static_cast<std::size_t>(row)].task;
}

int TransferList::activeCount() const {
    int n = 0;
    for (auto& r : rows_) {
        auto s = r.task->state();
        if (s == TransferTaskState::Waiting || s == TransferTaskState::Running) ++n;
    }
    return n;
}

TransferList::Row* TransferList::find(const FileTransferTask& task) {
    for (auto& r : rows_)
        if (r.task.get() == &task) return &r;
    return nullptr;
}

void TransferList::started(FileTransferTask& task) {
    if (!find(task)) {
        // A task queued by someone else (a sync, the command line's twin): shown all the same.
        auto self = task.shared_from_this();
        add(self, FileTransferUtils::itemName(task.sourceMetadata));
    }
    dirty_ = true;
}

void TransferList::progressed(FileTransferTask& task, std::int64_t done, std::int64_t total) {
    Row* row = find(task);
    if (!row) return;
    row->rate.sample(done);
    row->done = done;
    row->total = total;
    dirty_ = true;
}

void TransferList::ended(FileTransferTask& task) {
    Row* row = find(task);
    if (!row) return;
    int r = static_cast<int>(row - rows_.data());
    emit dataChanged(index(r, 0), index(r, ColumnCount - 1));
    emit taskEnded(row->task);
}

int TransferList::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

int TransferList::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant TransferList::data(const QModelIndex& index, int role) const {
    if (!index.isValid() || index.row() >= rowCount()) return {};
    const auto& row = rows_[static_cast<std::size_t>(index.row())];
    auto& task = *row.task;
    auto state = task.state();
    bool running = state == TransferTaskState::Running;
    // The last report counts too: some tasks clear their own counters when they end.
    std::int64_t done = running ? row.done : std::max(row.done, task.transferredBytes());
    std::int64_t total = running && row.total ? row.total : std::max(row.total, task.totalBytes());
    if (role == kProgressRole) {
        // A finished run is a full bar, unless nothing at all was counted (a skipped item).
        if (state == TransferTaskState::Completed) return total > 0 || done > 0 ? 100 : -1;
        if (total <= 0) return -1;
        return static_cast<int>(100 * std::min(done, total) / total);
    }
    if (role == Qt::ToolTipRole) {
        // What the run left out ("skipped link PATH -> TARGET") follows, a line each.
        std::string tip = state == TransferTaskState::Failed && task.error()
                              ? task.error()->describe()
                              : row.label + " -> " + task.targetMetadata.pathOrEmpty();
        for (auto& notice : task.notices()) tip += "\n" + notice;
        return QString::fromStdString(tip);
    }
    if (role != Qt::DisplayRole) return {};
    switch (index.column()) {
        case Name: {
            // The item's name; the whole source is in the tooltip.
            std::string name =
                row.titled ? row.label : FileTransferUtils::itemName(task.sourceMetadata);
            if (auto current = task.transferringFileMeta(); current && task.sourceMetadata.isDir)
                name += " > " + FileTransferUtils::itemName(*current);
            return QString::fromStdString(name);
        }
        case Progress:
            if (total <= 0) return QString::fromStdString(formatBytes(done));
            return tr("%1 of %2")
                .arg(QString::fromStdString(formatBytes(done)),
                     QString::fromStdString(formatBytes(total)));
        case Rate:
            if (!running || row.rate.rate() <= 0) return QString();
            return QString::fromStdString(formatBytes(static_cast<std::int64_t>(row.rate.rate())) +
                                          "/s");
        case TimeLeft: {
            if (!running) return QString();
            auto left = row.rate.secondsLeft(done, total);
            return left ? QString::fromStdString(formatDuration(*left)) : QString();
        }
        case State:
            if (state == TransferTaskState::Stopped && task.fileConflict() == ConflictAction::Skip)
                return tr("Skipped");
            if (auto n = task.notices().size(); n > 0 && state == TransferTaskState::Completed)
                return n == 1 ? tr("Completed, 1 item left out")
                              : tr("Completed, %1 items left out").arg(n);
            switch (state) {
                case TransferTaskState::Waiting:
                    return tr("Waiting");
                case TransferTaskState::Running:
                    return tr("Running");
                case TransferTaskState::Completed:
                    return tr("Completed");
                case TransferTaskState::Stopped:
                    return tr("Stopped");
                case TransferTaskState::Failed:
                    return tr("Failed");
            }
    }
    return {};
}

QVariant TransferList::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    switch (section) {
        case Name:
            return tr("Name");
        case Progress:
            return tr("Progress");
        case Rate:
            return tr("Rate");
        case TimeLeft:
            return tr("Time left");
        case State:
            return tr("State");
    }
    return {};
}

}  // namespace quillon::gui
