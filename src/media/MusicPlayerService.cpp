#include "media/MusicPlayerService.h"

#include <fmt/format.h>
#include <mpv/client.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <deque>
#include <numeric>
#include <random>

#include "core/AppPreference.h"
#include "core/MainQueue.h"
#include "core/NotificationCenter.h"
#include "core/WrapperProxy.h"

namespace quillon {

namespace {

Error playerError(const std::string& reason) {
    return KvError::errorWithDomain(ErrorDomain::Local, ErrorCode::TransferFailed, reason);
}

// mpv nodes built for one command; the strings and lists live as long as the builder.
class NodeBuilder {
  public:
    mpv_node string(std::string s) {
        mpv_node n{};
        n.format = MPV_FORMAT_STRING;
        n.u.string = strings_.emplace_back(std::move(s)).data();
        return n;
    }
    mpv_node map(const std::vector<std::pair<std::string, mpv_node>>& entries) {
        auto& values = values_.emplace_back();
        auto& keys = keys_.emplace_back();
        for (auto& [k, v] : entries) {
            values.push_back(v);
            keys.push_back(strings_.emplace_back(k).data());
        }
        auto& list = lists_.emplace_back();
        list.num = static_cast<int>(values.size());
        list.values = values.data();
        list.keys = keys.data();
        mpv_node n{};
        n.format = MPV_FORMAT_NODE_MAP;
        n.u.list = &list;
        return n;
    }

  private:
    std::deque<std::string> strings_;
    std::deque<std::vector<mpv_node>> values_;
    std::deque<std::vector<char*>> keys_;
    std::deque<mpv_node_list> lists_;
};

std::string seconds(double s) {
    return fmt::format("{:.6f}", s);
}

bool sameFile(const PlayListItem& a, const PlayListItem& b) {
    return a.metadata.path() == b.metadata.path() && a.serverInfo == b.serverInfo;
}

}  // namespace

struct MusicPlayerService::Impl : std::enable_shared_from_this<Impl> {
    mpv_handle* mpv = nullptr;
    std::optional<Error> initError;
    std::atomic<bool> drainQueued{false};
    std::weak_ptr<Impl>* wakeupContext = nullptr;

    std::vector<PlayListItem> items;
    ServerInfoPtr server;
    std::vector<int> order;
    int orderPos = 0;  // the current item's place in `order`
    int runLast = 0;   // the place in `order` of the last item of the slice loaded
    bool active = false;
    bool playing = false;
    std::int64_t entryId = -1;   // mpv's playlist entry of the slice loaded
    bool awaitingStart = false;  // entryId comes with the next start (an mpv without the result)
    bool started = false;        // the slice's file has started: its times are ours
    std::optional<double> timePos;
    std::string url;
    int loads = 0;
    std::optional<Error> lastError;
    std::function<void(double)> timeObserver;
    std::mt19937 random{std::random_device{}()};

    void start(const std::map<std::string, std::string>& options) {
        mpv = mpv_create();
        if (!mpv) {
            initError = playerError("The media player cannot be started.");
            return;
        }
        std::map<std::string, std::string> all{{"vid", "no"},
                                               {"terminal", "no"},
                                               {"config", "no"},
                                               {"idle", "yes"},
                                               {"ytdl", "no"},
                                               {"load-scripts", "no"},
                                               {"audio-display", "no"},
                                               {"input-default-bindings", "no"},
                                               {"osc", "no"}};
        for (auto& [k, v] : options) all[k] = v;
        for (auto& [k, v] : all) mpv_set_option_string(mpv, k.c_str(), v.c_str());
        if (int err = mpv_initialize(mpv); err < 0) {
            initError = playerError(
                fmt::format("The media player cannot be started: {}.", mpv_error_string(err)));
            mpv_terminate_destroy(mpv);
            mpv = nullptr;
            return;
        }
        mpv_observe_property(mpv, 1, "time-pos", MPV_FORMAT_DOUBLE);
        wakeupContext = new std::weak_ptr<Impl>(shared_from_this());
        mpv_set_wakeup_callback(
            mpv,
            [](void* ctx) {
                auto weak = *static_cast<std::weak_ptr<Impl>*>(ctx);
                auto self = weak.lock();
                if (!self || self->drainQueued.exchange(true)) return;
                MainQueue::shared().post([weak] {
                    if (auto me = weak.lock()) {
                        me->drainQueued = false;
                        me->drain();
                    }
                });
            },
            wakeupContext);
    }

