// The task queue: the concurrency limit, stopping, conflict questions with their apply-to-all
// memory and the check before them, failure alerts, observers, completion rules and the refresh
// notification; and the shared helpers (unique names, free space, progress observation).
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <any>
#include <atomic>
#include <condition_variable>
#include <mutex>

#include "TransferTestKit.h"
#include "clients/local/LocalWrapper.h"
#include "core/AppPreference.h"
#include "core/KvConnectionPool.h"
#include "core/NotificationCenter.h"
#include "transfer/CopyTask.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/MoveTask.h"
#include "transfer/ProgressObserver.h"
#include "transfer/RemoteUpload.h"

using namespace quillon;
using namespace quillon::test;

namespace {

// A task that runs until the test opens its gate: it exercises the queue, nothing else.
class GateTask : public FileTransferTask {
  public:
    void startTransfer() override {
        ++starts;
        beginTransfer();
        std::unique_lock lock(m_);
        cv_.wait(lock, [&] { return open_ || stopped(); });
        lock.unlock();
        completeFileTransfer(std::nullopt);
    }
    void cancelTransfer() override {
        setState(TransferTaskState::Stopped);
        std::lock_guard lock(m_);
        cv_.notify_all();
    }
    std::string_view taskClassName() const override { return "GateTask"; }
    void open() {
        std::lock_guard lock(m_);
        open_ = true;
        cv_.notify_all();
    }
    std::atomic<int> starts{0};

  private:
    std::mutex m_;
    std::condition_variable cv_;
    bool open_ = false;
};

std::vector<std::shared_ptr<GateTask>> addGates(FileTransferTaskManager& manager, int n) {
    std::vector<std::shared_ptr<GateTask>> gates;
    for (int i = 0; i < n; ++i) {
        auto g = std::make_shared<GateTask>();
        g->sourceMetadata = KvMetadata("/gate" + std::to_string(i));
        manager.addTask(g);
        gates.push_back(g);
    }
    return gates;
}

int countStarted(const std::vector<std::shared_ptr<GateTask>>& gates) {
    int n = 0;
    for (auto& g : gates) n += g->starts.load();
    return n;
}

struct EventLog : TransferObserver {
    std::vector<std::string> events;
    void taskStarted(FileTransferTask& task) override { add("started", task); }
    void taskEnded(FileTransferTask& task) override { add("ended", task); }
    void add(const char* what, FileTransferTask& task) {
        events.push_back(std::string(what) + " " + task.sourceMetadata.nameOrEmpty());
    }
};

// Keeps each failure alert open until the test answers it.
struct LaterPrompts : UnattendedPrompts {
    std::vector<FailureAnswer> open;
    void alertTaskFailure(const std::string&, bool, FailureAnswer answer) override {
        open.push_back(std::move(answer));
    }
};

}  // namespace

TEST(FileTransferUtils, UniqueNamesFollowTheNumberingRule) {
    auto listing = [](std::initializer_list<const char*> names) {
        KvMetadataList l;
        for (auto* n : names) l.emplace_back(std::string("/f/") + n);
        return l;
    };
    using FileTransferUtils::getUniqueFileName;
    EXPECT_EQ(getUniqueFileName(listing({"other.txt"}), "report.txt"), "report.txt");
    EXPECT_EQ(getUniqueFileName(listing({"report.txt"}), "report.txt"), "report-1.txt");
    EXPECT_EQ(getUniqueFileName(listing({"report.txt", "report-1.txt"}), "report.txt"),
              "report-2.txt");
    EXPECT_EQ(getUniqueFileName(listing({"notes"}), "notes"), "notes-1");
    EXPECT_EQ(getUniqueFileName(listing({"a.tar.gz"}), "a.tar.gz"), "a.tar-1.gz");
    EXPECT_EQ(getUniqueFileName(listing({".bashrc"}), ".bashrc"), ".bashrc-1");
    // Names compare case-sensitively.
    EXPECT_EQ(getUniqueFileName(listing({"Report.txt"}), "report.txt"), "report.txt");

    // With every candidate 1..9999 taken the name comes back unchanged.
    KvMetadataList full;
    full.emplace_back("/f/x.bin");
    for (int n = 1; n < 10000; ++n) full.emplace_back("/f/x-" + std::to_string(n) + ".bin");
    EXPECT_EQ(getUniqueFileName(full, "x.bin"), "x.bin");
    full.pop_back();
    EXPECT_EQ(getUniqueFileName(full, "x.bin"), "x-9999.bin");

    ScratchDir dir("unique");
    writeFile(dir / "report.txt", "a");
    writeFile(dir / "report-1.txt", "b");
    EXPECT_EQ(FileTransferUtils::uniqueFilePathInFolder(dir.path(), "report.txt"),
              dir / "report-2.txt");
    EXPECT_EQ(FileTransferUtils::uniqueFilePathInFolder(dir.path(), "new.txt"), dir / "new.txt");
}

