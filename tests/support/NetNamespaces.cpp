#include "support/NetNamespaces.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <thread>

#include "support/TestEnv.h"

namespace quillon::test {

namespace {

constexpr const char* kPrefix = "qlab";

// Ends every process inside the namespace, then removes it.
void removeNamespace(const std::string& ns) {
    for (int round = 0; round < 50; ++round) {
        std::istringstream pids(runProgram({"ip", "netns", "pids", ns}).out);
        bool any = false;
        for (pid_t pid; pids >> pid;) {
            any = true;
            ::kill(pid, SIGKILL);
        }
        if (!any) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    (void)runProgram({"ip", "netns", "del", ns});
}

// Namespaces of programs that died before their destructors ran.
void removeStaleNamespaces() {
    std::error_code ec;
    for (std::filesystem::directory_iterator it("/var/run/netns", ec), end; !ec && it != end;
         it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (!name.starts_with(kPrefix)) continue;
        pid_t owner = static_cast<pid_t>(std::strtol(name.c_str() + 4, nullptr, 10));
        if (owner > 0 && (::kill(owner, 0) == 0 || errno != ESRCH)) continue;
        removeNamespace(name);
    }
}

}  // namespace

NetLab::NetLab(std::string net, std::string tag)
    : net_(std::move(net)), tag_(std::move(tag)), lan_(tag_ + "-lan") {}

bool NetLab::ip(const std::vector<std::string>& args, std::string* whyNot) {
    std::vector<std::string> argv{"ip"};
    argv.insert(argv.end(), args.begin(), args.end());
    auto r = runProgram(argv);
    if (r.exitCode == 0) return true;
    if (whyNot) {
        *whyNot = "ip";
        for (auto& a : args) *whyNot += " " + a;
        *whyNot += ": " + r.err;
    }
    return false;
}

std::unique_ptr<NetLab> NetLab::create(const std::string& net, std::string* whyNot) {
    if (::geteuid() != 0) {
        *whyNot = "network namespaces need root";
        return nullptr;
    }
    if (runProgram({"unshare", "-n", "true"}).exitCode != 0) {
        *whyNot = "this machine cannot make network namespaces (unshare -n fails)";
        return nullptr;
    }
    removeStaleNamespaces();
    static std::atomic<int> labs{0};
    std::string tag =
        std::string(kPrefix) + std::to_string(::getpid()) + "-" + std::to_string(++labs);
    std::unique_ptr<NetLab> lab(new NetLab(net, tag));
    if (!lab->ip({"netns", "add", lab->lan_}, whyNot)) return nullptr;
    lab->namespaces_.push_back(lab->lan_);
    if (!lab->ip({"-n", lab->lan_, "link", "set", "lo", "up"}, whyNot) ||
        !lab->ip({"-n", lab->lan_, "link", "add", "br0", "type", "bridge"}, whyNot) ||
        !lab->ip({"-n", lab->lan_, "addr", "add", lab->address(1) + "/24", "dev", "br0"}, whyNot) ||
        !lab->ip({"-n", lab->lan_, "link", "set", "br0", "up"}, whyNot))
        return nullptr;
    return lab;
}

NetLab::~NetLab() {
    for (auto it = namespaces_.rbegin(); it != namespaces_.rend(); ++it) removeNamespace(*it);
}

std::string NetLab::addHost(const std::vector<int>& hosts, std::string* whyNot) {
    std::string ns = tag_ + "-h" + std::to_string(++nextLink_);
    std::string link = "v" + std::to_string(nextLink_);
    if (!ip({"netns", "add", ns}, whyNot)) return {};
    namespaces_.push_back(ns);
    // Both ends are made inside their namespaces: the machine's own never sees them.
    if (!ip({"link", "add", link, "netns", lan_, "type", "veth", "peer", "name", "eth0", "netns",
             ns},
            whyNot) ||
        !ip({"-n", lan_, "link", "set", link, "master", "br0", "up"}, whyNot) ||
        !ip({"-n", ns, "link", "set", "lo", "up"}, whyNot))
        return {};
    for (int host : hosts)
        if (!ip({"-n", ns, "addr", "add", address(host) + "/24", "dev", "eth0"}, whyNot)) return {};
    if (!ip({"-n", ns, "link", "set", "eth0", "up"}, whyNot)) return {};
    return ns;
}

bool NetLab::moveAddress(const std::string& ns, int from, int to) {
    return ip({"-n", ns, "addr", "del", address(from) + "/24", "dev", "eth0"}) &&
           ip({"-n", ns, "addr", "add", address(to) + "/24", "dev", "eth0"});
}

std::vector<std::string> NetLab::inside(const std::string& ns, std::vector<std::string> argv) {
    argv.insert(argv.begin(), {"ip", "netns", "exec", ns});
    return argv;
}

bool NetLab::enter(const std::string& ns) {
    int fd = ::open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool entered = ::setns(fd, CLONE_NEWNET) == 0;
    ::close(fd);
    return entered;
}

bool NetLab::runInside(const std::string& ns, const std::function<void()>& work) {
    bool entered = false;
    std::thread([&] {
        // The namespace is the thread's: the rest of the program stays where it was.
        entered = enter(ns);
        if (entered) work();
    }).join();
    return entered;
}

}  // namespace quillon::test
