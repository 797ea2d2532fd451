#include "media/Thumbnails.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vips/vips.h>
#include <zlib.h>

#include <libffmpegthumbnailer/videothumbnailer.h>
#include <poppler/cpp/poppler-document.h>
#include <poppler/cpp/poppler-global.h>
#include <poppler/cpp/poppler-image.h>
#include <poppler/cpp/poppler-page-renderer.h>
#include <poppler/cpp/poppler-page.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/flacfile.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/vorbisfile.h>
#include <taglib/xiphcomment.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "core/FileTypeUtils.h"
#include "core/PathUtils.h"
#include "core/StringUtils.h"
#include "core/ThumbnailSupport.h"

namespace quillon::Thumbnails {

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kSampleLimit = 10485760;  // what the thumbnail read may fetch
constexpr std::uint64_t kSampleChunk = 524288;

Error noThumbnail(std::string reason = "It doesn't have a thumbnail.") {
    return KvError::errorWithDomain(ErrorDomain::Local, ErrorCode::NoThumbnail, reason);
}

void startVips() {
    static std::once_flag once;
    std::call_once(once, [] {
        VIPS_INIT("quillon");
        vips_cache_set_max(0);  // every file is thumbnailed once; keep no decoded images
    });
}

std::string vipsError() {
    std::string e = vips_error_buffer();
    vips_error_clear();
    while (!e.empty() && (e.back() == '\n' || e.back() == ' ')) e.pop_back();
    return e;
}

struct VipsRef {
    VipsImage* image = nullptr;
    ~VipsRef() {
        if (image) g_object_unref(image);
    }
};

Result<std::string> pngOf(VipsImage* image) {
    void* buf = nullptr;
    std::size_t len = 0;
    if (vips_pngsave_buffer(image, &buf, &len, "strip", TRUE, nullptr) != 0)
        return std::unexpected(noThumbnail("The thumbnail cannot be written: " + vipsError()));
    std::string out(static_cast<const char*>(buf), len);
    g_free(buf);
    return out;
}

Result<std::string> renderImageBuffer(const std::string& bytes, int px) {
    startVips();
    VipsRef out;
    // Shrink-on-load; the EXIF orientation is applied by the thumbnail operation itself.
    if (vips_thumbnail_buffer(const_cast<char*>(bytes.data()), bytes.size(), &out.image, px,
                              "height", px, "size", VIPS_SIZE_DOWN, nullptr) != 0)
        return std::unexpected(noThumbnail("The image cannot be decoded: " + vipsError()));
    return pngOf(out.image);
}

Result<std::string> renderImage(const std::string& path, int px) {
    startVips();
    VipsRef out;
    if (vips_thumbnail(path.c_str(), &out.image, px, "height", px, "size", VIPS_SIZE_DOWN,
                       nullptr) != 0)
        return std::unexpected(noThumbnail("The image cannot be decoded: " + vipsError()));
    return pngOf(out.image);
}

// The mean of a PNG's pixels (0 to 255); 0 when it cannot be decoded.
double meanBrightness(const std::vector<std::uint8_t>& png) {
    startVips();
    VipsRef img;
    img.image = vips_image_new_from_buffer(png.data(), png.size(), "", nullptr);
    double mean = 0;
    if (!img.image || vips_avg(img.image, &mean, nullptr) != 0) vips_error_clear();
    return mean;
}

Result<std::string> renderVideo(const std::string& path, int px) {
    try {
        // Smart frame selection prefers a detailed frame among neighbours; a frame that is still
        // black (a fade-in, a dark opening) is passed over by looking further into the video.
        ffmpegthumbnailer::VideoThumbnailer thumbnailer(px, false, true, 8, true);
        thumbnailer.setLogCallback([](ThumbnailerLogLevel, const std::string&) {});
        std::vector<std::uint8_t> png;
        for (int percent : {10, 30, 50, 70}) {
            png.clear();
            thumbnailer.setSeekPercentage(percent);
            thumbnailer.generateThumbnail(path, Png, png);
            if (png.empty() || meanBrightness(png) >= 12) break;
        }
        if (png.empty()) return std::unexpected(noThumbnail("The video has no frame to show."));
        return std::string(png.begin(), png.end());
    } catch (const std::exception& e) {
        return std::unexpected(
            noThumbnail(std::string("The video cannot be decoded: ") + e.what()));
    }
}

std::optional<std::string> coverArt(const std::string& path) {
    auto ext = StringUtils::toLower(StringUtils::pathExtension(path));
    auto bytes = [](const TagLib::ByteVector& v) { return std::string(v.data(), v.size()); };
    if (ext == "flac") {
        TagLib::FLAC::File f(path.c_str(), false);
        if (f.isValid())
            for (auto* p : f.pictureList())
                if (p && !p->data().isEmpty()) return bytes(p->data());
    } else if (ext == "mp3") {
        TagLib::MPEG::File f(path.c_str(), false);
        if (f.isValid() && f.ID3v2Tag())
            for (auto* frame : f.ID3v2Tag()->frameListMap()["APIC"])
                if (auto* pic = dynamic_cast<TagLib::ID3v2::AttachedPictureFrame*>(frame))
                    if (!pic->picture().isEmpty()) return bytes(pic->picture());
    } else if (ext == "m4a" || ext == "mp4" || ext == "aac" || ext == "m4b") {
        TagLib::MP4::File f(path.c_str(), false);
        if (f.isValid() && f.tag() && f.tag()->contains("covr"))
            for (auto& art : f.tag()->item("covr").toCoverArtList())
                if (!art.data().isEmpty()) return bytes(art.data());
    } else if (ext == "ogg" || ext == "oga") {
        TagLib::Ogg::Vorbis::File f(path.c_str(), false);
        if (f.isValid() && f.tag())
            for (auto* p : f.tag()->pictureList())
                if (p && !p->data().isEmpty()) return bytes(p->data());
    }
    return std::nullopt;
}

Result<std::string> renderPdf(const std::string& path, int px) {
    // poppler reports damaged files on standard error; the error returned here says enough.
    static std::once_flag quiet;
    std::call_once(quiet, [] {
        poppler::set_debug_error_function([](const std::string&, void*) {}, nullptr);
    });
    std::unique_ptr<poppler::document> doc(poppler::document::load_from_file(path));
    if (!doc || doc->is_locked() || doc->pages() < 1)
        return std::unexpected(noThumbnail("The PDF cannot be opened."));
    std::unique_ptr<poppler::page> page(doc->create_page(0));
    if (!page) return std::unexpected(noThumbnail("The PDF has no first page."));
    auto rect = page->page_rect();
    double longer = std::max(rect.width(), rect.height());
    if (longer <= 0) return std::unexpected(noThumbnail("The PDF's first page is empty."));
    double dpi = 72.0 * px / longer;
    poppler::page_renderer renderer;
    renderer.set_render_hint(poppler::page_renderer::antialiasing, true);
    renderer.set_render_hint(poppler::page_renderer::text_antialiasing, true);
    renderer.set_image_format(poppler::image::format_argb32);
    poppler::image img = renderer.render_page(page.get(), dpi, dpi);
    if (!img.is_valid()) return std::unexpected(noThumbnail("The PDF page cannot be drawn."));
    int w = img.width(), h = img.height();
    // Cairo's ARGB32 is B, G, R, A in memory on this byte order; vips wants R, G, B, A.
    std::vector<std::uint8_t> rgba(static_cast<std::size_t>(w) * h * 4);
    for (int y = 0; y < h; ++y) {
        auto* row = reinterpret_cast<const std::uint8_t*>(img.const_data()) +
                    static_cast<std::size_t>(y) * img.bytes_per_row();
        for (int x = 0; x < w; ++x) {
            auto* o = &rgba[(static_cast<std::size_t>(y) * w + x) * 4];
            o[0] = row[x * 4 + 2], o[1] = row[x * 4 + 1], o[2] = row[x * 4], o[3] = row[x * 4 + 3];
        }
    }
    startVips();
    VipsRef mem;
    mem.image = vips_image_new_from_memory(rgba.data(), rgba.size(), w, h, 4, VIPS_FORMAT_UCHAR);
    if (!mem.image) return std::unexpected(noThumbnail("The PDF page cannot be drawn."));
    mem.image->Type = VIPS_INTERPRETATION_sRGB;
    return pngOf(mem.image);
}

// The PNG without its text chunks (a generator may have written keys of its own).
std::string withoutText(const std::string& png) {
    std::string out = png.substr(0, 8);
    std::size_t at = 8;
    while (at + 12 <= png.size()) {
        std::uint32_t len = 0;
        for (int i = 0; i < 4; ++i) len = (len << 8) | static_cast<unsigned char>(png[at + i]);
        if (at + 12 + len > png.size()) return png;
        std::string type = png.substr(at + 4, 4);
        if (type != "tEXt" && type != "zTXt" && type != "iTXt") out += png.substr(at, 12 + len);
        at += 12 + len;
    }
    return out;
}

// Adds tEXt chunks right after IHDR (the first chunk, 25 bytes after the 8-byte signature).
std::string withKeys(const std::string& original, const std::map<std::string, std::string>& keys) {
    std::string png = withoutText(original);
    if (png.size() < 33) return png;
    std::string chunks;
    for (auto& [k, v] : keys) {
        std::string body = "tEXt" + k + '\0' + v;
        auto len = static_cast<std::uint32_t>(body.size() - 4);
        auto crc = static_cast<std::uint32_t>(::crc32(
            0, reinterpret_cast<const Bytef*>(body.data()), static_cast<uInt>(body.size())));
        for (int s = 24; s >= 0; s -= 8) chunks += static_cast<char>((len >> s) & 0xFF);
        chunks += body;
        for (int s = 24; s >= 0; s -= 8) chunks += static_cast<char>((crc >> s) & 0xFF);
    }
    return png.substr(0, 33) + chunks + png.substr(33);
}

// The tEXt keys of a PNG.
std::map<std::string, std::string> keysOf(const std::string& png) {
    std::map<std::string, std::string> keys;
    std::size_t at = 8;
    while (at + 12 <= png.size()) {
        std::uint32_t len = 0;
        for (int i = 0; i < 4; ++i) len = (len << 8) | static_cast<unsigned char>(png[at + i]);
        if (at + 12 + len > png.size()) break;
        std::string type = png.substr(at + 4, 4);
        if (type == "tEXt") {
            std::string body = png.substr(at + 8, len);
            auto nul = body.find('\0');
            if (nul != std::string::npos) keys[body.substr(0, nul)] = body.substr(nul + 1);
        }
        if (type == "IDAT" || type == "IEND") break;
        at += 12 + len;
    }
    return keys;
}

std::string readSmallFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Writes beside the target and renames, so a reader never sees half a thumbnail.
Status writeAtomically(const std::string& path, const std::string& bytes) {
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    fs::permissions(fs::path(path).parent_path().parent_path(), fs::perms::owner_all,
                    fs::perm_options::replace, ec);
    fs::permissions(fs::path(path).parent_path(), fs::perms::owner_all, fs::perm_options::replace,
                    ec);
    std::string tmp = path + fmt::format(".{}.tmp", ::getpid());
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return std::unexpected(noThumbnail("The thumbnail cache cannot be written."));
    bool ok = ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    ok = ::close(fd) == 0 && ok;
    if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
        ::unlink(tmp.c_str());
        return std::unexpected(noThumbnail("The thumbnail cache cannot be written."));
    }
    return {};
}

