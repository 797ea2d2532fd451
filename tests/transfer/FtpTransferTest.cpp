// Transfers against real FTP servers: local to FTP, FTP to local and FTP to FTP between two
// different servers, with trees holding nested empty folders, hidden files and links; name
// conflicts on the server; a cancelled and a broken download; cross moves and their check.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>

#include "TransferTestKit.h"
#include "clients/ftp/FtpWrapper.h"
#include "core/PathUtils.h"
#include "core/WrapperProxy.h"
#include "support/FtpServers.h"
#include "transfer/CrossCopyTask.h"
#include "transfer/CrossMoveTask.h"
#include "transfer/DownloadTask.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/UploadTask.h"

using namespace quillon;
using namespace quillon::test;
namespace fs = std::filesystem;

namespace {

void makeLocalTree(const std::string& root) {
    writeFile(root + "/a.txt", "alpha");
    writeFile(root + "/.hidden", "secret");
    writeFile(root + "/sub/b.bin", std::string(300000, 'b'));
    writeFile(root + "/sub/.config/c.ini", "k=v");
    fs::create_directories(root + "/empty/deeper/deepest");
    ::symlink("a.txt", (root + "/link-to-a").c_str());
    ::symlink("sub", (root + "/link-to-sub").c_str());
}

// What a server receives from makeLocalTree: the file link as a file, no folder link.
void expectUploadedTree(const std::string& root) {
    EXPECT_TRUE(fileHolds(root + "/a.txt", "alpha"));
    EXPECT_TRUE(fileHolds(root + "/.hidden", "secret"));
    EXPECT_TRUE(fileHolds(root + "/sub/b.bin", std::string(300000, 'b')));
    EXPECT_TRUE(fileHolds(root + "/sub/.config/c.ini", "k=v"));
    EXPECT_TRUE(fs::is_directory(root + "/empty/deeper/deepest"));
    EXPECT_TRUE(fs::is_empty(root + "/empty/deeper/deepest"));
    EXPECT_TRUE(fileHolds(root + "/link-to-a", "alpha"));
    EXPECT_FALSE(fs::exists(root + "/link-to-sub"));
    EXPECT_EQ(namesIn(root),
              (std::vector<std::string>{".hidden", "a.txt", "empty", "link-to-a", "sub"}));
}

// A view that calls `onFirstBytes` once, at the first progress report with bytes moved.
struct FirstBytesView : FileTransferView {
    std::function<void()> onFirstBytes;
    bool fired = false;
    bool isDisplayed() const override { return true; }
    void reloadContent() override {}
    void updateProgress(FileTransferTask&, std::int64_t done, std::int64_t) override {
        if (done > 0 && !fired && onFirstBytes) {
            fired = true;
            onFirstBytes();
        }
    }
    void close() override {}
};

void makeSparseFile(const std::string& path, std::uint64_t size) {
    fs::create_directories(fs::path(path).parent_path());
    { std::ofstream out(path); }
    fs::resize_file(path, size);
}

}  // namespace

using FtpTransfer = TransferFixture;

TEST_F(FtpTransfer, UploadsTreeAndDownloadsItBack) {
    for (auto kind : {FtpServerKind::Vsftpd, FtpServerKind::PureFtpd}) {
        SCOPED_TRACE(std::string(ftpServerKindName(kind)));
        auto server = startFtpServer(kind);
        if (!server) continue;
        auto ftp = server->serverInfo();
        ScratchDir dir("ftptree");
        makeLocalTree(dir / "tree");
        FileTransferTaskManager manager;
        auto up = runOne<UploadTask>(manager, localServer(), localItem(dir / "tree"), ftp,
                                     remoteFolder(ftp, "/"));
        ASSERT_EQ(up->state(), TransferTaskState::Completed) << describe(*up) << server->log();
        expectUploadedTree(server->hostPath("/tree"));
        EXPECT_EQ(up->totalBytes(), 5 + 6 + 300000 + 3 + 5);
        EXPECT_EQ(up->transferredBytes(), up->totalBytes());

        // A downloaded file keeps the server's modification time.
        const struct timespec then[2] = {{978307200, 0}, {978307200, 0}};  // 2001-01-01 UTC
        ASSERT_EQ(::utimensat(AT_FDCWD, server->hostPath("/tree/sub/b.bin").c_str(), then, 0), 0);
        fs::create_directories(dir / "back");
        auto down = runOne<DownloadTask>(manager, ftp, remoteItem(ftp, "/tree"), localServer(),
                                         localFolder(dir / "back"));
        ASSERT_EQ(down->state(), TransferTaskState::Completed) << describe(*down);
        expectUploadedTree(dir / "back/tree");
        EXPECT_EQ(mtimeOf(dir / "back/tree/sub/b.bin"), 978307200);
        EXPECT_EQ(down->transferredBytes(), down->totalBytes());
        // Scratch folders are gone once the task ends.
        EXPECT_TRUE(fs::is_empty(PathUtils::getAppTempPath()));
    }
}

