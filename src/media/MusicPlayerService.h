#pragma once
// MusicPlayerService: plays a list of PlayListItems through libmpv, keeping the repeat mode and
// the shuffle flag in the preferences "Music Repeat" and "Music Shuffle".
//
// Posts MUSIC_STATUS_CHANGED_NOTIFICATION after play, pause, close and when a list plays out,
// and MUSIC_ITEM_CHANGED_NOTIFICATION when another item starts (user info: "index", the item's
// position in the list, and "playing"). Remote items are read through the streaming URL of their
// client. The CUE tracks of one file that follow each other in play order are one slice of the
// file, so the player never stops between them.
//
// Repeat modes: Off plays the play order once and stops; All starts the same order again after
// the last item; One plays the current item again and again (next and previous still move).
// Shuffle: the play order is a random permutation of the list, drawn when a list starts or when
// shuffle is switched on, that begins with the current item; with repeat All the same order is
// played again. Without shuffle the order is the list's.
//
// Every call is made on the main thread; mpv's events are handled on the main queue.

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "media/PlayList.h"

namespace quillon {

class MusicPlayerService {
  public:
    enum class RepeatMode : int { Off = 0, All = 1, One = 2 };
    using Handler = std::function<void(std::optional<Error>)>;

    static MusicPlayerService& sharedService();
    // `mpvOptions` are set before the player starts (for example "ao" = "null").
    explicit MusicPlayerService(std::map<std::string, std::string> mpvOptions = {});
    ~MusicPlayerService();
    MusicPlayerService(const MusicPlayerService&) = delete;
    MusicPlayerService& operator=(const MusicPlayerService&) = delete;

    // Starts the list at `atIndex` (a position in `items`); `handler` gets the error when the
    // first item cannot be opened (no player, no URL), else none once it is loading.
    void playItems(std::vector<PlayListItem> items, ServerInfoPtr fromServerInfo, int atIndex,
                   Handler handler);
    void play();
    void pause();
    void next();
    void previous();
    // Moves to `seconds` into the current item (clamped to its slice).
    void seek(double seconds);
    // 0 to 100 percent, kept in the preference "Volume" (as 0 to 1).
    void setVolume(double volume);
    double volume() const;
    // Stops and forgets the list.
    void close();

    RepeatMode repeatMode() const;
    [[nodiscard]] Status setRepeatMode(RepeatMode mode);
    bool shuffle() const;
    [[nodiscard]] Status setShuffle(bool shuffle);

    bool isPlaying() const;
    // Whether a list is loaded and has not played out or been closed.
    bool isActive() const;
    int currentIndex() const;
    const std::vector<PlayListItem>& items() const;
    // The positions in `items` in the order they play.
    std::vector<int> playOrder() const;
    // Seconds into the current item, as the player reports it.
    std::optional<double> position() const;
    // The current item's length when known (its slice, or the file's duration).
    std::optional<double> itemDuration() const;
    // The URL the player was last given.
    std::string currentURL() const;
    // Files the player has opened since it was made (a run of CUE tracks opens its file once).
    int fileLoads() const;
    // The error that stopped playback, if any.
    std::optional<Error> lastError() const;
    // Called on the main queue with the player's time in the file at every update.
    void setTimeObserver(std::function<void(double timeInFile)> observer);

    struct Impl;

  private:
    std::shared_ptr<Impl> impl_;
};

}  // namespace quillon
