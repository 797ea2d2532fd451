#include "media/Thumbnails.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "clients/Clients.h"
#include "core/KvConnectionPool.h"
#include "core/WrapperProxy.h"
#include "media/MediaKit.h"
#include "servers/FtpServerFixture.h"

namespace quillon::test {
namespace {

namespace fs = std::filesystem;

// What ImageMagick sees in a PNG: its size, mean brightness (0 to 1) and text keys.
struct PngFacts {
    int width = 0, height = 0;
    double mean = -1;
    std::string uri, mtime;
};
PngFacts identify(const std::string& path) {
    auto r = runProgram(
        {"identify", "-format", "%w %h %[fx:mean]\n%[Thumb::URI]\n%[Thumb::MTime]\n", path});
    PngFacts f;
    auto ls = lines(r.out);
    if (r.exitCode != 0 || ls.size() < 3) {
        ADD_FAILURE() << "identify " << path << ": " << r.err;
        return f;
    }
    std::sscanf(ls[0].c_str(), "%d %d %lf", &f.width, &f.height, &f.mean);
    f.uri = ls[1];
    f.mtime = ls[2];
    return f;
}

std::string md5sum(const std::string& text) {
    return runProgram({"md5sum"}, text).out.substr(0, 32);
}

// A one-page PDF, 200 x 400 points, most of it a black rectangle.
std::string pdfBytes() {
    std::vector<std::string> objects{
        "<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
        "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 200 400] /Contents 4 0 R >>",
        "<< /Length 23 >>\nstream\n0 g 10 10 180 380 re f\nendstream"};
    std::string out = "%PDF-1.4\n";
    std::vector<std::size_t> offsets;
    for (std::size_t i = 0; i < objects.size(); ++i) {
        offsets.push_back(out.size());
        out += std::to_string(i + 1) + " 0 obj\n" + objects[i] + "\nendobj\n";
    }
    std::size_t xref = out.size();
    out += "xref\n0 5\n0000000000 65535 f \n";
    for (auto o : offsets) out += fmt::format("{:010} 00000 n \n", o);
    out += "trailer\n<< /Size 5 /Root 1 0 R >>\nstartxref\n" + std::to_string(xref) + "\n%%EOF\n";
    return out;
}

class ThumbnailTest : public ::testing::Test {
  protected:
    IsolatedHome home;
    ScratchDir dir{"thumbs"};

    void SetUp() override {
        registerBuiltinClients();
        Thumbnails::installThumbnails();
    }

