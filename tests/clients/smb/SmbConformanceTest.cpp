// The storage-client conformance suite against a real Samba smbd, and what only SMB has: a
// refused password, guests, a server that goes away mid-download, sessions that break and are
// taken up again, the shares of the server, thumbnails of pictures on a share. Then the NetBIOS
// name scan: the request and response bytes; a sweep of 127.0.0.1 answered by a scripted fake
// responder (no real host can be made to send a malformed or GB 18030 reply); a sweep of a /24 of
// network namespaces where Samba's nmbd and the fake responder answer.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "clients/WrapperConformance.h"
#include "clients/smb/NbtScanner.h"
#include "clients/smb/SmbWrapper.h"
#include "media/Thumbnails.h"
#include "support/ChildProcess.h"
#include "support/NetNamespaces.h"
#include "support/SmbServers.h"
#include "support/TestEnv.h"

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

namespace quillon {
namespace {

struct NameEntry {
    std::string name;
    std::uint8_t suffix;
    bool group;
};

// A node status response naming `entries`, with adapter address 00:11:22:33:44:55.
std::string response(const std::vector<NameEntry>& entries) {
    std::string d = {'\x6c', '\x00', '\x84', '\x00', 0, 0, 0, 1, 0, 0, 0, 0, '\x20'};
    d += "CK" + std::string(30, 'A');
    d += std::string("\0\0\x21\0\x01\0\0\0\0", 9);
    std::string data(1, static_cast<char>(entries.size()));
    for (auto& e : entries) {
        std::string name = e.name;
        name.resize(15, ' ');
        data += name;
        data += static_cast<char>(e.suffix);
        data += e.group ? std::string("\x84\x00", 2) : std::string("\x04\x00", 2);
    }
    data += std::string("\x00\x11\x22\x33\x44\x55", 6) + std::string(40, '\0');
    d += static_cast<char>(data.size() >> 8);
    d += static_cast<char>(data.size() & 0xff);
    return d + data;
}

TEST(Nbt, RequestAndResponseBytes) {
    auto req = Nbt::nodeStatusRequest(0x1234);
    ASSERT_EQ(req.size(), 50u);
    std::string bytes(req.begin(), req.end());
    EXPECT_EQ(bytes.substr(0, 12), std::string("\x12\x34\0\0\0\x01\0\0\0\0\0\0", 12));
    EXPECT_EQ(bytes.substr(12, 34),
              "\x20"
              "CK" +
                  std::string(30, 'A') + std::string(1, '\0'));
    EXPECT_EQ(bytes.substr(46), std::string("\0\x21\0\x01", 4));

    struct Case {
        const char* what;
        std::string datagram;
        bool parses;
        std::string computer, domain;
        bool sharing, dc;
    };
    std::vector<Case> cases = {
        {"file server",
         response({{"HOST", 0x00, false}, {"WG", 0x00, true}, {"HOST", 0x20, false}}), true, "HOST",
         "WG", true, false},
        {"workstation only", response({{"PC", 0x00, false}, {"WG", 0x00, true}}), true, "PC", "WG",
         false, false},
        {"domain controller", response({{"DC", 0x20, false}, {"CORP", 0x1C, true}}), true, "", "",
         true, true},
        {"GB 18030 name", response({{"\xB2\xE2\xCA\xD4", 0x00, false}, {"X", 0x20, false}}), true,
         "测试", "", true, false},
        {"invalid GB 18030 as Latin-1", response({{"A\xFF", 0x00, false}, {"X", 0x20, false}}),
         true, "A\xC3\xBF", "", true, false},
        {"truncated", response({{"HOST", 0x20, false}}).substr(0, 60), false, "", "", false, false},
        {"a query", std::string(req.begin(), req.end()), false, "", "", false, false},
    };
    for (auto& c : cases) {
        std::string why;
        auto parsed = Nbt::parseNodeStatus(c.datagram, &why);
        ASSERT_EQ(parsed.has_value(), c.parses) << c.what << ": " << why;
        if (!parsed) continue;
        auto info = NbtScanner::nbtInfoWithResponse(*parsed, "10.0.0.9");
        EXPECT_EQ(info.computerName, c.computer) << c.what;
        EXPECT_EQ(info.domainName, c.domain) << c.what;
        EXPECT_EQ(info.hasSharing, c.sharing) << c.what;
        EXPECT_EQ(info.isDC, c.dc) << c.what;
        EXPECT_EQ(info.macaddr, "00:11:22:33:44:55") << c.what;
        EXPECT_EQ(info.ip, "10.0.0.9");
    }

    // A header that promises an answer and ends right before a page that cannot be read: the
    // parser must not look past it.
    const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* pages =
        ::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    char* header = static_cast<char*>(pages) + page - 12;
    ASSERT_EQ(::mprotect(header + 12, page, PROT_NONE), 0);
    std::memcpy(header, "\x6c\x00\x84\x00\x00\x00\x00\x01\0\0\0\0", 12);
    std::string why;
    EXPECT_FALSE(Nbt::parseNodeStatus(std::string_view(header, 12), &why));
    EXPECT_EQ(why, "short answer");
    ::munmap(pages, 2 * page);

    EXPECT_EQ(Nbt::targetAddresses("192.168.1.0/24")->size(), 254u);
    EXPECT_EQ(Nbt::targetAddresses("192.168.1.0/24")->front(), "192.168.1.1");
    EXPECT_EQ(*Nbt::targetAddresses("127.0.0.1"), std::vector<std::string>{"127.0.0.1"});
    for (auto bad : {"", "1.2.3", "1.2.3.4/", "1.2.3.4/33", "host/24", "1.2.3.4/8"})
        EXPECT_FALSE(Nbt::targetAddresses(bad)) << bad;
}

// A sweep of 127.0.0.1, answered by a fake responder with three datagrams to the one request:
// a file server, a host without sharing and a malformed reply. Then the name cache.
TEST(Nbt, SweepAndNameCache) {
    std::vector<std::string> logs;
    std::mutex logMutex;
    NbtScanner::setLogHandler([&](const std::string& line) {
        std::lock_guard g(logMutex);
        logs.push_back(line);
    });
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    std::thread responder([fd] {
        char buf[100];
        sockaddr_in from{};
        socklen_t flen = sizeof from;
        ssize_t n = ::recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &flen);
        if (n != 50) return;
        for (const std::string& reply :
             {response(
                  {{"SERVER", 0x00, false}, {"WORKGROUP", 0x00, true}, {"SERVER", 0x20, false}}),
              response({{"LAPTOP", 0x00, false}}), std::string("\x6c\x00\x84", 3)})
            ::sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), flen);
    });
    NbtScanner scanner;
    scanner.port = ntohs(a.sin_port);
    scanner.timeout_secs = 1;
    auto found = scanner.scann_impl("127.0.0.1");
    responder.join();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].computerName, "SERVER");
    EXPECT_EQ(found[0].domainName, "WORKGROUP");
    EXPECT_EQ(found[0].ip, "127.0.0.1");
    {
        std::lock_guard g(logMutex);
        EXPECT_EQ(logs, (std::vector<std::string>{
                            "Found computer LAPTOP(127.0.0.1), but no sharing on it, ignore it",
                            "ERROR: no parse for 127.0.0.1 -- short header"}));
        logs.clear();
    }
    EXPECT_TRUE(scanner.scann_impl("127.0.0.1/40").empty());

    // (The command line's sweep is the namespace test's.) A /8 is refused as too large.
    EXPECT_EQ(test::runQuillon({"smb", "scan", "10.0.0.0/8"}).exitCode, 2);

    ::close(fd);
    // (The cache and its host names are the namespace test's.)
    NbtScanner::clearNbtNameCache();
    NbtScanner::mergeFoundedInfo(found);
    EXPECT_EQ(NbtScanner::lookUpNbtInfoFromCache("SERVER")->ip, "127.0.0.1");
    EXPECT_EQ(NbtScanner::ipListWithHostName("10.1.2.3"), std::vector<std::string>{"10.1.2.3"});
    std::lock_guard g(logMutex);
    EXPECT_EQ(logs, (std::vector<std::string>{"ERROR: invalid target speci"
                                              "fication: 127.0.0.1/40",
                                              "{NBT}: ========= Clear NBT cache ..."}));
    NbtScanner::setLogHandler({});
}

