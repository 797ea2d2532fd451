#include "media/MusicPlayerService.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "clients/Clients.h"
#include "core/AppPreference.h"
#include "core/KvConnectionPool.h"
#include "core/NotificationCenter.h"
#include "media/MediaKit.h"
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

}  // namespace
}  // namespace quillon::test
