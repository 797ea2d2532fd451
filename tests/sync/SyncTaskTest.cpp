// The sync algorithm against a local folder acting as the remote side.

#include <gtest/gtest.h>

#include <atomic>

#include "sync/SyncTestKit.h"

namespace quillon::test {
namespace {

using Tree = std::map<std::string, std::string>;

double nowSeconds() {
    return secondsOf(std::chrono::system_clock::now());
}

TEST(SyncTask, FirstSyncOfAnEmptyLocalFolderDownloadsEverythingAndRecordsEveryItem) {
    LocalPair p("first");
    double t0 = wholeMinutesAgo(60);
    writeWithTime(p.r("a.txt"), "alpha", t0);
    writeWithTime(p.r("sub/b.txt"), "beta", t0 + 7.25);
    writeWithTime(p.r("sub/deeper/c.txt"), "gamma", t0 + 3);
    std::filesystem::create_directories(p.r("empty"));

    std::optional<SyncInfo> notified;
    auto token = NotificationCenter::defaultCenter().addObserver(
        SYNC_COMPLETED_NOTIFICATION, [&](const UserInfo& u) {
            auto it = u.find(std::string(SYNC_NOTIFICATION_INFO));
            if (it != u.end()) notified = std::any_cast<SyncInfo>(it->second);
        });
    double before = nowSeconds();
    // The progress total is the whole run's from its first transfer on (5 + 4 + 5 bytes).
    std::vector<std::int64_t> totals;
    auto run = runSync(p.info, quickOptions(), [&](SyncTask& task, const SyncDecision&) {
        totals.push_back(task.totalBytes());
    });
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_EQ(totals, std::vector<std::int64_t>(totals.size(), 14));
    EXPECT_EQ(run.task->transferredBytes(), 14);

    ASSERT_EQ(run.state(), TransferTaskState::Completed) << run.task->error()->describe();
    EXPECT_EQ(treeOf(p.local), treeOf(p.remote.path()));
    // The local copies carry the server's times, so the next run sees them unchanged.
    EXPECT_NEAR(mtimeOf(p.l("sub/b.txt")), t0 + 7.25, 0.001);
    auto s = run.summary();
    EXPECT_EQ(s.downloaded, 3);
    EXPECT_EQ(s.localFoldersCreated, 3);
    EXPECT_EQ(s.uploaded + s.deletedLocal + s.deletedRemote, 0);

    PairRecords records(p.info);
    for (auto rel : {"a.txt", "sub/b.txt", "sub/deeper/c.txt"}) {
        EXPECT_TRUE(records.hasLocal(p.l(rel))) << rel;
        EXPECT_TRUE(records.hasRemote(p.r(rel))) << rel;
    }
    for (auto rel : {"sub", "sub/deeper", "empty"}) {
        EXPECT_TRUE(records.hasLocal(p.l(rel), true)) << rel;
        EXPECT_TRUE(records.hasRemote(p.r(rel), true)) << rel;
    }
    KvMetadata b(p.r("sub/b.txt"));
    auto rec = records.remote->getRemoteItemByRemoteMeta(b);
    ASSERT_TRUE(rec);
    EXPECT_EQ(rec->fileSizeInBytes, 4u);
    EXPECT_NEAR(secondsOf(*rec->timestamp), t0 + 7.25, 0.001);
    EXPECT_EQ(rec->parentFolderMeta->pathOrEmpty(), p.r("sub"));

    EXPECT_EQ(run.stored.status, SyncStatus::Succeeded);
    ASSERT_TRUE(run.stored.lastSyncDate);
    EXPECT_GE(secondsOf(*run.stored.lastSyncDate), before - 0.01);
    ASSERT_TRUE(notified);
    EXPECT_EQ(notified->syncInfoID, p.info.syncInfoID);
    EXPECT_EQ(notified->status, SyncStatus::Succeeded);
    // The ability check leaves nothing behind on the server.
    EXPECT_FALSE(exists(p.r(SyncTask::kTestFileName)));
}

TEST(SyncTask, TheLaterVersionWinsOnBothSidesAndTheLocalLoserFollowsInTheSameRun) {
    LocalPair p("both");
    double t0 = wholeMinutesAgo(120);
    writeWithTime(p.r("x.txt"), "x v1", t0);
    writeWithTime(p.r("y.txt"), "y v1", t0);
    // Never synced: the server's newer file replaces an older local one of the same name, which
    // is kept beside it and sent to the server too.
    writeWithTime(p.r("first.txt"), "first, on the server (later)", t0 + 50);
    writeWithTime(p.l("first.txt"), "first, here", t0);
    ASSERT_EQ(runSync(p.info).state(), TransferTaskState::Completed);
    EXPECT_EQ(readFile(p.l("first.txt")), "first, on the server (later)");
    EXPECT_EQ(readFile(p.l("first.txt.original")), "first, here");
    EXPECT_EQ(readFile(p.r("first.txt.original")), "first, here");

    writeWithTime(p.l("x.txt"), "x local edit", t0 + 100);
    writeWithTime(p.r("x.txt"), "x remote edit (later)", t0 + 200);
    writeWithTime(p.l("y.txt"), "y local edit (later)", t0 + 200);
    writeWithTime(p.r("y.txt"), "y remote edit", t0 + 100);
    auto run = runSync(p.info);
    ASSERT_EQ(run.state(), TransferTaskState::Completed);
    EXPECT_EQ(readFile(p.l("x.txt")), "x remote edit (later)");
    EXPECT_EQ(readFile(p.r("x.txt")), "x remote edit (later)");
    EXPECT_EQ(readFile(p.l("y.txt")), "y local edit (later)");
    EXPECT_EQ(readFile(p.r("y.txt")), "y local edit (later)");
    EXPECT_EQ(run.summary().conflicts, 2);
    // The local version that lost is kept beside it, and reaches the server in the same run.
    EXPECT_EQ(readFile(p.l("x.txt.original")), "x local edit");
    EXPECT_EQ(readFile(p.r("x.txt.original")), "x local edit");
    EXPECT_EQ(treeOf(p.local), treeOf(p.remote.path()));
    auto settled = runSync(p.info);
    EXPECT_TRUE(settled.decisions.empty()) << ::testing::PrintToString(settled.decisionTexts());
}

TEST(SyncTask, TimesOneSecondApartCountAsUnchanged) {
    LocalPair p("fuzzy");
    double t0 = wholeMinutesAgo(45);
    writeWithTime(p.r("f.txt"), "same", t0);
    ASSERT_EQ(runSync(p.info).state(), TransferTaskState::Completed);

    // Content differs, times are 0.9 s apart from the records: neither side counts as changed.
    writeWithTime(p.l("f.txt"), "local", t0 + 0.9);
    writeWithTime(p.r("f.txt"), "remote", t0 - 0.9);
    auto quiet = runSync(p.info);
    EXPECT_TRUE(quiet.decisions.empty()) << ::testing::PrintToString(quiet.decisionTexts());
    EXPECT_EQ(readFile(p.r("f.txt")), "remote");

    writeWithTime(p.l("f.txt"), "local later", t0 + 1.5);
    auto changed = runSync(p.info);
    EXPECT_EQ(changed.decisionTexts(), std::vector<std::string>{"upload f.txt"});
    EXPECT_EQ(readFile(p.r("f.txt")), "local later");
}

TEST(SyncTask, AServerRefusingTheTestFileStopsBeforeAnyUserFileIsTouched) {
    LocalPair p("refusing");
    writeFile(p.r("remote-only.txt"), "on the server");
    // A folder of the test file's name makes its upload fail.
    std::filesystem::create_directories(p.r(SyncTask::kTestFileName));
    std::filesystem::create_directories(p.local);
    writeFile(p.l("local-only.txt"), "here");

    auto run = runSync(p.info);
    ASSERT_EQ(run.state(), TransferTaskState::Failed);
    auto error = run.task->error();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, "File Transfer");
    EXPECT_EQ(error->code, 10002);
    EXPECT_EQ(error->reason, "Sync ability check: Fail to upload file!");
    // ... naming the item the server refused.
    EXPECT_NE(error->describe().find(SyncTask::kTestFileName), std::string::npos)
        << error->describe();
    EXPECT_TRUE(run.decisions.empty());
    EXPECT_FALSE(exists(p.l("remote-only.txt")));
    EXPECT_FALSE(exists(p.r("local-only.txt")));
    EXPECT_FALSE(exists(p.l(SyncDBManager::kFileName)));
    EXPECT_EQ(run.stored.status, SyncStatus::Failed);
    EXPECT_TRUE(run.stored.lastSyncDate);

