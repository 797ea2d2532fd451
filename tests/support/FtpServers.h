#pragma once
// Real FTP servers for tests: vsftpd (LIST only, anonymous with write access), pure-ftpd (MLSD,
// a virtual user), proftpd (MLSD, explicit FTPS with a self-signed certificate made here) and
// pyftpdlib run by /usr/bin/python3 (MLSD, EPSV, UTF-8; implicit or explicit FTPS; data
// connections cut after N bytes; a masqueraded PASV address). Each runs in the foreground on a
// free loopback port with a scratch root, and is stopped by the destructor.

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/ServerInfo.h"
#include "support/TestEnv.h"

namespace quillon::test {

enum class FtpServerKind { Vsftpd, PureFtpd, Proftpd, Pyftpdlib };

// "vsftpd", "pure-ftpd", "proftpd", "pyftpdlib".
std::string_view ftpServerKindName(FtpServerKind kind);
const std::vector<FtpServerKind>& allFtpServerKinds();

struct FtpServerOptions {
    bool implicitTls = false;  // pyftpdlib: TLS from the first byte (ftps://)
    bool explicitTls = false;  // pyftpdlib: AUTH TLS offered (proftpd always offers it)
    long cutAfterBytes = 0;    // pyftpdlib: each RETR data connection ends after this many bytes
    int cuts = -1;             // how many transfers are cut; -1 for every one
    std::string masqueradeAddress;  // pyftpdlib: the address its PASV replies advertise
    int port = 0;                   // a given port (to restart a server in place); 0: a free one
};

class FtpServer {
  public:
    // Starts the server and waits for its greeting; nullptr, with the reason in `whyNot`, when
    // it cannot run on this machine.
    static std::unique_ptr<FtpServer> start(FtpServerKind kind,
                                            const FtpServerOptions& options = {},
                                            std::string* whyNot = nullptr);
    ~FtpServer();
    FtpServer(const FtpServer&) = delete;
    FtpServer& operator=(const FtpServer&) = delete;

    FtpServerKind kind() const { return kind_; }
    std::string name() const { return std::string(ftpServerKindName(kind_)); }
    int port() const { return port_; }
    // The local folder the login lands in ("/" on the server).
    const std::string& root() const { return root_; }
    // Empty for vsftpd, which is run for anonymous users.
    const std::string& user() const { return user_; }
    const std::string& password() const { return password_; }
    bool hasLogin() const { return !user_.empty(); }
    bool supportsMLSD() const { return kind_ != FtpServerKind::Vsftpd; }
    // pyftpdlib: the REST offsets it received, in order.
    std::vector<long long> restOffsets() const;
    // pyftpdlib: how many sessions logged in so far.
    int logins() const;
    // The server's own log, for failure messages.
    std::string log() const;

    // A fresh FTP server record for this server (kind 7, ADDR, PORT, credentials,
    // "FTP_PROTOCOL" as given; implicit-TLS servers get "FTP_PROTOCOL_IMPLICIT").
    ServerInfoPtr serverInfo(std::string_view ftpProtocol = "FTP_PROTOCOL_PLAIN") const;

    // The local path of a server path ("/a/b" or "a/b"), relative to the login folder.
    std::string hostPath(std::string_view serverPath) const;
    // The absolute path by which the client addresses that item: vsftpd, run for anonymous
    // users without chroot, shows the whole file system, the others show their root as "/".
    std::string remotePath(std::string_view serverPath) const;
    // Files and folders placed on the server, owned by the user the server writes as.
    void writeFile(std::string_view serverPath, std::string_view content) const;
    void makeDir(std::string_view serverPath) const;
    // Gives everything under the root to the server's user (after a test wrote there itself).
    void chownTree() const;

  private:
    FtpServer(FtpServerKind kind, const FtpServerOptions& options);
    bool launch(std::string* whyNot);
    void stop();

    FtpServerKind kind_;
    FtpServerOptions options_;
    ScratchDir dir_;
    std::string root_;
    std::string user_;
    std::string password_;
    int port_ = 0;
    pid_t pid_ = -1;
    uid_t uid_ = 0;
    gid_t gid_ = 0;
};

}  // namespace quillon::test
