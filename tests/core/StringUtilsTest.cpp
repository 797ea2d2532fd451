#include "core/StringUtils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "core/LocalizedUtils.h"

using namespace quillon;
namespace su = quillon::StringUtils;
namespace lu = quillon::LocalizedUtils;

TEST(StringUtils, DirectPathOperationsKeepTheTextAsGiven) {
    EXPECT_EQ(su::stringByDeletingLastPathComponentDirectly("/a/b"), "/a");
    EXPECT_EQ(su::stringByDeletingLastPathComponentDirectly("/a/b/"), "/a/b");
    // The parent of a top-level item is the empty path, not "/".
    EXPECT_EQ(su::stringByDeletingLastPathComponentDirectly("/a"), "");
    EXPECT_EQ(su::stringByDeletingLastPathComponentDirectly("a"), "a");
    EXPECT_EQ(su::stringByDeletingLastPathComponentDirectly("/a//b"), "/a/");

    EXPECT_EQ(su::stringByAppendingPathComponentDirectly("/a", "b"), "/a/b");
    EXPECT_EQ(su::stringByAppendingPathComponentDirectly("/a/", "/b"), "/a/b");
    EXPECT_EQ(su::stringByAppendingPathComponentDirectly("/a", "///b"), "/a/b");
    // A lone "/" component is kept.
    EXPECT_EQ(su::stringByAppendingPathComponentDirectly("/", "/"), "//");
    EXPECT_EQ(su::stringByAppendingPathComponentDirectly("", "b"), "/b");
    EXPECT_EQ(su::stringByAppendingPathComponentDirectly("/a", "b/../c"), "/a/b/../c");
}

TEST(StringUtils, ProtocolAndRelativePath) {
    EXPECT_EQ(su::stringByDeletingProtocolSymbol("ftp://host/a"), "host/a");
    EXPECT_EQ(su::stringByDeletingProtocolSymbol("/plain/path"), "/plain/path");
    EXPECT_EQ(su::stringByDeletingProtocolSymbol("http://proxy/ftp://host/x"), "host/x");

    EXPECT_EQ(su::relativePath("ftp://host:21/a/b/"), "/a/b");
    EXPECT_EQ(su::relativePath("ftp://host/"), "/");
    EXPECT_EQ(su::relativePath("ftp://host"), std::nullopt);
    EXPECT_EQ(su::relativePath("smb://host"), std::nullopt);
    EXPECT_EQ(su::relativePath("sftp://h/a//"), "/a/");
}

TEST(StringUtils, PathExtensions) {
    EXPECT_EQ(su::stringByDeletingAllPathExtensions("a.tar.gz"), "a");
    EXPECT_EQ(su::stringByDeletingAllPathExtensions("/d.x/a.tar.gz"), "/d.x/a");
    EXPECT_EQ(su::stringByDeletingAllPathExtensions(".bashrc"), ".bashrc");
    EXPECT_EQ(su::pathExtension("/d.x/readme"), "");
    EXPECT_EQ(su::pathExtension("photo.JPG"), "JPG");
    EXPECT_EQ(su::pathExtension("trailing."), "");
    EXPECT_EQ(su::lastPathComponent("/a/b/"), "b");
    EXPECT_EQ(su::lastPathComponent("/"), "/");
    EXPECT_EQ(su::stringByDeletingPathExtension("/a/b.txt"), "/a/b");

    EXPECT_EQ(su::stringByDeletingLastPathComponent("/a"), "/");
    EXPECT_EQ(su::stringByDeletingLastPathComponent("/a/b/"), "/a");
    EXPECT_EQ(su::stringByDeletingLastPathComponent("a"), "");
    EXPECT_EQ(su::stringByDeletingLastPathComponent("/"), "/");
}

TEST(StringUtils, MatchPatternLetsDotCrossLineBreaks) {
    EXPECT_TRUE(su::matchPattern("first line\nsecond line", "first.*second"));
    EXPECT_TRUE(su::matchPattern("a\r\nb", "^a..b$"));
    // Dots inside a class and escaped dots stay literal.
    EXPECT_FALSE(su::matchPattern("a\nb", "a[.]b"));
    EXPECT_FALSE(su::matchPattern("a\nb", "a\\.b"));
    EXPECT_TRUE(su::matchPattern("a.b", "a\\.b"));
    EXPECT_TRUE(su::matchPattern("report-2024.pdf", "\\d{4}\\.pdf$"));
    EXPECT_FALSE(su::matchPattern("report.pdf", "^\\d+$"));
    // A pattern that does not compile matches nothing.
    EXPECT_FALSE(su::matchPattern("anything", "(unclosed"));
    EXPECT_FALSE(su::matchPattern("[", "["));
}

