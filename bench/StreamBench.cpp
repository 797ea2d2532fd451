// The playback server against curl reading the same vsftpd (started on loopback by the test
// fixtures) directly, side by side in one run:
//   - sequential read of a large file through the playback URL (curl -o /dev/null on the URL)
//     against curl downloading it from the FTP server; speed ratio, target >= 0.9. Each run
//     starts with an empty cache.
//   - time to first byte after a seek to an uncached offset while a read is under way (curl's
//     time to fetch the first 64 KiB there), against curl fetching them from the FTP server;
//     target <= 100 ms on loopback.
//   - re-reading a range the cache holds (curl's own download speed): a range inside one cached
//     run (sent with sendfile) and one across runs (through the streamed body); target >= 1 GB/s.
//
//   STREAMBENCH_MB        size of the large file in MiB (default 1024)
//   STREAMBENCH_ON_DISK   set: keep files and the cache under the usual temporary folder; by
//                         default they live in /dev/shm, so that the disk's write-back does not
//                         decide the figures
//   STREAMBENCH_SEQUENTIAL_ONLY  set: measure the sequential read only
//   BENCH_VERBOSE         set: show curl's error messages

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "BenchKit.h"
#include "clients/Clients.h"
#include "clients/ftp/FtpWrapper.h"
#include "core/KvConnectionPool.h"
#include "servers/streaming/CachedDataReader.h"
#include "servers/streaming/DiskDataCache.h"
#include "servers/streaming/StreamHttpServerService.h"
#include "support/FtpServers.h"
#include "support/TestEnv.h"

