#include "app/cli/Cli.h"

#include <fmt/format.h>

#include <cstdio>

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

int run(int argc, char** argv) {
    Cli cli;
    cli.app.set_version_flag("--version", std::string("quillon ") + QUILLON_VERSION);
    cli.app.require_subcommand(1);
    registerTypeCommand(cli);
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
