// Transfer tasks. Local to local: CopyTask on trees with nested empty folders, hidden files and
// links, progress steps and cancellation; MoveTask within the local disk. Against real FTP
// servers: local to FTP, FTP to local and FTP to FTP between two different servers, with such
// trees; name conflicts on the server; a cancelled and a broken download; cross moves and their
// check. (Name conflicts and failures of local copies are the transfer manager's tests.) Then
// quillon cp and quillon mv, run as a user would: local copies and moves, renames, conflicts by
// flag, JSON lines, transfers to, from and between real FTP servers by URL, failures with and
// without --keep-going (names a server cannot hold, a tree deeper than the local path limit),
// Ctrl-C and kill -9.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>
#include <signal.h>
#include <sys/time.h>
#include <algorithm>
#include <atomic>
#include <fstream>
#include <random>
#include <thread>

#include "TransferTestKit.h"
#include "clients/ftp/FtpWrapper.h"
#include "core/PathUtils.h"
#include "core/WrapperProxy.h"
#include "support/ChildProcess.h"
#include "support/FtpServers.h"
#include "support/SftpServers.h"
#include "transfer/CopyTask.h"
#include "transfer/CrossCopyTask.h"
#include "transfer/CrossMoveTask.h"
#include "transfer/DownloadTask.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/LocalFileCopier.h"
#include "transfer/MoveTask.h"
#include "transfer/UploadTask.h"

using namespace quillon;
using namespace quillon::test;
namespace fs = std::filesystem;

