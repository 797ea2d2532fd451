// quillon stream: serves one file to media players over HTTP on 127.0.0.1 until SIGINT, SIGTERM
// or SIGHUP; players seek with byte ranges, and what was fetched is read again from the disk cache.

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>

#include "app/cli/Cli.h"
#include "app/cli/StopSignals.h"
#include "core/Location.h"
#include "core/MainQueue.h"
#include "core/StreamingSupport.h"
#include "core/StringUtils.h"
#include "servers/streaming/StreamHttpServerService.h"
#include "servers/streaming/StreamingLog.h"

namespace quillon::cli {

namespace {

struct StreamOptions {
    std::string location;
    int port = StreamHttpServerService::kPlaybackPort;
    bool verbose = false;
};

void logLine(const std::string& line) {
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    auto t = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm tm{};
    ::localtime_r(&t, &tm);
    fmt::print(stderr, "{:%Y-%m-%d %H:%M:%S} http {}\n", tm, line);
    std::fflush(stderr);
}

int runStream(const StreamOptions& o) {
    bool stop = false;
    StopSignals signals(StopSignals::Second::Exit, [&stop](int sig) {
        logLine(fmt::format("received {}, stopping", StopSignals::name(sig)));
        stop = true;
    });

    if (auto r = startApplication(); !r) return reportError(r.error());
    auto loc = resolveLocation(o.location);
    if (!loc) return reportError(loc.error());
    auto item = statLocation(*loc);
    if (!item) return reportError(item.error());
    if (item->isDir) return reportMessage(loc->display() + " is a folder.", kExitUsage);
    if (!loc->isLocal() && !loc->client->capabilities().streaming)
        return reportMessage("Files on this server cannot be streamed yet.");

    auto& service = StreamHttpServerService::sharedHttpServerService();
    service.setLogHandler(logLine);
    if (o.verbose) StreamingLog::setHandler(logLine);
    service.setPort(o.port);
    if (auto started = service.startServer(); !started) return reportError(started.error());

    std::string relative = loc->path;
    while (!relative.empty() && relative.front() == '/') relative.erase(0, 1);
    // A remote client makes its URL (and offers the file); a local file is offered as it is.
    auto url = loc->isLocal() ? StreamingSupport::streamableURL(loc->server, *item, relative)
                              : loc->client->loadStreamableURLForFileSync(*item);
    if (!url || !url->starts_with("http://")) {
        service.stopServer();
        return reportMessage("The file cannot be offered for streaming.");
    }
    fmt::print("{}\n", *url);
    fmt::print(
        "Streaming {} ({} bytes); play it with a media player, for example: mpv {}\n"
        "Press Ctrl-C to stop.\n",
        loc->display(), item->fileSizeInBytes.value_or(0), *url);
    std::fflush(stdout);

    MainQueue::shared().runUntil([&stop] { return stop; });
    service.stopServer();
    StreamingLog::setHandler(nullptr);
    return kExitOk;
}

}  // namespace

void registerStreamCommand(Cli& cli) {
    auto* cmd = cli.app.add_subcommand(
        "stream", "Serve a file to media players over HTTP on 127.0.0.1 until Ctrl-C");
    auto o = std::make_shared<StreamOptions>();
    cmd->add_option("LOCATION", o->location, "File to serve (local path, NAME:/path or URL)")
        ->required();
    cmd->add_option("--port", o->port, "Port (default 21901; 0 picks a free one)")
        ->check(CLI::Range(0, 65535));
    cmd->add_flag("-v,--verbose", o->verbose, "Also log the disk cache's debug lines");
    cmd->callback([&cli, o] { cli.action = [o] { return runStream(*o); }; });
}

}  // namespace quillon::cli
