#include "core/NotificationCenter.h"

#include <vector>

#include "core/MainQueue.h"

namespace quillon {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter* center = new NotificationCenter();
    return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string_view name,
                                                          Observer observer) {
    std::lock_guard lock(mutex_);
    Token t = next_++;
    observers_.emplace(t, std::make_pair(std::string(name), std::move(observer)));
    return t;
}

void NotificationCenter::removeObserver(Token token) {
    std::lock_guard lock(mutex_);
    observers_.erase(token);
}

void NotificationCenter::post(std::string_view name, const UserInfo& userInfo) {
    std::vector<Observer> targets;
    {
        std::lock_guard lock(mutex_);
        for (auto& [token, entry] : observers_)
            if (entry.first == name) targets.push_back(entry.second);
    }
    // Called outside the lock so that an observer may add or remove observers.
    for (auto& fn : targets) fn(userInfo);
}

void NotificationCenter::postOnMainQueue(std::string_view name, UserInfo userInfo) {
    MainQueue::shared().post(
        [this, n = std::string(name), info = std::move(userInfo)] { post(n, info); });
}

}  // namespace quillon
