// The transfer engine against the usual tools, side by side in one run, each pair with its speed
// ratio (the other tool's time divided by quillon's; 1.0 means as fast):
//   - one large local file:           `quillon cp`    against `cp`        (target >= 0.95)
//   - a tree of many small files:     `quillon cp -r` against `cp -r`     (target >= 0.8)
//   - downloading many 64 KiB files
//     from a real vsftpd on loopback: `quillon cp -r` against `lftp -e 'mirror'` (target >= 1.0)
//
//   TRANSFERBENCH_BIG_MB      size of the large file in MiB (default 2048)
//   TRANSFERBENCH_SMALL       number of small files (default 10000)
//   TRANSFERBENCH_FTP_FILES   number of 64 KiB files on the FTP server (default 1000)
//   BENCH_VERBOSE             set: show the timed programs' error messages
//   QUILLON_BINARY            the quillon program to time (default: the one built with this)

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "BenchKit.h"

#if __has_include("support/FtpServers.h")
#include "support/FtpServers.h"
#define TRANSFERBENCH_HAS_FTP 1
#endif

namespace {

namespace fs = std::filesystem;
using namespace quillon::bench;

std::string gQuillon;
std::string gBase;

// `count` files of 1 to 8 KiB in folders of 100.
bool makeSmallTree(const std::string& root, long count, std::size_t fixedSize = 0) {
    auto block = randomBlock(64 << 10, 2);
    for (long i = 0; i < count; ++i) {
        std::string folder = root + "/d" + std::to_string(i / 100);
        if (i % 100 == 0) fs::create_directories(folder);
        std::size_t size = fixedSize ? fixedSize : 1024 + static_cast<std::size_t>(i * 7919 % 7168);
        if (!writeBytes(folder + "/f" + std::to_string(i) + ".dat", block.data(), size))
            return false;
    }
    return true;
}

// Times `command` per iteration; `reset` runs untimed before each one.
void timeCommand(benchmark::State& state, const std::vector<std::string>& command,
                 const std::function<void()>& reset) {
    for (auto _ : state) {
        state.PauseTiming();
        reset();
        ::sync();
        state.ResumeTiming();
        if (runQuiet(command) != 0) {
            state.SkipWithError(("failed: " + command[0] + " " + command[1]).c_str());
            break;
        }
    }
    reset();
}

std::function<void()> emptyFolder(const std::string& path) {
    return [path] {
        std::error_code ec;
        fs::remove_all(path, ec);
        fs::create_directories(path, ec);
    };
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    long bigMiB = envNumber("TRANSFERBENCH_BIG_MB", 2048);
    long smallCount = envNumber("TRANSFERBENCH_SMALL", 10000);
    long ftpCount = envNumber("TRANSFERBENCH_FTP_FILES", 1000);
    const char* bin = std::getenv("QUILLON_BINARY");
    gQuillon = bin && *bin ? bin : QUILLON_BINARY;

    gBase = (fs::temp_directory_path() / "quillon-transferbench-XXXXXX").string();
    if (!::mkdtemp(gBase.data())) {
        std::perror("mkdtemp");
        return 1;
    }
    ::setenv("QUILLON_HOME", (gBase + "/home").c_str(), 1);
    std::string big = gBase + "/big.bin", small = gBase + "/small";
    std::printf("making a %ld MiB file and a tree of %ld small files in %s\n", bigMiB, smallCount,
                gBase.c_str());
    if (!makeBigFile(big, bigMiB) || !makeSmallTree(small, smallCount)) {
        std::perror("making the data");
        fs::remove_all(gBase);
        return 1;
    }
    // A first run sets up quillon's home, so the timed runs measure copying only.
    fs::create_directories(gBase + "/warm");
    runQuiet({gQuillon, "cp", gBase + "/small/d0/f0.dat", gBase + "/warm"});

    std::string qBig = gBase + "/q-big", cBig = gBase + "/c-big";
    std::string qSmall = gBase + "/q-small", cSmall = gBase + "/c-small";
    benchmark::RegisterBenchmark("quillon cp (large file)",
                                 [&](benchmark::State& s) {
                                     timeCommand(s, {gQuillon, "cp", big, qBig}, emptyFolder(qBig));
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(3);
    benchmark::RegisterBenchmark("cp (large file)",
                                 [&](benchmark::State& s) {
                                     timeCommand(s, {"cp", big, cBig}, emptyFolder(cBig));
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(3);
    benchmark::RegisterBenchmark(
        "quillon cp -r (small files)",
        [&](benchmark::State& s) {
            timeCommand(s, {gQuillon, "cp", "-r", small, qSmall}, emptyFolder(qSmall));
        })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(3);
    benchmark::RegisterBenchmark(
        "cp -r (small files)",
        [&](benchmark::State& s) {
            timeCommand(s, {"cp", "-r", small, cSmall}, emptyFolder(cSmall));
        })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(3);

#ifdef TRANSFERBENCH_HAS_FTP
    std::string why;
    auto server = quillon::test::FtpServer::start(quillon::test::FtpServerKind::Vsftpd, {}, &why);
    std::string qFtp = gBase + "/q-ftp", lFtp = gBase + "/l-ftp";
    if (server && makeSmallTree(server->hostPath("/tree"), ftpCount, 64 << 10)) {
        server->chownTree();
        // vsftpd runs here without a chroot: the tree's server path is its path on this disk.
        std::string serverTree = server->hostPath("/tree");
        std::string url = "ftp://127.0.0.1:" + std::to_string(server->port());
        std::printf("vsftpd on port %d serves %ld files of 64 KiB\n", server->port(), ftpCount);
        benchmark::RegisterBenchmark(
            "quillon cp -r (FTP download)",
            [=](benchmark::State& s) {
                timeCommand(s, {gQuillon, "cp", "-r", url + serverTree, qFtp}, emptyFolder(qFtp));
            })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->Iterations(3);
        benchmark::RegisterBenchmark("lftp mirror (FTP download)",
                                     [=](benchmark::State& s) {
                                         timeCommand(s,
                                                     {"lftp", "-e",
                                                      "set cmd:fail-exit true; mirror " +
                                                          serverTree + " " + lFtp + "/tree; quit",
                                                      url},
                                                     emptyFolder(lFtp));
                                     })
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime()
            ->Iterations(3);
        // The same server as a configured record whose data connections go to the control
        // connection's address instead of the one in the PASV reply: this separates the
        // engine's own cost from libcurl's handling of PASV addresses.
        if (runQuiet({gQuillon, "server", "add", "bench-vsftpd", "--type", "ftp", "--addr",
                      "127.0.0.1", "--port", std::to_string(server->port())}) == 0 &&
            runQuiet({gQuillon, "server", "set", "bench-vsftpd", "FTP_SKIP_PASV_IP=YES"}) == 0) {
            std::string qFtp2 = gBase + "/q-ftp2";
            benchmark::RegisterBenchmark(
                "quillon cp -r (FTP download, PASV address skipped)",
                [=](benchmark::State& s) {
                    timeCommand(s, {gQuillon, "cp", "-r", "bench-vsftpd:" + serverTree, qFtp2},
                                emptyFolder(qFtp2));
                })
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->Iterations(3);
        }
    } else {
        std::printf("FTP download not measured: %s\n",
                    server ? "the tree could not be made" : why.c_str());
    }
#else
    std::printf("FTP download not measured: built without the test fixtures\n");
#endif

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printRatio(reporter, "quillon cp (large file)", "cp (large file)", "target >= 0.95");
    printRatio(reporter, "quillon cp -r (small files)", "cp -r (small files)", "target >= 0.8");
    printRatio(reporter, "quillon cp -r (FTP download)", "lftp mirror (FTP download)",
               "target >= 1.0");
    printRatio(reporter, "quillon cp -r (FTP download, PASV address skipped)",
               "lftp mirror (FTP download)", "target >= 1.0");

#ifdef TRANSFERBENCH_HAS_FTP
    server.reset();
#endif
    std::error_code ec;
    fs::remove_all(gBase, ec);
    benchmark::Shutdown();
    return 0;
}
