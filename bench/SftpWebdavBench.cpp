// The SFTP and WebDAV clients against the command-line tools, on the same servers (started on
// loopback by the test fixtures) and the same files, side by side in one run, each pair with its
// speed ratio (the tool's time divided by quillon's; 1.0 means as fast):
//   - SFTP on OpenSSH's sshd against OpenSSH's `sftp`: one large file down and up (target
//     >= 0.9) and a folder of many entries listed (`ls -l` in `sftp`)
//   - WebDAV on Apache's mod_dav against `curl`: one large file down and up (target >= 0.95)
//     and a PROPFIND of the folder of many entries (curl's reply plus our parser)
// Each pair runs in one benchmark, the two sides taking turns, and the time shown is quillon's.
//
//   SFTPDAVBENCH_MB        size of the large file in MiB (default 1024)
//   SFTPDAVBENCH_ENTRIES   entries of the listed folder (default 20000)
//   BENCH_VERBOSE          set: show the tools' error messages

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "BenchKit.h"
#include "clients/Clients.h"
#include "clients/sftp/SFTPWrapper.h"
#include "clients/webdav/WebdavWrapper.h"
#include "core/KvConnectionPool.h"
#include "core/MainQueue.h"
#include "core/PathUtils.h"
#include "support/SftpServers.h"
#include "support/TestEnv.h"
#include "support/WebdavServers.h"

