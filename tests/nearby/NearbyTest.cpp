// Nearby sharing: two quillon processes on loopback (sender and receiver), each of them against
// nearby_peer.py (a peer written from the protocol's message table alone), and discovery between
// two network namespaces.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <set>

#include "app/cli/Json.h"
#include "core/MainQueue.h"
#include "core/PathUtils.h"
#include "core/ServerInfo.h"
#include "nearby/NearbyController.h"
#include "nearby/NearbyUtils.h"
#include "support/ChildProcess.h"
#include "support/NetNamespaces.h"
#include "support/TestEnv.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;
using test::lines;
using test::readFile;
using test::setMtime;
using test::writeFile;
using namespace std::chrono_literals;

const std::string kPeer = QUILLON_SOURCE_DIR "/tests/nearby/nearby_peer.py";

// Two hosts of a network of the test's own, each with its own D-Bus system bus and avahi-daemon.
class NearbyNetwork {
  public:
    struct Side {
        std::string ns, address, folder, bus;
        std::unique_ptr<test::ChildProcess> dbus, avahi;
    };

    explicit NearbyNetwork(const std::string& root) {
        lab = test::NetLab::create("10.213.7", &failure);
        if (!lab) return;
        int host = 1;
        for (auto* side : {&a, &b}) {
            side->ns = lab->addHost({++host}, &failure);
            side->address = lab->address(host);
            side->folder = root + (side == &a ? "/a" : "/b");
            if (side->ns.empty() || !startDaemons(*side)) return;
        }
    }

    // argv run inside the side's namespace, on its bus, with its own home and host name.
    std::vector<std::string> inside(const Side& side, const std::string& hostName,
                                    const std::vector<std::string>& argv) const {
        std::string command = "hostname " + hostName +
                              " && exec env DBUS_SYSTEM_BUS_ADDRESS=" + side.bus +
                              " QUILLON_HOME=" + side.folder + "/home";
        for (auto& arg : argv) command += " '" + arg + "'";
        return {"ip", "netns", "exec", side.ns, "unshare", "--uts", "sh", "-c", command};
    }

    std::string failure;
    std::unique_ptr<test::NetLab> lab;  // ends what runs in the namespaces after the sides
    Side a, b;

  private:
    bool startDaemons(Side& side) {
        fs::create_directories(side.folder + "/home");
        side.bus = "unix:path=" + side.folder + "/bus";
        std::ofstream(side.folder + "/bus.conf")
            << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
               "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
               "<busconfig><type>system</type><listen>"
            << side.bus
            << "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow user=\"*\"/>"
               "<allow own=\"*\"/><allow send_destination=\"*\"/><allow receive_sender=\"*\"/>"
               "</policy></busconfig>\n";
        std::ofstream(side.folder + "/avahi.conf")
            << "[server]\nhost-name=" << side.ns
            << "\nuse-ipv4=yes\nuse-ipv6=no\nallow-interfaces=eth0\nenable-dbus=yes\n"
               "[wide-area]\nenable-wide-area=no\n[publish]\npublish-hinfo=no\n"
               "publish-workstation=no\n";
        side.dbus = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{"ip", "netns", "exec", side.ns, "dbus-daemon",
                                     "--config-file=" + side.folder + "/bus.conf", "--nofork",
                                     "--nopidfile", "--print-address=1"});
        if (!side.dbus->waitForOutput(std::regex("unix:path"))) {
            failure = "dbus-daemon did not start: " + side.dbus->err();
            return false;
        }
        // avahi-daemon keeps its pid file and socket in /run/avahi-daemon: a private /run in the
        // namespace's own mount namespace keeps them apart from the host's.
        side.avahi = std::make_unique<test::ChildProcess>(std::vector<std::string>{
            "ip", "netns", "exec", side.ns, "sh", "-c",
            "mount -t tmpfs tmpfs /run && mkdir /run/avahi-daemon && exec env "
            "DBUS_SYSTEM_BUS_ADDRESS=" +
                side.bus + " avahi-daemon -f " + side.folder +
                "/avahi.conf --no-drop-root --no-chroot --no-rlimits --no-proc-title 2>&1"});
        if (!side.avahi->waitForOutput(std::regex("Server startup complete"))) {
            failure = "avahi-daemon did not start: " + side.avahi->out() + side.avahi->err();
            return false;
        }
        return true;
    }
};

