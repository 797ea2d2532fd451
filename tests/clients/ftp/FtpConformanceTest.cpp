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

// One server per target for the whole program; each test gets a fresh folder on it. A server
// that cannot start fails every test of its target.
FtpServer* sharedServer(const std::string& key, FtpServerKind kind,
                        const FtpServerOptions& options) {
    static std::map<std::string, std::unique_ptr<FtpServer>> servers;
    if (!servers.contains(key)) servers[key] = FtpServer::start(kind, options);
    return servers[key].get();
}

ConformanceTarget ftpTarget(const std::string& name, FtpServerKind kind, FtpServerOptions options,
                            std::string protocol) {
    ConformanceTarget target;
    target.name = name;
    target.open = [name, kind, options, protocol]() -> ConformanceSession {
        programHome();
        registerBuiltinClients();
        FtpServer* server = sharedServer(name, kind, options);
        if (!server) return {};
        static std::atomic<int> counter{0};
        std::string folder = "t" + std::to_string(++counter);
        server->makeDir(folder);
        ::chmod(server->hostPath(folder).c_str(), 0777);
        ConformanceSession session;
        session.remoteRoot = server->remotePath(folder);
        session.serverDir = server->hostPath(folder);
        auto info = server->serverInfo(protocol);
        session.makeWrapper = [info] { return WrapperProxy::wrapperWithServerInfo(info); };
        // Closes the sessions this test left idle in the pool.
        session.close = [] { KvConnectionPool::clearConnectionPool(); };
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
