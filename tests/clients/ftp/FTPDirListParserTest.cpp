// The listing parser against a table of real listing lines from many servers, and against
// captured listings of servers that cannot run here (IIS, an old Unix with day-first dates).

#include "clients/ftp/FTPDirListParser.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>

#include "support/TestEnv.h"

namespace quillon {
namespace {

using namespace std::chrono;
using FTPDirListParser::parseListLine;
using FTPDirListParser::parseMlsdLine;

system_clock::time_point utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    return sys_days{year{y} / mo / d} + hours{h} + minutes{mi} + seconds{s};
}

// Listings without a year are read against 15 June 2024, 12:00 UTC.
const system_clock::time_point kNow = utc(2024, 6, 15, 12);

struct Row {
    const char* line;
    const char* name;
    bool isDir;
    std::optional<std::uint64_t> size;
    std::optional<system_clock::time_point> when;
    const char* linkTarget = nullptr;
    const char* owner = nullptr;
    const char* group = nullptr;
};

std::optional<std::string> text(const char* s) {
    return s ? std::optional<std::string>(s) : std::nullopt;
}

TEST(FTPDirListParser, ReadsRealListingLinesOfManyServers) {
    const Row rows[] = {
        // vsftpd: numeric owner and group, recent files with a time.
        {"drwxr-xr-x    2 0        0            4096 Nov 23 08:08 pub", "pub", true, 4096,
         utc(2023, 11, 23, 8, 8), nullptr, "0", "0"},
        {"-rw-r--r--    1 1000     1000      1048576 Jun 15 11:00 today.bin", "today.bin", false,
         1048576, utc(2024, 6, 15, 11, 0), nullptr, "1000", "1000"},
        // A date a day ahead of now still belongs to this year; two days ahead, to the last.
        {"-rw-r--r--    1 0 0 1 Jun 16 11:00 tomorrow", "tomorrow", false, 1, utc(2024, 6, 16, 11)},
        {"-rw-r--r--    1 0 0 1 Jun 18 11:00 later", "later", false, 1, utc(2023, 6, 18, 11)},
        // ProFTPD / GNU ls: older files with a year.
        {"-rw-r--r--   1 ftp      ftp        12345 Mar  5  2020 old report.pdf", "old report.pdf",
         false, 12345, utc(2020, 3, 5), nullptr, "ftp", "ftp"},
        // pure-ftpd: names with blanks, and a leading blank kept.
        {"-rw-r--r--    1 tester     tester             3 Jan  2 09:05  leading blank",
         " leading blank", false, 3, utc(2024, 1, 2, 9, 5)},
        {"-rw-r--r--    1 tester     tester             3 Jan  2 09:05 a  b   c", "a  b   c", false,
         3, utc(2024, 1, 2, 9, 5)},
        // Symbolic links.
        {"lrwxrwxrwx    1 0        0               7 Feb 29  2020 latest -> v1.2.3", "latest",
         false, 7, utc(2020, 2, 29), "v1.2.3"},
        {"lrwxrwxrwx    1 u g 12 Jan 01  2021 my link -> /srv/a b", "my link", false, 12,
         utc(2021, 1, 1), "/srv/a b"},
        // Device files carry "major, minor" where the size would be.
        {"crw-rw-rw-    1 root     root       1,   3 Apr  1  2019 null", "null", false, 0,
         utc(2019, 4, 1)},
        {"brw-rw----    1 root     disk       8,0 Apr  1  2019 sda", "sda", false, 0,
         utc(2019, 4, 1)},
        // No group column (some embedded servers).
        {"-rw-r--r-- 1 owner 77 Dec 31 2019 nogroup.txt", "nogroup.txt", false, 77,
         utc(2019, 12, 31), nullptr, "owner", nullptr},
        // ACL and extended-attribute markers after the permissions.
        {"drwxr-xr-x+  3 user staff 96 Oct 10  2022 acl dir", "acl dir", true, 96,
         utc(2022, 10, 10)},
        {"-rw-r--r--@  1 user staff 96 Oct 10  2022 xattr", "xattr", false, 96, utc(2022, 10, 10)},
        // Busybox / NAS long-iso dates.
        {"-rw-r--r--    1 admin    users      2048 2023-07-08 13:14 iso.txt", "iso.txt", false,
         2048, utc(2023, 7, 8, 13, 14)},
        // A localised server with German month names.
        {"-rw-r--r--   1 ftp ftp 5 Mär  3  2021 märz.txt", "märz.txt", false, 5, utc(2021, 3, 3)},
        // Non-ASCII names.
        {"-rw-r--r--   1 ftp ftp 5 Mar  3  2021 日本語 ファイル.txt", "日本語 ファイル.txt", false,
         5, utc(2021, 3, 3)},
        // IIS in its DOS style, 12- and 24-hour times.
        {"02-14-23  10:31AM       <DIR>          aspnet_client", "aspnet_client", true,
         std::nullopt, utc(2023, 2, 14, 10, 31)},
        {"02-14-23  10:31PM                 1234 default.htm", "default.htm", false, 1234,
         utc(2023, 2, 14, 22, 31)},
        {"07-04-21  12:00AM                    0 midnight.txt", "midnight.txt", false, 0,
         utc(2021, 7, 4, 0, 0)},
        {"01-02-2024  17:45                 42 web config", "web config", false, 42,
         utc(2024, 1, 2, 17, 45)},
        // EPLF.
        {"+i8388621.48594,m825718503,r,s280,\tdjb.html", "djb.html", false, 280,
         system_clock::time_point{} + seconds{825718503}},
        {"+i8388621.50690,m824255907,/,\t514", "514", true, std::nullopt,
         system_clock::time_point{} + seconds{824255907}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        auto m = parseListLine(row.line, kNow);
        ASSERT_TRUE(m.has_value());
        EXPECT_EQ(m->nameIgnoreLinkResolve(), std::string(row.name));
        EXPECT_EQ(m->isDir, row.isDir);
        EXPECT_EQ(m->fileSizeInBytes, row.size);
        EXPECT_EQ(m->timestamp, row.when);
        EXPECT_EQ(m->isSymbolLink, row.linkTarget != nullptr);
        EXPECT_EQ(m->symbolLinkTarget, text(row.linkTarget));
        if (row.owner) {  // rows that name an owner say the group too
            EXPECT_EQ(m->owner, text(row.owner));
            EXPECT_EQ(m->group, text(row.group));
        }
    }

    // Unix lines keep their permission text and the date as listed.
    auto m = parseListLine("-rw-r--r--   1 ftp      ftp        12345 Mar  5  2020 x", kNow);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->unixPermission, "-rw-r--r--");
    EXPECT_EQ(m->timestampString, "Mar  5  2020");
}

TEST(FTPDirListParser, SkipsLinesItCannotRead) {
    const char* junk[] = {
        "total 48",
        "",
        "   ",
        "drwxr-xr-x",
        "-rw-r--r-- 1 a b 12 Foo 12 2020 bad-month",
        "-rw-r--r-- 1 a b 12 Jan 32 2020 bad-day",
        "-rw-r--r-- 1 a b 12 Jan 12 25:00 bad-time",
        "-rw-r--r-- 1 a b 12 Jan 12 2020",
        "13-45-20  10:31AM  12 bad-date",
        "02-14-23  13:31PM  12 bad-hour",
        "+no-tab-here",
        "226 Transfer complete",
        "\x01\x02\xff\xfe",
    };
    for (auto* line : junk) EXPECT_FALSE(parseListLine(line, kNow)) << line;
}

TEST(FTPDirListParser, ReadsMlsdFacts) {
    auto file = parseMlsdLine(
        "modify=20240102030405;perm=adfrw;size=3;type=file;unique=FE00UA72263;UNIX.group=65534;"
        "UNIX.groupname=nogroup;UNIX.mode=0644;UNIX.owner=65534;UNIX.ownername=tester; a "
        "b;c=d.txt");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->nameIgnoreLinkResolve(), "a b;c=d.txt");
    EXPECT_FALSE(file->isDir);
    EXPECT_EQ(file->fileSizeInBytes, 3u);
    EXPECT_EQ(file->timestamp, utc(2024, 1, 2, 3, 4, 5));
    EXPECT_EQ(file->identifier, "FE00UA72263");
    EXPECT_EQ(file->unixPermission, "0644");
    EXPECT_EQ(file->owner, "tester");
    EXPECT_EQ(file->group, "nogroup");

