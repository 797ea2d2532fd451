#include "servers/ftpserver/FtpServerService.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

#include <vector>

#include "core/AppPreference.h"
#include "core/NotificationCenter.h"
#include "core/StringUtils.h"
#include "core/ThumbnailSupport.h"

namespace quillon {

FtpServerService& FtpServerService::sharedFtpServerService() {
    static FtpServerService service;
    return service;
}

FtpServerService::FtpServerService() = default;

FtpServerService::~FtpServerService() {
    stopServer();
}

void FtpServerService::loadSettings() {
    auto& prefs = AppPreference::sharedAppPreference();
    if (auto v = prefs.valueForKey(PrefKey::FTP_SERVER_LOCATION)) rootFolder = v->toString();
    if (auto v = prefs.valueForKey(PrefKey::FTP_SERVER_PORT)) {
        auto p = v->toInteger();
        if (p > 0 && p <= 65535) port = static_cast<int>(p);
    }
    if (auto v = prefs.valueForKey(PrefKey::FTP_SERVER_USERNAME)) username = v->toString();
    if (auto v = prefs.valueForKey(PrefKey::FTP_SERVER_PASSWORD)) password = v->toString();
}

std::string FtpServerService::currentIPAddress() {
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) return "error";
    std::string found = "error";
    for (auto* a = list; a; a = a->ifa_next) {
        if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET) continue;
        if (!(a->ifa_flags & IFF_UP) || (a->ifa_flags & IFF_LOOPBACK)) continue;
        char text[INET_ADDRSTRLEN] = {};
        auto* in = reinterpret_cast<sockaddr_in*>(a->ifa_addr);
        if (::inet_ntop(AF_INET, &in->sin_addr, text, sizeof text)) {
            found = text;
            break;
        }
    }
    ::freeifaddrs(list);
    return found;
}

Status FtpServerService::startServer() {
    std::lock_guard lock(mutex_);
    if (online_)
        return KvError::fail(ErrorDomain::Generic, -1, "The FTP server is already running");
    auto address = currentIPAddress();
    std::string ip = StringUtils::contains(address, "error") ? "0.0.0.0" : address;
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    std::string hostName = host;
    if (!StringUtils::endsWith(hostName, ".local")) hostName += ".local";

    FtpServerOptions options;
    options.username = username;
    options.password = password;
    options.bindAddress = bindAddress;
    options.maxSessions = maxSessions;
    options.idleTimeout = idleTimeout;
    options.loginFailureDelay = loginFailureDelay;
    options.allowAnonymousUploads = allowAnonymousUploads;
    options.logHandler = logHandler;
    options.thumbnailProvider = [](const std::string& path) -> std::optional<std::string> {
        auto made = ThumbnailSupport::thumbnailOfLocalFile(path);
        return made ? std::optional(*made) : std::nullopt;
    };

    auto io = std::make_unique<asio::io_context>(1);
    auto server = FtpServer::initWithPort(*io, port, rootFolder, this, std::move(options));
    if (!server) return std::unexpected(server.error());
    ftpServer_ = *server;
    io_ = std::move(io);
    thread_ = std::thread([io = io_.get()] {
        auto guard = asio::make_work_guard(*io);
        io->run();
    });
    localHostName_ = hostName;
    localIPAddress_ = ip;
    online_ = true;
    return {};
}

void FtpServerService::stopServer() {
    std::lock_guard lock(mutex_);
    if (!online_) return;
    asio::post(*io_, [server = ftpServer_, io = io_.get()] {
        server->stopFtpServer();
        io->stop();
    });
    if (thread_.joinable()) thread_.join();
    ftpServer_.reset();
    io_.reset();  // handlers still queued let go of their sessions here
    localIPAddress_.clear();
    online_ = false;
}

bool FtpServerService::online() const {
    std::lock_guard lock(mutex_);
    return online_;
}

std::string FtpServerService::localHostName() const {
    std::lock_guard lock(mutex_);
    return localHostName_;
}

std::string FtpServerService::localIPAddress() const {
    std::lock_guard lock(mutex_);
    return localIPAddress_;
}

int FtpServerService::listeningPort() const {
    std::lock_guard lock(mutex_);
    return ftpServer_ ? ftpServer_->portNumber() : 0;
}

std::shared_ptr<FtpServer> FtpServerService::ftpServer() const {
    std::lock_guard lock(mutex_);
    return ftpServer_;
}

void FtpServerService::didReceiveFileListChanged(const std::string& folder) {
    NotificationCenter::defaultCenter().postOnMainQueue(
        REFRESH_FOLDER_NOTIFICATION,
        UserInfo{{std::string(REFRESH_FOLDER_USER_INFO), std::vector<std::string>{folder}}});
}

}  // namespace quillon