class NearbyTest : public ::testing::Test {
  protected:
    NearbyTest() {
        // Nothing here is announced on the network: a bus that does not exist makes sure of it.
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir / "no-bus").c_str(), 1);
        fs::create_directories(inbox);
    }

    // `quillon nearby receive --once` into the inbox on a free loopback port; the port.
    int startReceiver() {
        receiver = std::make_unique<test::ChildProcess>(
            std::vector<std::string>{QUILLON_BINARY, "nearby", "receive", "--to", inbox, "--bind",
                                     "127.0.0.1", "--port", "0", "--once"});
        auto port = receiver->waitForOutput(std::regex("port (\\d+)"));
        EXPECT_TRUE(port) << receiver->err();
        return port ? std::stoi(*port) : 0;
    }
    test::CommandResult send(int port, const std::vector<std::string>& paths) {
        std::vector<std::string> args{"nearby", "send", "127.0.0.1:" + std::to_string(port)};
        args.insert(args.end(), paths.begin(), paths.end());
        return test::runQuillon(args);
    }
    // The scripted peer as a sender: one line per reply.
    std::vector<std::string> peerSend(int port, const std::string& steps) {
        auto r = test::runProgram({"python3", kPeer, "send", std::to_string(port)}, steps);
        EXPECT_EQ(r.exitCode, 0) << r.err;
        return lines(r.out);
    }
    static std::string sha256(const std::string& path) {
        return test::runProgram({"sha256sum", path}).out.substr(0, 64);
    }
    // Every file below `root`, as paths relative to it.
    static std::set<std::string> tree(const std::string& root) {
        std::set<std::string> files;
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::end(it);
             it.increment(ec))
            if (!it->is_directory()) files.insert(fs::relative(it->path(), root).string());
        return files;
    }

    test::IsolatedHome home;
    test::ScratchDir dir{"nearby"};
    std::string inbox = dir / "inbox";
    std::unique_ptr<test::ChildProcess> receiver;
};

TEST_F(NearbyTest, TreeArrivesWithBlanksSubfoldersTimesAndUniqueNames) {
    std::string src = dir / "src";
    writeFile(src + "/Photos/2019/a   b.txt", "three blanks");
    writeFile(src + "/Photos/2019/x.txt", "first x");
    writeFile(src + "/Photos/other/x.txt", "second x");  // the same last name right after
    ASSERT_EQ(::symlink((src + "/Photos/2019/x.txt").c_str(), (src + "/Photos/link.txt").c_str()),
              0);
    std::string exact = test::randomBytes(32768, 5);
    writeFile(src + "/exact.bin", exact);
    setMtime(src + "/exact.bin", 1234567.891);
    writeFile(inbox + "/exact.bin", "already here");

    int port = startReceiver();
    auto sent = send(port, {src + "/Photos", src + "/exact.bin"});
    EXPECT_EQ(sent.exitCode, 0) << sent.err;
    EXPECT_EQ(receiver->wait(), 0) << receiver->err();

    EXPECT_EQ(tree(inbox),
              (std::set<std::string>{"Photos/2019/a   b.txt", "Photos/2019/x.txt",
                                     "Photos/other/x.txt", "exact.bin", "exact-1.bin"}));
    EXPECT_EQ(readFile(inbox + "/Photos/2019/a   b.txt"), "three blanks");
    EXPECT_EQ(readFile(inbox + "/Photos/2019/x.txt"), "first x");
    EXPECT_EQ(readFile(inbox + "/Photos/other/x.txt"), "second x");
    EXPECT_EQ(readFile(inbox + "/exact.bin"), "already here");
    EXPECT_EQ(readFile(inbox + "/exact-1.bin"), exact);
    EXPECT_EQ(test::mtimeOf(inbox + "/exact-1.bin"), 1234567);  // whole seconds travel
    EXPECT_TRUE(test::contains(receiver->out(), "received exact.bin -> " + inbox + "/exact-1.bin"))
        << receiver->out();
    EXPECT_TRUE(test::contains(sent.out, "sent Photos/2019/a   b.txt")) << sent.out;
    EXPECT_TRUE(tree(PathUtils::getAppTempPath()).empty());
}

