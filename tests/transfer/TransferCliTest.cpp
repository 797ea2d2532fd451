// quillon cp and quillon mv, run as a user would: local copies and moves, renames, conflicts by
// flag, JSON lines, transfers to, from and between real FTP servers by URL, failures with and
// without --keep-going (names a server cannot hold, a tree deeper than the local path limit),
// Ctrl-C and kill -9.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fmt/format.h>

#include <fstream>
#include <random>
#include <thread>

#include "TransferTestKit.h"
#include "core/PathUtils.h"
#include "support/ChildProcess.h"

using namespace quillon;
using namespace quillon::test;
namespace fs = std::filesystem;

namespace {

// A file whose every 4 KiB block names its number, so that a torn copy never passes for a whole
// one.
std::string numberedBlocks(std::size_t blocks) {
    std::string out;
    for (std::size_t i = 0; i < blocks; ++i) {
        std::string block = fmt::format("block {:08}\n", i);
        block.resize(4096, '.');
        out += block;
    }
    return out;
}

// Runs quillon and kills it (SIGKILL) at a random moment within `spread` after `begun` turned
// true; false when it ended by itself before.
bool killAtRandom(const std::vector<std::string>& args, const std::function<bool()>& begun,
                  std::chrono::milliseconds spread, std::mt19937& rng) {
    std::vector<std::string> argv{QUILLON_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess p(argv);
    if (!waitUntil([&] { return begun() || !p.running(); }) || !p.running()) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(
        std::uniform_int_distribution<long>(0, spread.count() * 1000)(rng)));
    return p.stop(SIGKILL) == 128 + SIGKILL;
}

bool hasFileWithData(const std::string& folder) {
    std::error_code ec;
    for (auto& e : fs::recursive_directory_iterator(folder, ec))
        if (e.is_regular_file(ec) && e.file_size(ec) > 0) return true;
    return false;
}

}  // namespace

using TransferCli = TransferFixture;

TEST_F(TransferCli, CopiesAndMovesLocally) {
    writeFile(dir / "src/report.txt", "report");
    writeFile(dir / "src/tree/.hidden", "h");
    fs::create_directories(dir / "src/tree/empty/inner");
    fs::create_directories(dir / "dst");

    EXPECT_TRUE(quillonExits(0, {"cp", dir / "src/report.txt", dir / "dst"}));
    EXPECT_TRUE(fileHolds(dir / "dst/report.txt", "report"));

    // A folder needs -r; into itself is refused.
    EXPECT_TRUE(quillonExits(1, {"cp", dir / "src/tree", dir / "dst"}, "use -r"));
    const std::string intoItself = "can’t copy/move an item into itself.";
    EXPECT_TRUE(quillonExits(1, {"cp", "-r", dir / "src", dir / "src/tree"}, intoItself));
    EXPECT_TRUE(quillonExits(0, {"cp", "-r", dir / "src/tree", dir / "dst"}));
    EXPECT_TRUE(fileHolds(dir / "dst/tree/.hidden", "h"));
    EXPECT_TRUE(fs::is_directory(dir / "dst/tree/empty/inner"));

    // Without a terminal a conflict is skipped; the flags replace or keep both.
    writeFile(dir / "src/report.txt", "newer");
    EXPECT_TRUE(quillonExits(0, {"cp", dir / "src/report.txt", dir / "dst"}, "skipped"));
    EXPECT_TRUE(fileHolds(dir / "dst/report.txt", "report"));
    writeFile(dir / "dst/report-1.txt", "one");
    EXPECT_TRUE(
        quillonExits(0, {"cp", "--on-conflict", "keep-both", dir / "src/report.txt", dir / "dst"}));
    EXPECT_TRUE(fileHolds(dir / "dst/report-2.txt", "newer"));
    EXPECT_TRUE(quillonExits(
        0, {"cp", "--on-conflict", "replace", "--json", dir / "src/report.txt", dir / "dst"},
        R"("state":"completed","transferred":5,"total":5,"error":null})"));
    EXPECT_TRUE(fileHolds(dir / "dst/report.txt", "newer"));
    // Asking needs a terminal; a move cannot replace.
    EXPECT_TRUE(
        quillonExits(2, {"cp", "--on-conflict", "ask", dir / "src/report.txt", dir / "dst"}));
    EXPECT_TRUE(
        quillonExits(2, {"mv", "--on-conflict", "replace", dir / "src/report.txt", dir / "dst"}));

    // Rename within one server when the target is not a folder; never over an existing item.
    EXPECT_TRUE(quillonExits(0, {"mv", dir / "dst/report-1.txt", dir / "dst/renamed.txt"}));
    EXPECT_TRUE(fileHolds(dir / "dst/renamed.txt", "one"));
    EXPECT_TRUE(quillonExits(1, {"mv", dir / "dst/renamed.txt", dir / "dst/report.txt"}));
    EXPECT_TRUE(fileHolds(dir / "dst/report.txt", "newer"));
    EXPECT_TRUE(quillonExits(1, {"mv", dir / "dst/tree", dir / "dst/tree/empty/x"}, intoItself));

    // Several items into a folder: the ones without a conflict move together; a conflict is
    // kept under a new name.
    writeFile(dir / "moved/report.txt", "there");
    EXPECT_TRUE(quillonExits(0, {"mv", "--on-conflict", "keep-both", dir / "dst/renamed.txt",
                                 dir / "dst/tree", dir / "dst/report.txt", dir / "moved"}));
    EXPECT_EQ(namesIn(dir / "moved"),
              (std::vector<std::string>{"renamed.txt", "report-1.txt", "report.txt", "tree"}));
    EXPECT_TRUE(fileHolds(dir / "moved/report-1.txt", "newer"));
    EXPECT_EQ(namesIn(dir / "dst"), (std::vector<std::string>{"report-2.txt"}));
}

