// The built-in FTP server against a real client (curl) and a raw control-channel client for
// exact reply texts and hostile input, on loopback ports. (Our own client's transfers, renames
// and deletions against it are the conformance suite's.) Then its text and path layers without
// sockets: line cutting, word splitting, path confinement (with real symbolic links), listing
// lines and times. (Random and mutated input through them is the libFuzzer target's,
// tests/fuzz/FtpServerFuzz.cpp.)

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <random>
#include <thread>

#include "core/PathUtils.h"
#include "core/StringUtils.h"
#include "servers/FtpServerFixture.h"
#include "servers/ftpserver/FtpCommandParser.h"
#include "servers/ftpserver/FtpConnection.h"
#include "servers/ftpserver/FtpListing.h"
#include "servers/ftpserver/FtpPath.h"
#include "support/TestEnv.h"

namespace quillon {
namespace {

using test::namesIn;
using test::RawFtpClient;
using test::RunningFtpServer;
using test::ScratchDir;
namespace fs = std::filesystem;

FtpServerOptions userOptions() {
    FtpServerOptions o;
    o.username = "bob";
    o.password = "s3cret pw";
    o.loginFailureDelay = std::chrono::milliseconds(50);
    return o;
}

TEST(FtpServer, CommandTableComesFromThePlistWithAliases) {
    auto commands =
        FtpServer::loadCommands(PathUtils::getResourceFolderPath() + "/ftp_commands.plist");
    for (auto word :
         {"user", "pass", "quit", "syst", "noop", "stat", "feat", "opts", "type", "pwd",  "cwd",
          "cdup", "pasv", "epsv", "lprt", "port", "eprt", "list", "nlst", "mlsd", "mlst", "retr",
          "stor", "rest", "dele", "mkd",  "rmd",  "rnfr", "rnto", "size", "mdtm", "mfmt"})
        EXPECT_TRUE(commands.count(word)) << word;
    const std::pair<const char*, const char*> aliases[] = {
        {"xpwd", "pwd"}, {"xcwd", "cwd"}, {"xmkd", "mkd"}, {"xrmd", "rmd"}, {"xcup", "cdup"}};
    for (auto [alias, word] : aliases) EXPECT_EQ(commands[alias], commands[word]) << alias;
    // Every name in the table is a handler that exists.
    for (const auto& [word, handler] : commands)
        EXPECT_TRUE(FtpConnection::handlers().count(handler + "arguments:"))
            << word << " " << handler;
    // Nothing beyond the known handlers: no command copies or links files.
    for (auto word : {"site", "appe", "cpfr", "symlink"})
        EXPECT_FALSE(commands.count(word)) << word;

    std::vector<std::string> logged;
    auto none = FtpServer::loadCommands("/nonexistent/ftp_commands.plist",
                                        [&](const std::string& l) { logged.push_back(l); });
    EXPECT_TRUE(none.empty());
    EXPECT_EQ(logged, std::vector<std::string>{"ftp_commands.plist missing"});
}

TEST(FtpServer, AnswersEveryCommandWithItsExactReplyText) {
    RunningFtpServer srv(userOptions());
    test::writeFile(srv / "docs/a file.txt", "hello");
    fs::create_directory(srv / "taken dir");
    RawFtpClient c(srv.port());
    EXPECT_EQ(c.line(), "220 ---------- Welcome to Quillon Pro ---------- ");
    EXPECT_EQ(c.ask("PWD"), "530 Please login with USER and PASS.");
    EXPECT_EQ(c.ask("SYST"), "215 UNIX Type: L8");
    EXPECT_EQ(c.ask("USER alice"), "530 Login User incorrect.");
    EXPECT_EQ(c.ask("PASS x"), "503 Login with USER first.");
    EXPECT_EQ(c.ask("USER bob"), "331 Password required for bob");
    EXPECT_EQ(c.ask("PASS wrong"), "530 Login incorrect.");
    EXPECT_EQ(c.ask("USER bob"), "331 Password required for bob");
    EXPECT_EQ(c.ask("PASS s3cret pw"), "230 User bob logged in.");
    EXPECT_EQ(c.ask("NOOP"), "200 NOOP command successful.");
    c.send("FEAT");
    EXPECT_EQ(c.reply(),
              (std::vector<std::string>{"211-Extensions supported:", " MDTM", " MFMT", " SIZE",
                                        " MLSD", " PASV", " EPSV", " UTF8", "211 End"}));
    c.send("STAT");
    auto stat = c.reply();
    ASSERT_GE(stat.size(), 2u);
    EXPECT_EQ(stat.front(), "211-localhost FTP server status:");
    EXPECT_EQ(stat.back(), "211 End of Status");
    EXPECT_EQ(c.ask("OPTS UTF8 ON"), "200 UTF8 mode on");
    EXPECT_EQ(c.ask("OPTS MLST type;size;"), "501 Unknown command 'MLST type;size;'");
    EXPECT_EQ(c.ask("TYPE I"), "200 Type set to I");
    EXPECT_EQ(c.ask("PWD"), "257 \"/\" is the current directory.");
    EXPECT_EQ(c.ask("CWD docs"), "250 OK. Current directory is /docs");
    EXPECT_EQ(c.ask("XPWD"), "257 \"/docs\" is the current directory.");
    EXPECT_EQ(c.ask("CWD nowhere"), "550 CWD failed.");
    EXPECT_EQ(c.ask("CDUP"), "250 CDUP command successful.");
    EXPECT_EQ(c.ask("XCWD docs"), "250 OK. Current directory is /docs");
    EXPECT_EQ(c.ask("XCUP"), "250 CDUP command successful.");
    EXPECT_EQ(c.ask("SIZE docs/a file.txt"), "213 5");
    EXPECT_EQ(c.ask("SIZE docs/none"), "550 docs/none No such file or directory.");
    EXPECT_EQ(c.ask("MFMT 20200102030405 docs/a file.txt"),
              "213 Modify=20200102030405; docs/a file.txt");
    EXPECT_EQ(c.ask("MDTM docs/a file.txt"), "213 20200102030405");
    EXPECT_EQ(c.ask("MDTM none"), "550 No file named none");
    EXPECT_EQ(c.ask("MFMT 2020 docs/a file.txt"), "500 Invalid MFMT command");
    EXPECT_EQ(c.ask("MFMT 20200102030405 none"), "550 No file named none");
    EXPECT_EQ(c.ask("REST 3"), "350 Command successful.");
    EXPECT_EQ(c.ask("REST -1"), "501 Invalid REST parameter.");
    EXPECT_EQ(c.ask("LPRT 4,4,127,0,0,1,2,4,1"),
              "228 Entering Long Passive Mode     (af, hal, h1, h2, h3,..., pal, p1, p2...)");
    EXPECT_TRUE(c.ask("PASV").starts_with("227 Entering Passive Mode (127,0,0,1,"));
    auto epsv = c.ask("EPSV");
    EXPECT_TRUE(
        std::regex_match(epsv, std::regex(R"(229 Entering Extended Passive Mode \(\|\|\|\d+\|\))")))
        << epsv;
    EXPECT_EQ(c.ask("MKD new folder"), "250 MKD command successful.");
    EXPECT_TRUE(fs::is_directory(srv / "new folder"));
    EXPECT_EQ(c.ask("MKD no/parent"), "550 MKD command failed.");
    EXPECT_EQ(c.ask("XMKD new folder/sub"), "250 MKD command successful.");
    EXPECT_EQ(c.ask("XRMD new folder/sub"), "250 RMD command successful.");
    EXPECT_EQ(c.ask("RMD new folder"), "250 RMD command successful.");
    EXPECT_EQ(c.ask("RMD new folder"), "550 RMD command failed.");
    EXPECT_EQ(c.ask("RNTO x"), "550 RNTO command failed.");
    EXPECT_EQ(c.ask("RNFR none"), "550 RNFR command failed.");
    test::writeFile(srv / "one", "1");
    test::writeFile(srv / "two", "2");
    EXPECT_EQ(c.ask("RNFR one"), "350 RNFR command successful.");
    EXPECT_EQ(c.ask("RNTO two"), "550 RNTO command failed: File name has been taken.");
    EXPECT_EQ(c.ask("RNFR one"), "350 RNFR command successful.");
    EXPECT_EQ(c.ask("RNTO taken dir"), "550 RNTO command failed: Folder name has been taken.");
    EXPECT_EQ(c.ask("RNFR one"), "350 RNFR command successful.");
    EXPECT_EQ(c.ask("NOOP"), "200 NOOP command successful.");
    EXPECT_EQ(c.ask("RNTO three"), "550 RNTO command failed.");  // not right after RNFR
    EXPECT_EQ(c.ask("RNFR one"), "350 RNFR command successful.");
    EXPECT_EQ(c.ask("RNTO docs/three"), "250 RNTO command successful.");
    EXPECT_EQ(test::readFile(srv / "docs/three"), "1");
    EXPECT_EQ(c.ask("DELE docs/three"), "250 DELE docs/three successful.");
    EXPECT_FALSE(fs::exists(srv / "docs/three"));
    EXPECT_EQ(c.ask("DELE docs/three"), "550 docs/three No such file or directory.");
    EXPECT_EQ(c.ask("DELE taken dir"), "550 DELE taken dir unsuccessful.");
    EXPECT_EQ(c.ask("DELE"), "550 DELE command failed.");
    EXPECT_EQ(c.ask("RETR none"), "550 none No such file or directory.");
    EXPECT_EQ(c.ask("FROB x"), "500 'FROB': command not understood.");
    EXPECT_EQ(c.ask("APPE x"), "500 'APPE': command not understood.");
    EXPECT_EQ(c.ask("PORT 1,2,3"), "501 Syntax error in parameters or arguments.");
    EXPECT_EQ(c.ask("OPTS UTF8 OFF"), "200 UTF8 mode off");
    c.send("QUIT");
    EXPECT_EQ(c.reply(),
              (std::vector<std::string>{"221- Data traffic for this session was 0 bytes in 0 files",
                                        "221 Thank you for using the FTP service on localhost."}));
    EXPECT_TRUE(c.closedByServer());
}

TEST(FtpServer, ListsAndTransfersOverRawDataConnections) {
    RunningFtpServer srv(userOptions());
    std::string content = test::randomBytes(300000, 1);
    test::writeFile(srv / "data.bin", content);
    fs::create_directory(srv / "folder");
    RawFtpClient c(srv.port());
    ASSERT_TRUE(c.login("bob", "s3cret pw"));

    EXPECT_EQ(c.ask("LIST"), "425 Can't open data connection.");  // no PASV or PORT before
    const std::string done = "226 Transfer complete.";
    const std::string opening = "150 Opening BINARY mode data connection for 'data.bin'.";
    auto mlsd = c.fetch("MLSD");
    EXPECT_EQ(mlsd.start, "150 Accepted data connection");
    EXPECT_EQ(mlsd.end, done);
    EXPECT_TRUE(test::contains(mlsd.data, "type=file;size=300000;")) << mlsd.data;
    EXPECT_TRUE(test::contains(mlsd.data, "; data.bin\r\n"));
    EXPECT_TRUE(test::contains(mlsd.data, "type=dir;"));
    auto nlst = c.fetch("NLST");
    EXPECT_EQ(nlst.start, "150 Accepted data connection");
    EXPECT_EQ(nlst.data, "data.bin\r\nfolder\r\n");
    EXPECT_EQ(nlst.end, done);
    auto mlst = c.fetch("MLST data.bin");
    EXPECT_EQ(mlst.start, opening);
    EXPECT_TRUE(mlst.data.starts_with("type=file;size=300000;"));
    EXPECT_EQ(mlst.end, done);

    EXPECT_EQ(c.ask("REST 100000"), "350 Command successful.");
    auto rest = c.fetch("RETR data.bin");
    EXPECT_EQ(rest.start, opening);
    EXPECT_EQ(rest.data, content.substr(100000));
    EXPECT_EQ(rest.end, done);
    // The REST offset was used up by that transfer.
    auto whole = c.fetch("RETR data.bin");
    EXPECT_EQ(whole.data.size(), content.size());
    EXPECT_EQ(whole.end, done);
}

TEST(FtpServer, CurlListsResumesAndUploadsInPassiveAndActiveMode) {
    RunningFtpServer srv(userOptions());
    ScratchDir local("curl");
    std::string content = test::randomBytes(2 * 1024 * 1024 + 17, 2);
    test::writeFile(srv / "sub dir/größe data.bin", content);
    std::string user = "bob:s3cret pw";

    auto list = test::curl({"--user", user, srv.url("/sub%20dir/")});
    EXPECT_EQ(list.exitCode, 0) << list.err;
    EXPECT_TRUE(test::contains(list.out, "größe data.bin")) << list.out;
    EXPECT_TRUE(list.out.starts_with("-rw-r--r--"));

    // Resume a download cut off after 1 MiB: curl asks for the rest with REST.
    test::writeFile(local / "partial", content.substr(0, 1024 * 1024));
    auto resume = test::curl({"--user", user, "-C", "-", "-o", local / "partial",
                              srv.url("/sub%20dir/gr%C3%B6%C3%9Fe%20data.bin")});
    EXPECT_EQ(resume.exitCode, 0) << resume.err;
    EXPECT_EQ(test::readFile(local / "partial"), content);

    // Upload, into a new folder made on the way, with active mode once.
    test::writeFile(local / "up.bin", content);
    auto put = test::curl({"--user", user, "-T", local / "up.bin", "--ftp-create-dirs",
                           srv.url("/new%20folder/uploaded%20%C3%A9.bin")});
    EXPECT_EQ(put.exitCode, 0) << put.err;
    EXPECT_EQ(test::readFile(srv / "new folder/uploaded é.bin"), content);
    auto active = test::curl(
        {"--user", user, "-P", "127.0.0.1", "-T", local / "up.bin", srv.url("/active.bin")});
    EXPECT_EQ(active.exitCode, 0) << active.err;
    EXPECT_EQ(test::readFile(srv / "active.bin"), content);
}

TEST(FtpServer, AnonymousSessionsAreReadOnlyUnlessUploadsAreAllowed) {
    ScratchDir local("anon");
    test::writeFile(local / "f.txt", "upload");
    {
        RunningFtpServer srv;  // no user name: anonymous access
        test::writeFile(srv / "pub.txt", "public");
        auto get = test::curl({srv.url("/pub.txt")});
        EXPECT_EQ(get.exitCode, 0) << get.err;
        EXPECT_EQ(get.out, "public");
        RawFtpClient c(srv.port());
        c.reply();
        EXPECT_EQ(c.ask("USER anonymous"), "230 User anonymous logged in.");
        EXPECT_EQ(c.ask("STOR x"), "553 x: Permission denied.");
        EXPECT_EQ(c.ask("DELE pub.txt"), "550 Permission denied.");
        EXPECT_EQ(c.ask("MKD d"), "550 Permission denied.");
        EXPECT_EQ(c.ask("RNFR pub.txt"), "550 Permission denied.");
        EXPECT_EQ(c.ask("MFMT 20200101000000 pub.txt"), "550 Permission denied.");
        EXPECT_TRUE(fs::exists(srv / "pub.txt"));
        EXPECT_FALSE(fs::exists(srv / "x"));
    }
    {
        FtpServerOptions o;
        o.username = "Anonymous";  // the configured name "anonymous" in any case also means anyone
        o.allowAnonymousUploads = true;
        RunningFtpServer srv(o);
        auto put = test::curl({"-T", local / "f.txt", srv.url("/f.txt")});
        EXPECT_EQ(put.exitCode, 0) << put.err;
        EXPECT_EQ(test::readFile(srv / "f.txt"), "upload");
    }
    {
        FtpServerOptions o;
        o.username = "carol";  // a user without a password logs in with USER alone
        RunningFtpServer srv(o);
        RawFtpClient c(srv.port());
        c.reply();
        EXPECT_EQ(c.ask("USER anonymous"), "530 Login User incorrect.");
        EXPECT_EQ(c.ask("USER carol"), "230 User carol logged in.");
    }
}

TEST(FtpServer, ConfinesEveryPathToTheSharedFolder) {
    ScratchDir outside("outside");
    test::writeFile(outside / "secret.txt", "secret");
    RunningFtpServer srv(userOptions());
    test::writeFile(srv / "inside/ok.txt", "ok");
    fs::create_directory_symlink("/etc", srv / "etc-link");
    fs::create_symlink(outside / "secret.txt", srv / "secret-link");
    fs::create_symlink(outside / "new-outside.txt", srv / "dangling");
    fs::create_directory_symlink(srv / "inside", srv / "inner-link");

    RawFtpClient c(srv.port());
    ASSERT_TRUE(c.login("bob", "s3cret pw"));
    EXPECT_EQ(c.ask("RETR ../../etc/passwd"), "550 ../../etc/passwd No such file or directory.");
    EXPECT_EQ(c.ask("SIZE /../../../etc/passwd"),
              "550 /../../../etc/passwd No such file or directory.");
    EXPECT_EQ(c.ask("CWD /../.."), "250 OK. Current directory is /");
    EXPECT_EQ(c.ask("CWD ../../.."), "250 OK. Current directory is /");
    EXPECT_EQ(c.ask("PWD"), "257 \"/\" is the current directory.");
    EXPECT_EQ(c.ask("CWD etc-link"), "550 CWD failed.");
    EXPECT_EQ(c.ask("SIZE etc-link/passwd"), "550 etc-link/passwd No such file or directory.");
    EXPECT_EQ(c.ask("RETR etc-link/passwd"), "550 etc-link/passwd No such file or directory.");
    EXPECT_EQ(c.ask("RETR secret-link"), "550 secret-link No such file or directory.");
    EXPECT_EQ(c.ask("MDTM secret-link"), "550 No file named secret-link");
    EXPECT_EQ(c.ask("STOR dangling"), "553 dangling: Permission denied.");
    EXPECT_EQ(c.ask("STOR etc-link/evil"), "553 etc-link/evil: Permission denied.");
    EXPECT_EQ(c.ask("MKD etc-link/evil"), "550 MKD command failed.");
    EXPECT_EQ(c.ask("DELE secret-link"), "550 secret-link No such file or directory.");
    EXPECT_EQ(c.ask("RNFR etc-link"), "550 RNFR command failed.");
    EXPECT_EQ(c.ask("RNFR inside/ok.txt"), "350 RNFR command successful.");
    EXPECT_EQ(c.ask("RNTO etc-link/moved"), "550 RNTO command failed.");
    EXPECT_EQ(c.ask("MFMT 20000101000000 secret-link"), "550 No file named secret-link");
    EXPECT_EQ(c.ask("SIZE %2e%2e/%2e%2e/etc/passwd"),
              "550 %2e%2e/%2e%2e/etc/passwd No such file or directory.");
    // A link that stays inside works.
    EXPECT_EQ(c.ask("SIZE inner-link/ok.txt"), "213 2");
    EXPECT_FALSE(fs::exists(outside / "new-outside.txt"));
    EXPECT_FALSE(fs::exists("/etc/evil"));
    EXPECT_EQ(test::readFile(outside / "secret.txt"), "secret");

    // Listings leave the escaping links out; the inside one shows.
    EXPECT_EQ(c.fetch("NLST").data, "inner-link\r\ninside\r\n");
}

TEST(FtpServer, RefusesPortAndEprtToAnotherAddressAndDropsForeignPassiveConnections) {
    RunningFtpServer srv(userOptions());
    test::writeFile(srv / "f.txt", "content");
    // A listener on another loopback address: the server must never connect to it.
    asio::io_context io;
    asio::ip::tcp::acceptor bystander(io, {asio::ip::make_address("127.0.0.2"), 0});
    bystander.non_blocking(true);
    auto bport = bystander.local_endpoint().port();

    RawFtpClient c(srv.port());
    ASSERT_TRUE(c.login("bob", "s3cret pw"));
    EXPECT_EQ(c.ask(fmt::format("PORT 127,0,0,2,{},{}", bport >> 8, bport & 0xff)),
              "500 Illegal PORT command.");
    EXPECT_EQ(c.ask(fmt::format("EPRT |1|127.0.0.2|{}|", bport)), "500 Illegal EPRT command.");
    EXPECT_EQ(c.ask(fmt::format("EPRT |2|::1|{}|", bport)), "500 Illegal EPRT command.");
    EXPECT_EQ(c.ask("PORT 127,0,0,1,0,21"), "500 Illegal PORT command.");  // a system port
    EXPECT_EQ(c.ask("NOOP"), "200 NOOP command successful.");
    asio::error_code ec;
    asio::ip::tcp::socket probe(io);
    bystander.accept(probe, ec);
    EXPECT_EQ(ec, asio::error::would_block) << "the server connected to 127.0.0.2";

    // Passive: a connection from 127.0.0.2 to the data port is dropped; the client's own works.
    auto r = c.ask("PASV");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r, m, std::regex(R"(,(\d+),(\d+)\))")));
    unsigned short dport = static_cast<unsigned short>(std::stoi(m[1]) * 256 + std::stoi(m[2]));
    asio::ip::tcp::socket intruder(io);
    intruder.open(asio::ip::tcp::v4());
    intruder.bind({asio::ip::make_address("127.0.0.2"), 0});
    intruder.connect({asio::ip::make_address("127.0.0.1"), dport}, ec);
    ASSERT_FALSE(ec);
    char byte;
    intruder.read_some(asio::buffer(&byte, 1), ec);  // the server closes it
    EXPECT_TRUE(ec == asio::error::eof || ec == asio::error::connection_reset) << ec.message();
    asio::ip::tcp::socket own(io);
    own.connect({asio::ip::make_address("127.0.0.1"), dport}, ec);
    ASSERT_FALSE(ec);
    EXPECT_EQ(c.ask("RETR f.txt"), "150 Opening BINARY mode data connection for 'f.txt'.");
    EXPECT_EQ(RawFtpClient::readAll(own), "content");
    EXPECT_EQ(c.last(), "226 Transfer complete.");
    auto log = srv.log();
    EXPECT_TRUE(std::any_of(log.begin(), log.end(), [](const std::string& l) {
        return l.find("dropped data connection from 127.0.0.2") != std::string::npos;
    }));
}

