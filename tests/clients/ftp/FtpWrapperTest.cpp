// FtpWrapper behaviour of its own, against real FTP servers (and one scripted fake server for
// replies no real server sends): URLs and escaping, the feature probe, resumed downloads, the
// PASV-address retry, legacy encodings, refused logins, hostile replies.

#include "clients/ftp/FtpWrapper.h"

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>
#include <utility>

#include "core/KvConnectionPool.h"
#include "core/MainQueue.h"
#include "core/ServerInfoService.h"
#include "support/FtpServers.h"
#include "support/TestEnv.h"

namespace quillon {
namespace {

using test::FtpServer;
using test::FtpServerKind;
using test::FtpServerOptions;
using test::ScriptedFtpServer;

constexpr const char* kGbk = "2147485233";  // GBK as the platform numbers it
constexpr const char* kShiftJis = "8";      // Shift-JIS

class FtpWrapperTest : public ::testing::Test {
  protected:
    void TearDown() override {
        MainQueue::shared().pump();
        KvConnectionPool::clearConnectionPool();
    }

    static KvMetadata item(const std::string& path, bool isDir = false) {
        KvMetadata m(path);
        m.isDir = isDir;
        m.protocolType = ProtocolType::FTP;
        return m;
    }

    // A record for the scripted server with its features known, so that no FEAT is asked;
    // PASV (whose reply carries an address) rather than EPSV.
    static ServerInfoPtr scripted(const ScriptedFtpServer& s) {
        auto info = s.serverInfo();
        info->supportMLSD = true;
        info->supportUTF8 = info->supportMFMT = info->supportEPSV = false;
        return info;
    }