// A scripted fake NetBIOS host: it lives in a network namespace and answers each node status
// request sent to one of its addresses with that address's datagram, until it is destroyed.
class FakeNbtHost {
  public:
    FakeNbtHost(std::string ns, std::vector<std::pair<std::string, std::string>> replies)
        : ns_(std::move(ns)), replies_(std::move(replies)) {
        if (::pipe(wake_) != 0) return;
        std::promise<bool> bound;
        auto ready = bound.get_future();
        thread_ = std::thread([this, &bound] { serve(bound); });
        ready_ = ready.get();
    }
    ~FakeNbtHost() {
        if (thread_.joinable()) {
            (void)::write(wake_[1], "x", 1);
            thread_.join();
        }
        ::close(wake_[0]);
        ::close(wake_[1]);
    }
    bool ready() const { return ready_; }

  private:
    void serve(std::promise<bool>& bound) {
        std::vector<pollfd> fds{{wake_[0], POLLIN, 0}};
        bool ok = test::NetLab::enter(ns_);
        for (auto& [ip, reply] : replies_) {
            int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(137);
            ::inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
            ok = ok && fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
            fds.push_back({fd, POLLIN, 0});
        }
        bound.set_value(ok);
        while (ok && ::poll(fds.data(), fds.size(), -1) > 0 && !fds[0].revents) {
            for (std::size_t i = 1; i < fds.size(); ++i) {
                if (!(fds[i].revents & POLLIN)) continue;
                char buf[100];
                sockaddr_in from{};
                socklen_t len = sizeof from;
                if (::recvfrom(fds[i].fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from),
                               &len) != 50)
                    continue;
                const std::string& reply = replies_[i - 1].second;
                ::sendto(fds[i].fd, reply.data(), reply.size(), 0,
                         reinterpret_cast<sockaddr*>(&from), len);
            }
        }
        for (std::size_t i = 1; i < fds.size(); ++i) ::close(fds[i].fd);
    }

    std::string ns_;
    std::vector<std::pair<std::string, std::string>> replies_;
    int wake_[2] = {-1, -1};
    std::thread thread_;
    bool ready_ = false;
};