TEST(FtpServer, HonoursTheSessionLimitUnderTwoHundredParallelSessions) {
    RunningFtpServer srv(userOptions());  // the default limit, 50
    std::vector<std::unique_ptr<RawFtpClient>> clients;
    int welcomed = 0, refused = 0;
    for (int i = 0; i < 200; ++i) clients.push_back(std::make_unique<RawFtpClient>(srv.port()));
    for (auto& c : clients) {
        auto banner = c->line();
        if (banner.starts_with("220 "))
            ++welcomed;
        else if (banner == "421 Too many connections, try again later.")
            ++refused;
    }
    EXPECT_EQ(welcomed, 50);
    EXPECT_EQ(refused, 150);
    EXPECT_EQ(srv.server().connectionCount(), 50u);
    // The sessions let in work; once they leave, newcomers get in again.
    int answered = 0;
    for (auto& c : clients)
        if (c->ask("PWD") == "530 Please login with USER and PASS.") ++answered;
    EXPECT_EQ(answered, 50);
    clients.clear();
    // Closing is noticed asynchronously; once the server has, a newcomer gets in.
    ASSERT_TRUE(test::waitUntil([&] { return srv.server().connectionCount() == 0; }));
    RawFtpClient late(srv.port());
    EXPECT_TRUE(late.line().starts_with("220 "));
}