TEST(StringUtils, TrimAndEmptiness) {
    EXPECT_EQ(su::trim(" \t\r\n name \n"), "name");
    EXPECT_EQ(su::trim("\u00a0\u3000caf\u00e9\u2028"), "caf\u00e9");
    EXPECT_EQ(su::trim(" \n "), "");
    EXPECT_TRUE(su::isEmpty(std::optional<std::string>{}));
    EXPECT_TRUE(su::isEmpty(std::optional<std::string>{""}));
    EXPECT_FALSE(su::isEmpty(std::optional<std::string>{" "}));
    EXPECT_EQ(su::reversedString("ab\u00e9c"), "c\u00e9ba");
}

TEST(StringUtils, PrefixSuffixAndContainsWithAndWithoutCase) {
    EXPECT_TRUE(su::startsWith("Report.PDF", "Report"));
    EXPECT_FALSE(su::startsWith("Report.PDF", "report"));
    EXPECT_TRUE(su::startsWithIgnoreCase("Report.PDF", "report"));
    EXPECT_FALSE(su::endsWith("Report.PDF", ".pdf"));
    EXPECT_TRUE(su::endsWithIgnoreCase("Report.PDF", ".pdf"));
    EXPECT_TRUE(su::containsIgnoreCase("\u00c9T\u00c9 2024", "\u00e9t\u00e9"));
    EXPECT_FALSE(su::contains("abc", "B"));
    EXPECT_EQ(su::rangeOfStringIgnoreCase("xxABCxx", "abc"), 2u);
    EXPECT_EQ(su::rangeOfStringIgnoreCase("xx", "abc"), std::string_view::npos);
    EXPECT_EQ(su::lastIndexOf("a/b/c", "/"), 3);
    EXPECT_EQ(su::lastIndexOf("abc", "/"), -1);
    EXPECT_TRUE(su::equalsIgnoreCase("\u00c4rger", "\u00e4RGER"));
    EXPECT_EQ(su::toLower("/Docs/\u00c4B"), "/docs/\u00e4b");
    EXPECT_EQ(su::toUpper("stra\u00dfe"), "STRA\u00dfE");
}

TEST(StringUtils, HtmlEscapingRoundTripsWithNonAscii) {
    std::string text = "Tom & Jerry <\"caf\u00e9\"> 'n' \u20ac5 \u4e2d\U0001F600";
    std::string html = su::stringByEscapingForHTML(text);
    EXPECT_EQ(html,
              "Tom &amp; Jerry &lt;&quot;caf\u00e9&quot;&gt; &#39;n&#39; \u20ac5 \u4e2d\U0001F600");
    EXPECT_EQ(su::stringByUnescapingFromHTML(html), text);

    std::string ascii = su::stringByEscapingForAsciiHTML(text);
    EXPECT_TRUE(std::all_of(ascii.begin(), ascii.end(),
                            [](char c) { return static_cast<unsigned char>(c) < 0x80; }));
    EXPECT_NE(ascii.find("caf&eacute;"), std::string::npos);
    EXPECT_NE(ascii.find("&euro;5"), std::string::npos);
    EXPECT_NE(ascii.find("&#20013;&#128512;"), std::string::npos);
    EXPECT_EQ(su::stringByUnescapingFromHTML(ascii), text);

    EXPECT_EQ(su::stringByUnescapingFromHTML("&#x41;&#66;&apos;&nbsp;&copy;"), "AB'\u00a0\u00a9");
    // Unknown or malformed entities stay as they are.
    EXPECT_EQ(su::stringByUnescapingFromHTML("&bogus; &#xZZ; & a;b &#0; &#xD800;"),
              "&bogus; &#xZZ; & a;b &#0; &#xD800;");
}