// Samba's nmbd as the NetBIOS host FILESRV of workgroup TESTGRP on one address of a namespace,
// its state in `dir`; ready once a node status request to that address is answered.
std::unique_ptr<test::ChildProcess> startNmbd(const test::NetLab& lab, const std::string& ns,
                                              int host, const test::ScratchDir& dir) {
    const std::string& d = dir.path();
    std::ofstream(d + "/smb.conf")
        << "[global]\nnetbios name = FILESRV\nworkgroup = TESTGRP\n"
        << "interfaces = " << lab.address(host) << "/24\n"
        << "bind interfaces only = yes\nlocal master = no\n"
        << "dns proxy = no\nserver role = standalone server\n"
        << "private dir = " << d << "\nlock directory = " << d << "\nstate directory = " << d
        << "\ncache directory = " << d << "\npid directory = " << d << "\nlog file = " << d
        << "/nmbd.log\n";
    // nmbd in the foreground ends when its standard input does, unless that is no pipe.
    auto nmbd = std::make_unique<test::ChildProcess>(test::NetLab::inside(
        ns, {"sh", "-c",
             "exec /usr/sbin/nmbd --foreground --no-process-group '--configfile=" + d +
                 "/smb.conf' </dev/null"}));
    NbtScanner probe;
    probe.timeout_secs = 1;
    probe.write_sleep_msecs = 0;
    bool answered = test::waitUntil(
        [&] {
            std::vector<NbtInfo> found;
            test::NetLab::runInside(lab.lan(),
                                    [&] { found = probe.scann_impl(lab.address(host)); });
            return !found.empty() || !nmbd->running();
        },
        std::chrono::seconds(60));
    if (!answered || !nmbd->running()) {
        ADD_FAILURE() << "nmbd did not answer: " << nmbd->err() << test::readFile(d + "/nmbd.log");
        return nullptr;
    }
    return nmbd;
}

