#pragma once
// Runs our FTP server in-process on a free loopback port with an io_context thread of its own,
// and talks to it as a raw control-channel client for transcript tests.

#include <gtest/gtest.h>
#include <poll.h>

#include <asio.hpp>

#include <future>
#include <mutex>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "core/ServerInfo.h"
#include "servers/ftpserver/FtpServer.h"
#include "support/ServerKit.h"
#include "support/TestEnv.h"

namespace quillon::test {

// Records the folders the server reports as changed.
class ChangeRecorder : public FtpServerNotifyObject {
  public:
    void didReceiveFileListChanged(const std::string& folder) override {
        std::lock_guard lock(mutex_);
        folders_.push_back(folder);
    }
    std::vector<std::string> folders() const {
        std::lock_guard lock(mutex_);
        return folders_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> folders_;
};

// A server sharing a fresh scratch folder (`root`), stopped by the destructor.
class RunningFtpServer {
  public:
    explicit RunningFtpServer(FtpServerOptions options = {}) : root_("ftproot") {
        options.bindAddress = "127.0.0.1";
        options.logHandler = [this](const std::string& line) {
            std::lock_guard lock(logMutex_);
            log_.push_back(line);
        };
        auto server = FtpServer::initWithPort(io_, 0, root_.path(), &changes_, std::move(options));
        if (!server) throw std::runtime_error(server.error().describe());
        server_ = *server;
        thread_ = std::thread([this] {
            auto guard = asio::make_work_guard(io_);
            io_.run();
        });
    }
    ~RunningFtpServer() {
        asio::post(io_, [this] {
            server_->stopFtpServer();
            io_.stop();
        });
        thread_.join();
    }
    int port() const { return server_->portNumber(); }
    std::string url(const std::string& path = "/") const {
        return "ftp://127.0.0.1:" + std::to_string(port()) + path;
    }
    // A plain FTP record for this server, as the clients are given one.
    ServerInfoPtr serverInfo() const { return loopbackRecord(ProtocolType::FTP, port(), "", ""); }
    // The canonical shared folder (what the server reports in change notifications).
    const std::string& rootPath() const { return server_->baseDir(); }
    std::string operator/(const std::string& rel) const { return root_ / rel; }
    FtpServer& server() { return *server_; }
    const ChangeRecorder& changes() const { return changes_; }
    // Holds the server's thread, so that every session stands still, until the returned object
    // goes: a test lines up what the server finds when it looks again.
    std::shared_ptr<void> pause() {
        auto held = std::make_shared<std::promise<void>>();
        auto release = std::make_shared<std::promise<void>>();
        asio::post(io_, [held, go = release->get_future().share()] {
            held->set_value();
            go.wait();
        });
        held->get_future().wait();
        return {nullptr, [release](void*) { release->set_value(); }};
    }
    std::vector<std::string> log() const {
        std::lock_guard lock(logMutex_);
        return log_;
    }

