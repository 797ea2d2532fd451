#include "app/cli/ProgressView.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "core/MainQueue.h"
#include "core/StringUtils.h"

namespace quillon::cli {

std::string progressLine(const std::string& name, std::int64_t done, std::int64_t total,
                         double rate, std::size_t width) {
    std::string counts = formatBytes(done);
    if (total > 0)
        counts += fmt::format(" of {} ({}%)", formatBytes(total),
                              std::clamp<std::int64_t>(done * 100 / total, 0, 100));
    std::string rateText = rate > 0 ? formatBytes(static_cast<std::int64_t>(rate)) + "/s" : "";
    std::string eta = rate > 0 && total > done
                          ? "ETA " + formatDuration(static_cast<double>(total - done) / rate)
                          : "";
    std::string line = fmt::format("{}  {}  {}  {}", name, counts, rateText, eta);
    while (!line.empty() && line.back() == ' ') line.pop_back();
    if (width > 1 && line.size() >= width) line.resize(width - 1);
    return line;
}

ProgressView::ProgressView(std::FILE* out, bool quiet)
    : out_(out), quiet_(quiet), terminal_(::isatty(::fileno(out)) == 1) {}

void ProgressView::add(const FileTransferTaskPtr& task, std::string label) {
    Row row;
    row.task = task;
    row.id = static_cast<int>(rows_.size()) + 1;
    row.label = std::move(label);
    rows_.push_back(std::move(row));
}

ProgressView::Row* ProgressView::find(const FileTransferTask& task) {
    for (auto& row : rows_)
        if (row.task.get() == &task) return &row;
    return nullptr;
}

void ProgressView::taskStarted(FileTransferTask& task) {
    if (auto* row = find(task)) row->started = true;
}

void ProgressView::taskProgressed(FileTransferTask& task, std::int64_t transferredBytes,
                                  std::int64_t) {
    if (auto* row = find(task)) row->rate.sample(transferredBytes);
}

void ProgressView::taskEnded(FileTransferTask& task) {
    auto* row = find(task);
    if (!row || row->ended) return;
    row->ended = true;
    reportEnd(*row);
}

void ProgressView::reportRest() {
    for (auto& row : rows_) {
        if (row.ended) continue;
        row.ended = true;
        reportEnd(row);
    }
    clearBlock();
}

void runWatched(const std::shared_ptr<ProgressView>& view,
                const std::vector<FileTransferTaskPtr>& tasks,
                std::shared_ptr<UserPrompts> prompts) {
    auto& manager = FileTransferTaskManager::sharedInstance();
    manager.setUserPrompts(std::move(prompts));
    manager.addObserver(view);
    auto timer = MainQueue::shared().scheduleRepeating(std::chrono::milliseconds(100),
                                                       [&] { view->tick(); });
    for (auto& t : tasks) manager.addTask(t);
    manager.start();
    MainQueue::shared().runUntil([&] { return view->allDone(); });
    MainQueue::shared().cancel(timer);
    view->reportRest();
    manager.removeObserver(view);
    manager.setUserPrompts(nullptr);
}

bool ProgressView::allDone() const {
    return std::all_of(rows_.begin(), rows_.end(), [](const Row& row) {
        auto s = row.task->state();
        if (s == TransferTaskState::Waiting || s == TransferTaskState::Running) return false;
        return row.ended || !row.started;
    });
}

std::string ProgressView::nameOf(const Row& row) const {
    std::string name = row.label;
    if (auto current = row.task->transferringFileMeta())
        name += " > " + current->nameIgnoreLinkResolve().value_or(
                            StringUtils::lastPathComponent(current->pathOrEmpty()));
    return name;
}

std::string ProgressView::lineOf(const Row& row, std::size_t width) const {
    auto& task = *row.task;
    return progressLine(nameOf(row), task.transferredBytes(), task.totalBytes(), row.rate.rate(),
                        width);
}

void ProgressView::tick() {
    if (quiet_) return;
    auto live = [](const Row& row) {
        return row.task->state() == TransferTaskState::Running && !row.ended;
    };
    auto now = Clock::now();
    if (!terminal_) {
        if (now - lastPlain_ < std::chrono::seconds(2)) return;
        lastPlain_ = now;
        // Plain lines only for tasks that have reported progress on a known total.
        for (auto& row : rows_)
            if (live(row) && row.rate.hasSamples() && row.task->totalBytes() > 0)
                fmt::print(out_, "{}\n", lineOf(row, 0));
        std::fflush(out_);
        return;
    }
    std::size_t width = 100;
    struct winsize ws {};
    if (::ioctl(::fileno(out_), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) width = ws.ws_col;
    std::string text;
    if (blockLines_ > 0) text += fmt::format("\x1b[{}F\x1b[J", blockLines_);
    int lines = 0;
    for (auto& row : rows_) {
        if (!live(row)) continue;
        text += lineOf(row, width) + "\n";
        ++lines;
    }
    blockLines_ = lines;
    if (!text.empty()) {
        std::fwrite(text.data(), 1, text.size(), out_);
        std::fflush(out_);
    }
}

void ProgressView::clearBlock() {
    if (!terminal_ || blockLines_ == 0) return;
    fmt::print(out_, "\x1b[{}F\x1b[J", blockLines_);
    blockLines_ = 0;
    std::fflush(out_);
}

}  // namespace quillon::cli