    test::IsolatedHome home_;
    test::ScratchDir local_{"ftp-local"};
};

TEST_F(FtpWrapperTest, BuildsUrlsAndEscapesPathsInTheServerEncoding) {
    auto info = std::make_shared<ServerInfo>();
    info->protocolType = ProtocolType::FTP;
    info->setValue(std::string(" FTP://files.example/ "), ServerProp::ADDR);
    info->setValue(std::string("2121"), ServerProp::PORT);
    FtpWrapper w(info);
    EXPECT_EQ(w.FTPUrlString("/pub"), "ftp://files.example:2121//pub");
    EXPECT_EQ(w.FTPUrlString("pub"), "ftp://files.example:2121/pub");

    info->setValue(std::string("sftp://files.example"), ServerProp::ADDR);
    info->setValue(std::string(""), ServerProp::PORT);
    EXPECT_EQ(w.FTPUrlString(""), "ftp://files.example/");
    info->setValue(std::string("FTP_PROTOCOL_IMPLICIT"), ServerProp::FTP_PROTOCOL);
    EXPECT_EQ(w.FTPUrlString("/a"), "ftps://files.example//a");

    EXPECT_EQ(w.cStringForURL(std::string("/a b/#1?x=%;[2].txt")),
              "/a%20b/%231%3Fx%3D%25%3B[2].txt");
    EXPECT_EQ(w.cStringForURL(std::nullopt), "");
    EXPECT_EQ(w.cStringForURL(std::string("/\u4e2d.txt")), "/%E4%B8%AD.txt");
    EXPECT_TRUE(w.canSendUTF8Command() == false) << "never probed";

    // A GBK server gets the GBK bytes of the name, escaped; commands travel as GBK bytes.
    info->setValue(std::string(kGbk), ServerProp::SERVER_ENCODING);
    EXPECT_EQ(w.nsEncodingFromSetting(), 0x80000631u);
    EXPECT_EQ(w.kcfEncodingFromSetting(), 0x0631u);
    EXPECT_EQ(w.cStringForURL(std::string("/\u4e2d\u6587.txt")), "/%D6%D0%CE%C4.txt");
    EXPECT_EQ(w.cStringForCmd("DELE /\u4e2d"), "DELE /\xd6\xd0");
    info->supportUTF8 = true;
    EXPECT_FALSE(w.canSendUTF8Command()) << "OPTS UTF8 ON is for UTF-8 servers only";
    info->setValue(std::string("not a number"), ServerProp::SERVER_ENCODING);
    EXPECT_EQ(w.nsEncodingFromSetting(), 4u);
    EXPECT_TRUE(w.canSendUTF8Command());

    EXPECT_EQ(FtpWrapper::parseErrorInMessage("220 hi\r\n421 Too many users\r\n"),
              "421 Too many users\r\n");
    EXPECT_EQ(FtpWrapper::parseErrorInMessage("530 no"), "Unknown error!");
    EXPECT_EQ(FtpWrapper::pureAddressFromFullPath("ftp://host:21\\pub\\x"), "host:21");
    EXPECT_EQ(FtpWrapper::purePathFromFullPath("ftp://host:21\\pub\\x"), "/pub/x");
    EXPECT_EQ(FtpWrapper::purePathFromFullPath("host"), "");

    auto url = w.loadStreamableURLForFileSync(item("/music/a b.mp3"));
    ASSERT_TRUE(url);
    EXPECT_EQ(*url, "http://127.0.0.1:21901/music/a%20b.mp3");
}

TEST_F(FtpWrapperTest, ProbesFeaturesLogsInAnonymouslyAndRefusesWrongPasswords) {
    auto py = FtpServer::start(FtpServerKind::Pyftpdlib);
    auto vs = FtpServer::start(FtpServerKind::Vsftpd);
    auto pure = FtpServer::start(FtpServerKind::PureFtpd);
    ASSERT_TRUE(py && vs && pure);

    auto pyInfo = py->serverInfo();
    FtpWrapper w(pyInfo);
    ASSERT_TRUE(w.signInSync());
    EXPECT_EQ(pyInfo->supportMLSD, true);
    EXPECT_EQ(pyInfo->supportMFMT, true);
    EXPECT_EQ(pyInfo->supportUTF8, true);
    EXPECT_EQ(pyInfo->supportEPSV, true);

    // vsftpd offers no MLSD: listings go by LIST. Empty credentials log in as anonymous.
    auto vsInfo = vs->serverInfo();
    vsInfo->setValue(std::string(""), ServerProp::USERNAME);
    vsInfo->setValue(std::string(""), ServerProp::PASSWORD);
    vs->writeFile("listed.txt", "abc");
    FtpWrapper v(vsInfo);
    auto listing = v.contentsOfDirectoryAtPathSync(v.rootFolder());
    ASSERT_TRUE(listing) << listing.error().describe();
    EXPECT_EQ(vsInfo->supportMLSD, false);
    EXPECT_EQ(vsInfo->supportEPSV, true);
    ASSERT_EQ(listing->size(), 1u);
    // The login folder's absolute name came from PWD: vsftpd shows the whole file system here.
    EXPECT_EQ((*listing)[0].pathOrEmpty(), vs->root() + "/listed.txt");
    EXPECT_FALSE(vsInfo->needRunPWD);

    // A wrong password: "Access denied", with the libcurl result (67), or 13 for listings.
    auto bad = pure->serverInfo();
    bad->setValue(std::string("wrong"), ServerProp::PASSWORD);
    FtpWrapper b(bad);
    auto signIn = b.signInSync();
    ASSERT_FALSE(signIn);
    EXPECT_EQ(signIn.error().reason, "Access denied");
    EXPECT_EQ(signIn.error().code, 67);
    EXPECT_EQ(signIn.error().domain, "FTP");
    auto badList = b.contentsOfDirectoryAtPathSync(item("/", true));
    ASSERT_FALSE(badList);
    EXPECT_EQ(badList.error().code, 13);
    // Typed-in credentials win over the stored ones.
    bad->setValue(pure->password(), ServerProp::TEMP_PASSWORD);
    FtpWrapper t(bad);
    EXPECT_TRUE(t.signInSync());
}

TEST_F(FtpWrapperTest, ResumesACutDownloadTenTimesAtMostSteppingBack10240Bytes) {
    // pyftpdlib ending the first `cuts` downloads (-1: all) after `after` bytes.
    auto cutting = [](long after, int cuts) {
        FtpServerOptions o;
        o.cutAfterBytes = after;
        o.cuts = cuts;
        return FtpServer::start(FtpServerKind::Pyftpdlib, o);
    };
    auto server = cutting(25000, 2);
    ASSERT_TRUE(server);
    const std::string content = test::randomBytes(100000, 7);
    server->writeFile("data.bin", content);

    FtpWrapper w(server->serverInfo());
    w.setRetryDelay(std::chrono::milliseconds(10));
    std::vector<std::pair<std::int64_t, std::int64_t>> reports;
    auto target = local_ / "data.bin";
    auto r = w.downloadSync(item("/data.bin"), target, [&](std::int64_t done, std::int64_t total) {
        reports.emplace_back(done, total);
    });
    MainQueue::shared().pump();
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_TRUE(test::readFile(target) == content) << "the resumed file differs";
    // Broken after 25,000 bytes: restart at 14,760; broken again 25,000 bytes later: 29,520.
    EXPECT_EQ(server->restOffsets(), (std::vector<long long>{14760, 29520}));
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back(), (std::pair<std::int64_t, std::int64_t>{100000, 100000}));
    EXPECT_LE(reports.size(), 101u + 2u);  // a step may repeat after each step back

