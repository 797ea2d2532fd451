// libFuzzer target for the FTP listing parser: the bytes are read as a LIST reply and as an MLSD
// reply. Whatever a server sends, every record must name one entry directly inside the listed
// folder: a name that is not empty, not "." or "..", holds no "/" and no NUL, and a path that is
// the folder's path plus that name.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "clients/ftp/FTPDirListParser.h"

namespace {

using namespace quillon;

void check(const KvMetadataList& records, const std::string& folder) {
    for (const auto& m : records) {
        auto name = m.nameIgnoreLinkResolve().value_or("");
        if (name.empty() || name == "." || name == "..") std::abort();
        if (name.find('/') != std::string::npos || name.find('\0') != std::string::npos)
            std::abort();
        if (m.pathOrEmpty() != FTPDirListParser::childPath(folder, name)) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    FTPDirListParser::Options options;
    options.folderPath = "/srv/listed";
    options.serverID = "fuzz";
    options.includeHidden = (size % 2) == 0;
    // A fixed "now" keeps runs reproducible (the year of dates without one depends on it).
    options.now = std::chrono::system_clock::time_point(std::chrono::seconds(1'780'000'000));
    check(FTPDirListParser::parse(text, options), options.folderPath);
    check(FTPDirListParser::parseMlsd(text, options), options.folderPath);
    return 0;
}