// A 1x1 transparent PNG for failure entries.
std::string emptyPng() {
    startVips();
    VipsRef black;
    vips_black(&black.image, 1, 1, "bands", 4, nullptr);
    if (!black.image) return {};
    black.image->Type = VIPS_INTERPRETATION_sRGB;
    return pngOf(black.image).value_or("");
}

std::optional<std::int64_t> mtimeOfLocal(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    return static_cast<std::int64_t>(st.st_mtime);
}

// Cache lookup, generation and the failure entry around one rendering.
Result<std::string> cached(const std::string& uri, std::int64_t mtime, Size size,
                           const std::function<Result<std::string>(int)>& render) {
    std::string target = cachePathForURI(uri, size);
    std::string mtimeText = std::to_string(mtime);
    if (auto keys = keysOf(readSmallFile(target));
        keys["Thumb::URI"] == uri && keys["Thumb::MTime"] == mtimeText)
        return target;
    std::string failed = failPathForURI(uri);
    if (auto keys = keysOf(readSmallFile(failed));
        keys["Thumb::URI"] == uri && keys["Thumb::MTime"] == mtimeText)
        return std::unexpected(noThumbnail("The file could not be thumbnailed before."));
    auto png = render(pixels(size));
    std::map<std::string, std::string> keys{
        {"Thumb::URI", uri}, {"Thumb::MTime", mtimeText}, {"Software", "Quillon"}};
    if (!png) {
        (void)writeAtomically(failed, withKeys(emptyPng(), keys));
        return std::unexpected(png.error());
    }
    if (auto w = writeAtomically(target, withKeys(*png, keys)); !w)
        return std::unexpected(w.error());
    return target;
}

