#include "servers/ftpserver/FtpServer.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>

#include "core/PathUtils.h"
#include "core/Plist.h"
#include "core/StringUtils.h"
#include "servers/ftpserver/FtpConnection.h"
#include "servers/ftpserver/FtpPath.h"

namespace quillon {

using asio::ip::tcp;

FtpServer::FtpServer(asio::io_context& io, FtpServerNotifyObject* notifyObject,
                     FtpServerOptions options)
    : io_(io),
      listenSocket_(io),
      retryTimer_(io),
      notificationObject_(notifyObject),
      options_(std::move(options)) {}

FtpServer::~FtpServer() = default;

std::map<std::string, std::string> FtpServer::loadCommands(
    const std::string& plistPath, const std::function<void(const std::string&)>& log) {
    std::map<std::string, std::string> commands;
    auto plist = Plist::readFile(plistPath);
    const PlistDict* dict = plist ? plist->get<PlistDict>() : nullptr;
    if (!dict) {
        if (log) log("ftp_commands.plist missing");
        return commands;
    }
    for (const auto& [word, handler] : *dict)
        if (auto name = handler.get<std::string>()) commands[StringUtils::toLower(word)] = *name;
    return commands;
}

Result<std::shared_ptr<FtpServer>> FtpServer::initWithPort(asio::io_context& io, int port,
                                                           const std::string& dir,
                                                           FtpServerNotifyObject* notifyObject,
                                                           FtpServerOptions options) {
    // sendfile() to a client that went away raises SIGPIPE, which would end the program; the
    // failed call's EPIPE is all the server needs. A handler the program installed stays.
    struct sigaction current {};
    if (::sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL)
        ::signal(SIGPIPE, SIG_IGN);
    std::shared_ptr<FtpServer> server(new FtpServer(io, notifyObject, std::move(options)));
    auto logger = [&server](const std::string& line) { server->log(line); };
    server->commands_ =
        loadCommands(PathUtils::getResourceFolderPath() + "/ftp_commands.plist", logger);

    auto base = FtpPath::canonical(dir);
    if (base) server->root_ = FtpPath::Root::open(*base);
    if (!server->root_)
        return KvError::fail(ErrorDomain::Local, ErrorCode::NotFound,
                             fmt::format("The shared folder {} does not exist", dir));
    server->baseDir_ = *base;

    if (port < 0 || port > 65535)
        return KvError::fail(ErrorDomain::Generic, -1, fmt::format("Invalid port {}", port));
    asio::error_code ec;
    auto address = asio::ip::make_address(server->options_.bindAddress, ec);
    if (ec)
        return KvError::fail(ErrorDomain::Generic, -1,
                             fmt::format("Invalid address {}", server->options_.bindAddress));
    tcp::endpoint endpoint(address, static_cast<unsigned short>(port));
    auto& acceptor = server->listenSocket_;
    acceptor.open(endpoint.protocol(), ec);
    if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec) acceptor.bind(endpoint, ec);
    if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec)
        return KvError::fail(ErrorDomain::Generic, ec.value(),
                             fmt::format("Cannot listen on {} port {}: {}",
                                         server->options_.bindAddress, port, ec.message()));
    server->portNumber_ = acceptor.local_endpoint(ec).port();
    server->log(fmt::format("listening on {} port {}, sharing {}", server->options_.bindAddress,
                            server->portNumber_, server->baseDir_));
    // Accepting starts on the io_context's thread, so the caller may hand the server over first.
    asio::post(io, [weak = std::weak_ptr<FtpServer>(server)] {
        if (auto self = weak.lock()) self->acceptNext();
    });
    return server;
}

void FtpServer::acceptNext() {
    if (stopped_) return;
    listenSocket_.async_accept(
        [weak = weak_from_this()](const asio::error_code& ec, tcp::socket socket) {
            auto self = weak.lock();
            if (!self || self->stopped_ || ec == asio::error::operation_aborted) return;
            if (ec) {
                // Out of descriptors or a connection that died in the queue: try again shortly.
                self->log(fmt::format("accept failed: {}", ec.message()));
                self->retryTimer_.expires_after(std::chrono::milliseconds(100));
                self->retryTimer_.async_wait([weak](const asio::error_code& timerError) {
                    auto again = weak.lock();
                    if (!timerError && again) again->acceptNext();
                });
                return;
            }
            if (self->connections_.size() >= self->options_.maxSessions) {
                self->refuse(std::move(socket));
            } else {
                auto connection = std::make_shared<FtpConnection>(std::move(socket), self);
                self->connections_.push_back(connection);
                self->connectionCount_ = self->connections_.size();
                connection->start();
            }
            self->acceptNext();
        });
}

void FtpServer::refuse(tcp::socket socket) {
    asio::error_code ec;
    auto peer = socket.remote_endpoint(ec);
    log(fmt::format("refused {}: {} sessions open",
                    ec ? std::string("?") : peer.address().to_string(), connections_.size()));
    auto held = std::make_shared<tcp::socket>(std::move(socket));
    static const std::string kTooMany = "421 Too many connections, try again later.\r\n";
    asio::async_write(*held, asio::buffer(kTooMany), [held](const asio::error_code&, std::size_t) {
        asio::error_code closeError;
        held->shutdown(tcp::socket::shutdown_both, closeError);
        held->close(closeError);
    });
}

void FtpServer::stopFtpServer() {
    if (stopped_) return;
    stopped_ = true;
    asio::error_code ec;
    listenSocket_.close(ec);
    retryTimer_.cancel();
    auto open = connections_;
    for (auto& connection : open) connection->close();
    connections_.clear();
    connectionCount_ = 0;
    log("stopped listening");
}

void FtpServer::closeConnection(FtpConnection* connection) {
    auto it = std::find_if(connections_.begin(), connections_.end(),
                           [connection](const auto& c) { return c.get() == connection; });
    if (it != connections_.end()) connections_.erase(it);
    connectionCount_ = connections_.size();
}

void FtpServer::didReceiveFileListChanged(const std::string& folder) {
    if (notificationObject_) notificationObject_->didReceiveFileListChanged(folder);
}

void FtpServer::log(const std::string& line) const {
    if (options_.logHandler) options_.logHandler(line);
}

}  // namespace quillon
