#pragma once
// FTPDirListParser: turns FTP listing text (LIST in its Unix, DOS/IIS and EPLF forms, and MLSD)
// into KvMetadata records. Lines it cannot read are skipped; "." and ".." are dropped.

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "core/KvMetadata.h"
#include "core/ServerInfo.h"

namespace quillon {

class FtpWrapper;

namespace FTPDirListParser {

struct Options {
    std::string folderPath;          // the listed folder; children are folderPath + "/" + name
    std::optional<std::string> pwd;  // the folder PWD reported, when it ran
    std::string serverID;            // copied into every record
    bool includeHidden = false;      // keep names beginning with "."
    // The moment a listing without a year is read against (a date more than a day ahead of it
    // belongs to the year before).
    std::chrono::system_clock::time_point now = std::chrono::system_clock::now();
};

// Records of a LIST reply in any of the recognised forms (the form is found per line).
KvMetadataList parse(std::string_view text, const Options& options);
// The same for `wp`'s server: the folder path, the PWD result, and the hidden-file rule of the
// preference "SYS_SHOW_HIDDEN_FILES" or the wrapper's forceIncludesHiddenFiles.
KvMetadataList parse(std::string_view text, const std::string& folderPath,
                     const std::optional<std::string>& pwd, const ServerInfo& serverInfo,
                     const FtpWrapper& wp);

// Records of an MLSD reply ("fact=value;...; name" per line); "cdir" and "pdir" are dropped.
KvMetadataList parseMlsd(std::string_view text, const Options& options);

// One LIST line, or absent when no form reads it. Name and fields only; no path.
std::optional<KvMetadata> parseListLine(std::string_view line,
                                        std::chrono::system_clock::time_point now);
// One MLSD line, or absent when it has no name or no readable facts.
std::optional<KvMetadata> parseMlsdLine(std::string_view line);

// folder + "/" + name, without doubling a trailing "/" of the folder.
std::string childPath(std::string_view folder, std::string_view name);

}  // namespace FTPDirListParser
}  // namespace quillon