TEST(FileTransferUtils, IntoItselfAndFreeSpace) {
    using FileTransferUtils::isCopyIntoItself;
    EXPECT_TRUE(isCopyIntoItself("/a/b", "/a/b"));
    EXPECT_TRUE(isCopyIntoItself("/a/b", "/a/b/c"));
    EXPECT_TRUE(isCopyIntoItself("/a/b/", "/a/b/c/"));
    EXPECT_FALSE(isCopyIntoItself("/a/b", "/a/bc"));
    EXPECT_FALSE(isCopyIntoItself("/a/b", "/a"));
    EXPECT_EQ(FileTransferUtils::copyIntoItselfMessage(), "can’t copy/move an item into itself.");

    ScratchDir dir("free");
    struct statvfs st {};
    ASSERT_EQ(::statvfs(dir.path().c_str(), &st), 0);
    auto expected = static_cast<std::uint64_t>(st.f_bavail) * st.f_frsize;
    auto measured = FileTransferUtils::totalFreeDiskSpace(dir.path());
    // Other writers on the volume move the figure a little between the two readings.
    EXPECT_NEAR(static_cast<double>(measured), static_cast<double>(expected), 512.0 * 1024 * 1024);
    // A path that does not exist yet is measured on the volume that would hold it.
    EXPECT_GT(FileTransferUtils::totalFreeDiskSpace(dir / "not/yet/there"), 0u);
}

namespace {

// A remote store played by a local folder: an upload reads the file (following the alias link a
// remote client is handed) and can lose its tail while still reporting success.
class StandInRemote : public LocalWrapper {
  public:
    StandInRemote(ServerInfoPtr info, bool losesTail)
        : LocalWrapper(std::move(info)), losesTail_(losesTail) {}
    Status uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                      const ProgressHandler&) override {
        std::string data = readFile(localFile.localPath.value_or(localFile.pathOrEmpty()));
        if (losesTail_) data.resize(10);
        writeFile(toFolder.pathOrEmpty() + "/" + localFile.nameOrEmpty(), data);
        return {};
    }

  private:
    bool losesTail_;
};

}  // namespace

TEST(FileTransferUtils, AnUploadThatArrivesShortFailsAndReplacesNothing) {
    IsolatedHome home;
    ScratchDir dir("short");
    writeFile(dir / "src/data.bin", std::string(1000, 'd'));
    writeFile(dir / "dst/data.bin", "old content");
    StandInRemote losing(localServer(), true);
    auto never = [] { return false; };
    // The local disk stands in for a remote store: its folder record claims another kind, so the
    // upload takes the path every remote client takes (temporary name, check, rename).
    auto target = localFolder(dir / "dst");
    target.protocolType = ProtocolType::WebDAV;
    auto send = [&](Wrapper& w, const std::string& name, bool replace) {
        return RemoteUpload::uploadFile(w, localItem(dir / "src/data.bin"), dir / "src/data.bin",
                                        target, name, replace, {}, never);
    };
    auto fresh = send(losing, "new.bin", false);
    ASSERT_FALSE(fresh);
    EXPECT_EQ(fresh.error().code, ErrorCode::UploadFailed);
    auto replacing = send(losing, "data.bin", true);
    ASSERT_FALSE(replacing);
    EXPECT_EQ(readFile(dir / "dst/data.bin"), "old content");
    EXPECT_EQ(namesIn(dir / "dst"), std::vector<std::string>{"data.bin"});

    StandInRemote whole(localServer(), false);
    auto r = send(whole, "data.bin", true);
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_EQ(readFile(dir / "dst/data.bin"), std::string(1000, 'd'));
}

using TransferManager = TransferFixture;

