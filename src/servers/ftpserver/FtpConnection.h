#pragma once
// FtpConnection: one client session of the built-in FTP server: the control channel, command
// dispatch through the server's command table, and the data connections of transfers.

#include <asio.hpp>

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "servers/ftpserver/FtpCommandParser.h"
#include "servers/ftpserver/FtpPath.h"

namespace quillon {

class FtpServer;
struct FtpListEntry;

class FtpConnection : public std::enable_shared_from_this<FtpConnection> {
  public:
    // A session on an accepted control socket; start() greets the client.
    FtpConnection(asio::ip::tcp::socket socket, std::shared_ptr<FtpServer> server);
    ~FtpConnection();
    FtpConnection(const FtpConnection&) = delete;
    FtpConnection& operator=(const FtpConnection&) = delete;

    // Sends the banner and starts reading commands.
    void start();
    // Ends the session at once: sockets closed, open files closed, the server told.
    void close();

    std::uint64_t sessionId() const { return id_; }
    // The folder the client is in, seen from the shared folder ("/" at the top).
    const std::string& currentFolder() const { return currentFolder_; }

    using Handler = void (FtpConnection::*)(const FtpCommand&);
    // Handler names as the command table names them ("doUser:arguments:") to the handlers.
    static const std::map<std::string, Handler, std::less<>>& handlers();

  private:
    enum class DataMode { None, Passive, Active };
    enum class ListKind { List, Nlst, Mlsd, Mlst };

    // Control channel.
    void readMore();
    void processPending();
    void handleLine(const std::string& raw);
    void reply(std::string_view text);
    void writeNext();
    void closeAfterReplies();
    void resetIdleTimer();
    void log(const std::string& line) const;
    std::string shown(std::string_view text) const;
    bool mayWrite(const FtpCommand& cmd, std::string_view deniedReply);

    // Login.
    void failedLogin(std::string replyText);

    // Paths. The visible path of an argument; the item it names, opened beneath the shared folder
    // with its links followed; the folder and name of the entry it names, a link in the last
    // place followed only when `followLast` (a link leading out of the shared folder is not
    // there at all).
    std::optional<std::string> virtualPathOf(std::string_view argument) const;
    FtpPath::Resolved<FtpPath::Fd> openItem(std::string_view argument, int flags) const;
    FtpPath::Resolved<FtpPath::Entry> entryOf(std::string_view argument, bool followLast) const;
    // What a download of `name` sends, opened with `flags`: the item itself, or for a name ending
    // in "::thumbnail" the thumbnail of the file before it.
    FtpPath::Resolved<FtpPath::Fd> openDownload(const std::string& name, int flags) const;
    // The local path of an entry's folder, for change notices.
    std::string folderPathOf(const FtpPath::Entry& entry, std::string_view argument) const;

    // Data connections.
    void openPassive(bool extended);
    void acceptData();
    void resetData();
    bool dataConnectionPrepared() const { return dataMode_ != DataMode::None; }
    void withDataConnection(std::function<void(bool)> then);
    void finishTransfer(std::string_view replyText);
    void sendText(std::shared_ptr<std::string> text);
    void sendFileChunk();
    void receiveFileChunk();
    void sendListing(const FtpCommand& cmd, ListKind kind);
    void sendFile(FtpPath::Fd file, std::uint64_t size, std::string_view shownName);
    // Opens the file of the upload set up by STOR, once its data connection is there; the reply
    // that ends the transfer when that fails.
    std::optional<std::string> openUpload(std::string_view shownName);
    // Ends the upload's file. A replacement takes the old file's place only when `complete`, and
    // is removed otherwise; false when it could not take its place.
    bool closeUpload(bool complete);

    // Handlers, one per command of the table.
    void doUser(const FtpCommand& cmd);
    void doPass(const FtpCommand& cmd);
    void doQuit(const FtpCommand& cmd);
    void doSyst(const FtpCommand& cmd);
    void doNoop(const FtpCommand& cmd);
    void doStat(const FtpCommand& cmd);
    void doFeat(const FtpCommand& cmd);
    void doOpts(const FtpCommand& cmd);
    void doType(const FtpCommand& cmd);
    void doPwd(const FtpCommand& cmd);
    void doCwd(const FtpCommand& cmd);
    void doCdUp(const FtpCommand& cmd);
    void doPasv(const FtpCommand& cmd);
    void doEpsv(const FtpCommand& cmd);
    void doLprt(const FtpCommand& cmd);
    void doPort(const FtpCommand& cmd);
    void doEprt(const FtpCommand& cmd);
    void doList(const FtpCommand& cmd);
    void doNlst(const FtpCommand& cmd);
    void doMlsd(const FtpCommand& cmd);
    void doMlst(const FtpCommand& cmd);
    void doRetr(const FtpCommand& cmd);
    void doStor(const FtpCommand& cmd);
    void doRest(const FtpCommand& cmd);
    void doDele(const FtpCommand& cmd);
    void doMkdir(const FtpCommand& cmd);
    void doRmdir(const FtpCommand& cmd);
    void doRnfr(const FtpCommand& cmd);
    void doRnto(const FtpCommand& cmd);
    void doSize(const FtpCommand& cmd);
    void doMdtm(const FtpCommand& cmd);
    void doMfmt(const FtpCommand& cmd);

    asio::ip::tcp::socket control_;
    std::shared_ptr<FtpServer> server_;
    std::uint64_t id_;
    asio::ip::address peerAddress_;  // IPv4-mapped addresses as IPv4
    std::string peerText_;
    FtpLineBuffer lines_;
    std::array<char, 8192> readBuffer_{};
    std::deque<std::string> outbox_;
    std::size_t outboxBytes_ = 0;
    bool reading_ = false;
    bool writing_ = false;
    bool busy_ = false;  // a transfer or a login delay holds further commands back
    bool closeAfterWrite_ = false;
    bool closed_ = false;
    asio::steady_timer idleTimer_;
    asio::steady_timer delayTimer_;
    asio::steady_timer dataTimer_;
    unsigned long encoding_;

    // Login state.
    bool loggedIn_ = false;
    bool anonymous_ = false;
    std::optional<std::string> pendingUser_;
    std::string user_;
    unsigned failedLogins_ = 0;

    // Session state.
    std::string currentFolder_ = "/";
    std::string transferMode_ = "I";
    std::uint64_t lastRestPos_ = 0;
    std::optional<std::string> rnfr_;  // seen from the shared folder

    // Data connection and the transfer running on it.
    DataMode dataMode_ = DataMode::None;
    std::uint64_t dataGeneration_ = 0;  // counts resets, so late handlers of old sockets stand down
    std::unique_ptr<asio::ip::tcp::acceptor> passiveSocket_;
    std::unique_ptr<asio::ip::tcp::socket> dataSocket_;
    asio::ip::tcp::endpoint activeEndpoint_;
    std::function<void(bool)> dataWaiter_;
    int fileFd_ = -1;
    std::uint64_t fileOffset_ = 0;
    std::uint64_t fileEnd_ = 0;
    std::uint64_t transferBytes_ = 0;
    std::string transferWhat_;
    std::vector<char> receiveBuffer_;
    std::string changedFolder_;  // a folder to report once an upload ends
    // The upload STOR set up: its folder, its name there, where it resumes, and the temporary
    // name it is written under while it would replace an existing file.
    FtpPath::Fd uploadFolder_;
    std::string uploadName_;
    std::uint64_t uploadOffset_ = 0;
    std::string uploadTemp_;
};

}  // namespace quillon
