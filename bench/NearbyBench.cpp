// Nearby sharing over loopback against raw TCP, side by side in one run, each pair with its speed
// ratio (the other side's time divided by quillon's; 1.0 means as fast). Each pair is one
// benchmark whose sides take turns; the time shown is quillon's, from the start of
// `quillon nearby send` until `quillon nearby receive` reports the last file saved:
//   - one large file:        quillon against `socat` from file to file          (target >= 0.9)
//   - many small files:      quillon against `tar | socat | tar` of the same tree; the time per
//                            file is printed, and the protocol's own pauses (0.25 s after each
//                            file, 0.4 s before the first) separately
// Listeners (quillon's receiver, socat's) start before the clock does.
//
//   NEARBYBENCH_BIG_MB   size of the large file in MiB (default 1024)
//   NEARBYBENCH_SMALL    number of small files, 4 KiB each (default 1000; 0.25 s each at least)
//   BENCH_VERBOSE        set: show the timed programs' error messages
//   QUILLON_BINARY       the quillon program to time (default: the one built with this)

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <thread>

#include "BenchKit.h"
#include "support/ChildProcess.h"

namespace {

namespace fs = std::filesystem;
using namespace quillon::bench;
using quillon::test::ChildProcess;

constexpr double kPausePerFile = 0.25;  // the sender's pause before "STORE_COMPLETED"
constexpr double kStartDelay = 0.4;     // from connecting to the first file

std::string gQuillon;
std::string gBase;

// A port free now (socat cannot report the one it picks); a clash shows as a failed run.
int freePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    ::close(fd);
    return ntohs(a.sin_port);
}

// Whether something listens on the loopback port (from /proc, without connecting to it).
bool listening(int port) {
    std::ifstream tcp("/proc/net/tcp");
    std::string line;
    auto local = fmt::format("0100007F:{:04X}", port);
    while (std::getline(tcp, line))
        if (line.find(local) != std::string::npos && line.find(" 0A ") != std::string::npos)
            return true;
    return false;
}

// One pair's listeners, started afresh (untimed) before each run of either side.
struct Listeners {
    std::string qInbox, sInbox;
    bool tarStream = false;
    std::unique_ptr<ChildProcess> quillon, socat;
    int quillonPort = 0, socatPort = 0;

    void reset() {
        // The last run's file is saved by now (its side waited for that).
        if (quillon) quillon->stop(SIGTERM);
        socat.reset();
        emptyFolder(qInbox);
        emptyFolder(sInbox);
        quillon = std::make_unique<ChildProcess>(
            std::vector<std::string>{gQuillon, "nearby", "receive", "--once", "--bind", "127.0.0.1",
                                     "--port", "0", "--to", qInbox});
        auto port = quillon->waitForOutput(std::regex("port (\\d+)"));
        quillonPort = port ? std::stoi(*port) : 0;
        socatPort = freePort();
        std::string listen = fmt::format("TCP-LISTEN:{},bind=127.0.0.1,reuseaddr", socatPort);
        // socat runs tar itself, so that stopping socat leaves nothing behind.
        if (tarStream)
            socat = std::make_unique<ChildProcess>(std::vector<std::string>{
                "socat", "-u", listen, "EXEC:tar -C " + sInbox + " -xf -"});
        else
            socat = std::make_unique<ChildProcess>(std::vector<std::string>{
                "socat", "-u", listen, "OPEN:" + sInbox + "/big.bin,creat,trunc"});
        for (int i = 0; i < 500 && !listening(socatPort); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    long bigMiB = envNumber("NEARBYBENCH_BIG_MB", 1024);
    long smallCount = envNumber("NEARBYBENCH_SMALL", 1000);
    const char* bin = std::getenv("QUILLON_BINARY");
    gQuillon = bin && *bin ? bin : QUILLON_BINARY;
    gBase = (fs::temp_directory_path() / "quillon-nearbybench-XXXXXX").string();
    if (!::mkdtemp(gBase.data())) {
        std::perror("mkdtemp");
        return 1;
    }
    ::setenv("QUILLON_HOME", (gBase + "/home").c_str(), 1);
    // Nothing is announced on the network: the receivers listen on loopback, and no bus is there.
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + gBase + "/no-bus").c_str(), 1);
    std::string big = gBase + "/big.bin", small = gBase + "/small";
    std::printf("making a %ld MiB file and %ld files of 4 KiB in %s\n", bigMiB, smallCount,
                gBase.c_str());
    auto block = randomBlock(4096, 3);
    bool made = makeBigFile(big, bigMiB);
    for (long i = 0; made && i < smallCount; ++i) {
        std::string folder = fmt::format("{}/d{:02}", small, i / 100);
        fs::create_directories(folder);
        made = writeBytes(fmt::format("{}/f{:04}.dat", folder, i), block.data(), block.size());
    }
    if (!made) {
        std::perror("making the data");
        fs::remove_all(gBase);
        return 1;
    }

