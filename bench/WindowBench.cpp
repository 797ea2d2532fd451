// The window showing a 100,000-entry local folder, against `ls -la` on the same folder side by
// side: the time to the first rows painted, the time to the whole folder listed and sorted, and
// their ratio to ls, and the local client's listing alone. Then the window's heartbeat: the longest
// stall of a 5 ms timer on the window's thread while that folder loads and while a large copy runs
// through the transfer manager (the targets: first rows within 100 ms, the whole folder within 2x
// ls, no stall above 50 ms), beside the longest stall of the idle window: the machine's share.
//
//   WINDOWBENCH_ENTRIES     entries in the folder (default 100000)
//   WINDOWBENCH_RUNS        runs of each measurement; the median is printed (default 3)
//   WINDOWBENCH_COPY_MB     size of the copied file in MiB (default 256; 1024 for 1 GiB)
//   WINDOWBENCH_FOLDER      a folder to make the test data in (default: under /tmp)
//
// Runs on Qt's offscreen platform unless QT_QPA_PLATFORM says otherwise.

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <QAbstractItemView>
#include <QApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <QTreeView>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "BenchKit.h"
#include "app/gui/MainWindow.h"
#include "app/gui/QueuePump.h"
#include "clients/Clients.h"
#include "core/AppPreference.h"
#include "core/DBManager.h"
#include "core/Location.h"

namespace {

namespace fs = std::filesystem;
using namespace quillon;
using namespace quillon::bench;

double msSince(const QElapsedTimer& clock) {
    return static_cast<double>(clock.nsecsElapsed()) / 1e6;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

// Runs Qt's loop until `done` holds or `seconds` pass; false on the timeout.
bool waitFor(const std::function<bool()>& done, int seconds = 600) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > seconds * 1000) return false;
        QApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
    }
    return true;
}

