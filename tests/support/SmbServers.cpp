#include "support/SmbServers.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/ServerKit.h"

namespace fs = std::filesystem;

namespace quillon::test {

SmbServer::SmbServer() : dir_("smbd"), share_(makeServedFolder(dir_.path(), "share")) {
    for (auto* d : {"private", "lock", "state", "cache", "pid", "ncalrpc", "log"})
        fs::create_directories(dir_.path() + "/" + d);
}

std::unique_ptr<SmbServer> SmbServer::start(std::string* whyNot) {
    std::unique_ptr<SmbServer> server;
    if (::access("/usr/sbin/smbd", X_OK) == 0) server.reset(new SmbServer());
    if (launchWithRetries(
            "smbd",
            [&](std::string* why) {
                if (!server) *why = "smbd cannot run here: /usr/sbin/smbd is not installed";
                return server && server->launch(why);
            },
            whyNot))
        return server;
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
    pid_ =
        spawnGroup({"/usr/sbin/smbd", "--foreground", "--no-process-group", "--configfile=" + conf},
                   d + "/log/stdout");
    if (pid_ < 0) {
        *whyNot = "smbd cannot run here: cannot fork";
        return false;
    }
    if (awaitListener(
            pid_, port_, [] { return true; }, std::chrono::seconds(60), whyNot))
        return true;
    *whyNot = "smbd " + *whyNot + ": " + log();
    stop();
    return false;
}

void SmbServer::stop() {
    if (pid_ <= 0) return;
    stopGroup(pid_, std::chrono::seconds(5));
    // smbd starts its RPC helpers (for the list of shares) as a daemon of their own session:
    // they are found by this server's configuration file, which no other program names.
    const std::string conf = dir_.path() + "/smb.conf";
    for (auto& p : processes())
        if (contains(readFile("/proc/" + std::to_string(p.pid) + "/cmdline"), conf))
            ::kill(p.pid, SIGKILL);
}

int SmbServer::endSessions() {
    if (pid_ <= 0) return 0;
    int ended = 0;
    // The server's helpers name themselves ("smbd-notifyd", "cleanupd"); a client's process
    // keeps the name "smbd".
    for (auto& p : processes())
        if (p.name == "smbd" && p.parent == pid_ && ::kill(p.pid, SIGKILL) == 0) ++ended;
    return ended;
}

SmbServer::~SmbServer() {
    stop();
}

std::string SmbServer::log() const {
    return readFile(dir_.path() + "/log/stdout") + readFile(dir_.path() + "/log/smbd.log");
}

ServerInfoPtr SmbServer::serverInfo(std::string_view password) const {
    auto info =
        loopbackRecord(ProtocolType::SMB, port_, std::string(user()), std::string(password));
    info->displayName = "smbd";
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