    void make(const std::vector<std::string>& argv) {
        auto r = runProgram(argv);
        ASSERT_EQ(r.exitCode, 0) << argv[0] << ": " << r.err;
    }
    // A 300 x 100 landscape JPEG whose EXIF orientation 6 turns it upright into 100 x 300.
    void makeRotatedJpeg(const std::string& path) {
        make({"convert", "-size", "300x100", "xc:red", path});
        // An APP1 segment right after SOI: a big-endian TIFF header and one IFD entry,
        // Orientation (0x0112), SHORT, 1 value, 6.
        const std::string exif(
            "Exif\0\0MM\0\x2A\0\0\0\x08\0\x01\x01\x12\0\x03\0\0\0\x01\0\x06\0\0"
            "\0\0\0\0",
            32);
        std::string segment = "\xFF\xE1";
        segment += static_cast<char>(0);
        segment += static_cast<char>(exif.size() + 2);
        auto jpeg = readFile(path);
        writeFile(path, jpeg.substr(0, 2) + segment + exif + jpeg.substr(2));
    }
};

TEST_F(ThumbnailTest, EachKindGetsAFreedesktopCacheEntry) {
    makeRotatedJpeg(dir / "photo.jpg");
    // Two black seconds, then a test pattern: a frame from the start would be black.
    make({"ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i", "color=c=black:s=320x240:d=3",
          "-f", "lavfi", "-i", "testsrc=s=320x240:d=7", "-filter_complex",
          "[0][1]concat=n=2:v=1:a=0", "-pix_fmt", "yuv420p", dir / "clip.mp4"});
    make({"convert", "-size", "200x100", "xc:blue", dir / "cover.jpg"});
    makeTone(dir / "song.flac", 1.0);
    make({"metaflac", "--import-picture-from=" + (dir / "cover.jpg"), dir / "song.flac"});
    writeFile(dir / "doc.pdf", pdfBytes());

    struct Case {
        std::string name;
        int width, height;
        double minMean, maxMean;  // brightness bounds
    };
    const std::vector<Case> cases{{"photo.jpg", 43, 128, 0.2, 0.5},
                                  {"clip.mp4", 128, 96, 0.2, 1.0},
                                  {"song.flac", 128, 64, 0.05, 0.5},
                                  {"doc.pdf", 64, 128, 0.0, 0.3}};
    for (auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto made = Thumbnails::thumbnailForLocalFile(dir / c.name, Thumbnails::Size::Normal);
        ASSERT_TRUE(made) << made.error().describe();
        std::string uri = "file://" + dir / c.name;
        EXPECT_EQ(*made, home.path() + "/cache/thumbnails/normal/" + md5sum(uri) + ".png");
        EXPECT_EQ(modeOf(*made) & 0777, 0600u);
        auto facts = identify(*made);
        EXPECT_EQ(facts.width, c.width);
        EXPECT_EQ(facts.height, c.height);
        EXPECT_GE(facts.mean, c.minMean);
        EXPECT_LE(facts.mean, c.maxMean);
        EXPECT_EQ(facts.uri, uri);
        EXPECT_EQ(facts.mtime, std::to_string(static_cast<long>(mtimeOf(dir / c.name))));
    }
    auto large = Thumbnails::thumbnailForLocalFile(dir / "photo.jpg", Thumbnails::Size::Large);
    ASSERT_TRUE(large);
    EXPECT_TRUE(contains(*large, "/thumbnails/large/"));
    EXPECT_EQ(identify(*large).height, 256);
    // Names that need escaping are escaped in the URI as other programs do.
    writeFile(dir / "a b#%.jpg", readFile(dir / "photo.jpg"));
    auto odd = Thumbnails::thumbnailForLocalFile(dir / "a b#%.jpg", Thumbnails::Size::Normal);
    ASSERT_TRUE(odd);
    EXPECT_EQ(identify(*odd).uri, "file://" + dir.path() + "/a%20b%23%25.jpg");
}

TEST_F(ThumbnailTest, BrokenFileIsRecordedUnderFailAndNotRetriedUntilItChanges) {
    writeFile(dir / "broken.jpg", "not a jpeg");
    auto wrapper = WrapperProxy::wrapperWithServerInfo(localServer());
    ASSERT_TRUE(wrapper);
    auto first = wrapper->downloadThumbnailSync(localFile(dir / "broken.jpg"));
    ASSERT_FALSE(first);
    EXPECT_EQ(first.error().code, 10009);
    std::string uri = "file://" + dir / "broken.jpg";
    std::string failEntry = home.path() + "/cache/thumbnails/fail/quillon/" + md5sum(uri) + ".png";
    EXPECT_EQ(identify(failEntry).uri, uri);
    auto second = Thumbnails::thumbnailForLocalFile(dir / "broken.jpg", Thumbnails::Size::Normal);
    ASSERT_FALSE(second);
    EXPECT_EQ(second.error().reason, "The file could not be thumbnailed before.");
    // Once the file changes it is tried again.
    makeRotatedJpeg(dir / "broken.jpg");
    setMtime(dir / "broken.jpg", mtimeOf(dir / "broken.jpg") + 10);
    EXPECT_TRUE(wrapper->downloadThumbnailSync(localFile(dir / "broken.jpg")));
    EXPECT_TRUE(fs::exists(Thumbnails::cachePathForURI(uri, Thumbnails::Size::Normal)));
    // A kind without thumbnails has none and no error; a missing file is an error.
    writeFile(dir / "notes.txt", "text");
    EXPECT_TRUE(wrapper->downloadThumbnailSync(localFile(dir / "notes.txt")));
    EXPECT_EQ(wrapper->downloadThumbnailSync(localFile(dir / "gone.jpg")).error().code, 10008);
}

TEST_F(ThumbnailTest, RemoteFileIsSampledThroughItsClientAndCachedUnderItsUri) {
    RunningFtpServer ftp;
    makeRotatedJpeg(ftp / "photo.jpg");
    auto info = ftp.serverInfo();
    auto client = WrapperProxy::wrapperWithServerInfo(info);
    KvMetadata item(std::string("/photo.jpg"));
    item.protocolType = ProtocolType::FTP;
    item.timestamp = std::chrono::system_clock::from_time_t(1700000000);
    item.fileSizeInBytes = fs::file_size(ftp / "photo.jpg");
    ASSERT_TRUE(client->downloadThumbnailSync(item));
    std::string uri = "ftp://127.0.0.1:" + std::to_string(ftp.port()) + "/photo.jpg";
    auto facts = identify(home.path() + "/cache/thumbnails/normal/" + md5sum(uri) + ".png");
    EXPECT_EQ(facts.uri, uri);
    EXPECT_EQ(facts.mtime, "1700000000");
    EXPECT_EQ(facts.height, 128);
    KvConnectionPool::clearConnectionPool();
}

TEST(ThumbCli, WritesThumbnailsIntoAFolderAndNamesFailures) {
    IsolatedHome home;
    ScratchDir dir("thumbcli");
    auto made = runProgram({"convert", "-size", "600x300", "xc:green", dir / "wide.png"});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    EXPECT_TRUE(quillonExits(0, {"thumb", dir / "wide.png", "--size", "large", "-o", dir / "out"},
                             dir / "out/wide.png.png"));
    EXPECT_EQ(identify(dir / "out/wide.png.png").width, 256);
    writeFile(dir / "bad.png", "nope");
    EXPECT_TRUE(quillonExits(1, {"thumb", dir / "bad.png"}, "bad.png"));
    EXPECT_TRUE(quillonExits(2, {"thumb", dir / "wide.png", "--size", "huge"}));
}

}  // namespace
}  // namespace quillon::test