TEST_F(NearbyTest, OneGiBFileArrivesByteForByte) {
    std::string big = dir / "big.bin";
    {
        std::ofstream out(big, std::ios::binary);
        std::vector<std::uint64_t> block(1 << 17);  // 1 MiB
        std::uint64_t x = 0x9E3779B97F4A7C15ull;
        for (int b = 0; b < 1024; ++b) {
            for (auto& v : block) v = (x ^= x << 13, x ^= x >> 7, x ^= x << 17);
            out.write(reinterpret_cast<const char*>(block.data()), 1 << 20);
        }
    }
    int port = startReceiver();
    auto sent = send(port, {big});
    EXPECT_EQ(sent.exitCode, 0) << sent.err;
    EXPECT_EQ(receiver->wait(), 0) << receiver->err();
    // cmp names the first differing byte, or which file ends early.
    auto same = test::runProgram({"cmp", big, inbox + "/big.bin"});
    EXPECT_EQ(same.exitCode, 0) << same.out << same.err;
}

TEST_F(NearbyTest, SenderSpeaksTheWireFormatAndStopsAtARefusal) {
    std::string src = dir / "src";
    writeFile(src + "/a  b.txt", "xy");
    setMtime(src + "/a  b.txt", 1234567.5);
    writeFile(src + "/exact.bin", std::string(32768, 'e'));
    setMtime(src + "/exact.bin", 0);

    for (int refuse : {0, 1}) {
        SCOPED_TRACE(refuse ? "the first STORE refused" : "all accepted");
        test::ChildProcess peer({"python3", kPeer, "receive", std::to_string(refuse)});
        auto port = peer.waitForOutput(std::regex("^(\\d+)\n"));
        ASSERT_TRUE(port) << peer.err();
        auto sent = send(std::stoi(*port), {src + "/a  b.txt", src + "/exact.bin"});
        EXPECT_EQ(peer.wait(), 0) << peer.err();
        std::vector<std::string> expected{*port, "STORE STORE 2 1234567000 a  b.txt"};
        if (refuse) {
            EXPECT_EQ(sent.exitCode, 1);
            EXPECT_TRUE(
                test::contains(sent.err, "Failed to send file! (Nearby File Transfer 10002)"))
                << sent.err;
            expected.push_back("CLOSED");  // no further STORE, no DISCONNECT
        } else {
            EXPECT_EQ(sent.exitCode, 0) << sent.err;
            expected.insert(expected.end(), {"DATA 2 " + sha256(src + "/a  b.txt"),
                                             "CMD STORE_COMPLETED", "STORE STORE 32768 0 exact.bin",
                                             "DATA 32768 " + sha256(src + "/exact.bin"),
                                             "CMD STORE_COMPLETED", "CMD DISCONNECT", "CLOSED"});
        }
        EXPECT_EQ(lines(peer.out()), expected);
    }
}

