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

typedef void CURL;
typedef void CURLM;

namespace quillon {

class KvConnection {
  public:
    virtual ~KvConnection() = default;
    ServerInfoPtr serverInfo;
    std::chrono::system_clock::time_point lastUsedTime;
    // Closes the underlying session.
    virtual void cleanup() = 0;
};
using KvConnectionPtr = std::shared_ptr<KvConnection>;

// One libcurl easy handle, driven through a multi handle of its own that keeps the session
// (the control connection of FTP) between requests.
class CURLConnection : public KvConnection {
  public:
    CURLConnection();
    ~CURLConnection() override;
    CURL* curl() const { return curl_; }
    // Runs the request configured on the handle to its end; libcurl's result code.
    // curl_easy_perform is not used: on a reused FTP connection it can leave libcurl with no
    // socket to wait on between PASV and its reply, and each such request then stalls for a
    // full second. `shouldStop`, asked at least every 250 ms, ends the request early with
    // CURLE_ABORTED_BY_CALLBACK (42), also while a server keeps silent.
    int perform(const std::function<bool()>& shouldStop = nullptr);
    // Refuses further reply bytes (write and header callbacks that take nothing), then frees the
    // handle and closes its session.
    void cleanup() override;

  private:
    CURL* curl_ = nullptr;
    CURLM* multi_ = nullptr;
};

class KvConnectionPool {
  public:
    static KvConnectionPool& sharedInstance();
    // A fresh pool, for tests.
    KvConnectionPool();

    // The oldest idle connection of the server (not tested for liveness), a new CURLConnection
    // for FTP and SFTP servers, or none.
    KvConnectionPtr retrieveConnection(const ServerInfo& server);
    // Hands a connection back: stamps it, appends it to its server's list, starts the timer.
    void recycleConnection(const KvConnectionPtr& connection);
    // Drops every idle connection without cleaning them up.
    static void clearConnectionPool();
    void clear();

    // One eviction pass: connections idle for more than 300 s are cleaned up; the timer stops
    // when nothing is left.
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
