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

namespace quillon::test {
namespace {

class SmbClient : public ::testing::Test {
  protected:
    void SetUp() override {
        programHome();
        registerBuiltinClients();
        std::string why;
        server_ = SmbServer::start(&why);
        ASSERT_TRUE(server_) << why;
    }
    WrapperPtr client(ServerInfoPtr info) { return WrapperProxy::wrapperWithServerInfo(info); }
    std::unique_ptr<SmbServer> server_;
    ScratchDir local_{"smb-local"};
};

// Who may log in: the user with the right password and guests; not a wrong password. The top of
// the server lists its shares, without the administrative ones.
TEST_F(SmbClient, LoginsAndShares) {
    auto refused = client(server_->serverInfo("wrong password"))->signInSync();
    ASSERT_FALSE(refused) << "a wrong password was accepted";
    EXPECT_EQ(refused.error().domain, "SMB");
    EXPECT_TRUE(refused.error().is(ErrorKind::PermissionDenied)) << refused.error().describe();

    auto user = client(server_->serverInfo());
    ASSERT_TRUE(user->signInSync());
    auto shares = user->contentsOfDirectoryAtPathSync(KvMetadata("/"));
    ASSERT_TRUE(shares) << shares.error().describe();
    ASSERT_EQ(shares->size(), 1u);
    EXPECT_EQ(shares->front().nameIgnoreLinkResolve(), "data");
    EXPECT_TRUE(shares->front().isDir);

    auto guestInfo = server_->serverInfo("");
    guestInfo->setValue(std::string(), ServerProp::USERNAME);
    writeFile(server_->shareDir() + "/für gäste.txt", "open");
    auto guest = client(guestInfo);
    ASSERT_TRUE(guest->signInSync());
    auto listed = guest->contentsOfDirectoryAtPathSync(guest->rootFolder());
    ASSERT_TRUE(listed) << listed.error().describe();
    ASSERT_EQ(listed->size(), 1u);
    EXPECT_EQ(listed->front().nameIgnoreLinkResolve(), "für gäste.txt");
    EXPECT_EQ(listed->front().fileSizeInBytes, 4u);
}

// The server goes away while a file comes down: the download fails and leaves nothing.
TEST_F(SmbClient, ServerStoppedMidDownloadLeavesNothing) {
    // Sparse on the server: large enough that the download is far from done when the first
    // progress report stops the server.
    std::string big = server_->shareDir() + "/big.bin";
    std::filesystem::resize_file((writeFile(big, "x"), big), 256u << 20);
    auto smb = client(server_->serverInfo());
    KvMetadata file("/data/big.bin");
    std::atomic<bool> done{false};
    Status result;
    std::thread worker([&] {
        result = smb->downloadSync(file, local_ / "big.bin",
                                   [this](std::int64_t, std::int64_t) { server_->stop(); });
        done = true;
        MainQueue::shared().post([] {});
    });
    MainQueue::shared().runUntil([&] { return done.load(); });
    worker.join();
    MainQueue::shared().pump();
    ASSERT_FALSE(result) << "the download succeeded";
    EXPECT_EQ(result.error().domain, "SMB");
    EXPECT_FALSE(std::filesystem::exists(local_ / "big.bin")) << "a partial file was left";
}

}  // namespace
}  // namespace quillon::test
