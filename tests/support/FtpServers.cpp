#include "support/FtpServers.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

namespace quillon::test {

namespace {

// The user the servers that log in real users write as: "nobody" exists everywhere.
constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;

constexpr const char* kPyftpdlibScript = R"PY(
import argparse, logging, sys
from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler, DTPHandler
from pyftpdlib.servers import FTPServer

ap = argparse.ArgumentParser()
ap.add_argument('--port', type=int, required=True)
ap.add_argument('--root', required=True)
ap.add_argument('--user', required=True)
ap.add_argument('--password', required=True)
ap.add_argument('--implicit-tls', metavar='PEMFILE')
ap.add_argument('--explicit-tls', metavar='PEMFILE')
ap.add_argument('--cut-after', type=int, default=0)
ap.add_argument('--cuts', type=int, default=-1)
ap.add_argument('--event-log')
ap.add_argument('--parent', type=int, default=0)
a = ap.parse_args()

if a.parent:
    # setpriv's change of user drops the parent-death signal: watch the test program instead.
    import os, threading, time
    def watch():
        while os.getppid() == a.parent:
            time.sleep(0.5)
        os._exit(0)
    threading.Thread(target=watch, daemon=True).start()
logging.basicConfig(level=logging.WARNING)

state = {'cuts': a.cuts}

def cutting(base):
    class Cutting(base):
        _counted = False

        def use_sendfile(self):
            # send() must see every byte to cut the transfer.
            return False if a.cut_after > 0 else super().use_sendfile()

        def readable(self):
            # curl starts the TLS handshake on a data connection before it sends RETR or LIST;
            # pyftpdlib would close a data channel that turns readable that early.
            if getattr(self, '_ssl_accepting', False):
                return True
            return super().readable()

        def send(self, data):
            if a.cut_after > 0 and state['cuts'] != 0 and self.file_obj is not None \
                    and not self.receive:
                room = a.cut_after - self.tot_bytes_sent
                if room <= 0:
                    if not self._counted:
                        self._counted = True
                        if state['cuts'] > 0:
                            state['cuts'] -= 1
                    self._resp = ('426 Connection closed; transfer aborted.', logging.info)
                    self.close()
                    return 0
                data = data[:room]
            return super().send(data)
    return Cutting

tls = a.implicit_tls or a.explicit_tls
if tls:
    from pyftpdlib.handlers import TLS_FTPHandler, TLS_DTPHandler
    base, dtp = TLS_FTPHandler, TLS_DTPHandler
else:
    base, dtp = FTPHandler, DTPHandler

class Handler(base):
    dtp_handler = cutting(dtp)

    def event(self, text):
        if a.event_log:
            with open(a.event_log, 'a') as f:
                f.write(text + '\n')

    def ftp_REST(self, line):
        self.event('REST ' + line.strip())
        return super().ftp_REST(line)

    def ftp_APPE(self, file):
        self.event('APPE ' + str(len(file)))
        return super().ftp_APPE(file)

    def on_login(self, username):
        self.event('LOGIN ' + username)

    if a.implicit_tls:
        def handle(self):
            self.secure_connection(self.ssl_context)