namespace {

// What an FTP server receives from makeTree: no links (FTP cannot make them).
void expectUploadedTree(const std::string& root) {
    expectTreeFiles(root, 300000);
    EXPECT_EQ(namesIn(root), (std::vector<std::string>{".hidden", "a.txt", "empty", "sub"}));
}

// Every path below `root`, folders ending in "/", sorted.
std::vector<std::string> treeOf(const std::string& root) {
    std::vector<std::string> out;
    std::error_code ec;
    for (auto& e : fs::recursive_directory_iterator(root, ec)) {
        auto rel = fs::relative(e.path(), root, ec).string();
        out.push_back(e.is_directory(ec) ? rel + "/" : rel);
    }
    std::sort(out.begin(), out.end());
    return out;
}

// A tree holding a link to a file, a link to a folder and a dangling link.
void makeLinkedTree(const std::string& root) {
    writeFile(root + "/a.txt", "alpha");
    writeFile(root + "/sub/b.txt", "beta");
    ::symlink("sub/b.txt", (root + "/to-b").c_str());
    ::symlink("sub", (root + "/to-sub").c_str());
    ::symlink("nowhere", (root + "/dangling").c_str());
}

// The tree arrived with its three links kept as links.
void expectLinkedTree(const std::string& root) {
    EXPECT_TRUE(fileHolds(root + "/a.txt", "alpha"));
    EXPECT_TRUE(fileHolds(root + "/sub/b.txt", "beta"));
    std::error_code ec;
    EXPECT_EQ(fs::read_symlink(root + "/to-b", ec), "sub/b.txt");
    EXPECT_EQ(fs::read_symlink(root + "/to-sub", ec), "sub");
    EXPECT_EQ(fs::read_symlink(root + "/dangling", ec), "nowhere");
    EXPECT_EQ(namesIn(root),
              (std::vector<std::string>{"a.txt", "dangling", "sub", "to-b", "to-sub"}));
}

// The tree arrived without links, and the task said so once for each.
void expectLinksSkipped(const FileTransferTask& task, const std::string& root,
                        const std::string& from) {
    EXPECT_EQ(task.state(), TransferTaskState::Completed) << describe(task);
    EXPECT_TRUE(fileHolds(root + "/sub/b.txt", "beta"));
    EXPECT_EQ(namesIn(root), (std::vector<std::string>{"a.txt", "sub"}));
    auto notices = task.notices();
    std::sort(notices.begin(), notices.end());
    EXPECT_EQ(notices, (std::vector<std::string>{"skipped link " + from + "/dangling -> nowhere",
                                                 "skipped link " + from + "/to-b -> sub/b.txt",
                                                 "skipped link " + from + "/to-sub -> sub"}));
}

// A download: the link to a file arrived as that file, named after it where the server told what
// the link holds (`fetchedAs`); the link to a folder and the dangling one were left out, each with
// its notice.
void expectLinksFetched(const FileTransferTask& task, const std::string& root,
                        const std::string& from, const std::string& fetchedAs) {
    EXPECT_EQ(task.state(), TransferTaskState::Completed) << describe(task);
    EXPECT_TRUE(fileHolds(root + "/" + fetchedAs, "beta"));
    EXPECT_FALSE(fs::is_symlink(root + "/" + fetchedAs));
    std::vector<std::string> names{"a.txt", "sub", fetchedAs};
    std::sort(names.begin(), names.end());
    EXPECT_EQ(namesIn(root), names);
    auto notices = task.notices();
    std::sort(notices.begin(), notices.end());
    ASSERT_EQ(notices.size(), 2u) << ::testing::PrintToString(notices);
    EXPECT_TRUE(notices[0].starts_with("skipped link " + from + "/dangling")) << notices[0];
    EXPECT_TRUE(notices[1].starts_with("skipped link " + from + "/to-sub")) << notices[1];
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
        makeTree(dir / "tree", 300000);
        FileTransferTaskManager manager;
        auto up = runOne<UploadTask>(manager, localServer(), localItem(dir / "tree"), ftp,
                                     remoteFolder(ftp, "/"));
        ASSERT_EQ(up->state(), TransferTaskState::Completed) << describe(*up) << server->log();
        expectUploadedTree(server->hostPath("/tree"));
        EXPECT_EQ(up->totalBytes(), 5 + 6 + 300000 + 3);
        EXPECT_EQ(up->notices().size(), 2u);
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

TEST_F(FtpTransfer, LinksAreKeptOrFetchedAsFilesOrSkippedWithANotice) {
    auto vs = startFtpServer(FtpServerKind::Vsftpd);
    auto pure = startFtpServer(FtpServerKind::PureFtpd);
    auto sshd = SftpServer::start(SftpServerKind::OpenSSH);
    if (!vs || !pure || !sshd) return;
    auto vsInfo = vs->serverInfo();
    auto pureInfo = pure->serverInfo();
    auto sftp = sshd->serverInfo();
    fs::create_directories(PathUtils::getHomeFolderPath() + "/.ssh");
    std::ofstream(PathUtils::getHomeFolderPath() + "/.ssh/known_hosts")
        << sshd->knownHostsLine() << "\n";
    makeLinkedTree(dir / "tree");
    fs::create_directories(dir / "copy");
    fs::create_directories(dir / "down");

    // Local to local: both sides hold links. (Links are not made on SFTP servers.)
    auto copy = runOne<CopyTask>(manager, localServer(), localItem(dir / "tree"), localServer(),
                                 localFolder(dir / "copy"));
    ASSERT_EQ(copy->state(), TransferTaskState::Completed) << describe(*copy);
    expectLinkedTree(dir / "copy/tree");
    auto sftpFolder = [&](const std::string& rel) {
        KvMetadata m(sshd->remotePath(rel));
        m.isDir = true;
        m.serverID = sftp->serverID;
        m.protocolType = sftp->protocolType;
        return m;
    };
    auto toSftp =
        runOne<UploadTask>(manager, localServer(), localItem(dir / "tree"), sftp, sftpFolder(""));
    expectLinksSkipped(*toSftp, sshd->hostPath("tree"), dir / "tree");
    makeLinkedTree(sshd->hostPath("tree"));
    auto tree = sftpFolder("tree");
    auto fromSftp =
        runOne<DownloadTask>(manager, sftp, tree, localServer(), localFolder(dir / "down"));
    expectLinksFetched(*fromSftp, dir / "down/tree", sshd->remotePath("tree"), "b.txt");
    EXPECT_TRUE(copy->notices().empty());

    // To FTP: the server cannot be given links.
    auto up = runOne<UploadTask>(manager, localServer(), localItem(dir / "tree"), vsInfo,
                                 remoteFolder(vsInfo, "/"));
    expectLinksSkipped(*up, vs->hostPath("/tree"), dir / "tree");

    // From FTP: a link to a file is fetched as that file, named after its target where the
    // listing tells it (vsftpd), and a link to a folder no longer ends the whole copy.
    for (auto* server : {vs.get(), pure.get()}) {
        SCOPED_TRACE(server->name());
        makeLinkedTree(server->hostPath("/served"));
        server->chownTree();
        auto info = server->serverInfo();
        ScratchDir into("linksdown");
        auto down = runOne<DownloadTask>(manager, info, remoteItem(info, "/served"), localServer(),
                                         localFolder(into.path()));
        expectLinksFetched(*down, into / "served", remotePath(info, "/served"),
                           server == vs.get() ? "b.txt" : "to-b");
    }

    // Between two FTP servers: skipped, each with its notice.
    pure->makeDir("/cross");
    pure->chownTree();
    auto cross = runOne<CrossCopyTask>(manager, vsInfo, remoteItem(vsInfo, "/served"), pureInfo,
                                       remoteFolder(pureInfo, "/cross"));
    expectLinksSkipped(*cross, pure->hostPath("/cross/served"), remotePath(vsInfo, "/served"));

    // A link named on its own follows the same rule.
    auto one = runOne<UploadTask>(manager, localServer(), localItem(dir / "tree/to-sub"), vsInfo,
                                  remoteFolder(vsInfo, "/"));
    EXPECT_EQ(one->state(), TransferTaskState::Completed) << describe(*one);
    EXPECT_EQ(one->notices(),
              std::vector<std::string>{"skipped link " + dir / "tree/to-sub" + " -> sub"});
    EXPECT_FALSE(fs::exists(vs->hostPath("/to-sub")));
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

TEST_F(FtpTransfer, FolderConflictsReplaceMergeKeepBothOrSkipInEveryDirection) {
    auto server = startFtpServer(FtpServerKind::PureFtpd);
    if (!server) return;
    auto ftp = server->serverInfo();
    // The folder to copy, and the one of the same name it meets.
    auto makeSource = [](const std::string& root) {
        writeFile(root + "/box/new.txt", "new");
        writeFile(root + "/box/same.txt", "new");
        writeFile(root + "/box/sub/inner.txt", "new");
    };
    auto makeExisting = [](const std::string& root) {
        fs::remove_all(root);
        writeFile(root + "/box/old.txt", "old");
        writeFile(root + "/box/same.txt", "old");
        writeFile(root + "/box/sub/kept.txt", "old");
    };
    makeSource(dir / "src");
    makeSource(server->hostPath("/src"));
    server->chownTree();
    struct Direction {
        std::string name;
        std::string target;  // the target folder as this machine sees it
        std::function<FileTransferTaskPtr()> task;
    };
    std::vector<Direction> directions{
        {"local", dir / "dst", [&] { return localTask<CopyTask>(dir / "src/box", dir / "dst"); }},
        {"upload", server->hostPath("/dst"),
         [&] {
             return makeTask<UploadTask>(localServer(), localItem(dir / "src/box"), ftp,
                                         remoteFolder(ftp, "/dst"));
         }},
        {"download", dir / "down",
         [&] {
             return makeTask<DownloadTask>(ftp, remoteItem(ftp, "/src/box"), localServer(),
                                           localFolder(dir / "down"));
         }},
    };
    auto prompts = std::make_shared<ScriptedPrompts>();
    manager.setUserPrompts(prompts);
    for (auto& d : directions) {
        SCOPED_TRACE(d.name);
        auto run = [&](ConflictAction action) {
            makeExisting(d.target);
            server->chownTree();
            prompts->conflictAnswers.push_back({action, false});
            auto task = d.task();
            runAll(manager, task);
            EXPECT_NE(task->state(), TransferTaskState::Failed) << describe(*task);
            return d.target + "/box";
        };
        // Replace: the existing folder goes, with everything in it.
        auto box = run(ConflictAction::Replace);
        EXPECT_EQ(treeOf(box),
                  (std::vector<std::string>{"new.txt", "same.txt", "sub/", "sub/inner.txt"}));
        EXPECT_TRUE(fileHolds(box + "/same.txt", "new"));
        EXPECT_EQ(namesIn(d.target), std::vector<std::string>{"box"});
        // Merge: both folders' items, the copied ones replacing those of the same name.
        box = run(ConflictAction::Merge);
        EXPECT_EQ(treeOf(box), (std::vector<std::string>{"new.txt", "old.txt", "same.txt", "sub/",
                                                         "sub/inner.txt", "sub/kept.txt"}));
        EXPECT_TRUE(fileHolds(box + "/same.txt", "new"));
        EXPECT_EQ(namesIn(d.target), std::vector<std::string>{"box"});
        // Keep both and skip leave the existing folder as it was.
        box = run(ConflictAction::KeepBoth);
        EXPECT_TRUE(fileHolds(box + "/same.txt", "old"));
        EXPECT_TRUE(fileHolds(box + "-1/same.txt", "new"));
        box = run(ConflictAction::Skip);
        EXPECT_EQ(namesIn(d.target), std::vector<std::string>{"box"});
        EXPECT_EQ(treeOf(box),
                  (std::vector<std::string>{"old.txt", "same.txt", "sub/", "sub/kept.txt"}));
        EXPECT_EQ(prompts->conflictsAsked.back().offerMerge, true);
    }

    // On a server, a file replaces a folder and a folder replaces a file, as they do locally,
    // and nothing is left under a hidden name; a name of 250 bytes can be replaced too.
    std::string longName(250, 'n');
    for (const auto& name : {std::string("box"), longName}) {
        fs::remove_all(server->hostPath("/dst"));
        writeFile(server->hostPath("/dst/" + name + "/old.txt"), "old");
        server->chownTree();
        writeFile(dir / ("files/" + name), "file");
        prompts->conflictAnswers.push_back({ConflictAction::Replace, false});
        auto fileOverFolder =
            runOne<UploadTask>(manager, localServer(), localItem(dir / "files/" + name), ftp,
                               remoteFolder(ftp, "/dst"));
        EXPECT_EQ(fileOverFolder->state(), TransferTaskState::Completed)
            << describe(*fileOverFolder);
        EXPECT_TRUE(fileHolds(server->hostPath("/dst/" + name), "file"));
        EXPECT_EQ(namesIn(server->hostPath("/dst")), std::vector<std::string>{name});
        prompts->conflictAnswers.push_back({ConflictAction::Replace, false});
        writeFile(dir / ("folders/" + name + "/in.txt"), "in");
        auto folderOverFile =
            runOne<UploadTask>(manager, localServer(), localItem(dir / "folders/" + name), ftp,
                               remoteFolder(ftp, "/dst"));
        EXPECT_EQ(folderOverFile->state(), TransferTaskState::Completed)
            << describe(*folderOverFile);
        EXPECT_TRUE(fileHolds(server->hostPath("/dst/" + name + "/in.txt"), "in"));
        EXPECT_EQ(namesIn(server->hostPath("/dst")), std::vector<std::string>{name});
    }
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

namespace {

// Simulates a fault: an FTP client whose uploads arrive one byte short.
class OneByteShortFtpWrapper : public FtpWrapper {
  public:
    using FtpWrapper::FtpWrapper;
    Status uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                      const ProgressHandler& progress) override {
        ScratchDir cut("short");
        std::string name = StringUtils::lastPathComponent(localFile.pathOrEmpty());
        std::string shortCopy = cut / name;
        fs::copy_file(localFile.pathOrEmpty(), shortCopy);
        fs::resize_file(shortCopy, fs::file_size(shortCopy) - 1);
        KvMetadata record = localFile;
        record.setPath(shortCopy);
        record.localPath = shortCopy;
        return FtpWrapper::uploadSync(record, toFolder, progress);
    }
};

// Makes every FTP client of `serverID` a short-writing one while it lives.
class ShortUploadsTo {
  public:
    explicit ShortUploadsTo(std::string serverID) {
        registerBuiltinClients();
        WrapperProxy::registerClass("FtpWrapper", [serverID](ServerInfoPtr info) -> WrapperPtr {
            if (info->serverID == serverID)
                return std::make_shared<OneByteShortFtpWrapper>(std::move(info));
            return std::make_shared<FtpWrapper>(std::move(info));
        });
    }
    ~ShortUploadsTo() {
        WrapperProxy::registerClass("FtpWrapper", [](ServerInfoPtr info) -> WrapperPtr {
            return std::make_shared<FtpWrapper>(std::move(info));
        });
    }
};

}  // namespace

using CrossMove = TransferFixture;

TEST_F(CrossMove, VerifiedCopyDeletesTheSourceAlsoUnderAKeepBothName) {
    auto from = startFtpServer(FtpServerKind::PureFtpd);
    auto to = startFtpServer(FtpServerKind::Proftpd);
    if (!from || !to) return;
    from->writeFile("/album/one.flac", std::string(123457, '1'));
    from->writeFile("/album/.cover", "c");
    from->makeDir("/album/empty");
    from->writeFile("/notes.txt", "moving");
    to->writeFile("/notes.txt", "already here");
    from->chownTree();
    to->chownTree();
    auto src = from->serverInfo();
    auto dst = to->serverInfo();
    auto prompts = std::make_shared<ScriptedPrompts>();
    prompts->conflictAnswers.push_back({ConflictAction::KeepBoth, false});
    manager.setUserPrompts(prompts);

    auto folderMove =
        runOne<CrossMoveTask>(manager, src, remoteItem(src, "/album"), dst, remoteFolder(dst, "/"));
    ASSERT_EQ(folderMove->state(), TransferTaskState::Completed)
        << folderMove->error().value_or(Error{}).describe();
    EXPECT_FALSE(fs::exists(from->hostPath("/album")));
    EXPECT_TRUE(fileHolds(to->hostPath("/album/one.flac"), std::string(123457, '1')));
    EXPECT_TRUE(fileHolds(to->hostPath("/album/.cover"), "c"));
    EXPECT_TRUE(fs::is_directory(to->hostPath("/album/empty")));

    auto fileMove = runOne<CrossMoveTask>(manager, src, remoteItem(src, "/notes.txt"), dst,
                                          remoteFolder(dst, "/"));
    ASSERT_EQ(prompts->conflictsAsked.size(), 1u);
    EXPECT_TRUE(prompts->conflictsAsked[0].hideReplaceButton);
    ASSERT_EQ(fileMove->state(), TransferTaskState::Completed)
        << fileMove->error().value_or(Error{}).describe();
    EXPECT_TRUE(fileHolds(to->hostPath("/notes-1.txt"), "moving"));
    EXPECT_TRUE(fileHolds(to->hostPath("/notes.txt"), "already here"));
    EXPECT_FALSE(fs::exists(from->hostPath("/notes.txt")));
    EXPECT_TRUE(fs::is_empty(PathUtils::getAppTempPath()));

    // Local disk to a server is a cross move as well.
    writeFile(dir / "local.txt", "from disk");
    auto fromDisk = runOne<CrossMoveTask>(manager, localServer(), localItem(dir / "local.txt"), dst,
                                          remoteFolder(dst, "/"));
    ASSERT_EQ(fromDisk->state(), TransferTaskState::Completed)
        << fromDisk->error().value_or(Error{}).describe();
    EXPECT_TRUE(fileHolds(to->hostPath("/local.txt"), "from disk"));
    EXPECT_FALSE(fs::exists(dir / "local.txt"));
}

TEST_F(CrossMove, CopyOneByteShortReports10013AndKeepsTheSource) {
    auto from = startFtpServer(FtpServerKind::PureFtpd);
    auto to = startFtpServer(FtpServerKind::Vsftpd);
    if (!from || !to) return;
    from->writeFile("/data.bin", std::string(50000, 'd'));
    from->writeFile("/tree/inner.bin", std::string(4000, 'i'));
    from->chownTree();
    auto src = from->serverInfo();
    auto dst = to->serverInfo();
    ShortUploadsTo shortUploads(dst->serverID);
    manager.setMaxSimultaneousTransfers(1);
    auto prompts = std::make_shared<ScriptedPrompts>();
    prompts->failureAnswers = {FailureChoice::Ignore, FailureChoice::Stop};
    manager.setUserPrompts(prompts);
    auto file =
        makeTask<CrossMoveTask>(src, remoteItem(src, "/data.bin"), dst, remoteFolder(dst, "/"));
    auto folder =
        makeTask<CrossMoveTask>(src, remoteItem(src, "/tree"), dst, remoteFolder(dst, "/"));
    runAll(manager, file, folder);
    for (auto& task : {file, folder}) {
        ASSERT_EQ(task->state(), TransferTaskState::Failed);
        EXPECT_EQ(task->error()->domain, "Kv Generic");
        EXPECT_EQ(task->error()->code, 10013);
        EXPECT_EQ(task->error()->reason, "Error occured when cross copy.");
    }
    EXPECT_EQ(prompts->failuresShown.size(), 2u);
    EXPECT_TRUE(fileHolds(from->hostPath("/data.bin"), std::string(50000, 'd')));
    EXPECT_TRUE(fileHolds(from->hostPath("/tree/inner.bin"), std::string(4000, 'i')));
    EXPECT_EQ(fs::file_size(to->hostPath("/data.bin")), 49999u);
}

TEST_F(CrossMove, CancelDuringCopyKeepsSourceAndRemovesScratch) {
    auto from = startFtpServer(FtpServerKind::Vsftpd);
    auto to = startFtpServer(FtpServerKind::PureFtpd);
    if (!from || !to) return;
    makeSparseFile(from->hostPath("/big.bin"), 2ull << 30);
    from->chownTree();
    auto src = from->serverInfo();
    auto dst = to->serverInfo();
    auto view = std::make_shared<FirstBytesView>();
    manager.setFileTransferView(view);
    auto task =
        makeTask<CrossMoveTask>(src, remoteItem(src, "/big.bin"), dst, remoteFolder(dst, "/"));
    view->onFirstBytes = [&] { manager.stopTask(task); };
    runAll(manager, task);
    EXPECT_EQ(task->state(), TransferTaskState::Stopped);
    EXPECT_EQ(fs::file_size(from->hostPath("/big.bin")), 2ull << 30);
    EXPECT_FALSE(fs::exists(to->hostPath("/big.bin")));
    EXPECT_TRUE(fs::is_empty(PathUtils::getAppTempPath()));
}

namespace {

// makeTree with a read-only file and an old modification time.
void makeTree(const std::string& root) {
    quillon::test::makeTree(root, 70000);
    ::chmod((root + "/a.txt").c_str(), 0444);
    struct timeval times[2] = {{1000000000, 0}, {1000000000, 0}};
    ::utimes((root + "/sub/b.bin").c_str(), times);
}

void expectSameTree(const std::string& a, const std::string& b) {
    expectTreeFiles(b, 70000);
    EXPECT_TRUE(fs::is_symlink(b + "/link-to-a"));
    EXPECT_EQ(fs::read_symlink(b + "/link-to-a"), "a.txt");
    EXPECT_TRUE(fs::is_symlink(b + "/link-to-sub"));
    EXPECT_EQ(fs::read_symlink(b + "/link-to-sub"), "sub");
    struct stat sa {
    }, sb{};
    ASSERT_EQ(::stat((a + "/a.txt").c_str(), &sa), 0);
    ASSERT_EQ(::stat((b + "/a.txt").c_str(), &sb), 0);
    EXPECT_EQ(sb.st_mode & 07777, 0444u);
    ASSERT_EQ(::stat((b + "/sub/b.bin").c_str(), &sb), 0);
    EXPECT_EQ(sb.st_mtim.tv_sec, 1000000000);
    EXPECT_EQ(namesIn(a), namesIn(b));
}

}  // namespace

using LocalCopy = TransferFixture;
using LocalMove = TransferFixture;

TEST_F(LocalCopy, CopiesTreeWithEmptyFoldersHiddenFilesAndLinks) {
    makeTree(dir / "src/tree");
    fs::create_directories(dir / "dst");
    auto task = localTask<CopyTask>(dir / "src/tree", dir / "dst");
    runAll(manager, task);
    ASSERT_EQ(task->state(), TransferTaskState::Completed)
        << task->error().value_or(Error{}).reason;
    expectSameTree(dir / "src/tree", dir / "dst/tree");
    // Links count no bytes: 5 + 6 + 70000 + 3.
    EXPECT_EQ(task->totalBytes(), 70014);
    EXPECT_EQ(task->transferredBytes(), 70014);
    EXPECT_TRUE(task->startTime() && task->endTime() && *task->startTime() <= *task->endTime());
    EXPECT_EQ(task->targetMetadata.pathOrEmpty(), dir / "dst/tree");

    // A lone link is copied as a link; an empty folder as an empty folder, with 0 bytes.
    auto link = localTask<CopyTask>(dir / "src/tree/link-to-sub", dir / "dst");
    auto empty = localTask<CopyTask>(dir / "src/tree/empty/deeper/deepest", dir / "dst");
    runAll(manager, link, empty);
    EXPECT_EQ(link->state(), TransferTaskState::Completed);
    EXPECT_EQ(fs::read_symlink(dir / "dst/link-to-sub"), "sub");
    EXPECT_EQ(empty->state(), TransferTaskState::Completed);
    EXPECT_EQ(empty->totalBytes(), 0);
    EXPECT_TRUE(fs::is_empty(dir / "dst/deepest"));
}

// The copier moves a file in steps of at most 10 MiB and reports after each one; the task turns
// these reports into the progress a view shows.
TEST_F(LocalCopy, ReportsProgressInStepsOfAtMostTenMebibytes) {
    writeFile(dir / "big.bin", std::string(25 << 20, 'x'));
    LocalFileCopier copier;
    std::vector<std::uint64_t> seen;
    copier.onStep = [&](std::uint64_t copied) { seen.push_back(copied); };
    ASSERT_TRUE(copier.copyFile(dir / "big.bin", dir / "copy.bin", false));
    EXPECT_EQ(fs::file_size(dir / "copy.bin"), 25u << 20);
    ASSERT_GE(seen.size(), 3u);
    EXPECT_EQ(seen.back(), 25u << 20);
    std::uint64_t last = 0;
    for (auto v : seen) {
        EXPECT_GT(v, last);
        EXPECT_LE(v - last, 10u << 20);
        last = v;
    }
}

TEST_F(LocalCopy, CancelledCopyLeavesNoPartialFile) {
    writeFile(dir / "src/big.bin", std::string(40 << 20, 'y'));
    writeFile(dir / "dst/big-old.bin", "keep me");
    auto task = localTask<CopyTask>(dir / "src/big.bin", dir / "dst");
    // The task stops itself at its first progress step, in the middle of the file.
    std::atomic<bool> once{false};
    FileTransferTask::setClock([&] {
        if (!once.exchange(true)) manager.stopTask(task);
        return 1e9;
    });
    runAll(manager, task);
    FileTransferTask::setClock(nullptr);
    EXPECT_EQ(task->state(), TransferTaskState::Stopped);
    EXPECT_FALSE(task->error());
    EXPECT_EQ(namesIn(dir / "dst"), std::vector<std::string>{"big-old.bin"});
}

TEST_F(LocalMove, MovesSeveralItemsInOneTaskAndHandlesConflicts) {
    for (int i = 0; i < 5; ++i) writeFile(dir / ("src/f" + std::to_string(i)), std::to_string(i));
    writeFile(dir / "src/dir/inner.txt", "inner");
    fs::create_directories(dir / "dst");
    auto task = std::make_shared<MoveTask>();
    task->sourceServerInfo = task->targetServerInfo = localServer();
    for (int i = 0; i < 5; ++i)
        task->sourceItems.push_back(localItem(dir / ("src/f" + std::to_string(i))));
    task->sourceItems.push_back(localItem(dir / "src/dir"));
    task->sourceMetadata = task->sourceItems.front();
    task->targetMetadata = localFolder(dir / "dst");
    runAll(manager, task);
    ASSERT_EQ(task->state(), TransferTaskState::Completed)
        << task->error().value_or(Error{}).reason;
    EXPECT_TRUE(fs::is_empty(dir / "src"));
    EXPECT_EQ(namesIn(dir / "dst"),
              (std::vector<std::string>{"dir", "f0", "f1", "f2", "f3", "f4"}));
    EXPECT_EQ(readFile(dir / "dst/dir/inner.txt"), "inner");

    // Replace (remembered from an earlier "apply to all") deletes the existing entry first.
    writeFile(dir / "src/f0", "newer");
    auto prompts = std::make_shared<ScriptedPrompts>();
    prompts->conflictAnswers.push_back({ConflictAction::KeepBoth, true});
    manager.setUserPrompts(prompts);
    auto keep = localTask<MoveTask>(dir / "src/f0", dir / "dst");
    runAll(manager, keep);
    EXPECT_EQ(readFile(dir / "dst/f0-1"), "newer");
    EXPECT_EQ(readFile(dir / "dst/f0"), "0");
}

namespace {

// A file whose every 4 KiB block names its number, so that a torn copy never passes for a whole
// one.
std::string numberedBlocks(std::size_t blocks) {
    std::string out;
    for (std::size_t i = 0; i < blocks; ++i) {
        std::string block = fmt::format("block {:08}\n", i);
        block.resize(4096, '.');
        out += block;
    }
    return out;
}

// Runs quillon and kills it (SIGKILL) at a random moment within `spread` after `begun` turned
// true; false when it ended by itself before.
bool killAtRandom(const std::vector<std::string>& args, const std::function<bool()>& begun,
                  std::chrono::milliseconds spread, std::mt19937& rng) {
    std::vector<std::string> argv{QUILLON_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    ChildProcess p(argv);
    if (!waitUntil([&] { return begun() || !p.running(); }) || !p.running()) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(
        std::uniform_int_distribution<long>(0, spread.count() * 1000)(rng)));
    return p.stop(SIGKILL) == 128 + SIGKILL;
}

bool hasFileWithData(const std::string& folder) {
    std::error_code ec;
    for (auto& e : fs::recursive_directory_iterator(folder, ec))
        if (e.is_regular_file(ec) && e.file_size(ec) > 0) return true;
    return false;
}

}  // namespace

using TransferCli = TransferFixture;

TEST_F(TransferCli, CopiesAndMovesLocally) {
    writeFile(dir / "src/report.txt", "report");
    writeFile(dir / "src/tree/.hidden", "h");
    fs::create_directories(dir / "src/tree/empty/inner");
    fs::create_directories(dir / "dst");

    EXPECT_TRUE(quillonExits(0, {"cp", dir / "src/report.txt", dir / "dst"}));
    EXPECT_TRUE(fileHolds(dir / "dst/report.txt", "report"));

    // A folder needs -r; into itself is refused.
    EXPECT_TRUE(quillonExits(1, {"cp", dir / "src/tree", dir / "dst"}, "use -r"));
    const std::string intoItself = "can’t copy/move an item into itself.";
    EXPECT_TRUE(quillonExits(1, {"cp", "-r", dir / "src", dir / "src/tree"}, intoItself));
    EXPECT_TRUE(quillonExits(0, {"cp", "-r", dir / "src/tree", dir / "dst"}));
    EXPECT_TRUE(fileHolds(dir / "dst/tree/.hidden", "h"));
    EXPECT_TRUE(fs::is_directory(dir / "dst/tree/empty/inner"));

    // Without a terminal a conflict is skipped; the flags replace or keep both.
    writeFile(dir / "src/report.txt", "newer");
    EXPECT_TRUE(quillonExits(0, {"cp", dir / "src/report.txt", dir / "dst"}, "skipped"));
    EXPECT_TRUE(fileHolds(dir / "dst/report.txt", "report"));
    writeFile(dir / "dst/report-1.txt", "one");
    EXPECT_TRUE(
        quillonExits(0, {"cp", "--on-conflict", "keep-both", dir / "src/report.txt", dir / "dst"}));
    EXPECT_TRUE(fileHolds(dir / "dst/report-2.txt", "newer"));
    EXPECT_TRUE(quillonExits(
        0, {"cp", "--on-conflict", "replace", "--json", dir / "src/report.txt", dir / "dst"},
        R"("state":"completed","transferred":5,"total":5,"error":null})"));
    EXPECT_TRUE(fileHolds(dir / "dst/report.txt", "newer"));
    // Asking needs a terminal; a move cannot replace.
    EXPECT_TRUE(
        quillonExits(2, {"cp", "--on-conflict", "ask", dir / "src/report.txt", dir / "dst"}));
    EXPECT_TRUE(
        quillonExits(2, {"mv", "--on-conflict", "replace", dir / "src/report.txt", dir / "dst"}));

    // Rename within one server when the target is not a folder; never over an existing item.
    EXPECT_TRUE(quillonExits(0, {"mv", dir / "dst/report-1.txt", dir / "dst/renamed.txt"}));
    EXPECT_TRUE(fileHolds(dir / "dst/renamed.txt", "one"));
    EXPECT_TRUE(quillonExits(1, {"mv", dir / "dst/renamed.txt", dir / "dst/report.txt"}));
    EXPECT_TRUE(fileHolds(dir / "dst/report.txt", "newer"));
    EXPECT_TRUE(quillonExits(1, {"mv", dir / "dst/tree", dir / "dst/tree/empty/x"}, intoItself));

    // Several items into a folder: the ones without a conflict move together; a conflict is
    // kept under a new name.
    writeFile(dir / "moved/report.txt", "there");
    EXPECT_TRUE(quillonExits(0, {"mv", "--on-conflict", "keep-both", dir / "dst/renamed.txt",
                                 dir / "dst/tree", dir / "dst/report.txt", dir / "moved"}));
    EXPECT_EQ(namesIn(dir / "moved"),
              (std::vector<std::string>{"renamed.txt", "report-1.txt", "report.txt", "tree"}));
    EXPECT_TRUE(fileHolds(dir / "moved/report-1.txt", "newer"));
    EXPECT_EQ(namesIn(dir / "dst"), (std::vector<std::string>{"report-2.txt"}));
}

TEST_F(TransferCli, TransfersToFromAndBetweenFtpServers) {
    auto pure = startFtpServer(FtpServerKind::PureFtpd);
    auto pro = startFtpServer(FtpServerKind::Proftpd);
    if (!pure || !pro) return;
    writeFile(dir / "tree/a.txt", "alpha");
    writeFile(dir / "tree/.hidden", "h");
    fs::create_directories(dir / "tree/empty/deeper");
    ::symlink("a.txt", (dir / "tree/link").c_str());
    // The longest name a file system holds: its temporary name must still fit.
    std::string longName;
    while (longName.size() < 252) longName += "é";
    longName += "end";

    // An FTP server cannot be given a link: it is left out, and the user hears of it.
    ASSERT_TRUE(quillonExits(0, {"cp", "-r", dir / "tree", pure->url("/")},
                             "quillon: skipped link " + dir / "tree/link" + " -> a.txt\n"))
        << pure->log();
    for (auto content : {"long", "longer"}) {
        writeFile(dir / longName, content);
        EXPECT_TRUE(quillonExits(
            0, {"cp", "--on-conflict", "replace", dir / longName, pure->url("/tree")}));
        EXPECT_TRUE(fileHolds(pure->hostPath("/tree/" + longName), content));
    }
    // (What a tree becomes on a server is the transfer engine's own test.)
    EXPECT_FALSE(fs::exists(pure->hostPath("/tree/link")));

    ASSERT_TRUE(quillonExits(0, {"cp", "-r", pure->url("/tree"), pro->url("/")}));
    EXPECT_TRUE(fs::is_directory(pro->hostPath("/tree/empty/deeper")));

    fs::create_directories(dir / "back");
    ASSERT_TRUE(quillonExits(0, {"cp", "-r", "--json", pro->url("/tree"), dir / "back"},
                             "\"state\":\"completed\""));
    EXPECT_TRUE(fileHolds(dir / "back/tree/.hidden", "h"));
    EXPECT_TRUE(fileHolds(dir / "back/tree/" + longName, "longer"));
    EXPECT_TRUE(fs::is_directory(dir / "back/tree/empty/deeper"));

    // A move between two servers deletes the source once the copy is checked.
    // The target folder must exist.
    EXPECT_TRUE(quillonExits(1, {"mv", pro->url("/tree"), pure->url("/empty-target")}));
    pure->makeDir("/moved");
    ASSERT_TRUE(quillonExits(0, {"mv", pro->url("/tree"), pure->url("/moved")}));
    EXPECT_TRUE(fileHolds(pure->hostPath("/moved/tree/a.txt"), "alpha"));
    EXPECT_FALSE(fs::exists(pro->hostPath("/tree")));
    EXPECT_TRUE(fs::is_empty(PathUtils::getAppTempPath()));
}

TEST_F(TransferCli, KilledCopyOrMoveLeavesNoTornFileAndTheNextRunCopiesIt) {
    auto server = startFtpServer(FtpServerKind::PureFtpd);
    if (!server) return;
    const std::string content = numberedBlocks(4096);  // 16 MiB
    writeFile(dir / "big.bin", content);
    for (auto folder : {"local", "down", "moved"}) fs::create_directories(dir / folder);
    // A move within one file system is a rename; between two it copies. /dev/shm is memory.
    std::string shm = "/dev/shm/quillon-kill-XXXXXX";
    struct stat shmSt {
    }, dirSt{};
    if (!::mkdtemp(shm.data()) || ::stat(shm.c_str(), &shmSt) != 0 ||
        ::stat(dir.path().c_str(), &dirSt) != 0 || shmSt.st_dev == dirSt.st_dev)
        shm.clear();
    std::string temp = PathUtils::getAppTempPath();
    std::error_code ec;
    auto holdsSomething = [&](const std::string& folder) { return !fs::is_empty(folder, ec); };

    struct Case {
        std::vector<std::string> args;
        std::string folder;                // where the file arrives
        std::function<bool()> begun;       // the transfer has begun writing
        std::chrono::milliseconds spread;  // kills land this long after that, at most
        std::string verb;
    };
    std::vector<Case> cases = {
        {{"cp", dir / "big.bin", dir / "local"},
         dir / "local",
         [&] { return holdsSomething(dir / "local"); },
         std::chrono::milliseconds(20),
         "copied"},
        {{"cp", dir / "big.bin", server->url("/")},
         server->root(),
         [&] { return holdsSomething(server->root()); },
         std::chrono::milliseconds(80),
         "copied"},
        {{"cp", server->url("/big.bin"), dir / "down"},
         dir / "down",
         [&] { return hasFileWithData(temp); },
         std::chrono::milliseconds(40),
         "copied"},
    };
    if (!shm.empty())
        cases.push_back({{"mv", shm + "/big.bin", dir / "moved"},
                         dir / "moved",
                         [&] { return holdsSomething(dir / "moved"); },
                         std::chrono::milliseconds(20),
                         "moved"});
    std::mt19937 rng(std::random_device{}());
    int kills = 0;
    for (auto& c : cases) {
        std::string arrived = c.folder + "/big.bin";
        // Each run starts with its source and without the file at its target.
        auto reset = [&] {
            if (c.verb == "moved" && !fs::exists(shm + "/big.bin"))
                writeFile(shm + "/big.bin", content);
            fs::remove(arrived, ec);
        };
        for (int trial = 0; trial < 4; ++trial) {
            reset();
            kills += killAtRandom(c.args, c.begun, c.spread, rng);
            // Either the whole file under its name, or none; a move loses nothing.
            if (fs::exists(arrived)) {
                EXPECT_TRUE(fileHolds(arrived, content)) << c.args[1];
            } else if (c.verb == "moved") {
                EXPECT_TRUE(fileHolds(shm + "/big.bin", content));
            }
        }
        // The next run transfers the file (no torn one to skip as a conflict), and its start
        // clears what the killed runs left: temporaries beside the target, scratch folders.
        reset();
        EXPECT_TRUE(quillonExits(0, c.args, c.verb));
        EXPECT_TRUE(fileHolds(arrived, content));
        EXPECT_EQ(namesIn(c.folder), std::vector<std::string>{"big.bin"}) << c.args[1];
        EXPECT_TRUE(fs::is_empty(temp, ec)) << c.args[1];
    }
    EXPECT_GT(kills, 0);
    if (!shm.empty()) fs::remove_all(shm, ec);
}

TEST_F(TransferCli, DeepRemoteTreeEndsInAClearErrorAndKeepGoingFetchesTheRest) {
    auto server = startFtpServer(FtpServerKind::PureFtpd);
    if (!server) return;
    // Twelve levels of 200-byte names: the server's own paths stay well below 4096 bytes...
    std::string deep = "deep";
    for (int i = 0; i < 12; ++i) deep += "/" + std::string(200, 'd');
    server->makeDir(deep);
    server->writeFile(deep + "/bottom.txt", "b");
    server->writeFile("deep/top.txt", "t");
    server->chownTree();
    // ...while below a local folder of 1800 bytes they pass it.
    auto longFolder = [&](const std::string& tag) {
        std::string path = dir / tag;
        while (path.size() < 1800) path += "/" + std::string(200, 't');
        fs::create_directories(path);
        return path;
    };
    std::string stopped = longFolder("stopped"), going = longFolder("going");

    EXPECT_TRUE(quillonExits(1, {"cp", "-r", server->url("/deep"), stopped},
                             "bytes long, longer than this system allows"));
    EXPECT_TRUE(quillonExits(1, {"cp", "-r", "--keep-going", server->url("/deep"), going},
                             "longer than this system allows"));
    EXPECT_TRUE(fileHolds(going + "/deep/top.txt", "t"));
    EXPECT_TRUE(fs::is_empty(PathUtils::getAppTempPath()));
}

TEST_F(TransferCli, FailureStopsTheRestUnlessKeepGoing) {
    auto server = startFtpServer(FtpServerKind::PureFtpd);
    if (!server) return;
    // The server writes as an unprivileged user: a root-owned read-only folder refuses uploads.
    fs::create_directories(server->hostPath("/locked"));
    ::chmod(server->hostPath("/locked").c_str(), 0555);
    writeFile(dir / "first.txt", "1");
    writeFile(dir / "second.txt", "2");

    EXPECT_TRUE(quillonExits(
        1, {"cp", "--jobs", "1", dir / "first.txt", dir / "second.txt", server->url("/locked")},
        "stopped " + dir / "second.txt"));

    auto going = runQuillon({"cp", "--jobs", "1", "--keep-going", "--json", dir / "first.txt",
                             dir / "second.txt", server->url("/locked")});
    EXPECT_EQ(going.exitCode, 1);
    // Both were tried: two failures, nothing stopped.
    std::size_t failures = 0;
    for (std::size_t at = 0; (at = going.out.find("\"state\":\"failed\"", at)) != std::string::npos;
         ++at)
        ++failures;
    EXPECT_EQ(failures, 2u) << going.out;
    // A file that did not arrive counts no bytes, whatever was planned or sent.
    EXPECT_TRUE(contains(going.out, R"("state":"failed","transferred":0,"total":1,)")) << going.out;

    // A folder merged into one where a part is locked: the bytes counted are those that arrived.
    writeFile(dir / "part/ok.txt", "12345");
    writeFile(dir / "part/locked/no.txt", "1234567");
    server->makeDir("/part/locked");
    ::chmod(server->hostPath("/part/locked").c_str(), 0555);
    auto part = runQuillon({"cp", "-r", "--keep-going", "--on-conflict", "merge", "--json",
                            dir / "part", server->url("/")});
    EXPECT_EQ(part.exitCode, 1);
    EXPECT_TRUE(fileHolds(server->hostPath("/part/ok.txt"), "12345"));
    EXPECT_TRUE(fs::is_empty(server->hostPath("/part/locked")));
    EXPECT_TRUE(contains(part.out, R"("state":"failed","transferred":5,"total":12,)")) << part.out;

    // Names that are not UTF-8 would not arrive unchanged (this server turns every stray byte
    // into U+FFFD, so two such names became one file): each fails with its name, and with
    // --keep-going the other files of the folder arrive.
    auto py = startFtpServer(FtpServerKind::Pyftpdlib);
    if (!py) return;
    writeFile(dir / "names/a.txt", "a");
    writeFile(dir / "names/bad\xff.txt", "ff");
    writeFile(dir / "names/bad\xfe.txt", "fe");
    writeFile(dir / "names/z.txt", "z");
    EXPECT_TRUE(
        quillonExits(1, {"cp", "-r", dir / "names", py->url("/")}, "is not valid UTF-8 text"));
    for (auto& name : namesIn(py->hostPath("/names")))
        EXPECT_TRUE(name == "a.txt" || name == "z.txt") << name;
    auto rest = runQuillon(
        {"cp", "-r", "--keep-going", "--on-conflict", "replace", dir / "names", py->url("/")});
    EXPECT_EQ(rest.exitCode, 1);
    EXPECT_TRUE(contains(rest.err, "names/bad'$'\\377''.txt': The name of")) << rest.err;
    EXPECT_TRUE(contains(rest.err, "names/bad'$'\\376''.txt': The name of")) << rest.err;
    EXPECT_TRUE(contains(rest.err, "2 items failed")) << rest.err;
    EXPECT_EQ(namesIn(py->hostPath("/names")), (std::vector<std::string>{"a.txt", "z.txt"}));
}

TEST_F(TransferCli, ServerRecordsAndSettingsAreHonoured) {
    auto vs = startFtpServer(FtpServerKind::Vsftpd);
    if (!vs) return;
    vs->writeFile("/start/in-start.txt", "s");
    vs->writeFile("/start/.hidden", "h");
    vs->writeFile("/start/sub/deeper.txt", "d");
    vs->chownTree();
    auto add = [&](const std::string& name, std::vector<std::string> more) {
        std::vector<std::string> args{"server",      "add",      name,
                                      "--type",      "ftp",      "--addr",
                                      "127.0.0.1",   "--port",   std::to_string(vs->port()),
                                      "--user",      vs->user(), "--password",
                                      vs->password()};
        args.insert(args.end(), more.begin(), more.end());
        return runQuillon(args);
    };
    EXPECT_EQ(add("", {}).exitCode, 1);
    EXPECT_TRUE(contains(add(" ", {}).err, "A server needs a name.")) << add(" ", {}).err;
    // vsftpd does not confine its users here: NAME: starts where the login lands, not at "/".
    ASSERT_EQ(add("home", {}).exitCode, 0);
    EXPECT_TRUE(quillonExits(0, {"ls", "home:start"}, "in-start.txt"));
    EXPECT_TRUE(quillonExits(0, {"ls", "home:"}, " start\n"));
    // A server's path is its start folder for NAME: and relative paths.
    ASSERT_EQ(add("s", {"--path", remotePath(vs->serverInfo(), "/start"), "--ftp-protocol",
                        "explicit-if-available"})
                  .exitCode,
              0);
    auto ls = runQuillon({"ls", "s:"});
    EXPECT_TRUE(contains(ls.out, "in-start.txt") && !contains(ls.out, ".hidden")) << ls.out;
    EXPECT_TRUE(quillonExits(0, {"ls", "s:sub"}, "deeper.txt"));
    // Hidden items show without -a when the setting says so.
    ASSERT_TRUE(quillonExits(0, {"prefs", "SYS_SHOW_HIDDEN_FILES", "true"}));
    EXPECT_TRUE(quillonExits(0, {"ls", "s:"}, ".hidden"));
    // TLS servers show the scheme a URL for them takes.
    EXPECT_TRUE(quillonExits(0, {"servers"}, "ftpes://127.0.0.1:"));
    // Secrets are masked.
    ASSERT_TRUE(quillonExits(0, {"prefs", "FTP_SERVER_PASSWORD", "hush-hush"}));
    for (auto args : {std::vector<std::string>{"prefs"},
                      std::vector<std::string>{"prefs", "FTP_SERVER_PASSWORD"}}) {
        auto prefs = runQuillon(args);
        EXPECT_FALSE(contains(prefs.out, "hush-hush")) << prefs.out;
        EXPECT_TRUE(contains(prefs.out, "********")) << prefs.out;
    }
    // A server that a sync pair uses is removed only with --force, and the pair is named.
    ASSERT_TRUE(quillonExits(0, {"sync", "add", "s:sub", "start-sub"}));
    auto rm = runQuillon({"server", "rm", "s"});
    EXPECT_NE(rm.exitCode, 0);
    EXPECT_TRUE(contains(rm.err, "Server \"s\" is used by a sync pair:")) << rm.err;
    EXPECT_TRUE(contains(rm.err, remotePath(vs->serverInfo(), "/start/sub"))) << rm.err;
    EXPECT_TRUE(quillonExits(0, {"ls", "s:"}));
    EXPECT_TRUE(quillonExits(0, {"server", "rm", "--force", "s"}));
    EXPECT_TRUE(quillonExits(1, {"server", "show", "s"}));
}

TEST_F(TransferCli, CtrlCStopsTransfersRemovesScratchAndExits130) {
    auto server = startFtpServer(FtpServerKind::Vsftpd);
    if (!server) return;
    { std::ofstream out(server->hostPath("/huge.bin")); }
    // Far more than arrives before the interrupt, yet within the free space the download checks.
    std::error_code ec;
    auto room = fs::space(dir.path(), ec).available / 2;
    fs::resize_file(server->hostPath("/huge.bin"), std::min<std::uintmax_t>(20ull << 30, room));
    server->chownTree();
    fs::create_directories(dir / "target");
    ChildProcess p({QUILLON_BINARY, "cp", server->url("/huge.bin"), dir / "target"});
    // Interrupt once the download has produced bytes in its scratch folder.
    auto temp = PathUtils::getAppTempPath();
    EXPECT_TRUE(waitUntil([&] { return hasFileWithData(temp) || !p.running(); }) && p.running())
        << p.err();
    EXPECT_EQ(p.stop(SIGINT), 130) << p.err();
    EXPECT_TRUE(contains(p.err() + p.out(), "stopped")) << p.err();
    EXPECT_TRUE(fs::is_empty(dir / "target"));
    EXPECT_TRUE(fs::is_empty(temp));
}
