#include "app/cli/ProgressView.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

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

ProgressView::ProgressView(std::FILE* out) : ProgressView(out, ::isatty(::fileno(out)) == 1) {}

ProgressView::ProgressView(std::FILE* out, bool displayed) : out_(out), displayed_(displayed) {}

void ProgressView::updateProgress(FileTransferTask& task, std::int64_t transferredBytes,
                                  std::int64_t totalBytes) {
    if (!displayed_) return;
    auto now = Clock::now();
    if (&task != task_) {
        task_ = &task;
        started_ = now;
        startBytes_ = transferredBytes;
    }
    bool finished = task.state() != TransferTaskState::Running;
    if (!finished && now - lastDraw_ < std::chrono::milliseconds(100)) return;
    lastDraw_ = now;

    std::string name;
    if (auto meta = task.transferringFileMeta())
        name = meta->nameIgnoreLinkResolve().value_or(
            StringUtils::lastPathComponent(meta->pathOrEmpty()));
    double elapsed = std::chrono::duration<double>(now - started_).count();
    std::string rate =
        elapsed > 0.2
            ? formatBytes(static_cast<std::int64_t>((transferredBytes - startBytes_) / elapsed)) +
                  "/s"
            : "";
    std::string counts = formatBytes(transferredBytes);
    if (totalBytes > 0)
        counts += fmt::format(" of {} ({}%)", formatBytes(totalBytes),
                              std::min<std::int64_t>(100, transferredBytes * 100 / totalBytes));
    std::string line = fmt::format("{}  {}  {}", counts, rate, name);

    std::size_t width = 80;
    struct winsize ws {};
    if (::ioctl(::fileno(out_), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) width = ws.ws_col;
    if (line.size() >= width) line.resize(width - 1);
    std::string pad = drawnWidth_ > line.size() ? std::string(drawnWidth_ - line.size(), ' ') : "";
    fmt::print(out_, "\r{}{}", line, pad);
    std::fflush(out_);
    drawnWidth_ = line.size();
}

void ProgressView::clearLine() {
    if (!displayed_ || drawnWidth_ == 0) return;
    fmt::print(out_, "\r{}\r", std::string(drawnWidth_, ' '));
    std::fflush(out_);
    drawnWidth_ = 0;
}

void ProgressView::close() {
    clearLine();
}

}  // namespace quillon::cli
