// The quillon command as a user runs it: servers, settings and local browsing, with the exit
// status and messages a script relies on; the exact message of each failure; Ctrl-C.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <regex>

#include "support/ChildProcess.h"
#include "support/FtpServers.h"
#include "support/TestEnv.h"

using namespace quillon::test;
namespace fs = std::filesystem;

TEST(Cli, ServersCanBeAddedShownChangedAndRemoved) {
    IsolatedHome home;
    ASSERT_TRUE(
        quillonExits(0,
                     {"server", "add", "Office NAS", "--type", "ftp", "--addr", "127.0.0.1",
                      "--port", "2121", "--user", "me", "--password-stdin", "--encoding", "GBK"},
                     "", "s3cret\n"));
    EXPECT_TRUE(quillonExits(1, {"server", "add", "Office NAS", "--type", "ftp", "--addr", "x"},
                             "exists already"));

    auto show = runQuillon({"server", "show", "Office NAS", "--json"});
    ASSERT_EQ(show.exitCode, 0) << show.err;
    EXPECT_TRUE(contains(show.out, "\"ADDR\":\"127.0.0.1\"")) << show.out;
    EXPECT_TRUE(contains(show.out, "\"PORT\":\"2121\""));
    EXPECT_TRUE(contains(show.out, "\"SERVER_ENCODING\":\"2147485233\""));  // GBK's number
    EXPECT_FALSE(contains(show.out, "s3cret"));                             // secrets are masked

    ASSERT_TRUE(
        quillonExits(0, {"server", "set", "Office NAS", "PATH=/pub", "FTP_ACTIVE_MODE=YES"}));
    ASSERT_TRUE(quillonExits(0, {"server", "set", "Office NAS", "--unset", "FTP_ACTIVE_MODE"}));
    show = runQuillon({"server", "show", "Office NAS"});
    EXPECT_TRUE(contains(show.out, "PATH = /pub"));
    EXPECT_FALSE(contains(show.out, "FTP_ACTIVE_MODE"));

    auto list = runQuillon({"servers", "--json"});
    ASSERT_EQ(list.exitCode, 0);
    // Local volumes come first, "/" at their head; then the configured servers.
    auto root = list.out.find("\"root\":\"/\"");
    auto nas = list.out.find("Office NAS");
    ASSERT_NE(root, std::string::npos);
    ASSERT_NE(nas, std::string::npos);
    EXPECT_LT(root, nas);

    // The database holds the password: readable by the user only.
    EXPECT_EQ(modeOf(home.path() + "/data/KvQuillon/db/db.sqlite"), 0600u);

    ASSERT_TRUE(quillonExits(0, {"server", "rm", "Office NAS"}));
    EXPECT_TRUE(
        quillonExits(1, {"server", "show", "Office NAS"}, "No server named \"Office NAS\""));

    // Usage errors exit 2.
    EXPECT_TRUE(quillonExits(2, {"server", "add", "x", "--type", "gopher"}));
    EXPECT_TRUE(quillonExits(2, {"server", "add", "x", "--type", "ftp"}));  // no --addr
}

TEST(Cli, PreferencesAreReadAndSavedWithTheirKinds) {
    IsolatedHome home;
    const std::string key = "Max Simultaneous Transfers";
    ASSERT_TRUE(quillonExits(0, {"prefs", key, "5"}));
    // A number setting refuses text; with no transfer allowed at once, every transfer would wait
    // for ever.
    EXPECT_TRUE(quillonExits(2, {"prefs", key, "many"}));
    for (auto none : {"0", "-3"})
        EXPECT_TRUE(quillonExits(2, {"prefs", key, none}, "\"" + key + "\" must be 1 or more."));
    EXPECT_EQ(runQuillon({"prefs", key}).out, "5\n");
    ASSERT_TRUE(quillonExits(0, {"prefs", "SYS_SHOW_HIDDEN_FILES", "yes"}));
    EXPECT_EQ(runQuillon({"prefs", "SYS_SHOW_HIDDEN_FILES"}).out, "true\n");
    EXPECT_TRUE(quillonExits(0, {"prefs"}, key + " = 5"));
    EXPECT_TRUE(quillonExits(1, {"prefs", "No Such Key"}));

    // A damaged settings file is reported and kept aside: the next run works on the defaults.
    writeFile(home.path() + "/data/KvQuillon/pref.plist", "<plist><dict><key>broken");
    EXPECT_TRUE(quillonExits(1, {"prefs"}, "kept as"));
    EXPECT_TRUE(quillonExits(0, {"prefs"}, key + " = 3"));
}

