#pragma once
// TemporaryItems: where unfinished data lives, and how a later run clears what a killed one left.
//
// A new file grows under a hidden name beside its target, ".quillon-<process>-<n>-<name>", and
// takes its own name only when complete. Before a process first writes such a temporary, it
// notes it (a local folder, or a server's item) in a record of its own (in the data folder,
// locked while the process lives, removed when it ends normally). Scratch folders (the program's
// temporary folder joined with a UUID) are locked by their process while they exist.
//
// At start-up, scratch folders that no process holds are removed, and so are the temporaries of
// ended processes in the local folders their records name (only names bearing an ended process's
// mark, so a running process's temporaries are never touched; a local temporary never holds the
// only copy of a user's item). Temporaries on servers are recorded one by one and kept in a list
// that the next transfer to that server clears (takeLeftovers).

#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "core/ServerInfo.h"

namespace quillon::TemporaryItems {

// A fresh hidden name for a temporary that becomes `finalName`; unique within this process and
// never longer than `maxBytes` (255 at most; the final name is cut at a character boundary).
std::string nameFor(std::string_view finalName, std::size_t maxBytes = 255);
// A local path for such a temporary in `folder`, kept within the system's path limit when the
// final path is.
std::string localPathFor(const std::string& folder, std::string_view finalName);
// Whether `name` is a temporary of this program (of any process).
bool isTemporaryName(std::string_view name);
// Whether `name` is a temporary of the process whose mark is `mark`.
bool isTemporaryOf(std::string_view name, std::string_view mark);

// The place a server's temporaries are filed under: empty for the local disk, else the server's
// kind, address, port and user (a quick connection gets a new record, but stays the same place).
std::string placeOf(const ServerInfo* server);
// Notes that this process may leave temporaries in the local `folder` should it be killed. Each
// folder is noted once per process; folders inside the program's temporary folder never are.
void noteLocalFolder(const std::string& folder);
// Notes a temporary at `path` of a server place, until forgetTemporary.
void noteTemporary(std::string_view place, const std::string& path);
// Notes that `aside` holds the old item of `target` while a new one takes its place, until
// forgetTemporary(aside): a later clean-up puts it back when `target` is missing, else removes
// it.
void noteAside(std::string_view place, const std::string& aside, const std::string& target);
void forgetTemporary(std::string_view place, const std::string& path);

// A fresh scratch folder in the program's temporary folder, held by this process until
// removeScratchFolder. Fails with "Cannot create file %@" in "Local".
[[nodiscard]] Result<std::string> makeScratchFolder();
// Removes a scratch folder with everything in it and lets it go; missing is fine.
void removeScratchFolder(const std::string& path);

// Start-up clean-up after processes that ended without clearing up (see above).
void cleanUpAfterEndedProcesses();

// A temporary an ended process left on a server: removed, or put back at `restoreTo` when that
// is missing.
struct Leftover {
    std::string path;
    std::string restoreTo;
};
// The temporaries ended processes left at a server place; each is handed out once, and stays
// noted for this process until forgetTemporary.
std::vector<Leftover> takeLeftovers(std::string_view place);

}  // namespace quillon::TemporaryItems