TEST(FtpServer, ClosesOnOverlongLinesAndAnswersJunkWithoutCrashing) {
    RunningFtpServer srv(userOptions());
    {
        RawFtpClient c(srv.port());
        c.reply();
        c.sendRaw(std::string(1024 * 1024, 'A'));
        EXPECT_EQ(c.line(), "500 Command line too long.");
        EXPECT_TRUE(c.closedByServer());
    }
    {
        RawFtpClient c(srv.port());
        c.reply();
        c.sendRaw("STOR " + std::string(5000, 'x') + "\r\n");
        EXPECT_EQ(c.line(), "500 Command line too long.");
    }
    RawFtpClient c(srv.port());
    c.reply();
    EXPECT_EQ(c.ask("LIST"), "530 Please login with USER and PASS.");
    EXPECT_EQ(c.ask("RETR /etc/passwd"), "530 Please login with USER and PASS.");
    EXPECT_EQ(c.ask(std::string("US\0ER x", 7)), "500 'US?ER': command not understood.");
    EXPECT_EQ(c.ask("USER \xff\xfe"), "501 Invalid UTF-8 in command.");
    EXPECT_EQ(c.ask("\x01\x02\x03"), "500 '\?\?\?': command not understood.");
    EXPECT_EQ(c.ask(""), "500 '': command not understood.");
    EXPECT_EQ(c.ask("NOOP\rINJECTED"), "500 'NOOP?INJECTED': command not understood.");
    std::mt19937 rng(7);
    for (int i = 0; i < 300; ++i) {
        std::string junk;
        for (int n = rng() % 100; n > 0; --n) junk += static_cast<char>(rng() % 256);
        junk.erase(std::remove(junk.begin(), junk.end(), '\n'), junk.end());
        c.sendRaw(junk + "\r\n");
    }
    int replies = 0;
    for (int i = 0; i < 300; ++i) replies += c.line().empty() ? 0 : 1;
    EXPECT_EQ(replies, 300);  // one reply per junk line, and the session is still there
    EXPECT_EQ(c.ask("USER bob"), "331 Password required for bob");
    ASSERT_EQ(c.ask("PASS s3cret pw"), "230 User bob logged in.");
    for (auto cmd : {"TYPE", "PORT", "EPRT", "EPRT |3|x|1|", "EPRT ||||", "MFMT", "REST x",
                     "REST 99999999999999999999", "OPTS", "RNTO", "SIZE", "MDTM", "STOR", "RETR",
                     "MLST /nonexistent", "LIST /nonexistent", "RETR a::thumbnail"}) {
        auto r = c.ask(cmd);
        EXPECT_TRUE(r.size() >= 3 && (r[0] == '5' || r[0] == '4')) << cmd << " -> " << r;
    }
    EXPECT_EQ(c.ask("NOOP"), "200 NOOP command successful.");
}