TEST_F(FtpTransfer, DownloadedLinkIsAFileNamedAfterItsTarget) {
    // vsftpd lists links with their targets ("name -> target").
    auto server = startFtpServer(FtpServerKind::Vsftpd);
    if (!server) return;
    server->writeFile("/elsewhere/target.txt", "pointed at");
    server->makeDir("/box");
    ASSERT_EQ(::symlink("../elsewhere/target.txt", server->hostPath("/box/shortcut").c_str()), 0);
    server->chownTree();
    auto ftp = server->serverInfo();
    auto down = runOne<DownloadTask>(manager, ftp, remoteItem(ftp, "/box"), localServer(),
                                     localFolder(dir.path()));
    ASSERT_EQ(down->state(), TransferTaskState::Completed) << describe(*down);
    EXPECT_EQ(namesIn(dir / "box"), std::vector<std::string>{"target.txt"});
    EXPECT_FALSE(fs::is_symlink(dir / "box/target.txt"));
    EXPECT_TRUE(fileHolds(dir / "box/target.txt", "pointed at"));
}

TEST_F(FtpTransfer, CrossCopyBetweenTwoDifferentServers) {
    auto from = startFtpServer(FtpServerKind::PureFtpd);
    auto to = startFtpServer(FtpServerKind::Vsftpd);
    if (!from || !to) return;
    from->writeFile("/tree/a.txt", "alpha");
    from->writeFile("/tree/.hidden", "secret");
    from->writeFile("/tree/sub/b.bin", std::string(200000, 'b'));
    from->makeDir("/tree/empty/deeper");
    from->chownTree();
    auto src = from->serverInfo();
    auto dst = to->serverInfo();
    auto copy =
        runOne<CrossCopyTask>(manager, src, remoteItem(src, "/tree"), dst, remoteFolder(dst, "/"));
    ASSERT_EQ(copy->state(), TransferTaskState::Completed) << describe(*copy) << to->log();
    auto root = to->hostPath("/tree");
    EXPECT_TRUE(fileHolds(root + "/a.txt", "alpha"));
    EXPECT_TRUE(fileHolds(root + "/.hidden", "secret"));
    EXPECT_TRUE(fileHolds(root + "/sub/b.bin", std::string(200000, 'b')));
    EXPECT_TRUE(fs::is_directory(root + "/empty/deeper"));
    EXPECT_EQ(copy->transferredBytes(), copy->totalBytes());
    EXPECT_EQ(copy->totalBytes(), 5 + 6 + 200000);
    // The source is untouched and no scratch file is left.
    EXPECT_TRUE(fileHolds(from->hostPath("/tree/a.txt"), "alpha"));
    EXPECT_TRUE(fs::is_empty(PathUtils::getAppTempPath()));

    // From the local disk straight to a server, and from a server to the local disk are the
    // other two directions; a second copy of the same tree is a conflict kept under a new name.
    auto prompts = std::make_shared<ScriptedPrompts>();
    prompts->conflictAnswers.push_back({ConflictAction::KeepBoth, false});
    manager.setUserPrompts(prompts);
    auto again =
        runOne<CrossCopyTask>(manager, src, remoteItem(src, "/tree"), dst, remoteFolder(dst, "/"));
    ASSERT_EQ(again->state(), TransferTaskState::Completed) << describe(*again);
    EXPECT_EQ(again->fileNameForConflict(), "tree-1");
    EXPECT_TRUE(fileHolds(to->hostPath("/tree-1/sub/b.bin"), std::string(200000, 'b')));
}

TEST_F(FtpTransfer, KeepBothAndReplaceOnTheServer) {
    auto server = startFtpServer(FtpServerKind::PureFtpd);
    if (!server) return;
    server->writeFile("/docs/report.txt", "first");
    server->writeFile("/docs/report-1.txt", "second");
    server->chownTree();
    auto ftp = server->serverInfo();
    writeFile(dir / "report.txt", "newest");
    manager.setMaxSimultaneousTransfers(1);
    auto prompts = std::make_shared<ScriptedPrompts>();
    prompts->conflictAnswers.push_back({ConflictAction::KeepBoth, false});
    prompts->conflictAnswers.push_back({ConflictAction::Replace, false});
    manager.setUserPrompts(prompts);
    auto keep = runOne<UploadTask>(manager, localServer(), localItem(dir / "report.txt"), ftp,
                                   remoteFolder(ftp, "/docs"));
    ASSERT_EQ(keep->state(), TransferTaskState::Completed) << describe(*keep);
    EXPECT_TRUE(fileHolds(server->hostPath("/docs/report-2.txt"), "newest"));
    auto replace = runOne<UploadTask>(manager, localServer(), localItem(dir / "report.txt"), ftp,
                                      remoteFolder(ftp, "/docs"));
    ASSERT_EQ(replace->state(), TransferTaskState::Completed) << describe(*replace);
    EXPECT_TRUE(fileHolds(server->hostPath("/docs/report.txt"), "newest"));
    EXPECT_TRUE(fileHolds(server->hostPath("/docs/report-1.txt"), "second"));
    // The replacing upload went up under a hidden name and left nothing behind.
    EXPECT_EQ(namesIn(server->hostPath("/docs")),
              (std::vector<std::string>{"report-1.txt", "report-2.txt", "report.txt"}));

    // Downloading into a local folder with report.txt and report-1.txt keeps both as report-2.
    writeFile(dir / "local/report.txt", "l0");
    writeFile(dir / "local/report-1.txt", "l1");
    prompts->conflictAnswers.push_back({ConflictAction::KeepBoth, false});
    auto down = runOne<DownloadTask>(manager, ftp, remoteItem(ftp, "/docs/report.txt"),
                                     localServer(), localFolder(dir / "local"));
    ASSERT_EQ(down->state(), TransferTaskState::Completed) << describe(*down);
    EXPECT_TRUE(fileHolds(dir / "local/report-2.txt", "newest"));
    EXPECT_TRUE(fileHolds(dir / "local/report.txt", "l0"));
}

