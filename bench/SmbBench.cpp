// The SMB client against Samba's `smbclient`, on the same smbd (started on loopback by the test
// fixture) and the same files, side by side in one run, each pair with its speed ratio (the
// tool's time divided by quillon's; 1.0 means as fast):
//   - one large file down (`get`) and up (`put`): target >= 0.95
//   - a folder of many entries listed (`ls`)
// Each pair runs in one benchmark, the two sides taking turns, and the time shown is quillon's.
//
//   SMBBENCH_MB        size of the large file in MiB (default 128; 1024 for the full measure)
//   SMBBENCH_ENTRIES   entries of the listed folder (default 20000)
//   BENCH_VERBOSE      set: show smbclient's error messages

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "BenchKit.h"
#include "clients/Clients.h"
#include "clients/smb/SmbWrapper.h"
#include "core/MainQueue.h"
#include "support/SmbServers.h"
#include "support/TestEnv.h"

namespace {

namespace fs = std::filesystem;
using namespace quillon;
using namespace quillon::bench;

KvMetadata remoteItem(const std::string& path, bool isDir) {
    KvMetadata m(path);
    m.isDir = isDir;
    m.protocolType = ProtocolType::SMB;
    return m;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    long mib = envNumber("SMBBENCH_MB", 128);
    long entries = envNumber("SMBBENCH_ENTRIES", 20000);
    std::int64_t bigBytes = static_cast<std::int64_t>(mib) << 20;
    if (fs::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
    test::IsolatedHome home;
    test::ScratchDir local("smbbench");
    registerBuiltinClients();

    std::string why;
    auto smbd = test::SmbServer::start(&why);
    if (!smbd) {
        std::printf("not measured: %s\n", why.c_str());
        return 1;
    }
    const std::string share = smbd->shareDir();
    if (!makeBigFile(share + "/big.bin", mib) || !makeManyEntries(share + "/many", entries)) {
        std::printf("not measured: the server's files could not be made\n");
        return 1;
    }
    for (auto* d : {"/many", "/up"}) {
        fs::create_directories(share + d);
        ::chmod((share + d).c_str(), 0777);
    }
    std::string upSource = local / "upload.bin";
    makeBigFile(upSource, mib);
    std::string qDown = local / "q-big.bin", tDown = local / "t-big.bin";
    std::printf("smbd on port %d: a file of %ld MiB, a folder of %ld entries\n", smbd->port(), mib,
                entries);

    auto smb = std::make_shared<SmbWrapper>(smbd->serverInfo());
    std::string login =
        std::string(test::SmbServer::user()) + "%" + std::string(test::SmbServer::password());
    auto smbclient = [&](const std::string& folder, const std::string& command) {
        return runQuiet({"smbclient", "-s", "/dev/null", "//127.0.0.1/data", "-p",
                         std::to_string(smbd->port()), "-U", login, "-m", "SMB3", "-D", folder,
                         "-c", command}) == 0;
    };
    registerPair(
        "SMB download (large file)", "smbclient", bigBytes,
        [&] { return bool(smb->downloadSync(remoteItem("/data/big.bin", false), qDown, {})); },
        [&] { return smbclient("/", "get big.bin \"" + tDown + "\""); },
        [&] {
            removeFile(qDown);
            removeFile(tDown);
        });
    KvMetadata upload(upSource);
    upload.localPath = upSource;
    registerPair(
        "SMB upload (large file)", "smbclient", bigBytes,
        [&] { return bool(smb->uploadSync(upload, remoteItem("/data/up", true), {})); },
        [&] { return smbclient("up", "put \"" + upSource + "\" upload.bin"); },
        [&] { removeFile(share + "/up/upload.bin"); });
    registerPair(
        "SMB list (many entries)", "smbclient", 0,
        [&] {
            auto list = smb->contentsOfDirectoryAtPathSync(remoteItem("/data/many", true));
            return list && list->size() == static_cast<std::size_t>(entries);
        },
        [&] { return smbclient("many", "ls"); }, [] {});

    benchmark::RunSpecifiedBenchmarks();
    printPairRatio("SMB download (large file)", "smbclient", "target >= 0.95");
    printPairRatio("SMB upload (large file)", "smbclient", "target >= 0.95");
    printPairRatio("SMB list (many entries)", "smbclient", "smbclient's ls");

    smb.reset();
    MainQueue::shared().pump();
    benchmark::Shutdown();
    return 0;
}
