// Small values and their helpers: path and text utilities, file kinds, property lists, the
// password cipher, item records, the preference store.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <unistd.h>
#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "core/AppPreference.h"
#include "core/FileTypeUtils.h"
#include "core/Initialization.h"
#include "core/KvMetadata.h"
#include "core/LocalizedUtils.h"
#include "core/PathUtils.h"
#include "core/Plist.h"
#include "core/ServerInfo.h"
#include "core/ServerInfoService.h"
#include "core/StringUtils.h"
#include "core/TovrinCrypto.h"
#include "support/TestEnv.h"

using namespace quillon;
namespace su = quillon::StringUtils;
namespace lu = quillon::LocalizedUtils;
namespace ft = quillon::FileTypeUtils;
using namespace std::chrono_literals;

namespace {

// Each name the predicate accepts, then each it refuses.
void decides(const char* what, const std::function<bool(const std::string&)>& is,
             std::initializer_list<const char*> yes, std::initializer_list<const char*> no) {
    for (auto name : yes) EXPECT_TRUE(is(name)) << what << " " << name;
    for (auto name : no) EXPECT_FALSE(is(name)) << what << " " << name;
}

std::string hex(const std::string& s) {
    std::string out;
    for (unsigned char c : s) out += fmt::format("{:02x}", c);
    return out;
}

}  // namespace

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

TEST(FileTypeUtils, DecisionsIncludingDeliberateExclusionsFromTheTypeTable) {
    // The table alone would call a PSD an image, MIDI audio and subtitles movies.
    EXPECT_TRUE(ft::conformsTo("a.psd", "public.image"));
    EXPECT_TRUE(ft::conformsTo("song.mid", "public.audio"));
    decides("image", ft::isImage, {"a.JPG", "scan.tiff"}, {"a.PSD", "clip.mkv", "clip.AVI"});
    decides("movie", ft::isMovie, {"clip.mkv", "film.mp4", "capture.ts"},
            {"film.srt", "film.ASS", "film.sub"});
    decides("subtitle", ft::isExternalSubtitle, {"film.ssa"}, {});
    decides("audio", ft::isAudio, {"list.m3u8", "disc.CUE", "song.mp3", "track.dsf"},
            {"song.mid", "song.MIDI"});
    decides("text", ft::isText,
            {"main.rs", "main.go", "main.c", "run.py", "notes.TXT", "settings.ini"},
            {"page.html", "photo.png"});  // HTML is rich text, not plain
    decides("html", ft::isHTML, {"page.HTM", "saved.webarchive"}, {"notes.txt"});
    decides("web view", ft::isTextForWebView, {"page.html"}, {"notes.txt"});
    decides("keynote", ft::isKeynote, {"Talk.key.zip"}, {});
    decides("numbers", ft::isNumbers, {"Budget.NUMBERS"}, {});
    decides("pages", ft::isPages, {"/a/Letter.pages.zip"}, {"pages"});
    decides("iwork", ft::isIWork, {"Talk.keynote"}, {});
    decides("document", ft::isDocument, {"sheet.csv"}, {"book.epub"});
    decides("archive", ft::isSupportedArchiveFile, {"x.TBZ2"}, {"x.xz"});
    decides("artwork", ft::hasArtworkPossible, {"a.FLAC"}, {"a.wav"});
    decides("quick look", ft::isQuickLookSupportFile, {"a.m4v"}, {"a.mkv"});
}

TEST(FileTypeUtils, NamesWithoutAUsableExtension) {
    for (const char* name : {"", "README", ".bashrc", "archive.", "/folder.d/file"}) {
        EXPECT_FALSE(ft::isSupportedFile(name)) << name;
        EXPECT_FALSE(ft::getUTIString(name)) << name;
        EXPECT_EQ(ft::iconNameForFileName(name), "unknown") << name;
        EXPECT_EQ(ft::kindForFileName(name, false), "Document") << name;
    }
    EXPECT_FALSE(ft::getUTIString("x.unknownext"));
    EXPECT_EQ(ft::getUTIString("/srv/Photo.JPEG"), "public.jpeg");
}