namespace {

namespace fs = std::filesystem;
using namespace quillon;
using namespace quillon::bench;

KvMetadata remoteItem(const std::string& path, bool isDir, std::int32_t kind,
                      std::uint64_t size = 0) {
    KvMetadata m(path);
    m.isDir = isDir;
    m.protocolType = kind;
    if (!isDir) m.fileSizeInBytes = size;
    return m;
}

KvMetadata localFile(const std::string& path) {
    KvMetadata m(path);
    m.localPath = path;
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
    long mib = envNumber("SFTPDAVBENCH_MB", 1024);
    long entries = envNumber("SFTPDAVBENCH_ENTRIES", 20000);
    std::int64_t bigBytes = static_cast<std::int64_t>(mib) << 20;
    if (fs::is_directory("/dev/shm")) ::setenv("TMPDIR", "/dev/shm", 1);
    test::IsolatedHome home;
    test::ScratchDir local("sftpdavbench");
    registerBuiltinClients();

    std::string why;
    auto sshd = test::SftpServer::start(test::SftpServerKind::OpenSSH, &why);
    auto apache = sshd ? test::WebdavServer::start(test::WebdavServerKind::Apache, &why) : nullptr;
    if (!sshd || !apache) {
        std::printf("not measured: %s\n", why.c_str());
        return 1;
    }
    for (std::string root : {sshd->root(), apache->root()}) {
        if (!makeBigFile(root + "/big.bin", mib) || !makeManyEntries(root + "/many", entries)) {
            std::printf("not measured: the server's files could not be made\n");
            return 1;
        }
        fs::create_directories(root + "/up");
        ::chmod((root + "/up").c_str(), 0777);
    }
    std::string upSource = local / "upload.bin";
    makeBigFile(upSource, mib);
    std::string qDown = local / "q-big.bin", tDown = local / "t-big.bin";
    std::printf("sshd on port %d, Apache on port %d: a file of %ld MiB, a folder of %ld entries\n",
                sshd->port(), apache->port(), mib, entries);

    // SFTP: the same key, without its passphrase, for both sides.
    std::string key = local / "key";
    fs::copy_file(sshd->clientKey(), key);
    ::chmod(key.c_str(), 0600);
    runQuiet(
        {"ssh-keygen", "-q", "-p", "-P", test::SftpServer::keyPassphrase(), "-N", "", "-f", key});
    std::string knownHosts = SFTPWrapper::knownHostsPath();
    fs::create_directories(fs::path(knownHosts).parent_path());
    std::ofstream(knownHosts) << sshd->knownHostsLine() << "\n";
    auto sftpInfo = sshd->serverInfo();
    sftpInfo->setValue(key, SftpProp::KEYFILE);
    sftpInfo->removeObjectForKey(SftpProp::PASSPHRASE);
    auto sftp = std::make_shared<SFTPWrapper>(sftpInfo);
    auto sftpBatch = [&](const std::string& commands) {
        std::string batch = local / "batch.txt";
        std::ofstream(batch) << commands << "\n";
        return runQuiet({"sftp", "-q", "-b", batch, "-i", key, "-P", std::to_string(sshd->port()),
                         "-o", "UserKnownHostsFile=" + knownHosts, "-o", "BatchMode=yes",
                         "nobody@127.0.0.1"}) == 0;
    };
    const std::string sBig = sshd->remotePath("big.bin"), sUp = sshd->remotePath("up"),
                      sMany = sshd->remotePath("many");
    registerPair(
        "SFTP download (large file)", "sftp", bigBytes,
        [&] {
            return bool(sftp->downloadSync(remoteItem(sBig, false, ProtocolType::SFTP, bigBytes),
                                           qDown, {}));
        },
        [&] { return sftpBatch("get \"" + sBig + "\" \"" + tDown + "\""); },
        [&] {
            removeFile(qDown);
            removeFile(tDown);
        });
    registerPair(
        "SFTP upload (large file)", "sftp", bigBytes,
        [&] {
            return bool(sftp->uploadSync(localFile(upSource),
                                         remoteItem(sUp, true, ProtocolType::SFTP), {}));
        },
        [&] { return sftpBatch("put \"" + upSource + "\" \"" + sUp + "/upload.bin\""); },
        [&] { removeFile(sshd->hostPath("up/upload.bin")); });
    registerPair(
        "SFTP list (many entries)", "sftp", 0,
        [&] {
            auto list =
                sftp->contentsOfDirectoryAtPathSync(remoteItem(sMany, true, ProtocolType::SFTP));
            return list && list->size() == static_cast<std::size_t>(entries);
        },
        [&] { return sftpBatch("ls -l \"" + sMany + "\""); }, [] {});

    // WebDAV: curl with the same Digest login.
    auto davInfo = apache->serverInfo();
    auto dav = std::make_shared<WebdavWrapper>(davInfo);
    std::string base = "http://127.0.0.1:" + std::to_string(apache->port());
    std::string login = *davInfo->valueForKey(ServerProp::USERNAME) + ":" +
                        *davInfo->valueForKey(ServerProp::PASSWORD);
    registerPair(
        "WebDAV download (large file)", "curl", bigBytes,
        [&] {
            return bool(dav->downloadSync(
                remoteItem("/big.bin", false, ProtocolType::WebDAV, bigBytes), qDown, {}));
        },
        [&] {
            return runQuiet({"curl", "-sS", "-f", "--digest", "-u", login, "-o", tDown,
                             base + "/big.bin"}) == 0;
        },
        [&] {
            removeFile(qDown);
            removeFile(tDown);
        });
    registerPair(
        "WebDAV upload (large file)", "curl", bigBytes,
        [&] {
            return bool(dav->uploadSync(localFile(upSource),
                                        remoteItem("/up", true, ProtocolType::WebDAV), {}));
        },
        [&] {
            return runQuiet({"curl", "-sS", "-f", "--digest", "-u", login, "-T", upSource,
                             base + "/up/upload.bin"}) == 0;
        },
        [&] { removeFile(apache->hostPath("up/upload.bin")); });
    std::string reply = local / "propfind.xml";
    registerPair(
        "WebDAV PROPFIND (many entries)", "curl", 0,
        [&] {
            auto list =
                dav->contentsOfDirectoryAtPathSync(remoteItem("/many", true, ProtocolType::WebDAV));
            return list && list->size() == static_cast<std::size_t>(entries);
        },
        [&] {
            if (runQuiet({"curl", "-sS", "-f", "--digest", "-u", login, "-X", "PROPFIND", "-H",
                          "Depth: 1", "-o", reply, base + "/many/"}) != 0)
                return false;
            auto list = WebdavWrapper::parseMultistatus(readAll(reply), "/many", false, "");
            return list && list->size() == static_cast<std::size_t>(entries);
        },
        [] {});

    benchmark::RunSpecifiedBenchmarks();
    printPairRatio("SFTP download (large file)", "sftp", "target >= 0.9");
    printPairRatio("SFTP upload (large file)", "sftp", "target >= 0.9");
    printPairRatio("SFTP list (many entries)", "sftp", "sftp's ls -l");
    printPairRatio("WebDAV download (large file)", "curl", "target >= 0.95");
    printPairRatio("WebDAV upload (large file)", "curl", "target >= 0.95");
    printPairRatio("WebDAV PROPFIND (many entries)", "curl", "curl's reply plus our parse");

    sftp.reset();
    dav.reset();
    KvConnectionPool::clearConnectionPool();
    MainQueue::shared().pump();
    benchmark::Shutdown();
    return 0;
}
