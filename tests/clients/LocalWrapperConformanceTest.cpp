// The storage-client conformance suite, run against the local file system.

#include <sys/stat.h>

#include <memory>

#include "clients/Clients.h"
#include "clients/WrapperConformance.h"
#include "core/WrapperProxy.h"

namespace quillon::test {
namespace {

ConformanceTarget localTarget() {
    ConformanceTarget target;
    target.name = "Local";
    target.open = [] {
        registerBuiltinClients();
        auto dir = std::make_shared<ScratchDir>("conformance-server");
        // Reachable by the unprivileged user of the permission probes.
        ::chmod(dir->path().c_str(), 0777);
        ConformanceSession session;
        session.remoteRoot = dir->path();
        session.serverDir = dir->path();
        // Every client of the session shares one record, as the tasks of one transfer do.
        auto info = std::make_shared<ServerInfo>();
        info->protocolType = ProtocolType::Local;
        info->rootFolderPath = "/";
        session.makeWrapper = [info] { return WrapperProxy::wrapperWithServerInfo(info); };
        session.close = [dir] {};
        return session;
    };
    target.runRestricted = runAsUnprivilegedUser;
    return target;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Local, WrapperConformance, ::testing::Values(localTarget()),
                         conformanceTargetName);

}  // namespace quillon::test
