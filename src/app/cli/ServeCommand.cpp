// quillon serve ftp: shares a local folder over FTP until SIGINT, SIGTERM or SIGHUP.

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>

#include "app/cli/Cli.h"
#include "app/cli/StopSignals.h"
#include "core/MainQueue.h"
#include "servers/ftpserver/FtpServerService.h"

namespace quillon::cli {

namespace {

struct ServeFtpOptions {
    std::string folder;
    int port = FtpServerService::kDefaultPort;
    std::string user;
    std::string password;
    bool passwordStdin = false;
    std::string bind = "0.0.0.0";
    std::size_t maxSessions = 50;
    int idleTimeout = 300;
    bool allowAnonymousUpload = false;
    CLI::Option* portOption = nullptr;
    CLI::Option* userOption = nullptr;
    CLI::Option* passwordOption = nullptr;
};

// One line on standard error per server event, with the time; lines from the server's thread and
// the main thread never interleave.
void logLine(const std::string& line) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    auto now = std::chrono::system_clock::now();
    auto t = std::chrono::system_clock::to_time_t(now);
    std::tm tm{};
    ::localtime_r(&t, &tm);
    fmt::print(stderr, "{:%Y-%m-%d %H:%M:%S} ftp {}\n", tm, line);
    std::fflush(stderr);
}

int runServeFtp(ServeFtpOptions& o) {
    FtpServerService service;
    service.loadSettings();
    // What is shared and with whom when the command line does not say: told before the server
    // opens, so nobody shares a folder or opens it to everyone without knowing.
    std::string folderFrom = "given";
    if (!o.folder.empty())
        service.rootFolder = o.folder;
    else if (!service.rootFolder.empty())
        folderFrom = "the FTP_SERVER_LOCATION preference";
    if (service.rootFolder.empty()) {
        std::error_code ec;
        service.rootFolder = std::filesystem::current_path(ec).string();
        folderFrom = "the current folder: no FOLDER given";
    }
    std::error_code ec;
    if (!std::filesystem::is_directory(service.rootFolder, ec))
        return reportMessage(fmt::format("{}: no such folder", service.rootFolder), kExitUsage);
    service.rootFolder = std::filesystem::canonical(service.rootFolder, ec).string();
    if (o.portOption->count() > 0) service.port = o.port;
    if (o.userOption->count() > 0) service.username = o.user;
    if (o.passwordStdin) {
        auto password = readPasswordFromStdin();
        if (!password) return reportMessage("No password on standard input.", kExitUsage);
        service.password = *password;
    } else if (o.passwordOption->count() > 0) {
        service.password = o.password;
    }
    service.bindAddress = o.bind;
    service.maxSessions = o.maxSessions;
    service.idleTimeout = std::chrono::seconds(o.idleTimeout);
    service.allowAnonymousUploads = o.allowAnonymousUpload;
    service.logHandler = logLine;

    bool stop = false;
    StopSignals signals(StopSignals::Second::Exit, [&stop](int sig) {
        logLine(fmt::format("received {}, stopping", StopSignals::name(sig)));
        stop = true;
    });
    bool anonymous = service.username.empty() || service.username == "anonymous";
    if (o.folder.empty())
        fmt::print(stderr, "quillon: sharing {} ({})\n", service.rootFolder, folderFrom);
    if (o.userOption->count() == 0)
        fmt::print(stderr, "quillon: {}\n",
                   anonymous ? fmt::format("no --user given: anyone may log in, without a password "
                                           "({})",
                                           o.allowAnonymousUpload ? "uploads allowed" : "read-only")
                             : fmt::format("no --user given: logging in as {} (the "
                                           "FTP_SERVER_USERNAME preference)",
                                           service.username));
    std::fflush(stderr);
    if (auto started = service.startServer(); !started) return reportError(started.error());

    std::string host = o.bind;
    if (host == "0.0.0.0" || host == "::") {
        host = service.localIPAddress();
        if (host == "0.0.0.0") host = "127.0.0.1";
    }
    if (host.find(':') != std::string::npos) host = "[" + host + "]";
    std::string who = anonymous ? std::string() : service.username + "@";
    fmt::print("Sharing {} over FTP\n", service.rootFolder);
    fmt::print("Connect to ftp://{}{}:{}/\n", who, host, service.listeningPort());
    if (anonymous)
        fmt::print("Anyone may log in ({}); press Ctrl-C to stop.\n",
                   o.allowAnonymousUpload ? "uploads allowed" : "read-only");
    else
        fmt::print("Log in as {}; press Ctrl-C to stop.\n", service.username);
    std::fflush(stdout);

    MainQueue::shared().runUntil([&stop] { return stop; });
    service.stopServer();
    return kExitOk;
}

}  // namespace

void registerServeCommand(Cli& cli) {
    auto* serve = cli.app.add_subcommand("serve", "Share a local folder with a built-in server");
    serve->require_subcommand(1);
    auto* ftp = serve->add_subcommand(
        "ftp", "Share a folder over FTP until Ctrl-C; sessions are logged on standard error");
    auto o = std::make_shared<ServeFtpOptions>();
    ftp->add_option("FOLDER", o->folder,
                    "Folder to share (default: the FTP_SERVER_LOCATION preference, else the "
                    "current folder)");
    o->portOption = ftp->add_option("--port", o->port,
                                    "Port (default: the FTP_SERVER_PORT preference, else 2121; 0 "
                                    "picks a free one)")
                        ->check(CLI::Range(0, 65535));
    o->userOption =
        ftp->add_option("--user", o->user,
                        "User name to log in with (default: FTP_SERVER_USERNAME; empty: anyone)");
    o->passwordOption = ftp->add_option("--password", o->password, "Password of that user");
    auto* stdinFlag = ftp->add_flag("--password-stdin", o->passwordStdin,
                                    "Read the password from standard input");
    o->passwordOption->excludes(stdinFlag);
    ftp->add_option("--bind", o->bind, "Address to listen on (default 0.0.0.0: every interface)");
    ftp->add_option("--max-sessions", o->maxSessions, "Sessions open at once (default 50)")
        ->check(CLI::Range(1, 100000));
    ftp->add_option("--idle-timeout", o->idleTimeout,
                    "Seconds before an idle session is closed (default 300)")
        ->check(CLI::Range(1, 86400));
    ftp->add_flag("--allow-anonymous-upload", o->allowAnonymousUpload,
                  "Let anonymous sessions upload, rename and delete");
    ftp->callback([&cli, o] { cli.action = [o] { return runServeFtp(*o); }; });
}

}  // namespace quillon::cli
