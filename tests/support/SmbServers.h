#pragma once
// A real Samba smbd for tests: its own smb.conf and every state folder in a scratch folder,
// listening on 127.0.0.1 only on a free port, one share "data" of a local folder, and a user of
// its private password database whom the server runs file access as ("nobody", so that file
// permissions bind it). Stopped by the destructor.

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>

#include "core/ServerInfo.h"
#include "support/TestEnv.h"

namespace quillon::test {

class SmbServer {
  public:
    // Starts smbd and waits until it listens on a port that it holds itself; nullptr when it
    // cannot run here, with the reason in `whyNot`.
    static std::unique_ptr<SmbServer> start(std::string* whyNot = nullptr);
    ~SmbServer();
    SmbServer(const SmbServer&) = delete;
    SmbServer& operator=(const SmbServer&) = delete;

    int port() const { return port_; }
    // The shared folder on this machine.
    const std::string& shareDir() const { return share_; }
    static constexpr std::string_view share() { return "data"; }
    static constexpr std::string_view user() { return "nobody"; }
    static constexpr std::string_view password() { return "secret pass"; }
    // A fresh SMB server record (kind 3, ADDR, PORT, the user and `password`).
    ServerInfoPtr serverInfo(std::string_view password = SmbServer::password()) const;
    // Ends the server and every session process.
    void stop();
    // Ends the processes that serve clients (one per connection), as a dropped network would;
    // the server goes on accepting. How many it ended.
    int endSessions();
    std::string log() const;

  private:
    SmbServer();
    bool launch(std::string* whyNot);

    ScratchDir dir_;
    std::string share_;
    int port_ = 0;
    pid_t pid_ = -1;
    bool userAdded_ = false;
};

}  // namespace quillon::test
