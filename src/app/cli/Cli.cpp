#include "app/cli/Cli.h"

#include <fmt/format.h>

#include <cstdio>
#include <iostream>

#include "clients/Clients.h"
#include "core/AppPreference.h"
#include "core/DBManager.h"

namespace quillon::cli {

int reportError(const Error& error) {
    fmt::print(stderr, "quillon: {}\n", error.describe());
    return kExitError;
}

int reportMessage(const std::string& message, int code) {
    fmt::print(stderr, "quillon: {}\n", message);
    return code;
}

Status startApplication() {
    static std::optional<Status> started;
    if (started) return *started;
    registerBuiltinClients();
    started = DBManager::sharedDBManager().openDB();
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
    registerServerCommands(cli);
    registerPrefsCommand(cli);
    registerFileCommands(cli);
    try {
        cli.app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int rc = cli.app.exit(e);
        return rc == 0 ? kExitOk : kExitUsage;
    }
    registerBuiltinClients();
    if (!cli.action) return kExitUsage;
    return cli.action();
}

}  // namespace quillon::cli
