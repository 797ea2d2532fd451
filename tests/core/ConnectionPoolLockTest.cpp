// The connection pool closes idle sessions after letting go of its lock: closing one may wait
// for the server for a long time (an FTP QUIT), and other threads keep using the pool meanwhile.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "core/KvConnectionPool.h"

using namespace quillon;
using namespace std::chrono_literals;

namespace {

// A session whose close runs `onClose` before it ends.
class SlowToClose : public KvConnection {
  public:
    explicit SlowToClose(std::function<void()> onClose) : onClose_(std::move(onClose)) {}
    void cleanup() override { onClose_(); }

  private:
    std::function<void()> onClose_;
};

}  // namespace

TEST(ConnectionPool, ClosesIdleSessionsOutsideItsLockAndMakesNewOnesThroughTheClient) {
    KvConnectionPool pool;
    auto wall = std::chrono::system_clock::now();
    pool.setClock([&] { return wall; });
    ServerInfo server;
    server.protocolType = ProtocolType::FTP;

    // Without a maker there is nothing to hand out; with one, the client's kind of session.
    EXPECT_EQ(pool.retrieveConnection(server), nullptr);
    std::atomic<bool> otherThreadServed{false};
    // Outlives the close, so that a pool that closes under its lock fails instead of hanging.
    std::future<bool> served;
    auto maker = [&] {
        return std::make_shared<SlowToClose>([&] {
            // While this session closes, another thread takes a session of the same server.
            served = std::async(std::launch::async, [&] {
                auto fresh = pool.retrieveConnection(
                    server, [] { return std::make_shared<SlowToClose>([] {}); });
                return fresh != nullptr;
            });
            if (served.wait_for(30s) == std::future_status::ready) otherThreadServed = served.get();
        });
    };
    auto idle = pool.retrieveConnection(server, maker);
    ASSERT_NE(idle, nullptr);
    ASSERT_TRUE(idle->serverInfo);
    EXPECT_EQ(idle->serverInfo->serverID, server.serverID);
    pool.recycleConnection(idle);
    EXPECT_EQ(pool.retrieveConnection(server, maker), idle) << "an idle session is reused first";
    pool.recycleConnection(idle);

    wall += 301s;
    pool.manageConnectionPool();
    EXPECT_TRUE(otherThreadServed) << "the pool was locked while a session closed";
    EXPECT_EQ(pool.idleCount(server.serverID), 0u);
    EXPECT_FALSE(pool.timerRunning());
}