TEST(FtpServer, DelaysFailedLoginsAndRunsNothingSentAlongWithPass) {
    FtpServerOptions o = userOptions();
    o.loginFailureDelay = std::chrono::milliseconds(200);
    o.maxLoginFailures = 3;
    RunningFtpServer srv(o);
    test::writeFile(srv / "keep.txt", "keep");
    {
        RawFtpClient c(srv.port());
        c.reply();
        auto start = std::chrono::steady_clock::now();
        // A brute-force batch in one packet: only the first attempt is answered.
        c.sendRaw("USER bob\r\nPASS a\r\nUSER bob\r\nPASS b\r\nUSER bob\r\nPASS s3cret pw\r\n");
        EXPECT_EQ(c.line(), "331 Password required for bob");
        EXPECT_EQ(c.line(), "530 Login incorrect.");
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
        EXPECT_EQ(c.ask("NOOP"), "200 NOOP command successful.");
        start = std::chrono::steady_clock::now();
        EXPECT_EQ(c.ask("USER mallory"), "530 Login User incorrect.");
        EXPECT_GE(std::chrono::steady_clock::now() - start,
                  std::chrono::milliseconds(400));  // doubled
        EXPECT_EQ(c.ask("USER bob"), "331 Password required for bob");
        c.send("PASS c");
        EXPECT_EQ(c.line(), "530 Login incorrect.");
        EXPECT_EQ(c.line(), "421 Too many failed logins, closing control connection.");
        EXPECT_TRUE(c.closedByServer());
    }
    {
        RawFtpClient c(srv.port());
        c.reply();
        c.sendRaw("USER bob\r\nPASS s3cret pw\r\nDELE keep.txt\r\n");
        EXPECT_EQ(c.line(), "331 Password required for bob");
        EXPECT_EQ(c.line(), "230 User bob logged in.");
        EXPECT_EQ(c.ask("NOOP"), "200 NOOP command successful.");  // DELE was never answered
        EXPECT_TRUE(fs::exists(srv / "keep.txt"));
    }
}

