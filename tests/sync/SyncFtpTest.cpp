// The sync algorithm against real FTP servers: vsftpd (LIST only, times to the minute),
// pure-ftpd, proftpd and pyftpdlib (MLSD).

#include <gtest/gtest.h>

#include "support/FtpServers.h"
#include "sync/SyncTestKit.h"

namespace quillon::test {
namespace {

struct FtpPair {
    std::unique_ptr<FtpServer> server;
    ServerInfoPtr record;
    SyncInfo info;
    std::string local;

    std::string r(const std::string& rel) const { return server->hostPath("pair/" + rel); }
    std::string l(const std::string& rel) const { return local + "/" + rel; }
    void edited() const { server->chownTree(); }
};

std::optional<FtpPair> startPair(FtpServerKind kind, const std::string& localName) {
    auto server = FtpServer::start(kind);
    if (!server) return std::nullopt;
    FtpPair p;
    p.server = std::move(server);
    p.server->makeDir("pair");
    p.record = p.server->serverInfo();
    auto saved = ServerInfoService::sharedServerInfoService().saveServerInfo(*p.record);
    EXPECT_TRUE(saved) << saved.error().describe();
    p.info = addPair(p.record, p.server->remotePath("pair"), localName);
    p.local = localFolderOf(p.info);
    return p;
}

std::string tag(FtpServerKind kind) {
    return std::string(ftpServerKindName(kind));
}

TEST(SyncFtp, TwoWaySyncWithEveryServerAndNoTransferWhenNothingChanged) {
    for (auto kind : allFtpServerKinds()) {
        SCOPED_TRACE(tag(kind));
        auto p = startPair(kind, "ftp-" + tag(kind));
        if (!p) continue;
        // Whole minutes, so that a server listing minutes shows the very times written.
        double t0 = wholeMinutesAgo(24 * 60);
        p->server->writeFile("pair/remote.txt", "from the server");
        p->server->writeFile("pair/dir/inner.txt", "inner");
        setMtime(p->r("remote.txt"), t0);
        setMtime(p->r("dir/inner.txt"), t0 + 60);
        std::filesystem::create_directories(p->local);
        writeWithTime(p->l("local.txt"), "from here", t0 + 120.5);
        writeWithTime(p->l("ldir/deep.txt"), "deep", t0 + 180);

        auto first = runSync(p->info);
        ASSERT_EQ(first.state(), TransferTaskState::Completed) << first.task->error()->describe();
        EXPECT_EQ(first.summary().downloaded, 2);
        EXPECT_EQ(first.summary().uploaded, 2);
        EXPECT_EQ(treeOf(p->local), treeOf(p->server->hostPath("pair")));
        EXPECT_EQ(readFile(p->r("ldir/deep.txt")), "deep");
        // Uploads leave no hidden partial files and no test file behind.
        EXPECT_EQ(namesIn(p->server->hostPath("pair")).size(), 4u);

        auto quiet = runSync(p->info);
        ASSERT_EQ(quiet.state(), TransferTaskState::Completed);
        EXPECT_TRUE(quiet.decisions.empty()) << ::testing::PrintToString(quiet.decisionTexts());
        EXPECT_EQ(quiet.task->transferredBytes(), 0);

        // An edit on the server, an edit here, a deletion here.
        p->server->writeFile("pair/remote.txt", "edited on the server");
        setMtime(p->r("remote.txt"), t0 + 600);
        p->edited();
        writeWithTime(p->l("local.txt"), "edited here",
                      secondsOf(std::chrono::system_clock::now()));
        std::filesystem::remove(p->l("dir/inner.txt"));
        auto edits = runSync(p->info);
        ASSERT_EQ(edits.state(), TransferTaskState::Completed) << edits.task->error()->describe();
        EXPECT_EQ(edits.decisionTexts(),
                  (std::vector<std::string>{"delete remote dir/inner.txt", "download remote.txt",
                                            "upload local.txt"}));
        EXPECT_EQ(readFile(p->l("remote.txt")), "edited on the server");
        EXPECT_EQ(readFile(p->r("local.txt")), "edited here");
        EXPECT_FALSE(exists(p->r("dir/inner.txt")));

        auto settled = runSync(p->info);
        EXPECT_TRUE(settled.decisions.empty()) << ::testing::PrintToString(settled.decisionTexts());
    }
}

TEST(SyncFtp, AnEditWithinTheListedMinuteIsSeenOnAServerListingMinutes) {
    // vsftpd lists times to the minute: an edit made later within the minute a file was
    // recorded in lists just like the recorded file.
    auto p = startPair(FtpServerKind::Vsftpd, "ftp-minute");
    if (!p) return;
    double hourAgo = wholeMinutesAgo(60) + 7;
    p->server->writeFile("pair/resized.txt", "old size");
    setMtime(p->r("resized.txt"), hourAgo);
    double minute = 0;
    bool recordedWithinTheMinute = false;
    for (int attempt = 0; attempt < 3 && !recordedWithinTheMinute; ++attempt) {
        // The files' minute has to be still running when the sync records them.
        minute = waitForMinuteWindow(2, 30);
        p->server->writeFile("pair/edited-there.txt", "v1 there");
        p->server->writeFile("pair/deleted-here.txt", "v1 gone");
        setMtime(p->r("edited-there.txt"), minute + 1);
        setMtime(p->r("deleted-here.txt"), minute + 1);
        p->edited();
        auto first = runSync(p->info);
        ASSERT_EQ(first.state(), TransferTaskState::Completed) << first.task->error()->describe();
        PairRecords records(p->info);
        auto rec = records.remote->getRemoteItemByRemoteMeta(
            KvMetadata(p->server->remotePath("pair/edited-there.txt")));
        ASSERT_TRUE(rec && rec->timestamp);
        recordedWithinTheMinute = SyncTask::isExactRecordedTime(*rec->timestamp);
    }
    ASSERT_TRUE(recordedWithinTheMinute);
    ASSERT_EQ(readFile(p->l("resized.txt")), "old size");

    // Edits of the same size ten seconds later (times in the past: a future time lists as a
    // bare day), a local deletion, and an edit of another size that kept its time.
    waitUntilClock(minute + 12);
    p->server->writeFile("pair/edited-there.txt", "v2 there");
    p->server->writeFile("pair/deleted-here.txt", "v2 gone");
    setMtime(p->r("edited-there.txt"), minute + 11);
    setMtime(p->r("deleted-here.txt"), minute + 11);
    p->server->writeFile("pair/resized.txt", "a new size");
    setMtime(p->r("resized.txt"), hourAgo);
    p->edited();
    std::filesystem::remove(p->l("deleted-here.txt"));
    auto edits = runSync(p->info);
    ASSERT_EQ(edits.state(), TransferTaskState::Completed) << edits.task->error()->describe();
    EXPECT_EQ(edits.decisionTexts(),
              (std::vector<std::string>{"download deleted-here.txt", "download edited-there.txt",
                                        "download resized.txt"}));
    EXPECT_EQ(readFile(p->r("deleted-here.txt")), "v2 gone");
    EXPECT_EQ(readFile(p->l("deleted-here.txt")), "v2 gone");
    EXPECT_EQ(readFile(p->l("edited-there.txt")), "v2 there");
    EXPECT_EQ(readFile(p->l("resized.txt")), "a new size");
    // Downloads carry the server's exact times.
    EXPECT_NEAR(mtimeOf(p->l("edited-there.txt")), minute + 11, 0.001);

    auto settled = runSync(p->info);
    EXPECT_TRUE(settled.decisions.empty()) << ::testing::PrintToString(settled.decisionTexts());
}

TEST(SyncFtp, AFolderThatCannotBeListedEndsTheRunAndDeletesNothing) {
    auto p = startPair(FtpServerKind::PureFtpd, "ftp-listing");
    if (!p) return;
    p->server->writeFile("pair/locked/kept.txt", "k");
    p->server->writeFile("pair/zz-later.txt", "z");
    ASSERT_EQ(runSync(p->info).state(), TransferTaskState::Completed);
    ASSERT_TRUE(exists(p->l("locked/kept.txt")));

    // The server deletes a file (the local pass would carry that over) and a folder can no
    // longer be listed.
    std::filesystem::remove(p->r("zz-later.txt"));
    ::chmod(p->r("locked").c_str(), 0);
    auto run = runSync(p->info);
    ::chmod(p->r("locked").c_str(), 0755);
    ASSERT_EQ(run.state(), TransferTaskState::Failed);
    EXPECT_EQ(readFile(p->l("locked/kept.txt")), "k");
    EXPECT_EQ(readFile(p->l("zz-later.txt")), "z");
    for (auto& d : run.decisions) EXPECT_NE(d.action, SyncAction::DeleteLocal) << d.path;
    EXPECT_EQ(run.stored.status, SyncStatus::Failed);
}

TEST(SyncFtp, LocalLinksAreSkippedOnceEachAndNeverDeleteTheirTwin) {
    auto p = startPair(FtpServerKind::Vsftpd, "ftp-links");
    if (!p) return;
    writeFile(p->l("real.txt"), "real");
    writeFile(p->l("dir/in.txt"), "in");
    std::error_code ec;
    std::filesystem::create_symlink("real.txt", p->l("file-link"), ec);
    std::filesystem::create_directory_symlink("dir", p->l("dir-link"), ec);
    std::filesystem::create_symlink("missing", p->l("dangling"), ec);
    ASSERT_FALSE(ec) << ec.message();
    auto first = runSync(p->info);
    ASSERT_EQ(first.state(), TransferTaskState::Completed) << first.task->error()->describe();
    EXPECT_EQ(first.decisionTexts(),
              (std::vector<std::string>{"mkdir remote dir", "skip dangling", "skip dir-link",
                                        "skip file-link", "upload dir/in.txt", "upload real.txt"}));
    for (auto name : {"file-link", "dir-link", "dangling"}) EXPECT_FALSE(exists(p->r(name)));

    // A synced file replaced here by a link stays on the server; the links stay here.
    std::filesystem::remove(p->l("dir/in.txt"));
    std::filesystem::create_symlink("../real.txt", p->l("dir/in.txt"), ec);
    auto second = runSync(p->info);
    ASSERT_EQ(second.state(), TransferTaskState::Completed) << second.task->error()->describe();
    EXPECT_EQ(second.decisionTexts(),
              (std::vector<std::string>{"skip dangling", "skip dir-link", "skip dir/in.txt",
                                        "skip file-link"}));
    EXPECT_EQ(readFile(p->r("dir/in.txt")), "in");
    EXPECT_TRUE(std::filesystem::is_symlink(p->l("dangling"), ec));
}

}  // namespace
}  // namespace quillon::test