    void stop() {
        if (!mpv) return;
        mpv_set_wakeup_callback(mpv, nullptr, nullptr);
        mpv_terminate_destroy(mpv);
        mpv = nullptr;
        delete wakeupContext;
        wakeupContext = nullptr;
    }

    void drain() {
        while (mpv) {
            mpv_event* e = mpv_wait_event(mpv, 0);
            if (e->event_id == MPV_EVENT_NONE) break;
            handle(*e);
        }
    }

    void handle(const mpv_event& e) {
        if (e.event_id == MPV_EVENT_START_FILE) {
            auto* start = static_cast<mpv_event_start_file*>(e.data);
            if (awaitingStart) {
                entryId = start->playlist_entry_id;
                awaitingStart = false;
            }
            if (start->playlist_entry_id == entryId) started = true;
        } else if (e.event_id == MPV_EVENT_PROPERTY_CHANGE) {
            auto* p = static_cast<mpv_event_property*>(e.data);
            // Times of the file played before this slice may still be queued.
            if (!active || !started) return;
            if (p->format == MPV_FORMAT_DOUBLE) newTime(*static_cast<double*>(p->data));
        } else if (e.event_id == MPV_EVENT_END_FILE) {
            auto* end = static_cast<mpv_event_end_file*>(e.data);
            if (!active || end->playlist_entry_id != entryId) return;
            if (end->reason == MPV_END_FILE_REASON_EOF) {
                finished();
            } else if (end->reason == MPV_END_FILE_REASON_ERROR) {
                lastError =
                    playerError(fmt::format("\"{}\" cannot be played: {}.", current().songName,
                                            mpv_error_string(end->error)));
                halt();
            }
        }
    }

    void newTime(double t) {
        timePos = t;
        if (timeObserver) timeObserver(t);
        followRun(t);
    }

    const PlayListItem& current() const { return items[order[orderPos]]; }

    // Within a slice of several tracks, the item changes when the time passes a track's end.
    void followRun(double t) {
        while (orderPos < runLast) {
            auto& item = current();
            if (!item.endPlaybackTime || t < *item.endPlaybackTime) break;
            ++orderPos;
            postItemChanged();
        }
    }

    void finished() {
        auto mode = static_cast<RepeatMode>(
            AppPreference::sharedAppPreference().integerForKey(PrefKey::MusicRepeat));
        // Tracks of the slice whose start went by between two time updates still get announced.
        while (orderPos < runLast) {
            ++orderPos;
            postItemChanged();
        }
        if (mode == RepeatMode::One) {
            (void)load(orderPos);
        } else if (orderPos + 1 < static_cast<int>(order.size())) {
            (void)load(orderPos + 1);
        } else if (mode == RepeatMode::All) {
            (void)load(0);
        } else {
            halt(false);
        }
    }

    // At the end of the list the player is left to play out what it holds and go idle.
    void halt(bool stopPlayer = true) {
        active = false;
        playing = false;
        entryId = -1;
        awaitingStart = started = false;
        if (mpv && stopPlayer) {
            const char* cmd[] = {"stop", nullptr};
            mpv_command(mpv, cmd);
        }
        postStatus();
    }

    Result<std::string> urlFor(const PlayListItem& item) {
        auto path = item.metadata.path().value_or("");
        auto host = item.serverInfo ? item.serverInfo : server;
        if (item.isURL() || !host || host->protocolType == ProtocolType::Local) return path;
        auto client = WrapperProxy::clientForServerInfo(host);
        if (!client) return std::unexpected(client.error());
        auto streamURL = (*client)->loadStreamableURLForFileSync(item.metadata);
        if (!streamURL)
            return std::unexpected(
                playerError(fmt::format("\"{}\" cannot be streamed from its server.", path)));
        return *streamURL;
    }

