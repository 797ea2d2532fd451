#include "core/FileTypeUtils.h"

#include <initializer_list>
#include <unordered_map>

#include "core/KvMetadata.h"
#include "core/ServerInfo.h"
#include "core/StringUtils.h"

namespace quillon::FileTypeUtils {

namespace {

// The program's own declared type: the extensions it supports beyond the system's types.
constexpr const char* kOwnTypeIdentifier = "io.quillon.supported-file";

struct TypeTable {
    std::unordered_map<std::string, std::string> utiByExtension;
    std::unordered_map<std::string, std::vector<std::string>> parents;
};

const TypeTable& table() {
    static const TypeTable t = [] {
        TypeTable t;
        auto ext = [&t](std::initializer_list<const char*> exts, const char* uti) {
            for (auto* e : exts) t.utiByExtension.emplace(e, uti);
        };
        auto is = [&t](const char* uti, std::initializer_list<const char*> parents) {
            auto& p = t.parents[uti];
            p.insert(p.end(), parents.begin(), parents.end());
        };

        // Roots of the hierarchy.
        is("public.data", {"public.item"});
        is("public.directory", {"public.item"});
        is("public.content", {});
        is("public.composite-content", {"public.content"});
        is("public.archive", {"public.data"});
        is("com.apple.package", {"public.directory"});
        is("com.apple.bundle", {"public.directory"});
        is("com.apple.application-bundle", {"com.apple.bundle", "com.apple.package"});

        // Text and source code.
        is("public.text", {"public.data", "public.content"});
        is("public.plain-text", {"public.text"});
        is("public.utf8-plain-text", {"public.plain-text"});
        is("public.source-code", {"public.plain-text"});
        is("public.script", {"public.source-code"});
        is("public.xml", {"public.text"});
        is("public.json", {"public.text"});
        is("public.yaml", {"public.text"});
        is("public.rtf", {"public.text"});
        is("public.delimited-values-text", {"public.text"});
        is("public.comma-separated-values-text", {"public.delimited-values-text"});
        is("public.tab-separated-values-text", {"public.delimited-values-text"});
        is("public.html", {"public.text"});
        is("com.apple.webarchive", {"public.data", "public.composite-content"});
        is("public.css", {"public.text"});
        is("net.daringfireball.markdown", {"public.plain-text"});
        is("public.log", {"public.plain-text"});
        ext({"txt", "text"}, "public.plain-text");
        ext({"log"}, "public.log");
        ext({"md", "markdown"}, "net.daringfireball.markdown");
        ext({"xml", "dtd", "plist", "xsd", "xsl"}, "public.xml");
        ext({"json"}, "public.json");
        ext({"yaml", "yml"}, "public.yaml");
        ext({"rtf"}, "public.rtf");
        ext({"csv"}, "public.comma-separated-values-text");
        ext({"tsv", "tab"}, "public.tab-separated-values-text");
        ext({"html", "htm", "shtml", "xhtml"}, "public.html");
        ext({"webarchive"}, "com.apple.webarchive");
        ext({"css"}, "public.css");
        for (auto* src : {"public.c-source", "public.c-header", "public.c-plus-plus-source",
                          "public.c-plus-plus-header", "public.objective-c-source",
                          "public.objective-c-plus-plus-source", "public.swift-source",
                          "com.sun.java-source", "public.assembly-source", "public.make-source",
                          "public.sql", "com.microsoft.c-sharp-source", "org.rust-lang.source",
                          "org.golang.source", "org.kotlinlang.source"})
            is(src, {"public.source-code"});
        for (auto* script : {"public.python-script", "public.ruby-script", "public.perl-script",
                             "public.shell-script", "public.php-script",
                             "com.netscape.javascript-source", "public.lua-script"})
            is(script, {"public.script"});
        ext({"c"}, "public.c-source");
        ext({"h"}, "public.c-header");
        ext({"cpp", "cc", "cxx", "c++", "cp"}, "public.c-plus-plus-source");
        ext({"hpp", "hh", "hxx", "h++"}, "public.c-plus-plus-header");
        ext({"m"}, "public.objective-c-source");
        ext({"mm"}, "public.objective-c-plus-plus-source");
        ext({"swift"}, "public.swift-source");
        ext({"java"}, "com.sun.java-source");
        ext({"s", "asm"}, "public.assembly-source");
        ext({"mk", "mak"}, "public.make-source");
        ext({"sql"}, "public.sql");
        ext({"cs"}, "com.microsoft.c-sharp-source");
        ext({"rs"}, "org.rust-lang.source");
        ext({"go"}, "org.golang.source");
        ext({"kt", "kts"}, "org.kotlinlang.source");
        ext({"py", "pyw"}, "public.python-script");
        ext({"rb"}, "public.ruby-script");
        ext({"pl", "pm"}, "public.perl-script");
        ext({"sh", "bash", "zsh", "csh", "ksh", "command"}, "public.shell-script");
        ext({"php"}, "public.php-script");
        ext({"js", "mjs", "jsx"}, "com.netscape.javascript-source");
        ext({"lua"}, "public.lua-script");

        // Images.
        is("public.image", {"public.data", "public.content"});
        for (auto* img :
             {"public.jpeg", "public.png", "com.compuserve.gif", "com.microsoft.bmp", "public.tiff",
              "public.heic", "public.heif", "org.webmproject.webp", "com.microsoft.ico",
              "com.apple.icns", "public.svg-image", "com.adobe.photoshop-image", "public.jpeg-2000",
              "public.avif", "com.truevision.tga-image", "public.camera-raw-image"})
            is(img, {"public.image"});
        for (auto* raw : {"com.canon.cr2-raw-image", "com.canon.cr3-raw-image",
                          "com.nikon.raw-image", "com.sony.arw-raw-image", "com.adobe.raw-image",
                          "com.fuji.raw-image", "com.olympus.raw-image", "com.panasonic.raw-image"})
            is(raw, {"public.camera-raw-image"});
        ext({"jpg", "jpeg", "jpe", "jfif"}, "public.jpeg");
        ext({"png"}, "public.png");
        ext({"gif"}, "com.compuserve.gif");
        ext({"bmp", "dib"}, "com.microsoft.bmp");
        ext({"tif", "tiff"}, "public.tiff");
        ext({"heic"}, "public.heic");
        ext({"heif"}, "public.heif");
        ext({"webp"}, "org.webmproject.webp");
        ext({"ico"}, "com.microsoft.ico");
        ext({"icns"}, "com.apple.icns");
        ext({"svg"}, "public.svg-image");
        ext({"psd"}, "com.adobe.photoshop-image");
        ext({"jp2", "j2k"}, "public.jpeg-2000");
        ext({"avif"}, "public.avif");
        ext({"tga"}, "com.truevision.tga-image");
        ext({"cr2"}, "com.canon.cr2-raw-image");
        ext({"cr3"}, "com.canon.cr3-raw-image");
        ext({"nef"}, "com.nikon.raw-image");
        ext({"arw"}, "com.sony.arw-raw-image");
        ext({"dng"}, "com.adobe.raw-image");
        ext({"raf"}, "com.fuji.raw-image");
        ext({"orf"}, "com.olympus.raw-image");
        ext({"rw2"}, "com.panasonic.raw-image");

        // Movies.
        is("public.audiovisual-content", {"public.data", "public.content"});
        is("public.movie", {"public.audiovisual-content"});
        is("public.video", {"public.movie"});
        for (auto* mov :
             {"com.apple.quicktime-movie", "public.mpeg-4", "com.apple.m4v-video", "public.3gpp",
              "public.3gpp2", "public.mpeg", "public.avi", "org.matroska.mkv",
              "org.webmproject.webm", "com.microsoft.windows-media-wmv", "com.adobe.flash.video",
              "public.mpeg-2-transport-stream", "public.dv-movie", "org.xiph.ogv",
              "com.real.realmedia"})
            is(mov, {"public.movie"});
        ext({"mov", "qt"}, "com.apple.quicktime-movie");
        ext({"mp4"}, "public.mpeg-4");
        ext({"m4v"}, "com.apple.m4v-video");
        ext({"3gp", "3gpp"}, "public.3gpp");
        ext({"3g2"}, "public.3gpp2");
        ext({"mpg", "mpeg", "mpv", "m1v", "vob"}, "public.mpeg");
        ext({"avi"}, "public.avi");
        ext({"mkv"}, "org.matroska.mkv");
        ext({"webm"}, "org.webmproject.webm");
        ext({"wmv"}, "com.microsoft.windows-media-wmv");
        ext({"flv", "f4v"}, "com.adobe.flash.video");
        ext({"ts", "mts", "m2ts"}, "public.mpeg-2-transport-stream");
        ext({"dv"}, "public.dv-movie");
        ext({"ogv"}, "org.xiph.ogv");
        ext({"rm", "rmvb"}, "com.real.realmedia");

        // Audio.
        is("public.audio", {"public.audiovisual-content"});
        for (auto* aud : {"public.mp3", "com.apple.m4a-audio", "public.aac-audio",
                          "com.microsoft.waveform-audio", "public.aiff-audio", "org.xiph.flac",
                          "org.xiph.ogg-audio", "org.xiph.opus", "com.microsoft.windows-media-wma",
                          "public.midi-audio", "com.apple.coreaudio-format",
                          "org.3gpp.adaptive-multi-rate-audio", "public.ac3-audio",
                          "com.monkeysaudio.ape", "com.sony.dsf-audio", "public.dts-audio"})
            is(aud, {"public.audio"});
        is("public.playlist", {"public.data"});
        is("public.m3u-playlist", {"public.playlist", "public.plain-text"});
        is("com.goldenhawk.cue-sheet", {"public.plain-text"});
        ext({"mp3"}, "public.mp3");
        ext({"m4a", "m4b"}, "com.apple.m4a-audio");
        ext({"aac"}, "public.aac-audio");
        ext({"wav", "wave"}, "com.microsoft.waveform-audio");
        ext({"aif", "aiff", "aifc"}, "public.aiff-audio");
        ext({"flac"}, "org.xiph.flac");
        ext({"ogg", "oga"}, "org.xiph.ogg-audio");
        ext({"opus"}, "org.xiph.opus");
        ext({"wma"}, "com.microsoft.windows-media-wma");
        ext({"mid", "midi"}, "public.midi-audio");
        ext({"caf"}, "com.apple.coreaudio-format");
        ext({"amr"}, "org.3gpp.adaptive-multi-rate-audio");
        ext({"ac3", "a52"}, "public.ac3-audio");
        ext({"ape"}, "com.monkeysaudio.ape");
        ext({"dsf"}, "com.sony.dsf-audio");
        ext({"dts"}, "public.dts-audio");
        ext({"m3u", "m3u8"}, "public.m3u-playlist");
        ext({"cue"}, "com.goldenhawk.cue-sheet");

        // Documents.
        is("com.adobe.pdf", {"public.data", "public.composite-content"});
        is("org.idpf.epub-container", {"public.data", "public.composite-content"});
        for (auto* doc :
             {"com.microsoft.word.doc", "org.openxmlformats.wordprocessingml.document",
              "com.microsoft.excel.xls", "org.openxmlformats.spreadsheetml.sheet",
              "com.microsoft.powerpoint.ppt", "org.openxmlformats.presentationml.presentation",
              "org.openxmlformats.presentationml.slideshow", "com.apple.iwork.pages.sffpages",
              "com.apple.iwork.keynote.key", "com.apple.iwork.numbers.sffnumbers",
              "org.oasis-open.opendocument.text", "org.oasis-open.opendocument.spreadsheet",
              "org.oasis-open.opendocument.presentation"})
            is(doc, {"public.data", "public.composite-content"});
        ext({"pdf"}, "com.adobe.pdf");
        ext({"epub"}, "org.idpf.epub-container");
        ext({"doc"}, "com.microsoft.word.doc");
        ext({"docx"}, "org.openxmlformats.wordprocessingml.document");
        ext({"xls"}, "com.microsoft.excel.xls");
        ext({"xlsx"}, "org.openxmlformats.spreadsheetml.sheet");
        ext({"ppt"}, "com.microsoft.powerpoint.ppt");
        ext({"pptx"}, "org.openxmlformats.presentationml.presentation");
        ext({"ppsx"}, "org.openxmlformats.presentationml.slideshow");
        ext({"pages"}, "com.apple.iwork.pages.sffpages");
        ext({"key", "keynote"}, "com.apple.iwork.keynote.key");
        ext({"numbers"}, "com.apple.iwork.numbers.sffnumbers");
        ext({"odt"}, "org.oasis-open.opendocument.text");
        ext({"ods"}, "org.oasis-open.opendocument.spreadsheet");
        ext({"odp"}, "org.oasis-open.opendocument.presentation");

        // Archives.
        for (auto* arc : {"public.zip-archive", "org.gnu.gnu-zip-archive", "public.tar-archive",
                          "org.gnu.gnu-zip-tar-archive", "public.bzip2-archive",
                          "org.7-zip.7-zip-archive", "com.rarlab.rar-archive",
                          "com.sun.java-archive", "com.microsoft.cab", "org.tukaani.xz-archive"})
            is(arc, {"public.archive"});
        ext({"zip", "cbz"}, "public.zip-archive");
        ext({"gz", "gzip"}, "org.gnu.gnu-zip-archive");
        ext({"tar"}, "public.tar-archive");
        ext({"tgz"}, "org.gnu.gnu-zip-tar-archive");
        ext({"bz2", "bzip2", "tbz", "tbz2"}, "public.bzip2-archive");
        ext({"7z"}, "org.7-zip.7-zip-archive");
        ext({"rar", "cbr"}, "com.rarlab.rar-archive");
        ext({"jar"}, "com.sun.java-archive");
        ext({"cab"}, "com.microsoft.cab");
        ext({"xz", "txz"}, "org.tukaani.xz-archive");

        // Bundles the desktop shows as single items.
        ext({"app"}, "com.apple.application-bundle");
        ext({"bundle", "framework", "plugin", "kext"}, "com.apple.bundle");
        return t;
    }();
    return t;
}

std::string lowerExt(std::string_view name) {
    return StringUtils::toLower(StringUtils::pathExtension(name));
}

bool extIn(std::string_view name, std::initializer_list<std::string_view> exts) {
    std::string e = lowerExt(name);
    if (e.empty()) return false;
    for (auto x : exts)
        if (e == x) return true;
    return false;
}

bool nameEndsWith(std::string_view name, std::initializer_list<std::string_view> suffixes) {
    std::string lower = StringUtils::toLower(name);
    for (auto s : suffixes)
        if (lower.ends_with(s)) return true;
    return false;
}

bool utiConformsTo(const std::string& uti, std::string_view target, int depth = 0) {
    if (uti == target) return true;
    // The hierarchy is shallow; the bound only guards against a cycle slipping into the table.
    if (depth > 16) return false;
    auto& parents = table().parents;
    auto it = parents.find(uti);
    if (it == parents.end()) return false;
    for (auto& p : it->second)
        if (utiConformsTo(p, target, depth + 1)) return true;
    return false;
}

}  // namespace

std::optional<std::string> getUTIString(std::string_view name) {
    std::string e = lowerExt(name);
    if (e.empty()) return std::nullopt;
    auto& m = table().utiByExtension;
    auto it = m.find(e);
    if (it == m.end()) return std::nullopt;
    return it->second;
}

std::vector<std::string> supportedUTIs() {
    return {"public.text",     "public.composite-content",
            "public.archive",  "public.content",
            "public.item",     "public.video",
            "public.movie",    "public.image",
            "com.adobe.pdf",   "public.audio",
            kOwnTypeIdentifier};
}

bool conformsTo(std::string_view name, std::string_view uti) {
    auto own = getUTIString(name);
    return own && utiConformsTo(*own, uti);
}

bool isSupportedFile(std::string_view name) {
    return isPDF(name) || isImage(name) || isMovie(name) || isFFMpegSupportMovie(name) ||
           isFFMpegSupportAudio(name) || isAudio(name) || isText(name) || isWord(name) ||
           isExcel(name) || isPPT(name) || isKeynote(name) || isNumbers(name) || isPages(name) ||
           isTextForWebView(name) || isHTML(name) || isEpub(name);
}

bool isSupportedArchiveFile(std::string_view name) {
    return extIn(name, {"zip", "cab", "jar", "cbz", "chm", "rar", "cbr", "tar", "7z", "gz", "tgz",
                        "gzip", "tbz", "bz2", "tbz2", "bzip2"});
}

bool isImage(std::string_view name) {
    if (extIn(name, {"jpg", "jpeg", "png", "gif"})) return true;
    // Photoshop files and some video containers claim to be images but cannot be shown as such.
    if (extIn(name, {"psd", "mkv", "avi"})) return false;
    return conformsTo(name, "public.image");
}

bool isMovie(std::string_view name) {
    if (extIn(name, {"srt", "ass", "sub"})) return false;
    return conformsTo(name, "public.movie") || isFFMpegSupportMovie(name);
}

bool isFFMpegSupportAudio(std::string_view name) {
    return extIn(name,
                 {"dts", "flac", "wma", "ape", "aac", "ac3", "ogg", "wav", "opus", "a52", "dsf"});
}

bool isFFMpegSupportMovie(std::string_view name) {
    return extIn(name,
                 {"avi", "mkv", "rmvb", "rm", "flv", "wmv", "mpg",  "vob",  "ts",  "mts", "m2ts",
                  "mod", "nfb", "mp2",  "dv", "swf", "asf", "divx", "xvid", "wtv", "ogv", "webm"});
}

bool isMacSupportedMovie(std::string_view name) {
    return extIn(name, {"mov", "mp4", "3gp", "mpv", "m4v"});
}

bool isMacSupportedAudio(std::string_view name) {
    return extIn(name, {"m4a", "mp3"});
}

bool isAudio(std::string_view name) {
    if (extIn(name, {"mid", "midi"})) return false;
    if (isAudioPlaylist(name)) return true;
    return isFFMpegSupportAudio(name) || conformsTo(name, "public.audio");
}

bool isAudioPlaylist(std::string_view name) {
    return extIn(name, {"cue", "m3u", "m3u8"});
}

bool isHTML(std::string_view name) {
    return conformsTo(name, "public.html") || conformsTo(name, "com.apple.webarchive");
}

bool isText(std::string_view name) {
    if (extIn(name, {"json", "css", "asp", "aspx", "vbs", "xml", "dtd", "ini", "markdown", "md",
                     "log", "cfg", "rs", "go"}))
        return true;
    return conformsTo(name, "public.plain-text") || conformsTo(name, "public.utf8-plain-text") ||
           conformsTo(name, "public.source-code");
}

bool isTextForWebView(std::string_view name) {
    // Text the web view renders itself rather than showing its source.
    return extIn(name, {"html", "htm", "shtml", "xhtml", "svg", "xml", "webarchive"});
}

bool isEpub(std::string_view name) {
    return extIn(name, {"epub"});
}

bool isPDF(std::string_view name) {
    return extIn(name, {"pdf"});
}

bool isWord(std::string_view name) {
    return extIn(name, {"doc", "docx"});
}

bool isExcel(std::string_view name) {
    return extIn(name, {"xls", "xlsx", "csv"});
}

bool isPPT(std::string_view name) {
    return extIn(name, {"ppt", "pptx", "ppsx"});
}

bool isKeynote(std::string_view name) {
    return nameEndsWith(name, {".key", ".keynote", ".key.zip", ".keynote.zip"});
}

bool isNumbers(std::string_view name) {
    return nameEndsWith(name, {".numbers", ".numbers.zip"});
}

bool isPages(std::string_view name) {
    return nameEndsWith(name, {".pages", ".pages.zip"});
}

bool isIWork(std::string_view name) {
    return isPages(name) || isKeynote(name) || isNumbers(name);
}

bool isDocument(std::string_view name) {
    return isWord(name) || isExcel(name) || isPPT(name) || isKeynote(name) || isNumbers(name) ||
           isPages(name);
}

bool isExternalSubtitle(std::string_view name) {
    return extIn(name, {"ass", "ssa", "srt", "sub"});
}

bool hasArtworkPossible(std::string_view name) {
    return extIn(name, {"mp3", "m4a", "wma", "asf", "flac"});
}

bool isFilePackage(const KvMetadata& meta) {
    if (meta.protocolType != ProtocolType::Local || !meta.isDir) return false;
    std::string name = meta.nameIgnoreLinkResolve().value_or(meta.pathOrEmpty());
    if (isIWork(name)) return true;
    return extIn(name, {"app", "bundle", "framework", "plugin", "kext", "rtfd", "xcodeproj",
                        "photoslibrary", "playground"});
}

bool isQuickLookSupportFile(std::string_view name) {
    return isPDF(name) || isImage(name) || isMacSupportedMovie(name) || isMacSupportedAudio(name) ||
           isIWork(name) || isText(name) || isHTML(name) || isWord(name) || isPPT(name) ||
           isExcel(name) || isEpub(name);
}

std::string iconNameForFileName(std::string_view name) {
    if (isPDF(name)) return "pdf";
    if (isImage(name)) return "photo";
    if (isMovie(name)) return "video";
    if (isAudio(name)) return "music";
    if (isText(name)) return "txt";
    if (isWord(name)) return "word";
    if (isExcel(name)) return "excel";
    if (isPPT(name)) return "ppt";
    if (isKeynote(name)) return "keynote";
    if (isNumbers(name)) return "numbers";
    if (isPages(name)) return "pages";
    if (isSupportedArchiveFile(name)) return "zip";
    if (isHTML(name)) return "html";
    if (isEpub(name)) return "epub";
    return "unknown";
}

std::string kindForFileName(std::string_view name, bool isDir) {
    if (isDir) {
        if (isPages(name)) return "Pages document";
        if (isKeynote(name)) return "Keynote presentation";
        if (isNumbers(name)) return "Numbers spreadsheet";
        if (extIn(name, {"app"})) return "Application";
        return "Folder";
    }
    if (isPDF(name)) return "PDF document";
    if (isImage(name)) return "Image";
    if (isExternalSubtitle(name)) return "Subtitle";
    if (isMovie(name)) return "Movie";
    if (isAudioPlaylist(name)) return "Playlist";
    if (isAudio(name)) return "Audio";
    if (isHTML(name)) return "HTML document";
    if (isWord(name)) return "Word document";
    if (isExcel(name)) return "Spreadsheet";
    if (isPPT(name)) return "Presentation";
    if (isPages(name)) return "Pages document";
    if (isKeynote(name)) return "Keynote presentation";
    if (isNumbers(name)) return "Numbers spreadsheet";
    if (isEpub(name)) return "EPUB book";
    if (isSupportedArchiveFile(name) || conformsTo(name, "public.archive")) return "Archive";
    if (isText(name)) return "Text";
    return "Document";
}

}  // namespace quillon::FileTypeUtils