TEST(FtpServer, ClosesIdleSessions) {
    FtpServerOptions o = userOptions();
    o.idleTimeout = std::chrono::milliseconds(300);
    RunningFtpServer srv(o);
    RawFtpClient c(srv.port());
    EXPECT_TRUE(c.line().starts_with("220 "));
    EXPECT_EQ(c.line(), "421 Timeout: closing control connection.");
    EXPECT_TRUE(c.closedByServer());
    EXPECT_EQ(srv.server().connectionCount(), 0u);
}

TEST(FtpServer, InterruptedUploadKeepsWhatArrivedAndResumesFromSize) {
    RunningFtpServer srv(userOptions());
    std::string content = test::randomBytes(1000000, 5);
    RawFtpClient c(srv.port());
    ASSERT_TRUE(c.login("bob", "s3cret pw"));
    int port = c.passivePort();
    EXPECT_EQ(c.ask("STOR cut.bin"), "150 Opening BINARY mode data connection for 'cut.bin'.");
    {
        // The client connects, sends what the socket takes and resets the connection before the
        // server has even accepted it: a cut-off upload all the same, not one that never began.
        auto paused = srv.pause();
        auto data = c.connectData(port);
        ASSERT_TRUE(data);
        data->non_blocking(true);
        asio::error_code ec;
        std::size_t sent = 0;
        while (!ec && sent < 300000)
            sent += data->write_some(asio::buffer(content.data() + sent, 300000 - sent), ec);
        data->set_option(asio::socket_base::linger(true, 0));
        data->close();
    }
    EXPECT_EQ(c.last(), "426 Connection closed; transfer aborted.");
    auto size = c.ask("SIZE cut.bin");
    ASSERT_TRUE(size.starts_with("213 "));
    auto have = std::stoul(size.substr(4));
    EXPECT_LE(have, 300000u);
    EXPECT_EQ(fs::file_size(srv / "cut.bin"), have);  // SIZE tells what is on disk
    EXPECT_TRUE(test::fileHolds(srv / "cut.bin", content.substr(0, have)));

    EXPECT_EQ(c.ask("REST " + std::to_string(have)), "350 Command successful.");
    auto data = c.passive();
    ASSERT_TRUE(data);
    EXPECT_EQ(c.ask("STOR cut.bin"), "150 Opening BINARY mode data connection for 'cut.bin'.");
    asio::write(*data, asio::buffer(content.data() + have, content.size() - have));
    data->shutdown(asio::socket_base::shutdown_send);
    data->close();
    EXPECT_EQ(c.last(), "226 Transfer complete.");
    EXPECT_TRUE(test::fileHolds(srv / "cut.bin", content));
    // A resume past the end is refused before anything is opened: no empty file either.
    EXPECT_EQ(c.ask("REST 2000000"), "350 Command successful.");
    c.passive();
    EXPECT_EQ(c.ask("STOR cut.bin"), "554 Restart offset beyond end of file.");
    EXPECT_TRUE(test::fileHolds(srv / "cut.bin", content));
    EXPECT_EQ(c.ask("REST 5"), "350 Command successful.");
    c.passive();
    EXPECT_EQ(c.ask("STOR missing.bin"), "554 Restart offset beyond end of file.");
    EXPECT_FALSE(fs::exists(srv / "missing.bin"));
}