TEST_F(TransferManager, FourthTaskWaitsForFreeSlot) {
    auto& prefs = AppPreference::sharedAppPreference();
    prefs.setValue(PlistValue(std::int64_t{3}), PrefKey::MaxSimultaneousTransfers);
    EXPECT_EQ(manager.maxSimultaneousTransfers(), 3);
    auto gates = addGates(manager, 4);
    manager.start();
    ASSERT_TRUE(pumpUntil([&] { return countStarted(gates) == 3; }));
    EXPECT_EQ(gates[3]->state(), TransferTaskState::Waiting);
    EXPECT_EQ(gates[3]->starts, 0);
    gates[1]->open();
    ASSERT_TRUE(pumpUntil([&] { return gates[3]->starts == 1; }));
    EXPECT_EQ(gates[1]->state(), TransferTaskState::Completed);
    for (auto& g : gates) g->open();
    runToEnd(manager);
    for (auto& g : gates) EXPECT_EQ(g->state(), TransferTaskState::Completed);
    // The list keeps finished tasks.
    EXPECT_EQ(manager.getAllTasks().size(), 4u);

    // Without the preference one task runs at a time; so it does with a limit below one (a
    // hand-edited file), which would otherwise keep every task waiting.
    prefs.removeValueForKey(PrefKey::MaxSimultaneousTransfers);
    EXPECT_EQ(manager.maxSimultaneousTransfers(), 1);
    prefs.setValue(PlistValue(std::int64_t{0}), PrefKey::MaxSimultaneousTransfers);
    auto more = addGates(manager, 2);
    manager.start();
    ASSERT_TRUE(pumpUntil([&] { return more[0]->starts == 1; }));
    EXPECT_EQ(more[1]->state(), TransferTaskState::Waiting);
    // An override (the command line's --jobs) wins over the preference.
    manager.setMaxSimultaneousTransfers(2);
    manager.runNextTask();
    ASSERT_TRUE(pumpUntil([&] { return more[1]->starts == 1; }));
    for (auto& g : more) g->open();
    runToEnd(manager);
}

TEST_F(TransferManager, StoppingWaitingTaskNeverStartsIt) {
    manager.setMaxSimultaneousTransfers(1);
    auto gates = addGates(manager, 3);
    manager.start();
    ASSERT_TRUE(pumpUntil([&] { return gates[0]->starts == 1; }));
    manager.stopTask(gates[1]);
    EXPECT_EQ(gates[1]->state(), TransferTaskState::Stopped);
    // Stopping the running one lets the next waiting task (not the stopped one) start.
    manager.stopTask(gates[0]);
    ASSERT_TRUE(pumpUntil([&] { return gates[2]->starts == 1; }));
    gates[2]->open();
    runToEnd(manager);
    EXPECT_EQ(gates[0]->state(), TransferTaskState::Stopped);
    EXPECT_EQ(gates[1]->starts, 0);
    EXPECT_EQ(gates[1]->state(), TransferTaskState::Stopped);
    EXPECT_EQ(gates[2]->state(), TransferTaskState::Completed);

    // stopAllTasks stops the waiting ones first, then the running one.
    auto batch = addGates(manager, 3);
    manager.start();
    ASSERT_TRUE(pumpUntil([&] { return batch[0]->starts == 1; }));
    manager.stopAllTasks();
    runToEnd(manager);
    for (auto& g : batch) EXPECT_EQ(g->state(), TransferTaskState::Stopped);
    EXPECT_EQ(batch[1]->starts + batch[2]->starts, 0);
}

