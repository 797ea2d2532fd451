// The storage-client conformance suite against a real Samba smbd, and what only SMB has: a
// refused password, guests, a server that goes away mid-download, the shares of the server.

#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>

#include "clients/Clients.h"
#include "clients/WrapperConformance.h"
#include "clients/smb/SmbWrapper.h"
#include "core/WrapperProxy.h"
#include "support/SmbServers.h"

namespace quillon::test {
namespace {

// One server for the whole program; each test gets a fresh folder in its share. A server that
// cannot start fails every test.
SmbServer* sharedServer() {
    static std::unique_ptr<SmbServer> server = [] {
        std::string why;
        auto s = SmbServer::start(&why);
        if (!s) ADD_FAILURE() << why;
        return s;
    }();
    return server.get();
}

ConformanceTarget smbdTarget() {
    ConformanceTarget target;
    target.name = "smbd";
    target.open = []() -> ConformanceSession {
        programHome();
        registerBuiltinClients();
        SmbServer* server = sharedServer();
        if (!server) return {};
        static std::atomic<int> counter{0};
        std::string folder = "t" + std::to_string(++counter);
        std::string dir = server->shareDir() + "/" + folder;
        std::filesystem::create_directories(dir);
        ::chmod(dir.c_str(), 0777);
        ConformanceSession session;
        session.remoteRoot = "/" + std::string(SmbServer::share()) + "/" + folder;
        session.serverDir = dir;
        auto info = server->serverInfo();
        session.makeWrapper = [info] { return WrapperProxy::wrapperWithServerInfo(info); };
        session.close = [] {};
        return session;
    };
    return target;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Smb, WrapperConformance, ::testing::Values(smbdTarget()),
                         conformanceTargetName);

}  // namespace quillon::test
