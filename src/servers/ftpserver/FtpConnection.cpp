#include "servers/ftpserver/FtpConnection.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/crypto.h>
#include <stdio.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <random>

#include "core/LocalizedUtils.h"
#include "core/StringEncoding.h"
#include "core/StringUtils.h"
#include "servers/ftpserver/FtpListing.h"
#include "servers/ftpserver/FtpPath.h"
#include "servers/ftpserver/FtpServer.h"

namespace quillon {

using asio::ip::tcp;

namespace {

// Replies queued beyond this stop the reading of further commands until the client takes them.
constexpr std::size_t kMaxQueuedReplyBytes = 64 * 1024;
// A download hands the thread to other sessions after this many bytes in one go.
constexpr std::uint64_t kSendSliceBytes = 8 * 1024 * 1024;
constexpr std::size_t kReceiveBufferBytes = 256 * 1024;

asio::ip::address plainAddress(const asio::ip::address& a) {
    if (a.is_v6() && a.to_v6().is_v4_mapped())
        return asio::ip::make_address_v4(asio::ip::v4_mapped, a.to_v6());
    return a;
}

std::string productName() {
    auto name = LocalizedUtils::localizedStringForKey("about.pro_version_name");
    return name.empty() || name == "about.pro_version_name" ? std::string("Quillon Pro") : name;
}

bool commandAllowedBeforeLogin(std::string_view word) {
    static constexpr std::string_view allowed[] = {"user", "pass", "quit", "syst",
                                                   "feat", "opts", "noop"};
    return std::find(std::begin(allowed), std::end(allowed), word) != std::end(allowed);
}

std::optional<std::uint64_t> parseUnsigned(std::string_view text) {
    if (text.empty() || text.size() > 19) return std::nullopt;
    std::uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        v = v * 10 + static_cast<std::uint64_t>(c - '0');
    }
    return v;
}

constexpr std::string_view kThumbnail = "::thumbnail";

// A name for an upload's temporary file that nothing else uses.
std::string uploadTempName() {
    thread_local std::mt19937_64 random(std::random_device{}());
    return fmt::format("{}{:016x}", kUploadTempPrefix, random());
}

std::string quotedForPwd(const std::string& path) {
    std::string out;
    for (char c : path) {
        out += c;
        if (c == '"') out += '"';
    }
    return out;
}

bool passwordsEqual(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    return CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

const std::map<std::string, FtpConnection::Handler, std::less<>>& FtpConnection::handlers() {
    static const std::map<std::string, Handler, std::less<>> table = {
        {"doUser:arguments:", &FtpConnection::doUser},
        {"doPass:arguments:", &FtpConnection::doPass},
        {"doQuit:arguments:", &FtpConnection::doQuit},
        {"doSyst:arguments:", &FtpConnection::doSyst},
        {"doNoop:arguments:", &FtpConnection::doNoop},
        {"doStat:arguments:", &FtpConnection::doStat},
        {"doFeat:arguments:", &FtpConnection::doFeat},
        {"doOpts:arguments:", &FtpConnection::doOpts},
        {"doType:arguments:", &FtpConnection::doType},
        {"doPwd:arguments:", &FtpConnection::doPwd},
        {"doCwd:arguments:", &FtpConnection::doCwd},
        {"doCdUp:arguments:", &FtpConnection::doCdUp},
        {"doPasv:arguments:", &FtpConnection::doPasv},
        {"doEpsv:arguments:", &FtpConnection::doEpsv},
        {"doLprt:arguments:", &FtpConnection::doLprt},
        {"doPort:arguments:", &FtpConnection::doPort},
        {"doEprt:arguments:", &FtpConnection::doEprt},
        {"doList:arguments:", &FtpConnection::doList},
        {"doNlst:arguments:", &FtpConnection::doNlst},
        {"doMlsd:arguments:", &FtpConnection::doMlsd},
        {"doMlst:arguments:", &FtpConnection::doMlst},
        {"doRetr:arguments:", &FtpConnection::doRetr},
        {"doStor:arguments:", &FtpConnection::doStor},
        {"doRest:arguments:", &FtpConnection::doRest},
        {"doDele:arguments:", &FtpConnection::doDele},
        {"doMkdir:arguments:", &FtpConnection::doMkdir},
        {"doRmdir:arguments:", &FtpConnection::doRmdir},
        {"doRnfr:arguments:", &FtpConnection::doRnfr},
        {"doRnto:arguments:", &FtpConnection::doRnto},
        {"doSize:arguments:", &FtpConnection::doSize},
        {"doMdtm:arguments:", &FtpConnection::doMdtm},
        {"doMfmt:arguments:", &FtpConnection::doMfmt},
    };
    return table;
}

FtpConnection::FtpConnection(tcp::socket socket, std::shared_ptr<FtpServer> server)
    : control_(std::move(socket)),
      server_(std::move(server)),
      id_(server_->nextSessionId()),
      lines_(server_->options().maxLineLength),
      idleTimer_(control_.get_executor()),
      delayTimer_(control_.get_executor()),
      dataTimer_(control_.get_executor()),
      encoding_(server_->clientEncoding()) {
    asio::error_code ec;
    auto peer = control_.remote_endpoint(ec);
    if (!ec) {
        peerAddress_ = plainAddress(peer.address());
        peerText_ = peerAddress_.to_string();
    } else {
        peerText_ = "?";
    }
}

FtpConnection::~FtpConnection() {
    closeUpload(false);
    if (fileFd_ >= 0) ::close(fileFd_);
}

void FtpConnection::start() {
    log("connected");
    asio::error_code ec;
    control_.set_option(tcp::no_delay(true), ec);
    reply(fmt::format("220 ---------- Welcome to {} ---------- ", productName()));
    resetIdleTimer();
    readMore();
}

void FtpConnection::log(const std::string& line) const {
    server_->log(fmt::format("[{} {}] {}", id_, peerText_, line));
}

std::string FtpConnection::shown(std::string_view text) const {
    return FtpCommandParser::sanitize(text);
}

void FtpConnection::resetIdleTimer() {
    if (closed_) return;
    idleTimer_.expires_after(server_->options().idleTimeout);
    idleTimer_.async_wait([weak = weak_from_this()](const asio::error_code& ec) {
        auto self = weak.lock();
        if (ec || !self || self->closed_) return;
        self->log("idle timeout");
        self->busy_ = true;  // nothing more is read from a session that is going away
        self->resetData();
        self->reply("421 Timeout: closing control connection.");
        self->closeAfterReplies();
    });
}

// ---- control channel ----

void FtpConnection::readMore() {
    if (reading_ || closed_ || closeAfterWrite_) return;
    reading_ = true;
    control_.async_read_some(
        asio::buffer(readBuffer_),
        [self = shared_from_this()](const asio::error_code& ec, std::size_t n) {
            self->reading_ = false;
            if (self->closed_) return;
            if (ec) {
                self->close();
                return;
            }
            self->resetIdleTimer();
            if (!self->lines_.append(std::string_view(self->readBuffer_.data(), n))) {
                self->log("command line too long");
                self->busy_ = true;
                self->reply("500 Command line too long.");
                self->closeAfterReplies();
                return;
            }
            self->processPending();
        });
}

void FtpConnection::processPending() {
    while (!busy_ && !closed_ && !closeAfterWrite_ && outboxBytes_ <= kMaxQueuedReplyBytes) {
        auto line = lines_.nextLine();
        if (!line) break;
        handleLine(*line);
    }
    if (!busy_ && !closed_ && outboxBytes_ <= kMaxQueuedReplyBytes) readMore();
}

void FtpConnection::handleLine(const std::string& raw) {
    std::string text;
    if (encoding_ == StringEncoding::UTF8) {
        if (!StringUtils::isValidUtf8(raw)) {
            reply("501 Invalid UTF-8 in command.");
            return;
        }
        text = raw;
    } else {
        auto decoded = StringEncoding::toUtf8(raw, encoding_);
        if (!decoded) {
            reply("501 Invalid characters in command.");
            return;
        }
        text = std::move(*decoded);
    }
    auto cmd = FtpCommandParser::parse(text);
    if (cmd.word == "pass")
        log("PASS ****");
    else
        log(shown(text));

    auto entry = server_->commands().find(cmd.word);
    const Handler* handler = nullptr;
    if (entry != server_->commands().end()) {
        auto h = handlers().find(entry->second + "arguments:");
        if (h != handlers().end()) handler = &h->second;
    }
    if (!handler) {
        reply(fmt::format("500 '{}': command not understood.", shown(cmd.words.front())));
        return;
    }
    if (!loggedIn_ && !commandAllowedBeforeLogin(cmd.word)) {
        reply("530 Please login with USER and PASS.");
        return;
    }
    (this->*(*handler))(cmd);
    // A rename target must follow its source directly.
    if (cmd.word != "rnfr") rnfr_.reset();
}

void FtpConnection::reply(std::string_view text) {
    if (closed_) return;
    std::string bytes;
    if (encoding_ == StringEncoding::UTF8) {
        bytes = std::string(text);
    } else if (auto converted = StringEncoding::fromUtf8(text, encoding_)) {
        bytes = std::move(*converted);
    } else {
        // Characters the client's encoding cannot hold are shown as "?".
        for (unsigned char c : text) bytes += c < 0x80 ? static_cast<char>(c) : '?';
    }
    bytes += "\r\n";
    outboxBytes_ += bytes.size();
    outbox_.push_back(std::move(bytes));
    if (!writing_) writeNext();
}

void FtpConnection::writeNext() {
    if (closed_) return;
    if (outbox_.empty()) {
        writing_ = false;
        if (closeAfterWrite_) {
            close();
            return;
        }
        processPending();
        return;
    }
    writing_ = true;
    asio::async_write(control_, asio::buffer(outbox_.front()),
                      [self = shared_from_this()](const asio::error_code& ec, std::size_t) {
                          if (self->closed_) return;
                          if (ec) {
                              self->close();
                              return;
                          }
                          self->outboxBytes_ -= self->outbox_.front().size();
                          self->outbox_.pop_front();
                          self->writeNext();
                      });
}

void FtpConnection::closeAfterReplies() {
    closeAfterWrite_ = true;
    if (!writing_) close();
}

void FtpConnection::close() {
    if (closed_) return;
    closed_ = true;
    asio::error_code ec;
    idleTimer_.cancel();
    delayTimer_.cancel();
    dataTimer_.cancel();
    resetData();
    dataWaiter_ = nullptr;
    closeUpload(false);
    if (fileFd_ >= 0) {
        ::close(fileFd_);
        fileFd_ = -1;
    }
    if (!changedFolder_.empty()) server_->didReceiveFileListChanged(changedFolder_);
    log("closed");
    server_->closeConnection(this);
    control_.shutdown(tcp::socket::shutdown_both, ec);
    control_.close(ec);
}

bool FtpConnection::mayWrite(const FtpCommand& cmd, std::string_view deniedReply) {
    if (!anonymous_ || server_->options().allowAnonymousUploads) return true;
    log(fmt::format("refused {} (anonymous session is read-only)", shown(cmd.words.front())));
    reply(deniedReply);
    return false;
}

// ---- paths ----

std::optional<std::string> FtpConnection::virtualPathOf(std::string_view argument) const {
    return FtpPath::virtualPath(currentFolder_, argument);
}

FtpPath::Resolved<FtpPath::Fd> FtpConnection::openItem(std::string_view argument, int flags) const {
    auto vp = virtualPathOf(argument);
    if (!vp) return std::unexpected(EINVAL);
    return server_->root().open(*vp, flags);
}

FtpPath::Resolved<FtpPath::Entry> FtpConnection::entryOf(std::string_view argument,
                                                         bool followLast) const {
    auto vp = virtualPathOf(argument);
    if (!vp) return std::unexpected(EINVAL);
    auto entry = server_->root().entry(*vp, followLast);
    if (!entry || followLast) return entry;
    // A link that leads out of the shared folder is not there for the client at all.
    struct stat st {};
    if (::fstatat(entry->folder.get(), entry->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISLNK(st.st_mode) && !server_->root().open(*vp, O_PATH))
        return std::unexpected(ENOENT);
    return entry;
}

std::string FtpConnection::folderPathOf(const FtpPath::Entry& entry,
                                        std::string_view argument) const {
    auto vp = virtualPathOf(argument).value_or("/");
    return server_->root().localPath(entry.folder.get(),
                                     StringUtils::stringByDeletingLastPathComponent(vp));
}

// ---- login ----

void FtpConnection::failedLogin(std::string replyText) {
    ++failedLogins_;
    auto factor = 1u << std::min(failedLogins_ - 1, 4u);
    auto delay = server_->options().loginFailureDelay * factor;
    log(fmt::format("login failed ({} so far)", failedLogins_));
    // Commands sent along with the failed attempt are not run: a client must wait for the answer.
    lines_.discard();
    busy_ = true;
    delayTimer_.expires_after(delay);
    delayTimer_.async_wait([self = shared_from_this(), replyText](const asio::error_code& ec) {
        if (ec || self->closed_) return;
        self->reply(replyText);
        if (self->failedLogins_ >= self->server_->options().maxLoginFailures) {
            self->log("too many failed logins");
            self->reply("421 Too many failed logins, closing control connection.");
            self->closeAfterReplies();
            return;
        }
        self->busy_ = false;
        self->processPending();
    });
}

void FtpConnection::doUser(const FtpCommand& cmd) {
    std::string name = cmd.argument();
    loggedIn_ = false;
    anonymous_ = false;
    pendingUser_.reset();
    const auto& configured = server_->options().username;
    if (configured.empty() || StringUtils::equalsIgnoreCase(configured, "anonymous")) {
        loggedIn_ = true;
        anonymous_ = true;
        user_ = name;
        log(fmt::format("anonymous login as '{}'", shown(name)));
        reply(fmt::format("230 User {} logged in.", shown(name)));
        return;
    }
    if (name == configured) {
        if (server_->options().password.empty()) {
            loggedIn_ = true;
            user_ = name;
            failedLogins_ = 0;
            log(fmt::format("user '{}' logged in", shown(name)));
            reply(fmt::format("230 User {} logged in.", shown(name)));
        } else {
            pendingUser_ = name;
            reply(fmt::format("331 Password required for {}", shown(name)));
        }
        return;
    }
    failedLogin("530 Login User incorrect.");
}

void FtpConnection::doPass(const FtpCommand& cmd) {
    if (loggedIn_) {
        reply(fmt::format("230 User {} logged in.", shown(user_)));
        return;
    }
    if (!pendingUser_) {
        reply("503 Login with USER first.");
        return;
    }
    if (passwordsEqual(cmd.argument(), server_->options().password)) {
        loggedIn_ = true;
        user_ = *pendingUser_;
        pendingUser_.reset();
        failedLogins_ = 0;
        // What the client sent along with its password was sent before it knew the answer.
        if (auto dropped = lines_.discard())
            log(fmt::format("dropped {} bytes sent along with PASS", dropped));
        log(fmt::format("user '{}' logged in", shown(user_)));
        reply(fmt::format("230 User {} logged in.", shown(user_)));
        return;
    }
    pendingUser_.reset();
    failedLogin("530 Login incorrect.");
}

// ---- simple commands ----

void FtpConnection::doQuit(const FtpCommand&) {
    reply("221- Data traffic for this session was 0 bytes in 0 files");
    reply("221 Thank you for using the FTP service on localhost.");
    closeAfterReplies();
}

void FtpConnection::doSyst(const FtpCommand&) {
    reply("215 UNIX Type: L8");
}

void FtpConnection::doNoop(const FtpCommand&) {
    reply("200 NOOP command successful.");
}

void FtpConnection::doStat(const FtpCommand&) {
    reply("211-localhost FTP server status:");
    reply(fmt::format("     Connected to {}", peerText_));
    reply(fmt::format("     Logged in as {}", shown(user_)));
    reply(fmt::format("     TYPE: {}",
                      transferMode_ == "A" || transferMode_ == "a" ? "ASCII" : "BINARY"));
    reply(fmt::format(
        "     Session timeout in seconds is {}",
        std::chrono::duration_cast<std::chrono::seconds>(server_->options().idleTimeout).count()));
    reply(fmt::format("     Current directory is {}", shown(currentFolder_)));
    reply("211 End of Status");
}

void FtpConnection::doFeat(const FtpCommand&) {
    reply("211-Extensions supported:");
    for (auto feature : {" MDTM", " MFMT", " SIZE", " MLSD", " PASV", " EPSV", " UTF8"})
        reply(feature);
    reply("211 End");
}

void FtpConnection::doOpts(const FtpCommand& cmd) {
    if (cmd.words.size() == 3 && StringUtils::equalsIgnoreCase(cmd.words[1], "utf8")) {
        if (StringUtils::equalsIgnoreCase(cmd.words[2], "on")) {
            encoding_ = StringEncoding::UTF8;
            reply("200 UTF8 mode on");
            return;
        }
        if (StringUtils::equalsIgnoreCase(cmd.words[2], "off")) {
            encoding_ =
                StringEncoding::encodingNumberForName("latin1").value_or(StringEncoding::UTF8);
            reply("200 UTF8 mode off");
            return;
        }
    }
    reply(fmt::format("501 Unknown command '{}'", shown(cmd.argument())));
}

void FtpConnection::doType(const FtpCommand& cmd) {
    auto type = cmd.argument();
    if (type.empty()) {
        reply("501 Syntax error in parameters or arguments.");
        return;
    }
    transferMode_ = type;
    reply(fmt::format("200 Type set to {}", shown(type)));
}

void FtpConnection::doPwd(const FtpCommand&) {
    reply(fmt::format("257 \"{}\" is the current directory.", shown(quotedForPwd(currentFolder_))));
}

void FtpConnection::doCwd(const FtpCommand& cmd) {
    auto vp = virtualPathOf(cmd.argument().empty() ? "/" : cmd.argument());
    auto folder = vp ? server_->root().open(*vp, O_PATH | O_DIRECTORY)
                     : FtpPath::Resolved<FtpPath::Fd>(std::unexpected(EINVAL));
    if (!folder || ::faccessat(folder->get(), ".", X_OK, 0) != 0) {
        reply("550 CWD failed.");
        return;
    }
    currentFolder_ = *vp;
    reply(fmt::format("250 OK. Current directory is {}", shown(currentFolder_)));
}

void FtpConnection::doCdUp(const FtpCommand&) {
    auto vp = virtualPathOf("..");
    if (!vp || !server_->root().open(*vp, O_PATH | O_DIRECTORY)) {
        reply("550 CDUP command failed.");
        return;
    }
    currentFolder_ = *vp;
    reply("250 CDUP command successful.");
}

void FtpConnection::doRest(const FtpCommand& cmd) {
    auto offset = parseUnsigned(cmd.argument());
    if (!offset || *offset > static_cast<std::uint64_t>(INT64_MAX)) {
        reply("501 Invalid REST parameter.");
        return;
    }
    lastRestPos_ = *offset;
    reply("350 Command successful.");
}

// ---- data connections ----

void FtpConnection::resetData() {
    asio::error_code ec;
    if (passiveSocket_) passiveSocket_->close(ec);
    passiveSocket_.reset();
    if (dataSocket_) {
        dataSocket_->shutdown(tcp::socket::shutdown_both, ec);
        dataSocket_->close(ec);
    }
    dataSocket_.reset();
    dataMode_ = DataMode::None;
    ++dataGeneration_;
}

void FtpConnection::openPassive(bool extended) {
    resetData();
    asio::error_code ec;
    auto local = control_.local_endpoint(ec);
    auto shownAddress = plainAddress(local.address());
    if (ec || (!extended && !shownAddress.is_v4())) {
        log("openDataSocket: Error");
        reply("425 Can't open data connection.");
        return;
    }
    // The port comes from a generator seeded with the time of day; a taken port draws again.
    timeval tv{};
    ::gettimeofday(&tv, nullptr);
    auto seconds = static_cast<std::uint32_t>(tv.tv_sec);
    std::uint32_t initial =
        ((seconds << 16) | (seconds >> 16)) + static_cast<std::uint32_t>(tv.tv_usec & 0xffff);
    std::minstd_rand random(initial);
    auto acceptor = std::make_unique<tcp::acceptor>(control_.get_executor());
    int port = 0;
    for (int attempt = 0; attempt < 64; ++attempt) {
        port = 1024 + static_cast<int>(random() % 64512);
        asio::error_code bindError;
        acceptor->open(local.protocol(), bindError);
        if (!bindError)
            acceptor->bind(tcp::endpoint(local.address(), static_cast<unsigned short>(port)),
                           bindError);
        if (!bindError) acceptor->listen(4, bindError);
        if (!bindError) break;
        acceptor->close(bindError);
        port = 0;
    }
    if (port == 0) {
        log("openDataSocket: Error");
        reply("425 Can't open data connection.");
        return;
    }
    passiveSocket_ = std::move(acceptor);
    dataMode_ = DataMode::Passive;
    acceptData();
    if (extended) {
        reply(fmt::format("229 Entering Extended Passive Mode (|||{}|)", port));
    } else {
        auto address = shownAddress.to_string();
        std::replace(address.begin(), address.end(), '.', ',');
        reply(fmt::format("227 Entering Passive Mode ({},{},{})", address, port >> 8, port & 0xff));
    }
}

void FtpConnection::acceptData() {
    if (!passiveSocket_) return;
    // The peer's address as accept() reports it: a client that has already reset its connection
    // (it gave up on the transfer) has no peer address any more by the time it is asked.
    auto peer = std::make_shared<tcp::endpoint>();
    passiveSocket_->async_accept(*peer, [self = shared_from_this(), peer,
                                         generation = dataGeneration_](const asio::error_code& ec,
                                                                       tcp::socket socket) {
        if (self->closed_ || generation != self->dataGeneration_ || !self->passiveSocket_) return;
        if (ec) {
            if (ec == asio::error::operation_aborted) return;
            self->acceptData();
            return;
        }
        if (plainAddress(peer->address()) != self->peerAddress_) {
            // Someone else than the client took the data port: drop it, keep waiting.
            self->log(fmt::format("dropped data connection from {}", peer->address().to_string()));
            asio::error_code closeError;
            socket.close(closeError);
            self->acceptData();
            return;
        }
        self->dataSocket_ = std::make_unique<tcp::socket>(std::move(socket));
        asio::error_code closeError;
        self->passiveSocket_->close(closeError);
        if (self->dataWaiter_) {
            auto waiter = std::move(self->dataWaiter_);
            self->dataWaiter_ = nullptr;
            self->dataTimer_.cancel();
            waiter(true);
        }
    });
}

void FtpConnection::doPasv(const FtpCommand&) {
    openPassive(false);
}

void FtpConnection::doEpsv(const FtpCommand& cmd) {
    if (StringUtils::equalsIgnoreCase(cmd.argument(), "all")) {
        reply("200 EPSV ALL command successful.");
        return;
    }
    openPassive(true);
}

void FtpConnection::doLprt(const FtpCommand&) {
    reply("228 Entering Long Passive Mode     (af, hal, h1, h2, h3,..., pal, p1, p2...)");
}

void FtpConnection::doPort(const FtpCommand& cmd) {
    resetData();
    std::vector<std::string> parts;
    std::string arg = cmd.argument();
    std::size_t pos = 0;
    while (true) {
        auto comma = arg.find(',', pos);
        parts.push_back(
            arg.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos));
        if (comma == std::string::npos) break;
        pos = comma + 1;
    }
    std::array<unsigned, 6> v{};
    bool valid = parts.size() == 6;
    for (std::size_t i = 0; valid && i < 6; ++i) {
        auto n = parseUnsigned(StringUtils::trim(parts[i]));
        valid = n && *n <= 255;
        if (valid) v[i] = static_cast<unsigned>(*n);
    }
    if (!valid) {
        reply("501 Syntax error in parameters or arguments.");
        return;
    }
    asio::ip::address_v4 address(asio::ip::address_v4::bytes_type{
        static_cast<unsigned char>(v[0]), static_cast<unsigned char>(v[1]),
        static_cast<unsigned char>(v[2]), static_cast<unsigned char>(v[3])});
    unsigned port = v[4] * 256 + v[5];
    // Data goes only to the client itself, never to a third host (FTP bounce) or a system port.
    if (asio::ip::address(address) != peerAddress_ || port < 1024) {
        log(fmt::format("refused PORT to {}:{}", address.to_string(), port));
        reply("500 Illegal PORT command.");
        return;
    }
    activeEndpoint_ = tcp::endpoint(address, static_cast<unsigned short>(port));
    dataMode_ = DataMode::Active;
    reply("200 PORT command successful.");
}

void FtpConnection::doEprt(const FtpCommand& cmd) {
    resetData();
    std::string arg = cmd.argument();
    std::vector<std::string> parts;
    std::size_t pos = 0;
    while (true) {
        auto bar = arg.find('|', pos);
        parts.push_back(arg.substr(pos, bar == std::string::npos ? std::string::npos : bar - pos));
        if (bar == std::string::npos) break;
        pos = bar + 1;
    }
    // "|af|address|port|" splits into five parts, the first and last empty.
    asio::error_code ec;
    std::optional<std::uint64_t> port;
    asio::ip::address address;
    bool valid = parts.size() == 5 && parts[0].empty() && parts[4].empty() &&
                 (parts[1] == "1" || parts[1] == "2");
    if (valid) {
        address = asio::ip::make_address(parts[2], ec);
        port = parseUnsigned(parts[3]);
        valid = !ec && port && *port <= 65535 && (parts[1] == "1") == address.is_v4();
    }
    if (!valid) {
        reply("501 Syntax error in parameters or arguments.");
        return;
    }
    if (plainAddress(address) != peerAddress_ || *port < 1024) {
        log(fmt::format("refused EPRT to {}:{}", address.to_string(), *port));
        reply("500 Illegal EPRT command.");
        return;
    }
    activeEndpoint_ = tcp::endpoint(address, static_cast<unsigned short>(*port));
    dataMode_ = DataMode::Active;
    reply("200 EPRT command successful.");
}

void FtpConnection::withDataConnection(std::function<void(bool)> then) {
    busy_ = true;
    auto timeout = server_->options().dataConnectionTimeout;
    if (dataMode_ == DataMode::Passive) {
        if (dataSocket_) {
            then(true);
            return;
        }
        dataWaiter_ = std::move(then);
        dataTimer_.expires_after(timeout);
        dataTimer_.async_wait([self = shared_from_this()](const asio::error_code& ec) {
            if (ec || self->closed_ || !self->dataWaiter_) return;
            auto waiter = std::move(self->dataWaiter_);
            self->dataWaiter_ = nullptr;
            waiter(false);
        });
        return;
    }
    if (dataMode_ == DataMode::Active) {
        dataSocket_ = std::make_unique<tcp::socket>(control_.get_executor());
        auto* socket = dataSocket_.get();
        dataWaiter_ = std::move(then);
        dataTimer_.expires_after(timeout);
        dataTimer_.async_wait([self = shared_from_this(), socket](const asio::error_code& ec) {
            if (ec || self->closed_ || self->dataSocket_.get() != socket) return;
            asio::error_code closeError;
            socket->close(closeError);  // the pending connect ends with an error
        });
        socket->async_connect(
            activeEndpoint_, [self = shared_from_this(), socket](const asio::error_code& ec) {
                if (self->closed_ || self->dataSocket_.get() != socket || !self->dataWaiter_)
                    return;
                self->dataTimer_.cancel();
                auto waiter = std::move(self->dataWaiter_);
                self->dataWaiter_ = nullptr;
                waiter(!ec);
            });
        return;
    }
    then(false);
}

void FtpConnection::finishTransfer(std::string_view replyText) {
    closeUpload(false);
    if (fileFd_ >= 0) {
        ::close(fileFd_);
        fileFd_ = -1;
    }
    receiveBuffer_.clear();
    receiveBuffer_.shrink_to_fit();
    resetData();
    lastRestPos_ = 0;
    if (!transferWhat_.empty())
        log(fmt::format("{} ({} bytes): {}", transferWhat_, transferBytes_,
                        replyText.substr(0, 3)));
    transferWhat_.clear();
    if (!changedFolder_.empty()) {
        server_->didReceiveFileListChanged(changedFolder_);
        changedFolder_.clear();
    }
    busy_ = false;
    resetIdleTimer();
    reply(replyText);
    processPending();
}

void FtpConnection::sendText(std::shared_ptr<std::string> text) {
    withDataConnection([self = shared_from_this(), text](bool ok) {
        if (!ok) {
            self->log("openDataSocket: Error");
            self->finishTransfer("425 Can't open data connection.");
            return;
        }
        self->transferBytes_ = text->size();
        asio::async_write(*self->dataSocket_, asio::buffer(*text),
                          [self, text](const asio::error_code& ec, std::size_t) {
                              if (self->closed_) return;
                              self->finishTransfer(ec ? "426 Connection closed; transfer aborted."
                                                      : "226 Transfer complete.");
                          });
    });
}

void FtpConnection::sendFileChunk() {
    if (closed_ || !dataSocket_) return;
    std::uint64_t sentNow = 0;
    while (fileOffset_ < fileEnd_) {
        if (sentNow >= kSendSliceBytes) {
            // Let the other sessions have the thread before sending more.
            asio::post(control_.get_executor(),
                       [self = shared_from_this()] { self->sendFileChunk(); });
            return;
        }
        auto offset = static_cast<off_t>(fileOffset_);
        auto want =
            static_cast<std::size_t>(std::min<std::uint64_t>(fileEnd_ - fileOffset_, 4u << 20));
        ssize_t n = ::sendfile(dataSocket_->native_handle(), fileFd_, &offset, want);
        if (n > 0) {
            fileOffset_ += static_cast<std::uint64_t>(n);
            transferBytes_ += static_cast<std::uint64_t>(n);
            sentNow += static_cast<std::uint64_t>(n);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
            if (sentNow > 0) resetIdleTimer();
            dataSocket_->async_wait(
                tcp::socket::wait_write, [self = shared_from_this()](const asio::error_code& ec) {
                    if (self->closed_) return;
                    if (ec) {
                        self->finishTransfer("426 Connection closed; transfer aborted.");
                        return;
                    }
                    self->sendFileChunk();
                });
            return;
        }
        if (n == 0) break;  // the file got shorter while it was being sent
        finishTransfer("426 Connection closed; transfer aborted.");
        return;
    }
    finishTransfer("226 Transfer complete.");
}

void FtpConnection::receiveFileChunk() {
    if (closed_ || !dataSocket_) return;
    dataSocket_->async_read_some(asio::buffer(receiveBuffer_), [self = shared_from_this()](
                                                                   const asio::error_code& ec,
                                                                   std::size_t n) {
        if (self->closed_ || self->fileFd_ < 0) return;
        std::size_t written = 0;
        while (written < n) {
            ssize_t w = ::write(self->fileFd_, self->receiveBuffer_.data() + written, n - written);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) {
                self->log(fmt::format("write failed: {}", std::strerror(errno)));
                self->finishTransfer("451 Requested action aborted: local error in processing.");
                return;
            }
            written += static_cast<std::size_t>(w);
        }
        self->transferBytes_ += n;
        if (ec == asio::error::eof) {
            self->finishTransfer(self->closeUpload(true)
                                     ? "226 Transfer complete."
                                     : "451 Requested action aborted: local error in processing.");
            return;
        }
        if (ec) {
            // A new file keeps what arrived, so REST and STOR can resume from SIZE; a file that
            // would have been replaced stays as it was.
            self->finishTransfer("426 Connection closed; transfer aborted.");
            return;
        }
        self->resetIdleTimer();
        self->receiveFileChunk();
    });
}

// ---- listings ----

void FtpConnection::sendListing(const FtpCommand& cmd, ListKind kind) {
    std::size_t first = 1;
    if (kind == ListKind::List || kind == ListKind::Nlst) {
        // Options such as "-la" come before the path; they change nothing here.
        while (first < cmd.words.size() && cmd.words[first].size() > 1 &&
               cmd.words[first][0] == '-')
            ++first;
    }
    std::string argument = cmd.argumentFrom(first);
    auto vp = virtualPathOf(argument);
    auto item = vp ? server_->root().open(*vp, O_PATH)
                   : FtpPath::Resolved<FtpPath::Fd>(std::unexpected(EINVAL));
    struct stat st {};
    if (!item || ::fstat(item->get(), &st) != 0) {
        reply(fmt::format("550 {} No such file or directory.", shown(argument)));
        return;
    }
    if (!dataConnectionPrepared()) {
        log("openDataSocket: Error");
        reply("425 Can't open data connection.");
        return;
    }
    std::vector<FtpListEntry> entries;
    if (S_ISDIR(st.st_mode) && kind != ListKind::Mlst) {
        entries = FtpListing::entriesOfFolder(server_->root(), *vp, item->get());
    } else {
        auto name = kind == ListKind::Mlst ? (argument.empty() ? currentFolder_ : argument)
                                           : StringUtils::lastPathComponent(*vp);
        if (auto e = FtpListing::entryOf(item->get(), name)) entries.push_back(*e);
    }
    bool writable = !anonymous_ || server_->options().allowAnonymousUploads;
    std::time_t now = std::time(nullptr);
    std::string text;
    for (const auto& e : entries) {
        switch (kind) {
            case ListKind::List:
                text += FtpListing::listLine(e, now);
                break;
            case ListKind::Nlst:
                text += e.name;
                break;
            case ListKind::Mlsd:
            case ListKind::Mlst:
                text += FtpListing::mlsxLine(e, writable);
                break;
        }
        text += "\r\n";
    }
    if (encoding_ != StringEncoding::UTF8) {
        if (auto converted = StringEncoding::fromUtf8(text, encoding_))
            text = std::move(*converted);
    }
    if (kind == ListKind::Mlst)
        reply(fmt::format("150 Opening BINARY mode data connection for '{}'.", shown(argument)));
    else
        reply("150 Accepted data connection");
    transferWhat_ = fmt::format("{} {}", StringUtils::toUpper(cmd.word), shown(argument));
    transferBytes_ = 0;
    sendText(std::make_shared<std::string>(std::move(text)));
}

void FtpConnection::doList(const FtpCommand& cmd) {
    sendListing(cmd, ListKind::List);
}
void FtpConnection::doNlst(const FtpCommand& cmd) {
    sendListing(cmd, ListKind::Nlst);
}
void FtpConnection::doMlsd(const FtpCommand& cmd) {
    sendListing(cmd, ListKind::Mlsd);
}
void FtpConnection::doMlst(const FtpCommand& cmd) {
    sendListing(cmd, ListKind::Mlst);
}

// ---- transfers ----

void FtpConnection::sendFile(FtpPath::Fd file, std::uint64_t size, std::string_view shownName) {
    if (!dataConnectionPrepared()) {
        log("openDataSocket: Error");
        reply("425 Can't open data connection.");
        return;
    }
    fileFd_ = file.release();
    fileOffset_ = std::min(lastRestPos_, size);
    fileEnd_ = size;
    lastRestPos_ = 0;
    transferBytes_ = 0;
    reply(fmt::format("150 Opening BINARY mode data connection for '{}'.", shownName));
    withDataConnection([self = shared_from_this()](bool ok) {
        if (!ok) {
            self->log("openDataSocket: Error");
            self->finishTransfer("425 Can't open data connection.");
            return;
        }
        asio::error_code ec;
        self->dataSocket_->native_non_blocking(true, ec);
        if (ec) {
            self->finishTransfer("426 Connection closed; transfer aborted.");
            return;
        }
        self->sendFileChunk();
    });
}

FtpPath::Resolved<FtpPath::Fd> FtpConnection::openDownload(const std::string& name,
                                                           int flags) const {
    if (name.empty()) return std::unexpected(ENOENT);
    if (!StringUtils::endsWith(name, kThumbnail)) return openItem(name, flags);
    std::string sourceName = name.substr(0, name.size() - kThumbnail.size());
    auto source = openItem(sourceName, O_PATH);
    const auto& provider = server_->options().thumbnailProvider;
    if (!source || !provider) return std::unexpected(ENOENT);
    auto thumbnail = provider(server_->root().localPath(
        source->get(), virtualPathOf(sourceName).value_or(std::string())));
    if (!thumbnail) return std::unexpected(ENOENT);
    // The thumbnail may live outside the shared folder (the thumbnail cache), by design.
    int extra = (flags & O_PATH) ? 0 : O_NONBLOCK | O_NOCTTY;
    FtpPath::Fd fd(::open(thumbnail->c_str(), flags | extra | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) return std::unexpected(errno);
    return fd;
}

void FtpConnection::doRetr(const FtpCommand& cmd) {
    std::string name = cmd.argument();
    auto file = openDownload(name, O_RDONLY);
    struct stat st {};
    // Only regular files are sent: a FIFO or a device could keep a read waiting forever, and
    // every session runs on this one thread.
    if (!file || ::fstat(file->get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        reply(fmt::format("550 {} No such file or directory.", shown(name)));
        return;
    }
    transferWhat_ = fmt::format("RETR {}", shown(name));
    sendFile(std::move(*file), static_cast<std::uint64_t>(st.st_size), shown(name));
}

void FtpConnection::doStor(const FtpCommand& cmd) {
    std::string name = cmd.argument();
    std::string denied = fmt::format("553 {}: Permission denied.", shown(name));
    if (!mayWrite(cmd, denied)) return;
    std::uint64_t offset = lastRestPos_;
    lastRestPos_ = 0;
    // A link in the last place is written through, to what it points to inside.
    auto entry = name.empty() ? FtpPath::Resolved<FtpPath::Entry>(std::unexpected(EINVAL))
                              : entryOf(name, true);
    if (!entry) {
        reply(denied);
        return;
    }
    // Everything that can be told now is checked before anything is opened, so that a refused
    // upload leaves nothing behind; the file itself is opened once the data connection is there.
    struct stat st {};
    bool exists =
        ::fstatat(entry->folder.get(), entry->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
    if (!exists && errno != ENOENT) {
        reply(denied);
        return;
    }
    if (exists && !S_ISREG(st.st_mode)) {
        reply(S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode)
                  ? denied
                  : fmt::format("550 {}: Not a regular file.", shown(name)));
        return;
    }
    if (offset > (exists ? static_cast<std::uint64_t>(st.st_size) : 0)) {
        reply("554 Restart offset beyond end of file.");
        return;
    }
    // A file is replaced through a new file beside it, so the folder must be writable too; a
    // read-only file stays as it is.
    bool inFolder = !exists || offset == 0;
    if ((exists && ::faccessat(entry->folder.get(), entry->name.c_str(), W_OK, 0) != 0) ||
        (inFolder && ::faccessat(entry->folder.get(), ".", W_OK, 0) != 0)) {
        reply(denied);
        return;
    }
    if (!dataConnectionPrepared()) {
        log("openDataSocket: Error");
        reply("425 Can't open data connection.");
        return;
    }
    changedFolder_ = folderPathOf(*entry, name);
    uploadFolder_ = std::move(entry->folder);
    uploadName_ = std::move(entry->name);
    uploadOffset_ = offset;
    transferBytes_ = 0;
    transferWhat_ = fmt::format("STOR {}{}", shown(name),
                                offset ? fmt::format(" from {}", offset) : std::string());
    reply(fmt::format("150 Opening BINARY mode data connection for '{}'.", shown(name)));
    withDataConnection([self = shared_from_this(), shownName = shown(name)](bool ok) {
        std::optional<std::string> failure;
        if (!ok) {
            self->log("openDataSocket: Error");
            failure = "425 Can't open data connection.";
        } else {
            failure = self->openUpload(shownName);
        }
        if (failure) {
            self->changedFolder_.clear();  // nothing was written
            self->finishTransfer(*failure);
            return;
        }
        self->receiveBuffer_.resize(kReceiveBufferBytes);
        self->receiveFileChunk();
    });
}

std::optional<std::string> FtpConnection::openUpload(std::string_view shownName) {
    int folder = uploadFolder_.get();
    const char* name = uploadName_.c_str();
    std::string denied = fmt::format("553 {}: Permission denied.", shownName);
    std::string notRegular = fmt::format("550 {}: Not a regular file.", shownName);
    // Without blocking: a FIFO swapped in must not hold up every session.
    constexpr int kWrite = O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    struct stat st {};
    if (uploadOffset_ > 0) {
        // Resuming writes in place and replaces everything from the offset on, so the file never
        // holds stale bytes.
        FtpPath::Fd file(::openat(folder, name, kWrite));
        if (!file || ::fstat(file.get(), &st) != 0) return errno == ENXIO ? notRegular : denied;
        if (!S_ISREG(st.st_mode)) return notRegular;
        if (uploadOffset_ > static_cast<std::uint64_t>(st.st_size))
            return "554 Restart offset beyond end of file.";
        auto offset = static_cast<off_t>(uploadOffset_);
        if (::ftruncate(file.get(), offset) != 0 || ::lseek(file.get(), offset, SEEK_SET) < 0)
            return denied;
        fileFd_ = file.release();
        return std::nullopt;
    }
    // A new name is written in place, so that an interrupted upload can be resumed.
    int fd = ::openat(folder, name, kWrite | O_CREAT | O_EXCL, 0644);
    if (fd >= 0) {
        fileFd_ = fd;
        return std::nullopt;
    }
    if (errno != EEXIST) return denied;
    // An existing file is replaced only by a complete upload, written under a temporary name
    // until then. Opening the old file for writing tells whether it may be replaced.
    FtpPath::Fd old(::openat(folder, name, kWrite));
    if (!old || ::fstat(old.get(), &st) != 0) return errno == ENXIO ? notRegular : denied;
    if (!S_ISREG(st.st_mode)) return notRegular;
    for (int attempt = 0; attempt < 8 && fd < 0; ++attempt) {
        uploadTemp_ = uploadTempName();
        fd = ::openat(folder, uploadTemp_.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0 && errno != EEXIST) break;
    }
    if (fd < 0) {
        uploadTemp_.clear();
        return denied;
    }
    // The new file takes over the old one's permissions, and its owner where that is allowed.
    if (::fchown(fd, st.st_uid, st.st_gid) != 0) {
        // Only root may give a file away; the uploading user keeps it otherwise.
    }
    ::fchmod(fd, st.st_mode & 0777);
    fileFd_ = fd;
    return std::nullopt;
}

bool FtpConnection::closeUpload(bool complete) {
    if (!uploadFolder_) return true;
    bool written = true;
    if (fileFd_ >= 0) {
        written = ::close(fileFd_) == 0;
        fileFd_ = -1;
    }
    bool placed = complete && written;
    if (!uploadTemp_.empty()) {
        if (placed)
            placed = ::renameat(uploadFolder_.get(), uploadTemp_.c_str(), uploadFolder_.get(),
                                uploadName_.c_str()) == 0;
        if (!placed) ::unlinkat(uploadFolder_.get(), uploadTemp_.c_str(), 0);
        uploadTemp_.clear();
    }
    uploadFolder_ = FtpPath::Fd();
    uploadName_.clear();
    return placed;
}

// ---- changes ----

void FtpConnection::doDele(const FtpCommand& cmd) {
    std::string name = cmd.argument();
    if (!mayWrite(cmd, "550 Permission denied.")) return;
    if (name.empty()) {
        reply("550 DELE command failed.");
        return;
    }
    auto entry = entryOf(name, false);
    struct stat st {};
    if (!entry ||
        ::fstatat(entry->folder.get(), entry->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        reply(fmt::format("550 {} No such file or directory.", shown(name)));
        return;
    }
    if (S_ISDIR(st.st_mode) || ::unlinkat(entry->folder.get(), entry->name.c_str(), 0) != 0) {
        reply(fmt::format("550 DELE {} unsuccessful.", shown(name)));
        return;
    }
    log(fmt::format("deleted {}", shown(name)));
    server_->didReceiveFileListChanged(folderPathOf(*entry, name));
    reply(fmt::format("250 DELE {} successful.", shown(name)));
}

void FtpConnection::doMkdir(const FtpCommand& cmd) {
    std::string name = cmd.argument();
    if (!mayWrite(cmd, "550 Permission denied.")) return;
    auto vp = name.empty() ? std::nullopt : virtualPathOf(name);
    auto entry =
        vp ? entryOf(name, false) : FtpPath::Resolved<FtpPath::Entry>(std::unexpected(EINVAL));
    if (!entry) {
        if (vp)
            log(fmt::format("Error {} not exists",
                            shown(StringUtils::stringByDeletingLastPathComponentDirectly(*vp))));
        reply("550 MKD command failed.");
        return;
    }
    if (::mkdirat(entry->folder.get(), entry->name.c_str(), 0755) != 0) {
        reply("550 MKD command failed.");
        return;
    }
    log(fmt::format("created folder {}", shown(*vp)));
    server_->didReceiveFileListChanged(folderPathOf(*entry, name));
    reply("250 MKD command successful.");
}

void FtpConnection::doRmdir(const FtpCommand& cmd) {
    std::string name = cmd.argument();
    if (!mayWrite(cmd, "550 Permission denied.")) return;
    auto entry = name.empty() ? FtpPath::Resolved<FtpPath::Entry>(std::unexpected(EINVAL))
                              : entryOf(name, false);
    struct stat st {};
    if (!entry ||
        ::fstatat(entry->folder.get(), entry->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISDIR(st.st_mode) ||
        ::unlinkat(entry->folder.get(), entry->name.c_str(), AT_REMOVEDIR) != 0) {
        reply("550 RMD command failed.");
        return;
    }
    log(fmt::format("removed folder {}", shown(name)));
    server_->didReceiveFileListChanged(folderPathOf(*entry, name));
    reply("250 RMD command successful.");
}

void FtpConnection::doRnfr(const FtpCommand& cmd) {
    std::string name = cmd.argument();
    rnfr_.reset();
    if (!mayWrite(cmd, "550 Permission denied.")) return;
    auto entry = name.empty() ? FtpPath::Resolved<FtpPath::Entry>(std::unexpected(EINVAL))
                              : entryOf(name, false);
    struct stat st {};
    if (!entry ||
        ::fstatat(entry->folder.get(), entry->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        reply("550 RNFR command failed.");
        return;
    }
    rnfr_ = virtualPathOf(name);
    reply("350 RNFR command successful.");
}

void FtpConnection::doRnto(const FtpCommand& cmd) {
    std::string name = cmd.argument();
    if (!mayWrite(cmd, "550 Permission denied.")) return;
    auto to = name.empty() ? FtpPath::Resolved<FtpPath::Entry>(std::unexpected(EINVAL))
                           : entryOf(name, false);
    auto from =
        rnfr_ ? entryOf(*rnfr_, false) : FtpPath::Resolved<FtpPath::Entry>(std::unexpected(ENOENT));
    if (!from || !to) {
        reply("550 RNTO command failed.");
        return;
    }
    struct stat st {};
    if (::fstatat(to->folder.get(), to->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        reply(S_ISDIR(st.st_mode) ? "550 RNTO command failed: Folder name has been taken."
                                  : "550 RNTO command failed: File name has been taken.");
        return;
    }
    // RENAME_NOREPLACE: an item that appeared since the check is never overwritten.
    if (::renameat2(from->folder.get(), from->name.c_str(), to->folder.get(), to->name.c_str(),
                    RENAME_NOREPLACE) != 0) {
        if (errno == EEXIST)
            reply("550 RNTO command failed: File name has been taken.");
        else
            reply("550 RNTO command failed.");
        return;
    }
    log(fmt::format("renamed {} to {}", shown(*rnfr_), shown(name)));
    auto fromFolder = folderPathOf(*from, *rnfr_);
    auto toFolder = folderPathOf(*to, name);
    server_->didReceiveFileListChanged(fromFolder);
    if (toFolder != fromFolder) server_->didReceiveFileListChanged(toFolder);
    rnfr_.reset();
    reply("250 RNTO command successful.");
}

// ---- file facts ----

void FtpConnection::doSize(const FtpCommand& cmd) {
    std::string name = cmd.argument();
    auto item = openDownload(name, O_PATH);
    struct stat st {};
    if (!item || ::fstat(item->get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        reply(fmt::format("550 {} No such file or directory.", shown(name)));
        return;
    }
    reply(fmt::format("213 {}", static_cast<std::uint64_t>(st.st_size)));
}

void FtpConnection::doMdtm(const FtpCommand& cmd) {
    std::string name = cmd.argument();
    auto item = name.empty() ? FtpPath::Resolved<FtpPath::Fd>(std::unexpected(ENOENT))
                             : openItem(name, O_PATH);
    struct stat st {};
    if (!item || ::fstat(item->get(), &st) != 0) {
        reply(fmt::format("550 No file named {}", shown(name)));
        return;
    }
    reply(fmt::format("213 {}", FtpListing::timeString(st.st_mtime)));
}

void FtpConnection::doMfmt(const FtpCommand& cmd) {
    if (!mayWrite(cmd, "550 Permission denied.")) return;
    auto when = cmd.words.size() >= 3 ? FtpListing::parseTimeString(cmd.words[1]) : std::nullopt;
    std::string name = cmd.argumentFrom(2);
    if (!when || name.empty()) {
        reply("500 Invalid MFMT command");
        return;
    }
    timespec times[2] = {{0, UTIME_OMIT}, {*when, 0}};
    auto vp = virtualPathOf(name);
    std::string folder;
    bool set = false;
    if (vp == "/") {
        set = ::utimensat(server_->root().fd(), ".", times, 0) == 0;
        folder = server_->root().path();
    } else if (auto entry = entryOf(name, true)) {
        set =
            ::utimensat(entry->folder.get(), entry->name.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
        folder = folderPathOf(*entry, name);
    }
    if (!set) {
        reply(fmt::format("550 No file named {}", shown(name)));
        return;
    }
    server_->didReceiveFileListChanged(folder);
    reply(fmt::format("213 Modify={}; {}", shown(cmd.words[1]), shown(name)));
}

}  // namespace quillon