    // Cut every time: ten attempts, then the error; the partial file is not left behind.
    auto always = cutting(20000, -1);
    ASSERT_TRUE(always);
    always->writeFile("big.bin", test::randomBytes(500000, 8));
    FtpWrapper a(always->serverInfo());
    a.setRetryDelay(std::chrono::milliseconds(10));
    auto failed = a.downloadSync(item("/big.bin"), local_ / "big.bin", {});
    ASSERT_FALSE(failed);
    EXPECT_EQ(failed.error().code, 18);
    EXPECT_EQ(always->restOffsets().size(), 9u) << "ten attempts: the first and nine resumes";
    EXPECT_FALSE(std::filesystem::exists(local_ / "big.bin"));

    // A download broken after 4,000 bytes starts over at 0.
    auto small = cutting(4000, 1);
    ASSERT_TRUE(small);
    small->writeFile("s.bin", test::randomBytes(9000, 9));
    FtpWrapper s(small->serverInfo());
    s.setRetryDelay(std::chrono::milliseconds(10));
    ASSERT_TRUE(s.downloadSync(item("/s.bin"), local_ / "s.bin", {}));
    EXPECT_EQ(test::readFile(local_ / "s.bin"), test::randomBytes(9000, 9));
    EXPECT_EQ(small->restOffsets(), std::vector<long long>{}) << "REST 0 is not sent";
}

TEST_F(FtpWrapperTest, ListsDownloadsAndUploadsGbkAndShiftJisNames) {
    // vsftpd passes name bytes through as they are: the files below have GBK and Shift-JIS names
    // on disk, as on a legacy server.
    auto server = FtpServer::start(FtpServerKind::Vsftpd);
    ASSERT_TRUE(server);
    server->writeFile("gbk/\xd6\xd0\xce\xc4 \xce\xc4\xbc\xfe.txt", "gbk content");  // 中文 文件.txt
    server->writeFile("sjis/\x93\xfa\x96\x7b.txt", "sjis content");                 // 日本.txt

    struct Case {
        const char* encoding;
        const char* folder;
        const char* listedName;
        const char* content;
        const char* newName;
        const char* newNameOnDisk;
    } cases[] = {
        {kGbk, "gbk", "\u4e2d\u6587 \u6587\u4ef6.txt", "gbk content", "\u4e0a\u4f20.txt",
         "\xc9\xcf\xb4\xab.txt"},
        {kShiftJis, "sjis", "\u65e5\u672c.txt", "sjis content", "\u6771\u4eac.txt",
         "\x93\x8c\x8b\x9e.txt"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.folder);
        auto info = server->serverInfo();
        info->setValue(std::string(c.encoding), ServerProp::SERVER_ENCODING);
        FtpWrapper w(info);
        auto folder = item(server->remotePath(c.folder), true);
        auto listing = w.contentsOfDirectoryAtPathSync(folder);
        ASSERT_TRUE(listing) << listing.error().describe();
        ASSERT_EQ(listing->size(), 1u);
        EXPECT_EQ((*listing)[0].nameOrEmpty(), c.listedName);

        auto target = local_ / (std::string(c.folder) + ".txt");
        auto down = w.downloadSync((*listing)[0], target, {});
        ASSERT_TRUE(down) << down.error().describe();
        EXPECT_EQ(test::readFile(target), c.content);

        test::writeFile(local_ / c.newName, "uploaded");
        auto up = w.uploadSync(item(local_ / c.newName), folder, {});
        ASSERT_TRUE(up) << up.error().describe();
        EXPECT_EQ(test::readFile(server->hostPath(std::string(c.folder) + "/" + c.newNameOnDisk)),
                  "uploaded");

        auto renamed = w.moveSync((*listing)[0],
                                  item(server->remotePath(std::string(c.folder) + "/renamed.txt")));
        ASSERT_TRUE(renamed) << renamed.error().describe();
        EXPECT_TRUE(
            std::filesystem::exists(server->hostPath(std::string(c.folder) + "/renamed.txt")));
    }
}

TEST_F(FtpWrapperTest, ChmodModificationTimesAndRefusedControlCharacters) {
    auto pro = FtpServer::start(FtpServerKind::Proftpd);
    auto vs = FtpServer::start(FtpServerKind::Vsftpd);
    ASSERT_TRUE(pro && vs);

    FtpWrapper w(pro->serverInfo("FTP_PROTOCOL_EXPLICIT"));
    pro->writeFile("mode.txt", "m");
    ASSERT_TRUE(w.chmodSync(item("/mode.txt"), "600"));
    EXPECT_EQ(test::modeOf(pro->hostPath("mode.txt")), 0600u);

    // Uploads carry the local modification time where the server offers MFMT, in UTC whatever
    // the local zone.
    auto local = local_ / "old.txt";
    test::writeFile(local, "old");
    auto then = std::chrono::system_clock::from_time_t(978307200);  // 2001-01-01 00:00:00 UTC
    std::filesystem::last_write_time(local, std::filesystem::file_time_type::clock::from_sys(then));
    for (const char* zone : {"Asia/Tokyo", "America/New_York", "UTC"}) {
        SCOPED_TRACE(zone);
        test::ScopedTimeZone tz(zone);
        ASSERT_TRUE(w.uploadSync(item(local), item("/", true), {}));
        EXPECT_EQ(test::mtimeOf(pro->hostPath("old.txt")), 978307200);
    }

    FtpWrapper v(vs->serverInfo());
    ASSERT_TRUE(v.uploadSync(item(local), item(vs->remotePath(""), true), {}));
    EXPECT_GT(test::mtimeOf(vs->hostPath("old.txt")), 978307200)
        << "vsftpd has no MFMT: the server's own time stays";

    auto cwd = w.currentWorkingDirectory();
    ASSERT_TRUE(cwd) << cwd.error().describe();
    EXPECT_EQ(*cwd, "/");

    // A name holding CR, LF or NUL is refused before any command is sent.
    pro->writeFile("victim.txt", "v");
    for (std::string evil : {std::string("/a\r\nDELE /victim.txt"),
                             std::string("/a\nDELE /victim.txt"), std::string("/a\0b", 4)}) {
        auto r = w.removeSync({item(evil)});
        EXPECT_FALSE(r);
        EXPECT_FALSE(w.createFolderSync(item(evil, true)));
        EXPECT_FALSE(w.downloadSync(item(evil), local_ / "evil", {}));
        EXPECT_FALSE(w.contentsOfDirectoryAtPathSync(item(evil, true)));
        EXPECT_FALSE(w.moveSync(item("/victim.txt"), item(evil)));
    }
    EXPECT_TRUE(std::filesystem::exists(pro->hostPath("victim.txt")));
}

TEST_F(FtpWrapperTest, SurvivesHostileRepliesAndRefusedConnections) {
    auto login = [](const std::string& line) -> std::string {
        return line.starts_with("USER") || line.starts_with("PASS")
                   ? ScriptedFtpServer::basics(line)
                   : "";
    };
    // A PWD reply without quotes, then one of a megabyte.
    for (std::string pwd :
         {std::string("257 no quotes here"), "257 \"" + std::string(1 << 20, 'x') + "\""}) {
        ScriptedFtpServer s("220 hi\r\n", [&](const std::string& line) -> std::string {
            if (auto r = login(line); !r.empty()) return r;
            return line == "PWD" ? pwd + "\r\n" : "CLOSE";
        });
        FtpWrapper w(s.serverInfo());
        auto cwd = w.currentWorkingDirectory();
        if (pwd.size() < 100) {
            EXPECT_FALSE(cwd);
        } else if (cwd) {
            EXPECT_LE(cwd->size(), std::size_t(1) << 20);
        }
    }
    // A multi-line FEAT reply that never ends: the server hangs up in the middle.
    {
        ScriptedFtpServer s("220 hi\r\n", [&](const std::string& line) -> std::string {
            if (auto r = login(line); !r.empty()) return r;
            if (line == "PWD") return "257 \"/\"\r\n";
            if (line == "FEAT") return "211-Features:\r\n MLSD\r\n UTF8\r\n<CLOSE>";
            return "CLOSE";
        });
        auto info = s.serverInfo();
        FtpWrapper w(info);
        EXPECT_FALSE(w.signInSync());
        EXPECT_FALSE(info->supportMLSD.has_value()) << "a broken FEAT reply set the features";
    }
    // "421" at the greeting: a clear error, once.
    {
        ScriptedFtpServer s("421 Too many connections\r\n",
                            [&](const std::string&) -> std::string { return "CLOSE"; });
        FtpWrapper w(s.serverInfo());
        auto r = w.contentsOfDirectoryAtPathSync(item("/", true));
        ASSERT_FALSE(r);
        EXPECT_EQ(r.error().domain, "FTP");
        EXPECT_FALSE(r.error().reason.empty());
    }
}

TEST_F(FtpWrapperTest, CancellingEndsARequestTheServerLeavesUnanswered) {
    // After the login the server goes silent: without the cancellation the request would wait
    // for libcurl's 30-second reply time-out.
    std::atomic<bool> asked{false};
    ScriptedFtpServer s("220 hi\r\n", [&](const std::string& line) {
        if (line == "FEAT") asked = true;
        return ScriptedFtpServer::basics(line);
    });
    FtpWrapper w(s.serverInfo());
    std::thread canceller([&] {
        if (test::waitUntil([&] { return asked.load(); })) w.cancelOperation();
    });
    auto r = w.signInSync();
    canceller.join();
    ASSERT_FALSE(r);
    EXPECT_EQ(r.error().code, CURLE_ABORTED_BY_CALLBACK) << r.error().describe();
    KvConnectionPool::clearConnectionPool();
}

TEST_F(FtpWrapperTest, ReplacesAPooledSessionTheServerClosedWhileIdle) {
    auto server = FtpServer::start(FtpServerKind::PureFtpd);
    ASSERT_TRUE(server);
    server->writeFile("a.txt", "a");
    auto info = server->serverInfo();
    {
        FtpWrapper w(info);
        ASSERT_TRUE(w.contentsOfDirectoryAtPathSync(item("/", true)));
    }
    ASSERT_GE(KvConnectionPool::sharedInstance().idleCount(info->serverID), 1u);
    // Every idle session in the pool is now dead.
    server->endSessions();
    ::unlink(server->hostPath("a.txt").c_str());
    server->writeFile("b.txt", "b");
    FtpWrapper w(info);
    auto listing = w.contentsOfDirectoryAtPathSync(item("/", true));
    ASSERT_TRUE(listing) << listing.error().describe();
    ASSERT_EQ(listing->size(), 1u);
    EXPECT_EQ((*listing)[0].nameOrEmpty(), "b.txt");
}

TEST_F(FtpWrapperTest, RequestsInARowShareOneSession) {
    // pyftpdlib lists UTF8 in FEAT but refuses "OPTS UTF8 ON" with 501: the refusal must not
    // cost the session, or every request logs in again.
    auto server = FtpServer::start(FtpServerKind::Pyftpdlib);
    ASSERT_TRUE(server);
    server->makeDir("sub");
    for (int i = 0; i < 5; ++i) server->writeFile("sub/f" + std::to_string(i), "data");
    auto info = server->serverInfo();
    for (int round = 0; round < 2; ++round) {
        // A new wrapper per request, as the transfer tasks make them.
        FtpWrapper w(info);
        auto listing = w.contentsOfDirectoryAtPathSync(item("/sub", true));
        ASSERT_TRUE(listing) << listing.error().describe();
        ASSERT_EQ(listing->size(), 5u);
        for (auto& f : *listing) {
            FtpWrapper each(info);
            auto target = local_ / (std::to_string(round) + f.nameOrEmpty());
            ASSERT_TRUE(each.downloadSync(f, target, {}));
            EXPECT_EQ(test::readFile(target), "data");
        }
    }
    ASSERT_TRUE(*info->supportUTF8);
    EXPECT_EQ(server->events("LOGIN"), 1);
}

TEST_F(FtpWrapperTest, NeverConnectsToAPasvAddressOtherThanTheServersAndHealsTheRecord) {
    // A hostile server names a third service (a bystander on 127.0.0.2) in its PASV reply: an
    // upload must not send a byte there. The refusal spends the one retry, which ignores the
    // address and remembers that in the record.
    std::string received;
    ScriptedFtpServer s("220 hi\r\n", [&](const std::string& line, auto& session) -> std::string {
        if (auto r = ScriptedFtpServer::basics(line); !r.empty()) return r;
        if (line == "PASV") return session.passive("127.0.0.2");
        if (line.starts_with("STOR")) {
            session.reply("150 Go ahead\r\n");
            if (!session.acceptData()) return "425 No data connection\r\n";
            received = session.receiveData();
            return "226 Done\r\n";
        }
        if (line.starts_with("SIZE")) return "213 " + std::to_string(received.size()) + "\r\n";
        if (line.starts_with("REST")) return "350 Restarting\r\n";
        return "502 No\r\n";
    });
    auto info = scripted(s);
    ASSERT_TRUE(ServerInfoService::sharedServerInfoService().saveServerInfo(*info));
    const std::string content = test::randomBytes(20000, 3);
    test::writeFile(local_ / "up.bin", content);

    FtpWrapper w(info);
    auto r = w.uploadSync(item(local_ / "up.bin"), item("/", true), {});
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_TRUE(received == content);
    EXPECT_EQ(s.bystanderConnections(), 0);
    EXPECT_TRUE(w.triedAfterTimeout());
    EXPECT_EQ(info->valueForKey("FTP_SKIP_PASV_IP"), "TRUE");
    auto stored =
        ServerInfoService::sharedServerInfoService().serverInfoWithServerID(info->serverID);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->valueForKey("FTP_SKIP_PASV_IP"), "TRUE");

