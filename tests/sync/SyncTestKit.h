#pragma once
// Helpers for the sync tests: one scratch home for the whole test program, sync pairs stored in
// it, runs of a SyncTask under a transfer manager of their own (pumping the main queue), file
// times, and snapshots of folder trees.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "clients/Clients.h"
#include "core/DBManager.h"
#include "core/MainQueue.h"
#include "core/NotificationCenter.h"
#include "core/ServerInfoService.h"
#include "support/TestEnv.h"
#include "sync/SyncInfoService.h"
#include "sync/SyncTask.h"
#include "sync/SyncUtils.h"
#include "transfer/FileTransferTaskManager.h"
#include "transfer/UserPrompts.h"

namespace quillon::test {

// The program's folders for this whole test program: the shared database is opened once, at its
// first use, so the home must not change between tests.
inline IsolatedHome& syncTestHome() {
    static IsolatedHome* home = new IsolatedHome();
    return *home;
}

class SyncTestEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        syncTestHome();
        registerBuiltinClients();
        ASSERT_TRUE(DBManager::sharedDBManager().openDB());
    }
};

inline ::testing::Environment* const kSyncEnvironment =
    ::testing::AddGlobalTestEnvironment(new SyncTestEnvironment);

inline TimePoint timeAt(double secondsSince1970) {
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(
        std::chrono::duration<double>(secondsSince1970)));
}

inline double secondsOf(TimePoint t) {
    return std::chrono::duration<double>(t.time_since_epoch()).count();
}

// Whole seconds, some time ago (servers that list minutes see a whole minute).
inline double wholeMinutesAgo(int minutes) {
    auto now = std::chrono::floor<std::chrono::minutes>(std::chrono::system_clock::now());
    return secondsOf(now - std::chrono::minutes(minutes));
}

