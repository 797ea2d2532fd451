#include "app/cli/ProgressView.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

#include "core/StringUtils.h"

namespace quillon::cli {

std::string formatBytes(std::int64_t bytes) {
    static const char* units[] = {"B", "kB", "MB", "GB", "TB"};
    double v = static_cast<double>(bytes);
    int unit = 0;
    while (v >= 1000.0 && unit < 4) {
        v /= 1000.0;
        ++unit;
    }
    if (unit == 0) return fmt::format("{} B", bytes);
    return fmt::format("{:.1f} {}", v, units[unit]);
}

std::string formatDuration(double seconds) {
    auto s = static_cast<long long>(std::max(0.0, seconds) + 0.5);
    if (s >= 3600) return fmt::format("{}:{:02}:{:02}", s / 3600, s / 60 % 60, s % 60);
    return fmt::format("{}:{:02}", s / 60, s % 60);
}

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

void ProgressView::takeSample(Row& row, std::int64_t done) {
    auto now = Clock::now();
    row.samples.emplace_back(now, done);
    while (row.samples.size() > 2 && now - row.samples.front().first > std::chrono::seconds(5))
        row.samples.pop_front();
}

double ProgressView::rateOf(const Row& row) {
    if (row.samples.size() < 2) return 0;
    auto& [t0, b0] = row.samples.front();
    auto& [t1, b1] = row.samples.back();
    double dt = std::chrono::duration<double>(t1 - t0).count();
    return dt > 0.05 ? static_cast<double>(b1 - b0) / dt : 0;
}

void ProgressView::updateProgress(FileTransferTask& task, std::int64_t transferredBytes,
                                  std::int64_t) {
    if (auto* row = find(task)) takeSample(*row, transferredBytes);
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
    return progressLine(nameOf(row), task.transferredBytes(), task.totalBytes(), rateOf(row),
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
            if (live(row) && !row.samples.empty() && row.task->totalBytes() > 0)
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
