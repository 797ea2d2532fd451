// The storage-client conformance suite with our FTP client against our own FTP server: every
// scenario the client passes on vsftpd, pure-ftpd and proftpd must pass here too.

#include "clients/WrapperConformance.h"
#include "core/ServerInfo.h"
#include "servers/FtpServerFixture.h"

namespace quillon::test {
namespace {

// One server for the whole program; each test gets a fresh folder on it.
RunningFtpServer& sharedServer() {
    static RunningFtpServer server([] {
        quillon::FtpServerOptions o;
        o.username = "conform";
        o.password = "pass word";
        return o;
    }());
    return server;
}

ConformanceTarget ourServerTarget() {
    auto target = sharedServerTarget(
        "quillon_ftp_server", [](const std::string& folder) -> std::optional<SharedFolder> {
            auto& server = sharedServer();
            auto info = server.serverInfo();
            info->displayName = "quillon";
            info->setValue(std::string("conform"), ServerProp::USERNAME);
            info->setValue(std::string("pass word"), ServerProp::PASSWORD);
            info->setValue(std::string("FTP_PROTOCOL_PLAIN"), ServerProp::FTP_PROTOCOL);
            return SharedFolder{server / folder, "/" + folder, info};
        });
    target.knownFailures["RefusedPermissionFails"] =
        "the server runs inside the test process, as root here, and file permissions do not stop "
        "root";
    return target;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(OurFtpServer, WrapperConformance, ::testing::Values(ourServerTarget()),
                         conformanceTargetName);

}  // namespace quillon::test