TEST(Cli, BrowsesAndManagesLocalFolders) {
    IsolatedHome home;
    ScratchDir dir("cli");
    writeFile(dir / "b 2.txt", "two");
    writeFile(dir / "b 10.txt", "ten!");
    writeFile(dir / ".hidden", "h");
    // Control characters and stray bytes in names would act on the terminal.
    writeFile(dir / "bell\a\x1b[2Jit's\n", "");
    writeFile(dir / "stray\xff", "");
    fs::create_directory(dir / "sub");
    fs::create_symlink("b 2.txt", dir / "link");

    auto ls = runQuillon({"ls", dir.path()});
    ASSERT_EQ(ls.exitCode, 0) << ls.err;
    EXPECT_FALSE(contains(ls.out, ".hidden"));
    // Natural order: "b 2" before "b 10".
    EXPECT_LT(ls.out.find("b 2.txt"), ls.out.find("b 10.txt"));
    EXPECT_TRUE(contains(ls.out, "link -> "));
    EXPECT_TRUE(contains(ls.out, "'bell'$'\\a\\033''[2Jit'\\''s'$'\\n'\n")) << ls.out;
    EXPECT_TRUE(contains(ls.out, "'stray'$'\\377'\n")) << ls.out;
    for (char c : ls.out) EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << ls.out;
    EXPECT_TRUE(contains(runQuillon({"ls", "-a", dir.path()}).out, ".hidden"));

    // Times in JSON are UTC, whatever the local zone.
    fs::last_write_time(dir / "b 10.txt",
                        fs::file_time_type::clock::from_sys(
                            std::chrono::sys_seconds(std::chrono::seconds(978307200))));
    for (const char* zone : {"Asia/Tokyo", "America/New_York", "UTC"}) {
        SCOPED_TRACE(zone);
        ScopedTimeZone tz(zone);
        auto json = runQuillon({"ls", "--json", dir.path()});
        EXPECT_TRUE(contains(json.out, "\"name\":\"b 10.txt\"")) << json.out;
        EXPECT_TRUE(contains(json.out, "\"size\":4"));
        EXPECT_TRUE(contains(json.out, "\"mtime\":\"2001-01-01T00:00:00Z\"")) << json.out;
        EXPECT_TRUE(quillonExits(0, {"stat", "--json", dir / "b 10.txt"},
                                 "\"isDir\":false,\"size\":4,\"mtime\":\"2001-01-01T00:00:00Z\""));
    }

    EXPECT_EQ(runQuillon({"cat", dir / "b 10.txt"}).out, "ten!");

    ASSERT_TRUE(quillonExits(0, {"mkdir", dir / "new folder"}));
    EXPECT_TRUE(fs::is_directory(dir / "new folder"));

    // Folders need -r.
    EXPECT_TRUE(quillonExits(1, {"rm", dir / "sub"}));
    EXPECT_TRUE(fs::exists(dir / "sub"));
    EXPECT_TRUE(quillonExits(0, {"rm", "-r", dir / "sub"}));
    EXPECT_FALSE(fs::exists(dir / "sub"));
}

namespace {

// Runs quillon; passes when it exits with `status` and one line of its standard error is
// "quillon: " + `says` (or matches "quillon: " + `pattern`).
::testing::AssertionResult failsSaying(int status, const std::vector<std::string>& args,
                                       const std::string& says, bool pattern = false) {
    auto r = runQuillon(args);
    auto errLines = lines(r.err);
    std::regex wanted("quillon: " + says);
    auto matches = [&](const std::string& line) {
        return pattern ? std::regex_match(line, wanted) : line == "quillon: " + says;
    };
    if (r.exitCode == status && std::any_of(errLines.begin(), errLines.end(), matches))
        return ::testing::AssertionSuccess();
    auto failure = ::testing::AssertionFailure() << "quillon";
    for (auto& a : args) failure << " '" << a << "'";
    return failure << " exited " << r.exitCode << ", not " << status << " with \"quillon: " << says
                   << "\"\nout: " << r.out << "\nerr: " << r.err;
}

// The quillon binary in the background.
struct QuillonProcess : ChildProcess {
    explicit QuillonProcess(std::vector<std::string> args) : ChildProcess(withBinary(args)) {}
    static std::vector<std::string> withBinary(std::vector<std::string> args) {
        args.insert(args.begin(), QUILLON_BINARY);
        return args;
    }
};

}  // namespace

