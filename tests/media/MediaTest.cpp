// The media layer: the music player, play lists, thumbnails.
#include "media/MusicPlayerService.h"
#include "media/PlayList.h"

#include <gtest/gtest.h>

#include <fmt/format.h>
#include <filesystem>

#include "clients/Clients.h"
#include "core/AppPreference.h"
#include "core/FileService.h"
#include "core/KvConnectionPool.h"
#include "core/NotificationCenter.h"
#include "core/WrapperProxy.h"
#include "media/EncodingUtils.h"
#include "media/MediaKit.h"
#include "media/Thumbnails.h"
#include "servers/FtpServerFixture.h"
#include "servers/streaming/CachedDataReader.h"
#include "servers/streaming/StreamHttpServerService.h"

namespace quillon::test {
namespace {

using Repeat = MusicPlayerService::RepeatMode;

// Records the player's notifications and the player's time when each item started.
class Recorder {
  public:
    explicit Recorder(MusicPlayerService& player) : player_(player) {
        auto& center = NotificationCenter::defaultCenter();
        tokens_.push_back(center.addObserver(MUSIC_ITEM_CHANGED_NOTIFICATION, [this](auto& info) {
            items.push_back(std::any_cast<int>(info.at("index")));
            timeAtChange.push_back(lastTime);
        }));
        tokens_.push_back(center.addObserver(MUSIC_STATUS_CHANGED_NOTIFICATION, [this](auto& info) {
            statuses.push_back(std::any_cast<bool>(info.at("playing")));
        }));
        player.setTimeObserver([this](double t) {
            lastTime = t;
            maxTime = std::max(maxTime, t);
        });
    }
    ~Recorder() {
        for (auto t : tokens_) NotificationCenter::defaultCenter().removeObserver(t);
        player_.setTimeObserver(nullptr);
    }
    bool waitForItems(std::size_t n) {
        return pumpUntil([&] { return items.size() >= n || !player_.isActive(); }) &&
               items.size() >= n;
    }
    bool waitForEnd() {
        return pumpUntil([&] { return !player_.isActive(); });
    }

    std::vector<int> items;
    std::vector<double> timeAtChange;
    std::vector<bool> statuses;
    double lastTime = -1, maxTime = -1;

  private:
    MusicPlayerService& player_;
    std::vector<NotificationCenter::Token> tokens_;
};

class MusicPlayerTest : public FreshHome {
  protected:
    ScratchDir dir{"player"};
    MusicPlayerService player{{{"ao", "null"}, {"vo", "null"}}};