    // The next client starts with the option on and needs no retry.
    received.clear();
    FtpWrapper next(info);
    ASSERT_TRUE(next.uploadSync(item(local_ / "up.bin"), item("/", true), {}));
    EXPECT_FALSE(next.triedAfterTimeout());
    EXPECT_TRUE(received == content);

    // With the option off again, a client that spent its retry fails as "could not connect".
    info->setValue(std::string("FALSE"), "FTP_SKIP_PASV_IP");
    FtpWrapper once(info);
    ASSERT_TRUE(once.uploadSync(item(local_ / "up.bin"), item("/", true), {}));
    info->setValue(std::string("FALSE"), "FTP_SKIP_PASV_IP");
    auto second = once.uploadSync(item(local_ / "up.bin"), item("/", true), {});
    ASSERT_FALSE(second);
    EXPECT_EQ(second.error().code, 7);
    EXPECT_EQ(s.bystanderConnections(), 0);
}

// Runs `request`, cancelling the client should it still run after a minute: a hang becomes a
// failure of the test instead of its end.
template <typename Request>
auto withWatchdog(FtpWrapper& w, Request request) {
    std::atomic<bool> done{false};
    std::thread watchdog([&] {
        if (!test::waitUntil([&] { return done.load(); }, std::chrono::seconds(60)))
            w.cancelOperation();
    });
    auto result = request();
    done = true;
    watchdog.join();
    return result;
}