    Status load(int pos) {
        if (!mpv) return std::unexpected(*initError);
        orderPos = pos;
        auto mode = static_cast<RepeatMode>(
            AppPreference::sharedAppPreference().integerForKey(PrefKey::MusicRepeat));
        runLast = pos;
        while (mode != RepeatMode::One && runLast + 1 < static_cast<int>(order.size())) {
            auto& a = items[order[runLast]];
            auto& b = items[order[runLast + 1]];
            if (!sameFile(a, b) || !a.endPlaybackTime ||
                std::abs(*a.endPlaybackTime - b.initialPlaybackTime) > 1e-6)
                break;
            ++runLast;
        }
        auto& item = current();
        auto target = urlFor(item);
        if (!target) {
            lastError = target.error();
            halt();
            return std::unexpected(target.error());
        }
        url = *target;
        NodeBuilder b;
        std::vector<std::pair<std::string, mpv_node>> options;
        if (item.initialPlaybackTime > 0)
            options.emplace_back("start", b.string(seconds(item.initialPlaybackTime)));
        if (auto& last = items[order[runLast]]; last.endPlaybackTime)
            options.emplace_back("end", b.string(seconds(*last.endPlaybackTime)));
        // Named arguments: the positions of loadfile's arguments differ between mpv versions.
        mpv_node cmd = b.map({{"name", b.string("loadfile")},
                              {"url", b.string(url)},
                              {"flags", b.string("replace")},
                              {"options", b.map(options)}});
        mpv_node result{};
        if (int err = mpv_command_node(mpv, &cmd, &result); err < 0) {
            lastError = playerError(
                fmt::format("\"{}\" cannot be played: {}.", item.songName, mpv_error_string(err)));
            halt();
            return std::unexpected(*lastError);
        }
        entryId = -1;
        setPause(!playing);
        if (result.format == MPV_FORMAT_NODE_MAP)
            for (int i = 0; i < result.u.list->num; ++i)
                if (std::string_view(result.u.list->keys[i]) == "playlist_entry_id" &&
                    result.u.list->values[i].format == MPV_FORMAT_INT64)
                    entryId = result.u.list->values[i].u.int64;
        mpv_free_node_contents(&result);
        awaitingStart = entryId < 0;
        started = false;
        ++loads;
        active = true;
        timePos.reset();
        lastError.reset();
        postItemChanged();
        return {};
    }

    void makeOrder(int startIndex, bool shuffled) {
        order.resize(items.size());
        std::iota(order.begin(), order.end(), 0);
        if (shuffled && !order.empty()) {
            std::swap(order[0], order[startIndex]);
            std::shuffle(order.begin() + 1, order.end(), random);
            orderPos = 0;
        } else {
            orderPos = startIndex;
        }
        runLast = orderPos;
    }

    void setPause(bool paused) {
        if (!mpv) return;
        int flag = paused ? 1 : 0;
        mpv_set_property(mpv, "pause", MPV_FORMAT_FLAG, &flag);
    }