TEST(Cli, LocalFailuresNameTheItemAndMistypedWordsAreNamed) {
    IsolatedHome home;
    ScratchDir dir("clierr");
    writeFile(dir / "f.txt", "f");
    std::string nope = dir / "nope";
    std::string missing = nope + ": File not found! (Local 10008)";
    for (const char* command : {"ls", "stat", "cat", "rm"})
        EXPECT_TRUE(failsSaying(1, {command, nope}, missing));
    EXPECT_EQ(runQuillon({"-v", "cat", nope}).err,
              "quillon: " + missing + "\n  domain Local, code 10008, reason: File not found!\n");
    EXPECT_TRUE(failsSaying(1, {"cp", nope, dir.path()}, missing));
    EXPECT_TRUE(failsSaying(1, {"mv", nope, dir / "elsewhere"}, missing));
    EXPECT_TRUE(failsSaying(1, {"cp", dir / "f.txt", dir / "no-dir"},
                            dir / "no-dir: File not found! (Local 10008)"));
    EXPECT_TRUE(fs::exists(dir / "f.txt"));

    // A move within one disk moves no bytes, yet reports those of what it moved.
    fs::create_directory(dir / "sub");
    auto moved = runQuillon({"mv", dir / "f.txt", dir / "sub"});
    EXPECT_EQ(moved.exitCode, 0) << moved.err;
    EXPECT_TRUE(contains(moved.err,
                         "moved  " + (dir / "f.txt") + " -> " + (dir / "sub/f.txt") + "  1 B in "))
        << moved.err;

    // With --json a failure before any transfer is a JSON line too.
    auto json = runQuillon({"cp", "--json", nope, dir.path()});
    EXPECT_EQ(json.exitCode, 1);
    EXPECT_EQ(json.out,
              "{\"event\":\"error\",\"error\":{\"domain\":\"Local\",\"code\":10008,\"reason\":"
              "\"File not found!\",\"item\":\"" +
                  nope + "\",\"serverReply\":null,\"message\":\"" + missing + "\"}}\n")
        << json.err;

    // A NAME: that is no server and no local item is a mistyped server; ./ makes it local.
    EXPECT_TRUE(failsSaying(1, {"ls", "typo:/x"},
                            "No server named \"typo\" (for a local item of that name, write "
                            "./typo:/x) (Kv Generic -1)"));
    writeFile(dir / "a:b", "colon");
    EXPECT_EQ(runQuillon({"cat", dir / "a:b"}).out, "colon");

    EXPECT_TRUE(failsSaying(2, {"no-such-command"},
                            "unknown command \"no-such-command\"; `quillon --help` lists the "
                            "commands."));
    EXPECT_TRUE(failsSaying(2, {"sync", "frob", "1"},
                            "unknown command \"frob\"; `quillon sync --help` lists the commands."));
}

