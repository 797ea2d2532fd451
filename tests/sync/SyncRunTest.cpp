// Runs of a sync pair as the pair's store sees them: a refused run, and what a run costs the
// server.

#include <gtest/gtest.h>

#include <atomic>

#include "clients/local/LocalWrapper.h"
#include "core/WrapperProxy.h"
#include "sync/SyncTestKit.h"

namespace quillon::test {
namespace {

// The local client, counting the folder listings a sync asks of it; a lookup of one item is
// not counted as one, whatever the client does for it.
class CountingLocalClient : public LocalWrapper {
  public:
    using LocalWrapper::LocalWrapper;
    static inline std::atomic<int> listings{0};
    Result<KvMetadataList> contentsOfDirectoryAtPathSync(const KvMetadata& folder) override {
        if (!lookingUp_) ++listings;
        return LocalWrapper::contentsOfDirectoryAtPathSync(folder);
    }
    Result<KvMetadata> metadataOfItemSync(const KvMetadata& item) override {
        lookingUp_ = true;
        auto found = LocalWrapper::metadataOfItemSync(item);
        lookingUp_ = false;
        return found;
    }

  private:
    bool lookingUp_ = false;
};

void useLocalClient(bool counting) {
    WrapperProxy::registerClass("LocalWrapper", [counting](ServerInfoPtr info) -> WrapperPtr {
        if (counting) return std::make_shared<CountingLocalClient>(std::move(info));
        return std::make_shared<LocalWrapper>(std::move(info));
    });
}

TEST(SyncRun, ARunRefusedBecauseThePairIsBusyLeavesTheRunningPairsStateAlone) {
    LocalPair p("busy");
    SyncInfo info = p.info;
    writeFile(p.r("a.txt"), "a");
    // The other run (in this process or another): it holds the pair's lock and has stored
    // "running" with its start time.
    std::filesystem::create_directories(p.local);
    int fd = ::open(p.l(SyncUtils::kLockFileName).c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::flock(fd, LOCK_EX), 0);
    EXPECT_TRUE(SyncUtils::isSyncRunning(p.local));
    info.status = SyncStatus::Running;
    info.lastSyncDate = timeAt(1700000000.5);
    ASSERT_TRUE(SyncInfoService::sharedInstance().updateSyncStatus(info));

    int notifications = 0;
    auto token = NotificationCenter::defaultCenter().addObserver(
        SYNC_COMPLETED_NOTIFICATION, [&](const UserInfo&) { ++notifications; });
    for (bool dryRun : {false, true}) {
        SyncOptions options = quickOptions();
        options.dryRun = dryRun;
        auto busy = runSync(info, options);
        ASSERT_EQ(busy.state(), TransferTaskState::Failed) << dryRun;
        EXPECT_EQ(busy.task->error()->code, SyncTask::kErrorBusy);
        EXPECT_EQ(busy.stored.status, SyncStatus::Running) << dryRun;
        ASSERT_TRUE(busy.stored.lastSyncDate);
        EXPECT_NEAR(secondsOf(*busy.stored.lastSyncDate), 1700000000.5, 0.001);
        EXPECT_TRUE(busy.decisions.empty());
    }
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_EQ(notifications, 0);
    EXPECT_FALSE(exists(p.l("a.txt")));
    ::close(fd);

    // Once the other run is over, the pair syncs and records its own outcome.
    auto run = runSync(info);
    ASSERT_EQ(run.state(), TransferTaskState::Completed);
    EXPECT_EQ(run.stored.status, SyncStatus::Succeeded);
    EXPECT_GT(secondsOf(*run.stored.lastSyncDate), 1700000001.0);
    EXPECT_EQ(readFile(p.l("a.txt")), "a");
}

TEST(SyncRun, NewFilesInOneFolderCostNoListingEach) {
    LocalPair p("count");
    for (int i = 0; i < 30; ++i) writeFile(p.l("sub/f" + std::to_string(i) + ".txt"), "x");
    CountingLocalClient::listings = 0;
    useLocalClient(true);
    auto run = runSync(p.info);
    useLocalClient(false);
    ASSERT_EQ(run.state(), TransferTaskState::Completed);
    EXPECT_EQ(run.summary().uploaded, 30);
    EXPECT_EQ(run.summary().remoteFoldersCreated, 1);
    EXPECT_EQ(readFile(p.r("sub/f29.txt")), "x");
    // The ability check (two) and the plan (one): carrying the plan out lists nothing.
    EXPECT_EQ(CountingLocalClient::listings.load(), 3);
    PairRecords records(p.info);
    EXPECT_TRUE(records.hasRemote(p.r("sub/f0.txt")));
    EXPECT_TRUE(records.hasRemote(p.r("sub"), true));
}

}  // namespace
}  // namespace quillon::test