std::string percentEscapePath(std::string_view path) {
    static constexpr std::string_view safe = "!$&'()*+,-./:=@_~";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || safe.find(static_cast<char>(c)) != std::string_view::npos)
            out += static_cast<char>(c);
        else
            out += fmt::format("%{:02X}", c);
    }
    return out;
}

}  // namespace

int pixels(Size size) {
    switch (size) {
        case Size::Large:
            return 256;
        case Size::XLarge:
            return 512;
        case Size::XXLarge:
            return 1024;
        default:
            return 128;
    }
}

std::string_view folderName(Size size) {
    switch (size) {
        case Size::Large:
            return "large";
        case Size::XLarge:
            return "x-large";
        case Size::XXLarge:
            return "xx-large";
        default:
            return "normal";
    }
}

std::optional<Size> sizeForName(std::string_view name) {
    for (auto s : {Size::Normal, Size::Large, Size::XLarge, Size::XXLarge})
        if (folderName(s) == name) return s;
    return std::nullopt;
}

std::string cacheRoot() {
    if (const char* home = std::getenv("QUILLON_HOME"); home && *home)
        return std::string(home) + "/cache/thumbnails";
    if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg)
        return std::string(xdg) + "/thumbnails";
    return PathUtils::getHomeFolderPath() + "/.cache/thumbnails";
}