// The built-in FTP server is a real server that refuses with replies of its own: an anonymous
// session may not write, and it offers no TLS.
TEST(Cli, ServerFailuresNameTheItemWithItsServerAndKeepTheReply) {
    IsolatedHome home;
    ScratchDir root("clisrv");
    ScratchDir local("clisrvlocal");
    writeFile(root / "pub.txt", "public");
    writeFile(local / "up.txt", "up");
    QuillonProcess server({"serve", "ftp", root.path(), "--port", "0", "--bind", "127.0.0.1"});
    auto port = server.waitForOutput(std::regex(R"(Connect to ftp://127\.0\.0\.1:(\d+)/)"));
    ASSERT_TRUE(port) << server.out() << server.err();
    // A quick-connect server is named by its address.
    std::string name = "127.0.0.1:" + *port;
    std::string url = "ftp://" + name;

    // The file went up under a hidden name, which the server's reply names; the error names the
    // file.
    EXPECT_TRUE(failsSaying(1, {"cp", local / "up.txt", url + "/"},
                            std::regex_replace(name, std::regex("\\."), "\\.") +
                                R"(:/up\.txt: Failed FTP upload: 553; the server said "553 )"
                                R"(\.quillon-[^ ]+-up\.txt: Permission denied\." \(FTP 25\))",
                            true));
    EXPECT_TRUE(failsSaying(1, {"mkdir", url + "/new"},
                            name + ":/new: Permission denied; the server said \"550 Permission "
                                   "denied.\" (FTP 21)"));
    EXPECT_TRUE(
        failsSaying(1, {"stat", url + "/nope"}, name + ":/nope: File not found! (FTP 10008)"));
    EXPECT_TRUE(
        failsSaying(1, {"ls", "ftpes://" + name + "/"},
                    name + ":/: TLS is required by the settings, but the server refused it; "
                           "the server said \"500 'AUTH': command not understood.\" (FTP 64)"));
    EXPECT_FALSE(fs::exists(root / "up.txt"));
    EXPECT_FALSE(fs::exists(root / "new"));

    // A server that takes encrypted sessions only, given as plain FTP: the message says so in
    // words and keeps the reply; -v adds the parts and the command the reply answered.
    FtpServerOptions tlsOnly;
    tlsOnly.tlsRequired = true;
    auto pro = FtpServer::start(FtpServerKind::Proftpd, tlsOnly);
    ASSERT_TRUE(pro);
    std::string proName = pro->user() + "@127.0.0.1:" + std::to_string(pro->port());
    const std::string refused = "550 SSL/TLS required on the control channel";
    const std::string tlsOnlyWords =
        "The server accepts encrypted (TLS) sessions only, and this server is set to plain FTP: "
        "use FTPES (explicit TLS)";
    EXPECT_TRUE(failsSaying(
        1, {"ls", pro->url("/")},
        proName + ":/: " + tlsOnlyWords + "; the server said \"" + refused + "\" (FTP 13)"));
    EXPECT_FALSE(contains(runQuillon({"ls", pro->url("/")}).err, "domain FTP"));
    auto verbose = runQuillon({"ls", "-v", pro->url("/")});
    EXPECT_EQ(verbose.exitCode, 1);
    EXPECT_TRUE(contains(verbose.err, "\n  domain FTP, code 13, reason: " + tlsOnlyWords +
                                          "\n  the server's reply: \"" + refused +
                                          "\"\n  to the request: \"USER " + pro->user() + "\"\n"))
        << verbose.err;
    EXPECT_TRUE(quillonExits(0, {"ls", "ftpes" + pro->url("/").substr(3)}));

    // Where uploads are allowed: the result line names the server, and a conflict answered with
    // skip is reported as skipped.
    ScratchDir open("clisrvopen");
    QuillonProcess writable({"serve", "ftp", open.path(), "--port", "0", "--bind", "127.0.0.1",
                             "--allow-anonymous-upload"});
    auto openPort = writable.waitForOutput(std::regex(R"(Connect to ftp://127\.0\.0\.1:(\d+)/)"));
    ASSERT_TRUE(openPort) << writable.out() << writable.err();
    std::string openName = "127.0.0.1:" + *openPort;
    EXPECT_TRUE(failsSaying(1, {"mkdir", "ftp://" + openName + "/missing/new"},
                            openName + ":/missing/new: Its parent folder does not exist; the "
                                       "server said \"550 MKD command failed.\" (FTP 21)"));
    auto copied = runQuillon({"cp", local / "up.txt", "ftp://" + openName + "/"});
    EXPECT_EQ(copied.exitCode, 0) << copied.err;
    EXPECT_TRUE(contains(copied.err,
                         "copied " + (local / "up.txt") + " -> " + openName + ":/up.txt  2 B in "))
        << copied.err;
    auto skipped = runQuillon(
        {"cp", "--json", "--on-conflict", "skip", local / "up.txt", "ftp://" + openName + "/"});
    EXPECT_EQ(skipped.exitCode, 0) << skipped.err;
    EXPECT_TRUE(contains(skipped.out, "\"state\":\"skipped\"")) << skipped.out;
}

// Ctrl-C while connecting to a server that never answers: every command ends at once with 130
// and leaves nothing behind.
TEST(Cli, CtrlCStopsCommandsWaitingOnASilentServer) {
    IsolatedHome home;
    ScratchDir local("clisilent");
    writeFile(local / "tree/a.txt", "a");
    ScriptedFtpServer silent("", [](const std::string&) { return std::string(); });
    std::string port = std::to_string(silent.port());
    ASSERT_TRUE(quillonExits(0, {"server", "add", "silent", "--type", "ftp", "--addr", "127.0.0.1",
                                 "--port", port, "--user", "u", "--password", "p"}));
    ASSERT_TRUE(quillonExits(0, {"sync", "add", "silent:/", "pair"}));
    std::string synced = home.path() + "/home/Synced/pair";
    const std::vector<std::vector<std::string>> commands = {
        {"ls", "silent:/"},
        {"cp", "silent:/a.txt", local / "tree"},
        {"cp", "-r", local / "tree", "silent:/"},
        {"sync", "run", "1"},
    };
    for (auto& args : commands) {
        SCOPED_TRACE(args[0] + " " + args[1]);
        int before = silent.sessions();
        QuillonProcess p(args);
        ASSERT_TRUE(waitUntil([&] { return silent.sessions() > before || !p.running(); }));
        ASSERT_TRUE(p.running()) << p.out() << p.err();
        // Twice for sync, which finishes its records after the first and ignores the second.
        ::kill(p.pid(), SIGINT);
        if (args[0] == "sync") ::kill(p.pid(), SIGINT);
        // Well below the server's 30 s reply time-out, which was the only way out before.
        EXPECT_EQ(p.wait(std::chrono::seconds(20)), 130) << p.out() << p.err();
    }
    EXPECT_EQ(namesIn(local / "tree"), std::vector<std::string>{"a.txt"});
    // The sync folder holds its lock file only.
    EXPECT_EQ(namesIn(synced), std::vector<std::string>{".sync_lock"});
}