TEST_F(FtpWrapperTest, AStalledDataConnectionEndsInATimeOut) {
    // The data connection opens and stays open, silent from the start (listing) or after a few
    // bytes (download).
    ScriptedFtpServer s("220 hi\r\n", [&](const std::string& line, auto& session) -> std::string {
        if (auto r = ScriptedFtpServer::basics(line); !r.empty()) return r;
        if (line == "PASV") return session.passive();
        if (line.starts_with("SIZE")) return "213 100000\r\n";
        if (line.starts_with("RETR") || line.starts_with("MLSD")) {
            session.reply("150 Here it comes\r\n");
            session.sendData(line.starts_with("RETR") ? "first bytes" : "", false);
            return "426 Aborted\r\n";
        }
        return "502 No\r\n";
    });
    auto info = scripted(s);
    FtpWrapper w(info);
    w.setStallLimit(std::chrono::seconds(1));

    auto listing =
        withWatchdog(w, [&] { return w.contentsOfDirectoryAtPathSync(item("/", true)); });
    ASSERT_FALSE(listing);
    EXPECT_EQ(listing.error().code, 28);
    EXPECT_EQ(listing.error().reason, "Operation Time Out");

    auto file = item("/big.bin");
    file.fileSizeInBytes = 100000;
    auto down = withWatchdog(w, [&] { return w.downloadSync(file, local_ / "big.bin", {}); });
    ASSERT_FALSE(down);
    EXPECT_EQ(down.error().code, 28);
    EXPECT_FALSE(std::filesystem::exists(local_ / "big.bin"));
}

