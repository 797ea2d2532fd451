// The storage-client conformance suite with our FTP client against our own FTP server: every
// scenario the client passes on vsftpd, pure-ftpd and proftpd must pass here too.

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <memory>

#include "clients/Clients.h"
#include "clients/WrapperConformance.h"
#include "core/KvConnectionPool.h"
#include "core/ServerInfo.h"
#include "core/WrapperProxy.h"
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
    ConformanceTarget target;
    target.name = "quillon_ftp_server";
    target.open = [] {
        programHome();
        registerBuiltinClients();
        auto& server = sharedServer();
        static std::atomic<int> counter{0};
        std::string folder = "t" + std::to_string(++counter);
        std::filesystem::create_directory(server / folder);
        ConformanceSession session;
        session.remoteRoot = "/" + folder;
        session.serverDir = server / folder;
        auto info = server.serverInfo();
        info->displayName = "quillon";
        info->setValue(std::string("conform"), ServerProp::USERNAME);
        info->setValue(std::string("pass word"), ServerProp::PASSWORD);
        info->setValue(std::string("FTP_PROTOCOL_PLAIN"), ServerProp::FTP_PROTOCOL);
        session.makeWrapper = [info] { return WrapperProxy::wrapperWithServerInfo(info); };
        session.close = [] { KvConnectionPool::clearConnectionPool(); };
        return session;
    };
    target.knownFailures["RefusedPermissionFails"] =
        "the server runs inside the test process, as root here, and file permissions do not stop "
        "root";
    return target;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(OurFtpServer, WrapperConformance, ::testing::Values(ourServerTarget()),
                         conformanceTargetName);

}  // namespace quillon::test
