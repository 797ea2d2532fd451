// The transfer engine against the usual tools, side by side in one run, each pair with its speed
// ratio (the other tool's time divided by quillon's; 1.0 means as fast). Each pair is one
// benchmark whose sides take turns; the time shown is quillon's:
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

std::function<bool()> command(std::vector<std::string> argv) {
    return [argv = std::move(argv)] { return runQuiet(argv) == 0; };
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
    // The large copy meets the page cache's write-back at unpredictable moments on a virtual
    // machine's disk: more turns even that out.
    registerPair("large file", "cp", bigMiB << 20, command({gQuillon, "cp", big, qBig}),
                 command({"cp", big, cBig}), emptyBoth(qBig, cBig), 8);
    registerPair("small files", "cp -r", 0, command({gQuillon, "cp", "-r", small, qSmall}),
                 command({"cp", "-r", small, cSmall}), emptyBoth(qSmall, cSmall));

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
        auto mirror = command(
            {"lftp", "-e",
             "set cmd:fail-exit true; mirror " + serverTree + " " + lFtp + "/tree; quit", url});
        registerPair("FTP download", "lftp mirror", ftpCount * (64 << 10),
                     command({gQuillon, "cp", "-r", url + serverTree, qFtp}), mirror,
                     emptyBoth(qFtp, lFtp));
        // The same server as a configured record whose data connections go to the control
        // connection's address instead of the one in the PASV reply: this separates the
        // engine's own cost from libcurl's handling of PASV addresses.
        if (runQuiet({gQuillon, "server", "add", "bench-vsftpd", "--type", "ftp", "--addr",
                      "127.0.0.1", "--port", std::to_string(server->port())}) == 0 &&
            runQuiet({gQuillon, "server", "set", "bench-vsftpd", "FTP_SKIP_PASV_IP=YES"}) == 0) {
            std::string qFtp2 = gBase + "/q-ftp2";
            registerPair("FTP download, PASV address skipped", "lftp mirror", ftpCount * (64 << 10),
                         command({gQuillon, "cp", "-r", "bench-vsftpd:" + serverTree, qFtp2}),
                         mirror, emptyBoth(qFtp2, lFtp));
        }
    } else {
        std::printf("FTP download not measured: %s\n",
                    server ? "the tree could not be made" : why.c_str());
    }
#else
    std::printf("FTP download not measured: built without the test fixtures\n");
#endif

    benchmark::RunSpecifiedBenchmarks();
    printPairRatio("large file", "cp", "target >= 0.95");
    printPairRatio("small files", "cp -r", "target >= 0.8");
    printPairRatio("FTP download", "lftp mirror", "target >= 1.0");
    printPairRatio("FTP download, PASV address skipped", "lftp mirror", "target >= 1.0");

#ifdef TRANSFERBENCH_HAS_FTP
    server.reset();
#endif
    std::error_code ec;
    fs::remove_all(gBase, ec);
    benchmark::Shutdown();
    return 0;
}
