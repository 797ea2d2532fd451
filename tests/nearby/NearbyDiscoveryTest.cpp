// Discovery through Avahi between two machines made for the test: two network namespaces joined
// by a veth pair, each with its own D-Bus system bus and avahi-daemon (allowed on the veth only,
// IPv4, distinct host names). Nothing leaves the namespaces. Needs root, as CI has.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>

#include "core/MainQueue.h"
#include "nearby/NearbyController.h"
#include "support/ChildProcess.h"
#include "support/TestEnv.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Runs the main queue until `done` or the time-out; the last value of `done`.
bool pumpUntil(const std::function<bool()>& done, std::chrono::seconds timeout) {
    auto& queue = MainQueue::shared();
    auto deadline = std::chrono::steady_clock::now() + timeout;
    auto tick = queue.scheduleRepeating(100ms, [] {});
    queue.runUntil([&] { return done() || std::chrono::steady_clock::now() > deadline; });
    queue.cancel(tick);
    return done();
}

class NearbyNetwork {
  public:
    struct Side {
        std::string ns, address, folder, bus;
        std::unique_ptr<test::ChildProcess> dbus, avahi;
    };

    explicit NearbyNetwork(const std::string& root) {
        if (::geteuid() != 0) {
            failure = "the discovery test makes network namespaces and needs root";
            return;
        }
        removeStale();
        std::string tag = "qnearby-" + std::to_string(::getpid());
        a = {tag + "-a", "10.213.7.1", root + "/a", "", nullptr, nullptr};
        b = {tag + "-b", "10.213.7.2", root + "/b", "", nullptr, nullptr};
        if (!run({"ip", "netns", "add", a.ns}) || !run({"ip", "netns", "add", b.ns}) ||
            !run({"ip", "-n", a.ns, "link", "add", "nb0", "type", "veth", "peer", "name", "nb0",
                  "netns", b.ns}))
            return;
        for (auto* side : {&a, &b})
            if (!run({"ip", "-n", side->ns, "addr", "add", side->address + "/24", "dev", "nb0"}) ||
                !run({"ip", "-n", side->ns, "link", "set", "nb0", "up"}) ||
                !run({"ip", "-n", side->ns, "link", "set", "lo", "up"}) || !startDaemons(*side))
                return;
    }

    ~NearbyNetwork() {
        for (auto* side : {&a, &b}) {
            if (side->ns.empty()) continue;
            side->avahi.reset();
            side->dbus.reset();
            killAll(side->ns);
            test::runProgram({"ip", "netns", "del", side->ns});
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
    Side a, b;

  private:
    bool run(const std::vector<std::string>& argv) {
        auto r = test::runProgram(argv);
        if (r.exitCode != 0 && failure.empty()) failure = argv[0] + " failed: " + r.err;
        return r.exitCode == 0;
    }

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
            << "\nuse-ipv4=yes\nuse-ipv6=no\nallow-interfaces=nb0\nenable-dbus=yes\n"
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

    static void killAll(const std::string& ns) {
        auto pids = test::runProgram({"ip", "netns", "pids", ns}).out;
        std::istringstream in(pids);
        for (pid_t pid; in >> pid;) ::kill(pid, SIGKILL);
    }

    // Namespaces left by a run of this test that was killed.
    static void removeStale() {
        std::error_code ec;
        for (auto& e : fs::directory_iterator("/run/netns", ec)) {
            std::smatch m;
            std::string name = e.path().filename().string();
            if (!std::regex_match(name, m, std::regex("qnearby-(\\d+)-[ab]"))) continue;
            if (::kill(std::stoi(m[1]), 0) == 0 || errno != ESRCH) continue;
            killAll(name);
            test::runProgram({"ip", "netns", "del", name});
        }
    }
};

TEST(NearbyDiscovery, PeersAppearResolveReceiveAndDisappear) {
    test::IsolatedHome home;
    test::ScratchDir dir{"nearby-net"};
    {
        // Without a daemon, discovery says so; sending to an address does not need it.
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + dir / "no-bus").c_str(), 1);
        auto peers = test::runQuillon({"nearby", "peers"});
        EXPECT_EQ(peers.exitCode, 1);
        EXPECT_NE(peers.err.find("no Avahi daemon can be reached"), std::string::npos) << peers.err;
    }
    NearbyNetwork net(dir.path());
    ASSERT_TRUE(net.failure.empty()) << net.failure;

    // Alpha receives in namespace a on the standard port and announces itself there.
    fs::create_directories(dir / "inbox");
    test::ChildProcess alpha(net.inside(
        net.a, "qnearby-alpha", {QUILLON_BINARY, "nearby", "receive", "--to", dir / "inbox"}));
    ASSERT_TRUE(alpha.waitForOutput(std::regex("Receiving into"))) << alpha.err();

    // This process publishes and browses through namespace b's daemon: it lists alpha, not itself.
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", net.b.bus.c_str(), 1);
    auto controller = NearbyController::create();
    fs::create_directories(dir / "own");
    ASSERT_TRUE(controller->startReceiving({dir / "own", "127.0.0.1", 0, true, false}));
    ASSERT_TRUE(controller->startBrowsing());
    ASSERT_TRUE(pumpUntil([&] { return !controller->devices().empty(); }, 30s));
    auto alphaItem = controller->devices().front();
    EXPECT_EQ(alphaItem.hostname, "qnearby-alpha Wi-Fi");
    ASSERT_TRUE(alphaItem.netService && !alphaItem.netService->addresses.empty());
    EXPECT_EQ(alphaItem.netService->addresses[0].address().to_string(), "10.213.7.1");
    EXPECT_EQ(alphaItem.netService->addresses[0].port(), 4713);

    // From namespace a both services show, ours with b's address.
    auto peers = test::runProgram(
        net.inside(net.a, "qnearby-gamma", {QUILLON_BINARY, "nearby", "peers", "--json"}));
    EXPECT_EQ(peers.exitCode, 0) << peers.err;
    EXPECT_NE(peers.out.find("{\"name\":\"qnearby-alpha Wi-Fi\",\"host\":\"" + net.a.ns +
                             ".local\",\"addresses\":[\"10.213.7.1:4713\"]}"),
              std::string::npos)
        << peers.out;
    EXPECT_NE(peers.out.find("\"addresses\":[\"10.213.7.2:"), std::string::npos) << peers.out;
    EXPECT_EQ(controller->devices().size(), 1u);  // our own service stays out of our list

    // Beta sends to alpha by its device name.
    test::writeFile(dir / "hello.txt", "over the veth");
    auto sent = test::runProgram(
        net.inside(net.b, "qnearby-beta",
                   {QUILLON_BINARY, "nearby", "send", "qnearby-alpha Wi-Fi", dir / "hello.txt"}));
    EXPECT_EQ(sent.exitCode, 0) << sent.err;
    EXPECT_EQ(test::readFile(dir / "inbox/hello.txt"), "over the veth");

    // Alpha stops: it leaves the list.
    EXPECT_EQ(alpha.stop(SIGTERM), 0) << alpha.err();
    EXPECT_TRUE(pumpUntil([&] { return controller->devices().empty(); }, 30s));
    controller->stopReceiving();
}

}  // namespace
}  // namespace quillon