TEST_F(TransferCli, TransfersToFromAndBetweenFtpServers) {
    auto pure = startFtpServer(FtpServerKind::PureFtpd);
    auto pro = startFtpServer(FtpServerKind::Proftpd);
    if (!pure || !pro) return;
    writeFile(dir / "tree/a.txt", "alpha");
    writeFile(dir / "tree/.hidden", "h");
    fs::create_directories(dir / "tree/empty/deeper");
    ::symlink("a.txt", (dir / "tree/link").c_str());
    // The longest name a file system holds: its temporary name must still fit.
    std::string longName;
    while (longName.size() < 252) longName += "é";
    longName += "end";

    // An FTP server cannot be given a link: it is left out, and the user hears of it.
    ASSERT_TRUE(quillonExits(0, {"cp", "-r", dir / "tree", pure->url("/")},
                             "quillon: skipped link " + dir / "tree/link" + " -> a.txt\n"))
        << pure->log();
    for (auto content : {"long", "longer"}) {
        writeFile(dir / longName, content);
        EXPECT_TRUE(quillonExits(
            0, {"cp", "--on-conflict", "replace", dir / longName, pure->url("/tree")}));
        EXPECT_TRUE(fileHolds(pure->hostPath("/tree/" + longName), content));
    }
    // (What a tree becomes on a server is the transfer engine's own test.)
    EXPECT_FALSE(fs::exists(pure->hostPath("/tree/link")));

    ASSERT_TRUE(quillonExits(0, {"cp", "-r", pure->url("/tree"), pro->url("/")}));
    EXPECT_TRUE(fs::is_directory(pro->hostPath("/tree/empty/deeper")));

    fs::create_directories(dir / "back");
    ASSERT_TRUE(quillonExits(0, {"cp", "-r", "--json", pro->url("/tree"), dir / "back"},
                             "\"state\":\"completed\""));
    EXPECT_TRUE(fileHolds(dir / "back/tree/.hidden", "h"));
    EXPECT_TRUE(fileHolds(dir / "back/tree/" + longName, "longer"));
    EXPECT_TRUE(fs::is_directory(dir / "back/tree/empty/deeper"));

    // A move between two servers deletes the source once the copy is checked.
    // The target folder must exist.
    EXPECT_TRUE(quillonExits(1, {"mv", pro->url("/tree"), pure->url("/empty-target")}));
    pure->makeDir("/moved");
    ASSERT_TRUE(quillonExits(0, {"mv", pro->url("/tree"), pure->url("/moved")}));
    EXPECT_TRUE(fileHolds(pure->hostPath("/moved/tree/a.txt"), "alpha"));
    EXPECT_FALSE(fs::exists(pro->hostPath("/tree")));
    EXPECT_TRUE(fs::is_empty(PathUtils::getAppTempPath()));
}

