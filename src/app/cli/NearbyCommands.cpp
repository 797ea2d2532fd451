// quillon nearby: receives files from nearby machines, lists the machines DNS-SD finds, and sends
// files to one of them (or to HOST[:PORT]) over the nearby socket protocol.

#include <fmt/format.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <any>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "app/cli/Cli.h"
#include "app/cli/Json.h"
#include "app/cli/ProgressView.h"
#include "app/cli/StopSignals.h"
#include "core/Location.h"
#include "core/MainQueue.h"
#include "core/NotificationCenter.h"
#include "nearby/NearbyController.h"

namespace quillon::cli {

namespace {

using Clock = std::chrono::steady_clock;

// Observes one controller's notifications for the life of the object.
class NearbyEvents {
  public:
    NearbyEvents(const NearbyController& controller) : controller_(&controller) {}
    ~NearbyEvents() {
        for (auto token : tokens_) NotificationCenter::defaultCenter().removeObserver(token);
    }
    NearbyEvents(const NearbyEvents&) = delete;
    NearbyEvents& operator=(const NearbyEvents&) = delete;

    using Handler =
        std::function<void(const NearbyTransferMetadata* item, const std::optional<Error>& error)>;
    void on(std::string_view name, Handler handler) {
        tokens_.push_back(NotificationCenter::defaultCenter().addObserver(
            name, [this, handler = std::move(handler)](const UserInfo& info) {
                auto who = info.find(std::string(NEARBY_CONTROLLER));
                if (who == info.end() ||
                    std::any_cast<const NearbyController*>(who->second) != controller_)
                    return;
                const NearbyTransferMetadata* item = nullptr;
                if (auto it = info.find(std::string(NEARBY_ITEM)); it != info.end())
                    item = std::any_cast<std::shared_ptr<const NearbyTransferMetadata>>(it->second)
                               .get();
                std::optional<Error> error;
                if (auto it = info.find(std::string(NEARBY_ERROR)); it != info.end())
                    error = std::any_cast<Error>(it->second);
                handler(item, error);
            }));
    }

  private:
    const NearbyController* controller_;
    std::vector<NotificationCenter::Token> tokens_;
};

// The live line of the file in flight on standard error, as `quillon cp` draws it: redrawn in
// place on a terminal, every 2 s otherwise.
class NearbyConsole {
  public:
    NearbyConsole() : terminal_(::isatty(STDERR_FILENO) == 1) {}

    void progress(const NearbyTransferMetadata& item) {
        auto now = Clock::now();
        if (&item != current_) {
            current_ = &item;
            rate_.reset();
            lastPlain_ = now;  // a plain line only for a file that takes a while
        }
        rate_.sample(item.transferredBytes, now);
        name_ = item.name;
        done_ = item.transferredBytes;
        total_ = item.fileSize;
    }
    void ended() {
        current_ = nullptr;
        clear();
    }
    // Prints a line of its own on `out`.
    void message(std::FILE* out, const std::string& text) {
        clear();
        fmt::print(out, "{}\n", text);
        std::fflush(out);
    }
    void tick() {
        if (!current_) return;
        auto now = Clock::now();
        if (!terminal_) {
            if (now - lastPlain_ < std::chrono::seconds(2)) return;
            lastPlain_ = now;
            fmt::print(stderr, "{}\n", progressLine(name_, done_, total_, rate_.rate(), 0));
            std::fflush(stderr);
            return;
        }
        std::size_t width = 100;
        struct winsize ws {};
        if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) width = ws.ws_col;
        clear();
        fmt::print(stderr, "{}\n", progressLine(name_, done_, total_, rate_.rate(), width));
        drawn_ = true;
        std::fflush(stderr);
    }

  private:
    void clear() {
        if (!drawn_) return;
        fmt::print(stderr, "\x1b[1F\x1b[J");
        drawn_ = false;
    }

    bool terminal_;
    bool drawn_ = false;
    const NearbyTransferMetadata* current_ = nullptr;
    std::string name_;
    std::int64_t done_ = 0, total_ = 0;
    RateEstimator rate_;
    Clock::time_point lastPlain_{};
};

// Runs the main queue until `done`, drawing progress ten times a second.
void runWithConsole(NearbyConsole& console, const std::function<bool()>& done) {
    auto& queue = MainQueue::shared();
    auto timer =
        queue.scheduleRepeating(std::chrono::milliseconds(100), [&console] { console.tick(); });
    queue.runUntil([&] { return done() || StopSignals::stopRequested(); });
    queue.cancel(timer);
}

// A name as a sender announced it, safe to print: control characters become escapes.
std::string printable(const std::string& name) {
    std::string out;
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7f)
            out += fmt::format("\\x{:02x}", c);
        else
            out += static_cast<char>(c);
    }
    return out;
}

