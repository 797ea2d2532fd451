#pragma once
// FtpServer: the listening socket and the sessions of the built-in FTP server. Everything runs
// on one Asio io_context: every handler runs on the thread that runs it, no thread per session.

#include <asio.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/StringEncoding.h"
#include "servers/ftpserver/FtpPath.h"

namespace quillon {

class FtpConnection;

// The object told about file changes in the shared folder.
class FtpServerNotifyObject {
  public:
    virtual ~FtpServerNotifyObject() = default;
    // `folder` is the local path of a folder whose contents changed.
    virtual void didReceiveFileListChanged(const std::string& folder) = 0;
};

// Settings of one server beyond its port and folder; the defaults are the careful ones.
struct FtpServerOptions {
    std::string bindAddress = "0.0.0.0";
    std::string username;  // empty or "anonymous" (any case): anonymous access
    std::string password;
    bool allowAnonymousUploads = false;  // anonymous sessions are read-only unless set
    std::size_t maxSessions = 50;
    std::size_t maxLineLength = 4096;
    std::chrono::milliseconds idleTimeout{std::chrono::seconds(300)};
    // Wait before answering a failed login, doubled for each further failure up to 16 times.
    std::chrono::milliseconds loginFailureDelay{std::chrono::seconds(1)};
    unsigned maxLoginFailures = 10;  // then the session is closed
    std::chrono::milliseconds dataConnectionTimeout{std::chrono::seconds(30)};
    unsigned long clientEncoding = StringEncoding::UTF8;
    // Receives one line per session event (connect, login, transfer, close, refusal).
    std::function<void(const std::string&)> logHandler;
    // Local path of the thumbnail image of a file, for "::thumbnail" downloads; absent when none.
    std::function<std::optional<std::string>(const std::string&)> thumbnailProvider;
};

class FtpServer : public std::enable_shared_from_this<FtpServer> {
  public:
    // Loads the command table from "ftp_commands.plist", listens on `port` (0 picks a free one)
    // at options.bindAddress and accepts sessions on `io`. Fails when the folder is missing or the
    // port cannot be opened.
    [[nodiscard]] static Result<std::shared_ptr<FtpServer>> initWithPort(
        asio::io_context& io, int port, const std::string& dir, FtpServerNotifyObject* notifyObject,
        FtpServerOptions options = {});
    ~FtpServer();
    FtpServer(const FtpServer&) = delete;
    FtpServer& operator=(const FtpServer&) = delete;

    // Command word (lower case) to handler name, read from a property list; an empty table
    // (logged "ftp_commands.plist missing") when it cannot be read.
    static std::map<std::string, std::string> loadCommands(
        const std::string& plistPath, const std::function<void(const std::string&)>& log = {});

    int portNumber() const { return portNumber_; }
    // The shared folder, canonical (links resolved).
    const std::string& baseDir() const { return baseDir_; }
    // The shared folder held open; every path a session names is resolved beneath it.
    const FtpPath::Root& root() const { return *root_; }
    // Sessions are always confined to baseDir.
    bool changeRoot() const { return true; }
    const std::map<std::string, std::string>& commands() const { return commands_; }
    const FtpServerOptions& options() const { return options_; }
    unsigned long clientEncoding() const { return options_.clientEncoding; }
    asio::io_context& ioContext() { return io_; }
    // Sessions open now; safe from any thread.
    std::size_t connectionCount() const { return connectionCount_.load(); }

    // Disconnects every session and stops listening. Runs on the io_context's thread.
    void stopFtpServer();
    // Forgets a session that has closed.
    void closeConnection(FtpConnection* connection);
    // Tells the notification object that a folder's contents changed.
    void didReceiveFileListChanged(const std::string& folder);
    void log(const std::string& line) const;
    std::uint64_t nextSessionId() { return ++sessionCounter_; }

  private:
    FtpServer(asio::io_context& io, FtpServerNotifyObject* notifyObject, FtpServerOptions options);
    void acceptNext();
    void refuse(asio::ip::tcp::socket socket);

    asio::io_context& io_;
    asio::ip::tcp::acceptor listenSocket_;
    asio::steady_timer retryTimer_;
    std::vector<std::shared_ptr<FtpConnection>> connections_;
    FtpServerNotifyObject* notificationObject_;
    FtpServerOptions options_;
    std::map<std::string, std::string> commands_;
    std::string baseDir_;
    std::optional<FtpPath::Root> root_;
    int portNumber_ = 0;
    std::atomic<std::size_t> connectionCount_{0};
    std::uint64_t sessionCounter_ = 0;
    bool stopped_ = false;
};

}  // namespace quillon
