#include "support/SftpServers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "clients/sftp/SFTPWrapper.h"
#include "support/FtpServers.h"
#include "support/TestEnv.h"

namespace fs = std::filesystem;

namespace quillon::test {

namespace {

void writeText(const std::string& path, const std::string& content, mode_t mode) {
    std::ofstream(path, std::ios::binary) << content;
    ::chmod(path.c_str(), mode);
}

// The processes whose parent is `pid`, read from /proc.
std::vector<pid_t> childrenOf(pid_t pid) {
    std::vector<pid_t> found;
    std::error_code ec;
    for (fs::directory_iterator it("/proc", ec), end; !ec && it != end; it.increment(ec)) {
        auto name = it->path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::string stat = readFile(it->path().string() + "/stat");
        auto close = stat.rfind(')');
        if (close == std::string::npos) continue;
        std::istringstream f(stat.substr(close + 2));
        char state;
        pid_t parent = 0;
        f >> state >> parent;
        if (parent == pid) found.push_back(static_cast<pid_t>(std::stoi(name)));
    }
    return found;
}

}  // namespace

SftpServer::SftpServer(SftpServerKind kind) : kind_(kind), dir_("sftpd") {
    // sshd's sessions run as "nobody", who must reach the root and the authorized keys.
    ::chmod(dir_.path().c_str(), 0755);
    root_ = dir_.path() + "/root";
    fs::create_directories(root_);
    ::chmod(root_.c_str(), 0777);
}

SftpServer::~SftpServer() {
    if (process_ && process_->pid() > 0) {
        // Session processes outlive their master: they go first.
        endSessions();
        process_->stop(SIGTERM);
    }
}

std::unique_ptr<SftpServer> SftpServer::start(SftpServerKind kind, std::string* whyNot) {
    std::unique_ptr<SftpServer> server(new SftpServer(kind));
    std::string reason;
    // A port found free may be taken by another program before the server binds it.
    for (int attempt = 0; attempt < 5; ++attempt) {
        reason.clear();
        if (server->launch(&reason)) return server;
    }
    if (whyNot)
        *whyNot = reason;
    else
        ADD_FAILURE() << "the SFTP server did not start: " << reason;
    return nullptr;
}

bool SftpServer::launch(std::string* whyNot) {
    const std::string d = dir_.path();
    const std::string logPath = d + "/server.log";
    std::error_code ec;
    fs::remove(logPath, ec);
    if (hostKeyPublic_.empty()) {
        auto made = runProgram(
            {"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "", "-f", d + "/host_key"});
        if (made.exitCode != 0) {
            *whyNot = "ssh-keygen failed: " + made.err;
            return false;
        }
        hostKeyPublic_ = readFile(d + "/host_key.pub");
        while (!hostKeyPublic_.empty() &&
               (hostKeyPublic_.back() == '\n' || hostKeyPublic_.back() == ' '))
            hostKeyPublic_.pop_back();
        // The client's key, in the PEM form every libssh2 build reads, with a passphrase.
        made = runProgram({"ssh-keygen", "-q", "-t", "ecdsa", "-m", "PEM", "-N", "key pass", "-C",
                           "", "-f", d + "/client_key"});
        if (made.exitCode != 0) {
            *whyNot = "ssh-keygen failed: " + made.err;
            return false;
        }
        clientKey_ = d + "/client_key";
        writeText(d + "/authorized_keys", readFile(d + "/client_key.pub"), 0644);
    }
    port_ = freePort();
    std::vector<std::string> argv;
    std::regex ready;
    if (kind_ == SftpServerKind::OpenSSH) {
        // sshd refuses to start without its privilege separation folder.
        fs::create_directories("/run/sshd", ec);
        std::ostringstream c;
        c << "Port " << port_ << "\nListenAddress 127.0.0.1\nHostKey " << d << "/host_key\n"
          << "PidFile " << d << "/sshd.pid\nAuthorizedKeysFile " << d << "/authorized_keys\n"
          << "UsePAM no\nStrictModes no\nPasswordAuthentication no\n"
          << "KbdInteractiveAuthentication no\nPubkeyAuthentication yes\nAllowUsers nobody\n"
          << "Subsystem sftp internal-sftp\nLogLevel VERBOSE\nMaxStartups 100\n"
          << "MaxSessions 100\n";
        writeText(d + "/sshd_config", c.str(), 0644);
        argv = {"/usr/sbin/sshd", "-D", "-f", d + "/sshd_config", "-E", logPath};
        ready = std::regex("Server listening on 127\\.0\\.0\\.1 port " + std::to_string(port_));
    } else {
        argv = {"rclone", "serve", "sftp", root_, "--addr", "127.0.0.1:" + std::to_string(port_),
                "--user", "tester", "--pass", "secret pass", "--key", d + "/host_key",
                "--authorized-keys", d + "/authorized_keys", "--config", "/dev/null",
                // Files the tests put behind the server's back show at once.
                "--dir-cache-time", "0s", "--log-file", logPath, "-v"};
        ready = std::regex("SFTP server listening on 127\\.0\\.0\\.1:" + std::to_string(port_));
    }
    process_ = std::make_unique<ChildProcess>(argv);
    bool up = waitUntil(
        [&] { return !process_->running() || std::regex_search(readFile(logPath), ready); },
        std::chrono::seconds(60));
    if (up && process_->running()) return true;
    *whyNot = "the server did not listen on port " + std::to_string(port_) + ": " +
              readFile(logPath) + process_->err();
    process_.reset();
    return false;
}

std::string SftpServer::hostPath(std::string_view rel) const {
    std::string r(rel);
    while (!r.empty() && r.front() == '/') r.erase(0, 1);
    return r.empty() ? root_ : root_ + "/" + r;
}

std::string SftpServer::remotePath(std::string_view rel) const {
    if (kind_ == SftpServerKind::OpenSSH) return hostPath(rel);
    std::string r(rel);
    while (!r.empty() && r.front() == '/') r.erase(0, 1);
    return "/" + r;
}

std::string SftpServer::knownHostsLine() const {
    // "ssh-ed25519 AAAA..." without a comment.
    return "[127.0.0.1]:" + std::to_string(port_) + " " + hostKeyPublic_;
}

ServerInfoPtr SftpServer::serverInfo() const {
    auto info = std::make_shared<ServerInfo>();
    info->protocolType = ProtocolType::SFTP;
    info->displayName = "sftp test";
    info->setValue("127.0.0.1", ServerProp::ADDR);
    info->setValue(std::to_string(port_), ServerProp::PORT);
    if (kind_ == SftpServerKind::OpenSSH) {
        info->setValue("nobody", ServerProp::USERNAME);
        info->setValue("SFTP_LOGIN_TYPE_KEYFILE", SftpProp::LOGIN_TYPE);
        info->setValue(clientKey_, SftpProp::KEYFILE);
        info->setValue("key pass", SftpProp::PASSPHRASE);
    } else {
        info->setValue("tester", ServerProp::USERNAME);
        info->setValue("secret pass", ServerProp::PASSWORD);
        info->setValue("SFTP_LOGIN_TYPE_NORMAL", SftpProp::LOGIN_TYPE);
    }
    return info;
}

void SftpServer::endSessions() const {
    if (!process_ || process_->pid() <= 0) return;
    // Every process below the master, deepest first, each by its own id.
    std::vector<pid_t> order, pending = childrenOf(process_->pid());
    while (!pending.empty()) {
        pid_t p = pending.back();
        pending.pop_back();
        order.push_back(p);
        for (pid_t c : childrenOf(p)) pending.push_back(c);
    }
    for (auto it = order.rbegin(); it != order.rend(); ++it) ::kill(*it, SIGKILL);
}

int SftpServer::logins() {
    std::string t = log();
    int n = 0;
    for (std::size_t at = t.find("Accepted publickey"); at != std::string::npos;
         at = t.find("Accepted publickey", at + 1))
        ++n;
    return n;
}

std::string SftpServer::log() {
    return readFile(dir_.path() + "/server.log");
}

}  // namespace quillon::test