  private:
    ScratchDir root_;
    ChangeRecorder changes_;
    asio::io_context io_{1};
    std::shared_ptr<FtpServer> server_;
    std::thread thread_;
    mutable std::mutex logMutex_;
    std::vector<std::string> log_;
};

// A blocking control-channel client with a receive time-out, for exact reply texts.
class RawFtpClient {
  public:
    explicit RawFtpClient(int port, const std::string& from = "127.0.0.1") : socket_(io_) {
        socket_.open(asio::ip::tcp::v4());
        if (from != "127.0.0.1") socket_.bind({asio::ip::make_address(from), 0});
        socket_.connect({asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port)});
    }
    // Sends raw bytes as they are.
    void sendRaw(const std::string& bytes) {
        asio::error_code ec;
        asio::write(socket_, asio::buffer(bytes), ec);
    }
    void send(const std::string& line) { sendRaw(line + "\r\n"); }
    // One reply line without CR LF; empty when the server closed or went quiet.
    std::string line() {
        while (true) {
            auto nl = buffer_.find("\r\n");
            if (nl != std::string::npos) {
                std::string l = buffer_.substr(0, nl);
                buffer_.erase(0, nl + 2);
                return l;
            }
            char chunk[4096];
            asio::error_code ec;
            if (!readable()) return {};
            auto n = socket_.read_some(asio::buffer(chunk), ec);
            if (ec || n == 0) return {};
            buffer_.append(chunk, n);
        }
    }
    // A whole reply: its lines, the last one starting with "NNN ".
    std::vector<std::string> reply() {
        std::vector<std::string> lines;
        auto first = line();
        if (first.empty()) return lines;
        lines.push_back(first);
        if (first.size() >= 4 && first[3] == '-') {
            std::string end = first.substr(0, 3) + " ";
            while (true) {
                auto l = line();
                if (l.empty()) break;
                lines.push_back(l);
                if (l.rfind(end, 0) == 0) break;
            }
        }
        return lines;
    }
    // The last line of the reply to `command`.
    std::string ask(const std::string& command) {
        send(command);
        return last();
    }
    // True when the server closed the connection (reads end of stream within the time-out).
    bool closedByServer() {
        char c;
        asio::error_code ec;
        if (!readable()) return false;
        socket_.read_some(asio::buffer(&c, 1), ec);
        return ec == asio::error::eof || ec == asio::error::connection_reset;
    }
    bool login(const std::string& user, const std::string& password) {
        if (reply().empty()) return false;  // banner
        auto r = ask("USER " + user);
        if (r.rfind("331", 0) == 0) r = ask("PASS " + password);
        return r.rfind("230", 0) == 0;
    }
    // Sends PASV; the port it names, or 0.
    int passivePort() {
        auto r = ask("PASV");
        std::smatch m;
        if (!std::regex_search(r, m, std::regex(R"(\((\d+),(\d+),(\d+),(\d+),(\d+),(\d+)\))")))
            return 0;
        return std::stoi(m[5]) * 256 + std::stoi(m[6]);
    }
    // Sends PASV and connects to the port it names; the data socket, or absent.
    std::optional<asio::ip::tcp::socket> passive() { return connectData(passivePort()); }
    std::optional<asio::ip::tcp::socket> connectData(int port) {
        if (port == 0) return std::nullopt;
        asio::ip::tcp::socket data(io_);
        asio::error_code ec;
        data.connect({asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port)}, ec);
        if (ec) return std::nullopt;
        return data;
    }
    static std::string readAll(asio::ip::tcp::socket& data) {
        std::string out;
        char chunk[65536];
        asio::error_code ec;
        while (true) {
            auto n = data.read_some(asio::buffer(chunk), ec);
            if (ec) break;
            out.append(chunk, n);
        }
        return out;
    }
    // PASV, `command`, and what the data connection carries when the first reply is 150: the
    // first reply's last line, the data, and the final reply's last line.
    struct Transfer {
        std::string start, data, end;
    };
    Transfer fetch(const std::string& command) {
        Transfer t;
        auto data = passive();
        if (!data) return {"no data connection", "", ""};
        t.start = ask(command);
        if (!t.start.starts_with("150 ")) return t;
        t.data = readAll(*data);
        t.end = last();
        return t;
    }
    // Sends `bytes` as an upload of `name` (PASV, STOR, data, clean end); the final reply.
    std::string store(const std::string& name, const std::string& bytes) {
        auto data = passive();
        if (!data) return "no data connection";
        auto first = ask("STOR " + name);
        if (!first.starts_with("150 ")) return first;
        asio::error_code ec;
        asio::write(*data, asio::buffer(bytes), ec);
        data->shutdown(asio::socket_base::shutdown_send, ec);
        data->close(ec);
        return last();
    }
    // The last line of the next reply.
    std::string last() {
        auto r = reply();
        return r.empty() ? std::string() : r.back();
    }

  private:
    // Waits for something to read (or the end) for 30 seconds at most: only a bound for a server
    // that fails to answer, which no test waits out when all is well. (A receive time-out on the
    // socket would not do: Asio's blocking reads wait on after it.)
    bool readable() {
        pollfd p{socket_.native_handle(), POLLIN, 0};
        return ::poll(&p, 1, 30000) > 0;
    }

    asio::io_context io_;
    asio::ip::tcp::socket socket_;
    std::string buffer_;
};

}  // namespace quillon::test
