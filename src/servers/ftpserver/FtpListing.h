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

#include "servers/ftpserver/FtpPath.h"

namespace quillon {

// Uploads over an existing file are written under a name beginning with this, in the same folder,
// until they are complete. Listings leave such names out.
inline constexpr std::string_view kUploadTempPrefix = ".quillon-upload-";

struct FtpListEntry {
    std::string name;
    bool isDir = false;
    std::uint64_t size = 0;
    std::time_t mtime = 0;
    unsigned mode = 0;  // permission bits
    std::uint64_t links = 1;
};

namespace FtpListing {
// The entry of an open item; absent when it is neither a file nor a folder.
std::optional<FtpListEntry> entryOf(int fd, std::string name);
// The entries of the folder open as `folderFd` (an O_PATH descriptor will do), which is `folder`
// seen from the shared folder, sorted by name. Left out: "." and "..", names holding CR or LF
// (no listing line could carry them), unfinished uploads, and links leading out of the shared
// folder or nowhere.
std::vector<FtpListEntry> entriesOfFolder(const FtpPath::Root& root, std::string_view folder,
                                          int folderFd);
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