    auto bigListeners = std::make_shared<Listeners>();
    bigListeners->qInbox = gBase + "/q-big";
    bigListeners->sInbox = gBase + "/s-big";
    registerPair(
        "large file", "socat", bigMiB << 20,
        [bigListeners, big] {
            return runQuiet({gQuillon, "nearby", "send",
                             fmt::format("127.0.0.1:{}", bigListeners->quillonPort), big}) == 0 &&
                   bigListeners->quillon->waitForOutput(std::regex("received big.bin"));
        },
        [bigListeners, big] {
            bool sent = runQuiet({"socat", "-u", "OPEN:" + big,
                                  fmt::format("TCP:127.0.0.1:{}", bigListeners->socatPort)}) == 0;
            return sent && bigListeners->socat->wait() == 0;
        },
        [bigListeners] { bigListeners->reset(); });

    auto smallListeners = std::make_shared<Listeners>();
    smallListeners->qInbox = gBase + "/q-small";
    smallListeners->sInbox = gBase + "/s-small";
    smallListeners->tarStream = true;
    std::string lastName =
        fmt::format("small/d{:02}/f{:04}.dat", (smallCount - 1) / 100, smallCount - 1);
    registerPair(
        "small files", "tar | socat", smallCount * 4096,
        [smallListeners, small, lastName] {
            return runQuiet({gQuillon, "nearby", "send",
                             fmt::format("127.0.0.1:{}", smallListeners->quillonPort), small}) ==
                       0 &&
                   smallListeners->quillon->waitForOutput(std::regex("received " + lastName),
                                                          std::chrono::seconds(600));
        },
        [smallListeners] {
            bool sent = runQuiet({"sh", "-c",
                                  fmt::format("tar -C '{}' -cf - small | socat -u STDIN "
                                              "TCP:127.0.0.1:{}",
                                              gBase, smallListeners->socatPort)}) == 0;
            return sent && smallListeners->socat->wait() == 0;
        },
        [smallListeners] { smallListeners->reset(); }, 1);

    benchmark::RunSpecifiedBenchmarks();
    printPairRatio("large file", "socat", "target >= 0.9");
    if (auto it = pairTimes().find("large file"); it != pairTimes().end()) {
        auto [q, s] = it->second;
        std::printf(
            "large file: quillon %.2f s (%.0f MB/s), socat %.2f s; quillon without the "
            "protocol's %.2f s of pauses %.2f s, ratio %.2f\n",
            q, static_cast<double>(bigMiB << 20) / q / 1e6, s, kStartDelay + kPausePerFile,
            q - kStartDelay - kPausePerFile, s / (q - kStartDelay - kPausePerFile));
    }
    if (auto it = pairTimes().find("small files"); it != pairTimes().end() && smallCount > 0) {
        auto [q, s] = it->second;
        double perFile = q / static_cast<double>(smallCount);
        double own = (q - kStartDelay) / static_cast<double>(smallCount) - kPausePerFile;
        std::printf(
            "small files: quillon %.1f ms per file, of which %.0f ms is the protocol's pause "
            "after each file: %.1f ms per file of its own work; tar | socat %.2f ms per file; "
            "ratio without the pauses %.2f\n",
            perFile * 1e3, kPausePerFile * 1e3, own * 1e3,
            s / static_cast<double>(smallCount) * 1e3, s / static_cast<double>(smallCount) / own);
    }
    bigListeners.reset();
    smallListeners.reset();
    std::error_code ec;
    fs::remove_all(gBase, ec);
    benchmark::Shutdown();
    return 0;
}