        def handle_ssl_established(self):
            base.handle(self)

if tls:
    from OpenSSL import SSL
    ctx = SSL.Context(SSL.TLS_SERVER_METHOD)
    ctx.use_certificate_chain_file(tls)
    ctx.use_privatekey_file(tls)
    ctx.set_options(SSL.OP_NO_SSLv2 | SSL.OP_NO_SSLv3 | SSL.OP_NO_COMPRESSION)
    # Data connections resume the control connection's TLS session, which needs a session id
    # context on the server side.
    ctx.set_session_id(b'quillon-test')
    Handler.ssl_context = ctx

auth = DummyAuthorizer()
auth.add_user(a.user, a.password, a.root, perm='elradfmwMT')
Handler.authorizer = auth
server = FTPServer(('127.0.0.1', a.port), Handler)
server.max_cons = 64
print('READY', flush=True)
server.serve_forever(handle_exit=True)
)PY";

std::string ftpdRoot() {
    if (const char* p = std::getenv("QUILLON_FTPD_ROOT")) return p;
    return "/opt/quillon-ftpd";
}

// The unpacked copy first (the packages conflict, so only one can be installed), then the
// installed one.
std::string findProgram(const std::string& package, const std::string& rel) {
    std::string unpacked = ftpdRoot() + "/" + package + "/" + rel;
    if (::access(unpacked.c_str(), X_OK) == 0) return unpacked;
    std::string installed = "/" + rel;
    if (::access(installed.c_str(), X_OK) == 0) return installed;
    return {};
}

// Connects and, unless the server speaks TLS first, waits for a "220" greeting.
bool greets(int port, bool tlsFirst) {
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = false;
    if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
        if (tlsFirst) {
            ok = true;
        } else {
            std::string got;
            auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
            while (std::chrono::steady_clock::now() < until &&
                   got.find('\n') == std::string::npos) {
                pollfd p{s, POLLIN, 0};
                if (::poll(&p, 1, 200) <= 0) continue;
                char buf[512];
                auto n = ::read(s, buf, sizeof buf);
                if (n <= 0) break;
                got.append(buf, static_cast<std::size_t>(n));
            }
            ok = got.rfind("220", 0) == 0;
            if (ok) (void)!::write(s, "QUIT\r\n", 6);
        }
    }
    ::close(s);
    return ok;
}

}  // namespace

std::string_view ftpServerKindName(FtpServerKind kind) {
    switch (kind) {
        case FtpServerKind::Vsftpd:
            return "vsftpd";
        case FtpServerKind::PureFtpd:
            return "pure-ftpd";
        case FtpServerKind::Proftpd:
            return "proftpd";
        case FtpServerKind::Pyftpdlib:
            return "pyftpdlib";
    }
    return "?";
}

const std::vector<FtpServerKind>& allFtpServerKinds() {
    static const std::vector<FtpServerKind> all = {FtpServerKind::Vsftpd, FtpServerKind::PureFtpd,
                                                   FtpServerKind::Proftpd,
                                                   FtpServerKind::Pyftpdlib};
    return all;
}

FtpServer::FtpServer(FtpServerKind kind, const FtpServerOptions& options)
    : kind_(kind), options_(options), dir_("ftpd") {
    // The servers that switch to "nobody" must reach the root through the scratch folder.
    ::chmod(dir_.path().c_str(), 0755);
    root_ = dir_.path() + "/root";
    fs::create_directories(root_);
    // vsftpd serves anonymous users and stays root; the others run as "nobody", so that file
    // permissions bind them.
    if (kind_ != FtpServerKind::Vsftpd) {
        uid_ = kNobody;
        gid_ = kNogroup;
        user_ = "tester";
        password_ = "secret pass";
    }
    ::chown(root_.c_str(), uid_, gid_);
}

std::unique_ptr<FtpServer> FtpServer::start(FtpServerKind kind, const FtpServerOptions& options,
                                            std::string* whyNot) {
    std::unique_ptr<FtpServer> server(new FtpServer(kind, options));
    if (launchWithRetries(
            ftpServerKindName(kind), [&](std::string* why) { return server->launch(why); }, whyNot))
        return server;
    return nullptr;
}

