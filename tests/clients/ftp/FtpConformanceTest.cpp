// The storage-client conformance suite, run against each real FTP server: vsftpd (LIST),
// pure-ftpd (MLSD), proftpd over explicit FTPS and pyftpdlib over implicit FTPS.

#include <map>
#include <memory>

#include "clients/WrapperConformance.h"
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
    return sharedServerTarget(name, [=](const std::string& folder) -> std::optional<SharedFolder> {
        FtpServer* server = sharedServer(name, kind, options);
        if (!server) return std::nullopt;
        server->makeDir(folder);
        return SharedFolder{server->hostPath(folder), server->remotePath(folder),
                            server->serverInfo(protocol)};
    });
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
