// libFuzzer target for the FTP server's command parser and path resolution: bytes go through the
// line buffer in fuzzer-chosen pieces, every line is parsed, and its argument is resolved against
// a scratch root holding links that point out of it. Nothing may resolve outside the root, and
// no text fit for a reply may hold a line break.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "servers/ftpserver/FtpCommandParser.h"
#include "servers/ftpserver/FtpPath.h"

namespace {

namespace fs = std::filesystem;

std::string scratchRoot;

void removeScratchRoot() {
    std::error_code ec;
    fs::remove_all(fs::path(scratchRoot).parent_path(), ec);
}

// <tmp>/quillon-fuzz-XXXXXX/root with a/b/file, "out" -> the parent, "etc" -> /etc,
// "loop" -> itself and "inner" -> a.
const std::string& root() {
    if (!scratchRoot.empty()) return scratchRoot;
    std::string tmpl = (fs::temp_directory_path() / "quillon-fuzz-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) std::abort();
    fs::path base(tmpl);
    fs::create_directories(base / "root/a/b");
    std::FILE* f = std::fopen((base / "root/a/b/file").c_str(), "w");
    if (f) std::fclose(f);
    fs::create_directory_symlink(base, base / "root/out");
    fs::create_directory_symlink("/etc", base / "root/etc");
    fs::create_symlink(base / "root/loop", base / "root/loop");
    fs::create_directory_symlink(base / "root/a", base / "root/inner");
    scratchRoot = *quillon::FtpPath::canonical((base / "root").string());
    std::atexit(removeScratchRoot);
    return scratchRoot;
}

// The scratch root held open, as the server holds its shared folder.
const quillon::FtpPath::Root& sharedRoot() {
    static auto held = quillon::FtpPath::Root::open(root());
    if (!held) std::abort();
    return *held;
}

void check(bool ok) {
    if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillon;
    const std::string& base = root();
    if (size == 0) return 0;
    // The first byte sets how the rest is cut into reads, as TCP may cut it.
    std::size_t piece = 1 + data[0] % 64;
    std::string_view input(reinterpret_cast<const char*>(data + 1), size - 1);
    FtpLineBuffer lines(256);
    for (std::size_t at = 0; at < input.size(); at += piece) {
        if (!lines.append(input.substr(at, piece))) break;
        while (auto line = lines.nextLine()) {
            check(line->find('\n') == std::string::npos);
            auto cmd = FtpCommandParser::parse(*line);
            check(!cmd.words.empty());
            auto shown = FtpCommandParser::sanitize(cmd.argument());
            check(shown.find_first_of("\r\n") == std::string::npos);
            for (const char* cwd : {"/", "/a/b", "/inner"}) {
                auto vp = FtpPath::virtualPath(cwd, cmd.argument());
                if (!vp) continue;
                check(!vp->empty() && vp->front() == '/');
                check(vp->find("/../") == std::string::npos &&
                      vp->find("/./") == std::string::npos);
                const auto& root = sharedRoot();
                if (auto item = root.open(*vp, O_PATH))
                    check(FtpPath::isInside(base, root.localPath(item->get(), "")));
                for (bool followLast : {false, true})
                    if (auto entry = root.entry(*vp, followLast))
                        check(FtpPath::isInside(base, root.localPath(entry->folder.get(), "")));
            }
        }
    }
    return 0;
}