TEST_F(TransferCli, KilledCopyOrMoveLeavesNoTornFileAndTheNextRunCopiesIt) {
    auto server = startFtpServer(FtpServerKind::PureFtpd);
    if (!server) return;
    const std::string content = numberedBlocks(4096);  // 16 MiB
    writeFile(dir / "big.bin", content);
    for (auto folder : {"local", "down", "moved"}) fs::create_directories(dir / folder);
    // A move within one file system is a rename; between two it copies. /dev/shm is memory.
    std::string shm = "/dev/shm/quillon-kill-XXXXXX";
    struct stat shmSt {
    }, dirSt{};
    if (!::mkdtemp(shm.data()) || ::stat(shm.c_str(), &shmSt) != 0 ||
        ::stat(dir.path().c_str(), &dirSt) != 0 || shmSt.st_dev == dirSt.st_dev)
        shm.clear();
    std::string temp = PathUtils::getAppTempPath();
    std::error_code ec;
    auto holdsSomething = [&](const std::string& folder) { return !fs::is_empty(folder, ec); };

    struct Case {
        std::vector<std::string> args;
        std::string folder;                // where the file arrives
        std::function<bool()> begun;       // the transfer has begun writing
        std::chrono::milliseconds spread;  // kills land this long after that, at most
        std::string verb;
    };
    std::vector<Case> cases = {
        {{"cp", dir / "big.bin", dir / "local"},
         dir / "local",
         [&] { return holdsSomething(dir / "local"); },
         std::chrono::milliseconds(20),
         "copied"},
        {{"cp", dir / "big.bin", server->url("/")},
         server->root(),
         [&] { return holdsSomething(server->root()); },
         std::chrono::milliseconds(80),
         "copied"},
        {{"cp", server->url("/big.bin"), dir / "down"},
         dir / "down",
         [&] { return hasFileWithData(temp); },
         std::chrono::milliseconds(40),
         "copied"},
    };
    if (!shm.empty())
        cases.push_back({{"mv", shm + "/big.bin", dir / "moved"},
                         dir / "moved",
                         [&] { return holdsSomething(dir / "moved"); },
                         std::chrono::milliseconds(20),
                         "moved"});
    std::mt19937 rng(std::random_device{}());
    int kills = 0;
    for (auto& c : cases) {
        std::string arrived = c.folder + "/big.bin";
        // Each run starts with its source and without the file at its target.
        auto reset = [&] {
            if (c.verb == "moved" && !fs::exists(shm + "/big.bin"))
                writeFile(shm + "/big.bin", content);
            fs::remove(arrived, ec);
        };
        for (int trial = 0; trial < 4; ++trial) {
            reset();
            kills += killAtRandom(c.args, c.begun, c.spread, rng);
            // Either the whole file under its name, or none; a move loses nothing.
            if (fs::exists(arrived)) {
                EXPECT_TRUE(fileHolds(arrived, content)) << c.args[1];
            } else if (c.verb == "moved") {
                EXPECT_TRUE(fileHolds(shm + "/big.bin", content));
            }
        }
        // The next run transfers the file (no torn one to skip as a conflict), and its start
        // clears what the killed runs left: temporaries beside the target, scratch folders.
        reset();
        EXPECT_TRUE(quillonExits(0, c.args, c.verb));
        EXPECT_TRUE(fileHolds(arrived, content));
        EXPECT_EQ(namesIn(c.folder), std::vector<std::string>{"big.bin"}) << c.args[1];
        EXPECT_TRUE(fs::is_empty(temp, ec)) << c.args[1];
    }
    EXPECT_GT(kills, 0);
    if (!shm.empty()) fs::remove_all(shm, ec);
}

TEST_F(TransferCli, DeepRemoteTreeEndsInAClearErrorAndKeepGoingFetchesTheRest) {
    auto server = startFtpServer(FtpServerKind::PureFtpd);
    if (!server) return;
    // Twelve levels of 200-byte names: the server's own paths stay well below 4096 bytes...
    std::string deep = "deep";
    for (int i = 0; i < 12; ++i) deep += "/" + std::string(200, 'd');
    server->makeDir(deep);
    server->writeFile(deep + "/bottom.txt", "b");
    server->writeFile("deep/top.txt", "t");
    server->chownTree();
    // ...while below a local folder of 1800 bytes they pass it.
    auto longFolder = [&](const std::string& tag) {
        std::string path = dir / tag;
        while (path.size() < 1800) path += "/" + std::string(200, 't');
        fs::create_directories(path);
        return path;
    };
    std::string stopped = longFolder("stopped"), going = longFolder("going");

    EXPECT_TRUE(quillonExits(1, {"cp", "-r", server->url("/deep"), stopped},
                             "bytes long, longer than this system allows"));
    EXPECT_TRUE(quillonExits(1, {"cp", "-r", "--keep-going", server->url("/deep"), going},
                             "longer than this system allows"));
    EXPECT_TRUE(fileHolds(going + "/deep/top.txt", "t"));
    EXPECT_TRUE(fs::is_empty(PathUtils::getAppTempPath()));
}

