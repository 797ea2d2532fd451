#pragma once
// AppPreference: the one preference store, "pref.plist" in the data folder. Defaults ship as a
// resource of the same name; a missing file is seeded from it.

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "core/Plist.h"

namespace quillon {

namespace PrefKey {
inline constexpr std::string_view InitializeApp = "Initialize App";
inline constexpr std::string_view SYS_SHOW_HIDDEN_FILES = "SYS_SHOW_HIDDEN_FILES";
inline constexpr std::string_view SYS_DISPLAY_FILE_EXTENSION = "SYS_DISPLAY_FILE_EXTENSION";
inline constexpr std::string_view SYS_AUTO_GEN_THUMBNAIL = "SYS_AUTO_GEN_THUMBNAIL";
inline constexpr std::string_view SYS_AUTO_SYNC_CONN = "SYS_AUTO_SYNC_CONN";
inline constexpr std::string_view SYS_ENABLE_NETWORK_DISCOVERY = "SYS_ENABLE_NETWORK_DISCOVERY";
inline constexpr std::string_view MaxSimultaneousTransfers = "Max Simultaneous Transfers";
inline constexpr std::string_view MAX_CACHE_SIZE = "MAX_CACHE_SIZE";
inline constexpr std::string_view TextEncoding = "Text Encoding";
inline constexpr std::string_view ViewType = "View Type";
inline constexpr std::string_view LISTVIEW_CELL_SIZE = "LISTVIEW_CELL_SIZE";
inline constexpr std::string_view THUMBVIEW_CELL_SIZE = "THUMBVIEW_CELL_SIZE";
inline constexpr std::string_view CELL_ADJUSTMENT_USER_INFO = "CELL_ADJUSTMENT_USER_INFO";
inline constexpr std::string_view SortType = "Sort Type";
inline constexpr std::string_view SortOrder = "Sort Order";
inline constexpr std::string_view DualPanelMode = "Dual Panel Mode";
inline constexpr std::string_view LAUNCH_WINDOW_WIDTH = "LAUNCH_WINDOW_WIDTH";
inline constexpr std::string_view LAUNCH_WINDOW_HEIGHT = "LAUNCH_WINDOW_HEIGHT";
inline constexpr std::string_view FTP_SERVER_LOCATION = "FTP_SERVER_LOCATION";
inline constexpr std::string_view FTP_SERVER_PORT = "FTP_SERVER_PORT";
inline constexpr std::string_view FTP_SERVER_USERNAME = "FTP_SERVER_USERNAME";
inline constexpr std::string_view FTP_SERVER_PASSWORD = "FTP_SERVER_PASSWORD";
inline constexpr std::string_view MusicRepeat = "Music Repeat";
inline constexpr std::string_view MusicShuffle = "Music Shuffle";
inline constexpr std::string_view Volume = "Volume";
inline constexpr std::string_view VideoPlayerRepeatMode = "Video Player Repeat Mode";
inline constexpr std::string_view SlideshowInterval = "Slideshow Interval";
inline constexpr std::string_view SlideshowRepeat = "Slideshow Repeat";
inline constexpr std::string_view SlideshowShuffle = "Slideshow Shuffle";
inline constexpr std::string_view NearbyLocation = "Nearby Location";
inline constexpr std::string_view NumberOfLaunchedTimes = "Number of Launched Times";
// The folder shared between installations that mirrors the server list (empty: none).
inline constexpr std::string_view CLOUD_SYNC_FOLDER = "CLOUD_SYNC_FOLDER";
}  // namespace PrefKey

class AppPreference {
  public:
    static AppPreference& sharedAppPreference();

    std::optional<PlistValue> valueForKey(std::string_view key) const;
    // False when absent.
    bool boolForKey(std::string_view key) const;
    // 0 when absent.
    std::int64_t integerForKey(std::string_view key) const;
    std::string stringForKey(std::string_view key) const;
    // Stores the value; does not write the file.
    void setValue(PlistValue value, std::string_view key);
    // Whether a setting may take `value`; callers that take settings from a person ask first.
    // "Max Simultaneous Transfers" must be 1 or more (with 0 no transfer would ever start).
    static Status checkValue(std::string_view key, const PlistValue& value);
    void removeValueForKey(std::string_view key);
    // Writes the whole store to "pref.plist" atomically, readable by the user only.
    Status save();
    // Reads "pref.plist", seeding it from the shipped defaults when missing. A file that cannot
    // be read is kept aside (renamed) and the defaults are used; the error says so.
    Status load();
    std::string prefFilePath() const;
    PlistDict snapshot() const;
    // The error of the latest load (a corrupt file kept aside), for the application to report.
    std::optional<Error> loadError() const;
    // The same error, cleared by taking it, so that it is reported once.
    std::optional<Error> takeLoadError();

  private:
    AppPreference();
    mutable std::mutex mutex_;
    PlistDict prefDic_;
    std::optional<Error> loadError_;
    // Set while an unreadable "pref.plist" could not be moved aside: save must not replace it.
    bool fileProtected_ = false;
};

}  // namespace quillon