    auto dir = parseMlsdLine("Type=dir;Modify=20240102030405.123;unix.mode=0755;  two leading");
    ASSERT_TRUE(dir);
    EXPECT_TRUE(dir->isDir);
    EXPECT_EQ(dir->nameIgnoreLinkResolve(), " two leading");
    EXPECT_EQ(dir->timestamp, utc(2024, 1, 2, 3, 4, 5) + milliseconds(123));

    auto link = parseMlsdLine("type=OS.unix=slink:/srv/target;size=7; link");
    ASSERT_TRUE(link);
    EXPECT_TRUE(link->isSymbolLink);
    EXPECT_EQ(link->symbolLinkTarget, "/srv/target");

    EXPECT_FALSE(parseMlsdLine("type=cdir;modify=20240102030405; ."));
    EXPECT_FALSE(parseMlsdLine("type=pdir;modify=20240102030405; .."));
    EXPECT_FALSE(parseMlsdLine("no facts at all"));
    EXPECT_FALSE(parseMlsdLine("type=file;size=1;"));
}

TEST(FTPDirListParser, BuildsRecordsWithPathsAndHiddenRule) {
    FTPDirListParser::Options o;
    o.folderPath = "/srv/ftp";
    o.serverID = "S1";
    o.now = kNow;
    const char* text =
        "drwxr-xr-x 2 0 0 4096 Jan 01 2020 .\r\n"
        "drwxr-xr-x 2 0 0 4096 Jan 01 2020 ..\r\n"
        "-rw-r--r-- 1 0 0 1 Jan 01 2020 .hidden\r\n"
        "-rw-r--r-- 1 0 0 2 Jan 01 2020 shown\r\n"
        "garbage\r\n"
        "-rw-r--r-- 1 0 0 3 Jan 01 2020 last-without-newline";
    auto list = FTPDirListParser::parse(text, o);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].pathOrEmpty(), "/srv/ftp/shown");
    EXPECT_EQ(list[0].serverID, "S1");
    EXPECT_EQ(list[0].protocolType, ProtocolType::FTP);
    EXPECT_EQ(list[1].pathOrEmpty(), "/srv/ftp/last-without-newline");

    o.includeHidden = true;
    o.folderPath = "/";
    list = FTPDirListParser::parse(text, o);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].pathOrEmpty(), "/.hidden");

    // The PWD answer replaces the folder a relative request named.
    o.folderPath = "";
    o.pwd = "/home/u";
    list = FTPDirListParser::parseMlsd("type=file;size=1; x\r\ntype=cdir; .\r\n", o);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].pathOrEmpty(), "/home/u/x");

    // Names that would lead out of the folder are dropped, whatever form the server uses.
    o.pwd.reset();
    o.folderPath = "/srv/ftp";
    std::string hostile =
        "-rw-r--r-- 1 0 0 1 Jan 01 2020 ../../etc/passwd\r\n"
        "-rw-r--r-- 1 0 0 1 Jan 01 2020 /etc/shadow\r\n"
        "-rw-r--r-- 1 0 0 1 Jan 01 2020 nul";
    hostile += '\0';
    hostile += "byte\r\n-rw-r--r-- 1 0 0 1 Jan 01 2020 fine\r\n";
    list = FTPDirListParser::parse(hostile, o);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].pathOrEmpty(), "/srv/ftp/fine");
    list = FTPDirListParser::parseMlsd("type=file;size=1; ../up\r\ntype=dir; a/b\r\n", o);
    EXPECT_TRUE(list.empty());

    // Dates beyond what the clock holds: an MLSD or EPLF entry is kept without a time, a LIST
    // line whose date cannot be read is skipped like any unreadable line.
    list = FTPDirListParser::parseMlsd("type=file;size=5;modify=99991231235959; far\r\n", o);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_FALSE(list[0].timestamp);
    list = FTPDirListParser::parse(
        "+i1.2,m99999999999999999,r,s7,\tfar.eplf\r\n"
        "-rw-r--r-- 1 0 0 1 Jan 01 0001 ancient\r\n",
        o);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_FALSE(list[0].timestamp);
    EXPECT_EQ(list[0].fileSizeInBytes, 7u);
}