std::string uriForLocalPath(const std::string& absolutePath) {
    return "file://" + percentEscapePath(absolutePath);
}

std::string uriForItem(const ServerInfo& server, const KvMetadata& item) {
    auto path = item.path().value_or("/");
    if (server.protocolType == ProtocolType::Local) return uriForLocalPath(path);
    std::string scheme = server.protocolType == ProtocolType::FTP ? "ftp" : "quillon";
    std::string user = server.valueForKey(ServerProp::USERNAME).value_or("");
    std::string host = server.valueForKey(ServerProp::ADDR).value_or(server.serverID);
    std::string port = server.valueForKey(ServerProp::PORT).value_or("");
    return fmt::format("{}://{}{}{}{}{}", scheme, user.empty() ? "" : percentEscapePath(user),
                       user.empty() ? "" : "@", host, port.empty() ? "" : ":" + port,
                       percentEscapePath(path.starts_with("/") ? path : "/" + path));
}

std::string md5Hex(std::string_view text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    EVP_Digest(text.data(), text.size(), digest, &len, EVP_md5(), nullptr);
    std::string out;
    for (unsigned i = 0; i < len; ++i) out += fmt::format("{:02x}", digest[i]);
    return out;
}

std::string cachePathForURI(const std::string& uri, Size size) {
    return fmt::format("{}/{}/{}.png", cacheRoot(), folderName(size), md5Hex(uri));
}

std::string failPathForURI(const std::string& uri) {
    return fmt::format("{}/fail/quillon/{}.png", cacheRoot(), md5Hex(uri));
}

bool isThumbnailable(std::string_view name) {
    return FileTypeUtils::isImage(name) || FileTypeUtils::isMovie(name) ||
           FileTypeUtils::isPDF(name) ||
           (FileTypeUtils::isAudio(name) && !FileTypeUtils::isAudioPlaylist(name));
}

