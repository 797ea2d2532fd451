#pragma once
// Encrypted 7z archives, which libarchive cannot decrypt, extracted by the 7zz program (Debian's
// 7zip package) as a separate process: the password goes to its standard input, never to its
// command line; its percentages become progress; a cancel ends it.

#include <optional>
#include <string>

#include "archives/ArchiveExtractor.h"

namespace quillon::SevenZipTool {

// The path of `program` on PATH (or `program` itself when it holds a "/" and can be run), else
// absent.
std::optional<std::string> locate(const std::string& program);

// Extracts the archive into `folder` (existing, empty). The archive's listing is checked against
// the monitor's limits first; afterwards every link written must stay inside the folder. Wrong
// passwords and damaged data fail as Damaged with the program's words.
[[nodiscard]] ExtractStatus extract(const std::string& program, const std::string& archivePath,
                                    const std::string& folder, const std::string& password,
                                    ExtractMonitor& monitor);

}  // namespace quillon::SevenZipTool