TEST(FtpServer, UploadsOverAFileReplaceItOnlyWhenComplete) {
    RunningFtpServer srv(userOptions());
    const std::string old = "the old content, which must survive";
    std::string content = test::randomBytes(600000, 6);
    test::writeFile(srv / "keep.txt", old);
    RawFtpClient c(srv.port());
    ASSERT_TRUE(c.login("bob", "s3cret pw"));
    auto untouched = [&](RunningFtpServer& s) {
        EXPECT_TRUE(test::fileHolds(s / "keep.txt", old));
        EXPECT_EQ(namesIn(s.rootPath()), std::vector<std::string>{"keep.txt"});
    };

    // No data connection prepared: nothing is opened, let alone truncated or created.
    EXPECT_EQ(c.ask("STOR keep.txt"), "425 Can't open data connection.");
    EXPECT_EQ(c.ask("STOR new.txt"), "425 Can't open data connection.");
    untouched(srv);

    // The client resets the data connection in the middle of the upload.
    auto data = c.passive();
    ASSERT_TRUE(data);
    EXPECT_EQ(c.ask("STOR keep.txt"), "150 Opening BINARY mode data connection for 'keep.txt'.");
    asio::write(*data, asio::buffer(content.data(), 300000));
    bool arriving = test::waitUntil([&] {
        for (const auto& e : fs::directory_iterator(srv.rootPath()))
            if (e.path().filename() != "keep.txt" && e.file_size() > 0) return true;
        return false;
    });
    EXPECT_TRUE(arriving) << "the upload never reached a file beside the old one";
    data->set_option(asio::socket_base::linger(true, 0));
    data->close();
    EXPECT_EQ(c.last(), "426 Connection closed; transfer aborted.");
    untouched(srv);

    // The disk fills up (here: the file-size limit) in the middle of the upload.
    {
        rlimit saved{};
        ::getrlimit(RLIMIT_FSIZE, &saved);
        auto previous = ::signal(SIGXFSZ, SIG_IGN);
        rlimit small{100000, saved.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
        auto full = c.store("keep.txt", content);
        ::setrlimit(RLIMIT_FSIZE, &saved);
        ::signal(SIGXFSZ, previous);
        EXPECT_EQ(full, "451 Requested action aborted: local error in processing.");
    }
    untouched(srv);

    // A complete upload takes the old file's place, with its permissions.
    fs::permissions(srv / "keep.txt", fs::perms(0640));
    EXPECT_EQ(c.store("keep.txt", content), "226 Transfer complete.");
    EXPECT_TRUE(test::fileHolds(srv / "keep.txt", content));
    EXPECT_EQ(fs::status(srv / "keep.txt").permissions(), fs::perms(0640));
    EXPECT_EQ(namesIn(srv.rootPath()), std::vector<std::string>{"keep.txt"});

    // A data connection that never comes: the file stays as it is.
    FtpServerOptions o = userOptions();
    o.dataConnectionTimeout = std::chrono::milliseconds(200);
    RunningFtpServer impatient(o);
    test::writeFile(impatient / "keep.txt", old);
    RawFtpClient d(impatient.port());
    ASSERT_TRUE(d.login("bob", "s3cret pw"));
    ASSERT_TRUE(d.ask("PASV").starts_with("227 "));
    EXPECT_EQ(d.ask("STOR keep.txt"), "150 Opening BINARY mode data connection for 'keep.txt'.");
    EXPECT_EQ(d.last(), "425 Can't open data connection.");
    untouched(impatient);
}

TEST(FtpServer, RefusesFifosWithoutHoldingUpOtherSessionsAndNamesWithLineBreaks) {
    // A server that waits on the FIFO must not hang the test: at the end the FIFO is held open
    // at both ends until the server has stopped.
    int bothEnds = -1;
    std::shared_ptr<void> closeLast(nullptr, [&bothEnds](void*) {
        if (bothEnds >= 0) ::close(bothEnds);
    });
    RunningFtpServer srv(userOptions());
    ASSERT_EQ(::mkfifo((srv / "pipe").c_str(), 0666), 0);
    test::writeFile(srv / "f.txt", "f");
    std::shared_ptr<void> unblock(
        nullptr, [&](void*) { bothEnds = ::open((srv / "pipe").c_str(), O_RDWR | O_NONBLOCK); });
    RawFtpClient other(srv.port());
    ASSERT_TRUE(other.login("bob", "s3cret pw"));
    RawFtpClient c(srv.port());
    ASSERT_TRUE(c.login("bob", "s3cret pw"));
    // A CR (an LF always ends the line) never gets into a name.
    EXPECT_EQ(c.store("new\rname", "x"), "553 new?name: Permission denied.");
    EXPECT_EQ(c.ask("MKD new\rfolder"), "550 MKD command failed.");
    EXPECT_EQ(c.ask("RNFR f.txt"), "350 RNFR command successful.");
    EXPECT_EQ(c.ask("RNTO f\r.txt"), "550 RNTO command failed.");
    EXPECT_EQ(namesIn(srv.rootPath()), (std::vector<std::string>{"f.txt", "pipe"}));

    auto data = c.passive();
    EXPECT_EQ(c.ask("RETR pipe"), "550 pipe No such file or directory.");
    ASSERT_EQ(other.ask("NOOP"), "200 NOOP command successful.");
    data = c.passive();
    EXPECT_EQ(c.ask("STOR pipe"), "550 pipe: Not a regular file.");
    ASSERT_EQ(other.ask("NOOP"), "200 NOOP command successful.");
    EXPECT_EQ(c.ask("SIZE pipe"), "550 pipe No such file or directory.");
}

// A local program swaps a folder of the share and a link to a folder outside, as fast as it can,
// while a client works below the name they share. Nothing outside is ever served, changed,
// removed or added to, whichever way the paths are resolved.
TEST(FtpServer, NoCommandReachesOutsideWhileALinkIsSwappedInUnderIt) {
    ScratchDir outside("outside");
    const std::string canary = "CANARY from outside the share";
    test::writeFile(outside / "f", canary);
    test::writeFile(outside / "only-outside", "x");
    fs::last_write_time(outside / "f",
                        fs::file_time_type::clock::now() - std::chrono::hours(24 * 900));
    auto snapshot = [&outside] {
        std::vector<std::string> seen;
        for (const auto& e : fs::directory_iterator(outside.path())) {
            struct stat st {};
            ::lstat(e.path().c_str(), &st);
            seen.push_back(fmt::format("{} {} {} {} {}", e.path().filename().string(), st.st_ino,
                                       st.st_size, st.st_mtim.tv_sec,
                                       test::readFile(e.path().string())));
        }
        std::sort(seen.begin(), seen.end());
        return seen;
    };
    auto before = snapshot();
    const std::string canaryMdtm =
        "213 " + FtpListing::timeString(static_cast<time_t>(test::mtimeOf(outside / "f")));
    const std::string canarySize = fmt::format("213 {}", canary.size());

    RunningFtpServer srv(userOptions());
    test::writeFile(srv / "d/f", "inside");
    test::writeFile(srv / "x", "moved around");
    fs::create_directory_symlink(outside.path(), srv / "l");
    int rootFd = ::open(srv.rootPath().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(rootFd, 0);
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        while (!stop) ::renameat2(rootFd, "d", rootFd, "l", RENAME_EXCHANGE);
    });
    std::shared_ptr<void> cleanup(nullptr, [&](void*) {
        stop = true;
        swapper.join();
        ::close(rootFd);
        FtpPath::setOpenat2Allowed(true);
    });

    RawFtpClient c(srv.port());
    ASSERT_TRUE(c.login("bob", "s3cret pw"));
    int served = 0;
    for (bool openat2 : {true, false}) {
        FtpPath::setOpenat2Allowed(openat2);
        for (int round = 0; round < 200; ++round) {
            auto got = c.fetch("RETR d/f").data;
            EXPECT_NE(got, canary) << "served the file outside";
            served += got == "inside";
            EXPECT_NE(c.ask("SIZE d/f"), canarySize);
            EXPECT_NE(c.ask("MDTM d/f"), canaryMdtm);
            c.ask("MFMT 20200101000000 d/f");
            c.store("d/f", "inside");
            c.store("d/new", "new");
            c.ask("DELE d/new");
            c.ask("DELE d/f");
            c.store("d/f", "inside");
            c.ask("MKD d/m");
            c.ask("RMD d/m");
            c.ask("RNFR x");
            if (c.ask("RNTO d/x") == "250 RNTO command successful.") {
                c.ask("RNFR d/x");
                c.ask("RNTO x");
            }
            EXPECT_FALSE(test::contains(c.fetch("NLST d").data, "only-outside"));
        }
    }
    cleanup.reset();
    EXPECT_EQ(snapshot(), before);
    EXPECT_GT(served, 0);  // the folder inside was reached, so the race was run
}

TEST(FtpServer, ReportsChangedFoldersToTheNotificationObject) {
    RunningFtpServer srv(userOptions());
    fs::create_directory(srv / "sub");
    RawFtpClient c(srv.port());
    ASSERT_TRUE(c.login("bob", "s3cret pw"));
    EXPECT_EQ(c.store("sub/f.txt", "x"), "226 Transfer complete.");
    EXPECT_EQ(c.ask("MKD made"), "250 MKD command successful.");
    EXPECT_EQ(c.ask("DELE sub/f.txt"), "250 DELE sub/f.txt successful.");
    EXPECT_EQ(c.ask("NOOP"), "200 NOOP command successful.");
    auto folders = srv.changes().folders();
    auto root = srv.rootPath();
    EXPECT_EQ(folders, (std::vector<std::string>{root + "/sub", root, root + "/sub"}));
}

TEST(FtpServer, SendsThumbnailsFromTheProviderForThumbnailNames) {
    ScratchDir cache("thumbs");
    test::writeFile(cache / "t.jpg", "JPEGDATA");
    FtpServerOptions o = userOptions();
    o.thumbnailProvider = [&cache](const std::string& path) -> std::optional<std::string> {
        if (StringUtils::endsWith(path, "/photo.raw")) return cache / "t.jpg";
        return std::nullopt;
    };
    RunningFtpServer srv(o);
    test::writeFile(srv / "photo.raw", "RAWDATA");
    test::writeFile(srv / "other.raw", "RAWDATA");
    RawFtpClient c(srv.port());
    ASSERT_TRUE(c.login("bob", "s3cret pw"));
    auto thumb = c.fetch("RETR photo.raw::thumbnail");
    EXPECT_EQ(thumb.data, "JPEGDATA");
    EXPECT_EQ(thumb.end, "226 Transfer complete.");
    EXPECT_EQ(c.ask("RETR other.raw::thumbnail"),
              "550 other.raw::thumbnail No such file or directory.");
    EXPECT_EQ(c.ask("RETR missing.raw::thumbnail"),
              "550 missing.raw::thumbnail No such file or directory.");
}

}  // namespace
}  // namespace quillon

