#pragma once
// What the FTP server shows of local items: entries of a folder (links that lead out of the
// shared folder left out), "ls -l" lines for LIST, RFC 3659 fact lines for MLSD and MLST, and the
// "yyyyMMddHHmmss" UTC times of MDTM and MFMT.

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillon {

struct FtpListEntry {
    std::string name;
    bool isDir = false;
    std::uint64_t size = 0;
    std::time_t mtime = 0;
    unsigned mode = 0;  // permission bits
    std::uint64_t links = 1;
};

namespace FtpListing {
// The entry of one local item under the canonical `root`, links followed; absent when it is
// missing or a link leads out of the root.
std::optional<FtpListEntry> entryAt(const std::string& root, const std::string& localPath,
                                    std::string name);
// The entries of a local folder sorted by name, without "." and "..", and without links that
// lead out of `root` or nowhere.
std::vector<FtpListEntry> entriesOfFolder(const std::string& root, const std::string& folder);
// One "ls -l" line (no line break): times in UTC, the year instead of the time for items older
// than six months (or from the future) relative to `now`.
std::string listLine(const FtpListEntry& entry, std::time_t now);
// One MLSD/MLST line (no line break): "type=...;size=...;modify=...;perm=...; name".
std::string mlsxLine(const FtpListEntry& entry, bool writable);
// "yyyyMMddHHmmss" in UTC.
std::string timeString(std::time_t t);
// Reads "yyyyMMddHHmmss" (UTC, optionally with ".fff" fractions, which are dropped); absent on
// any other text or an impossible date.
std::optional<std::time_t> parseTimeString(std::string_view text);
}  // namespace FtpListing

}  // namespace quillon
