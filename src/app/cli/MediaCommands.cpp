// quillon playlist: what opening a file would play. quillon play: plays on the terminal.
// quillon thumb: thumbnails into the shared thumbnail cache or a folder.

#include <fmt/format.h>

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>

#include "app/cli/Cli.h"
#include "app/cli/Json.h"
#include "app/cli/StopSignals.h"
#include "core/FileTypeUtils.h"
#include "core/Location.h"
#include "core/MainQueue.h"
#include "core/NotificationCenter.h"
#include "media/MusicPlayerService.h"
#include "media/PlayList.h"
#include "media/Thumbnails.h"

namespace quillon::cli {

namespace {

std::string clockText(std::optional<double> seconds) {
    if (!seconds) return "-";
    long ms = std::lround(*seconds * 1000);
    return fmt::format("{}:{:02}.{:03}", ms / 60000, (ms / 1000) % 60, ms % 1000);
}

std::string jsonNumber(std::optional<double> v) {
    return v ? fmt::format("{:.3f}", *v) : std::string("null");
}

// What opening the location plays; with `alone`, an audio file is played by itself rather than
// with the rest of its folder.
Result<PlayList> openPlayList(const std::string& text, bool alone = false) {
    auto loc = resolveLocation(text);
    if (!loc) return std::unexpected(loc.error());
    auto item = statLocation(*loc);
    if (!item) return std::unexpected(item.error());
    if (item->isDir)
        return std::unexpected(KvError::errorWithDomain(ErrorDomain::Local, ErrorCode::NotFound,
                                                        loc->display() + " is a folder."));
    if (alone && !FileTypeUtils::isAudioPlaylist(item->name().value_or("")))
        return PlayList::initWithMetadata(*item, loc->server);
    return PlayList::playListForOpening(*item, loc->server, *loc->client);
}

int runPlaylist(const std::string& location, bool json) {
    if (auto r = startApplication(); !r) return reportError(r.error());
    auto list = openPlayList(location);
    if (!list) return reportError(list.error());
    for (auto& missing : list->missingEntries)
        fmt::print(stderr, "quillon: skipped missing entry {}\n", missing);
    if (json) {
        fmt::print("{{\"title\":{},\"performer\":{},\"current\":{},\"items\":[",
                   jsonString(list->CDTitle), jsonString(list->CDPerformer), list->currentIndex);
        for (std::size_t i = 0; i < list->items.size(); ++i) {
            auto& it = list->items[i];
            fmt::print(
                "{}{{\"title\":{},\"artist\":{},\"album\":{},\"start\":{:.3f},\"end\":{},"
                "\"duration\":{},\"file\":{}}}",
                i ? "," : "", jsonString(it.songName), jsonString(it.artist),
                jsonString(it.albumName), it.initialPlaybackTime, jsonNumber(it.endPlaybackTime),
                jsonNumber(it.duration), jsonString(it.metadata.path().value_or("")));
        }
        fmt::print("]}}\n");
        return kExitOk;
    }
    if (!list->CDTitle.empty() || !list->CDPerformer.empty())
        fmt::print("{} - {}\n", list->CDPerformer, list->CDTitle);
    for (std::size_t i = 0; i < list->items.size(); ++i) {
        auto& it = list->items[i];
        fmt::print("{}{:>3}  {}\t{}\t{}\t{}\t{}\n",
                   static_cast<int>(i) == list->currentIndex ? '>' : ' ', i + 1, it.songName,
                   it.artist.empty() ? "-" : it.artist, clockText(it.initialPlaybackTime),
                   clockText(it.endPlaybackTime), it.metadata.path().value_or(""));
    }
    return kExitOk;
}

// Keys from the terminal, one byte at a time, without echo, handed to the main queue.
class KeyReader {
  public:
    explicit KeyReader(std::function<void(std::string)> onKey) {
        if (::tcgetattr(STDIN_FILENO, &saved_) != 0) return;
        termios raw = saved_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        if (::tcsetattr(STDIN_FILENO, TCSANOW, &raw) != 0) return;
        active_ = true;
        thread_ = std::thread([this, onKey = std::move(onKey)] {
            std::string pending;
            while (!stop_) {
                pollfd p{STDIN_FILENO, POLLIN, 0};
                if (::poll(&p, 1, 100) <= 0) continue;
                char c;
                if (::read(STDIN_FILENO, &c, 1) != 1) break;
                pending += c;
                // Arrow keys arrive as ESC [ C and ESC [ D.
                if (pending == "\x1b" || pending == "\x1b[") continue;
                MainQueue::shared().post([onKey, key = pending] { onKey(key); });
                pending.clear();
            }
        });
    }
    ~KeyReader() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (active_) ::tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
    }
    bool active() const { return active_; }