bool FtpServer::launch(std::string* whyNot) {
    port_ = freePort();
    const std::string conf = dir_.path();
    std::string logPath = conf + "/server.log";
    std::vector<std::string> argv;
    bool tlsFirst = false;
    auto cannot = [&](const std::string& why) {
        *whyNot = name() + " cannot run here: " + why;
        return false;
    };
    auto makeCert = [&](std::string* pem) {
        auto r = runProgram({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout",
                             conf + "/key.pem", "-out", conf + "/cert.pem", "-days", "2", "-subj",
                             "/CN=127.0.0.1"});
        if (r.exitCode != 0) return false;
        if (pem) writeText(*pem, readFile(conf + "/cert.pem") + readFile(conf + "/key.pem"), 0600);
        return true;
    };
    // A passwd line for the test user, with a SHA-512 crypt hash of its password.
    auto writePasswd = [&](const std::string& tail) {
        auto hash = runProgram({"openssl", "passwd", "-6", "-stdin"}, password_ + "\n");
        std::string h = hash.out.substr(0, hash.out.find('\n'));
        if (hash.exitCode != 0 || h.empty()) return false;
        writeText(conf + "/passwd",
                  fmt::format("{}:{}:{}:{}::{}{}", user_, h, uid_, gid_, root_, tail), 0600);
        return true;
    };

    switch (kind_) {
        case FtpServerKind::Vsftpd: {
            std::string bin = findProgram("vsftpd", "usr/sbin/vsftpd");
            if (bin.empty()) return cannot("not found (run deps/install.sh test)");
            fs::create_directories(conf + "/empty");
            std::ostringstream c;
            c << "listen=YES\nlisten_ipv6=NO\nlisten_address=127.0.0.1\nlisten_port=" << port_
              << "\nbackground=NO\nrun_as_launching_user=YES\nanonymous_enable=YES\n"
                 "local_enable=NO\nwrite_enable=YES\nanon_upload_enable=YES\n"
                 "anon_mkdir_write_enable=YES\nanon_other_write_enable=YES\n"
                 "anon_world_readable_only=NO\nanon_umask=022\nno_anon_password=YES\n"
                 "force_dot_files=YES\nseccomp_sandbox=NO\npasv_enable=YES\nxferlog_enable=NO\n"
                 "dirmessage_enable=NO\nconnect_from_port_20=NO\nallow_writeable_chroot=YES\n"
                 "ftp_username=nobody\nmax_clients=64\nmax_per_ip=64\n"
              << "anon_root=" << root_ << "\nsecure_chroot_dir=" << conf << "/empty\n"
              << "vsftpd_log_file=" << conf << "/vsftpd.log\n";
            writeText(conf + "/vsftpd.conf", c.str(), 0600);
            argv = {bin, conf + "/vsftpd.conf"};
            break;
        }
        case FtpServerKind::PureFtpd: {
            std::string bin = findProgram("pure-ftpd", "usr/sbin/pure-ftpd");
            std::string pw = findProgram("pure-ftpd", "usr/bin/pure-pw");
            if (bin.empty() || pw.empty()) return cannot("not found (run deps/install.sh test)");
            if (!fs::exists(conf + "/pure.pdb")) {
                // pure-pw hashes with a costly argon2 setting (seconds per login on a busy
                // machine): the passwd file is written here with a SHA-512 crypt hash instead.
                if (!writePasswd("/./::::::::::::\n")) return cannot("openssl passwd failed");
                auto r = runProgram({pw, "mkdb", conf + "/pure.pdb", "-f", conf + "/passwd"});
                if (r.exitCode != 0) return cannot("pure-pw mkdb failed: " + r.err);
            }
            argv = {bin, "-S", "127.0.0.1," + std::to_string(port_), "-l",
                    "puredb:" + conf + "/pure.pdb"};
            for (auto a : {"-E", "-H", "-D", "-A", "-u", "1", "-c", "64", "-C", "64", "-I", "15"})
                argv.emplace_back(a);
            break;
        }
        case FtpServerKind::Proftpd: {
            std::string bin = findProgram("proftpd", "usr/sbin/proftpd");
            if (bin.empty()) return cannot("not found (run deps/install.sh test)");
            if (!fs::exists(conf + "/cert.pem") && !makeCert(nullptr))
                return cannot("openssl could not make a certificate");
            if (!writePasswd(":/bin/false\n")) return cannot("openssl passwd failed");
            writeText(conf + "/group", "nogroup:x:" + std::to_string(gid_) + ":\n", 0600);
            bool tlsModule = fs::exists("/usr/lib/proftpd/mod_tls.so");
            std::ostringstream c;
            c << "ServerName \"quillon test\"\nServerType standalone\nDefaultServer on\n"
              << "Port " << port_ << "\nDefaultAddress 127.0.0.1\nSocketBindTight on\nUseIPv6 off\n"
              << "User nobody\nGroup nogroup\nUmask 022\nMaxInstances 64\n"
              << "PidFile " << conf << "/proftpd.pid\nScoreboardFile " << conf << "/scoreboard\n"
              << "DelayTable none\nWtmpLog off\nUseReverseDNS off\nAuthOrder mod_auth_file.c\n"
              << "AuthUserFile " << conf << "/passwd\nAuthGroupFile " << conf << "/group\n"
              << "RequireValidShell off\nDefaultRoot ~\nAllowOverwrite on\nAllowStoreRestart on\n"
              << "AllowRetrieveRestart on\nTransferLog none\nSystemLog " << conf << "/system.log\n"
              << "ListOptions \"-a\"\nTimeoutIdle 600\n";
            if (tlsModule) {
                c << "<IfModule mod_dso.c>\n  ModulePath /usr/lib/proftpd\n  LoadModule mod_tls.c\n"
                     "</IfModule>\n<IfModule mod_tls.c>\n  TLSEngine on\n"
                  << "  TLSRequired " << (options_.tlsRequired ? "on" : "off") << "\n"
                  << "  TLSRSACertificateFile " << conf << "/cert.pem\n"
                  << "  TLSRSACertificateKeyFile " << conf << "/key.pem\n"
                  << "  TLSOptions NoSessionReuseRequired\n  TLSProtocol TLSv1.2 TLSv1.3\n"
                  << "  TLSLog " << conf << "/tls.log\n</IfModule>\n";
            }
            writeText(conf + "/proftpd.conf", c.str(), 0600);
            argv = {bin, "-n", "-q", "-c", conf + "/proftpd.conf"};
            break;
        }
        case FtpServerKind::Pyftpdlib: {
            if (::access("/usr/bin/python3", X_OK) != 0 ||
                ::access("/usr/bin/setpriv", X_OK) != 0 ||
                runProgram({"/usr/bin/python3", "-c", "import pyftpdlib, OpenSSL"}).exitCode != 0)
                return cannot(
                    "/usr/bin/python3 with pyftpdlib and OpenSSL, and setpriv, are needed");
            writeText(conf + "/server.py", kPyftpdlibScript);
            writeText(conf + "/events.log", "", 0600);
            ::chown((conf + "/events.log").c_str(), uid_, gid_);
            argv = {"/usr/bin/setpriv", "--reuid=" + std::to_string(uid_)};
            argv.insert(argv.end(),
                        {"--regid=" + std::to_string(gid_), "--clear-groups", "/usr/bin/python3",
                         conf + "/server.py", "--port", std::to_string(port_), "--root", root_,
                         "--user", user_, "--password", password_, "--event-log",
                         conf + "/events.log", "--parent", std::to_string(::getpid())});
            if (options_.implicitTls || options_.explicitTls) {
                std::string pem = conf + "/both.pem";
                if (!fs::exists(pem) && !makeCert(&pem))
                    return cannot("openssl could not make a certificate");
                ::chown(pem.c_str(), uid_, gid_);
                argv.insert(argv.end(),
                            {options_.implicitTls ? "--implicit-tls" : "--explicit-tls", pem});
                tlsFirst = options_.implicitTls;
            }
            if (options_.cutAfterBytes > 0) {
                argv.insert(argv.end(), {"--cut-after", std::to_string(options_.cutAfterBytes),
                                         "--cuts", std::to_string(options_.cuts)});
            }
            break;
        }
    }

    pid_ = spawnGroup(argv, logPath);
    if (pid_ < 0) return cannot("cannot fork");
    if (awaitListener(
            pid_, port_, [&] { return greets(port_, tlsFirst); }, std::chrono::seconds(30), whyNot))
        return true;
    *whyNot = name() + " " + *whyNot + ": " + log();
    stop();
    return false;
}