namespace quillon {
namespace {

using test::ScratchDir;
namespace fs = std::filesystem;

TEST(FtpLineBuffer, CutsLinesAtCrLfOrLfAndKeepsPartialOnes) {
    FtpLineBuffer buf(4096);
    EXPECT_TRUE(buf.append("USER bob\r\nPASS se"));
    EXPECT_EQ(buf.nextLine(), "USER bob");
    EXPECT_EQ(buf.nextLine(), std::nullopt);
    EXPECT_TRUE(buf.append("cret\r\nNOOP\nPWD\r"));
    EXPECT_EQ(buf.nextLine(), "PASS secret");
    EXPECT_EQ(buf.nextLine(), "NOOP");
    EXPECT_EQ(buf.nextLine(), std::nullopt);
    EXPECT_TRUE(buf.append("\n"));
    EXPECT_EQ(buf.nextLine(), "PWD");
    // A blank in a name and an empty line survive untouched.
    EXPECT_TRUE(buf.append("\r\nSTOR a  b \r\n"));
    EXPECT_EQ(buf.nextLine(), "");
    EXPECT_EQ(buf.nextLine(), "STOR a  b ");
    EXPECT_TRUE(buf.append("NOOP\r\nNOOP\r\n"));
    EXPECT_EQ(buf.discard(), 12u);
    EXPECT_EQ(buf.nextLine(), std::nullopt);
}

TEST(FtpLineBuffer, OverflowsOnALineLongerThanTheLimitFinishedOrNot) {
    FtpLineBuffer unfinished(16);
    EXPECT_TRUE(unfinished.append(std::string(16, 'A')));
    EXPECT_FALSE(unfinished.append("B"));
    EXPECT_TRUE(unfinished.overflowed());
    EXPECT_EQ(unfinished.nextLine(), std::nullopt);

    FtpLineBuffer finished(16);
    EXPECT_TRUE(finished.append("NOOP\r\n"));
    EXPECT_FALSE(finished.append(std::string(40, 'C') + "\r\nNOOP\r\n"));
    EXPECT_EQ(finished.nextLine(), std::nullopt);

    // Many short lines in one read are fine; only a single long line counts.
    FtpLineBuffer many(16);
    std::string packet;
    for (int i = 0; i < 100; ++i) packet += "NOOP\r\n";
    EXPECT_TRUE(many.append(packet));
    int n = 0;
    while (many.nextLine()) ++n;
    EXPECT_EQ(n, 100);
    // A line split over reads counts as a whole.
    FtpLineBuffer split(16);
    EXPECT_TRUE(split.append("NOOP\r\n0123456789"));
    EXPECT_EQ(split.nextLine(), "NOOP");
    EXPECT_FALSE(split.append("0123456789"));
}

TEST(FtpCommandParser, SplitsAtSingleBlanksAndLowerCasesTheWord) {
    auto cmd = FtpCommandParser::parse("RETR my  file name.txt\r\n");
    EXPECT_EQ(cmd.word, "retr");
    ASSERT_EQ(cmd.words.size(), 5u);
    EXPECT_EQ(cmd.words[0], "RETR");
    EXPECT_EQ(cmd.words[2], "");
    EXPECT_EQ(cmd.argument(), "my  file name.txt");

    auto mfmt = FtpCommandParser::parse("mFmT 20240102030405 a b");
    EXPECT_EQ(mfmt.word, "mfmt");
    EXPECT_EQ(mfmt.argumentFrom(2), "a b");

    auto empty = FtpCommandParser::parse("");
    EXPECT_EQ(empty.word, "");
    EXPECT_EQ(empty.argument(), "");
    // Non-ASCII letters are left alone, only ASCII is lower-cased.
    EXPECT_EQ(FtpCommandParser::parse("ÄBC x").word, "Äbc");
    EXPECT_EQ(FtpCommandParser::parse("STOR  lead").argument(), " lead");
}

TEST(FtpCommandParser, SanitizeKeepsRepliesOnOneLine) {
    EXPECT_EQ(FtpCommandParser::sanitize("a\r\n200 fake\0b"), "a??200 fake");
    EXPECT_EQ(FtpCommandParser::sanitize(std::string("x\0y\x7f", 4)), "x?y?");
    EXPECT_EQ(FtpCommandParser::sanitize("Grüße"), "Grüße");
}

TEST(FtpPath, VirtualPathsFoldDotsAndNeverClimbAboveTheRoot) {
    EXPECT_EQ(FtpPath::virtualPath("/", ""), "/");
    EXPECT_EQ(FtpPath::virtualPath("/a/b", "c"), "/a/b/c");
    EXPECT_EQ(FtpPath::virtualPath("/a/b", "../c"), "/a/c");
    EXPECT_EQ(FtpPath::virtualPath("/a/b", "/x//y/./z/"), "/x/y/z");
    EXPECT_EQ(FtpPath::virtualPath("/", "../../etc/passwd"), "/etc/passwd");
    EXPECT_EQ(FtpPath::virtualPath("/a", "/../.."), "/");
    EXPECT_EQ(FtpPath::virtualPath("/a", "..\\..\\x"), "/a/..\\..\\x");
    // Percent signs are name characters, not escapes.
    EXPECT_EQ(FtpPath::virtualPath("/", "%2e%2e%2fetc"), "/%2e%2e%2fetc");
    // Names no reply could carry back are refused.
    EXPECT_EQ(FtpPath::virtualPath("/", std::string("a\0b", 3)), std::nullopt);
    EXPECT_EQ(FtpPath::virtualPath("/", "a\rb"), std::nullopt);
    EXPECT_EQ(FtpPath::virtualPath("/a", "b\nc"), std::nullopt);
}

// Where an opened item lies, or the errno that refused it.
std::string whereIs(const FtpPath::Root& root, std::string_view vp) {
    auto fd = root.open(vp, O_PATH);
    return fd ? root.localPath(fd->get(), vp) : "errno " + std::to_string(fd.error());
}

std::string whereIsEntry(const FtpPath::Root& root, std::string_view vp, bool followLast) {
    auto e = root.entry(vp, followLast);
    return e ? root.localPath(e->folder.get(), "") + " : " + e->name
             : "errno " + std::to_string(e.error());
}

// Both ways of resolving: openat2, and the walk of kernels without it.
class FtpPathBothWays : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override { FtpPath::setOpenat2Allowed(GetParam()); }
    void TearDown() override { FtpPath::setOpenat2Allowed(true); }
};

TEST_P(FtpPathBothWays, ResolvesBeneathTheRootFollowingOnlyLinksThatStayInside) {
    ScratchDir outside("outside");
    test::writeFile(outside / "secret", "s");
    ScratchDir dir("root");
    std::string top = *FtpPath::canonical(dir.path());
    auto root = FtpPath::Root::open(top);
    ASSERT_TRUE(root);
    test::writeFile(dir / "a/file.txt", "x");
    fs::create_directory_symlink(outside.path(), dir / "out");
    fs::create_symlink(outside / "secret", dir / "secret-link");
    fs::create_symlink(outside / "missing", dir / "dangling");
    fs::create_directory_symlink(top + "/a", dir / "inner");     // absolute, inside
    fs::create_directory_symlink("a", dir / "rel-inner");        // relative, inside
    fs::create_symlink("../../x", dir / "a/up");                 // relative, out by ".."
    fs::create_symlink("file.txt", dir / "a/file-link");         // a file link, inside
    fs::create_symlink("../inner/new.txt", dir / "a/new-link");  // inside, to a missing name
    fs::create_symlink("loop", dir / "loop");
    fs::create_symlink("/proc/self/cwd", dir / "magic");

    auto e = [](int n) { return "errno " + std::to_string(n); };
    EXPECT_EQ(whereIs(*root, "/"), top);
    EXPECT_EQ(whereIs(*root, "/a/file.txt"), top + "/a/file.txt");
    EXPECT_EQ(whereIs(*root, "/inner/file.txt"), top + "/a/file.txt");
    EXPECT_EQ(whereIs(*root, "/rel-inner/file-link"), top + "/a/file.txt");
    EXPECT_EQ(whereIs(*root, "/inner/up"), e(EXDEV));
    EXPECT_EQ(whereIs(*root, "/out"), e(EXDEV));
    EXPECT_EQ(whereIs(*root, "/out/secret"), e(EXDEV));
    EXPECT_EQ(whereIs(*root, "/secret-link"), e(EXDEV));
    EXPECT_EQ(whereIs(*root, "/dangling"), e(EXDEV));
    EXPECT_EQ(whereIs(*root, "/magic"), e(EXDEV));
    EXPECT_EQ(whereIs(*root, "/loop"), e(ELOOP));
    EXPECT_EQ(whereIs(*root, "/a/missing"), e(ENOENT));
    EXPECT_EQ(whereIs(*root, "/a/file.txt/x"), e(ENOTDIR));
    EXPECT_EQ(whereIs(*root, "relative"), e(EINVAL));

    // Entries: the name in its folder; a link in the last place is itself, or what it points to.
    EXPECT_EQ(whereIsEntry(*root, "/a/new", false), top + "/a : new");
    EXPECT_EQ(whereIsEntry(*root, "/secret-link", false), top + " : secret-link");
    EXPECT_EQ(whereIsEntry(*root, "/inner/file-link", false), top + "/a : file-link");
    EXPECT_EQ(whereIsEntry(*root, "/inner/file-link", true), top + "/a : file.txt");
    EXPECT_EQ(whereIsEntry(*root, "/a/new-link", true), top + "/a : new.txt");
    EXPECT_EQ(whereIsEntry(*root, "/secret-link", true), e(EXDEV));
    EXPECT_EQ(whereIsEntry(*root, "/out/new", false), e(EXDEV));
    EXPECT_EQ(whereIsEntry(*root, "/nofolder/new", false), e(ENOENT));
    EXPECT_EQ(whereIsEntry(*root, "/", false), e(EINVAL));

    // The descriptors act where they were resolved, whatever the names turn into afterwards.
    auto folder = root->entry("/a/made", false);
    ASSERT_TRUE(folder);
    fs::rename(dir / "a", dir / "moved");
    fs::create_directory_symlink(outside.path(), dir / "a");
    ASSERT_EQ(::mkdirat(folder->folder.get(), folder->name.c_str(), 0755), 0);
    EXPECT_TRUE(fs::is_directory(dir / "moved/made"));
    EXPECT_FALSE(fs::exists(outside / "made"));

    EXPECT_TRUE(FtpPath::isInside("/srv/x", "/srv/x/y"));
    EXPECT_FALSE(FtpPath::isInside("/srv/x", "/srv/xy"));
    EXPECT_TRUE(FtpPath::isInside("/", "/etc"));
}

INSTANTIATE_TEST_SUITE_P(Openat2, FtpPathBothWays, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "Openat2" : "Walk"; });

