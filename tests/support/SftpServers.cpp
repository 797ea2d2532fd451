#include "support/SftpServers.h"

#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <vector>

#include "clients/sftp/SFTPWrapper.h"
#include "support/ServerKit.h"
#include "support/TestEnv.h"

namespace fs = std::filesystem;

namespace quillon::test {

// sshd's sessions run as "nobody", who must reach the root and the authorized keys.
SftpServer::SftpServer(SftpServerKind kind)
    : kind_(kind), dir_("sftpd"), root_(makeServedFolder(dir_.path(), "root")) {}

SftpServer::~SftpServer() {
    if (process_ && process_->pid() > 0) {
        // Session processes outlive their master: they go first.
        endSessions();
        process_->stop(SIGTERM);
    }
}

std::unique_ptr<SftpServer> SftpServer::start(SftpServerKind kind, std::string* whyNot) {
    std::unique_ptr<SftpServer> server(new SftpServer(kind));
    if (launchWithRetries(
            "the SFTP server", [&](std::string* why) { return server->launch(why); }, whyNot))
        return server;
    return nullptr;
}

bool SftpServer::launch(std::string* whyNot) {
    const std::string d = dir_.path();
    const std::string logPath = d + "/server.log";
    std::error_code ec;
    fs::remove(logPath, ec);
    if (hostKeyPublic_.empty()) {
        auto keygen = [&](const std::vector<std::string>& args) {
            std::vector<std::string> argv{"ssh-keygen", "-q", "-C", ""};
            argv.insert(argv.end(), args.begin(), args.end());
            auto made = runProgram(argv);
            if (made.exitCode != 0) *whyNot = "ssh-keygen failed: " + made.err;
            return made.exitCode == 0;
        };
        if (!keygen({"-t", "ed25519", "-N", "", "-f", d + "/host_key"})) return false;
        hostKeyPublic_ = readFile(d + "/host_key.pub");
        while (!hostKeyPublic_.empty() &&
               (hostKeyPublic_.back() == '\n' || hostKeyPublic_.back() == ' '))
            hostKeyPublic_.pop_back();
        // The client's key, in the PEM form every libssh2 build reads, with a passphrase.
        if (!keygen({"-t", "ecdsa", "-m", "PEM", "-N", "key pass", "-f", d + "/client_key"}))
            return false;
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
    return startLogged(process_, argv, logPath, ready, port_, whyNot);
}

std::string SftpServer::hostPath(std::string_view rel) const {
    return pathBelow(root_, rel);
}

std::string SftpServer::remotePath(std::string_view rel) const {
    return kind_ == SftpServerKind::OpenSSH ? hostPath(rel) : slashPath(rel);
}

std::string SftpServer::knownHostsLine() const {
    // "ssh-ed25519 AAAA..." without a comment.
    return "[127.0.0.1]:" + std::to_string(port_) + " " + hostKeyPublic_;
}

ServerInfoPtr SftpServer::serverInfo() const {
    bool key = kind_ == SftpServerKind::OpenSSH;
    auto info = loopbackRecord(ProtocolType::SFTP, port_, key ? "nobody" : "tester", "secret pass");
    info->displayName = "sftp test";
    info->setValue(key ? "SFTP_LOGIN_TYPE_KEYFILE" : "SFTP_LOGIN_TYPE_NORMAL",
                   SftpProp::LOGIN_TYPE);
    if (key) {
        info->removeObjectForKey(ServerProp::PASSWORD);
        info->setValue(clientKey_, SftpProp::KEYFILE);
        info->setValue("key pass", SftpProp::PASSPHRASE);
    }
    return info;
}

void SftpServer::endSessions() const {
    if (!process_ || process_->pid() <= 0) return;
    // Every process below the master, deepest first, each by its own id.
    for (pid_t p : descendantsOf(process_->pid())) ::kill(p, SIGKILL);
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
