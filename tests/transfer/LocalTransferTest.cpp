// Local to local: CopyTask on trees with nested empty folders, hidden files and links, progress
// steps and cancellation; MoveTask within the local disk. (Name conflicts and failures of local
// copies are the transfer manager's tests.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>

#include "TransferTestKit.h"
#include "transfer/CopyTask.h"
#include "transfer/LocalFileCopier.h"
#include "transfer/MoveTask.h"

using namespace quillon;
using namespace quillon::test;
namespace fs = std::filesystem;

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