TEST(StringUtils, UrlEscapingRoundTripsWithNonAscii) {
    std::string url = "ftp://host/F\u00fcr Sie/100% done#1?a=b&c=d";
    std::string escaped = su::stringByEscapingForURL(url);
    EXPECT_EQ(escaped, "ftp://host/F%C3%BCr%20Sie/100%25%20done#1?a=b&c=d");
    EXPECT_EQ(su::stringByUnescapingFromURL(escaped), url);

    std::string arg = "a b&c=d/\u00e9+~";
    std::string escapedArg = su::stringByEscapingForURLArgument(arg);
    EXPECT_EQ(escapedArg, "a%20b%26c%3Dd%2F%C3%A9%2B~");
    EXPECT_EQ(su::stringByUnescapingFromURLArgument(escapedArg), arg);
    EXPECT_EQ(su::stringByUnescapingFromURLArgument("a+b%2b"), "a b+");
    EXPECT_EQ(su::stringByUnescapingFromURL("a+b"), "a+b");
    // A broken escape is kept as text.
    EXPECT_EQ(su::stringByUnescapingFromURL("50%zz%4"), "50%zz%4");
}

TEST(StringUtils, Utf8Validation) {
    EXPECT_TRUE(su::isValidUtf8("plain caf\u00e9 \U0001F600"));
    EXPECT_FALSE(su::isValidUtf8("\xC3"));
    EXPECT_FALSE(su::isValidUtf8("\xC0\xAF"));          // overlong "/"
    EXPECT_FALSE(su::isValidUtf8("\xED\xA0\x80"));      // surrogate
    EXPECT_FALSE(su::isValidUtf8("\xF4\x90\x80\x80"));  // past U+10FFFF
}

TEST(StringUtils, LocalizedStandardCompareIsNaturalAndIgnoresCase) {
    EXPECT_LT(su::localizedStandardCompare("Server 2", "server 10"), 0);
    EXPECT_GT(su::localizedStandardCompare("server 10", "Server 2"), 0);
    EXPECT_EQ(su::localizedStandardCompare("Server", "sERVER"), 0);
    EXPECT_LT(su::localizedStandardCompare("a", "ab"), 0);
    EXPECT_LT(su::localizedStandardCompare("file99999999999999999999", "file100000000000000000000"),
              0);

    std::vector<std::string> names{"img12.jpg", "IMG2.jpg", "img1.jpg", "Img10.jpg", "b", "A"};
    std::sort(names.begin(), names.end(), [](const std::string& x, const std::string& y) {
        return su::localizedStandardCompare(x, y) < 0;
    });
    EXPECT_EQ(names, (std::vector<std::string>{"A", "b", "img1.jpg", "IMG2.jpg", "Img10.jpg",
                                               "img12.jpg"}));
}

TEST(LocalizedUtils, KnownKeysShowTheirEnglishTextAndUnknownKeysThemselves) {
    EXPECT_EQ(lu::localizedStringForKey("trans.no_space"), "No enough free space!");
    EXPECT_EQ(lu::localizedStringForKey("trans.operation.timeout", "FTP timeout"),
              "Operation Time Out");
    EXPECT_EQ(lu::localizedStringForKey("menu.new_window"), "New Window");
    EXPECT_EQ(lu::localizedStringForKey("no.such.key"), "no.such.key");
    EXPECT_EQ(lu::localizedStringForKey(""), "");
}

TEST(LocalizedUtils, FormatFillsPlaceholdersInOrder) {
    EXPECT_EQ(lu::localizedFormat("nearby.accept_files_message", {"Bob's Mac"}),
              "Recevie files from Bob's Mac?");
    EXPECT_EQ(lu::localizedFormat("no.such.key", {"x"}), "no.such.key");
    // Missing arguments leave nothing behind.
    EXPECT_EQ(lu::localizedFormat("nearby.accept_files_message", {}), "Recevie files from ?");
}

TEST(LocalizedUtils, FirstLookupFromManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::vector<std::string> results(8);
    for (std::size_t i = 0; i < results.size(); ++i)
        threads.emplace_back(
            [&results, i] { results[i] = lu::localizedStringForKey("trans.stop"); });
    for (auto& t : threads) t.join();
    for (auto& r : results) EXPECT_EQ(r, "Stop");
}