void FtpServer::stop() {
    stopGroup(pid_, std::chrono::seconds(3));
}

FtpServer::~FtpServer() {
    stop();
}

std::string FtpServer::log() const {
    std::string out;
    for (auto* f : {"/server.log", "/vsftpd.log", "/system.log", "/tls.log"})
        out += readFile(dir_.path() + f);
    return out;
}

std::vector<long long> FtpServer::restOffsets() const {
    std::vector<long long> out;
    std::ifstream in(dir_.path() + "/events.log");
    for (std::string what, value; in >> what >> value;)
        if (what == "REST") out.push_back(std::stoll(value));
    return out;
}

int FtpServer::events(std::string_view kind) const {
    std::ifstream in(dir_.path() + "/events.log");
    int n = 0;
    for (std::string what, value; in >> what >> value;) n += what == kind;
    return n;
}

void FtpServer::endSessions() const {
    // The server runs in a process group of its own: every member but the first is a session.
    std::vector<pid_t> sessions;
    for (auto& p : processes())
        if (p.pid != pid_ && ::getpgid(p.pid) == pid_) sessions.push_back(p.pid);
    for (pid_t pid : sessions) ::kill(pid, SIGKILL);
    // Gone once the master reaped them (or they stopped existing as group members).
    waitUntil([&] {
        for (auto& p : processes())
            if (p.state != 'Z' &&
                std::find(sessions.begin(), sessions.end(), p.pid) != sessions.end() &&
                ::getpgid(p.pid) == pid_)
                return false;
        return true;
    });
}