    std::vector<PlayListItem> files(int count, double seconds) {
        std::vector<PlayListItem> out;
        for (int i = 0; i < count; ++i) {
            std::string path = dir / ("t" + std::to_string(i) + ".wav");
            makeTone(path, seconds, 300 + 100 * i);
            out.emplace_back(localFile(path), localServer());
        }
        return out;
    }
    PlayList cue() {
        makeTone(dir / "disc.wav", 3.0);
        writeFile(dir / "disc.cue",
                  "FILE \"disc.wav\" WAVE\n TRACK 01 AUDIO\n  INDEX 01 00:00:00\n"
                  " TRACK 02 AUDIO\n  INDEX 01 00:01:00\n TRACK 03 AUDIO\n  INDEX 01 00:02:00\n");
        auto list = PlayList::initWithStartMetadata(localFile(dir / "disc.cue"), localServer(), {});
        EXPECT_TRUE(list);
        return list.value_or(PlayList{});
    }
};

// The player's output is written to a WAV file (untimed), so what it played can be measured by
// its samples; the bound allows for the decoder's block at each end.
constexpr double kSliceTolerance = 0.05;

double secondsOf(const std::string& wav) {
    auto r = runProgram({"soxi", "-D", wav});
    return r.exitCode == 0 ? std::stod(r.out) : -1;
}

TEST_F(MusicPlayerTest, CueSliceEndsAtItsEndAndTracksOfOneFilePlayFromOneLoad) {
    auto list = cue();
    ASSERT_EQ(list.items.size(), 3u);
    {
        MusicPlayerService pcm{{{"ao", "pcm"}, {"ao-pcm-file", dir / "slice.wav"}}};
        Recorder rec(pcm);
        pcm.playItems({list.items[1]}, localServer(), 0, nullptr);  // track 2: [1 s, 2 s)
        ASSERT_TRUE(rec.waitForEnd());
        EXPECT_FALSE(pcm.lastError());
        EXPECT_EQ(rec.items, std::vector<int>{0});
        EXPECT_EQ(rec.statuses, (std::vector<bool>{true, false}));
    }
    EXPECT_NEAR(secondsOf(dir / "slice.wav"), 1.0, kSliceTolerance);
    {
        MusicPlayerService pcm{{{"ao", "pcm"}, {"ao-pcm-file", dir / "run.wav"}}};
        Recorder rec(pcm);
        pcm.playItems(list.items, localServer(), 0, nullptr);
        ASSERT_TRUE(rec.waitForEnd());
        EXPECT_EQ(rec.items, (std::vector<int>{0, 1, 2}));
        EXPECT_EQ(pcm.fileLoads(), 1);
    }
    // The three tracks played as one stretch: the whole file, nothing lost between them.
    EXPECT_NEAR(secondsOf(dir / "run.wav"), 3.0, kSliceTolerance);
    // In real time, each track is announced once the player's time has reached its start.
    Recorder rec(player);
    player.playItems(list.items, localServer(), 0, nullptr);
    ASSERT_TRUE(rec.waitForEnd());
    EXPECT_EQ(rec.items, (std::vector<int>{0, 1, 2}));
    ASSERT_EQ(rec.timeAtChange.size(), 3u);
    EXPECT_GE(rec.timeAtChange[1], 1.0);
    EXPECT_GE(rec.timeAtChange[2], 2.0);
}

TEST_F(MusicPlayerTest, RepeatAndShuffleOrdersAreKeptInThePreferences) {
    auto items = files(4, 0.3);
    ASSERT_TRUE(player.setRepeatMode(Repeat::One));
    {
        Recorder rec(player);
        player.playItems(items, localServer(), 1, nullptr);
        ASSERT_TRUE(rec.waitForItems(3));
        player.close();
        EXPECT_EQ(std::vector<int>(rec.items.begin(), rec.items.begin() + 3),
                  (std::vector<int>{1, 1, 1}));
    }
    ASSERT_TRUE(player.setRepeatMode(Repeat::All));
    {
        Recorder rec(player);
        player.playItems(items, localServer(), 2, nullptr);
        ASSERT_TRUE(rec.waitForItems(5));
        player.close();
        EXPECT_EQ(std::vector<int>(rec.items.begin(), rec.items.begin() + 5),
                  (std::vector<int>{2, 3, 0, 1, 2}));
    }
    ASSERT_TRUE(player.setRepeatMode(Repeat::Off));
    ASSERT_TRUE(player.setShuffle(true));
    {
        Recorder rec(player);
        player.playItems(items, localServer(), 2, nullptr);
        auto order = player.playOrder();
        ASSERT_TRUE(rec.waitForEnd());
        EXPECT_EQ(order.front(), 2);
        EXPECT_TRUE(
            std::is_permutation(order.begin(), order.end(), std::vector<int>{0, 1, 2, 3}.begin()));
        EXPECT_EQ(rec.items, order);
        EXPECT_EQ(rec.statuses.back(), false);
    }
    // Both settings are written to the preference file.
    auto& prefs = AppPreference::sharedAppPreference();
    ASSERT_TRUE(prefs.load());
    EXPECT_EQ(prefs.integerForKey(PrefKey::MusicRepeat), 0);
    EXPECT_TRUE(prefs.boolForKey(PrefKey::MusicShuffle));
    ASSERT_TRUE(player.setRepeatMode(Repeat::One));
    ASSERT_TRUE(prefs.load());
    EXPECT_EQ(prefs.integerForKey(PrefKey::MusicRepeat), 2);
}

TEST_F(MusicPlayerTest, ControlsPostStatusAndItemNotifications) {
    auto items = files(3, 20.0);
    Recorder rec(player);
    std::optional<std::optional<Error>> handled;
    player.playItems(items, localServer(), 0, [&](auto e) { handled = e; });
    ASSERT_TRUE(pumpUntil([&] { return handled && player.position(); }));
    EXPECT_FALSE(*handled);
    player.pause();
    EXPECT_FALSE(player.isPlaying());
    player.play();
    EXPECT_TRUE(player.isPlaying());
    player.next();
    player.next();
    player.next();  // past the last item without repeat: stays
    player.previous();
    EXPECT_EQ(player.currentIndex(), 1);
    player.seek(15);
    ASSERT_TRUE(pumpUntil([&] { return player.position() && *player.position() >= 15; }));
    EXPECT_NEAR(player.itemDuration().value_or(0), 20.0, 0.01);
    player.setVolume(35);
    EXPECT_EQ(player.volume(), 35);
    EXPECT_DOUBLE_EQ(AppPreference::sharedAppPreference().valueForKey(PrefKey::Volume)->toDouble(),
                     0.35);
    player.close();
    EXPECT_FALSE(player.isActive());
    EXPECT_EQ(rec.items, (std::vector<int>{0, 1, 2, 1}));
    EXPECT_EQ(rec.statuses, (std::vector<bool>{true, false, true, false}));

    // A file that is not audio ends playback with an error.
    writeFile(dir / "bad.mp3", "not audio at all");
    player.playItems({PlayListItem(localFile(dir / "bad.mp3"), localServer())}, localServer(), 0,
                     nullptr);
    ASSERT_TRUE(rec.waitForEnd());
    ASSERT_TRUE(player.lastError());
    EXPECT_TRUE(contains(player.lastError()->reason, "bad.mp3")) << player.lastError()->reason;
}

TEST_F(MusicPlayerTest, RemoteFilePlaysThroughTheStreamingUrlAndSeeks) {
    registerBuiltinClients();
    installStreaming();
    auto& service = StreamHttpServerService::sharedHttpServerService();
    service.setPort(0);
    RunningFtpServer ftp;
    makeTone(ftp / "tone.wav", 4.0);
    auto info = ftp.serverInfo();
    KvMetadata remote(std::string("/tone.wav"));
    remote.protocolType = ProtocolType::FTP;
    remote.fileSizeInBytes = std::filesystem::file_size(ftp / "tone.wav");
    {
        Recorder rec(player);
        player.playItems({PlayListItem(remote, info)}, info, 0, nullptr);
        ASSERT_TRUE(pumpUntil([&] { return player.position().has_value() || !player.isActive(); }));
        EXPECT_TRUE(player.currentURL().starts_with("http://127.0.0.1:")) << player.currentURL();
        player.seek(3.0);
        ASSERT_TRUE(rec.waitForEnd());
        EXPECT_FALSE(player.lastError()) << player.lastError()->describe();
        EXPECT_GE(rec.lastTime, 3.0);  // after the seek, near the end
        EXPECT_LE(rec.maxTime, 4.0);
    }
    service.stopServer();
    CachedDataReader::cancelAllBackgroundFetching();
    CachedDataReader::fetchingQueue().waitUntilAllOperationsAreFinished();
    KvConnectionPool::clearConnectionPool();
}

TEST(PlayCli, PlaysEveryItemToTheEndWithoutATerminal) {
    IsolatedHome home;
    ScratchDir dir("playcli");
    makeTone(dir / "a.wav", 0.3);
    makeTone(dir / "b.wav", 0.3);
    writeFile(dir / "list.m3u", "b.wav\na.wav\n");
    auto run = runQuillon({"play", "--ao", "null", dir / "list.m3u", dir / "a.wav"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(lines(run.out), (std::vector<std::string>{"Playing 1/3: b.wav", "Playing 2/3: a.wav",
                                                        "Playing 3/3: a.wav"}));
    writeFile(dir / "bad.wav", "no audio");
    EXPECT_TRUE(quillonExits(1, {"play", "--ao", "null", dir / "bad.wav"}, "bad.wav"));
}

class PlayListTest : public FreshHome {
  protected:
    ScratchDir dir{"playlist"};
    static void setEncoding(const std::string& name) {
        if (name.empty())
            AppPreference::sharedAppPreference().removeValueForKey(PrefKey::TextEncoding);
        else
            AppPreference::sharedAppPreference().setValue(PlistValue(name), PrefKey::TextEncoding);
    }
    Result<PlayList> open(const std::string& path) {
        return PlayList::initWithStartMetadata(localFile(path), localServer(), {});
    }
};

std::vector<std::string> titles(const PlayList& list) {
    std::vector<std::string> out;
    for (auto& item : list.items) out.push_back(item.songName);
    return out;
}

TEST_F(PlayListTest, ListsInFourEncodingsReadWithAndWithoutThePreference) {
    writeFile(dir / "a.mp3", "x");
    struct Case {
        std::string encoding, preference, title;
    };
    // Titles a few words long, as real lists carry; the Western one is the short text the
    // detector alone misreads.
    const std::vector<Case> cases{
        {"UTF-8", "UTF-8", "Café déjà vu"},
        {"CP1251", "Windows-1251", "Очи чёрные, очи страстные и прекрасные"},
        {"SHIFT_JIS", "Shift_JIS", "さくらさくら　やよいの空は　見わたす限り"},
        {"GB18030", "GB18030", "月亮代表我的心，你问我爱你有多深"},
    };
    for (auto& c : cases) {
        SCOPED_TRACE(c.encoding);
        for (bool withPreference : {false, true}) {
            setEncoding(withPreference ? c.preference : "");
            writeEncoded(dir / "list.m3u", "#EXTM3U\n#EXTINF:61," + c.title + "\na.mp3\n",
                         c.encoding);
            auto list = open(dir / "list.m3u");
            ASSERT_TRUE(list) << list.error().describe();
            EXPECT_EQ(titles(*list), std::vector<std::string>{c.title}) << withPreference;
        }
    }
    // A preference that does not fit the bytes is an error, not mojibake.
    setEncoding("UTF-8");
    writeEncoded(dir / "list.m3u", "#EXTINF:1,Очи чёрные\na.mp3\n", "CP1251");
    EXPECT_FALSE(open(dir / "list.m3u"));
    EXPECT_FALSE(EncodingUtils::isValidUtf8("\xC0\xAF"));      // overlong "/"
    EXPECT_FALSE(EncodingUtils::isValidUtf8("\xED\xA0\x80"));  // a surrogate
    EXPECT_FALSE(EncodingUtils::isValidUtf8("ab\xE2\x82"));    // cut short
}

TEST_F(PlayListTest, M3uEntriesRelativeAbsoluteUrlsAndMissing) {
    writeFile(dir / "sub/one.mp3", "1");
    writeFile(dir / "sub/two words.flac", "2");
    ScratchDir elsewhere("abs");
    writeFile(elsewhere / "three.ogg", "3");
    const std::string text =
        "#EXTINF:100,First\r\n"
        "sub/one.mp3\r\n"
        "#EXTINF:42\r\n"
        ".\\sub\\two words.flac\r\n"
        "\r\n"
        "# a comment\n" +
        elsewhere / "three.ogg" +
        "\n"
        "#EXTINF:-1,Gone\n"
        "nowhere.mp3\n"
        "http://127.0.0.1:9/radio%20one.mp3\n";
    for (auto name : {"list.m3u", "LIST.M3U8"}) {
        SCOPED_TRACE(name);
        writeFile(dir / name, text);  // no #EXTM3U header
        auto list = open(dir / name);
        ASSERT_TRUE(list) << list.error().describe();
        ASSERT_EQ(list->items.size(), 4u);
        EXPECT_EQ(list->items[0].metadata.path(), dir / "sub/one.mp3");
        EXPECT_EQ(list->items[0].songName, "First");
        EXPECT_EQ(list->items[0].duration, 100.0);
        EXPECT_EQ(list->items[1].metadata.path(), dir / "sub/two words.flac");
        EXPECT_EQ(list->items[1].songName, "two words.flac");  // no title after the duration
        EXPECT_EQ(list->items[1].duration, 42.0);
        EXPECT_EQ(list->items[2].metadata.path(), elsewhere / "three.ogg");
        EXPECT_FALSE(list->items[2].duration);
        EXPECT_TRUE(list->items[3].isURL());
        EXPECT_EQ(list->items[3].songName, "radio one.mp3");
        EXPECT_EQ(list->missingEntries, std::vector<std::string>{"nowhere.mp3"});
    }
}

TEST_F(PlayListTest, CueTracksEndAtTheNextStartAndTheLastAtTheFilesEnd) {
    makeTone(dir / "disc.wav", 5.0);
    // CP1251 titles; track 3 has none; 37 frames are 37/75 of a second.
    writeEncoded(dir / "disc.cue",
                 "PERFORMER \"Хор имени Пятницкого\"\n"
                 "TITLE \"Русские народные песни\"\n"
                 "FILE \"disc.wav\" WAVE\n"
                 "  TRACK 01 AUDIO\n"
                 "    TITLE \"Калинка\"\n"
                 "    INDEX 01 00:00:00\n"
                 "  TRACK 02 AUDIO\n"
                 "    TITLE \"Катюша\"\n"
                 "    PERFORMER \"Солистка\"\n"
                 "    INDEX 00 00:01:50\n"
                 "    INDEX 01 00:02:00\n"
                 "  TRACK 03 AUDIO\n"
                 "    INDEX 01 00:03:37\n",
                 "CP1251");
    auto list = open(dir / "disc.cue");
    ASSERT_TRUE(list) << list.error().describe();
    EXPECT_EQ(list->CDTitle, "Русские народные песни");
    EXPECT_EQ(list->CDPerformer, "Хор имени Пятницкого");
    EXPECT_EQ(titles(*list), (std::vector<std::string>{"Калинка", "Катюша", "Track 3"}));
    ASSERT_EQ(list->items.size(), 3u);
    EXPECT_EQ(list->items[0].artist, "Хор имени Пятницкого");
    EXPECT_EQ(list->items[1].artist, "Солистка");
    const double starts[] = {0, 2, 3 + 37 / 75.0}, ends[] = {2, 3 + 37 / 75.0, 5};
    for (int i = 0; i < 3; ++i) {
        auto& item = list->items[i];
        EXPECT_EQ(item.metadata.path(), dir / "disc.wav");
        EXPECT_EQ(item.albumName, "Русские народные песни");
        EXPECT_NEAR(item.initialPlaybackTime, starts[i], 1e-9) << i;
        ASSERT_TRUE(item.endPlaybackTime) << i;
        EXPECT_NEAR(*item.endPlaybackTime, ends[i], 0.002) << i;
    }
    writeFile(dir / "bad.cue", "FILE \"disc.wav\" WAVE\nthis is no sheet\n");
    auto bad = open(dir / "bad.cue");
    ASSERT_FALSE(bad);
    EXPECT_EQ(bad.error().reason, "The CUE sheet cannot be read (line 2).");
    EXPECT_FALSE(open(dir / "absent.cue"));
}

TEST_F(PlayListTest, FolderAudioInListingOrderAndRemoteListsFromTheCache) {
    std::vector<KvMetadata> listing;
    for (auto name : {"a.flac", "b.txt", "c.m3u", "d.WAV", "e.mp3"})
        listing.push_back(localFile(dir / name));
    KvMetadata sub = localFile(dir / "f.mp3");
    sub.isDir = true;
    listing.push_back(sub);
    auto list = PlayList::initWithStartMetadata(listing[3], localServer(), listing);
    ASSERT_TRUE(list);
    EXPECT_EQ(titles(*list), (std::vector<std::string>{"a.flac", "d.WAV", "e.mp3"}));
    EXPECT_EQ(list->currentIndex, 1);

    // A list on our FTP server: fetched into its cache path, entries stay on the server.
    registerBuiltinClients();
    RunningFtpServer ftp;
    writeFile(ftp / "music/list.m3u8", "#EXTINF:3,Über\nsong.mp3\n/other/x.mp3\n");
    auto info = ftp.serverInfo();
    KvMetadata remote(std::string("/music/list.m3u8"));
    remote.protocolType = ProtocolType::FTP;
    auto fromFtp = PlayList::initWithStartMetadata(remote, info, {});
    ASSERT_TRUE(fromFtp) << fromFtp.error().describe();
    ASSERT_EQ(fromFtp->items.size(), 2u);
    EXPECT_EQ(fromFtp->items[0].songName, "Über");
    EXPECT_EQ(fromFtp->items[0].metadata.path(), "/music/song.mp3");
    EXPECT_EQ(fromFtp->items[1].metadata.path(), "/other/x.mp3");
    EXPECT_TRUE(fromFtp->missingEntries.empty());  // remote entries are not looked up
    EXPECT_TRUE(fileHolds(FileService::sharedService().cachePathForMetadata(remote, *info),
                          readFile(ftp / "music/list.m3u8")));
}

TEST(PlaylistCli, PrintsTracksAsTextAndJsonAndRefusesFolders) {
    IsolatedHome home;
    ScratchDir dir("cli");
    makeTone(dir / "d.flac", 3.0);
    writeFile(dir / "d.cue",
              "FILE \"d.flac\" WAVE\n TRACK 01 AUDIO\n  TITLE \"Intro\"\n  INDEX 01 00:00:00\n"
              " TRACK 02 AUDIO\n  INDEX 01 00:01:00\n");
    EXPECT_TRUE(quillonExits(0, {"playlist", dir / "d.cue"}, "Track 2"));
    auto json = runQuillon({"playlist", "--json", dir / "d.cue"});
    EXPECT_EQ(json.exitCode, 0) << json.err;
    EXPECT_TRUE(contains(json.out, R"({"title":"Intro","artist":"","album":"","start":0.000,)"
                                   R"("end":1.000,"duration":1.000,"file":")" +
                                       dir / "d.flac\"}"))
        << json.out;
    EXPECT_TRUE(contains(json.out, R"("start":1.000,"end":3.000,)")) << json.out;
    EXPECT_TRUE(quillonExits(1, {"playlist", dir.path()}, "is a folder"));
    EXPECT_TRUE(quillonExits(1, {"playlist", dir / "none.m3u"}, "not found"));
}

}  // namespace
}  // namespace quillon::test

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
