#pragma once
// Real SFTP servers for tests, each in the foreground on a loopback port with a scratch root:
// OpenSSH's sshd with a private configuration (host key made here, user "nobody" logging in with
// a key file that has a passphrase, internal-sftp) and `rclone serve sftp` (a password). Stopped
// by the destructor.

#include <memory>
#include <string>
#include <string_view>

#include "core/ServerInfo.h"
#include "support/ChildProcess.h"
#include "support/TestEnv.h"

namespace quillon::test {

enum class SftpServerKind { OpenSSH, Rclone };

class SftpServer {
  public:
    // Starts the server and waits until it listens; nullptr when it cannot, with the reason in
    // `whyNot`, or without it reported as a failure of the running test.
    static std::unique_ptr<SftpServer> start(SftpServerKind kind, std::string* whyNot = nullptr);
    ~SftpServer();
    SftpServer(const SftpServer&) = delete;
    SftpServer& operator=(const SftpServer&) = delete;

    SftpServerKind kind() const { return kind_; }
    int port() const { return port_; }
    // The local folder served.
    const std::string& root() const { return root_; }
    // A local path below the root, and the path by which the client addresses it (sshd shows the
    // whole file system, rclone its root as "/").
    std::string hostPath(std::string_view rel) const;
    std::string remotePath(std::string_view rel) const;
    // "[127.0.0.1]:port <key>": the known_hosts line of the server's host key.
    std::string knownHostsLine() const;
    // A fresh record (kind 10) with the server's address and credentials.
    ServerInfoPtr serverInfo() const;
    // Ends every session and keeps listening (sshd only): the clients' connections break.
    void endSessions() const;
    // sshd: the client's private key, protected by keyPassphrase().
    const std::string& clientKey() const { return clientKey_; }
    static constexpr const char* keyPassphrase() { return "key pass"; }
    // How many logins the server accepted so far (sshd only).
    int logins();
    std::string log();

  private:
    explicit SftpServer(SftpServerKind kind);
    bool launch(std::string* whyNot);

    SftpServerKind kind_;
    ScratchDir dir_;
    std::string root_;
    std::string hostKeyPublic_;
    std::string clientKey_;
    int port_ = 0;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace quillon::test