std::string elapsedText(Clock::time_point since) {
    return formatDuration(std::chrono::duration<double>(Clock::now() - since).count());
}

// ---- receive ------------------------------------------------------------------------------

struct ReceiveOptions {
    std::string folder;
    bool once = false;
    std::string bind;
    int port = NearbyProtocol::kPort;
};

bool isLoopback(const std::string& address) {
    asio::error_code ec;
    auto ip = asio::ip::make_address(address, ec);
    return !ec && ip.is_loopback();
}

int runReceive(const ReceiveOptions& o) {
    if (auto started = startApplication(); !started) return reportError(started.error());
    auto controller = NearbyController::create();
    NearbyConsole console;
    NearbyEvents events(*controller);
    bool ended = false, anyFailed = false;
    std::optional<Error> endError;
    std::map<const NearbyTransferMetadata*, Clock::time_point> started;
    events.on(NEARBY_ITEM_CHANGED_NOTIFICATION, [&](const NearbyTransferMetadata* item,
                                                    const std::optional<Error>& error) {
        if (!item) return;
        if (item->status == NearbyStatus::Transferring) {
            started.try_emplace(item, Clock::now());
            console.progress(*item);
            return;
        }
        console.ended();
        if (item->status == NearbyStatus::Finished) {
            auto since = started.contains(item) ? started[item] : Clock::now();
            console.message(stdout,
                            fmt::format("received {} -> {}  {} in {}", item->name, item->path,
                                        formatBytes(item->transferredBytes), elapsedText(since)));
        } else {
            anyFailed = true;
            console.message(
                stderr, fmt::format("quillon: receiving \"{}\" failed: {}", printable(item->name),
                                    error ? error->describe() : "stopped"));
        }
        started.erase(item);
    });
    events.on(NEARBY_DISCOVERY_FAILED_NOTIFICATION, [&](const NearbyTransferMetadata*,
                                                        const std::optional<Error>& error) {
        console.message(stderr, fmt::format("quillon: warning: {}; senders must give this "
                                            "machine's address",
                                            error ? error->reason : "discovery failed"));
    });
    events.on(NEARBY_RECEIVING_ENDED_NOTIFICATION,
              [&](const NearbyTransferMetadata*, const std::optional<Error>& error) {
                  ended = true;
                  endError = error;
              });

    // SIGINT, SIGTERM and SIGHUP end the command at the next turn of the main queue.
    StopSignals signals(StopSignals::Second::Ignore);
    NearbyReceiveOptions options;
    options.folder = o.folder;
    options.bindAddress = o.bind;
    options.port = o.port;
    options.once = o.once;
    // A receiver bound to loopback only is not announced on the network.
    options.publish = o.bind.empty() || !isLoopback(o.bind);
    if (auto r = controller->startReceiving(options); !r) return reportError(r.error());
    fmt::print("Receiving into {} on {} port {}{}\n", controller->receiveFolder(),
               o.bind.empty() ? "every interface" : o.bind, controller->receivingPort(),
               o.once ? " (one batch)" : "; press Ctrl-C to stop");
    std::fflush(stdout);
    runWithConsole(console, [&] { return ended; });
    controller->stopReceiving();
    console.ended();
    if (endError) return reportError(*endError);
    return anyFailed ? kExitError : kExitOk;
}

// ---- peers --------------------------------------------------------------------------------

int runPeers(bool json, double seconds) {
    auto controller = NearbyController::create();
    NearbyEvents events(*controller);
    std::optional<Error> failure;
    events.on(
        NEARBY_DISCOVERY_FAILED_NOTIFICATION,
        [&](const NearbyTransferMetadata*, const std::optional<Error>& error) { failure = error; });
    if (auto r = controller->startBrowsing(); !r) return reportError(r.error());
    // SIGINT, SIGTERM and SIGHUP end the command at the next turn of the main queue.
    StopSignals signals(StopSignals::Second::Ignore);
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double>(seconds));
    auto wake = MainQueue::shared().postAfter(deadline - Clock::now(), [] {});
    MainQueue::shared().runUntil(
        [&] { return failure || StopSignals::stopRequested() || Clock::now() >= deadline; });
    MainQueue::shared().cancel(wake);
    if (failure) return reportError(*failure);
    auto addressText = [](const asio::ip::tcp::endpoint& e) {
        auto ip = e.address().to_string();
        return e.address().is_v6() ? fmt::format("[{}]:{}", ip, e.port())
                                   : fmt::format("{}:{}", ip, e.port());
    };
    if (json) {
        std::string out = "[";
        for (auto& peer : controller->devices()) {
            if (out.size() > 1) out += ",";
            std::string addresses, host;
            if (peer.netService) {
                host = peer.netService->hostName;
                for (auto& a : peer.netService->addresses)
                    addresses += (addresses.empty() ? "" : ",") + jsonString(addressText(a));
            }
            out += fmt::format("{{\"name\":{},\"host\":{},\"addresses\":[{}]}}",
                               jsonString(peer.hostname), jsonString(host), addresses);
        }
        fmt::print("{}]\n", out);
        return kExitOk;
    }
    if (controller->devices().empty()) fmt::print(stderr, "No nearby devices found.\n");
    for (auto& peer : controller->devices()) {
        std::string where;
        if (peer.netService && !peer.netService->addresses.empty())
            where = peer.netService->hostName + "  " + addressText(peer.netService->addresses[0]);
        fmt::print("{}\t{}\n", peer.hostname, where);
    }
    return kExitOk;
}