TEST(FileTypeUtils, IconNamesFollowTheTestOrderAndKindsForListings) {
    // Playlists are audio before text.
    const std::pair<const char*, const char*> icons[] = {
        {"x.pdf", "pdf"},     {"x.rar", "zip"},   {"x.tar.gz", "zip"},  {"x.jpg", "photo"},
        {"x.webm", "video"},  {"x.m3u", "music"}, {"x.md", "txt"},      {"x.docx", "word"},
        {"x.xlsx", "excel"},  {"x.ppsx", "ppt"},  {"x.key", "keynote"}, {"x.numbers", "numbers"},
        {"x.pages", "pages"}, {"x.html", "html"}, {"x.epub", "epub"},   {"x.srt", "unknown"}};
    for (auto [name, icon] : icons) EXPECT_EQ(ft::iconNameForFileName(name), icon) << name;
    const std::pair<const char*, const char*> kinds[] = {
        {"x.pdf", "PDF document"},  {"x.PNG", "Image"},
        {"x.mkv", "Movie"},         {"x.srt", "Subtitle"},
        {"x.m3u8", "Playlist"},     {"x.flac", "Audio"},
        {"x.doc", "Word document"}, {"x.7z", "Archive"},
        {"x.xz", "Archive"},        {"x.rs", "Text"}};
    for (auto [name, kind] : kinds) EXPECT_EQ(ft::kindForFileName(name, false), kind) << name;
    EXPECT_EQ(ft::kindForFileName("Photos", true), "Folder");
    EXPECT_EQ(ft::kindForFileName("Plan.pages", true), "Pages document");
}

TEST(FileTypeUtils, FilePackagesAreLocalFolders) {
    auto package = [](const std::string& path, bool isDir, std::int32_t protocol) {
        KvMetadata m(path);
        m.isDir = isDir;
        m.protocolType = protocol;
        return ft::isFilePackage(m);
    };
    EXPECT_TRUE(package("/opt/Tool.app", true, ProtocolType::Local));
    EXPECT_TRUE(package("/home/u/Plan.pages", true, ProtocolType::Local));
    EXPECT_FALSE(package("/srv/Tool.app", true, ProtocolType::FTP));
    EXPECT_FALSE(package("/home/u/Plan.pages", false, ProtocolType::Local));
    EXPECT_FALSE(package("/home/u/Projects", true, ProtocolType::Local));
}

TEST(FileTypeUtils, SupportedTypesEndWithTheProgramsOwnType) {
    auto utis = ft::supportedUTIs();
    ASSERT_FALSE(utis.empty());
    EXPECT_EQ(utis.back(), "io.quillon.supported-file");
    EXPECT_TRUE(ft::conformsTo("x.mp4", "public.movie"));
    EXPECT_TRUE(ft::conformsTo("x.mp4", "public.item"));
    EXPECT_FALSE(ft::conformsTo("x.mp4", "public.audio"));
    EXPECT_TRUE(ft::conformsTo("x.cpp", "public.text"));
}

TEST(Plist, RoundTripsEveryKindOfValue) {
    PlistDict d;
    d["bool"] = true;
    d["int"] = std::int64_t{-9007199254740993};
    d["real"] = 2.5;
    d["text"] = std::string("<a & \"b\"> ü 漢字");
    d["date"] = PlistDate(std::chrono::seconds(1700000000)) + std::chrono::microseconds(250000);
    d["data"] = PlistData{0, 1, 2, 255};
    d["array"] =
        PlistArray{PlistValue("x"), PlistValue(1), PlistValue(PlistDict{{"k", PlistValue(false)}})};
    auto xml = Plist::toXml(PlistValue(d));
    auto back = Plist::fromXml(xml);
    ASSERT_TRUE(back) << back.error().reason;
    EXPECT_EQ(*back, PlistValue(d));
}

TEST(Plist, RejectsMalformedDocumentsWithAReason) {
    for (std::string bad : {"", "not xml", "<plist><dict><key>a</key></dict></plist>",
                            "<plist><integer>12x</integer></plist>", "<plist><wat/></plist>",
                            "<plist><dict><string>no key</string></dict></plist>"}) {
        auto r = Plist::fromXml(bad);
        ASSERT_FALSE(r) << bad;
        EXPECT_NE(r.error().reason.find("Malformed property list"), std::string::npos);
    }
}