TEST_F(NearbyTest, SenderStillAnnouncesAFileItCannotOpen) {
    test::ChildProcess peer({"python3", kPeer, "receive"});
    auto port = peer.waitForOutput(std::regex("^(\\d+)\n"));
    ASSERT_TRUE(port) << peer.err();
    auto sender = NearbySocketSender::create();
    std::optional<Status> connected;
    std::vector<std::optional<Error>> completions;
    sender->connectHost(
        {asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(std::stoi(*port))},
        [&](const Status& s) { MainQueue::shared().post([&, s] { connected = s; }); });
    ASSERT_TRUE(test::pumpUntil([&] { return connected.has_value(); }));
    ASSERT_TRUE(*connected) << connected->error().describe();
    NearbyTransferMetadata gone{"gone.txt", dir / "gone.txt", std::nullopt, 0, 0, 0};
    sender->startToSendFile(gone, [&](const std::optional<Error>& e) {
        MainQueue::shared().post([&, e] { completions.push_back(e); });
    });
    // At once "Cannot open file!", then the receiver's answer to the empty data phase.
    ASSERT_TRUE(test::pumpUntil([&] { return completions.size() == 2; }));
    ASSERT_TRUE(completions[0]);
    EXPECT_EQ(completions[0]->code, ErrorCode::NoPermission);
    EXPECT_EQ(completions[0]->reason, "Cannot open file!");
    EXPECT_FALSE(completions[1]);
    sender->requestDisconnect();
    EXPECT_EQ(peer.wait(), 0);
    EXPECT_EQ(lines(peer.out()), (std::vector<std::string>{
                                     *port, "STORE STORE 0 0 gone.txt",
                                     "DATA 0 e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495"
                                     "991b7852b855",
                                     "CMD STORE_COMPLETED", "CMD DISCONNECT", "CLOSED"}));
}

TEST_F(NearbyTest, ReceiverAnswersTheWireFormatAndRefusesHostileStores) {
    writeFile(inbox + "/dup.txt", "first");
    std::string outside = dir / "outside";
    // Names that could reach outside the inbox, or that a file system cannot hold.
    const std::vector<std::string> hostile{"../escape.txt",
                                           "a/../../escape.txt",
                                           outside + "/abs.txt",
                                           "a//b.txt",
                                           "./a.txt",
                                           "a/./b.txt",
                                           "trailing/",
                                           "..",
                                           std::string("nul\0name", 8),
                                           "tab\tname",
                                           "new\nline",
                                           std::string(300, 'n')};
    std::string steps = "[";
    auto step = [&steps](const std::string& kind, const std::string& text) {
        steps +=
            (steps.size() > 1 ? "," : "") + fmt::format("[\"{}\",{}]", kind, cli::jsonString(text));
    };
    auto file = [&steps](const std::string& name, long long millis, const std::string& content) {
        steps += (steps.size() > 1 ? "," : "") + fmt::format("[\"file\",{},{},{}]",
                                                             cli::jsonString(name), millis,
                                                             cli::jsonString(content));
    };
    file("zero-time.txt", 0, "now");
    file("old.txt", 1234567, "old");
    file("sub/dir/deep  name.txt", 0, "deep");
    file("dup.txt", 0, "second");
    step("cmd", "STORE 5 0");  // fewer than four parts
    for (auto& name : hostile) step("cmd", "STORE 3 0 " + name);
    step("cmd", "STORE 1000000000000000000 0 huge.bin");  // more than any disk holds
    // An empty file's data read takes the next text as content: the transfer waits.
    step("cmd", "STORE 0 0 empty.txt");
    step("quiet", "STORE_COMPLETED");
    step("quiet", "HELLO");  // an unknown command: no reply, and nothing is read after it
    steps += "]";

    auto started = std::chrono::system_clock::now();
    int port = startReceiver();
    auto replies = peerSend(port, steps);
    std::vector<std::string> expected;
    for (int i = 0; i < 4; ++i)
        expected.insert(expected.end(),
                        {"REPLY RESPONSE_STORE OK", "REPLY RESPONSE_STORE_COMPLETED"});
    for (std::size_t i = 0; i < hostile.size() + 2; ++i)
        expected.push_back("REPLY RESPONSE_STORE ERROR");
    expected.insert(expected.end(), {"REPLY RESPONSE_STORE OK", "SILENCE", "SILENCE"});
    EXPECT_EQ(replies, expected);
    EXPECT_EQ(receiver->stop(SIGTERM), 1) << receiver->err();  // some files were refused

    EXPECT_EQ(tree(inbox),
              (std::set<std::string>{"zero-time.txt", "old.txt", "sub/dir/deep  name.txt",
                                     "dup.txt", "dup-1.txt"}));
    EXPECT_EQ(readFile(inbox + "/dup.txt"), "first");
    EXPECT_EQ(readFile(inbox + "/dup-1.txt"), "second");
    EXPECT_EQ(readFile(inbox + "/sub/dir/deep  name.txt"), "deep");
    EXPECT_EQ(test::mtimeOf(inbox + "/old.txt"), 1234);
    auto now = std::chrono::system_clock::to_time_t(started);
    EXPECT_GE(test::mtimeOf(inbox + "/zero-time.txt"), now - 1);
    // Nothing outside the inbox, and no partial file left behind.
    EXPECT_EQ(tree(dir.path()), [&] {
        std::set<std::string> inside;
        for (auto& f : tree(inbox)) inside.insert("inbox/" + f);
        return inside;
    }());
    EXPECT_TRUE(tree(PathUtils::getAppTempPath()).empty());
    std::size_t refusals = 0;
    for (auto at = receiver->err().find("Refused:"); at != std::string::npos;
         at = receiver->err().find("Refused:", at + 1))
        ++refusals;
    EXPECT_EQ(refusals, hostile.size() + 2) << receiver->err();
}

