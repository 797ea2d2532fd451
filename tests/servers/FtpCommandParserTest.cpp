// The FTP server's text and path layers without sockets: line cutting, word splitting, path
// confinement (with real symbolic links), listing lines and times. (Random and mutated input
// through the same entry points is the libFuzzer target's, tests/fuzz/FtpServerFuzz.cpp.)

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "servers/ftpserver/FtpCommandParser.h"
#include "servers/ftpserver/FtpListing.h"
#include "servers/ftpserver/FtpPath.h"
#include "support/TestEnv.h"

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
