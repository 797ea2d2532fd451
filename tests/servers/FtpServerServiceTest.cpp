// FtpServerService: settings from the preferences, start and stop on a thread of its own, and the
// folder-refresh notification on the main queue after a client changes something. Then
// `quillon serve ftp`: the real binary shares a folder, prints where to connect, logs sessions on
// standard error and stops cleanly on SIGINT and SIGTERM; it refuses what it cannot serve.

#include <gtest/gtest.h>
#include <signal.h>

#include <any>
#include <regex>

#include "core/AppPreference.h"
#include "core/MainQueue.h"
#include "core/NotificationCenter.h"
#include "core/StringUtils.h"
#include "media/Thumbnails.h"
#include "servers/ftpserver/FtpPath.h"
#include "servers/ftpserver/FtpServerService.h"
#include "support/ChildProcess.h"
#include "support/FtpServers.h"
#include "support/TestEnv.h"

namespace quillon {
namespace {

using test::ScratchDir;

TEST(FtpServerService, StartsFromThePreferencesPostsRefreshesAndStops) {
    test::IsolatedHome home;
    ScratchDir root("svcroot");
    ScratchDir local("svclocal");
    test::writeFile(local / "up.txt", "uploaded");
    auto& prefs = AppPreference::sharedAppPreference();
    prefs.setValue(root.path(), PrefKey::FTP_SERVER_LOCATION);
    prefs.setValue("alice", PrefKey::FTP_SERVER_USERNAME);
    prefs.setValue("pa ss", PrefKey::FTP_SERVER_PASSWORD);

    FtpServerService service;
    service.bindAddress = "127.0.0.1";
    EXPECT_EQ(service.port, FtpServerService::kDefaultPort);
    EXPECT_FALSE(service.online());
    // The port comes from the preferences; one that was free a moment ago may have been taken
    // by another program since, so another is tried then.
    int port = 0;
    for (int attempt = 0; attempt < 20; ++attempt) {
        port = test::freePort();
        prefs.setValue(port, PrefKey::FTP_SERVER_PORT);
        service.loadSettings();
        EXPECT_EQ(service.rootFolder, root.path());
        EXPECT_EQ(service.port, port);
        EXPECT_EQ(service.username, "alice");
        EXPECT_EQ(service.password, "pa ss");
        if (service.startServer()) break;
    }

    std::vector<std::string> refreshed;
    auto token = NotificationCenter::defaultCenter().addObserver(
        REFRESH_FOLDER_NOTIFICATION, [&refreshed](const UserInfo& info) {
            auto it = info.find(std::string(REFRESH_FOLDER_USER_INFO));
            if (it == info.end()) return;
            for (auto& f : std::any_cast<std::vector<std::string>>(it->second))
                refreshed.push_back(f);
        });

    ASSERT_TRUE(service.online());
    EXPECT_EQ(service.listeningPort(), port);
    EXPECT_TRUE(StringUtils::endsWith(service.localHostName(), ".local"));
    EXPECT_FALSE(service.localIPAddress().empty());
    EXPECT_FALSE(service.startServer());  // already running

    std::string url = "ftp://127.0.0.1:" + std::to_string(port) + "/";
    auto put = test::curl({"--user", "alice:pa ss", "-T", local / "up.txt", url + "up.txt"});
    EXPECT_EQ(put.exitCode, 0) << put.err;
    EXPECT_EQ(test::readFile(root / "up.txt"), "uploaded");
    EXPECT_TRUE(test::pumpUntil([&] { return !refreshed.empty(); }));
    EXPECT_EQ(refreshed, std::vector<std::string>{*FtpPath::canonical(root.path())});

    // "name::thumbnail" sends the file's thumbnail, made by the program's thumbnail maker.
    Thumbnails::installThumbnails();
    auto made = test::runProgram({"convert", "-size", "400x200", "xc:gray", root / "pic.jpg"});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    auto thumb =
        test::curl({"--user", "alice:pa ss", "-o", local / "pic.png", url + "pic.jpg::thumbnail"});
    EXPECT_EQ(thumb.exitCode, 0) << thumb.err;
    auto size = test::runProgram({"identify", "-format", "%m %wx%h", local / "pic.png"});
    EXPECT_EQ(size.out, "PNG 128x64") << size.err;

    service.stopServer();
    EXPECT_FALSE(service.online());
    EXPECT_TRUE(service.localIPAddress().empty());
    EXPECT_EQ(service.listeningPort(), 0);
    auto after =
        test::runProgram({"curl", "-q", "-s", "--max-time", "5", "--user", "alice:pa ss", url});
    EXPECT_NE(after.exitCode, 0);  // nobody listens any more

    // It starts again, on a port of its choosing, and a missing folder is an error.
    service.port = 0;
    ASSERT_TRUE(service.startServer());
    EXPECT_GT(service.listeningPort(), 0);
    service.stopServer();
    service.rootFolder = root / "missing";
    EXPECT_FALSE(service.startServer());
    EXPECT_FALSE(service.online());
    NotificationCenter::defaultCenter().removeObserver(token);
}

}  // namespace
}  // namespace quillon

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
