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
    EXPECT_TRUE(quillonExits(2, {"no-such-command"}));
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

    // A damaged settings file is reported (and kept aside, as the store's own test checks).
    writeFile(home.path() + "/data/KvQuillon/pref.plist", "<plist><dict><key>broken");
    EXPECT_TRUE(quillonExits(1, {"prefs"}));
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

    // Missing items: exit 1 with the reason, domain and code.
    EXPECT_TRUE(quillonExits(1, {"ls", dir / "nothing-here"}, "10008"));
    EXPECT_TRUE(quillonExits(1, {"ls", "nosuchserver:/x"}));
}