Result<std::string> renderLocalFile(const std::string& path, int px) {
    auto name = StringUtils::lastPathComponent(path);
    if (FileTypeUtils::isPDF(name)) return renderPdf(path, px);
    if (FileTypeUtils::isMovie(name)) return renderVideo(path, px);
    if (FileTypeUtils::isImage(name)) return renderImage(path, px);
    if (FileTypeUtils::isAudio(name) && !FileTypeUtils::isAudioPlaylist(name)) {
        auto art = coverArt(path);
        if (!art) return std::unexpected(noThumbnail("The audio file has no cover art."));
        return renderImageBuffer(*art, px);
    }
    return std::unexpected(noThumbnail());
}

Result<std::string> thumbnailForLocalFile(const std::string& path, Size size) {
    auto mtime = mtimeOfLocal(path);
    if (!mtime)
        return std::unexpected(KvError::errorWithDomain(ErrorDomain::Local, ErrorCode::NotFound,
                                                        "File not found!", ErrorKind::NotFound));
    if (!isThumbnailable(StringUtils::lastPathComponent(path)))
        return std::unexpected(noThumbnail());
    std::string absolute = fs::absolute(path).lexically_normal().string();
    return cached(uriForLocalPath(absolute), *mtime, size,
                  [&](int px) { return renderLocalFile(absolute, px); });
}

Result<std::string> thumbnailForItem(Wrapper& client, const KvMetadata& item, Size size) {
    const auto& server = client.serverInfo();
    if (!server || server->protocolType == ProtocolType::Local)
        return thumbnailForLocalFile(item.path().value_or(""), size);
    if (item.isDir) return std::unexpected(noThumbnail("Folder has no thumbnail."));
    auto name = item.name().value_or("");
    if (!isThumbnailable(name)) return std::unexpected(noThumbnail());
    std::int64_t mtime =
        item.timestamp
            ? std::chrono::duration_cast<std::chrono::seconds>(item.timestamp->time_since_epoch())
                  .count()
            : 0;
    return cached(uriForItem(*server, item), mtime, size, [&](int px) -> Result<std::string> {
        // A sample of the file in the temporary folder, under its own extension.
        std::string sample =
            fmt::format("{}/thumb-{}-{}.{}", PathUtils::getAppTempPath(), ::getpid(),
                        md5Hex(uriForItem(*server, item)), StringUtils::pathExtension(name));
        struct Remove {
            std::string p;
            ~Remove() { ::unlink(p.c_str()); }
        } remove{sample};
        if (client.capabilities().streaming) {
            client.setIsServiceForThumbnail(true);
            if (auto opened = client.initStreamFileMeta(item); !opened)
                return std::unexpected(opened.error());
            std::uint64_t total = std::min<std::uint64_t>(
                client.contentLength() ? client.contentLength() : kSampleLimit, kSampleLimit);
            std::string bytes;
            client.setOffset(0);
            while (bytes.size() < total) {
                auto got = client.readDataOfLength(std::min(kSampleChunk, total - bytes.size()));
                if (!got) return std::unexpected(got.error());
                if (got->empty()) break;
                bytes.append(got->begin(), got->end());
            }
            std::ofstream(sample, std::ios::binary)
                .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        } else if (auto got = client.downloadSync(item, sample, nullptr); !got) {
            return std::unexpected(got.error());
        }
        return renderLocalFile(sample, px);
    });
}

void installThumbnails() {
    static std::once_flag once;
    std::call_once(once, [] {
        ThumbnailSupport::install(
            [](Wrapper& client, const KvMetadata& item) -> Status {
                // A local file of a kind without thumbnails simply has none.
                bool local = !client.serverInfo() ||
                             client.serverInfo()->protocolType == ProtocolType::Local;
                if (local && !isThumbnailable(item.name().value_or(""))) return {};
                auto made = thumbnailForItem(client, item, Size::Normal);
                if (!made) return std::unexpected(made.error());
                return {};
            },
            [](const std::string& path) { return thumbnailForLocalFile(path, Size::Normal); });
    });
}

}  // namespace quillon::Thumbnails
