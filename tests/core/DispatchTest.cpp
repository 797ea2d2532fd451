// GCD, MainQueue and the connection pool: the threading contracts other code relies on.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "core/GCD.h"
#include "core/KvConnectionPool.h"
#include "core/MainQueue.h"
#include "support/TestEnv.h"

using namespace quillon;
using namespace std::chrono_literals;

namespace {

// A clock the test moves by hand, for MainQueue timers.
struct FakeSteadyClock {
    MainQueue::Clock::time_point now = MainQueue::Clock::now();
};

class CountingConnection : public KvConnection {
  public:
    explicit CountingConnection(std::atomic<int>& cleaned) : cleaned_(cleaned) {}
    void cleanup() override { ++cleaned_; }

  private:
    std::atomic<int>& cleaned_;
};

// A session whose close runs `onClose` before it ends.
class SlowToClose : public KvConnection {
  public:
    explicit SlowToClose(std::function<void()> onClose) : onClose_(std::move(onClose)) {}
    void cleanup() override { onClose_(); }

  private:
    std::function<void()> onClose_;
};

}  // namespace

TEST(GCD, DoOnceRunsOnlyTheFirstBlockEverPassed) {
    int first = 0, second = 0;
    GCD::doOnce([&] { ++first; });
    GCD::doOnce([&] { ++first; });
    GCD::doOnce([&] { ++second; });
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
}

TEST(GCD, SignalSemaReleasesEveryWaiter) {
    auto sema = GCD::initSema();
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] {
            if (GCD::waitSema(sema, 30.0)) ++released;
        });
    ASSERT_TRUE(test::waitUntil([&] { return sema->waiters() == 4; }));
    GCD::signalSema(sema);
    for (auto& t : waiters) t.join();
    EXPECT_EQ(released, 4);
    // Absent semaphores are harmless.
    GCD::signalSema(nullptr);
    EXPECT_FALSE(GCD::waitSema(nullptr, 1.0));
    // A wait with nobody signalling times out.
    EXPECT_FALSE(GCD::waitSema(GCD::initSema(), 0.01));
}

TEST(GCD, BackgroundQueueGrowsWhenEveryThreadIsBlocked) {
    // Transfer tasks block their thread for their whole run: five blocked tasks must not keep
    // a sixth from starting.
    auto gate = GCD::initSema();
    std::atomic<int> started{0};
    for (int i = 0; i < 5; ++i)
        // The gate by value: the waiters outlive this test's frame.
        GCD::doInBackground([&started, gate] {
            ++started;
            GCD::waitSema(gate, 30.0);
        });
    std::atomic<bool> sixth{false};
    GCD::doInBackground([&] { sixth = true; });
    EXPECT_TRUE(test::waitUntil([&] { return sixth && started == 5 && gate->waiters() == 5; }));
    for (int i = 0; i < 5; ++i) GCD::signalSema(gate);
    EXPECT_TRUE(test::waitUntil([&] { return gate->waiters() == 0; }));
}

TEST(MainQueue, RunsTasksInOrderAndTimersWhenDue) {
    auto& q = MainQueue::shared();
    FakeSteadyClock clock;
    q.setClock([&] { return clock.now; });
    std::vector<std::string> ran;
    q.post([&] { ran.push_back("a"); });
    auto oneShot = q.postAfter(10s, [&] { ran.push_back("timer"); });
    int ticks = 0;
    auto repeating = q.scheduleRepeating(30s, [&] { ++ticks; });
    q.post([&] { ran.push_back("b"); });
    q.pump();
    EXPECT_EQ(ran, (std::vector<std::string>{"a", "b"}));
    clock.now += 10s;
    q.pump();
    EXPECT_EQ(ran.back(), "timer");
    EXPECT_FALSE(q.hasTimer(oneShot));
    EXPECT_EQ(ticks, 0);
    clock.now += 20s;
    q.pump();
    EXPECT_EQ(ticks, 1);
    // Missed ticks are skipped, not replayed.
    clock.now += 95s;
    q.pump();
    EXPECT_EQ(ticks, 2);
    q.cancel(repeating);
    clock.now += 60s;
    q.pump();
    EXPECT_EQ(ticks, 2);
    q.setClock(nullptr);
}

TEST(MainQueue, CompletionsFromWorkersArriveOnTheMainThread) {
    auto& q = MainQueue::shared();
    std::atomic<bool> onMain{false};
    bool done = false;
    GCD::doInBackground([&] {
        GCD::doInForeground([&] {
            onMain = q.isMainThread();
            done = true;
        });
    });
    q.runUntil([&] { return done; });
    EXPECT_TRUE(onMain);
}