std::string FtpServer::url(std::string_view serverPath) const {
    auto escaped = [](const std::string& s) {
        std::string out;
        for (unsigned char c : s) {
            if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~')
                out += static_cast<char>(c);
            else
                out += fmt::format("%{:02X}", c);
        }
        return out;
    };
    std::string login = hasLogin() ? escaped(user_) + ":" + escaped(password_) + "@" : "";
    return "ftp://" + login + "127.0.0.1:" + std::to_string(port_) + remotePath(serverPath);
}

ServerInfoPtr FtpServer::serverInfo(std::string_view ftpProtocol) const {
    auto info = loopbackRecord(ProtocolType::FTP, port_, user_, password_);
    info->displayName = name();
    info->setValue(
        options_.implicitTls ? std::string("FTP_PROTOCOL_IMPLICIT") : std::string(ftpProtocol),
        ServerProp::FTP_PROTOCOL);
    return info;
}

std::string FtpServer::hostPath(std::string_view serverPath) const {
    return pathBelow(root_, serverPath);
}

std::string FtpServer::remotePath(std::string_view serverPath) const {
    return (kind_ == FtpServerKind::Vsftpd ? root_ : std::string()) + slashPath(serverPath);
}

void FtpServer::writeFile(std::string_view serverPath, std::string_view content) const {
    auto path = hostPath(serverPath);
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    chownTree();
}

void FtpServer::makeDir(std::string_view serverPath) const {
    fs::create_directories(hostPath(serverPath));
    chownTree();
}

void FtpServer::chownTree() const {
    if (uid_ == 0) return;
    std::error_code ec;
    ::lchown(root_.c_str(), uid_, gid_);
    for (auto it = fs::recursive_directory_iterator(root_, ec); !ec && it != fs::end(it);
         it.increment(ec))
        ::lchown(it->path().c_str(), uid_, gid_);
}

ScriptedFtpServer::ScriptedFtpServer(std::string greeting, Script script)
    : greeting_(std::move(greeting)), script_(std::move(script)) {
    fd_ = listenOn("127.0.0.1", 0);
    port_ = boundPort(fd_);
    thread_ = std::thread([this] { run(); });
}

ScriptedFtpServer::ScriptedFtpServer(std::string greeting,
                                     std::function<std::string(const std::string&)> reply)
    : ScriptedFtpServer(
          std::move(greeting),
          [reply = std::move(reply)](const std::string& line, Session&) { return reply(line); }) {}

ScriptedFtpServer::~ScriptedFtpServer() {
    stop_ = true;
    ::shutdown(fd_, SHUT_RDWR);
    // The client may keep its session open in the pool: end it too.
    if (int c = client_.load(); c >= 0) ::shutdown(c, SHUT_RDWR);
    if (int d = data_.load(); d >= 0) ::shutdown(d, SHUT_RDWR);
    thread_.join();
    ::close(fd_);
    for (int b : bystanders_) ::close(b);
}

ServerInfoPtr ScriptedFtpServer::serverInfo() const {
    return loopbackRecord(ProtocolType::FTP, port_, "u", "p");
}

int ScriptedFtpServer::bystanderConnections() {
    std::lock_guard lock(mutex_);
    int n = 0;
    for (int b : bystanders_) {
        pollfd p{b, POLLIN, 0};
        while (::poll(&p, 1, 0) > 0) {
            int c = ::accept4(b, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) break;
            ::close(c);
            ++n;
        }
    }
    return n;
}

std::string ScriptedFtpServer::basics(const std::string& line) {
    auto is = [&](std::string_view command) { return line.rfind(command, 0) == 0; };
    if (is("USER")) return "331 Password required\r\n";
    if (is("PASS")) return "230 Logged in\r\n";
    if (is("PWD")) return "257 \"/\" is the current folder\r\n";
    if (is("CWD")) return "250 OK\r\n";
    if (is("TYPE")) return "200 Type set\r\n";
    if (is("QUIT")) return "221 Bye\r\n<CLOSE>";
    return "";
}

