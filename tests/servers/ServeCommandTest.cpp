// `quillon serve ftp`: the real binary shares a folder, prints where to connect, logs sessions on
// standard error and stops cleanly on SIGINT and SIGTERM; it refuses what it cannot serve.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <regex>

#include "support/ChildProcess.h"
#include "support/TestEnv.h"

namespace quillon::test {
namespace {

TEST(ServeCommand, SharesAFolderWithAUserLogsSessionsAndStopsOnSigint) {
    IsolatedHome home;
    ScratchDir root("serve");
    ScratchDir local("servelocal");
    writeFile(root / "hello world.txt", "hi there");
    writeFile(local / "up.bin", "uploaded bytes");
    ChildProcess p({QUILLON_BINARY, "serve", "ftp", root.path(), "--port", "0", "--bind",
                    "127.0.0.1", "--user", "ann", "--password-stdin"},
                   "open sesame\n");
    auto port = p.waitForOutput(std::regex(R"(Connect to ftp://ann@127\.0\.0\.1:(\d+)/)"));
    ASSERT_TRUE(port) << p.out() << p.err();
    std::string url = "ftp://127.0.0.1:" + *port + "/";
    EXPECT_TRUE(contains(p.out(), "Sharing " + root.path() + " over FTP")) << p.out();

    auto get = curl({"--user", "ann:open sesame", url + "hello%20world.txt"});
    EXPECT_EQ(get.exitCode, 0) << get.err;
    EXPECT_EQ(get.out, "hi there");
    auto put = curl({"--user", "ann:open sesame", "-T", local / "up.bin", url + "up.bin"});
    EXPECT_EQ(put.exitCode, 0) << put.err;
    EXPECT_EQ(readFile(root / "up.bin"), "uploaded bytes");
    EXPECT_NE(curl({"--user", "ann:wrong", url}).exitCode, 0);

    EXPECT_EQ(p.stop(SIGINT), 0) << p.err();
    for (auto says : {"connected", "user 'ann' logged in", "STOR up.bin (14 bytes): 226",
                      "login failed", "received SIGINT, stopping"})
        EXPECT_TRUE(contains(p.err(), says)) << says << " not in " << p.err();
    EXPECT_FALSE(contains(p.err(), "open sesame"));  // the password is never logged
    EXPECT_NE(curl({url}).exitCode, 0);              // and nothing listens any more
}

// (What an anonymous session may do is the server's own test.)
TEST(ServeCommand, AnonymousShareSaysSoAndStopsOnSigtermAndBadSetupsAreRefused) {
    IsolatedHome home;
    ScratchDir root("servebad");
    writeFile(root / "pub.txt", "public");
    EXPECT_TRUE(
        quillonExits(2, {"serve", "ftp", root / "missing", "--port", "0"}, "no such folder"));
    EXPECT_TRUE(quillonExits(
        2, {"serve", "ftp", root.path(), "--password", "a", "--password-stdin"}, "", "b\n"));

    ChildProcess first(
        {QUILLON_BINARY, "serve", "ftp", root.path(), "--port", "0", "--bind", "127.0.0.1"});
    auto port = first.waitForOutput(std::regex(R"(Connect to ftp://127\.0\.0\.1:(\d+)/)"));
    ASSERT_TRUE(port) << first.err();
    first.waitForOutput(std::regex("press Ctrl-C to stop"));
    EXPECT_TRUE(contains(first.out(), "Anyone may log in (read-only)")) << first.out();
    EXPECT_EQ(curl({"ftp://127.0.0.1:" + *port + "/pub.txt"}).out, "public");
    EXPECT_TRUE(quillonExits(1,
                             {"serve", "ftp", root.path(), "--port", *port, "--bind", "127.0.0.1"},
                             "Cannot listen on 127.0.0.1 port " + *port));
    EXPECT_EQ(first.stop(SIGTERM), 0) << first.err();
}

}  // namespace
}  // namespace quillon::test
