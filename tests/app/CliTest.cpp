// The quillon command as a user runs it: servers, settings and local browsing, with the exit
// status and messages a script relies on.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/TestEnv.h"

using namespace quillon::test;
namespace fs = std::filesystem;

TEST(Cli, ServersCanBeAddedShownChangedAndRemoved) {
    IsolatedHome home;
    auto add =
        runQuillon({"server", "add", "Office NAS", "--type", "ftp", "--addr", "127.0.0.1", "--port",
                    "2121", "--user", "me", "--password-stdin", "--encoding", "GBK"},
                   "s3cret\n");
    ASSERT_EQ(add.exitCode, 0) << add.err;
    auto again = runQuillon({"server", "add", "Office NAS", "--type", "ftp", "--addr", "x"});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_TRUE(contains(again.err, "exists already")) << again.err;

    auto show = runQuillon({"server", "show", "Office NAS", "--json"});
    ASSERT_EQ(show.exitCode, 0) << show.err;
    EXPECT_TRUE(contains(show.out, "\"ADDR\":\"127.0.0.1\"")) << show.out;
    EXPECT_TRUE(contains(show.out, "\"PORT\":\"2121\""));
    EXPECT_TRUE(contains(show.out, "\"SERVER_ENCODING\":\"2147485233\""));  // GBK's number
    EXPECT_FALSE(contains(show.out, "s3cret"));                             // secrets are masked

    ASSERT_EQ(
        runQuillon({"server", "set", "Office NAS", "PATH=/pub", "FTP_ACTIVE_MODE=YES"}).exitCode,
        0);
    ASSERT_EQ(runQuillon({"server", "set", "Office NAS", "--unset", "FTP_ACTIVE_MODE"}).exitCode,
              0);
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
    struct stat st {};
    ASSERT_EQ(::stat((home.path() + "/data/KvQuillon/db/db.sqlite").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    ASSERT_EQ(runQuillon({"server", "rm", "Office NAS"}).exitCode, 0);
    auto gone = runQuillon({"server", "show", "Office NAS"});
    EXPECT_EQ(gone.exitCode, 1);
    EXPECT_TRUE(contains(gone.err, "No server named \"Office NAS\"")) << gone.err;

    // Usage errors exit 2.
    EXPECT_EQ(runQuillon({"server", "add", "x", "--type", "gopher"}).exitCode, 2);
    EXPECT_EQ(runQuillon({"server", "add", "x", "--type", "ftp"}).exitCode, 2);  // no --addr
    EXPECT_EQ(runQuillon({"no-such-command"}).exitCode, 2);
}

TEST(Cli, PreferencesAreReadAndSavedWithTheirKinds) {
    IsolatedHome home;
    auto get = runQuillon({"prefs", "Max Simultaneous Transfers"});
    ASSERT_EQ(get.exitCode, 0) << get.err;
    ASSERT_EQ(runQuillon({"prefs", "Max Simultaneous Transfers", "5"}).exitCode, 0);
    EXPECT_EQ(runQuillon({"prefs", "Max Simultaneous Transfers"}).out, "5\n");
    // A number setting refuses text; a boolean takes yes/no.
    auto bad = runQuillon({"prefs", "Max Simultaneous Transfers", "many"});
    EXPECT_EQ(bad.exitCode, 2);
    // With no transfer allowed at once, every transfer would wait for ever.
    for (auto none : {"0", "-3"}) {
        auto zero = runQuillon({"prefs", "Max Simultaneous Transfers", none});
        EXPECT_EQ(zero.exitCode, 2);
        EXPECT_TRUE(contains(zero.err, "\"Max Simultaneous Transfers\" must be 1 or more."))
            << zero.err;
    }
    EXPECT_EQ(runQuillon({"prefs", "Max Simultaneous Transfers"}).out, "5\n");
    ASSERT_EQ(runQuillon({"prefs", "SYS_SHOW_HIDDEN_FILES", "yes"}).exitCode, 0);
    EXPECT_EQ(runQuillon({"prefs", "SYS_SHOW_HIDDEN_FILES"}).out, "true\n");
    auto all = runQuillon({"prefs"});
    EXPECT_TRUE(contains(all.out, "Max Simultaneous Transfers = 5"));
    auto unknown = runQuillon({"prefs", "No Such Key"});
    EXPECT_EQ(unknown.exitCode, 1);

    // A damaged settings file is reported and kept aside, not overwritten silently.
    std::string pref = home.path() + "/data/KvQuillon/pref.plist";
    writeFile(pref, "<plist><dict><key>broken");
    auto damaged = runQuillon({"prefs"});
    EXPECT_EQ(damaged.exitCode, 1);
    bool keptAside = false;
    for (auto& e : fs::directory_iterator(home.path() + "/data/KvQuillon"))
        if (e.path().filename().string().starts_with("pref.plist.") &&
            readFile(e.path().string()) == "<plist><dict><key>broken")
            keptAside = true;
    EXPECT_TRUE(keptAside);
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
        ASSERT_EQ(json.exitCode, 0);
        EXPECT_TRUE(contains(json.out, "\"name\":\"b 10.txt\"")) << json.out;
        EXPECT_TRUE(contains(json.out, "\"size\":4"));
        EXPECT_TRUE(contains(json.out, "\"mtime\":\"2001-01-01T00:00:00Z\"")) << json.out;

        auto stat = runQuillon({"stat", "--json", dir / "b 10.txt"});
        ASSERT_EQ(stat.exitCode, 0) << stat.err;
        EXPECT_TRUE(contains(stat.out, "\"isDir\":false"));
        EXPECT_TRUE(contains(stat.out, "\"mtime\":\"2001-01-01T00:00:00Z\"")) << stat.out;
    }

    EXPECT_EQ(runQuillon({"cat", dir / "b 10.txt"}).out, "ten!");

    ASSERT_EQ(runQuillon({"mkdir", dir / "new folder"}).exitCode, 0);
    EXPECT_TRUE(fs::is_directory(dir / "new folder"));

    // Folders need -r.
    auto rmDir = runQuillon({"rm", dir / "sub"});
    EXPECT_EQ(rmDir.exitCode, 1);
    EXPECT_TRUE(fs::exists(dir / "sub"));
    EXPECT_EQ(runQuillon({"rm", "-r", dir / "sub"}).exitCode, 0);
    EXPECT_FALSE(fs::exists(dir / "sub"));

    // Missing items: exit 1 with the reason, domain and code.
    auto missing = runQuillon({"ls", dir / "nothing-here"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_TRUE(contains(missing.err, "10008")) << missing.err;
    auto unknownServer = runQuillon({"ls", "nosuchserver:/x"});
    EXPECT_EQ(unknownServer.exitCode, 1);
}

TEST(Cli, QuickConnectionLastsUntilTheNextLaunch) {
    IsolatedHome home;
    // Nothing listens on port 9 of the loopback address: the listing fails, the record stays.
    auto r = runQuillon({"ls", "ftp://someone@127.0.0.1:9/x"});
    EXPECT_EQ(r.exitCode, 1);
    auto countQuick = [&] {
        auto q = runProgram({"/usr/bin/python3", "-c",
                             "import sqlite3,sys; c=sqlite3.connect(sys.argv[1]); "
                             "print(c.execute(\"SELECT COUNT(*) FROM server_props WHERE "
                             "key='QUICK_CONNECT' AND value='YES'\").fetchone()[0])",
                             home.path() + "/data/KvQuillon/db/db.sqlite"});
        return q.out;
    };
    EXPECT_EQ(countQuick(), "1\n");
    // The next launch deletes it; only the local volumes are left.
    auto servers = runQuillon({"servers", "--json"});
    EXPECT_FALSE(contains(servers.out, "someone@127.0.0.1")) << servers.out;
    EXPECT_EQ(countQuick(), "0\n");
}
