#include "app/cli/Cli.h"

#include <fmt/format.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>

#include "app/Application.h"
#include "clients/Clients.h"
#include "core/HostKeyPrompt.h"
#include "core/StringUtils.h"

namespace quillon::cli {

namespace {
bool verboseErrors = false;
}

std::string errorText(const Error& error) {
    std::string text = error.describe();
    if (!verboseErrors) return text;
    text += fmt::format("\n  domain {}, code {}, reason: {}", error.domain, error.code,
                        StringUtils::escapedForDisplay(error.reason));
    if (!error.serverReply.empty())
        text += fmt::format("\n  the server's reply: \"{}\"",
                            StringUtils::escapedForDisplay(error.serverReply));
    if (!error.request.empty())
        text += fmt::format("\n  to the request: \"{}\"",
                            StringUtils::escapedForDisplay(error.request));
    return text;
}

int reportError(const Error& error) {
    fmt::print(stderr, "quillon: {}\n", errorText(error));
    return kExitError;
}

int reportMessage(const std::string& message, int code) {
    fmt::print(stderr, "quillon: {}\n", message);
    return code;
}

int reportRefusal(const Refusal& refusal) {
    if (refusal.error) return reportError(*refusal.error);
    return reportMessage(refusal.message, refusal.badRequest ? kExitUsage : kExitError);
}

namespace {

// A host key the known_hosts file does not vouch for: asked on the terminal, or accepted when new
// with --accept-new-host-key; a changed key is only ever accepted by a person.
void installHostKeyAsker(bool acceptNew) {
    bool terminal = ::isatty(STDIN_FILENO) == 1;
    HostKeyPrompt::setAsker([acceptNew, terminal](const HostKeyQuestion& q) {
        static std::mutex oneAtATime;
        std::lock_guard lock(oneAtATime);
        if (acceptNew && !q.changed) {
            fmt::print(stderr, "quillon: adding the {} key of {} to the known hosts ({})\n",
                       q.keyType, q.host, q.fingerprint);
            return HostKeyAnswer::Accept;
        }
        if (!terminal) {
            if (q.changed)
                fmt::print(stderr,
                           "quillon: the host key of {} has CHANGED ({} {}); refusing to connect "
                           "without a terminal to ask on\n",
                           q.host, q.keyType, q.fingerprint);
            else
                fmt::print(stderr,
                           "quillon: the host key of {} is unknown ({} {}); run on a terminal to "
                           "be asked, or give --accept-new-host-key\n",
                           q.host, q.keyType, q.fingerprint);
            return HostKeyAnswer::Refuse;
        }
        std::fstream tty("/dev/tty", std::ios::in | std::ios::out);
        if (!tty) return HostKeyAnswer::Refuse;
        if (q.changed)
            tty << "WARNING: the host key of " << q.host
                << " has CHANGED. Someone may be intercepting the connection.\n";
        else
            tty << "The authenticity of " << q.host << " cannot be established.\n";
        tty << q.keyType << " key fingerprint is " << q.fingerprint << ".\n"
            << "Trust this key and remember it (yes/no)? " << std::flush;
        std::string answer;
        std::getline(tty, answer);
        return answer == "yes" ? HostKeyAnswer::Accept : HostKeyAnswer::Refuse;
    });
}

// The first word that names no command where one is required ("quillon frob", "quillon sync
// frob"), with the command it was given to; none when every command word is known.
std::optional<std::pair<std::string, std::string>> unknownCommand(CLI::App& app, int argc,
                                                                  char** argv) {
    CLI::App* current = &app;
    std::string path = "quillon";
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word == "--") return std::nullopt;
        if (word.starts_with('-')) continue;
        if (current->get_require_subcommand_min() == 0) return std::nullopt;
        auto found =
            current->get_subcommands([&word](CLI::App* sub) { return sub->check_name(word); });
        if (found.empty()) return std::make_pair(word, path);
        current = found.front();
        path += " " + current->get_name();
    }
    return std::nullopt;
}

// The one application object of a command-line run; started by the first command that needs it.
std::unique_ptr<Application>& application() {
    static std::unique_ptr<Application> app;
    return app;
}
}  // namespace

Status startApplication() {
    static std::optional<Status> started;
    if (started) return *started;
    ApplicationOptions options;
    // A short run merges the shared server list at once instead of on timers.
    options.delayedSteps = ApplicationOptions::DelayedSteps::Immediate;
    application() = std::make_unique<Application>(options);
    started = application()->start();
    if (*started)
        for (auto& warning : application()->warnings())
            fmt::print(stderr, "quillon: warning: {}\n", warning.describe());
    return *started;
}

std::optional<std::string> readPasswordFromStdin() {
    std::string line;
    if (!std::getline(std::cin, line)) return std::nullopt;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

bool displayAvailable() {
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY"}) {
        const char* value = std::getenv(name);
        if (value && *value) return true;
    }
    return false;
}

int run(int argc, char** argv, GuiLauncher gui) {
    Cli cli;
    if (argc <= 1 && gui && displayAvailable()) return gui(argc, argv, std::nullopt);
    cli.app.set_version_flag("--version", std::string("quillon ") + QUILLON_VERSION);
    cli.app.require_subcommand(1);
    bool acceptNewHostKey = false;
    cli.app.add_flag("--accept-new-host-key", acceptNewHostKey,
                     "Trust and remember an SFTP server's host key seen for the first time");
    bool verbose = false;
    cli.app.add_flag("-v,--verbose", verbose,
                     "After an error, also show its domain, code and reason, the server's reply "
                     "and the request it answered");
    // Given after the subcommand, too.
    cli.app.fallthrough();
    registerTypeCommand(cli);
    registerServeCommand(cli);
    registerStreamCommand(cli);
    registerServerCommands(cli);
    registerPrefsCommand(cli);
    registerFileCommands(cli);
    registerSyncCommands(cli);
    registerTransferCommands(cli);
    registerArchiveCommands(cli);
    registerNearbyCommands(cli);
    registerMediaCommands(cli);
    registerSmbCommands(cli);
    auto guiLocation = std::make_shared<std::optional<std::string>>();
    if (gui) {
        auto* cmd = cli.app.add_subcommand("gui", "Open the desktop window");
        cmd->add_option("LOCATION", *guiLocation, "Local path, NAME:/path or URL to show first");
        cmd->callback([&cli, &gui, argc, argv, guiLocation] {
            cli.action = [&gui, argc, argv, guiLocation] { return gui(argc, argv, *guiLocation); };
        });
    }
    if (argc <= 1) {
        fmt::print(stderr, "{}", cli.app.help());
        return kExitUsage;
    }
    if (auto unknown = unknownCommand(cli.app, argc, argv))
        return reportMessage(fmt::format("unknown command \"{}\"; `{} --help` lists the commands.",
                                         unknown->first, unknown->second),
                             kExitUsage);
    try {
        cli.app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = cli.app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    // `sync run -v` and `stream -v` take the flag for their own output as well.
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i)
        verbose = verbose || std::string_view(argv[i]) == "-v" ||
                  std::string_view(argv[i]) == "--verbose";
    verboseErrors = verbose;
    KvError::recordRequests(verbose);
    registerBuiltinClients();
    installHostKeyAsker(acceptNewHostKey);
    if (!cli.action) return kExitUsage;
    int rc = cli.action();
    if (application()) application()->stop();
    return rc;
}

}  // namespace quillon::cli