TEST_F(NearbyTest, ItemsExpandLocalTreesAndNeverLeaveTheReceiveFolder) {
    std::string src = dir / "src";
    writeFile(src + "/F/sub/b.txt", "b");
    writeFile(src + "/F/a.txt", "a");
    writeFile(src + "/plain.txt", "p");
    fs::create_directories(src + "/F/empty");
    fs::create_symlink(src + "/plain.txt", src + "/F/link.txt");
    fs::create_directory_symlink(src + "/F/sub", src + "/F/linkdir");
    fs::create_symlink(src + "/plain.txt", src + "/toplink.txt");
    auto local = [](const std::string& path) {
        KvMetadata m(path);
        m.localPath = path;
        return m;
    };
    auto items = NearbyController::getAllItems(
        {local(src + "/F/"), local(src + "/toplink.txt"), local(src + "/plain.txt")});
    ASSERT_TRUE(items) << items.error().describe();
    std::vector<std::string> names;
    for (auto& item : *items) names.push_back(item.name);
    EXPECT_EQ(names, (std::vector<std::string>{"F/a.txt", "F/sub/b.txt", "plain.txt"}));
    EXPECT_EQ((*items)[1].path, src + "/F/sub/b.txt");
    EXPECT_EQ((*items)[1].fileSize, 1);

    KvMetadata remote("/reports/q1.pdf");
    remote.protocolType = ProtocolType::FTP;
    auto refused = NearbyController::getAllItems({local(src + "/plain.txt"), remote});
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().reason, "Cannot transfer files that are stored on connection.");
    EXPECT_EQ(NearbyController::getAllItems({local(dir / "missing")}).error().code,
              ErrorCode::NotFound);

    // "Nearby Location" holds only a folder that exists; without it files go to Downloads.
    NearbyUtils::saveNearbyLocation(dir / "missing");
    EXPECT_EQ(NearbyUtils::getNearbyLocation(), PathUtils::getDownloadFolderPath());
    NearbyUtils::saveNearbyLocation(inbox);
    EXPECT_EQ(NearbyUtils::getNearbyLocation(), inbox);

    // A folder of the target that is a link to elsewhere is not followed.
    fs::create_directories(dir / "elsewhere");
    fs::create_directory_symlink(dir / "elsewhere", inbox + "/link");
    auto controller = NearbyController::create();
    ASSERT_TRUE(controller->startReceiving({inbox, "127.0.0.1", 0, false, true}));
    writeFile(dir / "received.tmp", "payload");
    EXPECT_FALSE(controller->saveReceivedFile(dir / "received.tmp", "link/x.txt"));
    EXPECT_FALSE(controller->saveReceivedFile(dir / "received.tmp", "../x.txt"));
    EXPECT_TRUE(tree(dir / "elsewhere").empty());
    auto saved = controller->saveReceivedFile(dir / "received.tmp", "new/x.txt");
    ASSERT_TRUE(saved) << saved.error().describe();
    EXPECT_EQ(*saved, inbox + "/new/x.txt");
    controller->stopReceiving();
}

