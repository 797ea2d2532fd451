// The FTP client against the curl command line, on the same vsftpd (started on loopback by the
// test fixtures) and the same files, side by side in one run, each pair with its speed ratio
// (curl's time divided by quillon's; 1.0 means as fast):
//   - downloading one large file:  FtpWrapper::downloadSync against `curl -o`   (target >= 0.95)
//   - uploading it back:           FtpWrapper::uploadSync against `curl -T`     (target >= 0.95)
//   - listing a folder of 20,000 entries: contentsOfDirectoryAtPathSync against `curl` fetching
//     the same listing plus our parser reading curl's text                     (target >= 1.0)
//
//   FTPCLIENTBENCH_MB        size of the large file in MiB (default 1024)
//   FTPCLIENTBENCH_ENTRIES   entries of the listed folder (default 20000)
//   BENCH_VERBOSE            set: show curl's error messages

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "BenchKit.h"
#include "clients/Clients.h"
#include "clients/ftp/FTPDirListParser.h"
#include "clients/ftp/FtpWrapper.h"
#include "core/KvConnectionPool.h"
#include "core/MainQueue.h"
#include "support/FtpServers.h"
#include "support/TestEnv.h"

namespace {

namespace fs = std::filesystem;
using namespace quillon;
using namespace quillon::bench;

KvMetadata remoteItem(const std::string& path, bool isDir, std::uint64_t size = 0) {
    KvMetadata m(path);
    m.isDir = isDir;
    m.protocolType = ProtocolType::FTP;
    if (!isDir) m.fileSizeInBytes = size;
    return m;
}

KvMetadata localFile(const std::string& path) {
    KvMetadata m(path);
    m.localPath = path;
    m.protocolType = ProtocolType::Local;
    std::error_code ec;
    m.fileSizeInBytes = fs::file_size(path, ec);
    return m;
}

void removeFile(const std::string& path) {
    std::error_code ec;
    fs::remove(path, ec);
}

// Empty files named like a photo library's; vsftpd lists them with LIST.
bool makeManyEntries(const std::string& folder, long count) {
    fs::create_directories(folder);
    for (long i = 0; i < count; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "/IMG_%06ld %s.jpg", i, i % 2 ? "copy" : "edit");
        int fd = ::open((folder + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return false;
        ::close(fd);
    }
    return true;
}

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Reports the byte rate of each iteration so the console shows throughput too.
void setBytes(benchmark::State& state, std::int64_t bytesPerIteration) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * bytesPerIteration);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    long mib = envNumber("FTPCLIENTBENCH_MB", 1024);
    long entries = envNumber("FTPCLIENTBENCH_ENTRIES", 20000);
    std::int64_t bigBytes = static_cast<std::int64_t>(mib) << 20;

    test::IsolatedHome home;
    test::ScratchDir local("ftpclientbench");
    registerBuiltinClients();
    std::string why;
    auto server = test::FtpServer::start(test::FtpServerKind::Vsftpd, {}, &why);
    if (!server) {
        std::printf("not measured: %s\n", why.c_str());
        return 1;
    }
    if (!makeBigFile(server->hostPath("/big.bin"), mib) ||
        !makeManyEntries(server->hostPath("/many"), entries)) {
        std::printf("not measured: the server's files could not be made\n");
        return 1;
    }
    fs::create_directories(server->hostPath("/up"));
    server->chownTree();
    std::string url = "ftp://127.0.0.1:" + std::to_string(server->port());
    std::string bigRemote = server->remotePath("/big.bin");
    std::string upRemote = server->remotePath("/up");
    std::string manyRemote = server->remotePath("/many");
    std::string qDown = local / "q-big.bin", cDown = local / "c-big.bin";
    std::string upSource = local / "upload.bin";
    makeBigFile(upSource, mib);
    std::printf("vsftpd on port %d: a file of %ld MiB and a folder of %ld entries\n",
                server->port(), mib, entries);

    auto info = server->serverInfo();
    auto wrapper = std::make_shared<FtpWrapper>(info);

