#pragma once
// Helpers for the transfer tests: local server records, a manager run to the end by pumping the
// main queue, scripted answers to the engine's questions, and small file helpers.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "clients/Clients.h"
#include "clients/ftp/FtpWrapper.h"
#include "core/MainQueue.h"
#include "core/ServerInfo.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "support/FtpServers.h"
#include "support/TestEnv.h"
#include "transfer/FileTransferTaskManager.h"
#include "transfer/UserPrompts.h"

namespace quillon::test {

// A tree with a nested empty folder, hidden files, a link to a file and a link to a folder;
// "sub/b.bin" holds `size` bytes.
inline void makeTree(const std::string& root, std::size_t size) {
    writeFile(root + "/a.txt", "alpha");
    writeFile(root + "/.hidden", "secret");
    writeFile(root + "/sub/b.bin", std::string(size, 'b'));
    writeFile(root + "/sub/.config/c.ini", "k=v");
    std::filesystem::create_directories(root + "/empty/deeper/deepest");
    ::symlink("a.txt", (root + "/link-to-a").c_str());
    ::symlink("sub", (root + "/link-to-sub").c_str());
}

// The files and folders of makeTree arrived (links are for each test to check).
inline void expectTreeFiles(const std::string& root, std::size_t size) {
    EXPECT_TRUE(fileHolds(root + "/a.txt", "alpha"));
    EXPECT_TRUE(fileHolds(root + "/.hidden", "secret"));
    EXPECT_TRUE(fileHolds(root + "/sub/b.bin", std::string(size, 'b')));
    EXPECT_TRUE(fileHolds(root + "/sub/.config/c.ini", "k=v"));
    EXPECT_TRUE(std::filesystem::is_directory(root + "/empty/deeper/deepest"));
    EXPECT_TRUE(std::filesystem::is_empty(root + "/empty/deeper/deepest"));
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

inline void makeSparseFile(const std::string& path, std::uint64_t size) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    { std::ofstream out(path); }
    std::filesystem::resize_file(path, size);
}

// Serves the main queue until no task of the manager waits or runs and every completion has been
// delivered; fails the test after `limit`.
inline void runToEnd(FileTransferTaskManager& manager,
                     std::chrono::seconds limit = std::chrono::seconds(180)) {
    // The manager lets go of a task (its delegate) when the task's completion reaches it.
    EXPECT_TRUE(pumpUntil(
        [&] {
            if (manager.hasActiveTasks()) return false;
            for (auto& task : manager.getAllTasks())
                if (task->delegate()) return false;
            return true;
        },
        limit))
        << "the transfers did not finish in time";
}

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
    void alertTaskFailure(const std::string& message, bool offerIgnore,
                          FailureAnswer answer) override {
        failuresShown.emplace_back(message, offerIgnore);
        auto c = FailureChoice::Stop;
        if (!failureAnswers.empty()) {
            c = failureAnswers.front();
            failureAnswers.pop_front();
        }
        answer(c);
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
// Adds the tasks to the queue, starts it and serves it until every task has ended.
template <typename... Tasks>
void runAll(FileTransferTaskManager& manager, const Tasks&... tasks) {
    (manager.addTask(tasks), ...);
    manager.start();
    runToEnd(manager);
}
// Makes one task and runs it to its end.
template <typename Task>
std::shared_ptr<Task> runOne(FileTransferTaskManager& manager, const ServerInfoPtr& from,
                             const KvMetadata& item, const ServerInfoPtr& to,
                             const KvMetadata& folder) {
    auto task = makeTask<Task>(from, item, to, folder);
    runAll(manager, task);
    return task;
}
// A task's state and error, for failure messages.
inline std::string describe(const FileTransferTask& t) {
    return std::string(stateName(t.state())) + " " + t.error().value_or(Error{}).describe();
}
// A home and a scratch folder of their own for each test, and a task queue.
class TransferFixture : public ::testing::Test {
  protected:
    IsolatedHome home;
    ScratchDir dir{"transfer"};
    FileTransferTaskManager manager;
};
// A task taking the local item `from` into the local folder `toFolder`.
template <typename Task>
std::shared_ptr<Task> localTask(const std::string& from, const std::string& toFolder) {
    return makeTask<Task>(localServer(), localItem(from), localServer(), localFolder(toFolder));
}

// --- FTP servers. Paths in tests are relative to the login folder: vsftpd runs here without a
// chroot, so its "/" is this machine's root and must never be written to.

// The login folder as the server's client addresses it.
inline std::string loginFolder(const ServerInfoPtr& server) {
    static std::mutex m;
    static std::map<std::string, std::string> known;
    std::lock_guard lock(m);
    auto it = known.find(server->serverID);
    if (it != known.end()) return it->second;
    registerBuiltinClients();
    auto client = WrapperProxy::wrapperWithServerInfo(server);
    std::string base = client ? client->rootFolder().pathOrEmpty() : "";
    // An empty top folder means "where the login lands": its absolute path comes from PWD.
    if (auto* ftp = dynamic_cast<FtpWrapper*>(client.get()); ftp && base.empty())
        if (auto pwd = ftp->currentWorkingDirectory()) base = *pwd;
    known[server->serverID] = base;
    return base;
}

// The server path of `rel` ("/a/b" or "a/b") below the login folder.
inline std::string remotePath(const ServerInfoPtr& server, const std::string& rel) {
    std::string base = loginFolder(server);
    std::string r = rel;
    while (!r.empty() && r.front() == '/') r.erase(0, 1);
    if (r.empty()) return base.empty() ? "/" : base;
    return StringUtils::stringByAppendingPathComponentDirectly(base.empty() ? "/" : base, r);
}

inline KvMetadata remoteFolder(const ServerInfoPtr& server, const std::string& rel) {
    std::string path = remotePath(server, rel);
    KvMetadata m(path);
    if (path == "/") m.setName("/");
    m.isDir = true;
    m.serverID = server->serverID;
    m.protocolType = server->protocolType;
    return m;
}

// The record of a remote item, found by listing its parent (as the command line does).
inline KvMetadata remoteItem(const ServerInfoPtr& server, const std::string& rel) {
    std::string path = remotePath(server, rel);
    registerBuiltinClients();
    auto client = WrapperProxy::wrapperWithServerInfo(server);
    client->setForceIncludesHiddenFiles(true);
    auto parent = StringUtils::stringByDeletingLastPathComponentDirectly(path);
    KvMetadata folder = remoteFolder(server, "/");
    folder.setPath(parent.empty() ? "/" : parent);
    auto listing = client->contentsOfDirectoryAtPathSync(folder);
    if (listing)
        for (auto& e : *listing)
            if (e.nameIgnoreLinkResolve() == StringUtils::lastPathComponent(path)) {
                e.setPath(path);
                return e;
            }
    ADD_FAILURE() << "no " << path << " on the server";
    return KvMetadata(path);
}

// Starts a server and checks that its login folder is the fixture's scratch root (a marker file
// placed there must be listed) before a test writes anything through it.
inline std::unique_ptr<FtpServer> startFtpServer(FtpServerKind kind,
                                                 const FtpServerOptions& options = {}) {
    auto server = FtpServer::start(kind, options);
    if (!server) return nullptr;
    server->writeFile("/quillon-test-root", "");
    auto info = server->serverInfo();
    auto folder = remoteFolder(info, "/");
    auto listing = WrapperProxy::wrapperWithServerInfo(info)->contentsOfDirectoryAtPathSync(folder);
    bool found = false;
    if (listing)
        for (auto& e : *listing) found |= e.nameIgnoreLinkResolve() == "quillon-test-root";
    ::unlink(server->hostPath("/quillon-test-root").c_str());
    if (found) return server;
    ADD_FAILURE() << server->name() << ": the login folder is not the scratch root "
                  << server->root();
    return nullptr;
}

}  // namespace quillon::test