namespace {

namespace fs = std::filesystem;
using namespace quillon;
using namespace quillon::bench;

// Runs curl with `-w FORMAT` and returns what it printed, or empty on failure.
std::string curlWrite(std::vector<std::string> args, const std::string& format,
                      const std::string& outFile) {
    std::vector<std::string> argv{"curl", "-sS", "-o", "/dev/null", "-w", format};
    argv.insert(argv.end(), args.begin(), args.end());
    if (spawnAndWait(argv, "/dev/null", outFile, std::getenv("BENCH_VERBOSE") ? "" : "/dev/null") !=
        0)
        return {};
    std::ifstream in(outFile);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

double median(std::vector<double> v) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double cpuSeconds(int who) {
    rusage u{};
    ::getrusage(who, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// CPU seconds of a process and all it started (live or reaped).
double treeCpuSeconds(long pid) {
    std::ifstream stat(fmt::format("/proc/{}/stat", pid));
    std::string line;
    std::getline(stat, line);
    auto close = line.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(line.substr(close + 2));
    std::string field;
    double ticks = 0;
    // Fields 14 to 17: utime, stime, cutime, cstime (counted from the state, field 3).
    for (int i = 3; i <= 17 && fields >> field; ++i)
        if (i >= 14) ticks += std::stod(field);
    double total = ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
    std::error_code ec;
    for (auto& task : fs::directory_iterator(fmt::format("/proc/{}/task", pid), ec)) {
        std::ifstream children(task.path() / "children");
        for (long child = 0; children >> child;) total += treeCpuSeconds(child);
    }
    return total;
}

// CPU seconds of this process's children named `name`, with all they started.
double childCpuSeconds(const std::string& name) {
    double total = 0;
    std::error_code ec;
    for (auto& task : fs::directory_iterator("/proc/self/task", ec)) {
        std::ifstream children(task.path() / "children");
        for (long pid = 0; children >> pid;) {
            std::ifstream comm(fmt::format("/proc/{}/comm", pid));
            std::string got;
            std::getline(comm, got);
            if (got == name) total += treeCpuSeconds(pid);
        }
    }
    return total;
}

void emptyCache() {
    CachedDataReader::cancelAllBackgroundFetching();
    CachedDataReader::fetchingQueue().waitUntilAllOperationsAreFinished();
    DiskDataCache::shared().clearCache();
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    long mib = envNumber("STREAMBENCH_MB", 1024);
    std::int64_t bytes = static_cast<std::int64_t>(mib) << 20;
    bool onDisk = std::getenv("STREAMBENCH_ON_DISK") != nullptr;
    if (!onDisk && fs::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
    test::IsolatedHome home;
    test::ScratchDir scratch("streambench");
    registerBuiltinClients();
    std::string why;
    auto server = test::FtpServer::start(test::FtpServerKind::Vsftpd, {}, &why);
    if (!server || !makeBigFile(server->hostPath("/big.bin"), mib)) {
        std::printf("not measured: %s\n", why.empty() ? "the file could not be made" : why.c_str());
        return 1;
    }
    std::string ftpUrl =
        fmt::format("ftp://127.0.0.1:{}/{}", server->port(), server->remotePath("/big.bin"));
    auto& service = StreamHttpServerService::sharedHttpServerService();
    service.setPort(0);
    KvMetadata file(server->remotePath("/big.bin"));
    file.protocolType = ProtocolType::FTP;
    file.fileSizeInBytes = static_cast<std::uint64_t>(bytes);
    auto url = FtpWrapper(server->serverInfo()).loadStreamableURLForFileSync(file);
    if (!url) {
        std::printf("not measured: the playback server did not start\n");
        return 1;
    }
    std::printf("vsftpd on port %d, playback server on %d: a file of %ld MiB; files and cache %s\n",
                server->port(), service.listeningPort(), mib, onDisk ? "on disk" : "in /dev/shm");

    // The machine may be shared: the CPU time each side takes per GiB shows its cost whatever the
    // others take; when CPU is what limits both sides, their ratio is that of their CPU times.
    struct Cpu {
        double ours = 0, curl = 0, ftpServer = 0;
        std::uint64_t bytes = 0;
    };
    Cpu viaUrl, fromFtp;
    auto measured = [&](Cpu& into, const std::string& from) {
        double self = cpuSeconds(RUSAGE_SELF), children = cpuSeconds(RUSAGE_CHILDREN);
        double ftpd = childCpuSeconds("vsftpd");
        bool ok = runQuiet({"curl", "-sS", "-o", "/dev/null", from}) == 0;
        into.ours += cpuSeconds(RUSAGE_SELF) - self;
        into.curl += cpuSeconds(RUSAGE_CHILDREN) - children;
        into.ftpServer += childCpuSeconds("vsftpd") - ftpd;
        into.bytes += static_cast<std::uint64_t>(bytes);
        return ok;
    };
    registerPair(
        "sequential read (large file)", "curl", bytes, [&] { return measured(viaUrl, *url); },
        [&] { return measured(fromFtp, ftpUrl); }, emptyCache);
    benchmark::RunSpecifiedBenchmarks();
    printPairRatio("sequential read (large file)", "curl", "target >= 0.9");
    for (auto* side : {&viaUrl, &fromFtp}) {
        if (side->bytes == 0) continue;
        double gib = static_cast<double>(side->bytes) / (1 << 30);
        std::printf("CPU s per GiB, %s: playback server %.2f, curl %.2f, vsftpd %.2f\n",
                    side == &viaUrl ? "through the URL" : "curl from FTP", side->ours / gib,
                    side->curl / gib, side->ftpServer / gib);
    }
    if (viaUrl.bytes > 0 && fromFtp.bytes > 0) {
        auto perGiB = [](const Cpu& c) {
            return (c.ours + c.curl + c.ftpServer) / (static_cast<double>(c.bytes) / (1 << 30));
        };
        std::printf(
            "CPU s per GiB in all: through the URL %.2f, curl from FTP %.2f; the ratio "
            "where CPU decides: %.2f\n",
            perGiB(viaUrl), perGiB(fromFtp), perGiB(fromFtp) / perGiB(viaUrl));
    }

    // Where the time goes: the FTP client's read alone, and with every block written to the cache
    // as a sequential read through the URL does (the cache's limits for the file, runs read
    // through making room): the least such a read costs. CPU time too, as the machine may be
    // shared.
    for (bool withCache : {false, true}) {
        emptyCache();
        DiskDataCache::shared().calcMaxCacheSize(static_cast<std::uint64_t>(bytes));
        FtpWrapper client(server->serverInfo());
        std::uint64_t got = 0;
        double cpuBefore = cpuSeconds(RUSAGE_SELF);
        auto start = std::chrono::steady_clock::now();
        bool ok = client.initStreamFileMeta(file) &&
                  client.readDataFromOffsetToEnd(0, [&](const Bytes& block) {
                      if (withCache) {
                          DiskDataCache::shared().writeDataWithStartPos(got, block);
                          DiskDataCache::shared().noteRead(got, block.size());
                      }
                      got += block.size();
                      return true;
                  });
        std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        std::printf("FTP client reading the file %s: %.2f GB/s, %.2f s CPU per GiB\n",
                    withCache ? "into the cache" : "alone",
                    ok ? static_cast<double>(got) / took.count() / 1e9 : -1.0,
                    (cpuSeconds(RUSAGE_SELF) - cpuBefore) / (static_cast<double>(got) / (1 << 30)));
    }

    if (std::getenv("STREAMBENCH_SEQUENTIAL_ONLY")) {
        service.stopServer();
        emptyCache();
        KvConnectionPool::clearConnectionPool();
        return 0;
    }

    // Seeks while a player-like read (20 MB/s) is under way at the start of the file.
    std::string out = scratch / "curl-out.txt";
    emptyCache();
    std::atomic<bool> playing = true;
    std::thread player([&] {
        while (playing)
            runQuiet(
                {"curl", "-sS", "-o", "/dev/null", "--limit-rate", "20M", "--max-time", "5", *url});
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::mt19937_64 random(7);
    std::vector<double> ours, direct;
    for (int i = 0; i < 9; ++i) {
        // An offset the cache does not hold (earlier seeks fetched some).
        std::uint64_t at = 0;
        for (int tries = 0; tries < 100; ++tries) {
            at = (static_cast<std::uint64_t>(bytes) / 2) +
                 random() % (static_cast<std::uint64_t>(bytes) / 2 - (8 << 20));
            if (!DiskDataCache::shared().findMatchItem(at) &&
                !DiskDataCache::shared().findMatchItem(at + (1 << 20) - 1))
                break;
        }
        // The whole of a 64 KiB range: our headers go out before the body's first byte is
        // fetched, so curl's time_starttransfer would flatter us.
        auto range = fmt::format("{}-{}", at, at + 65535);
        auto q = curlWrite({"--range", range, *url}, "%{time_total}", out);
        auto c = curlWrite({"--range", range, ftpUrl}, "%{time_total}", out);
        if (!q.empty()) ours.push_back(1000 * std::stod(q));
        if (!c.empty()) direct.push_back(1000 * std::stod(c));
    }
    playing = false;
    player.join();
    std::printf(
        "time to first byte after a seek to an uncached offset: quillon %.1f ms (median of "
        "%zu, worst %.1f), curl on FTP %.1f ms (target <= 100 ms)\n",
        median(ours), ours.size(),
        ours.empty() ? -1.0 : *std::max_element(ours.begin(), ours.end()), median(direct));

    // Re-reading cached ranges: one inside a cached run, one across runs.
    emptyCache();
    std::uint64_t across = std::min<std::uint64_t>(static_cast<std::uint64_t>(bytes), 250ULL << 20);
    auto warm =
        curlWrite({"--range", fmt::format("0-{}", across - 1), *url}, "%{size_download}", out);
    CachedDataReader::cancelAllBackgroundFetching();
    CachedDataReader::fetchingQueue().waitUntilAllOperationsAreFinished();
    auto runs = DiskDataCache::shared().cacheItems();
    std::uint64_t inside = runs.empty() ? 0 : std::min<std::uint64_t>(runs.front()->length, across);
    std::vector<double> insideSpeed, acrossSpeed;
    for (int i = 0; i < 5; ++i) {
        auto a =
            curlWrite({"--range", fmt::format("0-{}", inside - 1), *url}, "%{speed_download}", out);
        auto b =
            curlWrite({"--range", fmt::format("0-{}", across - 1), *url}, "%{speed_download}", out);
        if (!a.empty()) insideSpeed.push_back(std::stod(a) / 1e9);
        if (!b.empty()) acrossSpeed.push_back(std::stod(b) / 1e9);
    }
    std::printf(
        "cached re-read: %.2f GB/s for %llu MiB inside one run (sendfile), %.2f GB/s for "
        "%llu MiB across runs (target >= 1 GB/s)\n",
        median(insideSpeed), static_cast<unsigned long long>(inside >> 20), median(acrossSpeed),
        static_cast<unsigned long long>(across >> 20));
    (void)warm;

    service.stopServer();
    emptyCache();
    KvConnectionPool::clearConnectionPool();
    server.reset();
    benchmark::Shutdown();
    return 0;
}
