#include "support/WebdavServers.h"

#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "support/ServerKit.h"
#include "support/TestEnv.h"

namespace fs = std::filesystem;

namespace quillon::test {

namespace {

constexpr const char* kUser = "tester";
constexpr const char* kPassword = "secret pass";
constexpr const char* kRealm = "quillon tests";

}  // namespace

// Apache's workers run as "nobody", who must reach the root.
WebdavServer::WebdavServer(WebdavServerKind kind)
    : kind_(kind), dir_("davd"), root_(makeServedFolder(dir_.path(), "root")) {}

WebdavServer::~WebdavServer() {
    if (process_ && process_->pid() > 0) process_->stop(SIGTERM);
}

std::unique_ptr<WebdavServer> WebdavServer::start(WebdavServerKind kind, std::string* whyNot) {
    std::unique_ptr<WebdavServer> server(new WebdavServer(kind));
    if (launchWithRetries(
            "the WebDAV server", [&](std::string* why) { return server->launch(why); }, whyNot))
        return server;
    return nullptr;
}

bool WebdavServer::launch(std::string* whyNot) {
    const std::string d = dir_.path();
    const std::string logPath = d + "/server.log";
    std::error_code ec;
    fs::remove(logPath, ec);
    port_ = freePort();
    std::vector<std::string> argv;
    std::regex ready;
    if (kind_ == WebdavServerKind::Apache) {
        auto digest = runProgram({"md5sum"}, std::string(kUser) + ":" + kRealm + ":" + kPassword);
        std::ofstream(d + "/digest.passwd")
            << kUser << ":" << kRealm << ":" << digest.out.substr(0, 32) << "\n";
        ::chmod((d + "/digest.passwd").c_str(), 0644);
        fs::create_directories(d + "/lock");
        ::chmod((d + "/lock").c_str(), 0777);
        const std::string modules = "/usr/lib/apache2/modules/";
        std::ostringstream c;
        c << "ServerRoot \"" << d << "\"\nDefaultRuntimeDir \"" << d << "\"\n"
          << "Listen 127.0.0.1:" << port_ << "\nServerName 127.0.0.1\n"
          << "PidFile \"" << d << "/httpd.pid\"\nErrorLog \"" << logPath << "\"\n"
          << "LogLevel notice\nUser nobody\nGroup nogroup\n";
        for (auto m : {"mpm_event", "authz_core", "authz_user", "authn_core", "authn_file",
                       "auth_digest", "auth_basic", "dav", "dav_fs"})
            c << "LoadModule " << m << "_module " << modules << "mod_" << m << ".so\n";
        c << "DavLockDB \"" << d << "/lock/DavLock\"\nDocumentRoot \"" << root_ << "\"\n"
          << "<Directory \"" << root_ << "\">\n  Dav On\n  AuthType Digest\n  AuthName \"" << kRealm
          << "\"\n  AuthDigestProvider file\n  AuthUserFile \"" << d
          << "/digest.passwd\"\n  Require valid-user\n</Directory>\n";
        std::ofstream(d + "/httpd.conf") << c.str();
        argv = {"/usr/sbin/apache2", "-f", d + "/httpd.conf", "-DFOREGROUND"};
        ready = std::regex("resuming normal operations");
    } else {
        argv = {"rclone", "serve", "webdav", root_, "--addr", "127.0.0.1:" + std::to_string(port_),
                "--user", kUser, "--pass", kPassword, "--config", "/dev/null",
                // Files the tests put behind the server's back show at once.
                "--dir-cache-time", "0s", "--log-file", logPath, "-v"};
        ready = std::regex(
            "WebDav Server started on http://127\\.0\\.0\\.1:" + std::to_string(port_) + "/");
    }
    return startLogged(process_, argv, logPath, ready, port_, whyNot);
}

std::string WebdavServer::hostPath(std::string_view rel) const {
    return pathBelow(root_, rel);
}

std::string WebdavServer::remotePath(std::string_view rel) const {
    return slashPath(rel);
}

ServerInfoPtr WebdavServer::serverInfo() const {
    auto info = loopbackRecord(ProtocolType::WebDAV, port_, kUser, kPassword);
    info->displayName = "webdav test";
    return info;
}

std::string WebdavServer::log() {
    return readFile(dir_.path() + "/server.log");
}

}  // namespace quillon::test