// ---- send ---------------------------------------------------------------------------------

int runSend(const std::string& target, const std::vector<std::string>& paths) {
    if (auto started = startApplication(); !started) return reportError(started.error());
    KvMetadataList items;
    for (auto& path : paths) {
        auto location = resolveLocation(path);
        if (!location) return reportError(location.error());
        items.push_back(location->metadata(false));
    }
    auto controller = NearbyController::create();
    NearbyConsole console;
    NearbyEvents events(*controller);
    bool ended = false;
    std::optional<Error> batchError;
    std::map<const NearbyTransferMetadata*, Clock::time_point> started;
    events.on(NEARBY_ITEM_CHANGED_NOTIFICATION, [&](const NearbyTransferMetadata* item,
                                                    const std::optional<Error>&) {
        if (!item) return;
        if (item->status == NearbyStatus::Waiting || item->status == NearbyStatus::Transferring) {
            started.try_emplace(item, Clock::now());
            console.progress(*item);
            return;
        }
        console.ended();
        if (item->status == NearbyStatus::Finished)
            console.message(
                stdout,
                fmt::format("sent {}  {} in {}", item->name, formatBytes(item->fileSize),
                            elapsedText(started.contains(item) ? started[item] : Clock::now())));
    });
    events.on(NEARBY_BATCH_ENDED_NOTIFICATION,
              [&](const NearbyTransferMetadata*, const std::optional<Error>& error) {
                  ended = true;
                  batchError = error;
              });
    // SIGINT, SIGTERM and SIGHUP end the command at the next turn of the main queue.
    StopSignals signals(StopSignals::Second::Ignore);
    if (auto r = controller->sendItems(items, target); !r) return reportError(r.error());
    runWithConsole(console, [&] { return ended; });
    console.ended();
    if (!ended) {
        controller->stopBatch();
        return 128 + StopSignals::signal();
    }
    if (batchError) return reportError(*batchError);
    return kExitOk;
}

}  // namespace

void registerNearbyCommands(Cli& cli) {
    auto* nearby = cli.app.add_subcommand(
        "nearby", "Send files to and receive files from Quillon on nearby machines");
    nearby->require_subcommand(1);

    auto* receive = nearby->add_subcommand(
        "receive",
        "Receive files until Ctrl-C (or one batch with --once), announcing this machine over "
        "DNS-SD; each file is printed as it arrives");
    auto ro = std::make_shared<ReceiveOptions>();
    receive->add_option("--to", ro->folder,
                        "Folder for received files (default: the \"Nearby Location\" setting, "
                        "else Downloads)");
    receive->add_flag("--once", ro->once, "Stop after the first batch");
    receive->add_option("--bind", ro->bind,
                        "Address to listen on (default: every interface; a loopback address is "
                        "not announced)");
    receive->add_option("--port", ro->port, "Port (default 4713; 0 picks a free one)")
        ->check(CLI::Range(0, 65535));
    receive->callback([&cli, ro] { cli.action = [ro] { return runReceive(*ro); }; });

    auto* peers = nearby->add_subcommand(
        "peers", "List the nearby machines that receive files (browses for a few seconds)");
    auto json = std::make_shared<bool>(false);
    auto seconds = std::make_shared<double>(4.0);
    peers->add_flag("--json", *json, "Print a JSON array");
    peers->add_option("--seconds", *seconds, "How long to browse (default 4)")
        ->check(CLI::Range(0.1, 600.0));
    peers->callback([&cli, json, seconds] {
        cli.action = [json, seconds] { return runPeers(*json, *seconds); };
    });

    auto* send = nearby->add_subcommand(
        "send",
        "Send files and folders to a nearby machine: a name from `quillon nearby peers`, or "
        "HOST[:PORT]");
    auto target = std::make_shared<std::string>();
    auto paths = std::make_shared<std::vector<std::string>>();
    send->add_option("PEER", *target, "Device name, or HOST[:PORT] (port 4713 by default)")
        ->required();
    send->add_option("PATH", *paths, "Local files and folders to send")->required();
    send->callback([&cli, target, paths] {
        cli.action = [target, paths] { return runSend(*target, *paths); };
    });
}

}  // namespace quillon::cli
