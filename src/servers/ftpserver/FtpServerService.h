#pragma once
// FtpServerService: the settings of the built-in FTP server and its start and stop. The server
// runs on an io_context of its own, on one thread of the service's.

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "core/Error.h"
#include "servers/ftpserver/FtpServer.h"

namespace quillon {

class FtpServerService : public FtpServerNotifyObject {
  public:
    static constexpr int kDefaultPort = 2121;

    static FtpServerService& sharedFtpServerService();
    FtpServerService();
    ~FtpServerService() override;
    FtpServerService(const FtpServerService&) = delete;
    FtpServerService& operator=(const FtpServerService&) = delete;

    // Settings read by startServer. An empty user name means anonymous access.
    std::string username;
    std::string password;
    int port = kDefaultPort;  // 0 picks a free port
    std::string rootFolder;
    std::string bindAddress = "0.0.0.0";
    std::size_t maxSessions = 50;
    std::chrono::milliseconds idleTimeout{std::chrono::seconds(300)};
    std::chrono::milliseconds loginFailureDelay{std::chrono::seconds(1)};
    bool allowAnonymousUploads = false;
    // Receives the server's log lines, on the server's thread.
    std::function<void(const std::string&)> logHandler;

    // Reads "FTP_SERVER_LOCATION", "FTP_SERVER_PORT", "FTP_SERVER_USERNAME" and
    // "FTP_SERVER_PASSWORD" from the preferences; absent ones leave the setting as it is.
    void loadSettings();

    // Starts sharing rootFolder; fails when it is already online, the folder is missing or the
    // port cannot be opened.
    [[nodiscard]] Status startServer();
    // Disconnects every session and stops listening; does nothing when offline.
    void stopServer();

    bool online() const;
    // The machine's host name, ending in ".local".
    std::string localHostName() const;
    // The machine's address for other devices ("0.0.0.0" when none was found); empty offline.
    std::string localIPAddress() const;
    // The port listened on while online (the chosen one when `port` is 0), else 0.
    int listeningPort() const;
    std::shared_ptr<FtpServer> ftpServer() const;

    // Posts "REFRESH_FOLDER_NOTIFICATION" on the main queue with the folder (a local path) in a
    // list under "REFRESH_FOLDER_USER_INFO".
    void didReceiveFileListChanged(const std::string& folder) override;

    // The first non-loopback IPv4 address of an interface that is up, or "error".
    static std::string currentIPAddress();

  private:
    mutable std::mutex mutex_;
    bool online_ = false;
    std::string localHostName_;
    std::string localIPAddress_;
    std::unique_ptr<asio::io_context> io_;
    std::thread thread_;
    std::shared_ptr<FtpServer> ftpServer_;
};

}  // namespace quillon
