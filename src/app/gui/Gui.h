#pragma once
// The desktop window's entry point.

#include <optional>
#include <string>

namespace quillon::gui {

// Starts the application, opens the window (its left panel at `location` when given) and runs
// until it is closed; returns the exit status.
int run(int argc, char** argv, const std::optional<std::string>& location);

}  // namespace quillon::gui
