// The storage-client conformance suite, run against each real FTP server: vsftpd (LIST),
// pure-ftpd (MLSD), proftpd over explicit FTPS and pyftpdlib over implicit FTPS.

#include <sys/stat.h>

#include <atomic>
#include <map>
#include <memory>

#include "clients/Clients.h"
#include "clients/WrapperConformance.h"
#include "core/KvConnectionPool.h"
#include "core/WrapperProxy.h"
#include "support/FtpServers.h"

namespace quillon::test {
namespace {

// Every program folder of this test program lives in a scratch folder.
IsolatedHome& isolatedHome() {
    static IsolatedHome home;
    return home;
}

void skipBecause(const std::string& why) {
    GTEST_SKIP() << why;
}

struct SharedServer {
    std::unique_ptr<FtpServer> server;
    std::string whyNot;
    bool tried = false;
};

// One server per target for the whole program; each test gets a fresh folder on it.
SharedServer& sharedServer(const std::string& key, FtpServerKind kind,
                           const FtpServerOptions& options) {
    static std::map<std::string, SharedServer> servers;
    auto& s = servers[key];
    if (!s.tried) {
        s.tried = true;
        s.server = FtpServer::start(kind, options, &s.whyNot);
    }
    return s;
}

ConformanceTarget ftpTarget(const std::string& name, FtpServerKind kind, FtpServerOptions options,
                            std::string protocol) {
    ConformanceTarget target;
    target.name = name;
    target.open = [name, kind, options, protocol] {
        isolatedHome();
        registerBuiltinClients();
        auto& shared = sharedServer(name, kind, options);
        ConformanceSession session;
        if (!shared.server) {
            // Skipped in SetUp; the session only has to satisfy its checks.
            auto dir = std::make_shared<ScratchDir>("ftp-unavailable");
            session.serverDir = dir->path();
            session.remoteRoot = "/";
            session.makeWrapper = [] {
                return WrapperProxy::wrapperWithServerInfo(std::make_shared<ServerInfo>());
            };
            session.close = [dir] {};
            skipBecause(shared.whyNot);
            return session;
        }
        static std::atomic<int> counter{0};
        std::string folder = "t" + std::to_string(++counter);
        FtpServer* server = shared.server.get();
        server->makeDir(folder);
        ::chmod(server->hostPath(folder).c_str(), 0777);
        session.remoteRoot = server->remotePath(folder);
        session.serverDir = server->hostPath(folder);
        auto info = server->serverInfo(protocol);
        session.makeWrapper = [info] { return WrapperProxy::wrapperWithServerInfo(info); };
        session.close = [] {
            // Closes the sessions this test left idle in the pool.
            KvConnectionPool::clearConnectionPool();
        };
        return session;
    };
    return target;
}

ConformanceTarget vsftpdTarget() {
    auto t = ftpTarget("vsftpd", FtpServerKind::Vsftpd, {}, "FTP_PROTOCOL_PLAIN");
    t.knownFailures["RefusedPermissionFails"] =
        "vsftpd runs here as root for its anonymous users, and file permissions do not stop root";
    return t;
}

ConformanceTarget pureFtpdTarget() {
    return ftpTarget("pure_ftpd", FtpServerKind::PureFtpd, {}, "FTP_PROTOCOL_PLAIN");
}

ConformanceTarget proftpdTarget() {
    return ftpTarget("proftpd_explicit_FTPS", FtpServerKind::Proftpd, {}, "FTP_PROTOCOL_EXPLICIT");
}

ConformanceTarget pyftpdlibTarget() {
    FtpServerOptions o;
    o.implicitTls = true;
    return ftpTarget("pyftpdlib_implicit_FTPS", FtpServerKind::Pyftpdlib, o,
                     "FTP_PROTOCOL_IMPLICIT");
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Ftp, WrapperConformance,
                         ::testing::Values(vsftpdTarget(), pureFtpdTarget(), proftpdTarget(),
                                           pyftpdlibTarget()),
                         conformanceTargetName);

}  // namespace quillon::test