  private:
    termios saved_{};
    bool active_ = false;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

struct PlayOptions {
    std::vector<std::string> locations;
    std::string audioOutput;
};

const char* repeatName(MusicPlayerService::RepeatMode mode) {
    switch (mode) {
        case MusicPlayerService::RepeatMode::All:
            return "repeat all";
        case MusicPlayerService::RepeatMode::One:
            return "repeat one";
        default:
            return "repeat off";
    }
}

int runPlay(const PlayOptions& o) {
    if (auto r = startApplication(); !r) return reportError(r.error());
    std::vector<PlayListItem> items;
    int start = 0;
    for (auto& location : o.locations) {
        auto list = openPlayList(location, o.locations.size() > 1);
        if (!list) return reportError(list.error());
        for (auto& missing : list->missingEntries)
            fmt::print(stderr, "quillon: skipped missing entry {}\n", missing);
        if (o.locations.size() == 1) start = list->currentIndex;
        items.insert(items.end(), list->items.begin(), list->items.end());
    }
    if (items.empty()) return reportMessage("There is nothing to play.");

    std::map<std::string, std::string> mpvOptions;
    if (!o.audioOutput.empty()) mpvOptions["ao"] = o.audioOutput;
    MusicPlayerService player(mpvOptions);
    bool quit = false;
    StopSignals signals(StopSignals::Second::Exit, [&quit](int) { quit = true; });
    bool terminal = ::isatty(STDIN_FILENO) && ::isatty(STDOUT_FILENO);

    long shownSecond = -1;
    auto draw = [&] {
        if (!terminal || !player.isActive()) return;
        auto& item = player.items()[player.currentIndex()];
        fmt::print("\r\x1b[K{}{}  {} / {}  [{}{}]{}", item.songName,
                   item.artist.empty() ? "" : " - " + item.artist, clockText(player.position()),
                   clockText(player.itemDuration()), repeatName(player.repeatMode()),
                   player.shuffle() ? ", shuffle" : "", player.isPlaying() ? "" : "  (paused)");
        std::fflush(stdout);
    };
    player.setTimeObserver([&](double) {
        long second = std::lround(std::floor(player.position().value_or(0)));
        if (second != shownSecond) {
            shownSecond = second;
            draw();
        }
    });
    auto& center = NotificationCenter::defaultCenter();
    auto itemToken = center.addObserver(MUSIC_ITEM_CHANGED_NOTIFICATION, [&](const UserInfo&) {
        auto index = player.currentIndex();
        if (terminal) {
            shownSecond = -1;
            draw();
        } else {
            fmt::print("Playing {}/{}: {}\n", index + 1, player.items().size(),
                       player.items()[index].songName);
            std::fflush(stdout);
        }
    });
    auto statusToken =
        center.addObserver(MUSIC_STATUS_CHANGED_NOTIFICATION, [&](const UserInfo&) { draw(); });

    std::optional<KeyReader> keys;
    if (terminal) {
        keys.emplace([&](const std::string& key) {
            if (key == " ") {
                player.isPlaying() ? player.pause() : player.play();
            } else if (key == "n") {
                player.next();
            } else if (key == "p") {
                player.previous();
            } else if (key == "\x1b[C" || key == "\x1b[D") {
                double step = key == "\x1b[C" ? 10 : -10;
                player.seek(std::max(0.0, player.position().value_or(0) + step));
            } else if (key == "r") {
                auto next = static_cast<MusicPlayerService::RepeatMode>(
                    (static_cast<int>(player.repeatMode()) + 1) % 3);
                if (auto saved = player.setRepeatMode(next); !saved) reportError(saved.error());
                draw();
            } else if (key == "s") {
                if (auto saved = player.setShuffle(!player.shuffle()); !saved)
                    reportError(saved.error());
                draw();
            } else if (key == "q") {
                quit = true;
            }
        });
        fmt::print("space pause, n/p next/previous, arrows seek, r repeat, s shuffle, q quit\n");
    }

    std::optional<Error> failed;
    bool started = false;
    player.playItems(items, nullptr, start, [&](std::optional<Error> e) {
        failed = e;
        started = true;
    });
    MainQueue::shared().runUntil([&] { return quit || (started && !player.isActive()); });
    keys.reset();
    center.removeObserver(itemToken);
    center.removeObserver(statusToken);
    player.setTimeObserver(nullptr);
    auto error = failed ? failed : player.lastError();
    player.close();
    if (terminal) fmt::print("\n");
    if (error) return reportError(*error);
    return kExitOk;
}

struct ThumbOptions {
    std::vector<std::string> locations;
    std::string outputFolder;
    std::string size = "normal";
};

int runThumb(const ThumbOptions& o) {
    auto size = Thumbnails::sizeForName(o.size);
    if (!size) return reportMessage("Unknown size " + o.size + ".", kExitUsage);
    if (auto r = startApplication(); !r) return reportError(r.error());
    int status = kExitOk;
    for (auto& location : o.locations) {
        auto loc = resolveLocation(location);
        if (!loc) {
            status = reportError(loc.error());
            continue;
        }
        auto item = statLocation(*loc);
        if (!item) {
            status = reportError(item.error());
            continue;
        }
        auto made = Thumbnails::thumbnailForItem(*loc->client, *item, *size);
        if (!made) {
            status = reportMessage(loc->display() + ": " + made.error().describe());
            continue;
        }
        std::string shown = *made;
        if (!o.outputFolder.empty()) {
            std::error_code ec;
            std::filesystem::create_directories(o.outputFolder, ec);
            shown = o.outputFolder + "/" + item->name().value_or("thumbnail") + ".png";
            std::filesystem::copy_file(*made, shown,
                                       std::filesystem::copy_options::overwrite_existing, ec);
            if (ec) {
                status = reportMessage("Cannot write " + shown + ": " + ec.message() + ".");
                continue;
            }
        }
        fmt::print("{}\t{}\n", loc->display(), shown);
    }
    return status;
}

}  // namespace

void registerMediaCommands(Cli& cli) {
    auto* cmd = cli.app.add_subcommand(
        "playlist",
        "Print what opening a file plays: a CUE sheet's tracks, an M3U list's "
        "entries or the audio files of its folder");
    auto location = std::make_shared<std::string>();
    auto json = std::make_shared<bool>(false);
    cmd->add_option("LOCATION", *location, "Playlist or audio file (local path, NAME:/path or URL)")
        ->required();
    cmd->add_flag("--json", *json, "One JSON object");
    cmd->callback([&cli, location, json] {
        cli.action = [location, json] { return runPlaylist(*location, *json); };
    });

    auto* play = cli.app.add_subcommand(
        "play",
        "Play audio files and playlists (space pause, n/p next/previous, arrows seek, "
        "r repeat, s shuffle, q quit)");
    auto po = std::make_shared<PlayOptions>();
    play->add_option("LOCATION", po->locations, "Audio files or playlists")->required();
    play->add_option("--ao", po->audioOutput, "mpv audio output driver (null plays silently)");
    play->callback([&cli, po] { cli.action = [po] { return runPlay(*po); }; });

    auto* thumb = cli.app.add_subcommand(
        "thumb", "Make thumbnails into the shared thumbnail cache and print their paths");
    auto to = std::make_shared<ThumbOptions>();
    thumb->add_option("LOCATION", to->locations, "Images, videos, audio files or PDFs")->required();
    thumb->add_option("-o,--output", to->outputFolder, "Also copy each thumbnail into this folder");
    thumb
        ->add_option("--size", to->size,
                     "normal (128), large (256), x-large (512), xx-large (1024)")
        ->check(CLI::IsMember({"normal", "large", "x-large", "xx-large"}));
    thumb->callback([&cli, to] { cli.action = [to] { return runThumb(*to); }; });
}

}  // namespace quillon::cli
