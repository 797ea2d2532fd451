// The FTP client against the curl command line, on the same vsftpd (started on loopback by the
// test fixtures) and the same files, side by side in one run, each pair with its speed ratio
// (curl's time divided by quillon's; 1.0 means as fast):
//   - downloading one large file:  FtpWrapper::downloadSync against `curl -o`   (target >= 0.95)
//   - uploading it back:           FtpWrapper::uploadSync against `curl -T`     (target >= 0.95)
//   - listing a folder of 20,000 entries: contentsOfDirectoryAtPathSync against `curl` fetching
//     the same listing plus our parser reading curl's text                     (target >= 1.0)
// Each pair runs in one benchmark, the two sides taking turns, and the time shown is quillon's.
//
//   FTPCLIENTBENCH_MB        size of the large file in MiB (default 1024)
//   FTPCLIENTBENCH_ENTRIES   entries of the listed folder (default 20000)
//   FTPCLIENTBENCH_ON_DISK   set: keep the files under the usual temporary folder; by default
//                            they live in /dev/shm, so that the disk's write-back, which a
//                            1 GiB write runs into at random moments, does not decide the ratio
//   BENCH_VERBOSE            set: show curl's error messages

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
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

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    long mib = envNumber("FTPCLIENTBENCH_MB", 1024);
    long entries = envNumber("FTPCLIENTBENCH_ENTRIES", 20000);
    std::int64_t bigBytes = static_cast<std::int64_t>(mib) << 20;

    if (!std::getenv("FTPCLIENTBENCH_ON_DISK") && fs::is_directory("/dev/shm"))
        ::setenv("TMPDIR", "/dev/shm", 1);
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

    // Each upload makes a new file on the server; the one before is removed untimed.
    std::string uploaded = server->hostPath("/up/upload.bin");
    registerPair(
        "download (large file)", "curl", bigBytes,
        [&] {
            return bool(wrapper->downloadSync(remoteItem(bigRemote, false, bigBytes), qDown, {}));
        },
        [&] {
            return runQuiet({"curl", "-sS", "-o", cDown, url + "/" + bigRemote}) == 0;
        },
        [&] {
            removeFile(qDown);
            removeFile(cDown);
        });
    registerPair(
        "upload (large file)", "curl", bigBytes,
        [&] {
            return bool(wrapper->uploadSync(localFile(upSource), remoteItem(upRemote, true), {}));
        },
        [&] {
            return runQuiet({"curl", "-sS", "-T", upSource, url + "/" + upRemote + "/"}) == 0;
        },
        [&] { removeFile(uploaded); });

    // Listing: quillon's records against curl's text read by our parser.
    std::string curlListing = local / "listing.txt";
    auto wholeListing = [entries](std::size_t n) { return n == static_cast<std::size_t>(entries); };
    registerPair(
        "list (many entries)", "curl", 0,
        [&] {
            auto list = wrapper->contentsOfDirectoryAtPathSync(remoteItem(manyRemote, true));
            return list && wholeListing(list->size());
        },
        [&] {
            if (runQuiet({"curl", "-sS", "-o", curlListing, url + "/" + manyRemote + "/"}) != 0)
                return false;
            FTPDirListParser::Options options;
            options.folderPath = manyRemote;
            return wholeListing(FTPDirListParser::parse(readAll(curlListing), options).size());
        },
        [] {});

    benchmark::RunSpecifiedBenchmarks();
    printPairRatio("download (large file)", "curl", "target >= 0.95");
    printPairRatio("upload (large file)", "curl", "target >= 0.95");
    printPairRatio("list (many entries)", "curl", "curl's listing plus our parse; target >= 1.0");

    wrapper.reset();
    KvConnectionPool::clearConnectionPool();
    MainQueue::shared().pump();
    server.reset();
    benchmark::Shutdown();
    return 0;
}