TEST(FtpListing, FolderEntriesLeaveOutLinksThatLeadOutAndNamesNoLineCanCarry) {
    ScratchDir outside("outside");
    ScratchDir dir("root");
    auto root = FtpPath::Root::open(*FtpPath::canonical(dir.path()));
    ASSERT_TRUE(root);
    test::writeFile(dir / "b.txt", "12345");
    fs::create_directory(dir / "a folder");
    fs::create_directory_symlink(outside.path(), dir / "escape");
    fs::create_symlink(dir / "b.txt", dir / "c-link");
    test::writeFile(dir / "bad\r\nname", "x");
    test::writeFile(dir / (std::string(kUploadTempPrefix) + "0123"), "unfinished");
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0644), 0);
    auto entries = FtpListing::entriesOfFolder(*root, "/", root->fd());
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].name, "a folder");
    EXPECT_TRUE(entries[0].isDir);
    EXPECT_EQ(entries[1].name, "b.txt");
    EXPECT_EQ(entries[1].size, 5u);
    EXPECT_EQ(entries[2].name, "c-link");  // a link inside the root shows as what it points to
    EXPECT_EQ(entries[2].size, 5u);
}

TEST(FtpListing, LinesAndTimesInTheFormatsClientsParse) {
    FtpListEntry file{"my file.txt", false, 1234, 1700000000, 0644, 1};
    FtpListEntry folder{"docs", true, 0, 1700000000, 0755, 3};
    std::time_t now = 1700000000 + 3600;
    EXPECT_EQ(FtpListing::listLine(file, now),
              "-rw-r--r--   1 ftp      ftp              1234 Nov 14 22:13 my file.txt");
    EXPECT_EQ(FtpListing::listLine(folder, now + 365L * 86400),
              "drwxr-xr-x   3 ftp      ftp                 0 Nov 14  2023 docs");
    EXPECT_EQ(FtpListing::mlsxLine(file, true),
              "type=file;size=1234;modify=20231114221320;perm=adfrw;UNIX.mode=0644; my file.txt");
    EXPECT_EQ(FtpListing::mlsxLine(folder, false),
              "type=dir;modify=20231114221320;perm=fle;UNIX.mode=0755; docs");

    EXPECT_EQ(FtpListing::timeString(0), "19700101000000");
    EXPECT_EQ(FtpListing::parseTimeString("20231114221320"), 1700000000);
    EXPECT_EQ(FtpListing::parseTimeString("20231114221320.123"), 1700000000);
    EXPECT_EQ(FtpListing::parseTimeString("20230231000000"), std::nullopt);  // 31 February
    EXPECT_EQ(FtpListing::parseTimeString("2023111422132"), std::nullopt);
    EXPECT_EQ(FtpListing::parseTimeString("2023111422132x"), std::nullopt);
    EXPECT_EQ(FtpListing::parseTimeString("20231314221320"), std::nullopt);
    EXPECT_EQ(FtpListing::parseTimeString("20231114221320."), std::nullopt);
}

}  // namespace
}  // namespace quillon
