// Cross-server moves: the copy is checked before the source is deleted; a copy one byte short
// reports 10013 and keeps the source; a cancelled move keeps the source and its scratch folder
// is gone.
#include <gtest/gtest.h>
#include <unistd.h>

#include "TransferTestKit.h"
#include "clients/ftp/FtpWrapper.h"
#include "core/PathUtils.h"
#include "core/WrapperProxy.h"
#include "support/FtpServers.h"
#include "transfer/CrossMoveTask.h"
#include "transfer/FileTransferUtils.h"

using namespace quillon;
using namespace quillon::test;
namespace fs = std::filesystem;

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

TEST(CrossMoveTask, VerifiedCopyDeletesTheSourceAlsoUnderAKeepBothName) {
    IsolatedHome home;
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
    FileTransferTaskManager manager;
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
    ScratchDir dir("crossmovelocal");
    writeFile(dir / "local.txt", "from disk");
    auto fromDisk = runOne<CrossMoveTask>(manager, localServer(), localItem(dir / "local.txt"), dst,
                                          remoteFolder(dst, "/"));
    ASSERT_EQ(fromDisk->state(), TransferTaskState::Completed)
        << fromDisk->error().value_or(Error{}).describe();
    EXPECT_TRUE(fileHolds(to->hostPath("/local.txt"), "from disk"));
    EXPECT_FALSE(fs::exists(dir / "local.txt"));
}

TEST(CrossMoveTask, CopyOneByteShortReports10013AndKeepsTheSource) {
    IsolatedHome home;
    auto from = startFtpServer(FtpServerKind::PureFtpd);
    auto to = startFtpServer(FtpServerKind::Vsftpd);
    if (!from || !to) return;
    from->writeFile("/data.bin", std::string(50000, 'd'));
    from->writeFile("/tree/inner.bin", std::string(4000, 'i'));
    from->chownTree();
    auto src = from->serverInfo();
    auto dst = to->serverInfo();
    ShortUploadsTo shortUploads(dst->serverID);
    FileTransferTaskManager manager;
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

TEST(CrossMoveTask, CancelDuringCopyKeepsSourceAndRemovesScratch) {
    IsolatedHome home;
    auto from = startFtpServer(FtpServerKind::Vsftpd);
    auto to = startFtpServer(FtpServerKind::PureFtpd);
    if (!from || !to) return;
    makeSparseFile(from->hostPath("/big.bin"), 2ull << 30);
    from->chownTree();
    auto src = from->serverInfo();
    auto dst = to->serverInfo();
    FileTransferTaskManager manager;
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
