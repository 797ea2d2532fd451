#include "app/cli/Cli.h"

#include <fmt/format.h>

#include <cstdio>
#include <iostream>
#include <memory>

#include "app/Application.h"
#include "clients/Clients.h"

namespace quillon::cli {

int reportError(const Error& error) {
    fmt::print(stderr, "quillon: {}\n", error.describe());
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

int run(int argc, char** argv) {
    Cli cli;
    cli.app.set_version_flag("--version", std::string("quillon ") + QUILLON_VERSION);
    cli.app.require_subcommand(1);
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
    registerSmbCommands(cli);
    try {
        cli.app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = cli.app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    registerBuiltinClients();
    if (!cli.action) return kExitUsage;
    int rc = cli.action();
    if (application()) application()->stop();
    return rc;
}

}  // namespace quillon::cli