    void postItemChanged() const {
        NotificationCenter::defaultCenter().post(
            MUSIC_ITEM_CHANGED_NOTIFICATION, {{"index", order[orderPos]}, {"playing", playing}});
    }
    void postStatus() const {
        NotificationCenter::defaultCenter().post(MUSIC_STATUS_CHANGED_NOTIFICATION,
                                                 {{"playing", playing}});
    }
};

MusicPlayerService& MusicPlayerService::sharedService() {
    static MusicPlayerService service;
    return service;
}

MusicPlayerService::MusicPlayerService(std::map<std::string, std::string> mpvOptions)
    : impl_(std::make_shared<Impl>()) {
    impl_->start(mpvOptions);
    if (impl_->mpv) {
        // "Volume" holds 0 to 1; mpv counts percent.
        auto kept = AppPreference::sharedAppPreference().valueForKey(PrefKey::Volume);
        double v = std::clamp(kept ? kept->toDouble() : 1.0, 0.0, 1.0) * 100;
        mpv_set_property(impl_->mpv, "volume", MPV_FORMAT_DOUBLE, &v);
    }
}

MusicPlayerService::~MusicPlayerService() {
    impl_->stop();
}

void MusicPlayerService::playItems(std::vector<PlayListItem> items, ServerInfoPtr fromServerInfo,
                                   int atIndex, Handler handler) {
    auto& d = *impl_;
    auto report = [&handler](std::optional<Error> e) {
        if (handler) MainQueue::shared().post([handler, e] { handler(e); });
    };
    if (items.empty()) return report(playerError("There is nothing to play."));
    d.items = std::move(items);
    d.server = std::move(fromServerInfo);
    atIndex = std::clamp(atIndex, 0, static_cast<int>(d.items.size()) - 1);
    d.makeOrder(atIndex, shuffle());
    d.playing = true;
    d.setPause(false);
    auto loaded = d.load(d.orderPos);
    if (loaded) d.postStatus();
    report(loaded ? std::nullopt : std::optional(loaded.error()));
}

void MusicPlayerService::play() {
    auto& d = *impl_;
    if (!d.active && !d.items.empty()) {
        d.playing = true;
        d.setPause(false);
        if (d.load(d.orderPos)) d.postStatus();
        return;
    }
    d.playing = true;
    d.setPause(false);
    d.postStatus();
}

void MusicPlayerService::pause() {
    auto& d = *impl_;
    d.playing = false;
    d.setPause(true);
    d.postStatus();
}

void MusicPlayerService::next() {
    auto& d = *impl_;
    if (d.items.empty()) return;
    int size = static_cast<int>(d.order.size());
    if (d.orderPos + 1 < size)
        (void)d.load(d.orderPos + 1);
    else if (repeatMode() == RepeatMode::All)
        (void)d.load(0);
}

void MusicPlayerService::previous() {
    auto& d = *impl_;
    if (d.items.empty()) return;
    if (d.orderPos > 0)
        (void)d.load(d.orderPos - 1);
    else if (repeatMode() == RepeatMode::All)
        (void)d.load(static_cast<int>(d.order.size()) - 1);
    else
        (void)d.load(0);
}

void MusicPlayerService::seek(double s) {
    auto& d = *impl_;
    if (!d.active || !d.mpv) return;
    auto& item = d.current();
    double target = item.initialPlaybackTime + std::max(0.0, s);
    if (item.endPlaybackTime) target = std::min(target, *item.endPlaybackTime);
    NodeBuilder b;
    mpv_node cmd = b.map({{"name", b.string("seek")},
                          {"target", b.string(seconds(target))},
                          {"flags", b.string("absolute+exact")}});
    mpv_command_node(d.mpv, &cmd, nullptr);
}

void MusicPlayerService::setVolume(double volume) {
    volume = std::clamp(volume, 0.0, 100.0);
    if (impl_->mpv) mpv_set_property(impl_->mpv, "volume", MPV_FORMAT_DOUBLE, &volume);
    AppPreference::sharedAppPreference().setValue(PlistValue(volume / 100), PrefKey::Volume);
}

double MusicPlayerService::volume() const {
    double v = 0;
    if (impl_->mpv) mpv_get_property(impl_->mpv, "volume", MPV_FORMAT_DOUBLE, &v);
    return v;
}

void MusicPlayerService::close() {
    auto& d = *impl_;
    d.halt();
    d.items.clear();
    d.order.clear();
    d.orderPos = d.runLast = 0;
}

MusicPlayerService::RepeatMode MusicPlayerService::repeatMode() const {
    auto v = AppPreference::sharedAppPreference().integerForKey(PrefKey::MusicRepeat);
    return v == 1 ? RepeatMode::All : v == 2 ? RepeatMode::One : RepeatMode::Off;
}

Status MusicPlayerService::setRepeatMode(RepeatMode mode) {
    auto& prefs = AppPreference::sharedAppPreference();
    prefs.setValue(PlistValue(static_cast<int>(mode)), PrefKey::MusicRepeat);
    return prefs.save();
}

bool MusicPlayerService::shuffle() const {
    return AppPreference::sharedAppPreference().boolForKey(PrefKey::MusicShuffle);
}

Status MusicPlayerService::setShuffle(bool on) {
    auto& d = *impl_;
    auto& prefs = AppPreference::sharedAppPreference();
    prefs.setValue(PlistValue(on), PrefKey::MusicShuffle);
    if (!d.items.empty()) d.makeOrder(d.order[d.orderPos], on);
    return prefs.save();
}

bool MusicPlayerService::isPlaying() const {
    return impl_->playing && impl_->active;
}
bool MusicPlayerService::isActive() const {
    return impl_->active;
}
int MusicPlayerService::currentIndex() const {
    return impl_->order.empty() ? 0 : impl_->order[impl_->orderPos];
}
const std::vector<PlayListItem>& MusicPlayerService::items() const {
    return impl_->items;
}
std::vector<int> MusicPlayerService::playOrder() const {
    return impl_->order;
}

std::optional<double> MusicPlayerService::position() const {
    auto& d = *impl_;
    if (!d.timePos || d.items.empty()) return std::nullopt;
    return *d.timePos - d.current().initialPlaybackTime;
}

std::optional<double> MusicPlayerService::itemDuration() const {
    auto& d = *impl_;
    if (d.items.empty()) return std::nullopt;
    auto& item = d.current();
    if (item.endPlaybackTime) return *item.endPlaybackTime - item.initialPlaybackTime;
    double total = 0;
    if (d.mpv && mpv_get_property(d.mpv, "duration", MPV_FORMAT_DOUBLE, &total) >= 0)
        return total - item.initialPlaybackTime;
    return item.duration;
}

std::string MusicPlayerService::currentURL() const {
    return impl_->url;
}
int MusicPlayerService::fileLoads() const {
    return impl_->loads;
}
std::optional<Error> MusicPlayerService::lastError() const {
    return impl_->lastError;
}
void MusicPlayerService::setTimeObserver(std::function<void(double)> observer) {
    impl_->timeObserver = std::move(observer);
}

}  // namespace quillon