// A sweep of a /24 of the test's own, from a namespace: nmbd (a file server) is reported; of the
// fake host's addresses, the one without sharing is logged and left out, the GB 18030 name and
// the bytes that are no GB 18030 are shown as such, the malformed reply is logged and dropped.
// The command line sweeps the same. Then nmbd moves to another address: the next sweep replaces
// the cache entry and logs it, and FILESRV.local resolves to the new address.
TEST(Nbt, SweepOfANetworkOfNamespaces) {
    std::string why;
    auto lab = test::NetLab::create("10.213.77", &why);
    if (!lab) GTEST_SKIP() << "the sweep runs only inside network namespaces: " << why;
    std::string server = lab->addHost({2}, &why);
    std::string fake = server.empty() ? server : lab->addHost({3, 4, 5, 6}, &why);
    ASSERT_FALSE(fake.empty()) << why;
    test::ScratchDir state("nmbd");
    auto nmbd = startNmbd(*lab, server, 2, state);
    ASSERT_TRUE(nmbd);
    FakeNbtHost fakeHost(
        fake, {{lab->address(3), response({{"LAPTOP", 0x00, false}, {"HOME", 0x00, true}})},
               {lab->address(4),
                response({{"\xB2\xE2\xCA\xD4", 0x00, false}, {"\xB2\xE2\xCA\xD4", 0x20, false}})},
               {lab->address(5), response({{"NAS\xFF", 0x00, false}, {"NAS\xFF", 0x20, false}})},
               {lab->address(6), std::string("\x6c\x00\x84\x00\x00\x00\x00\x01\0\0\0\0", 12)}});
    ASSERT_TRUE(fakeHost.ready());

    std::vector<std::string> logs;
    std::mutex logMutex;
    NbtScanner::setLogHandler([&](const std::string& line) {
        std::lock_guard g(logMutex);
        logs.push_back(line);
    });
    auto sweep = [&] {
        std::vector<NbtInfo> found;
        EXPECT_TRUE(test::NetLab::runInside(
            lab->lan(), [&] { found = NbtScanner().scann_impl("10.213.77.0/24"); }));
        std::sort(found.begin(), found.end(),
                  [](const NbtInfo& a, const NbtInfo& b) { return a.ip < b.ip; });
        return found;
    };
    auto found = sweep();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].computerName, "FILESRV");
    EXPECT_EQ(found[0].domainName, "TESTGRP");
    EXPECT_EQ(found[0].ip, "10.213.77.2");
    EXPECT_EQ(found[1].computerName, "测试");
    EXPECT_EQ(found[1].ip, "10.213.77.4");
    EXPECT_EQ(found[2].computerName, "NAS\xC3\xBF");
    EXPECT_EQ(found[2].ip, "10.213.77.5");
    {
        std::lock_guard g(logMutex);
        std::sort(logs.begin(), logs.end());
        EXPECT_EQ(logs,
                  (std::vector<std::string>{
                      "ERROR: no parse for 10.213.77.6 -- short answer",
                      "Found computer LAPTOP(10.213.77.3), but no sharing on it, ignore it"}));
        logs.clear();
    }

    auto cli = test::runProgram(test::NetLab::inside(
        lab->lan(), {QUILLON_BINARY, "smb", "scan", "10.213.77.0/24", "--json"}));
    EXPECT_EQ(cli.exitCode, 0) << cli.err;
    auto lines = test::lines(cli.out);
    EXPECT_EQ(lines.size(), 3u) << cli.out;
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "{\"name\":\"FILESRV\",\"workgroup\":\"TESTGRP\",\"ip\":\"10.213.77.2\","
                        "\"mac\":\"00:00:00:00:00:00\"}"),
              lines.end())
        << cli.out;

    NbtScanner::clearNbtNameCache();
    NbtScanner::mergeFoundedInfo(found);
    EXPECT_EQ(NbtScanner::ipListWithHostName("FILESRV.local"),
              std::vector<std::string>{"10.213.77.2"});
    nmbd.reset();
    ASSERT_TRUE(lab->moveAddress(server, 2, 7));
    nmbd = startNmbd(*lab, server, 7, state);
    ASSERT_TRUE(nmbd);
    found = sweep();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[2].computerName, "FILESRV");
    EXPECT_EQ(found[2].ip, "10.213.77.7");
    NbtScanner::mergeFoundedInfo(found);
    EXPECT_EQ(NbtScanner::ipListWithHostName("filesrv.local"),
              std::vector<std::string>{"10.213.77.7"});
    EXPECT_EQ(NbtScanner::ipListWithHostName("filesrv"), std::vector<std::string>{"10.213.77.7"});
    std::lock_guard g(logMutex);
    EXPECT_NE(std::find(logs.begin(), logs.end(),
                        "{NBT} Update table: FILESRV , old: 10.213.77.2, new: 10.213.77.7"),
              logs.end());
    NbtScanner::setLogHandler({});
}

}  // namespace
}  // namespace quillon
