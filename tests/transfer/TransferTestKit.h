#pragma once
// Helpers for the transfer tests: local server records, a manager run to the end by pumping the
// main queue, scripted answers to the engine's questions, and small file helpers.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "clients/Clients.h"
#include "core/MainQueue.h"
#include "core/ServerInfo.h"
#include "core/StringUtils.h"
#include "support/TestEnv.h"
#include "transfer/FileTransferTaskManager.h"
#include "transfer/UserPrompts.h"

namespace quillon::test {

// Answers the engine's questions from scripts and records what was asked.
class ScriptedPrompts : public UserPrompts {
  public:
    struct Answer {
        ConflictAction action;
        bool applyToAll;
    };
    std::deque<Answer> conflictAnswers;
    std::deque<FailureChoice> failureAnswers;
    std::vector<ResolveConflictItem> conflictsAsked;
    std::vector<std::pair<std::string, bool>> failuresShown;  // message, Ignore offered

    void resolveConflict(const ResolveConflictItem& item, ConflictAnswer answer) override {
        conflictsAsked.push_back(item);
        Answer a{ConflictAction::Skip, false};
        if (!conflictAnswers.empty()) {
            a = conflictAnswers.front();
            conflictAnswers.pop_front();
        }
        answer(a.action, a.applyToAll);
    }
    FailureChoice alertTaskFailure(const std::string& message, bool offerIgnore) override {
        failuresShown.emplace_back(message, offerIgnore);
        if (failureAnswers.empty()) return FailureChoice::Stop;
        auto c = failureAnswers.front();
        failureAnswers.pop_front();
        return c;
    }
};

// The local file system as a server record.
inline ServerInfoPtr localServer() {
    registerBuiltinClients();
    static auto info = [] {
        auto s = std::make_shared<ServerInfo>();
        s->protocolType = ProtocolType::Local;
        s->displayName = "/";
        s->rootFolderPath = "/";
        return s;
    }();
    return info;
}

// The record of a local item, as a listing would give it.
inline KvMetadata localItem(const std::string& path) {
    KvMetadata m(path);
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
        m.isDir = S_ISDIR(st.st_mode);
        m.isSymbolLink = S_ISLNK(st.st_mode);
        if (!m.isDir) m.fileSizeInBytes = static_cast<std::uint64_t>(st.st_size);
    }
    m.localPath = path;
    m.serverID = localServer()->serverID;
    m.protocolType = ProtocolType::Local;
    return m;
}

inline KvMetadata localFolder(const std::string& path) {
    auto m = localItem(path);
    m.isDir = true;
    return m;
}

template <typename Task>
std::shared_ptr<Task> makeTask(const ServerInfoPtr& from, const KvMetadata& item,
                               const ServerInfoPtr& to, const KvMetadata& folder) {
    auto task = std::make_shared<Task>();
    task->sourceServerInfo = from;
    task->targetServerInfo = to;
    task->sourceItems = {item};
    task->sourceMetadata = item;
    task->targetMetadata = folder;
    return task;
}

// Pumps until `done` or the limit.
inline bool pumpUntil(const std::function<bool()>& done,
                      std::chrono::seconds limit = std::chrono::seconds(60)) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    bool ok = true;
    // A repeating timer keeps runUntil waking up when nothing else is queued.
    auto timer = MainQueue::shared().scheduleRepeating(std::chrono::milliseconds(5), [] {});
    MainQueue::shared().runUntil([&] {
        if (done()) return true;
        if (std::chrono::steady_clock::now() > deadline) {
            ok = false;
            return true;
        }
        return false;
    });
    MainQueue::shared().cancel(timer);
    return ok;
}

// Pumps the main queue until no task of the manager is waiting or running and every queued
// completion has been delivered. Fails the test after `limit`.
inline void runToEnd(FileTransferTaskManager& manager,
                     std::chrono::seconds limit = std::chrono::seconds(120)) {
    bool ok = pumpUntil([&] { return !manager.hasActiveTasks(); }, limit);
    // Completions posted by the last tasks.
    for (int i = 0; i < 5; ++i) {
        MainQueue::shared().pump();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_TRUE(ok) << "transfers did not finish in time";
}

inline std::vector<std::string> folderEntries(const std::string& path) {
    std::vector<std::string> names;
    std::error_code ec;
    for (auto& e : std::filesystem::directory_iterator(path, ec))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace quillon::test
