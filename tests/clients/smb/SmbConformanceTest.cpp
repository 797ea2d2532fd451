// The storage-client conformance suite against a real Samba smbd, and what only SMB has: a
// refused password, guests, a server that goes away mid-download, sessions that break and are
// taken up again, the shares of the server, thumbnails of pictures on a share.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>

#include "clients/WrapperConformance.h"
#include "clients/smb/SmbWrapper.h"
#include "media/Thumbnails.h"
#include "support/SmbServers.h"

namespace quillon::test {
namespace {

// One server for the whole program; each test gets a fresh folder in its share. A server that
// cannot start fails every test.
SmbServer* sharedServer() {
    static std::unique_ptr<SmbServer> server = SmbServer::start();
    return server.get();
}

ConformanceTarget smbdTarget() {
    return sharedServerTarget("smbd", [](const std::string& folder) -> std::optional<SharedFolder> {
        SmbServer* server = sharedServer();
        if (!server) return std::nullopt;
        return SharedFolder{server->shareDir() + "/" + folder,
                            "/" + std::string(SmbServer::share()) + "/" + folder,
                            server->serverInfo()};
    });
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Smb, WrapperConformance, ::testing::Values(smbdTarget()),
                         conformanceTargetName);

}  // namespace quillon::test

namespace quillon::test {
namespace {

class SmbClient : public ClientTest {
  protected:
    void SetUp() override {
        ClientTest::SetUp();
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
    auto smb = std::make_shared<SmbWrapper>(server_->serverInfo());
    smb->setRetries(3, std::chrono::milliseconds(20));
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

// The connection breaks in the middle of a download and of an upload (the server ends the
// sessions): each is taken up again in a new session where it stopped, and the files arrive byte
// for byte. Both go through a pipe this test feeds or drains, so the break comes at a chosen
// point while most of the file is still to come.
TEST_F(SmbClient, BrokenTransfersContinueWhereTheyStopped) {
    const std::size_t size = 24 * 1024 * 1024 + 7, breakAt = 2 * 1024 * 1024;
    const std::string content = randomBytes(size, 17);
    writeFile(server_->shareDir() + "/big.bin", content);
    auto smb = std::make_shared<SmbWrapper>(server_->serverInfo());
    smb->setRetries(10, std::chrono::milliseconds(50));

    std::string fifo = local_ / "down.bin";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    Status result;
    std::thread worker([&] { result = smb->downloadSync(KvMetadata("/data/big.bin"), fifo, {}); });
    int ended = 0;
    std::string got = drainFifo(fifo, [&](std::size_t size) {
        if (ended == 0 && size >= breakAt) ended = server_->endSessions();
    });
    worker.join();
    ASSERT_TRUE(result) << result.error().describe();
    EXPECT_GE(ended, 1) << "no session was ended";
    EXPECT_TRUE(got == content) << "the continued download differs (" << got.size() << " of "
                                << size << " bytes)";

    // An upload that gives up closes the pipe: this side sees EPIPE rather than the signal.
    ::signal(SIGPIPE, SIG_IGN);
    fifo = local_ / "up.bin";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    KvMetadata source(fifo);
    source.localPath = fifo;
    KvMetadata folder("/data");
    folder.isDir = true;
    worker = std::thread([&] { result = smb->uploadSync(source, folder, {}); });
    int out = ::open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(out, 0);
    // The upload has opened its file on the server once it takes what is written here.
    bool fed = writeAll(out, std::string_view(content).substr(0, breakAt));
    ended = fed ? server_->endSessions() : 0;
    fed = fed && writeAll(out, std::string_view(content).substr(breakAt));
    ::close(out);
    worker.join();
    ASSERT_TRUE(fed) << "the upload stopped reading: "
                     << (result ? std::string() : result.error().describe());
    ASSERT_TRUE(result) << result.error().describe();
    EXPECT_GE(ended, 1) << "no session was ended";
    EXPECT_TRUE(readFile(server_->shareDir() + "/up.bin") == content)
        << "the continued upload differs";
    EXPECT_FALSE(std::filesystem::exists(server_->shareDir() + "/.up.bin.quillon-upload"));
}

// A picture on a share gets its thumbnail from the media layer, read through the client.
TEST_F(SmbClient, PicturesOnAShareGetThumbnails) {
    Thumbnails::installThumbnails();
    std::string photo = server_->shareDir() + "/photo.jpg";
    auto made = runProgram({"convert", "-size", "300x100", "xc:red", photo});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    auto smb = client(server_->serverInfo());
    KvMetadata item("/data/photo.jpg");
    item.protocolType = ProtocolType::SMB;
    item.fileSizeInBytes = std::filesystem::file_size(photo);
    auto r = smb->downloadThumbnailSync(item);
    ASSERT_TRUE(r) << r.error().describe();
    std::string uri = Thumbnails::uriForItem(*smb->serverInfo(), item);
    EXPECT_TRUE(std::filesystem::exists(Thumbnails::cachePathForURI(uri, Thumbnails::Size::Normal)))
        << uri;
}

}  // namespace
}  // namespace quillon::test