TEST_F(FtpWrapperTest, TransfersThatDoNotEndAtTheExpectedSizeAreResumedOrFail) {
    // Downloads: the server's SIZE and the bytes it sends disagree with its listing; each one is
    // refused, and nothing is left under the target's name. Uploads: the server confirms a file
    // whose tail it lost; the client finds out by SIZE and appends the rest.
    std::string sizeReply;
    std::string body;
    std::string held;
    bool loseTail = false;
    ScriptedFtpServer s("220 hi\r\n", [&](const std::string& line, auto& session) -> std::string {
        if (auto r = ScriptedFtpServer::basics(line); !r.empty()) return r;
        if (line == "PASV") return session.passive();
        if (line.starts_with("SIZE"))
            return sizeReply.empty() ? "213 " + std::to_string(held.size()) + "\r\n" : sizeReply;
        if (line.starts_with("REST")) return "350 Restarting\r\n";
        if (line.starts_with("RETR")) {
            session.reply("150 Here it comes\r\n");
            session.sendData(body);
            return "226 Done\r\n";
        }
        if (line.starts_with("STOR") || line.starts_with("APPE")) {
            session.reply("150 Go ahead\r\n");
            if (line.starts_with("STOR")) held.clear();
            held += session.receiveData();
            if (std::exchange(loseTail, false)) held.resize(held.size() - 1000);
            return "226 Done\r\n";
        }
        return "502 No\r\n";
    });
    auto info = scripted(s);
    struct Case {
        const char* what;
        std::string sizeReply;
        std::size_t sent;
        long code;
    } cases[] = {
        {"a wrong SIZE", "213 10\r\n", 1000, 18},
        {"no SIZE, a short transfer", "502 No\r\n", 10, 18},
        {"more than listed", "213 2000\r\n", 2000, 63},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.what);
        sizeReply = c.sizeReply;
        body = test::randomBytes(c.sent, 5);
        FtpWrapper w(info);
        w.setRetryDelay(std::chrono::milliseconds(10));
        auto file = item("/data.bin");
        file.fileSizeInBytes = 1000;
        auto r = w.downloadSync(file, local_ / "data.bin", {});
        ASSERT_FALSE(r);
        EXPECT_EQ(r.error().code, c.code) << r.error().describe();
        EXPECT_FALSE(std::filesystem::exists(local_ / "data.bin"));
    }

    sizeReply.clear();
    loseTail = true;
    const std::string content = test::randomBytes(50000, 6);
    test::writeFile(local_ / "up.bin", content);
    FtpWrapper w(info);
    w.setRetryDelay(std::chrono::milliseconds(10));
    auto up = w.uploadSync(item(local_ / "up.bin"), item("/", true), {});
    ASSERT_TRUE(up) << up.error().describe();
    EXPECT_TRUE(held == content);
}