    // A server folder that cannot be listed at all deletes nothing here either.
    std::filesystem::remove(p.r(SyncTask::kTestFileName));
    ASSERT_EQ(runSync(p.info).state(), TransferTaskState::Completed);
    ASSERT_TRUE(exists(p.l("remote-only.txt")));
    std::filesystem::rename(p.remote.path(), p.remote.path() + "-away");
    auto missing = runSync(p.info);
    std::filesystem::rename(p.remote.path() + "-away", p.remote.path());
    ASSERT_EQ(missing.state(), TransferTaskState::Failed);
    EXPECT_EQ(missing.task->error()->domain, "File Sync");
    EXPECT_EQ(missing.task->error()->code, 20001);
    EXPECT_EQ(missing.task->error()->reason, "The sync folder is empty or doesn't exist!");
    EXPECT_EQ(readFile(p.l("remote-only.txt")), "on the server");
    EXPECT_EQ(readFile(p.l("local-only.txt")), "here");
}

TEST(SyncTask, CancellingDuringTheRemotePassSkipsTheRestAndStillRecordsTheTime) {
    LocalPair p("cancel");
    for (int i = 0; i < 5; ++i) writeFile(p.r("f" + std::to_string(i) + ".txt"), "file");
    std::filesystem::create_directories(p.local);
    writeFile(p.l("only-here.txt"), "local");

    int downloads = 0;
    double before = nowSeconds();
    auto run = runSync(p.info, quickOptions(), [&](SyncTask& task, const SyncDecision& d) {
        if (d.action == SyncAction::Download && ++downloads == 2) task.cancelTransfer();
    });
    ASSERT_EQ(run.state(), TransferTaskState::Stopped);
    EXPECT_EQ(run.summary().downloaded, 1);
    int present = 0;
    for (int i = 0; i < 5; ++i) present += exists(p.l("f" + std::to_string(i) + ".txt"));
    EXPECT_EQ(present, 1);
    // The local pass never ran.
    EXPECT_FALSE(exists(p.r("only-here.txt")));
    for (auto& d : run.decisions) EXPECT_NE(d.action, SyncAction::Upload);
    EXPECT_EQ(run.stored.status, SyncStatus::Stopped);
    ASSERT_TRUE(run.stored.lastSyncDate);
    EXPECT_GE(secondsOf(*run.stored.lastSyncDate), before);

    // The next run finishes the work.
    ASSERT_EQ(runSync(p.info).state(), TransferTaskState::Completed);
    EXPECT_EQ(treeOf(p.local), treeOf(p.remote.path()));
}

TEST(SyncTask, AFolderDeletedOnOneSideGoesOnTheOtherExceptWhatChangedThere) {
    LocalPair p("folders");
    double t0 = wholeMinutesAgo(200);
    writeWithTime(p.r("dir/unchanged.txt"), "u", t0);
    writeWithTime(p.r("dir/changed.txt"), "c1", t0);
    writeWithTime(p.r("dir/sub/s.txt"), "s", t0);
    writeWithTime(p.r("other/o.txt"), "o", t0);
    writeWithTime(p.r("top.txt"), "t", t0);
    ASSERT_EQ(runSync(p.info).state(), TransferTaskState::Completed);

    std::filesystem::remove_all(p.l("dir"));
    writeWithTime(p.r("dir/changed.txt"), "c2 on the server", t0 + 60);
    writeWithTime(p.r("dir/new.txt"), "new on the server", t0 + 60);
    std::filesystem::remove_all(p.r("other"));
    auto run = runSync(p.info);
    ASSERT_EQ(run.state(), TransferTaskState::Completed);
    Tree expected{{"dir", "<dir>"},
                  {"dir/changed.txt", "c2 on the server"},
                  {"dir/new.txt", "new on the server"},
                  {"top.txt", "t"}};
    EXPECT_EQ(treeOf(p.remote.path()), expected);
    EXPECT_EQ(treeOf(p.local), expected);
    EXPECT_GE(run.summary().kept, 2);
    ASSERT_EQ(runSync(p.info).decisions.size(), 0u);

    // Everything deleted on the server (and allowed): the pair's own folder stays.
    std::filesystem::remove_all(p.r("dir"));
    std::filesystem::remove(p.r("top.txt"));
    auto noLimit = quickOptions();
    noLimit.maxDeletePercent = 100;
    ASSERT_EQ(runSync(p.info, noLimit).state(), TransferTaskState::Completed);
    EXPECT_TRUE(treeOf(p.local).empty());
    EXPECT_TRUE(std::filesystem::is_directory(p.local));
    EXPECT_TRUE(std::filesystem::is_directory(p.remote.path()));

    // What lands in a deleted folder after the run planned its removal keeps the folder on
    // either side, and the next run takes it for new; so does a server file changed after the
    // run planned its deletion.
    writeWithTime(p.r("late/a.txt"), "a", t0);
    writeWithTime(p.r("late2/b.txt"), "b", t0);
    writeWithTime(p.r("kept.txt"), "k", t0);
    ASSERT_EQ(runSync(p.info).state(), TransferTaskState::Completed);
    std::filesystem::remove_all(p.l("late"));
    std::filesystem::remove_all(p.r("late2"));
    std::filesystem::remove(p.l("kept.txt"));
    auto raced = runSync(p.info, noLimit, [&](SyncTask&, const SyncDecision& d) {
        if (d.path == "late/a.txt") writeFile(p.r("late/new.txt"), "on the server meanwhile");
        if (d.path == "late2/b.txt") writeFile(p.l("late2/new.txt"), "here meanwhile");
        if (d.path == "kept.txt") writeFile(p.r("kept.txt"), "changed meanwhile");
    });
    ASSERT_EQ(raced.state(), TransferTaskState::Completed);
    EXPECT_EQ(raced.summary().remoteFoldersDeleted + raced.summary().localFoldersDeleted, 0);
    ASSERT_EQ(runSync(p.info).state(), TransferTaskState::Completed);
    expected = {{"kept.txt", "changed meanwhile"},
                {"late", "<dir>"},
                {"late/new.txt", "on the server meanwhile"},
                {"late2", "<dir>"},
                {"late2/new.txt", "here meanwhile"}};
    EXPECT_EQ(treeOf(p.remote.path()), expected);
    EXPECT_EQ(treeOf(p.local), expected);
}

TEST(SyncTask, ARunDeletingMoreThanHalfOfASideStopsBeforeDeletingAnything) {
    LocalPair p("maxdelete");
    for (int i = 0; i < 10; ++i) writeFile(p.r("f" + std::to_string(i)), "x");
    ASSERT_EQ(runSync(p.info).state(), TransferTaskState::Completed);

    // An emptied server folder does not empty the local one.
    ScratchDir aside("syncaside");
    for (int i = 0; i < 10; ++i)
        std::filesystem::rename(p.r("f" + std::to_string(i)), aside / ("f" + std::to_string(i)));
    auto emptied = runSync(p.info);
    ASSERT_EQ(emptied.state(), TransferTaskState::Failed);
    EXPECT_EQ(emptied.task->error()->code, SyncTask::kErrorMaxDelete);
    EXPECT_EQ(emptied.task->error()->reason,
              "Stopped before deleting anything: this sync would delete 10 of 10 files (100.0%) "
              "in the local folder, more than the 50% allowed.");
    EXPECT_EQ(emptied.summary().deletePercentNeeded, 100.0);
    EXPECT_EQ(treeOf(p.local).size(), 10u);
    for (int i = 0; i < 10; ++i)
        std::filesystem::rename(aside / ("f" + std::to_string(i)), p.r("f" + std::to_string(i)));

    for (int i = 0; i < 6; ++i) std::filesystem::remove(p.l("f" + std::to_string(i)));
    writeFile(p.l("new-here"), "n");
    auto stopped = runSync(p.info);
    ASSERT_EQ(stopped.state(), TransferTaskState::Failed);
    EXPECT_EQ(stopped.task->error()->code, SyncTask::kErrorMaxDelete);
    EXPECT_NE(stopped.task->error()->reason.find("delete 6 of 10 files"), std::string::npos)
        << stopped.task->error()->reason;
    EXPECT_EQ(stopped.summary().deletePercentNeeded, 60.0);
    EXPECT_EQ(treeOf(p.remote.path()).size(), 10u);
    EXPECT_FALSE(exists(p.r("new-here")));

    auto options = quickOptions();
    options.maxDeletePercent = 60;
    auto allowed = runSync(p.info, options);
    ASSERT_EQ(allowed.state(), TransferTaskState::Completed);
    EXPECT_EQ(allowed.summary().deletedRemote, 6);
    EXPECT_EQ(treeOf(p.local), treeOf(p.remote.path()));
}

TEST(SyncTask, DryRunReportsWhatARealRunDoesAndTouchesNothing) {
    LocalPair p("dryrun");
    double t0 = wholeMinutesAgo(300);
    writeWithTime(p.r("keep.txt"), "k", t0);
    writeWithTime(p.r("gone-here.txt"), "g", t0);
    writeWithTime(p.r("both.txt"), "b1", t0);
    writeWithTime(p.r("gone-there.txt"), "gt", t0);
    writeWithTime(p.r("edited-here.txt"), "eh", t0);
    writeWithTime(p.r("back/same.txt"), "s", t0);
    writeWithTime(p.r("back/edited.txt"), "e", t0);
    ASSERT_EQ(runSync(p.info).state(), TransferTaskState::Completed);
    // Deleted here, but a file in it changed on the server: the folder comes back with it.
    std::filesystem::remove_all(p.l("back"));
    writeWithTime(p.r("back/edited.txt"), "e2", t0 + 60);
    writeWithTime(p.r("new/remote.txt"), "nr", t0);
    writeWithTime(p.l("newdir/local.txt"), "nl", t0);
    std::filesystem::remove(p.l("gone-here.txt"));
    std::filesystem::remove(p.r("gone-there.txt"));
    // Deleted on the server but edited here: it goes back up.
    std::filesystem::remove(p.r("edited-here.txt"));
    writeWithTime(p.l("edited-here.txt"), "eh2", t0 + 60);
    writeWithTime(p.l("both.txt"), "b local", t0 + 20);
    writeWithTime(p.r("both.txt"), "b remote", t0 + 40);

    auto remoteBefore = treeOf(p.remote.path());
    auto localBefore = treeOf(p.local);
    double dbTime = mtimeOf(p.l(SyncDBManager::kFileName));
    auto options = quickOptions();
    options.dryRun = true;
    auto dry = runSync(p.info, options);
    ASSERT_EQ(dry.state(), TransferTaskState::Completed);
    EXPECT_EQ(treeOf(p.remote.path()), remoteBefore);
    EXPECT_EQ(treeOf(p.local), localBefore);
    EXPECT_EQ(mtimeOf(p.l(SyncDBManager::kFileName)), dbTime);
    auto storedBefore = dry.stored;

    auto real = runSync(p.info);
    ASSERT_EQ(real.state(), TransferTaskState::Completed);
    std::vector<std::string> expected{"conflict download both.txt",
                                      "delete local gone-there.txt",
                                      "delete remote back/same.txt",
                                      "delete remote gone-here.txt",
                                      "download back/edited.txt",
                                      "download new/remote.txt",
                                      "keep back/edited.txt",
                                      "mkdir local back",
                                      "mkdir local new",
                                      "mkdir remote newdir",
                                      "upload both.txt.original",
                                      "upload edited-here.txt",
                                      "upload newdir/local.txt"};
    EXPECT_EQ(dry.decisionTexts(), expected);
    EXPECT_EQ(real.decisionTexts(), expected);
    EXPECT_EQ(dry.summary().downloaded, real.summary().downloaded);
    EXPECT_EQ(dry.summary().deletedRemote, real.summary().deletedRemote);
    EXPECT_EQ(dry.summary().localFoldersCreated, real.summary().localFoldersCreated);
    EXPECT_NE(real.stored.lastSyncDate, storedBefore.lastSyncDate);

    // A pair never synced: a dry run lists the downloads without creating its folder.
    ScratchDir fresh("syncfresh");
    writeFile(fresh / "a/b.txt", "b");
    auto info = addPair(localFileSystem(), fresh.path(), "dryrun-fresh");
    auto first = runSync(info, options);
    ASSERT_EQ(first.state(), TransferTaskState::Completed);
    EXPECT_EQ(first.decisionTexts(),
              (std::vector<std::string>{"download a/b.txt", "mkdir local a"}));
    EXPECT_FALSE(exists(localFolderOf(info)));
}

TEST(SyncTask, RunsUnderTheTransferManagerLimitLikeAnyOtherTask) {
    LocalPair a("limit-a"), b("limit-b");
    writeFile(a.r("a.txt"), "a");
    writeFile(b.r("b.txt"), "b");
    FileTransferTaskManager manager;
    manager.setUserPrompts(std::make_shared<UnattendedPrompts>());
    manager.setMaxSimultaneousTransfers(1);
    auto first = std::make_shared<SyncTask>(a.info, quickOptions());
    auto second = std::make_shared<SyncTask>(b.info, quickOptions());
    std::atomic<int> secondStateDuringFirst{-1};
    first->decisionHandler = [&](const SyncDecision&) {
        secondStateDuringFirst = static_cast<int>(second->state());
    };
    manager.addTask(first);
    manager.addTask(second);
    manager.start();
    ASSERT_TRUE(pumpUntilDone(manager, {first, second}));
    EXPECT_EQ(secondStateDuringFirst.load(), static_cast<int>(TransferTaskState::Waiting));
    EXPECT_EQ(first->state(), TransferTaskState::Completed);
    EXPECT_EQ(second->state(), TransferTaskState::Completed);
    EXPECT_EQ(readFile(b.l("b.txt")), "b");
    EXPECT_EQ(first->taskClassName(), "SyncTask");
}

TEST(SyncTask, ADeletionInterruptedBetweenItsStepsIsFinishedByTheNextRun) {
    LocalPair p("interrupted");
    writeFile(p.r("gone-here.txt"), "a");
    writeFile(p.r("gone-there.txt"), "b");
    writeFile(p.r("kept.txt"), "c");
    ASSERT_EQ(runSync(p.info).state(), TransferTaskState::Completed);
    {
        // Where a killed run stops: the record of the side already gone is dropped, the item
        // on the other side is not deleted yet.
        PairRecords records(p.info);
        std::filesystem::remove(p.l("gone-here.txt"));
        KvMetadata local(p.l("gone-here.txt"));
        ASSERT_TRUE(records.local->deleteLocalItem(local));
        std::filesystem::remove(p.r("gone-there.txt"));
        KvMetadata remote(p.r("gone-there.txt"));
        ASSERT_TRUE(records.remote->deleteRemoteItem(remote));
    }
    auto run = runSync(p.info);
    ASSERT_EQ(run.state(), TransferTaskState::Completed);
    EXPECT_EQ(run.decisionTexts(), (std::vector<std::string>{"delete local gone-there.txt",
                                                             "delete remote gone-here.txt"}));
    EXPECT_EQ(treeOf(p.local), (Tree{{"kept.txt", "c"}}));
    EXPECT_EQ(treeOf(p.remote.path()), (Tree{{"kept.txt", "c"}}));
    PairRecords records(p.info);
    EXPECT_FALSE(records.hasRemote(p.r("gone-here.txt")));
    EXPECT_FALSE(records.hasLocal(p.l("gone-there.txt")));
}

}  // namespace
}  // namespace quillon::test