// Waits until the wall clock stands between `from` and `to` seconds into a minute; the start of
// that minute.
inline double waitForMinuteWindow(double from, double to) {
    while (true) {
        double now = secondsOf(std::chrono::system_clock::now());
        double into = std::fmod(now, 60.0);
        if (into >= from && into <= to) return now - into;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

// Waits until the wall clock has passed `secondsSince1970`.
inline void waitUntilClock(double secondsSince1970) {
    while (secondsOf(std::chrono::system_clock::now()) <= secondsSince1970)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

inline void writeWithTime(const std::string& path, const std::string& content, double when) {
    writeFile(path, content);
    setMtime(path, when);
}

inline bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// Relative path -> content ("<dir>" for folders), hidden items left out.
inline std::map<std::string, std::string> treeOf(const std::string& root) {
    std::map<std::string, std::string> tree;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
         !ec && it != std::filesystem::end(it); it.increment(ec)) {
        auto name = it->path().filename().string();
        if (!name.empty() && name.front() == '.') {
            if (it->is_directory()) it.disable_recursion_pending();
            continue;
        }
        auto rel = std::filesystem::relative(it->path(), root).string();
        tree[rel] = it->is_directory() ? "<dir>" : readFile(it->path().string());
    }
    return tree;
}

// The paths whose content differs between two trees, or that only one holds (a short failure
// message where the trees are large).
inline std::vector<std::string> differingPaths(const std::map<std::string, std::string>& a,
                                               const std::map<std::string, std::string>& b) {
    std::vector<std::string> out;
    for (auto& [rel, content] : a) {
        auto it = b.find(rel);
        if (it == b.end() || it->second != content) out.push_back(rel);
    }
    for (auto& [rel, content] : b)
        if (!a.contains(rel)) out.push_back(rel);
    return out;
}

// The id of the pair `quillon sync add` reports it added.
inline std::string idFrom(const CommandResult& added) {
    std::string prefix = "Added sync pair ";
    EXPECT_EQ(added.out.rfind(prefix, 0), 0u) << added.out << added.err;
    auto rest = added.out.size() < prefix.size() ? std::string() : added.out.substr(prefix.size());
    return rest.substr(0, rest.find(':'));
}

// The local file system as the pair's server.
inline ServerInfoPtr localFileSystem() {
    return std::make_shared<ServerInfo>(
        ServerInfoService::sharedServerInfoService().rootLocalServerInfo());
}

// Stores a pair of `remotePath` on `server` with the local folder "Synced/<localName>".
inline SyncInfo addPair(const ServerInfoPtr& server, const std::string& remotePath,
                        const std::string& localName) {
    SyncInfo info;
    info.serverInfo = server;
    info.serverUUID = server->serverID;
    std::string name = std::filesystem::path(remotePath).filename().string();
    info.remoteFolderMeta =
        SyncInfo::remoteFolderMetaFor(name.empty() ? "/" : name, remotePath, server->serverID,
                                      server->protocolType, std::nullopt);
    info.localFolderMeta = SyncInfo::localFolderMetaForName(localName);
    EXPECT_TRUE(SyncInfoService::sharedInstance().saveSyncInfo(info));
    return info;
}

inline std::string localFolderOf(const SyncInfo& info) {
    return SyncUtils::getSyncBaseFolderPath() + "/" + info.localFolderMeta.nameOrEmpty();
}

// A pair whose "server" is a scratch folder on the local disk.
struct LocalPair {
    ScratchDir remote{"syncremote"};
    SyncInfo info;
    std::string local;

    explicit LocalPair(const std::string& name)
        : info(addPair(localFileSystem(), remote.path(), name)), local(localFolderOf(info)) {}
    std::string r(const std::string& rel) const { return remote / rel; }
    std::string l(const std::string& rel) const { return local + "/" + rel; }
};

inline SyncOptions quickOptions() {
    SyncOptions o;
    o.pauseAfterCheck = 0;
    return o;
}

struct SyncRun {
    std::shared_ptr<SyncTask> task;
    std::vector<SyncDecision> decisions;
    SyncInfo stored;  // the pair as stored after the run
    bool finished = false;

    TransferTaskState state() const { return task->state(); }
    SyncSummary summary() const { return task->summary(); }
    // "action path" of each decision, sorted, conflicts marked.
    std::vector<std::string> decisionTexts() const {
        std::vector<std::string> out;
        for (auto& d : decisions)
            out.push_back(std::string(d.conflict ? "conflict " : "") +
                          std::string(syncActionName(d.action)) + " " + d.path);
        std::sort(out.begin(), out.end());
        return out;
    }
};

// Pumps the main queue until every task is final and its completion delivered: the manager lets
// go of a task (its delegate) when the completion reaches it.
inline bool pumpUntilDone(FileTransferTaskManager& manager,
                          const std::vector<std::shared_ptr<SyncTask>>& tasks,
                          std::chrono::seconds limit = std::chrono::seconds(180)) {
    return pumpUntil(
        [&] {
            if (manager.hasActiveTasks()) return false;
            for (auto& t : tasks)
                if (t->startTime() ? !t->runFinished() || t->delegate()
                                   : t->state() != TransferTaskState::Stopped)
                    return false;
            return true;
        },
        limit);
}

// Runs the pair's sync to its end. `onDecision` runs on the task's thread before each action.
inline SyncRun runSync(const SyncInfo& info, SyncOptions options = quickOptions(),
                       std::function<void(SyncTask&, const SyncDecision&)> onDecision = {}) {
    SyncRun run;
    auto current = SyncInfoService::sharedInstance().getSyncInfoByID(info.syncInfoID);
    EXPECT_TRUE(current.has_value());
    run.task = std::make_shared<SyncTask>(current.value_or(info), options);
    auto decisions = std::make_shared<std::vector<SyncDecision>>();
    auto mutex = std::make_shared<std::mutex>();
    SyncTask* raw = run.task.get();
    run.task->decisionHandler = [decisions, mutex, onDecision, raw](const SyncDecision& d) {
        {
            std::lock_guard lock(*mutex);
            decisions->push_back(d);
        }
        if (onDecision) onDecision(*raw, d);
    };
    FileTransferTaskManager manager;
    manager.setUserPrompts(std::make_shared<UnattendedPrompts>());
    manager.addTask(run.task);
    manager.start();
    run.finished = pumpUntilDone(manager, {run.task});
    EXPECT_TRUE(run.finished) << "the sync did not finish in time";
    {
        std::lock_guard lock(*mutex);
        run.decisions = *decisions;
    }
    run.stored = SyncInfoService::sharedInstance().getSyncInfoByID(info.syncInfoID).value_or(info);
    return run;
}

// The pair's records, read from its database after a run.
struct PairRecords {
    std::unique_ptr<SyncDBManager> db;
    std::unique_ptr<SyncLocalService> local;
    std::unique_ptr<SyncRemoteService> remote;

    explicit PairRecords(const SyncInfo& info) {
        db = std::make_unique<SyncDBManager>(localFolderOf(info) + "/" + SyncDBManager::kFileName);
        EXPECT_TRUE(db->openDB());
        local = std::make_unique<SyncLocalService>(*db);
        remote = std::make_unique<SyncRemoteService>(*db);
    }
    bool hasLocal(const std::string& path, bool isDir = false) {
        KvMetadata m(path);
        m.isDir = isDir;
        return local->getLocalItemByLocalMeta(m).has_value();
    }
    bool hasRemote(const std::string& path, bool isDir = false) {
        KvMetadata m(path);
        m.isDir = isDir;
        return remote->getRemoteItemByRemoteMeta(m).has_value();
    }
};

}  // namespace quillon::test