TEST_F(TransferCli, FailureStopsTheRestUnlessKeepGoing) {
    auto server = startFtpServer(FtpServerKind::PureFtpd);
    if (!server) return;
    // The server writes as an unprivileged user: a root-owned read-only folder refuses uploads.
    fs::create_directories(server->hostPath("/locked"));
    ::chmod(server->hostPath("/locked").c_str(), 0555);
    writeFile(dir / "first.txt", "1");
    writeFile(dir / "second.txt", "2");

    EXPECT_TRUE(quillonExits(
        1, {"cp", "--jobs", "1", dir / "first.txt", dir / "second.txt", server->url("/locked")},
        "stopped " + dir / "second.txt"));

    auto going = runQuillon({"cp", "--jobs", "1", "--keep-going", "--json", dir / "first.txt",
                             dir / "second.txt", server->url("/locked")});
    EXPECT_EQ(going.exitCode, 1);
    // Both were tried: two failures, nothing stopped.
    std::size_t failures = 0;
    for (std::size_t at = 0; (at = going.out.find("\"state\":\"failed\"", at)) != std::string::npos;
         ++at)
        ++failures;
    EXPECT_EQ(failures, 2u) << going.out;
    // A file that did not arrive counts no bytes, whatever was planned or sent.
    EXPECT_TRUE(contains(going.out, R"("state":"failed","transferred":0,"total":1,)")) << going.out;

    // A folder merged into one where a part is locked: the bytes counted are those that arrived.
    writeFile(dir / "part/ok.txt", "12345");
    writeFile(dir / "part/locked/no.txt", "1234567");
    server->makeDir("/part/locked");
    ::chmod(server->hostPath("/part/locked").c_str(), 0555);
    auto part = runQuillon({"cp", "-r", "--keep-going", "--on-conflict", "merge", "--json",
                            dir / "part", server->url("/")});
    EXPECT_EQ(part.exitCode, 1);
    EXPECT_TRUE(fileHolds(server->hostPath("/part/ok.txt"), "12345"));
    EXPECT_TRUE(fs::is_empty(server->hostPath("/part/locked")));
    EXPECT_TRUE(contains(part.out, R"("state":"failed","transferred":5,"total":12,)")) << part.out;

    // Names that are not UTF-8 would not arrive unchanged (this server turns every stray byte
    // into U+FFFD, so two such names became one file): each fails with its name, and with
    // --keep-going the other files of the folder arrive.
    auto py = startFtpServer(FtpServerKind::Pyftpdlib);
    if (!py) return;
    writeFile(dir / "names/a.txt", "a");
    writeFile(dir / "names/bad\xff.txt", "ff");
    writeFile(dir / "names/bad\xfe.txt", "fe");
    writeFile(dir / "names/z.txt", "z");
    EXPECT_TRUE(
        quillonExits(1, {"cp", "-r", dir / "names", py->url("/")}, "is not valid UTF-8 text"));
    for (auto& name : namesIn(py->hostPath("/names")))
        EXPECT_TRUE(name == "a.txt" || name == "z.txt") << name;
    auto rest = runQuillon(
        {"cp", "-r", "--keep-going", "--on-conflict", "replace", dir / "names", py->url("/")});
    EXPECT_EQ(rest.exitCode, 1);
    EXPECT_TRUE(contains(rest.err, "names/bad'$'\\377''.txt': The name of")) << rest.err;
    EXPECT_TRUE(contains(rest.err, "names/bad'$'\\376''.txt': The name of")) << rest.err;
    EXPECT_TRUE(contains(rest.err, "2 items failed")) << rest.err;
    EXPECT_EQ(namesIn(py->hostPath("/names")), (std::vector<std::string>{"a.txt", "z.txt"}));
}