TEST(Plist, WritesAtomicallyWithTheRequestedMode) {
    test::ScratchDir dir("plist");
    std::string path = dir / "pref.plist";
    ASSERT_TRUE(Plist::writeFile(path, PlistValue(PlistDict{{"a", PlistValue(1)}}), 0600));
    ASSERT_TRUE(Plist::writeFile(path, PlistValue(PlistDict{{"a", PlistValue(2)}}), 0600));
    EXPECT_EQ(test::modeOf(path), 0600u);
    auto r = Plist::readFile(path);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->get<PlistDict>()->at("a").toInteger(), 2);
    // No temporary files are left beside it.
    EXPECT_EQ(test::namesIn(dir.path()), std::vector<std::string>{"pref.plist"});
    // Writing into a folder that does not exist fails and says where.
    auto w = Plist::writeFile(dir / "missing/x.plist", PlistValue(1));
    ASSERT_FALSE(w);
    EXPECT_NE(w.error().reason.find("missing/x.plist"), std::string::npos);
}

// Empty text and a whole block each gain a block of PKCS#7 padding; long text is cut into lines
// of 64 characters, without a line break at the end.
TEST(TovrinCrypto, MatchesOpenSslAes128CbcInLinesOf64AndRoundTrips) {
    TovrinCrypto crypto;
    std::string longText;
    for (int i = 0; i < 40; ++i) longText += "pässwörd-" + std::to_string(i) + " ";
    for (const std::string& text :
         {std::string(), std::string(16, 'A'), std::string("s3cret password"), longText}) {
        SCOPED_TRACE(text.size());
        auto ours = crypto.encryptString(text);
        ASSERT_TRUE(ours) << ours.error().reason;
        auto theirs = test::runProgram({"openssl", "enc", "-aes-128-cbc", "-K", hex(crypto.key),
                                        "-iv", hex(crypto.iv), "-base64", "-A"},
                                       text);
        ASSERT_EQ(theirs.exitCode, 0) << theirs.err;
        std::string oneLine = test::lines(theirs.out).at(0), wrapped;
        for (std::size_t at = 0; at < oneLine.size(); at += 64)
            wrapped += (at ? "\n" : "") + oneLine.substr(at, 64);
        EXPECT_EQ(*ours, wrapped);
        EXPECT_EQ(crypto.decryptString(*ours).value_or("x"), text);
    }
}

TEST(TovrinCrypto, RejectsTextThatIsNotItsCipherText) {
    TovrinCrypto crypto;
    EXPECT_FALSE(crypto.decryptString("not base64 at all!"));
    // Whole bytes but not whole blocks.
    EXPECT_FALSE(crypto.decryptData(std::vector<std::uint8_t>(10, 1)));
    TovrinCrypto other;
    other.key = "another-key-1234";
    auto cipher = crypto.encryptString("secret");
    ASSERT_TRUE(cipher);
    auto wrong = other.decryptString(*cipher);
    EXPECT_TRUE(!wrong || *wrong != "secret");
    other.key = "short";
    EXPECT_FALSE(other.encryptString("x"));
}

namespace {

// A record with every field set to a distinct value.
KvMetadata fullRecord(std::shared_ptr<const KvMetadata> parent) {
    KvMetadata m;
    m.isDir = true;
    m.isSymbolLink = true;
    m.isIcloudPlaceHold = true;
    m.file_update = true;
    m.iCloudDownloadPercent = 42;
    m.protocolType = ProtocolType::WebDAV;
    m.userData = std::string("view state");
    m.timestamp = TimePoint(1700000000s + 123456us);
    m.createTimestamp = TimePoint(1600000000s);
    m.setPath("/Docs/Report");
    m.localPath = "/tmp/cache/Report";
    m.setName("Report");
    m.fileSizeInBytes = 9876543210ULL;
    m.parentFolderMeta = std::move(parent);
    m.iCloudQuery = 7;
    m.etag = "etag-1";
    m.fileExtension = "pages";
    m.identifier = "id-77";
    m.downloadLink = "https://example.invalid/d";
    m.thumbnailLink = "https://example.invalid/t";
    m.file_update_fileid = "fid-3";
    m.serverID = "S-1";
    m.gdocs_editlink = "https://example.invalid/e";
    m.sharedDriveID = "drive-9";
    m.unixPermission = "rwxr-xr-x";
    m.owner = "alice";
    m.group = "staff";
    m.timestampString = "Nov 14 22:13";
    m.streamHeaderCache = std::make_shared<std::vector<std::uint8_t>>(4, 0xAB);
    return m;
}

}  // namespace

