#include "support/ServerKit.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/TestEnv.h"

namespace fs = std::filesystem;

namespace quillon::test {

int listenOn(const char* host, int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (fd < 0 || ::inet_pton(AF_INET, host, &a.sin_addr) != 1 ||
        ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 8) != 0) {
        if (fd >= 0) ::close(fd);
        return -1;
    }
    return fd;
}

int boundPort(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    return ntohs(a.sin_port);
}

void sendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        auto n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

int freePort() {
    int fd = listenOn("127.0.0.1", 0);
    int port = fd < 0 ? 0 : boundPort(fd);
    if (fd >= 0) ::close(fd);
    return port;
}

bool listensOn(pid_t pid, int port) {
    char local[32];
    std::snprintf(local, sizeof local, "%08X:%04X", htonl(INADDR_LOOPBACK), port);
    std::ifstream tcp("/proc/net/tcp");
    std::string line, inode;
    while (inode.empty() && std::getline(tcp, line)) {
        std::istringstream f(line);
        std::string slot, address, remote, state, skip;
        f >> slot >> address >> remote >> state;
        for (int i = 0; i < 5; ++i) f >> skip;
        if (address == local && state == "0A") f >> inode;
    }
    std::error_code ec;
    for (fs::directory_iterator it("/proc/" + std::to_string(pid) + "/fd", ec), end;
         !inode.empty() && !ec && it != end; it.increment(ec))
        if (fs::read_symlink(it->path(), ec).string() == "socket:[" + inode + "]") return true;
    return false;
}

bool launchWithRetries(std::string_view server, const std::function<bool(std::string*)>& launch,
                       std::string* whyNot) {
    std::string reason;
    for (int attempt = 0; attempt < 5; ++attempt) {
        reason.clear();
        if (launch(&reason)) return true;
        if (reason.find("cannot run here") != std::string::npos) break;
    }
    if (whyNot)
        *whyNot = reason;
    else
        ADD_FAILURE() << server << " did not start: " << reason;
    return false;
}

pid_t spawnGroup(const std::vector<std::string>& argv, const std::string& logPath) {
    std::vector<std::string> copy = argv;
    std::vector<char*> args;
    for (auto& a : copy) args.push_back(a.data());
    args.push_back(nullptr);
    pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid == 0) {
        // Only async-signal-safe calls until exec. A group of its own, so that stopping it
        // reaches the session processes it forks; and it dies with the test program, should that
        // be killed before it can stop the server.
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);
        int in = ::open("/dev/null", O_RDONLY);
        int out = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        if (in < 0 || out < 0) ::_exit(127);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(out, 2);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    return pid;
}

bool awaitListener(pid_t& pid, int port, const std::function<bool()>& answers,
                   std::chrono::seconds limit, std::string* whyNot) {
    bool exited = false;
    // A reply counts only from a listener the server holds: another program that took the port
    // first would answer too, until the server gives up binding it.
    bool up = waitUntil(
        [&] {
            int status = 0;
            exited = ::waitpid(pid, &status, WNOHANG) == pid;
            return exited || (answers() && listensOn(pid, port));
        },
        limit);
    if (exited) {
        pid = -1;
        *whyNot = "exited at start";
    } else if (!up) {
        *whyNot = "did not answer on port " + std::to_string(port);
    }
    return up && !exited;
}

void stopGroup(pid_t& group, std::chrono::seconds grace) {
    if (group <= 0) return;
    ::kill(-group, SIGTERM);
    int status = 0;
    bool reaped = waitUntil([&] { return ::waitpid(group, &status, WNOHANG) == group; }, grace);
    ::kill(-group, SIGKILL);
    if (!reaped) ::waitpid(group, &status, 0);
    group = -1;
}

bool startLogged(std::unique_ptr<ChildProcess>& process, const std::vector<std::string>& argv,
                 const std::string& logPath, const std::regex& ready, int port,
                 std::string* whyNot) {
    process = std::make_unique<ChildProcess>(argv);
    bool up = waitUntil(
        [&] { return !process->running() || std::regex_search(readFile(logPath), ready); },
        std::chrono::seconds(60));
    if (up && process->running()) return true;
    *whyNot = "the server did not listen on port " + std::to_string(port) + ": " +
              readFile(logPath) + process->err();
    process.reset();
    return false;
}

std::vector<ProcessEntry> processes() {
    std::vector<ProcessEntry> found;
    std::error_code ec;
    for (fs::directory_iterator it("/proc", ec), end; !ec && it != end; it.increment(ec)) {
        auto name = it->path().filename().string();
        if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
        // "pid (comm) state ppid ...", where comm may hold blanks and parentheses.
        std::string stat = readFile(it->path().string() + "/stat");
        auto open = stat.find('('), close = stat.rfind(')');
        if (open == std::string::npos || close == std::string::npos || close + 2 >= stat.size())
            continue;
        ProcessEntry p;
        p.pid = static_cast<pid_t>(std::stol(name));
        p.name = stat.substr(open + 1, close - open - 1);
        std::istringstream f(stat.substr(close + 2));
        f >> p.state >> p.parent;
        found.push_back(p);
    }
    return found;
}

std::vector<pid_t> descendantsOf(pid_t pid) {
    auto all = processes();
    std::vector<pid_t> order, pending = {pid};
    while (!pending.empty()) {
        pid_t p = pending.back();
        pending.pop_back();
        if (p != pid) order.push_back(p);
        for (auto& e : all)
            if (e.parent == p) pending.push_back(e.pid);
    }
    return {order.rbegin(), order.rend()};
}

void writeText(const std::string& path, const std::string& text, mode_t mode) {
    std::ofstream(path, std::ios::binary) << text;
    ::chmod(path.c_str(), mode);
}

std::string makeServedFolder(const std::string& dir, const std::string& name) {
    ::chmod(dir.c_str(), 0755);
    std::string folder = dir + "/" + name;
    fs::create_directories(folder);
    ::chmod(folder.c_str(), 0777);
    return folder;
}

std::string pathBelow(const std::string& root, std::string_view rel) {
    while (!rel.empty() && rel.front() == '/') rel.remove_prefix(1);
    return rel.empty() ? root : root + "/" + std::string(rel);
}

std::string slashPath(std::string_view rel) {
    while (!rel.empty() && rel.front() == '/') rel.remove_prefix(1);
    return "/" + std::string(rel);
}

ServerInfoPtr loopbackRecord(std::int32_t protocol, int port, const std::string& user,
                             const std::string& password) {
    auto info = std::make_shared<ServerInfo>();
    info->protocolType = protocol;
    info->setValue(std::string("127.0.0.1"), ServerProp::ADDR);
    info->setValue(std::to_string(port), ServerProp::PORT);
    info->setValue(user, ServerProp::USERNAME);
    info->setValue(password, ServerProp::PASSWORD);
    return info;
}

}  // namespace quillon::test
