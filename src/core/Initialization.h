#pragma once
// First-run initialisation of the program.

namespace quillon::Initialization {
// Marks the first-run set-up done ("Initialize App") and saves the preferences.
void initializeApp();
// True once initializeApp has run.
bool isInitialized();
}  // namespace quillon::Initialization