TEST_F(TransferManager, ConflictQuestionsAndApplyToAll) {
    for (auto n : {"a.txt", "b.txt", "c.txt"}) {
        writeFile(dir / ("src/" + std::string(n)), std::string("new ") + n);
        writeFile(dir / ("dst/" + std::string(n)), std::string("old ") + n);
    }
    manager.setMaxSimultaneousTransfers(1);
    auto prompts = std::make_shared<ScriptedPrompts>();
    manager.setUserPrompts(prompts);
    // First question answered "replace" for all: the other two conflicts are not asked.
    prompts->conflictAnswers.push_back({ConflictAction::Replace, true});
    std::vector<std::shared_ptr<CopyTask>> tasks;
    for (auto n : {"a.txt", "b.txt", "c.txt"}) {
        tasks.push_back(makeTask<CopyTask>(localServer(),
                                           localItem(dir / ("src/" + std::string(n))),
                                           localServer(), localFolder(dir / "dst")));
        manager.addTask(tasks.back());
    }
    manager.start();
    runToEnd(manager);
    EXPECT_EQ(prompts->conflictsAsked.size(), 1u);
    EXPECT_FALSE(prompts->conflictsAsked[0].hideReplaceButton);
    EXPECT_EQ(prompts->conflictsAsked[0].message,
              "An item named “a.txt” already exists in this location.");
    for (auto n : {"a.txt", "b.txt", "c.txt"})
        EXPECT_EQ(readFile(dir / ("dst/" + std::string(n))), std::string("new ") + n);
    // Replaced in one step: nothing is left beside them.
    EXPECT_EQ(namesIn(dir / "dst"), (std::vector<std::string>{"a.txt", "b.txt", "c.txt"}));
    // The walk that started nothing forgot the answer.
    EXPECT_FALSE(manager.applyAll());
    EXPECT_EQ(manager.fileConflict(), ConflictAction::NotDecided);

    // "Skip" without apply-to-all: the task ends stopped, no alert, and the next one is asked.
    prompts->conflictAnswers.push_back({ConflictAction::Skip, false});
    prompts->conflictAnswers.push_back({ConflictAction::KeepBoth, false});
    auto skipped = localTask<CopyTask>(dir / "src/a.txt", dir / "dst");
    auto kept = localTask<CopyTask>(dir / "src/b.txt", dir / "dst");
    runAll(manager, skipped, kept);
    EXPECT_EQ(prompts->conflictsAsked.size(), 3u);
    EXPECT_EQ(skipped->state(), TransferTaskState::Stopped);
    EXPECT_FALSE(skipped->error());
    EXPECT_TRUE(prompts->failuresShown.empty());
    EXPECT_EQ(kept->state(), TransferTaskState::Completed);
    EXPECT_EQ(readFile(dir / "dst/b-1.txt"), "new b.txt");

    // Copying into the item's own folder never asks: report-1.txt, then report-2.txt.
    writeFile(dir / "same/report.txt", "r");
    for (int i = 0; i < 2; ++i) {
        auto item = localItem(dir / "same/report.txt");
        item.parentFolderMeta = std::make_shared<KvMetadata>(localFolder(dir / "same"));
        manager.addTask(
            makeTask<CopyTask>(localServer(), item, localServer(), localFolder(dir / "same")));
        manager.start();
        runToEnd(manager);
    }
    EXPECT_EQ(prompts->conflictsAsked.size(), 3u);
    EXPECT_EQ(namesIn(dir / "same"),
              (std::vector<std::string>{"report-1.txt", "report-2.txt", "report.txt"}));
}

TEST_F(TransferManager, MoveConflictOffersOnlyKeepBothAndSkip) {
    writeFile(dir / "src/x.txt", "moving");
    writeFile(dir / "dst/x.txt", "staying");
    auto prompts = std::make_shared<ScriptedPrompts>();
    manager.setUserPrompts(prompts);
    // A replace answer to a move question is not one of its buttons: it counts as skip.
    prompts->conflictAnswers.push_back({ConflictAction::Replace, false});
    auto refused = localTask<MoveTask>(dir / "src/x.txt", dir / "dst");
    runAll(manager, refused);
    ASSERT_EQ(prompts->conflictsAsked.size(), 1u);
    EXPECT_TRUE(prompts->conflictsAsked[0].hideReplaceButton);
    EXPECT_EQ(refused->state(), TransferTaskState::Stopped);
    EXPECT_EQ(readFile(dir / "dst/x.txt"), "staying");
    EXPECT_EQ(readFile(dir / "src/x.txt"), "moving");

    prompts->conflictAnswers.push_back({ConflictAction::KeepBoth, false});
    auto kept = localTask<MoveTask>(dir / "src/x.txt", dir / "dst");
    runAll(manager, kept);
    EXPECT_TRUE(prompts->conflictsAsked.back().hideReplaceButton);
    EXPECT_EQ(kept->state(), TransferTaskState::Completed);
    EXPECT_EQ(readFile(dir / "dst/x-1.txt"), "moving");
    EXPECT_EQ(readFile(dir / "dst/x.txt"), "staying");
    EXPECT_FALSE(std::filesystem::exists(dir / "src/x.txt"));
}

