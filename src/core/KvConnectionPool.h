#pragma once
// Idle pooled sessions per server: taken before a request, handed back after it, cleaned up
// after 300 s idle by a 30-second timer on the main queue.

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "core/MainQueue.h"
#include "core/ServerInfo.h"

namespace quillon {

// A pooled session of any client: the pool keeps it idle between requests and closes it when
// it has been idle too long.
class KvConnection {
  public:
    virtual ~KvConnection() = default;
    ServerInfoPtr serverInfo;
    std::chrono::system_clock::time_point lastUsedTime;
    // Closes the underlying session.
    virtual void cleanup() = 0;
};
using KvConnectionPtr = std::shared_ptr<KvConnection>;

class KvConnectionPool {
  public:
    static KvConnectionPool& sharedInstance();
    // A fresh pool, for tests.
    KvConnectionPool();

    // The oldest idle connection of the server (not tested for liveness), else a new one from
    // `makeNew` (the client's kind of session; its serverInfo is set to a copy of `server`), or
    // none without it.
    KvConnectionPtr retrieveConnection(const ServerInfo& server,
                                       const std::function<KvConnectionPtr()>& makeNew = {});
    // Hands a connection back: stamps it, appends it to its server's list, starts the timer.
    void recycleConnection(const KvConnectionPtr& connection);
    // Drops every idle connection without cleaning them up.
    static void clearConnectionPool();
    void clear();

    // One eviction pass: connections idle for more than 300 s leave the pool and are cleaned up
    // after the pool's lock is released; the timer stops when nothing is left.
    void manageConnectionPool();
    void startTimer();
    void stopTimer();
    bool timerRunning() const;
    std::size_t idleCount(const std::string& serverID) const;

    // Tests replace the clock used for idle times.
    void setClock(std::function<std::chrono::system_clock::time_point()> now);

    static constexpr double kTimerInterval = 30.0;
    static constexpr double kIdleLimit = 300.0;

  private:
    std::chrono::system_clock::time_point now() const;
    mutable std::recursive_mutex mutex_;
    std::map<std::string, std::deque<KvConnectionPtr>> connDict_;
    std::optional<MainQueue::TimerId> timer_;
    std::function<std::chrono::system_clock::time_point()> clock_;
};

}  // namespace quillon
