#include "core/KvConnectionPool.h"

#include <thread>
#include <vector>

#include "core/GCD.h"

namespace quillon {

KvConnectionPool& KvConnectionPool::sharedInstance() {
    static KvConnectionPool* pool = new KvConnectionPool();
    return *pool;
}

KvConnectionPool::KvConnectionPool() = default;

void KvConnectionPool::setClock(std::function<std::chrono::system_clock::time_point()> now) {
    std::lock_guard lock(mutex_);
    clock_ = std::move(now);
}

std::chrono::system_clock::time_point KvConnectionPool::now() const {
    return clock_ ? clock_() : std::chrono::system_clock::now();
}

KvConnectionPtr KvConnectionPool::retrieveConnection(
    const ServerInfo& server, const std::function<KvConnectionPtr()>& makeNew) {
    {
        std::lock_guard lock(mutex_);
        auto it = connDict_.find(server.serverID);
        if (it != connDict_.end() && !it->second.empty()) {
            auto conn = it->second.front();
            it->second.pop_front();
            return conn;
        }
    }
    // A new session is the client's to make, and making it needs no lock of the pool.
    if (!makeNew) return nullptr;
    auto conn = makeNew();
    if (conn) conn->serverInfo = std::make_shared<ServerInfo>(server);
    return conn;
}

void KvConnectionPool::recycleConnection(const KvConnectionPtr& connection) {
    if (!connection || !connection->serverInfo) return;
    std::lock_guard lock(mutex_);
    connection->lastUsedTime = now();
    connDict_[connection->serverInfo->serverID].push_back(connection);
    if (!timer_) startTimer();
}

void KvConnectionPool::clearConnectionPool() {
    sharedInstance().clear();
}

void KvConnectionPool::clear() {
    std::lock_guard lock(mutex_);
    connDict_.clear();
}

void KvConnectionPool::manageConnectionPool() {
    std::vector<KvConnectionPtr> expired;
    {
        std::lock_guard lock(mutex_);
        bool allEmpty = true;
        auto t = now();
        for (auto& [id, conns] : connDict_) {
            for (auto it = conns.begin(); it != conns.end();) {
                if (std::chrono::duration<double>(t - (*it)->lastUsedTime).count() > kIdleLimit) {
                    expired.push_back(std::move(*it));
                    it = conns.erase(it);
                } else {
                    ++it;
                }
            }
            if (!conns.empty()) allEmpty = false;
        }
        if (allEmpty && timer_) stopTimer();
    }
    // Closing a session may wait for the server (an FTP QUIT, up to 30 s): meanwhile other
    // threads take and hand back sessions as usual.
    for (auto& conn : expired) conn->cleanup();
}

void KvConnectionPool::startTimer() {
    std::lock_guard lock(mutex_);
    if (timer_) return;
    // The timer lives on the main queue; its tick does the eviction pass in the background, since
    // closing an FTP session waits for the server's reply to QUIT.
    timer_ = MainQueue::shared().scheduleRepeating(
        std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::duration<double>(kTimerInterval)),
        [this] { GCD::doInBackground([this] { manageConnectionPool(); }); });
}

void KvConnectionPool::stopTimer() {
    std::lock_guard lock(mutex_);
    if (timer_) MainQueue::shared().cancel(*timer_);
    timer_.reset();
}

bool KvConnectionPool::timerRunning() const {
    std::lock_guard lock(mutex_);
    return timer_.has_value();
}

std::size_t KvConnectionPool::idleCount(const std::string& serverID) const {
    std::lock_guard lock(mutex_);
    auto it = connDict_.find(serverID);
    return it == connDict_.end() ? 0 : it->second.size();
}

}  // namespace quillon