TEST_F(FtpWrapperTest, FtpsUploadsOverAReusedSessionArriveWhole) {
    // Under TLS 1.3 many of these arrived as 114,688 bytes, confirmed with 226: the data
    // connection was reset while the rest of the file still waited to be sent.
    FtpServerOptions implicitTls;
    implicitTls.implicitTls = true;
    auto py = FtpServer::start(FtpServerKind::Pyftpdlib, implicitTls);
    auto pro = FtpServer::start(FtpServerKind::Proftpd);
    ASSERT_TRUE(py && pro);
    const std::string content = test::randomBytes(2 * 1024 * 1024, 13);
    test::writeFile(local_ / "big.bin", content);
    for (auto* server : {py.get(), pro.get()}) {
        SCOPED_TRACE(server->name());
        auto info = server->serverInfo("FTP_PROTOCOL_EXPLICIT");
        for (int i = 0; i < 12; ++i) {
            // A new client per file, as the tasks make them: they share one pooled session.
            FtpWrapper w(info);
            auto folder = "/f" + std::to_string(i);
            server->makeDir(folder);
            auto r = w.uploadSync(item(local_ / "big.bin"), item(folder, true), {});
            ASSERT_TRUE(r) << r.error().describe();
            EXPECT_EQ(std::filesystem::file_size(server->hostPath(folder + "/big.bin")),
                      content.size());
        }
    }
    EXPECT_EQ(py->events("APPE"), 0) << "an upload had to be completed afterwards";
    EXPECT_EQ(py->events("LOGIN"), 1);
}

}  // namespace
}  // namespace quillon