TEST(KvMetadata, NamesKeysAndPathsAsTheyAreRead) {
    KvMetadata plain("/home/u/notes.txt");
    EXPECT_EQ(plain.name(), "notes.txt");
    EXPECT_EQ(plain.description(), "Name=notes.txt; PATH=/home/u/notes.txt");
    EXPECT_EQ(KvMetadata().description(), "Name=(null); PATH=(null)");

    // A link's name getter resolves its target while the stored name stays; the archive stores
    // what the getter shows.
    KvMetadata link("/usr/lib/libz.1.dylib");
    link.setName("libz.1.dylib");
    link.symbolLinkTarget = "/usr/lib/libz.dylib";
    EXPECT_EQ(link.name(), "libz.dylib");
    EXPECT_EQ(link.nameIgnoreLinkResolve(), "libz.1.dylib");
    auto back = KvMetadata::unarchive(link.archivedData());
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->nameIgnoreLinkResolve(), "libz.dylib");

    // An iWork document is a folder.
    for (auto [path, isDir, pkg] : {std::tuple{"/Docs/Plan.pages", true, true},
                                    {"/Docs/Plan.pages", false, false},
                                    {"/Docs/Plans", true, false}}) {
        KvMetadata m(path);
        m.isDir = isDir;
        EXPECT_EQ(m.iWorkDocFolder(), pkg) << path << isDir;
    }

    // SFTP paths are normalised on first read and stored back: a later change of isDir no
    // longer affects them.
    struct Case {
        std::int32_t protocol;
        bool isDir;
        const char* path;
        const char* read;
    } cases[] = {
        {ProtocolType::SFTP, true, "sftp://10.0.0.2:22/home/u", "/home/u/"},
        {ProtocolType::SFTP, true, "sftp://10.0.0.2", "/"},
        {ProtocolType::SFTP, false, "sftp://10.0.0.2", "sftp://10.0.0.2"},
        {ProtocolType::SFTP, true, "/home/u", "/home/u"},
        {ProtocolType::FTP, true, "sftp://10.0.0.2:22/home/u", "sftp://10.0.0.2:22/home/u"},
    };
    for (auto& c : cases) {
        KvMetadata m;
        m.protocolType = c.protocol;
        m.isDir = c.isDir;
        m.setPath(c.path);
        EXPECT_EQ(m.path(), c.read) << c.path;
        m.isDir = false;
        EXPECT_EQ(m.path(), c.read) << c.path;
    }

    // Key ids are lower-cased only for Dropbox.
    KvMetadata dropbox("/Docs/A");
    dropbox.protocolType = ProtocolType::Dropbox;
    dropbox.isDir = true;
    dropbox.serverID = "S1";
    EXPECT_EQ(dropbox.keyID(), "s1:1:(null):/docs/a");
    KvMetadata drive("/Docs/A");
    drive.protocolType = ProtocolType::GoogleDrive;
    drive.serverID = "S1";
    drive.identifier = "AbC";
    EXPECT_EQ(drive.keyID(), "S1:0:AbC:/Docs/A");
    KvMetadata sftp;
    sftp.protocolType = ProtocolType::SFTP;
    sftp.isDir = true;
    sftp.setPath("sftp://h:22/Home");
    EXPECT_EQ(sftp.keyID(), "(null):1:(null):/Home/");
}

