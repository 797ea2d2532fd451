#pragma once
// Real WebDAV servers for tests, each in the foreground on a loopback port with a scratch root:
// Apache httpd with mod_dav_fs and Digest authentication (its workers run as "nobody"), and
// `rclone serve webdav` with Basic authentication. Stopped by the destructor.

#include <memory>
#include <string>
#include <string_view>

#include "core/ServerInfo.h"
#include "support/ChildProcess.h"
#include "support/TestEnv.h"

namespace quillon::test {

enum class WebdavServerKind { Apache, Rclone };

class WebdavServer {
  public:
    // Starts the server and waits until it listens; nullptr when it cannot, with the reason in
    // `whyNot`, or without it reported as a failure of the running test.
    static std::unique_ptr<WebdavServer> start(WebdavServerKind kind,
                                               std::string* whyNot = nullptr);
    ~WebdavServer();
    WebdavServer(const WebdavServer&) = delete;
    WebdavServer& operator=(const WebdavServer&) = delete;

    int port() const { return port_; }
    const std::string& root() const { return root_; }
    // A local path below the root; the server shows the root as "/".
    std::string hostPath(std::string_view rel) const;
    std::string remotePath(std::string_view rel) const;
    // A fresh record (kind 6) with the server's address and credentials.
    ServerInfoPtr serverInfo() const;
    std::string log();

  private:
    explicit WebdavServer(WebdavServerKind kind);
    bool launch(std::string* whyNot);

    WebdavServerKind kind_;
    ScratchDir dir_;
    std::string root_;
    int port_ = 0;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace quillon::test