TEST_F(TransferManager, FailureAlertOffersIgnoreOnlyWhileTasksWait) {
    writeFile(dir / "src/ok.txt", "fine");
    manager.setMaxSimultaneousTransfers(1);
    auto prompts = std::make_shared<ScriptedPrompts>();
    manager.setUserPrompts(prompts);
    prompts->failureAnswers.push_back(FailureChoice::Ignore);

    auto missing = localTask<CopyTask>(dir / "src/gone.txt", dir / "dst");
    std::filesystem::create_directories(dir / "dst");
    auto fine = localTask<CopyTask>(dir / "src/ok.txt", dir / "dst");
    runAll(manager, missing, fine);
    ASSERT_EQ(prompts->failuresShown.size(), 1u);
    EXPECT_TRUE(prompts->failuresShown[0].second);
    EXPECT_EQ(prompts->failuresShown[0].first, "Not Found: " + dir / "src/gone.txt");
    EXPECT_EQ(missing->state(), TransferTaskState::Failed);
    ASSERT_TRUE(missing->error());
    EXPECT_EQ(missing->error()->domain, "Kv Generic");
    EXPECT_EQ(fine->state(), TransferTaskState::Completed);
    EXPECT_TRUE(missing->endTime().has_value());

    // Nothing waiting: only "Stop" is offered, and it stops the queue.
    auto again = localTask<CopyTask>(dir / "src/gone.txt", dir / "dst");
    runAll(manager, again);
    ASSERT_EQ(prompts->failuresShown.size(), 2u);
    EXPECT_FALSE(prompts->failuresShown[1].second);
}

TEST_F(TransferManager, RefreshNotificationAfterTheLastTaskOfAClass) {
    writeFile(dir / "src/a.txt", "a");
    writeFile(dir / "src/b.txt", "b");
    std::filesystem::create_directories(dir / "dst");
    std::vector<KvMetadataList> posted;
    auto token = NotificationCenter::defaultCenter().addObserver(
        REFRESH_FOLDER_NOTIFICATION, [&](const UserInfo& info) {
            auto it = info.find(std::string(REFRESH_FOLDER_USER_INFO));
            if (it != info.end()) posted.push_back(std::any_cast<KvMetadataList>(it->second));
        });
    manager.setMaxSimultaneousTransfers(1);
    for (auto n : {"a.txt", "b.txt"}) {
        auto item = localItem(dir / ("src/" + std::string(n)));
        item.parentFolderMeta = std::make_shared<KvMetadata>(localFolder(dir / "src"));
        manager.addTask(
            makeTask<CopyTask>(localServer(), item, localServer(), localFolder(dir / "dst")));
    }
    manager.start();
    runToEnd(manager);
    NotificationCenter::defaultCenter().removeObserver(token);
    // The first copy completes while the second waits: only the second posts.
    ASSERT_EQ(posted.size(), 1u);
    ASSERT_EQ(posted[0].size(), 2u);
    EXPECT_EQ(posted[0][0].pathOrEmpty(), dir / "src");
    EXPECT_EQ(posted[0][1].pathOrEmpty(), dir / "dst");
}

// What a transfer list hears: each task's start and end in order, and a failure alert answered
// later (as a window's dialog is) holding the queue until it is answered.
TEST_F(TransferManager, ObserversHearStartsAndEndsAndALaterAnswerHoldsTheQueue) {
    writeFile(dir / "src/a.txt", "a");
    writeFile(dir / "src/c.txt", "c");
    std::filesystem::create_directories(dir / "dst");
    manager.setMaxSimultaneousTransfers(1);
    auto prompts = std::make_shared<LaterPrompts>();
    manager.setUserPrompts(prompts);
    auto log = std::make_shared<EventLog>();
    manager.addObserver(log);
    std::vector<std::shared_ptr<CopyTask>> tasks;
    for (auto name : {"gone1", "a.txt", "gone2", "c.txt"}) {
        tasks.push_back(localTask<CopyTask>(dir / (std::string("src/") + name), dir / "dst"));
        manager.addTask(tasks.back());
    }
    manager.start();

    ASSERT_TRUE(pumpUntil([&] { return prompts->open.size() == 1; }));
    // The main queue runs on while the alert is open; the next task waits for the answer.
    MainQueue::shared().runFor(std::chrono::milliseconds(50));
    EXPECT_EQ(tasks[1]->state(), TransferTaskState::Waiting);
    prompts->open[0](FailureChoice::Ignore);

    ASSERT_TRUE(pumpUntil([&] { return prompts->open.size() == 2; }));
    prompts->open[1](FailureChoice::Stop);
    runToEnd(manager);
    manager.removeObserver(log);

    EXPECT_EQ(tasks[1]->state(), TransferTaskState::Completed);
    EXPECT_EQ(tasks[3]->state(), TransferTaskState::Stopped);
    EXPECT_EQ(log->events,
              (std::vector<std::string>{"started gone1", "ended gone1", "started a.txt",
                                        "ended a.txt", "started gone2", "ended gone2"}));
    EXPECT_EQ(namesIn(dir / "dst"), std::vector<std::string>{"a.txt"});
}