TEST(KvMetadata, ArchiveKeepsExactlyTheEightFields) {
    auto parent = std::make_shared<const KvMetadata>("/Docs");
    KvMetadata full = fullRecord(parent);

    std::set<std::string> keys;
    for (auto& [k, v] : full.encode()) keys.insert(k);
    EXPECT_EQ(keys, (std::set<std::string>{"timestamp", "isDir", "path", "name", "filesize",
                                           "identifier", "protocolType", "serverID"}));

    auto back = KvMetadata::unarchive(full.archivedData());
    ASSERT_TRUE(back.has_value()) << back.error().describe();
    EXPECT_EQ(back->timestamp, full.timestamp);
    EXPECT_TRUE(back->isDir);
    EXPECT_EQ(back->path(), "/Docs/Report");
    EXPECT_EQ(back->nameIgnoreLinkResolve(), "Report");
    EXPECT_EQ(back->fileSizeInBytes, 9876543210ULL);
    EXPECT_EQ(back->identifier, "id-77");
    EXPECT_EQ(back->protocolType, ProtocolType::WebDAV);
    EXPECT_EQ(back->serverID, "S-1");

    // Absent keys decode as empty fields, false and 0.
    auto sparse = KvMetadata::decode(PlistDict{{"path", "/x"}});
    EXPECT_EQ(sparse.path(), "/x");
    EXPECT_FALSE(sparse.isDir || sparse.protocolType || sparse.timestamp ||
                 sparse.fileSizeInBytes || sparse.name() || sparse.serverID);

    EXPECT_FALSE(KvMetadata::unarchive("not a property list").has_value());
    EXPECT_FALSE(KvMetadata::unarchive(Plist::toXml(PlistValue(PlistArray{}))).has_value());
}

TEST(KvMetadata, CopyKeepsExactlyTheNineteenFields) {
    auto parent = std::make_shared<const KvMetadata>("/Docs");
    KvMetadata full = fullRecord(parent);
    full.symbolLinkTarget = "/Docs/Target.key";

    KvMetadata c = full.copy();
    EXPECT_EQ(c.timestamp, full.timestamp);
    EXPECT_TRUE(c.isDir);
    EXPECT_EQ(c.path(), "/Docs/Report");
    EXPECT_EQ(c.localPath, "/tmp/cache/Report");
    // Copied through the name getter, so the link's resolved name becomes the stored name.
    EXPECT_EQ(c.nameIgnoreLinkResolve(), "Target.key");
    EXPECT_EQ(c.fileSizeInBytes, 9876543210ULL);
    EXPECT_EQ(c.fileExtension, "pages");
    EXPECT_EQ(c.identifier, "id-77");
    EXPECT_EQ(c.protocolType, ProtocolType::WebDAV);
    EXPECT_EQ(c.serverID, "S-1");
    EXPECT_EQ(c.parentFolderMeta.get(), parent.get());
    EXPECT_EQ(c.downloadLink, "https://example.invalid/d");
    EXPECT_TRUE(c.isIcloudPlaceHold);
    EXPECT_EQ(c.createTimestamp, full.createTimestamp);
    EXPECT_EQ(c.etag, "etag-1");
    EXPECT_TRUE(c.isSymbolLink);
    EXPECT_EQ(c.symbolLinkTarget, "/Docs/Target.key");
    EXPECT_EQ(c.gdocs_editlink, "https://example.invalid/e");
    EXPECT_EQ(c.sharedDriveID, "drive-9");

    // The rest is left behind: the copy describes and archives as a record that never had it.
    EXPECT_FALSE(c.userData.has_value() || c.thumbnailLink || c.file_update ||
                 c.file_update_fileid || c.iCloudDownloadPercent || c.iCloudQuery.has_value() ||
                 c.unixPermission || c.owner || c.group || c.timestampString ||
                 c.streamHeaderCache);
}

