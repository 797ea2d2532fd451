#include "core/FileTypeUtils.h"

#include <gtest/gtest.h>

#include "core/KvMetadata.h"
#include "core/ServerInfo.h"

using namespace quillon;
namespace ft = quillon::FileTypeUtils;

TEST(FileTypeUtils, DeliberateExclusionsOverrideTheTypeTable) {
    EXPECT_FALSE(ft::isImage("a.PSD"));
    EXPECT_TRUE(ft::conformsTo("a.psd", "public.image"));  // the table alone would say image
    EXPECT_TRUE(ft::isImage("a.JPG"));
    EXPECT_TRUE(ft::isImage("scan.tiff"));
    EXPECT_FALSE(ft::isImage("clip.mkv"));
    EXPECT_FALSE(ft::isImage("clip.AVI"));
    EXPECT_TRUE(ft::isMovie("clip.mkv"));

    EXPECT_FALSE(ft::isMovie("film.srt"));
    EXPECT_FALSE(ft::isMovie("film.ASS"));
    EXPECT_FALSE(ft::isMovie("film.sub"));
    EXPECT_TRUE(ft::isExternalSubtitle("film.ssa"));
    EXPECT_TRUE(ft::isMovie("film.mp4"));
    EXPECT_TRUE(ft::isMovie("capture.ts"));

    EXPECT_TRUE(ft::isAudio("list.m3u8"));
    EXPECT_TRUE(ft::isAudio("disc.CUE"));
    EXPECT_FALSE(ft::isAudio("song.mid"));
    EXPECT_FALSE(ft::isAudio("song.MIDI"));
    EXPECT_TRUE(ft::conformsTo("song.mid", "public.audio"));
    EXPECT_TRUE(ft::isAudio("song.mp3"));
    EXPECT_TRUE(ft::isAudio("track.dsf"));
}

TEST(FileTypeUtils, TextAndHtmlDecisions) {
    EXPECT_TRUE(ft::isText("main.rs"));
    EXPECT_TRUE(ft::isText("main.go"));
    EXPECT_TRUE(ft::isText("main.c"));
    EXPECT_TRUE(ft::isText("run.py"));
    EXPECT_TRUE(ft::isText("notes.TXT"));
    EXPECT_TRUE(ft::isText("settings.ini"));
    EXPECT_FALSE(ft::isText("page.html"));  // rich text, not plain
    EXPECT_FALSE(ft::isText("photo.png"));
    EXPECT_TRUE(ft::isHTML("page.HTM"));
    EXPECT_TRUE(ft::isHTML("saved.webarchive"));
    EXPECT_FALSE(ft::isHTML("notes.txt"));
    EXPECT_TRUE(ft::isTextForWebView("page.html"));
    EXPECT_FALSE(ft::isTextForWebView("notes.txt"));
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

TEST(FileTypeUtils, IWorkNamesAndDocuments) {
    EXPECT_TRUE(ft::isKeynote("Talk.key.zip"));
    EXPECT_TRUE(ft::isNumbers("Budget.NUMBERS"));
    EXPECT_TRUE(ft::isPages("/a/Letter.pages.zip"));
    EXPECT_FALSE(ft::isPages("pages"));
    EXPECT_TRUE(ft::isIWork("Talk.keynote"));
    EXPECT_TRUE(ft::isDocument("sheet.csv"));
    EXPECT_FALSE(ft::isDocument("book.epub"));
    EXPECT_TRUE(ft::isSupportedArchiveFile("x.TBZ2"));
    EXPECT_FALSE(ft::isSupportedArchiveFile("x.xz"));
    EXPECT_TRUE(ft::hasArtworkPossible("a.FLAC"));
    EXPECT_FALSE(ft::hasArtworkPossible("a.wav"));
    EXPECT_TRUE(ft::isQuickLookSupportFile("a.m4v"));
    EXPECT_FALSE(ft::isQuickLookSupportFile("a.mkv"));
}

TEST(FileTypeUtils, IconNamesFollowTheTestOrder) {
    EXPECT_EQ(ft::iconNameForFileName("x.pdf"), "pdf");
    EXPECT_EQ(ft::iconNameForFileName("x.rar"), "zip");
    EXPECT_EQ(ft::iconNameForFileName("x.tar.gz"), "zip");
    EXPECT_EQ(ft::iconNameForFileName("x.jpg"), "photo");
    EXPECT_EQ(ft::iconNameForFileName("x.webm"), "video");
    EXPECT_EQ(ft::iconNameForFileName("x.m3u"), "music");  // playlists are audio before text
    EXPECT_EQ(ft::iconNameForFileName("x.md"), "txt");
    EXPECT_EQ(ft::iconNameForFileName("x.docx"), "word");
    EXPECT_EQ(ft::iconNameForFileName("x.xlsx"), "excel");
    EXPECT_EQ(ft::iconNameForFileName("x.ppsx"), "ppt");
    EXPECT_EQ(ft::iconNameForFileName("x.key"), "keynote");
    EXPECT_EQ(ft::iconNameForFileName("x.numbers"), "numbers");
    EXPECT_EQ(ft::iconNameForFileName("x.pages"), "pages");
    EXPECT_EQ(ft::iconNameForFileName("x.html"), "html");
    EXPECT_EQ(ft::iconNameForFileName("x.epub"), "epub");
    EXPECT_EQ(ft::iconNameForFileName("x.srt"), "unknown");
}

TEST(FileTypeUtils, KindsForListings) {
    EXPECT_EQ(ft::kindForFileName("Photos", true), "Folder");
    EXPECT_EQ(ft::kindForFileName("Plan.pages", true), "Pages document");
    EXPECT_EQ(ft::kindForFileName("x.pdf", false), "PDF document");
    EXPECT_EQ(ft::kindForFileName("x.PNG", false), "Image");
    EXPECT_EQ(ft::kindForFileName("x.mkv", false), "Movie");
    EXPECT_EQ(ft::kindForFileName("x.srt", false), "Subtitle");
    EXPECT_EQ(ft::kindForFileName("x.m3u8", false), "Playlist");
    EXPECT_EQ(ft::kindForFileName("x.flac", false), "Audio");
    EXPECT_EQ(ft::kindForFileName("x.doc", false), "Word document");
    EXPECT_EQ(ft::kindForFileName("x.7z", false), "Archive");
    EXPECT_EQ(ft::kindForFileName("x.xz", false), "Archive");
    EXPECT_EQ(ft::kindForFileName("x.rs", false), "Text");
}

TEST(FileTypeUtils, FilePackagesAreLocalFolders) {
    KvMetadata app("/opt/Tool.app");
    app.isDir = true;
    EXPECT_TRUE(ft::isFilePackage(app));
    KvMetadata pages("/home/u/Plan.pages");
    pages.isDir = true;
    EXPECT_TRUE(ft::isFilePackage(pages));

    KvMetadata remote("/srv/Tool.app");
    remote.isDir = true;
    remote.protocolType = ProtocolType::FTP;
    EXPECT_FALSE(ft::isFilePackage(remote));
    KvMetadata file("/home/u/Plan.pages");
    EXPECT_FALSE(ft::isFilePackage(file));
    KvMetadata folder("/home/u/Projects");
    folder.isDir = true;
    EXPECT_FALSE(ft::isFilePackage(folder));
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
