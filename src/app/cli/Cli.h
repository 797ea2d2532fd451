#pragma once
// The quillon command: subcommands register themselves on the CLI11 application; the chosen
// one's action runs after parsing. Exit status: 0 success, 1 operation error, 2 usage error.

#include <CLI/CLI.hpp>

#include <functional>
#include <optional>
#include <string>

#include "core/Error.h"
#include "core/Refusal.h"

namespace quillon::cli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitError = 1;
inline constexpr int kExitUsage = 2;

struct Cli {
    CLI::App app{"Quillon: browse, copy, sync and share files on local disks and servers",
                 "quillon"};
    // Set by the chosen subcommand's callback; returns the exit status.
    std::function<int()> action;
};

// The error as a person reads it (Error::describe); with -v its parts follow on lines of their
// own: domain, code and reason, the server's reply and the request it answered.
std::string errorText(const Error& error);
// Prints "quillon: " and the error's text on standard error and returns kExitError.
int reportError(const Error& error);
// Prints "quillon: <message>" on standard error and returns `code`.
int reportMessage(const std::string& message, int code = kExitError);
// Prints a refused request as an error or a message; returns kExitUsage for a malformed request,
// else kExitError.
int reportRefusal(const Refusal& refusal);

// Prepares the program for a command that uses servers, preferences or files: preferences,
// the database, the storage clients. Fails with a clear error (a corrupt file, say).
Status startApplication();
// A password given with --password or read from standard input (--password-stdin).
std::optional<std::string> readPasswordFromStdin();

// Subcommand groups.
void registerTypeCommand(Cli& cli);
void registerServeCommand(Cli& cli);
void registerStreamCommand(Cli& cli);
void registerServerCommands(Cli& cli);
void registerPrefsCommand(Cli& cli);
void registerFileCommands(Cli& cli);
void registerSyncCommands(Cli& cli);
void registerTransferCommands(Cli& cli);
void registerArchiveCommands(Cli& cli);
void registerNearbyCommands(Cli& cli);
void registerMediaCommands(Cli& cli);
void registerSmbCommands(Cli& cli);

// Opens the desktop window, at `location` when given; returns the exit status.
using GuiLauncher =
    std::function<int(int argc, char** argv, const std::optional<std::string>& location)>;

// Whether a desktop display is there to open a window on (DISPLAY or WAYLAND_DISPLAY is set).
bool displayAvailable();

// Parses and runs; returns the exit status. With `gui`, "quillon gui [LOCATION]" opens the
// window, and so does "quillon" alone when a display is available (it prints the usage
// otherwise).
int run(int argc, char** argv, GuiLauncher gui = {});

}  // namespace quillon::cli