TEST_F(TransferCli, ServerRecordsAndSettingsAreHonoured) {
    auto vs = startFtpServer(FtpServerKind::Vsftpd);
    if (!vs) return;
    vs->writeFile("/start/in-start.txt", "s");
    vs->writeFile("/start/.hidden", "h");
    vs->writeFile("/start/sub/deeper.txt", "d");
    vs->chownTree();
    auto add = [&](const std::string& name, std::vector<std::string> more) {
        std::vector<std::string> args{"server",      "add",      name,
                                      "--type",      "ftp",      "--addr",
                                      "127.0.0.1",   "--port",   std::to_string(vs->port()),
                                      "--user",      vs->user(), "--password",
                                      vs->password()};
        args.insert(args.end(), more.begin(), more.end());
        return runQuillon(args);
    };
    EXPECT_EQ(add("", {}).exitCode, 1);
    EXPECT_TRUE(contains(add(" ", {}).err, "A server needs a name.")) << add(" ", {}).err;
    // vsftpd does not confine its users here: NAME: starts where the login lands, not at "/".
    ASSERT_EQ(add("home", {}).exitCode, 0);
    EXPECT_TRUE(quillonExits(0, {"ls", "home:start"}, "in-start.txt"));
    EXPECT_TRUE(quillonExits(0, {"ls", "home:"}, " start\n"));
    // A server's path is its start folder for NAME: and relative paths.
    ASSERT_EQ(add("s", {"--path", remotePath(vs->serverInfo(), "/start"), "--ftp-protocol",
                        "explicit-if-available"})
                  .exitCode,
              0);
    auto ls = runQuillon({"ls", "s:"});
    EXPECT_TRUE(contains(ls.out, "in-start.txt") && !contains(ls.out, ".hidden")) << ls.out;
    EXPECT_TRUE(quillonExits(0, {"ls", "s:sub"}, "deeper.txt"));
    // Hidden items show without -a when the setting says so.
    ASSERT_TRUE(quillonExits(0, {"prefs", "SYS_SHOW_HIDDEN_FILES", "true"}));
    EXPECT_TRUE(quillonExits(0, {"ls", "s:"}, ".hidden"));
    // TLS servers show the scheme a URL for them takes.
    EXPECT_TRUE(quillonExits(0, {"servers"}, "ftpes://127.0.0.1:"));
    // Secrets are masked.
    ASSERT_TRUE(quillonExits(0, {"prefs", "FTP_SERVER_PASSWORD", "hush-hush"}));
    for (auto args : {std::vector<std::string>{"prefs"},
                      std::vector<std::string>{"prefs", "FTP_SERVER_PASSWORD"}}) {
        auto prefs = runQuillon(args);
        EXPECT_FALSE(contains(prefs.out, "hush-hush")) << prefs.out;
        EXPECT_TRUE(contains(prefs.out, "********")) << prefs.out;
    }
    // A server that a sync pair uses is removed only with --force, and the pair is named.
    ASSERT_TRUE(quillonExits(0, {"sync", "add", "s:sub", "start-sub"}));
    auto rm = runQuillon({"server", "rm", "s"});
    EXPECT_NE(rm.exitCode, 0);
    EXPECT_TRUE(contains(rm.err, "Server \"s\" is used by a sync pair:")) << rm.err;
    EXPECT_TRUE(contains(rm.err, remotePath(vs->serverInfo(), "/start/sub"))) << rm.err;
    EXPECT_TRUE(quillonExits(0, {"ls", "s:"}));
    EXPECT_TRUE(quillonExits(0, {"server", "rm", "--force", "s"}));
    EXPECT_TRUE(quillonExits(1, {"server", "show", "s"}));
}

TEST_F(TransferCli, CtrlCStopsTransfersRemovesScratchAndExits130) {
    auto server = startFtpServer(FtpServerKind::Vsftpd);
    if (!server) return;
    { std::ofstream out(server->hostPath("/huge.bin")); }
    fs::resize_file(server->hostPath("/huge.bin"), 20ull << 30);
    server->chownTree();
    fs::create_directories(dir / "target");
    ChildProcess p({QUILLON_BINARY, "cp", server->url("/huge.bin"), dir / "target"});
    // Interrupt once the download has produced bytes in its scratch folder.
    auto temp = PathUtils::getAppTempPath();
    EXPECT_TRUE(waitUntil([&] { return hasFileWithData(temp) || !p.running(); }) && p.running())
        << p.err();
    EXPECT_EQ(p.stop(SIGINT), 130) << p.err();
    EXPECT_TRUE(contains(p.err() + p.out(), "stopped")) << p.err();
    EXPECT_TRUE(fs::is_empty(dir / "target"));
    EXPECT_TRUE(fs::is_empty(temp));
}
