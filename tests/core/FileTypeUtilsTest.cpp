#include "core/FileTypeUtils.h"

#include <gtest/gtest.h>

#include <functional>

#include "core/KvMetadata.h"
#include "core/ServerInfo.h"

using namespace quillon;
namespace ft = quillon::FileTypeUtils;

namespace {

// Each name the predicate accepts, then each it refuses.
void decides(const char* what, const std::function<bool(const std::string&)>& is,
             std::initializer_list<const char*> yes, std::initializer_list<const char*> no) {
    for (auto name : yes) EXPECT_TRUE(is(name)) << what << " " << name;
    for (auto name : no) EXPECT_FALSE(is(name)) << what << " " << name;
}

}  // namespace

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