// The name-conflict check before a transfer: a target that cannot be looked up stops the task
// with that failure instead of letting it run as if the name were free.
TEST_F(TransferManager, MoveOntoAnFtpNameIsRefusedWhenTheTargetCannotBeListed) {
    // A scripted fake: listings fail on the server side while renames would succeed, and a
    // rename there replaces what bears the new name.
    std::mutex mutex;
    std::vector<std::string> renames;
    ScriptedFtpServer server(
        "220 fake\r\n", [&](const std::string& line, ScriptedFtpServer::Session& s) -> std::string {
            if (auto r = ScriptedFtpServer::basics(line); !r.empty()) return r;
            if (line == "FEAT") return "211-Features:\r\n SIZE\r\n211 End\r\n";
            if (line.starts_with("SIZE")) return "550 Could not get file size.\r\n";
            if (line == "PASV") return s.passive();
            if (line.starts_with("LIST") || line.starts_with("NLST"))
                return "451 Requested action aborted: local error in processing.\r\n";
            if (line.starts_with("RNFR") || line.starts_with("RNTO")) {
                std::lock_guard lock(mutex);
                renames.push_back(line);
                return line.starts_with("RNFR") ? "350 Ready\r\n" : "250 Renamed\r\n";
            }
            return "500 Unknown command\r\n";
        });
    auto info = server.serverInfo();
    registerBuiltinClients();

    KvMetadata source("/incoming/report.txt");
    source.protocolType = ProtocolType::FTP;
    source.serverID = info->serverID;
    KvMetadata folder("/archive");
    folder.isDir = true;
    folder.protocolType = ProtocolType::FTP;
    folder.serverID = info->serverID;

    auto prompts = std::make_shared<ScriptedPrompts>();
    manager.setUserPrompts(prompts);
    auto task = makeTask<MoveTask>(info, source, info, folder);
    runAll(manager, task);
    KvConnectionPool::clearConnectionPool();

    {
        std::lock_guard lock(mutex);
        EXPECT_TRUE(renames.empty())
            << "the move ran although the target could not be checked: " << renames.front();
    }
    EXPECT_TRUE(prompts->conflictsAsked.empty());
    EXPECT_EQ(task->state(), TransferTaskState::Failed);
    ASSERT_TRUE(task->error().has_value());
    EXPECT_EQ(task->error()->domain, "FTP") << task->error()->describe();
}

TEST(ProgressObserver, ForwardsChangesCancelAndCompletion) {
    struct Recorder : ProgressObserverDelegate {
        std::vector<std::string> events;
        void observerDidChange(ProgressObserver& o) override {
            events.push_back("change " + std::to_string(o.progress()->completedUnitCount()));
        }
        void observerDidCancel(ProgressObserver&) override { events.push_back("cancel"); }
        void observerDidComplete(ProgressObserver& o) override {
            events.push_back("complete " + o.name());
        }
    } recorder;
    auto progress = std::make_shared<TransferProgress>();
    progress->setTotalUnitCount(10);
    {
        ProgressObserver observer("movie.mkv", progress);
        observer.setDelegate(&recorder);
        progress->setCompletedUnitCount(4);
        progress->setCompletedUnitCount(10);
        progress->cancel();
        progress->cancel();
    }
    // After the observer is gone nothing reaches the delegate.
    progress->setCompletedUnitCount(3);
    EXPECT_EQ(recorder.events,
              (std::vector<std::string>{"change 4", "change 10", "complete movie.mkv", "cancel"}));
}