TEST(KvMetadata, GenerateLocalMetadataBuildsEveryAncestorUpToRoot) {
    test::IsolatedHome home;
    test::ScratchDir dir("meta");
    std::string file = dir / "a/b/c.txt";
    test::writeFile(file, "hello");
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);

    auto meta = KvMetadata::generateLocalMetadata(file, false);
    ASSERT_TRUE(meta);
    std::string rootID =
        ServerInfoService::sharedServerInfoService().rootLocalServerInfo().serverID;
    EXPECT_FALSE(rootID.empty());
    EXPECT_EQ(meta->serverID, rootID);
    EXPECT_EQ(meta->protocolType, ProtocolType::Local);
    EXPECT_FALSE(meta->isDir);
    EXPECT_EQ(meta->name(), "c.txt");
    EXPECT_EQ(meta->fileSizeInBytes, 5u);
    ASSERT_TRUE(meta->timestamp);
    EXPECT_EQ(std::chrono::system_clock::to_time_t(*meta->timestamp), st.st_mtime);

    // One record per level, each a folder of the root local server, ending at "/".
    std::vector<std::string> paths;
    const KvMetadata* level = meta->parentFolderMeta.get();
    while (level) {
        EXPECT_TRUE(level->isDir) << level->pathOrEmpty();
        EXPECT_EQ(level->serverID, rootID);
        paths.push_back(level->pathOrEmpty());
        level = level->parentFolderMeta.get();
    }
    std::vector<std::string> expected;
    for (auto p = std::filesystem::path(file).parent_path();; p = p.parent_path()) {
        expected.push_back(p.string());
        if (p == p.root_path()) break;
    }
    EXPECT_EQ(paths, expected);
    EXPECT_EQ(paths.back(), "/");

    auto root = KvMetadata::generateLocalMetadata("/", true);
    ASSERT_TRUE(root);
    EXPECT_FALSE(root->parentFolderMeta);
    EXPECT_EQ(root->name(), "/");

    // A missing item still gets a record: zero size, no date.
    auto missing = KvMetadata::generateLocalMetadata(dir / "nope/x", false);
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->fileSizeInBytes, 0u);
    EXPECT_FALSE(missing->timestamp);
    EXPECT_EQ(missing->parentFolderMeta->pathOrEmpty(), dir / "nope");

    EXPECT_FALSE(KvMetadata::generateLocalMetadata("", false));
}

namespace fs = std::filesystem;

namespace {

using test::modeOf;
// The preference store re-read from the current home.
AppPreference& freshPrefs() {
    auto& prefs = AppPreference::sharedAppPreference();
    (void)prefs.load();
    return prefs;
}

}  // namespace

TEST(AppPreference, FirstLoadSeedsShippedDefaultsReadableByUserOnly) {
    test::IsolatedHome home;
    auto& prefs = freshPrefs();
    EXPECT_FALSE(prefs.loadError());
    std::string path = prefs.prefFilePath();
    EXPECT_EQ(path, PathUtils::getAppDataFolderPath() + "/pref.plist");
    ASSERT_TRUE(fs::exists(path));
    EXPECT_EQ(modeOf(path), 0600u);

    // Every shipped default is there, read through the typed getters too; absent means
    // automatic detection of the text encoding.
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 3);
    EXPECT_TRUE(prefs.boolForKey(PrefKey::SYS_DISPLAY_FILE_EXTENSION));
    EXPECT_FALSE(prefs.valueForKey(PrefKey::TextEncoding));
    auto shipped = Plist::readFile(PathUtils::getResourceFolderPath() + "/pref.plist");
    ASSERT_TRUE(shipped && shipped->is<PlistDict>());
    EXPECT_GE(shipped->get<PlistDict>()->size(), 31u);
    for (const auto& [key, value] : *shipped->get<PlistDict>())
        EXPECT_EQ(prefs.valueForKey(key), value) << key;

    // Absent keys and absent key arguments.
    EXPECT_FALSE(prefs.valueForKey(""));
    EXPECT_FALSE(prefs.boolForKey("NO SUCH KEY"));
    EXPECT_EQ(prefs.integerForKey("NO SUCH KEY"), 0);
    prefs.setValue(PlistValue("x"), "");
    EXPECT_FALSE(prefs.valueForKey(""));
}

