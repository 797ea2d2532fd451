#include "support/SmbServers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/FtpServers.h"

namespace fs = std::filesystem;

namespace quillon::test {

SmbServer::SmbServer() : dir_("smbd") {
    ::chmod(dir_.path().c_str(), 0755);
    share_ = dir_.path() + "/share";
    fs::create_directories(share_);
    ::chmod(share_.c_str(), 0777);
    for (auto* d : {"private", "lock", "state", "cache", "pid", "ncalrpc", "log"})
        fs::create_directories(dir_.path() + "/" + d);
}

std::unique_ptr<SmbServer> SmbServer::start(std::string* whyNot) {
    if (::access("/usr/sbin/smbd", X_OK) != 0) {
        if (whyNot) *whyNot = "smbd cannot run here: /usr/sbin/smbd is not installed";
        return nullptr;
    }
    std::unique_ptr<SmbServer> server(new SmbServer());
    std::string reason;
    // A port found free may be taken by another program before smbd binds it: try again.
    for (int attempt = 0; attempt < 5; ++attempt) {
        reason.clear();
        if (server->launch(&reason)) return server;
    }
    if (whyNot) *whyNot = reason;
    return nullptr;
}

bool SmbServer::launch(std::string* whyNot) {
    port_ = freePort();
    const std::string& d = dir_.path();
    const std::string conf = d + "/smb.conf";
    std::ofstream(conf) << "[global]\n"
                        << "smb ports = " << port_ << "\n"
                        << "interfaces = 127.0.0.1/8\nbind interfaces only = yes\n"
                        << "disable netbios = yes\nserver role = standalone server\n"
                        << "private dir = " << d << "/private\n"
                        << "lock directory = " << d << "/lock\n"
                        << "state directory = " << d << "/state\n"
                        << "cache directory = " << d << "/cache\n"
                        << "pid directory = " << d << "/pid\n"
                        << "ncalrpc dir = " << d << "/ncalrpc\n"
                        << "passdb backend = tdbsam:" << d << "/private/passdb.tdb\n"
                        << "log file = " << d << "/log/smbd.log\nlog level = 1\n"
                        << "server min protocol = SMB2_02\nmap to guest = Bad User\n"
                        << "load printers = no\nprinting = bsd\nprintcap name = /dev/null\n"
                        << "disable spoolss = yes\nunix charset = UTF-8\n"
                        << "[" << share() << "]\npath = " << share_ << "\n"
                        << "read only = no\nguest ok = yes\ncreate mask = 0666\n"
                        << "directory mask = 0777\n";
    std::string pw = std::string(password()) + "\n" + std::string(password()) + "\n";
    if (!userAdded_) {
        auto added = runProgram({"pdbedit", "-s", conf, "-a", "-t", "-u", std::string(user())}, pw);
        if (added.exitCode != 0) {
            *whyNot = "pdbedit failed: " + added.out + added.err;
            return false;
        }
        userAdded_ = true;
    }
    pid_t pid = ::fork();
    if (pid < 0) {
        *whyNot = "smbd cannot run here: cannot fork";
        return false;
    }
    if (pid == 0) {
        ::setpgid(0, 0);
        int log = ::open((d + "/log/stdout").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (log >= 0) {
            ::dup2(log, 1);
            ::dup2(log, 2);
        }
        std::string configfile = "--configfile=" + conf;
        ::execl("/usr/sbin/smbd", "smbd", "--foreground", "--no-process-group", configfile.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    pid_ = pid;
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < until) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            *whyNot = "smbd exited at start: " + log();
            return false;
        }
        if (listensOn(pid_, port_)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    *whyNot = "smbd did not listen on port " + std::to_string(port_) + ": " + log();
    stop();
    return false;
}

void SmbServer::stop() {
    if (pid_ <= 0) return;
    pid_t group = pid_;
    ::kill(-group, SIGTERM);
    int status = 0;
    bool reaped = false;
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < until) {
        if (::waitpid(group, &status, WNOHANG) == group) {
            reaped = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    // Session processes that outlive their parent.
    ::kill(-group, SIGKILL);
    if (!reaped) ::waitpid(group, &status, 0);
    pid_ = -1;
    // smbd starts its RPC helpers (for the list of shares) as a daemon of their own session:
    // they are found by this server's configuration file, which no other program names.
    const std::string conf = dir_.path() + "/smb.conf";
    std::error_code ec;
    for (fs::directory_iterator it("/proc", ec), end; !ec && it != end; it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (name.empty() || !std::isdigit(static_cast<unsigned char>(name[0]))) continue;
        std::string cmdline = readFile(it->path().string() + "/cmdline");
        if (cmdline.find(conf) != std::string::npos)
            ::kill(static_cast<pid_t>(std::stol(name)), SIGKILL);
    }
}

int SmbServer::endSessions() {
    if (pid_ <= 0) return 0;
    int ended = 0;
    std::error_code ec;
    for (fs::directory_iterator it("/proc", ec), end; !ec && it != end; it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (name.empty() || !std::isdigit(static_cast<unsigned char>(name[0]))) continue;
        // "pid (comm) state ppid ...": the server's helpers name themselves ("smbd-notifyd",
        // "cleanupd"); a client's process keeps the name "smbd".
        std::string stat = readFile(it->path().string() + "/stat");
        auto close = stat.rfind(')');
        if (close == std::string::npos || stat.find(" (smbd) ") == std::string::npos) continue;
        long ppid = std::strtol(stat.c_str() + close + 4, nullptr, 10);
        if (ppid != pid_) continue;
        if (::kill(static_cast<pid_t>(std::stol(name)), SIGKILL) == 0) ++ended;
    }
    return ended;
}

SmbServer::~SmbServer() {
    stop();
}

std::string SmbServer::log() const {
    return readFile(dir_.path() + "/log/stdout") + readFile(dir_.path() + "/log/smbd.log");
}

ServerInfoPtr SmbServer::serverInfo(std::string_view password) const {
    auto info = std::make_shared<ServerInfo>();
    info->protocolType = ProtocolType::SMB;
    info->displayName = "smbd";
    info->setValue("127.0.0.1", ServerProp::ADDR);
    info->setValue(std::to_string(port_), ServerProp::PORT);
    info->setValue(std::string(user()), ServerProp::USERNAME);
    info->setValue(std::string(password), ServerProp::PASSWORD);
    info->setValue("/" + std::string(share()), ServerProp::PATH);
    return info;
}

}  // namespace quillon::test

// libsmbclient keeps a copy of its log file name per new context and never frees it: a leak of
// the library, not of its callers. Without frame pointers in the library the report's stack ends
// in its allocator, so the allocator's library is named.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:debug_set_logfile\nleak:libtalloc.so\n";
}
