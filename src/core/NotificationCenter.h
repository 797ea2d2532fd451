#pragma once
// Program-wide notifications: observers register for a name and get the user-info dictionary.

#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace quillon {

inline constexpr std::string_view REFRESH_FOLDER_NOTIFICATION = "REFRESH_FOLDER_NOTIFICATION";
inline constexpr std::string_view REFRESH_FOLDER_USER_INFO = "REFRESH_FOLDER_USER_INFO";
inline constexpr std::string_view SYNC_COMPLETED_NOTIFICATION = "SYNC_COMPLETED_NOTIFICATION";
inline constexpr std::string_view SYNC_NOTIFICATION_INFO = "SYNC_NOTIFICATION_INFO";
inline constexpr std::string_view MUSIC_STATUS_CHANGED_NOTIFICATION =
    "MUSIC_STATUS_CHANGED_NOTIFICATION";
inline constexpr std::string_view MUSIC_ITEM_CHANGED_NOTIFICATION =
    "MUSIC_ITEM_CHANGED_NOTIFICATION";

using UserInfo = std::map<std::string, std::any>;

class NotificationCenter {
  public:
    using Observer = std::function<void(const UserInfo&)>;
    using Token = std::uint64_t;

    static NotificationCenter& defaultCenter();

    // Calls `observer` for every later post of `name`, on the posting thread.
    Token addObserver(std::string_view name, Observer observer);
    void removeObserver(Token token);
    // Delivers to every observer of `name` synchronously, in registration order.
    void post(std::string_view name, const UserInfo& userInfo = {});
    // Delivers on the main queue instead of the calling thread.
    void postOnMainQueue(std::string_view name, UserInfo userInfo = {});

  private:
    std::mutex mutex_;
    std::map<Token, std::pair<std::string, Observer>> observers_;
    Token next_ = 1;
};

}  // namespace quillon