// Discovery through Avahi between two machines made for the test: two network namespaces on a
// bridge of their own, each with its own D-Bus system bus and avahi-daemon (allowed on its link
// only, IPv4, distinct host names). Nothing leaves the namespaces. Needs root, as CI has.
TEST_F(NearbyTest, DiscoveryListsResolvesAndDropsPeersBetweenTwoNamespaces) {
    // Without a daemon, discovery says so (sending to an address does not need it).
    auto noDaemon = test::runQuillon({"nearby", "peers"});
    EXPECT_EQ(noDaemon.exitCode, 1);
    EXPECT_TRUE(test::contains(noDaemon.err, "no Avahi daemon can be reached")) << noDaemon.err;
    NearbyNetwork net(dir / "net");
    ASSERT_TRUE(net.failure.empty()) << net.failure;

    // Alpha receives in namespace a on the standard port and announces itself there.
    test::ChildProcess alpha(
        net.inside(net.a, "qnearby-alpha", {QUILLON_BINARY, "nearby", "receive", "--to", inbox}));
    ASSERT_TRUE(alpha.waitForOutput(std::regex("Receiving into"))) << alpha.err();

    // This process publishes and browses through namespace b's daemon: it lists alpha, not itself.
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", net.b.bus.c_str(), 1);
    auto controller = NearbyController::create();
    fs::create_directories(dir / "own");
    ASSERT_TRUE(controller->startReceiving({dir / "own", "127.0.0.1", 0, true, false}));
    ASSERT_TRUE(controller->startBrowsing());
    ASSERT_TRUE(test::pumpUntil([&] { return !controller->devices().empty(); }));
    auto alphaItem = controller->devices().front();
    EXPECT_EQ(alphaItem.hostname, "qnearby-alpha Wi-Fi");
    ASSERT_TRUE(alphaItem.netService && !alphaItem.netService->addresses.empty());
    EXPECT_EQ(alphaItem.netService->addresses[0].address().to_string(), "10.213.7.2");
    EXPECT_EQ(alphaItem.netService->addresses[0].port(), 4713);

    // From namespace a both services show, ours with b's address.
    auto peers = test::runProgram(
        net.inside(net.a, "qnearby-gamma", {QUILLON_BINARY, "nearby", "peers", "--json"}));
    EXPECT_EQ(peers.exitCode, 0) << peers.err;
    EXPECT_TRUE(test::contains(peers.out, "{\"name\":\"qnearby-alpha Wi-Fi\",\"host\":\"" +
                                              net.a.ns +
                                              ".local\",\"addresses\":[\"10.213.7.2:4713\"]}"))
        << peers.out;
    EXPECT_TRUE(test::contains(peers.out, "\"addresses\":[\"10.213.7.3:")) << peers.out;
    EXPECT_EQ(controller->devices().size(), 1u);  // our own service stays out of our list

    // Beta sends to alpha by its device name.
    test::writeFile(dir / "hello.txt", "over the veth");
    auto sent = test::runProgram(
        net.inside(net.b, "qnearby-beta",
                   {QUILLON_BINARY, "nearby", "send", "qnearby-alpha Wi-Fi", dir / "hello.txt"}));
    EXPECT_EQ(sent.exitCode, 0) << sent.err;
    EXPECT_EQ(readFile(inbox + "/hello.txt"), "over the veth");

    // Alpha stops: it leaves the list.
    EXPECT_EQ(alpha.stop(SIGTERM), 0) << alpha.err();
    EXPECT_TRUE(test::pumpUntil([&] { return controller->devices().empty(); }));
    controller->stopReceiving();
}

}  // namespace
}  // namespace quillon