TEST_F(FtpTransfer, CancelledDownloadLeavesTargetFolderUntouched) {
    auto server = startFtpServer(FtpServerKind::Vsftpd);
    if (!server) return;
    makeSparseFile(server->hostPath("/huge.bin"), 3ull << 30);
    server->chownTree();
    auto ftp = server->serverInfo();
    writeFile(dir / "target/existing.txt", "mine");
    auto view = std::make_shared<FirstBytesView>();
    manager.setFileTransferView(view);
    auto task = makeTask<DownloadTask>(ftp, remoteItem(ftp, "/huge.bin"), localServer(),
                                       localFolder(dir / "target"));
    view->onFirstBytes = [&] { manager.stopTask(task); };
    runAll(manager, task);
    EXPECT_TRUE(view->fired);
    EXPECT_EQ(task->state(), TransferTaskState::Stopped);
    EXPECT_FALSE(task->error());
    EXPECT_EQ(namesIn(dir / "target"), std::vector<std::string>{"existing.txt"});
    EXPECT_TRUE(fileHolds(dir / "target/existing.txt", "mine"));
    EXPECT_FALSE(task->taskTempFolderPath().empty());
    EXPECT_FALSE(fs::exists(task->taskTempFolderPath()));
    EXPECT_TRUE(fs::is_empty(PathUtils::getAppTempPath()));
}

TEST_F(FtpTransfer, ServerKilledMidDownloadFailsWithoutPartialTarget) {
    auto server = startFtpServer(FtpServerKind::Pyftpdlib);
    if (!server) return;
    makeSparseFile(server->hostPath("/huge.bin"), 3ull << 30);
    server->chownTree();
    auto ftp = server->serverInfo();
    fs::create_directories(dir / "target");
    auto prompts = std::make_shared<ScriptedPrompts>();
    manager.setUserPrompts(prompts);
    auto view = std::make_shared<FirstBytesView>();
    view->onFirstBytes = [&] { server.reset(); };
    manager.setFileTransferView(view);
    auto task = makeTask<DownloadTask>(ftp, remoteItem(ftp, "/huge.bin"), localServer(),
                                       localFolder(dir / "target"));
    manager.addTask(task);
    manager.start();
    runToEnd(manager, std::chrono::seconds(180));
    EXPECT_TRUE(view->fired);
    EXPECT_EQ(task->state(), TransferTaskState::Failed);
    ASSERT_TRUE(task->error());
    EXPECT_EQ(prompts->failuresShown.size(), 1u);
    EXPECT_TRUE(fs::is_empty(dir / "target"));
    EXPECT_FALSE(fs::exists(task->taskTempFolderPath()));
}

TEST_F(FtpTransfer, DownloadLargerThanFreeSpaceFailsBeforeAnyByte) {
    auto server = startFtpServer(FtpServerKind::Pyftpdlib);
    if (!server) return;
    // Larger than every volume of this machine can hold, so no mount is needed for the check.
    auto free = FileTransferUtils::totalFreeDiskSpace(dir.path());
    makeSparseFile(server->hostPath("/enormous.bin"), free + (5ull << 30));
    server->chownTree();
    auto ftp = server->serverInfo();
    auto view = std::make_shared<FirstBytesView>();
    bool moved = false;
    view->onFirstBytes = [&] { moved = true; };
    manager.setFileTransferView(view);
    auto task = runOne<DownloadTask>(manager, ftp, remoteItem(ftp, "/enormous.bin"), localServer(),
                                     localFolder(dir.path()));
    ASSERT_EQ(task->state(), TransferTaskState::Failed);
    EXPECT_EQ(task->error()->domain, "File Transfer");
    EXPECT_EQ(task->error()->code, 10002);
    EXPECT_EQ(task->error()->reason, "No enough free space!");
    EXPECT_FALSE(moved);
    EXPECT_EQ(task->transferredBytes(), 0);
    EXPECT_TRUE(fs::is_empty(dir.path()));
    EXPECT_TRUE(fs::is_empty(PathUtils::getAppTempPath()));
}