    benchmark::RegisterBenchmark(
        "quillon download (large file)",
        [&](benchmark::State& s) {
            for (auto _ : s) {
                s.PauseTiming();
                removeFile(qDown);
                s.ResumeTiming();
                if (!wrapper->downloadSync(remoteItem(bigRemote, false, bigBytes), qDown, {})) {
                    s.SkipWithError("download failed");
                    break;
                }
            }
            setBytes(s, bigBytes);
            removeFile(qDown);
        })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(3);
    benchmark::RegisterBenchmark(
        "curl download (large file)",
        [&](benchmark::State& s) {
            for (auto _ : s) {
                s.PauseTiming();
                removeFile(cDown);
                s.ResumeTiming();
                if (runQuiet({"curl", "-sS", "-o", cDown, url + "/" + bigRemote}) != 0) {
                    s.SkipWithError("curl failed");
                    break;
                }
            }
            setBytes(s, bigBytes);
            removeFile(cDown);
        })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(3);

    // Each upload makes a new file on the server; the one before is removed untimed.
    std::string uploaded = server->hostPath("/up/upload.bin");
    benchmark::RegisterBenchmark(
        "quillon upload (large file)",
        [&](benchmark::State& s) {
            for (auto _ : s) {
                s.PauseTiming();
                removeFile(uploaded);
                s.ResumeTiming();
                if (!wrapper->uploadSync(localFile(upSource), remoteItem(upRemote, true), {})) {
                    s.SkipWithError("upload failed");
                    break;
                }
            }
            setBytes(s, bigBytes);
            removeFile(uploaded);
        })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(3);
    benchmark::RegisterBenchmark(
        "curl upload (large file)",
        [&](benchmark::State& s) {
            for (auto _ : s) {
                s.PauseTiming();
                removeFile(uploaded);
                s.ResumeTiming();
                if (runQuiet({"curl", "-sS", "-T", upSource, url + "/" + upRemote + "/"}) != 0) {
                    s.SkipWithError("curl failed");
                    break;
                }
            }
            setBytes(s, bigBytes);
            removeFile(uploaded);
        })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(3);

    // Listing: quillon's records against curl's text, and our parser on that same text.
    std::string curlListing = local / "listing.txt";
    benchmark::RegisterBenchmark(
        "quillon list (many entries)",
        [&](benchmark::State& s) {
            for (auto _ : s) {
                auto list = wrapper->contentsOfDirectoryAtPathSync(remoteItem(manyRemote, true));
                if (!list || list->size() != static_cast<std::size_t>(entries)) {
                    s.SkipWithError("listing failed or incomplete");
                    break;
                }
            }
        })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(5);
    benchmark::RegisterBenchmark("curl list (many entries)",
                                 [&](benchmark::State& s) {
                                     for (auto _ : s) {
                                         if (runQuiet({"curl", "-sS", "-o", curlListing,
                                                       url + "/" + manyRemote + "/"}) != 0) {
                                             s.SkipWithError("curl failed");
                                             break;
                                         }
                                     }
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(5);
    benchmark::RegisterBenchmark("parse curl's listing (many entries)",
                                 [&](benchmark::State& s) {
                                     std::string text = readAll(curlListing);
                                     FTPDirListParser::Options options;
                                     options.folderPath = manyRemote;
                                     for (auto _ : s) {
                                         auto list = FTPDirListParser::parse(text, options);
                                         if (list.size() != static_cast<std::size_t>(entries)) {
                                             s.SkipWithError("curl's listing did not parse whole");
                                             break;
                                         }
                                         benchmark::DoNotOptimize(list);
                                     }
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(5);

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printRatio(reporter, "quillon download (large file)", "curl download (large file)",
               "target >= 0.95");
    printRatio(reporter, "quillon upload (large file)", "curl upload (large file)",
               "target >= 0.95");
    // curl's listing plus our parse, against quillon's listing.
    auto& t = reporter.seconds;
    auto q = t.find("quillon list (many entries)");
    auto c = t.find("curl list (many entries)");
    auto p = t.find("parse curl's listing (many entries)");
    if (q != t.end() && c != t.end() && p != t.end() && q->second > 0)
        std::printf("speed ratio of 'quillon list' to 'curl list + parse': %.2f (target >= 1.0)\n",
                    (c->second + p->second) / q->second);
    else
        std::printf("speed ratio of 'quillon list' to 'curl list + parse': not measured\n");

    wrapper.reset();
    KvConnectionPool::clearConnectionPool();
    MainQueue::shared().pump();
    server.reset();
    benchmark::Shutdown();
    return 0;
}