TEST(AppPreference, ValuesSetWithoutSaveAreLostOnReload) {
    test::IsolatedHome home;
    auto& prefs = freshPrefs();
    prefs.setValue(PlistValue(7), PrefKey::MaxSimultaneousTransfers);
    prefs.removeValueForKey(PrefKey::FTP_SERVER_PORT);
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 7);
    ASSERT_TRUE(prefs.load());
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 3);
    EXPECT_EQ(prefs.integerForKey(PrefKey::FTP_SERVER_PORT), 2121);

    // A file someone left readable by others becomes private on the next save.
    ::chmod(prefs.prefFilePath().c_str(), 0644);
    prefs.setValue(PlistValue(5), PrefKey::MaxSimultaneousTransfers);
    prefs.setValue(PlistValue("/srv/share"), PrefKey::FTP_SERVER_LOCATION);
    ASSERT_TRUE(prefs.save());
    EXPECT_EQ(modeOf(prefs.prefFilePath()), 0600u);
    ASSERT_TRUE(prefs.load());
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 5);
    EXPECT_EQ(prefs.stringForKey(PrefKey::FTP_SERVER_LOCATION), "/srv/share");
    // No temporary file is left beside it.
    for (auto& e : fs::directory_iterator(PathUtils::getAppDataFolderPath()))
        EXPECT_EQ(e.path().filename().string().find(".tmp"), std::string::npos) << e.path();
}

TEST(AppPreference, CorruptFileIsKeptAsideAndReported) {
    test::IsolatedHome home;
    auto& prefs = AppPreference::sharedAppPreference();
    std::string path = prefs.prefFilePath();
    std::string garbage = "<?xml version=\"1.0\"?><plist><dict><key>Max Simultaneous";
    test::writeFile(path, garbage);

    auto r = prefs.load();
    ASSERT_FALSE(r);
    ASSERT_TRUE(prefs.loadError());
    EXPECT_EQ(*prefs.loadError(), r.error());
    std::vector<fs::path> aside;
    for (auto& e : fs::directory_iterator(fs::path(path).parent_path()))
        if (e.path().filename().string().starts_with("pref.plist.corrupt-"))
            aside.push_back(e.path());
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_NE(r.error().reason.find(aside[0].string()), std::string::npos) << r.error().reason;
    EXPECT_EQ(test::readFile(aside[0]), garbage);
    // The store runs on the defaults, and the file is the defaults again.
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 3);
    EXPECT_EQ(modeOf(path), 0600u);

    // Taken once for reporting, then gone.
    EXPECT_EQ(prefs.takeLoadError(), r.error());
    EXPECT_FALSE(prefs.takeLoadError());
    EXPECT_FALSE(prefs.loadError());
    ASSERT_TRUE(prefs.load());
    EXPECT_FALSE(prefs.loadError());

    // A file that holds a property list but not a dictionary is just as unreadable.
    test::writeFile(path, Plist::toXml(PlistValue(PlistArray{PlistValue(1)})));
    EXPECT_FALSE(prefs.load());
    int kept = 0;
    for (auto& e : fs::directory_iterator(fs::path(path).parent_path()))
        kept += e.path().filename().string().starts_with("pref.plist.corrupt-");
    EXPECT_EQ(kept, 2);
}

TEST(AppPreference, UnreadableFileThatCannotBeMovedIsNeverOverwritten) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not bind root";
    test::IsolatedHome home;
    auto& prefs = AppPreference::sharedAppPreference();
    std::string path = prefs.prefFilePath();
    std::string folder = fs::path(path).parent_path();
    test::writeFile(path, "not a property list");
    ::chmod(folder.c_str(), 0500);
    auto r = prefs.load();
    EXPECT_FALSE(r);
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 3);
    ::chmod(folder.c_str(), 0700);
    // Writable again, but the file still was not moved aside: save refuses to replace it.
    EXPECT_FALSE(prefs.save());
    EXPECT_EQ(test::readFile(path), "not a property list");
}

TEST(Initialization, InitializeAppIsRememberedAcrossLoads) {
    test::IsolatedHome home;
    (void)freshPrefs();
    EXPECT_FALSE(Initialization::isInitialized());
    Initialization::initializeApp();
    EXPECT_TRUE(Initialization::isInitialized());
    ASSERT_TRUE(AppPreference::sharedAppPreference().load());
    EXPECT_TRUE(Initialization::isInitialized());
}