// The window thread's CPU time in milliseconds.
double threadCpuMs() {
    timespec t{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

// The longest gap between beats of a 5 ms timer on the window's thread while it runs, and the
// longest stretch of the thread's own work between two beats: on a loaded machine the first
// also holds the time the thread waited for a processor, the second does not.
class Heartbeat {
  public:
    Heartbeat() {
        QObject::connect(&timer_, &QTimer::timeout, [this] {
            longest_ = std::max(longest_, msSince(clock_) - last_);
            last_ = msSince(clock_);
            double cpu = threadCpuMs();
            longestCpu_ = std::max(longestCpu_, cpu - lastCpu_);
            lastCpu_ = cpu;
        });
    }
    void start() {
        longest_ = longestCpu_ = 0;
        clock_.start();
        last_ = 0;
        lastCpu_ = threadCpuMs();
        timer_.start(5);
    }
    double stop() {
        timer_.stop();
        return longest_;
    }
    double longestWork() const { return longestCpu_; }

  private:
    QTimer timer_;
    QElapsedTimer clock_;
    double last_ = 0, lastCpu_ = 0;
    double longest_ = 0, longestCpu_ = 0;
};

bool makeFolder(const std::string& folder, long count) {
    for (long i = 0; i < count; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "%s/file-%06ld.%s", folder.c_str(), (i * 7919) % count,
                      i % 3 == 0 ? "txt" : (i % 3 == 1 ? "jpg" : "pdf"));
        int fd = ::open(name, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return false;
        bool ok = ::ftruncate(fd, (i * 104729) % 1000000) == 0;  // sparse: nothing is written
        ::close(fd);
        if (!ok) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    long entries = envNumber("WINDOWBENCH_ENTRIES", 100000);
    int runs = static_cast<int>(std::max(1L, envNumber("WINDOWBENCH_RUNS", 3)));
    long copyMb = envNumber("WINDOWBENCH_COPY_MB", 256);
    std::string base = std::getenv("WINDOWBENCH_FOLDER") ? std::getenv("WINDOWBENCH_FOLDER")
                                                         : fs::temp_directory_path().string();
    std::string scratch = base + "/quillon-windowbench-XXXXXX";
    if (!::mkdtemp(scratch.data())) {
        std::perror("mkdtemp");
        return 1;
    }
    // A home of its own: the window reads and writes preferences and the database there.
    fs::create_directories(scratch + "/home");
    ::setenv("HOME", (scratch + "/home").c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (scratch + "/home/.config").c_str(), 1);
    ::setenv("XDG_DATA_HOME", (scratch + "/home/.local/share").c_str(), 1);
    ::setenv("XDG_CACHE_HOME", (scratch + "/home/.cache").c_str(), 1);
    if (!std::getenv("QT_QPA_PLATFORM")) ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    QApplication qt(argc, argv);
    if (!AppPreference::sharedAppPreference().load() || !DBManager::sharedDBManager().openDB()) {
        std::fprintf(stderr, "cannot open the preferences or the database\n");
        return 1;
    }
    registerBuiltinClients();

    std::string big = scratch + "/big", empty = scratch + "/empty";
    fs::create_directories(big);
    fs::create_directories(empty);
    std::printf("making %ld entries in %s...\n", entries, big.c_str());
    if (!makeFolder(big, entries)) {
        std::perror("making the folder");
        return 1;
    }
    auto* ls = std::getenv("WINDOWBENCH_LS") ? std::getenv("WINDOWBENCH_LS") : "ls";

    int rc = 0;
    {
        gui::QueuePump pump;
        FileTransferTaskManager manager;
        gui::MainWindow window(manager, empty);
        window.show();
        auto* panel = window.panel(0);
        bool painted = false;
        Heartbeat heartbeat;
        std::vector<double> first, whole, lsTimes, listTimes, stalls, works;
        auto folder = resolveLocation(big);
        if (!folder) {
            std::fprintf(stderr, "%s\n", folder.error().describe().c_str());
            return 1;
        }
        // The same heartbeat with nothing to do: what the machine's own load costs it.
        heartbeat.start();
        waitFor([] { return false; }, 2);
        double idleStall = heartbeat.stop();
        for (int run = 0; run < runs; ++run) {
            // ls -la, then the window, on the folder the page cache already holds.
            QElapsedTimer clock;
            clock.start();
            if (runQuiet({ls, "-la", big}) != 0) {
                std::fprintf(stderr, "%s -la failed\n", ls);
                return 1;
            }
            lsTimes.push_back(msSince(clock));
            // The local client's listing alone, on the window's side of the comparison.
            clock.restart();
            auto listed = folder->client->contentsOfDirectoryAtPathSync(folder->metadata(true));
            listTimes.push_back(msSince(clock));
            if (!listed || static_cast<long>(listed->size()) != entries) {
                std::fprintf(stderr, "the listing failed\n");
                return 1;
            }

            // A new tab each run: its model has no cache, so the folder is listed afresh.
            auto* tab = panel->addTab();
            while (panel->count() > 1) delete panel->widget(0);
            auto* model = tab->model();
            waitFor([&] { return model->folder() && !model->isLoading(); });
            painted = false;
            double firstAt = -1;
            auto inserted = QObject::connect(model, &QAbstractItemModel::rowsInserted, [&] {
                if (firstAt >= 0) return;
                // The first rows are on screen once the view has painted them.
                tab->view()->viewport()->repaint();
                firstAt = msSince(clock);
                painted = true;
            });
            auto reset = QObject::connect(model, &QAbstractItemModel::modelReset, [&] {
                if (firstAt >= 0 || model->rowCount() == 0) return;
                tab->view()->viewport()->repaint();
                firstAt = msSince(clock);
                painted = true;
            });
            heartbeat.start();
            clock.restart();
            tab->goTo(QString::fromStdString(big));
            bool ok = waitFor([&] {
                return model->folder()->path == big && !model->isLoading() &&
                       model->rowCount() == entries;
            });
            whole.push_back(msSince(clock));
            stalls.push_back(heartbeat.stop());
            works.push_back(heartbeat.longestWork());
            first.push_back(firstAt);
            QObject::disconnect(inserted);
            QObject::disconnect(reset);
            if (!ok || !painted) {
                std::fprintf(stderr, "the folder did not load (%d rows)\n", model->rowCount());
                return 1;
            }
            tab->goTo(QString::fromStdString(empty));
            waitFor([&] { return model->folder()->path == empty && !model->isLoading(); });
        }
        double lsMs = median(lsTimes), wholeMs = median(whole);
        std::printf("\nshowing %ld entries (median of %d runs)\n", entries, runs);
        std::printf("  first rows painted       %9.1f ms   (target <= 100 ms)\n", median(first));
        std::printf("  whole folder sorted      %9.1f ms\n", wholeMs);
        std::printf("  ls -la                   %9.1f ms\n", lsMs);
        std::printf("  listing alone            %9.1f ms\n", median(listTimes));
        std::printf("  window / ls              %9.2f     (target <= 2)\n",
                    lsMs > 0 ? wholeMs / lsMs : 0.0);
        std::printf("  longest stall, loading   %9.1f ms   (target <= 50 ms)\n", median(stalls));
        std::printf("  longest work, loading    %9.1f ms   (the window thread's own CPU time)\n",
                    median(works));
        std::printf("  longest stall, idle      %9.1f ms   (the machine's share)\n", idleStall);

        // A large copy through the transfer manager, the window's heartbeat running.
        std::string source = scratch + "/source", target = scratch + "/target";
        fs::create_directories(source);
        fs::create_directories(target);
        {
            auto block = randomBlock(1 << 20, 7);
            int fd = ::open((source + "/large.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            for (long i = 0; fd >= 0 && i < copyMb; ++i)
                if (::write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size()))
                    break;
            if (fd >= 0) ::close(fd);
        }
        heartbeat.start();
        QElapsedTimer clock;
        clock.start();
        window.transfer({source + "/large.bin"}, target, false);
        bool ok = waitFor([&] {
            return window.transfers()->rowCount() == 1 && window.transfers()->activeCount() == 0;
        });
        double copyMs = msSince(clock), stall = heartbeat.stop();
        std::error_code ec;
        if (!ok || fs::file_size(target + "/large.bin", ec) != static_cast<std::uintmax_t>(copyMb)
                                                                   << 20) {
            std::fprintf(stderr, "the copy did not complete\n");
            rc = 1;
        }
        std::printf("\ncopying %ld MiB through the window's transfer manager\n", copyMb);
        std::printf("  copy                     %9.1f ms   (%.0f MiB/s)\n", copyMs,
                    copyMs > 0 ? static_cast<double>(copyMb) * 1000 / copyMs : 0.0);
        std::printf("  longest stall, copying   %9.1f ms   (target <= 50 ms)\n", stall);
        std::printf("  longest work, copying    %9.1f ms\n", heartbeat.longestWork());
    }
    DBManager::sharedDBManager().closeDB();
    std::error_code ec;
    fs::remove_all(scratch, ec);
    return rc;
}