TEST(ConnectionPool, OldestFirstAndNewConnectionsOnlyFromTheClientsMaker) {
    KvConnectionPool pool;
    std::atomic<int> cleaned{0};
    auto maker = [&] { return std::make_shared<CountingConnection>(cleaned); };
    ServerInfo ftp;
    ftp.protocolType = ProtocolType::FTP;
    ServerInfo smb;
    smb.protocolType = ProtocolType::SMB;
    EXPECT_EQ(pool.retrieveConnection(smb), nullptr);
    ServerInfo sftp;
    sftp.protocolType = ProtocolType::SFTP;
    auto fresh = pool.retrieveConnection(sftp, maker);
    ASSERT_NE(fresh, nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<CountingConnection>(fresh), nullptr);
    // A new connection enters the pool only when handed back.
    EXPECT_EQ(pool.idleCount(sftp.serverID), 0u);

    auto a = pool.retrieveConnection(ftp, maker);
    auto b = pool.retrieveConnection(ftp, maker);
    ASSERT_NE(a, b);
    pool.recycleConnection(a);
    pool.recycleConnection(b);
    EXPECT_EQ(pool.idleCount(ftp.serverID), 2u);
    EXPECT_EQ(pool.retrieveConnection(ftp, maker), a);
    EXPECT_EQ(pool.retrieveConnection(ftp, maker), b);
    EXPECT_EQ(cleaned, 0);
    pool.stopTimer();
}

TEST(ConnectionPool, EvictsAfter300SecondsIdleAndStopsAndRestartsTheTimer) {
    auto& q = MainQueue::shared();
    FakeSteadyClock steady;
    q.setClock([&] { return steady.now; });
    KvConnectionPool pool;
    auto wall = std::chrono::system_clock::now();
    pool.setClock([&] { return wall; });

    std::atomic<int> cleaned{0};
    ServerInfo ftp;
    ftp.protocolType = ProtocolType::FTP;
    auto conn = std::make_shared<CountingConnection>(cleaned);
    conn->serverInfo = std::make_shared<ServerInfo>(ftp);
    EXPECT_FALSE(pool.timerRunning());
    pool.recycleConnection(conn);
    EXPECT_TRUE(pool.timerRunning());

    // At 300 s it is not yet idle for more than 300 s.
    wall += 300s;
    pool.manageConnectionPool();
    EXPECT_EQ(cleaned, 0);
    EXPECT_TRUE(pool.timerRunning());

    // At 301 s the next 30-second tick cleans it up; with nothing left the timer stops.
    wall += 1s;
    steady.now += 30s;
    q.pump();  // the tick hands the pass to the background queue
    test::waitUntil([&] { return !pool.timerRunning(); });
    EXPECT_EQ(cleaned, 1);
    EXPECT_EQ(pool.idleCount(ftp.serverID), 0u);
    EXPECT_FALSE(pool.timerRunning());

    // The next hand-back starts it again.
    auto again = std::make_shared<CountingConnection>(cleaned);
    again->serverInfo = conn->serverInfo;
    pool.recycleConnection(again);
    EXPECT_TRUE(pool.timerRunning());

    // Clearing drops connections without cleaning them up.
    pool.clear();
    EXPECT_EQ(pool.idleCount(ftp.serverID), 0u);
    EXPECT_EQ(cleaned, 1);
    pool.stopTimer();
    q.setClock(nullptr);
}

// Closing an idle session may wait for its server a long time (an FTP QUIT): the pool lets go of
// its lock first, and other threads keep using it meanwhile.
TEST(ConnectionPool, ClosesIdleSessionsOutsideItsLockAndMakesNewOnesThroughTheClient) {
    KvConnectionPool pool;
    auto wall = std::chrono::system_clock::now();
    pool.setClock([&] { return wall; });
    ServerInfo server;
    server.protocolType = ProtocolType::FTP;
    std::atomic<bool> otherThreadServed{false};
    // Outlives the close, so that a pool that closes under its lock fails instead of hanging.
    std::future<bool> served;
    auto idle = pool.retrieveConnection(server, [&] {
        return std::make_shared<SlowToClose>([&] {
            // While this session closes, another thread takes a session of the same server.
            served = std::async(std::launch::async, [&] {
                return pool.retrieveConnection(
                           server, [] { return std::make_shared<SlowToClose>([] {}); }) != nullptr;
            });
            if (served.wait_for(30s) == std::future_status::ready) otherThreadServed = served.get();
        });
    });
    ASSERT_TRUE(idle && idle->serverInfo);
    EXPECT_EQ(idle->serverInfo->serverID, server.serverID);
    pool.recycleConnection(idle);
    wall += 301s;
    pool.manageConnectionPool();
    EXPECT_TRUE(otherThreadServed) << "the pool was locked while a session closed";
    EXPECT_EQ(pool.idleCount(server.serverID), 0u);
    EXPECT_FALSE(pool.timerRunning());
}