TEST(FTPDirListParser, ReadsCapturedListingsOfServersThatCannotRunHere) {
    FTPDirListParser::Options o;
    o.folderPath = "/";
    o.now = kNow;
    o.includeHidden = true;

    auto iis = FTPDirListParser::parse(
        test::readFile(QUILLON_SOURCE_DIR "/tests/clients/ftp/data/iis.txt"), o);
    ASSERT_EQ(iis.size(), 7u);
    EXPECT_EQ(iis[0].nameOrEmpty(), "aspnet_client");
    EXPECT_TRUE(iis[0].isDir);
    EXPECT_EQ(iis[1].nameOrEmpty(), "Program Files");
    EXPECT_EQ(iis[1].timestamp, utc(2022, 11, 3, 16, 5));
    EXPECT_EQ(iis[3].nameOrEmpty(), "y2k.log");
    EXPECT_EQ(iis[3].timestamp, utc(1999, 12, 31, 23, 59));
    EXPECT_EQ(iis[3].fileSizeInBytes, 987654u);
    EXPECT_EQ(iis[4].timestamp, utc(2024, 1, 2, 0, 15));
    EXPECT_EQ(iis[6].nameOrEmpty(), "noon half.txt");
    EXPECT_EQ(iis[6].timestamp, utc(2021, 7, 4, 12, 30));

    auto unix = FTPDirListParser::parse(
        test::readFile(QUILLON_SOURCE_DIR "/tests/clients/ftp/data/old_unix.txt"), o);
    ASSERT_EQ(unix.size(), 6u);
    EXPECT_EQ(unix[0].nameOrEmpty(), "usr");
    EXPECT_TRUE(unix[0].isDir);
    EXPECT_EQ(unix[0].timestamp, utc(1998, 3, 5));
    EXPECT_EQ(unix[1].timestamp, utc(1997, 2, 17));
    EXPECT_EQ(unix[2].nameOrEmpty(), "sh ell");
    EXPECT_EQ(unix[2].fileSizeInBytes, 52340u);
    EXPECT_EQ(unix[3].nameIgnoreLinkResolve(), "lib");
    EXPECT_EQ(unix[3].symbolLinkTarget, "usr/lib");
    EXPECT_EQ(unix[4].nameOrEmpty(), "null");
    EXPECT_EQ(unix[4].fileSizeInBytes, 0u);
    EXPECT_EQ(unix[5].nameOrEmpty(), ".profile");
}

}  // namespace
}  // namespace quillon