void ScriptedFtpServer::run() {
    while (!stop_) {
        int c = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (c < 0) return;
        client_ = c;
        ++sessions_;
        if (stop_) ::shutdown(c, SHUT_RDWR);
        Session session(*this, c);
        session.reply(greeting_);
        std::string buf;
        char tmp[4096];
        bool open = true;
        while (open && !stop_) {
            auto n = ::recv(c, tmp, sizeof tmp, 0);
            if (n <= 0) break;
            buf.append(tmp, static_cast<std::size_t>(n));
            std::size_t nl;
            while ((nl = buf.find("\r\n")) != std::string::npos) {
                auto line = buf.substr(0, nl);
                buf.erase(0, nl + 2);
                auto out = script_(line, session);
                bool hangUp = out.ends_with("<CLOSE>") || out == "CLOSE";
                if (out.ends_with("<CLOSE>")) out.resize(out.size() - 7);
                if (out != "CLOSE") session.reply(out);
                if (hangUp) {
                    open = false;
                    break;
                }
            }
        }
        session.closeData();
        client_ = -1;
        ::close(c);
    }
}

void ScriptedFtpServer::Session::reply(std::string_view text) {
    sendAll(control_, text);
}

std::string ScriptedFtpServer::Session::passive(std::string_view host) {
    closeData();
    std::string bystanderHost(host);
    // The bystander's port must be the listener's: try until both are free.
    for (int attempt = 0; attempt < 50 && listener_ < 0; ++attempt) {
        listener_ = listenOn("127.0.0.1", 0);
        if (listener_ < 0 || bystanderHost == "127.0.0.1") break;
        int bystander = listenOn(bystanderHost.c_str(), boundPort(listener_));
        if (bystander >= 0) {
            std::lock_guard lock(server_.mutex_);
            server_.bystanders_.push_back(bystander);
            bystander_ = bystander;
            break;
        }
        ::close(listener_);
        listener_ = -1;
    }
    if (listener_ < 0) return "425 No data port\r\n";
    int port = boundPort(listener_);
    std::string address = bystanderHost;
    std::replace(address.begin(), address.end(), '.', ',');
    return "227 Entering Passive Mode (" + address + "," + std::to_string(port / 256) + "," +
           std::to_string(port % 256) + ")\r\n";
}

bool ScriptedFtpServer::Session::acceptData() {
    if (data_ >= 0) return true;
    if (listener_ < 0) return false;
    // Waits while the server runs, 20 s at most, and not once the client went to the bystander.
    for (int waited = 0; waited < 200 && !server_.stopping(); ++waited) {
        pollfd p[2] = {{listener_, POLLIN, 0}, {bystander_, POLLIN, 0}};
        if (::poll(p, bystander_ >= 0 ? 2 : 1, 100) <= 0) continue;
        if (!(p[0].revents & POLLIN)) break;
        data_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        server_.data_ = data_;
        break;
    }
    ::close(listener_);
    listener_ = -1;
    return data_ >= 0;
}

void ScriptedFtpServer::Session::sendData(std::string_view bytes, bool close) {
    if (!acceptData()) return;
    sendAll(data_, bytes);
    // Stalled: nothing more is sent until the client hangs up (or the server stops).
    while (!close && !server_.stopping()) {
        pollfd p{data_, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0) continue;
        char tmp[4096];
        if (::recv(data_, tmp, sizeof tmp, 0) <= 0) break;
    }
    closeData();
}

std::string ScriptedFtpServer::Session::receiveData() {
    std::string got;
    if (!acceptData()) return got;
    char tmp[65536];
    ssize_t n;
    while ((n = ::recv(data_, tmp, sizeof tmp, 0)) > 0)
        got.append(tmp, static_cast<std::size_t>(n));
    closeData();
    return got;
}

void ScriptedFtpServer::Session::closeData() {
    if (data_ >= 0) {
        server_.data_ = -1;
        ::close(data_);
        data_ = -1;
    }
    if (listener_ >= 0) {
        ::close(listener_);
        listener_ = -1;
    }
    bystander_ = -1;
}

}  // namespace quillon::test
