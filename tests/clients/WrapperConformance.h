#pragma once
// WrapperConformance: the one suite every storage client must pass, once per real server it
// supports. A target gives a factory of clients pointed at a fresh scratch folder on the server
// and that folder's place on this machine's disk (all our test servers serve a local folder), so
// the suite can put and check files behind the client's back.
//
// Include this header in exactly one source file of a test program and instantiate it:
//
//   INSTANTIATE_TEST_SUITE_P(Ftp, WrapperConformance, ::testing::Values(vsftpdTarget()),
//                            quillon::test::conformanceTargetName);
//
// Scenarios a server cannot pass are listed in the target's knownFailures with the reason; they
// are reported as skipped with that reason, never as passed.

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <expected>
#include <filesystem>
#include <functional>
#include <future>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "clients/Clients.h"
#include "core/AppPreference.h"
#include "core/KvConnectionPool.h"
#include "core/MainQueue.h"
#include "core/Wrapper.h"
#include "core/WrapperProxy.h"
#include "support/TestEnv.h"

namespace quillon::test {

// One opened server: made fresh for every test.
struct ConformanceSession {
    // A new client for the server; each call gives a fresh one (a cancelled client stays so).
    std::function<WrapperPtr()> makeWrapper;
    // The empty scratch folder as the client addresses it ("/"-separated path on the server).
    std::string remoteRoot;
    // The same folder on this machine's disk.
    std::string serverDir;
    // Stops what open() started; may be empty. Called once, after the test.
    std::function<void()> close;
};

// Probes of the refused-permission scenario run through this: it returns the probe's findings,
// or the reason why permissions cannot be refused to this process.
using RestrictedRunner = std::function<std::expected<std::vector<std::string>, std::string>(
    const std::function<std::vector<std::string>()>& probe)>;

struct ConformanceTarget {
    std::string name;  // part of the test names: letters, digits and underscores
    std::function<ConformanceSession()> open;
    // Scenario name (the TEST_P name) -> why this server cannot pass it.
    std::map<std::string, std::string> knownFailures;
    // Where the refused-permission probes run; empty: in this process as it is.
    RestrictedRunner runRestricted;
};

inline void PrintTo(const ConformanceTarget& target, std::ostream* os) {
    *os << target.name;
}

inline std::string conformanceTargetName(const ::testing::TestParamInfo<ConformanceTarget>& info) {
    return info.param.name;
}

// A test's folder on a server that the whole program shares: its place on this machine, the path
// by which the client addresses it, and the server's record.
struct SharedFolder {
    std::string hostDir, remoteDir;
    ServerInfoPtr info;
};

// A target whose tests each get a fresh folder "t<n>" from `serve`, which starts the server at
// its first call and gives nothing when the server cannot start.
inline ConformanceTarget sharedServerTarget(
    std::string name, std::function<std::optional<SharedFolder>(const std::string&)> serve) {
    ConformanceTarget target;
    target.name = std::move(name);
    target.open = [serve = std::move(serve)]() -> ConformanceSession {
        programHome();
        registerBuiltinClients();
        static std::atomic<int> counter{0};
        auto folder = serve("t" + std::to_string(++counter));
        if (!folder) return {};
        std::filesystem::create_directories(folder->hostDir);
        ::chmod(folder->hostDir.c_str(), 0777);
        ConformanceSession session;
        session.remoteRoot = folder->remoteDir;
        session.serverDir = folder->hostDir;
        session.makeWrapper = [info = folder->info] {
            return WrapperProxy::wrapperWithServerInfo(info);
        };
        // Closes the sessions this test left idle in the pool.
        session.close = [] { KvConnectionPool::clearConnectionPool(); };
        return session;
    };
    return target;
}

// The one server of `kind` the whole program shares, started at its first use; `ready` runs
// once on it when it started.
template <class Server, class Kind>
Server* sharedServerOf(Kind kind, void (*ready)(const Server&) = nullptr) {
    static std::map<Kind, std::unique_ptr<Server>> servers;
    if (!servers.contains(kind)) {
        programHome();
        servers[kind] = Server::start(kind);
        if (servers[kind] && ready) ready(*servers[kind]);
    }
    return servers[kind].get();
}

// The suite on that shared server.
template <class Server, class Kind>
ConformanceTarget sharedKindTarget(std::string name, Kind kind,
                                   void (*ready)(const Server&) = nullptr) {
    return sharedServerTarget(
        std::move(name), [kind, ready](const std::string& folder) -> std::optional<SharedFolder> {
            Server* server = sharedServerOf<Server>(kind, ready);
            if (!server) return std::nullopt;
            return SharedFolder{server->hostPath(folder), server->remotePath(folder),
                                server->serverInfo()};
        });
}

// Tests of one client beyond the suite: the program's home, the built-in clients, and no session
// left in the pool afterwards.
class ClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        programHome();
        registerBuiltinClients();
    }
    void TearDown() override {
        KvConnectionPool::clearConnectionPool();
        MainQueue::shared().pump();
    }
};

// Writes all of `bytes` to `fd`; false when the reader went away first.
inline bool writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Runs the probe as the unprivileged user "nobody" (65534) in a forked child when this process
// is root, whom file permissions do not stop; otherwise runs it here.
inline std::expected<std::vector<std::string>, std::string> runAsUnprivilegedUser(
    const std::function<std::vector<std::string>()>& probe) {
    if (::geteuid() != 0) return probe();
    int fds[2];
    if (::pipe(fds) != 0) return std::unexpected(std::string("cannot create a pipe"));
    std::fflush(stdout);
    std::fflush(stderr);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::close(fds[0]);
        // Exit status 2: root privileges cannot be dropped here.
        if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0 ||
            ::geteuid() == 0)
            ::_exit(2);
        std::string report;
        for (auto line : probe()) {
            std::replace(line.begin(), line.end(), '\n', ' ');
            report += line + "\n";
        }
        writeAll(fds[1], report);
        // No destructors or exit handlers of the test program in the child.
        ::_exit(0);
    }
    ::close(fds[1]);
    std::string text;
    char buf[4096];
    for (ssize_t n;
         pid > 0 && ((n = ::read(fds[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR));)
        if (n > 0) text.append(buf, static_cast<std::size_t>(n));
    ::close(fds[0]);
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid)
        return std::unexpected(std::string("cannot fork"));
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2)
        return std::unexpected(std::string("root privileges cannot be dropped here"));
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return std::vector<std::string>{"the unprivileged probe process ended abnormally"};
    return lines(text);
}

// Sets "SYS_SHOW_HIDDEN_FILES" in memory for the life of the object and puts the old value back.
class HiddenFilesPref {
  public:
    explicit HiddenFilesPref(bool show) : saved_(prefs().valueForKey(key())) { set(show); }
    ~HiddenFilesPref() {
        if (saved_)
            prefs().setValue(*saved_, key());
        else
            prefs().removeValueForKey(key());
    }
    void set(bool show) { prefs().setValue(show, key()); }

  private:
    static AppPreference& prefs() { return AppPreference::sharedAppPreference(); }
    static std::string_view key() { return PrefKey::SYS_SHOW_HIDDEN_FILES; }
    std::optional<PlistValue> saved_;
};

// The names of listed items, sorted; the item of a name.
inline std::vector<std::string> namesOf(const KvMetadataList& items) {
    std::vector<std::string> names;
    for (auto& item : items) names.push_back(item.nameIgnoreLinkResolve().value_or("(none)"));
    std::sort(names.begin(), names.end());
    return names;
}
inline const KvMetadata* findNamed(const KvMetadataList& items, const std::string& name) {
    for (auto& item : items)
        if (item.nameIgnoreLinkResolve() == name) return &item;
    return nullptr;
}

// Reads the pipe at `path` to its end, telling `onRead` how much arrived so far after each read.
inline std::string drainFifo(const std::string& path,
                             const std::function<void(std::size_t)>& onRead = {}) {
    std::string got;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0) << path;
    char buffer[65536];
    for (ssize_t n; fd >= 0 && (n = ::read(fd, buffer, sizeof buffer)) > 0;) {
        got.append(buffer, static_cast<std::size_t>(n));
        if (onRead) onRead(got.size());
    }
    if (fd >= 0) ::close(fd);
    return got;
}

// Progress reports of one operation, from whichever thread the client reports on.
struct ProgressLog {
    std::mutex mutex;
    std::vector<std::pair<std::int64_t, std::int64_t>> reports;

    static ProgressHandler handlerOf(const std::shared_ptr<ProgressLog>& log,
                                     std::function<void()> onReport = {}) {
        return [log, onReport](std::int64_t done, std::int64_t total) {
            {
                std::lock_guard lock(log->mutex);
                log->reports.emplace_back(done, total);
            }
            if (onReport) onReport();
        };
    }
    std::vector<std::pair<std::int64_t, std::int64_t>> snapshot() {
        std::lock_guard lock(mutex);
        return reports;
    }
};

class WrapperConformance : public ::testing::TestWithParam<ConformanceTarget> {
  protected:
    void SetUp() override {
        std::string scenario = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        scenario = scenario.substr(0, scenario.find('/'));
        auto known = GetParam().knownFailures.find(scenario);
        if (known != GetParam().knownFailures.end())
            GTEST_SKIP() << "known failure on " << GetParam().name << ": " << known->second;

        hiddenPref_.emplace(false);

        session_ = GetParam().open();
        ASSERT_FALSE(session_.serverDir.empty())
            << GetParam().name << " could not be opened (its first test says why)";
        ASSERT_TRUE(session_.makeWrapper);
        client_ = session_.makeWrapper();
        ASSERT_TRUE(client_) << "the target made no client";
        local_ = std::make_unique<ScratchDir>("conformance-local");
    }

    void TearDown() override {
        MainQueue::shared().pump();
        client_.reset();
        if (session_.close) session_.close();
        session_ = {};
        hiddenPref_.reset();
    }

    // Records of items on the server, addressed relative to the scratch folder.
    KvMetadata remote(const std::string& rel, bool isDir = false) const {
        std::string path = session_.remoteRoot;
        if (!rel.empty()) {
            if (path.empty() || path.back() != '/') path += '/';
            path += rel;
        }
        KvMetadata meta(path);
        meta.isDir = isDir;
        meta.serverID = client_->serverInfo()->serverID;
        meta.protocolType = client_->serverInfo()->protocolType;
        return meta;
    }
    KvMetadata remoteRoot() const { return remote("", true); }

    // A record of a local file, as transfer tasks hand it to uploads.
    KvMetadata localRecord(const std::string& path) const {
        KvMetadata meta(path);
        meta.protocolType = 0;
        meta.localPath = path;
        std::error_code ec;
        auto size = std::filesystem::file_size(path, ec);
        if (!ec) meta.fileSizeInBytes = size;
        return meta;
    }

    std::string serverPath(const std::string& rel) const { return session_.serverDir + "/" + rel; }
    std::string localPath(const std::string& rel) const { return local_->path() + "/" + rel; }

    // Server-side files are made writable for everyone: the server may run as another user.
    void putServerFile(const std::string& rel, const std::string& content) const {
        writeFile(serverPath(rel), content);
        ::chmod(serverPath(rel).c_str(), 0666);
        for (auto dir = std::filesystem::path(serverPath(rel)).parent_path();
             dir.string().size() > session_.serverDir.size(); dir = dir.parent_path())
            ::chmod(dir.c_str(), 0777);
    }
    void makeServerFolder(const std::string& rel) const {
        std::filesystem::create_directories(serverPath(rel));
        ::chmod(serverPath(rel).c_str(), 0777);
    }
    std::string readServerFile(const std::string& rel) const { return readFile(serverPath(rel)); }
    bool serverHas(const std::string& rel) const { return localHas(serverPath(rel)); }
    bool serverHasFolder(const std::string& rel) const {
        std::error_code ec;
        return std::filesystem::is_directory(serverPath(rel), ec);
    }
    static bool localHas(const std::string& path) {
        struct stat st {};
        return ::lstat(path.c_str(), &st) == 0;
    }

    // Runs a blocking operation on another thread while this one serves the main queue, so that
    // progress reports delivered there arrive while the operation runs.
    template <typename Op>
    static auto runPumping(Op op) -> decltype(op()) {
        decltype(op()) result;
        std::atomic<bool> done{false};
        std::thread worker([&] {
            result = op();
            done = true;
            MainQueue::shared().post([] {});
        });
        MainQueue::shared().runUntil([&] { return done.load(); });
        worker.join();
        MainQueue::shared().pump();
        return result;
    }

    // Starts an asynchronous operation and serves the main queue until its completion ran, on
    // whichever thread the client calls it.
    template <typename T>
    static T awaitCompletion(const std::function<void(std::function<void(T)>)>& start) {
        auto promise = std::make_shared<std::promise<T>>();
        auto future = promise->get_future();
        start([promise](T value) { promise->set_value(std::move(value)); });
        MainQueue::shared().runUntil(
            [&] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
        return future.get();
    }

    // The checks every progress log of a complete transfer of `size` bytes passes.
    static void expectCompleteProgress(
        const std::vector<std::pair<std::int64_t, std::int64_t>>& log, std::int64_t size,
        const char* what) {
        ASSERT_FALSE(log.empty()) << what << ": no progress was reported";
        for (std::size_t i = 1; i < log.size(); ++i)
            EXPECT_LE(log[i - 1].first, log[i].first) << what << ": progress went backwards";
        EXPECT_EQ(log.back().first, size) << what << ": the last report is not the whole size";
        for (auto& [done, total] : log) {
            EXPECT_EQ(total, size) << what << ": a report gives the wrong total";
            EXPECT_LE(done, size) << what;
        }
    }

    ConformanceSession session_;
    WrapperPtr client_;
    std::unique_ptr<ScratchDir> local_;
    std::optional<HiddenFilesPref> hiddenPref_;
};

TEST_P(WrapperConformance, ListsFilesAndFolders) {
    putServerFile("a.txt", "hello");
    putServerFile("b.bin", randomBytes(1000, 1));
    putServerFile("sub/inner.txt", "x");

    auto listing = client_->contentsOfDirectoryAtPathSync(remoteRoot());
    ASSERT_TRUE(listing) << listing.error().describe();
    EXPECT_EQ(namesOf(*listing), (std::vector<std::string>{"a.txt", "b.bin", "sub"}));
    auto* a = findNamed(*listing, "a.txt");
    auto* sub = findNamed(*listing, "sub");
    ASSERT_TRUE(a && sub);
    EXPECT_FALSE(a->isDir);
    EXPECT_EQ(a->fileSizeInBytes, 5u);
    EXPECT_TRUE(a->pathOrEmpty().ends_with("/a.txt")) << a->pathOrEmpty();
    EXPECT_TRUE(a->timestamp.has_value());
    EXPECT_EQ(findNamed(*listing, "b.bin")->fileSizeInBytes, 1000u);
    EXPECT_TRUE(sub->isDir);

    // A listed folder record is good for listing it in turn.
    auto inner = client_->contentsOfDirectoryAtPathSync(*sub);
    ASSERT_TRUE(inner) << inner.error().describe();
    EXPECT_EQ(namesOf(*inner), std::vector<std::string>{"inner.txt"});

    makeServerFolder("empty");
    auto empty = client_->contentsOfDirectoryAtPathSync(remote("empty", true));
    ASSERT_TRUE(empty) << empty.error().describe();
    EXPECT_TRUE(empty->empty());
}

TEST_P(WrapperConformance, UploadsAndDownloadsByteIdentical) {
    const std::string content = randomBytes(300001, 2);
    writeFile(localPath("upload.bin"), content);
    auto up = client_->uploadSync(localRecord(localPath("upload.bin")), remoteRoot(), {});
    ASSERT_TRUE(up) << up.error().describe();
    EXPECT_EQ(readServerFile("upload.bin"), content);

    auto down = client_->downloadSync(remote("upload.bin"), localPath("down.bin"), {});
    ASSERT_TRUE(down) << down.error().describe();
    EXPECT_EQ(readFile(localPath("down.bin")), content);

    // Replacing longer files with shorter ones must not leave old bytes behind.
    const std::string shorter = "short replacement";
    putServerFile("upload.bin", shorter);
    down = client_->downloadSync(remote("upload.bin"), localPath("down.bin"), {});
    ASSERT_TRUE(down) << down.error().describe();
    EXPECT_EQ(readFile(localPath("down.bin")), shorter);

    putServerFile("upload.bin", content);
    writeFile(localPath("upload.bin"), shorter);
    up = client_->uploadSync(localRecord(localPath("upload.bin")), remoteRoot(), {});
    ASSERT_TRUE(up) << up.error().describe();
    EXPECT_EQ(readServerFile("upload.bin"), shorter);

    // An empty file is a file too.
    writeFile(localPath("empty.txt"), "");
    up = client_->uploadSync(localRecord(localPath("empty.txt")), remoteRoot(), {});
    ASSERT_TRUE(up) << up.error().describe();
    EXPECT_TRUE(serverHas("empty.txt"));
    EXPECT_EQ(readServerFile("empty.txt"), "");
}

TEST_P(WrapperConformance, RenamesAndMovesItems) {
    putServerFile("old name.txt", "content");
    putServerFile("old folder/child.txt", "child");
    makeServerFolder("dest");

    auto r = client_->moveSync(remote("old name.txt"), remote("new name.txt"));
    ASSERT_TRUE(r) << r.error().describe();
    r = client_->moveSync(remote("old folder", true), remote("new folder", true));
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_EQ(readServerFile("new name.txt"), "content");
    EXPECT_EQ(readServerFile("new folder/child.txt"), "child");
    auto listing = client_->contentsOfDirectoryAtPathSync(remoteRoot());
    ASSERT_TRUE(listing) << listing.error().describe();
    EXPECT_EQ(namesOf(*listing), (std::vector<std::string>{"dest", "new folder", "new name.txt"}));

    // Into another folder, under the same name.
    r = client_->moveSync(remote("new name.txt"), remote("dest/new name.txt"));
    ASSERT_TRUE(r) << r.error().describe();
    r = client_->moveSync(remote("new folder", true), remote("dest/new folder", true));
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_EQ(namesIn(session_.serverDir), std::vector<std::string>{"dest"});
    EXPECT_EQ(readServerFile("dest/new name.txt"), "content");
    EXPECT_EQ(readServerFile("dest/new folder/child.txt"), "child");

    // A folder moved onto an existing folder of other contents: refused, and both stay whole.
    putServerFile("mine/a.txt", "a");
    putServerFile("theirs/b.txt", "b");
    auto moved = client_->moveSync(remote("mine", true), remote("theirs", true));
    if (moved) {
        // Servers that merge or nest keep every file somewhere below the target.
        EXPECT_EQ(readServerFile("theirs/b.txt"), "b");
        EXPECT_TRUE(serverHas("theirs/a.txt") || serverHas("theirs/mine/a.txt"));
    } else {
        EXPECT_EQ(readServerFile("mine/a.txt"), "a");
        EXPECT_EQ(readServerFile("theirs/b.txt"), "b");
    }
}

TEST_P(WrapperConformance, DeletesFilesAndFoldersRecursively) {
    putServerFile("x.txt", "x");
    putServerFile("keep.txt", "keep");
    putServerFile("tree/a/b/c.txt", "deep");
    putServerFile("tree/.hidden", "hidden files go too, even when not shown");
    putServerFile("tree/a/.hid/d.txt", "d");

    auto r = client_->removeSync({remote("x.txt"), remote("tree", true)});
    ASSERT_TRUE(r) << r.error().describe();
    EXPECT_FALSE(serverHas("x.txt"));
    EXPECT_FALSE(serverHas("tree"));
    EXPECT_EQ(readServerFile("keep.txt"), "keep");
}

TEST_P(WrapperConformance, HiddenFilesFollowPreferenceAndOverride) {
    putServerFile(".hidden", "h");
    putServerFile("shown", "s");
    auto& prefs = AppPreference::sharedAppPreference();

    auto listing = client_->contentsOfDirectoryAtPathSync(remoteRoot());
    ASSERT_TRUE(listing) << listing.error().describe();
    EXPECT_EQ(namesOf(*listing), std::vector<std::string>{"shown"});

    auto forced = session_.makeWrapper();
    forced->setForceIncludesHiddenFiles(true);
    listing = forced->contentsOfDirectoryAtPathSync(remoteRoot());
    ASSERT_TRUE(listing) << listing.error().describe();
    EXPECT_EQ(namesOf(*listing), (std::vector<std::string>{".hidden", "shown"}));

    prefs.setValue(true, PrefKey::SYS_SHOW_HIDDEN_FILES);
    listing = client_->contentsOfDirectoryAtPathSync(remoteRoot());
    ASSERT_TRUE(listing) << listing.error().describe();
    EXPECT_EQ(namesOf(*listing), (std::vector<std::string>{".hidden", "shown"}));
}

TEST_P(WrapperConformance, HandlesBlanksHashPercentAndNonAsciiNames) {
    const std::vector<std::string> names = {"with blank.txt", "hash#sign.txt", "100% done.txt",
                                            "Gr\u00fc\u00dfe \u65e5\u672c.txt", "a%20b.txt"};
    const std::string folder = "dir #% \u00fc";
    auto made = client_->createFolderSync(remote(folder, true));
    ASSERT_TRUE(made) << made.error().describe();
    ASSERT_TRUE(serverHasFolder(folder));

    for (std::size_t i = 0; i < names.size(); ++i) {
        writeFile(localPath(names[i]), "content " + names[i]);
        auto up = client_->uploadSync(localRecord(localPath(names[i])), remote(folder, true), {});
        ASSERT_TRUE(up) << names[i] << ": " << up.error().describe();
        EXPECT_EQ(readServerFile(folder + "/" + names[i]), "content " + names[i]) << names[i];
    }
    auto listing = client_->contentsOfDirectoryAtPathSync(remote(folder, true));
    ASSERT_TRUE(listing) << listing.error().describe();
    auto expected = names;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(namesOf(*listing), expected);

    for (auto& item : *listing) {
        std::string name = item.nameIgnoreLinkResolve().value_or("");
        auto down = client_->downloadSync(item, localPath("copy of " + name), {});
        ASSERT_TRUE(down) << name << ": " << down.error().describe();
        EXPECT_EQ(readFile(localPath("copy of " + name)), "content " + name);
    }

    auto nested = client_->createFolderSync(remote(folder + "/child #%", true));
    ASSERT_TRUE(nested) << nested.error().describe();
    EXPECT_TRUE(serverHasFolder(folder + "/child #%"));

    auto renamed =
        client_->moveSync(remote(folder + "/hash#sign.txt"), remote(folder + "/hash#sign 2 %.txt"));
    ASSERT_TRUE(renamed) << renamed.error().describe();
    EXPECT_EQ(readServerFile(folder + "/hash#sign 2 %.txt"), "content hash#sign.txt");

    auto removed = client_->removeSync({remote(folder, true)});
    ASSERT_TRUE(removed) << removed.error().describe();
    EXPECT_FALSE(serverHas(folder));
}

TEST_P(WrapperConformance, TransfersLargeFilesWithProgress) {
    const std::string content = randomBytes(25 * 1024 * 1024 + 123, 3);
    const auto size = static_cast<std::int64_t>(content.size());
    writeFile(localPath("large.bin"), content);

    auto upLog = std::make_shared<ProgressLog>();
    auto up = client_->uploadSync(localRecord(localPath("large.bin")), remoteRoot(),
                                  ProgressLog::handlerOf(upLog));
    MainQueue::shared().pump();
    ASSERT_TRUE(up) << up.error().describe();
    EXPECT_TRUE(readServerFile("large.bin") == content) << "uploaded bytes differ";
    expectCompleteProgress(upLog->snapshot(), size, "upload");

    auto downLog = std::make_shared<ProgressLog>();
    auto down = client_->downloadSync(remote("large.bin"), localPath("large copy.bin"),
                                      ProgressLog::handlerOf(downLog));
    MainQueue::shared().pump();
    ASSERT_TRUE(down) << down.error().describe();
    EXPECT_TRUE(readFile(localPath("large copy.bin")) == content) << "downloaded bytes differ";
    expectCompleteProgress(downLog->snapshot(), size, "download");
}

TEST_P(WrapperConformance, CancellationLeavesNoPartialFile) {
    const std::string content = randomBytes(40 * 1024 * 1024, 4);
    putServerFile("big.bin", content);
    writeFile(localPath("big.bin"), content);

    // Cancelled before it starts: nothing is transferred.
    auto cancelled = session_.makeWrapper();
    cancelled->cancelOperation();
    auto down = cancelled->downloadSync(remote("big.bin"), localPath("never.bin"), {});
    ASSERT_FALSE(down) << "a cancelled download reported success";
    EXPECT_TRUE(down.error().is(ErrorKind::Cancelled)) << down.error().describe();
    EXPECT_FALSE(localHas(localPath("never.bin"))) << "a cancelled download left a file";
    writeFile(localPath("other/big.bin"), "different content");
    auto up = cancelled->uploadSync(localRecord(localPath("other/big.bin")), remoteRoot(), {});
    ASSERT_FALSE(up) << "a cancelled upload reported success";
    EXPECT_TRUE(up.error().is(ErrorKind::Cancelled)) << up.error().describe();
    EXPECT_TRUE(readServerFile("big.bin") == content) << "a cancelled upload damaged the file";
    MainQueue::shared().pump();

    // Cancelled at the first progress report: either it stopped and left nothing, or it had
    // already finished with every byte.
    auto midway = session_.makeWrapper();
    Wrapper* raw = midway.get();
    auto log = std::make_shared<ProgressLog>();
    down = runPumping([&] {
        return midway->downloadSync(remote("big.bin"), localPath("partial.bin"),
                                    ProgressLog::handlerOf(log, [raw] { raw->cancelOperation(); }));
    });
    if (down)
        EXPECT_TRUE(readFile(localPath("partial.bin")) == content);
    else
        EXPECT_FALSE(localHas(localPath("partial.bin"))) << "a cancelled download left a file";
    for (auto& e : std::filesystem::directory_iterator(local_->path())) {
        auto name = e.path().filename().string();
        EXPECT_TRUE(name == "big.bin" || name == "other" || name == "partial.bin")
            << "a cancelled download left " << name;
    }

    makeServerFolder("target");
    auto uploader = session_.makeWrapper();
    Wrapper* rawUp = uploader.get();
    auto upLog = std::make_shared<ProgressLog>();
    up = runPumping([&] {
        return uploader->uploadSync(
            localRecord(localPath("big.bin")), remote("target", true),
            ProgressLog::handlerOf(upLog, [rawUp] { rawUp->cancelOperation(); }));
    });
    if (up)
        EXPECT_TRUE(readServerFile("target/big.bin") == content);
    else
        EXPECT_FALSE(serverHas("target/big.bin")) << "a cancelled upload left a file";
    // A server drops its own partial file of an aborted request once it notices the abort, which
    // may be a moment after the client gave up.
    waitUntil(
        [&] {
            for (auto& e : std::filesystem::directory_iterator(serverPath("target")))
                if (e.path().filename().string() != "big.bin") return false;
            return true;
        },
        std::chrono::seconds(30));
    for (auto& e : std::filesystem::directory_iterator(serverPath("target")))
        EXPECT_EQ(e.path().filename().string(), "big.bin") << "a cancelled upload left junk";
}

TEST_P(WrapperConformance, MissingItemsFail) {
    makeServerFolder("present");
    auto listing = client_->contentsOfDirectoryAtPathSync(remote("absent", true));
    ASSERT_FALSE(listing) << "listing a missing folder succeeded";
    EXPECT_TRUE(listing.error().is(ErrorKind::NotFound) && listing.error().code == 10008)
        << listing.error().describe();

    auto down = client_->downloadSync(remote("absent.txt"), localPath("got.txt"), {});
    ASSERT_FALSE(down) << "downloading a missing file succeeded";
    EXPECT_TRUE(down.error().is(ErrorKind::NotFound) && down.error().code == 10008)
        << down.error().describe();
    EXPECT_FALSE(localHas(localPath("got.txt"))) << "a failed download left a file";

    // Missing items, also below a missing folder, fail the one way the contract names.
    for (auto rel : {"absent.txt", "absent/child.txt", "present/absent"}) {
        auto missing = client_->metadataOfItemSync(remote(rel));
        ASSERT_FALSE(missing) << rel << " was found";
        EXPECT_TRUE(missing.error().is(ErrorKind::NotFound)) << missing.error().describe();
        EXPECT_EQ(missing.error().code, 10008) << rel;
        EXPECT_EQ(missing.error().reason, "File not found!") << rel;
        EXPECT_EQ(missing.error().domain, down.error().domain) << rel;
    }

    auto moved = client_->moveSync(remote("absent.txt"), remote("present/absent.txt"));
    EXPECT_FALSE(moved) << "moving a missing item succeeded";
    auto removed = client_->removeSync({remote("absent.txt")});
    EXPECT_FALSE(removed) << "removing a missing item succeeded";

    writeFile(localPath("up.txt"), "up");
    auto up = client_->uploadSync(localRecord(localPath("up.txt")), remote("absent", true), {});
    EXPECT_FALSE(up) << "uploading into a missing folder succeeded";
    EXPECT_FALSE(serverHas("absent"));

    auto made = client_->createFolderSync(remote("absent/child", true));
    EXPECT_FALSE(made) << "creating a folder in a missing folder succeeded";
    EXPECT_FALSE(serverHas("absent"));
    MainQueue::shared().pump();
}

TEST_P(WrapperConformance, LooksUpOneItem) {
    putServerFile("one.txt", "12345");
    putServerFile(".hidden", "h");
    putServerFile("folder/inner.bin", randomBytes(1000, 6));
    ::utimensat(AT_FDCWD, serverPath("one.txt").c_str(), nullptr, 0);

    auto file = client_->metadataOfItemSync(remote("one.txt"));
    ASSERT_TRUE(file) << file.error().describe();
    EXPECT_FALSE(file->isDir);
    EXPECT_EQ(file->fileSizeInBytes, 5u);
    EXPECT_EQ(file->nameIgnoreLinkResolve(), "one.txt");
    EXPECT_EQ(file->pathOrEmpty(), remote("one.txt").pathOrEmpty());
    ASSERT_TRUE(file->timestamp.has_value());
    auto age = std::chrono::abs(std::chrono::system_clock::now() - *file->timestamp);
    EXPECT_LT(age, std::chrono::minutes(3)) << "the item's time is off";

    // Hidden items are found whether or not listings show them; folders are folders.
    auto hidden = client_->metadataOfItemSync(remote(".hidden"));
    ASSERT_TRUE(hidden) << hidden.error().describe();
    EXPECT_EQ(hidden->fileSizeInBytes, 1u);
    auto folder = client_->metadataOfItemSync(remote("folder", true));
    ASSERT_TRUE(folder) << folder.error().describe();
    EXPECT_TRUE(folder->isDir);
    EXPECT_EQ(folder->nameIgnoreLinkResolve(), "folder");
    auto inner = client_->metadataOfItemSync(remote("folder/inner.bin"));
    ASSERT_TRUE(inner) << inner.error().describe();
    EXPECT_EQ(inner->fileSizeInBytes, 1000u);
    EXPECT_FALSE(inner->isDir);
    auto thumbnail = client_->downloadThumbnailSync(remote("folder", true));
    ASSERT_FALSE(thumbnail);
    EXPECT_EQ(thumbnail.error().code, 10009);
    // SFTP names its own domain; the other clients keep "Local" for thumbnail refusals.
    bool sftp = client_->serverInfo()->protocolType == ProtocolType::SFTP;
    EXPECT_EQ(thumbnail.error().domain, sftp ? "SFTP" : "Local");
    EXPECT_EQ(thumbnail.error().reason, "Folder has no thumbnail.");
    MainQueue::shared().pump();
}

// Two clients of one server record at once, as the tasks of one transfer run: neither sees the
// other's requests, and what they learn of the server they learn together.
TEST_P(WrapperConformance, TwoClientsOfOneRecordAtOnce) {
    constexpr int kRounds = 3;
    std::vector<std::string> contents;
    for (int side = 0; side < 2; ++side) {
        contents.push_back(randomBytes(200000 + static_cast<std::size_t>(side), 7 + side));
        writeFile(localPath("side" + std::to_string(side) + ".bin"), contents.back());
        makeServerFolder("side" + std::to_string(side));
    }
    auto first = session_.makeWrapper();
    auto second = session_.makeWrapper();
    ASSERT_EQ(first->serverInfo(), second->serverInfo()) << "the clients must share the record";
    std::vector<std::string> problems[2];
    // Both start together, so that their first requests (and what they learn of the server
    // there) overlap.
    std::latch start(2);
    auto work = [&](const WrapperPtr& client, int side) {
        start.arrive_and_wait();
        auto& found = problems[side];
        std::string name = "side" + std::to_string(side) + ".bin";
        KvMetadata folder = remote("side" + std::to_string(side), true);
        for (int round = 0; round < kRounds && found.empty(); ++round) {
            auto listing = client->contentsOfDirectoryAtPathSync(remoteRoot());
            if (!listing || !findNamed(*listing, "side" + std::to_string(side)))
                found.push_back("the listing failed or missed the folder");
            auto up = client->uploadSync(localRecord(localPath(name)), folder, {});
            if (!up) found.push_back("upload: " + up.error().describe());
            auto item =
                client->metadataOfItemSync(remote("side" + std::to_string(side) + "/" + name));
            if (!item || item->fileSizeInBytes != contents[side].size())
                found.push_back("the uploaded file was not found with its size");
            std::string copy = localPath("copy" + std::to_string(side) + ".bin");
            auto down =
                client->downloadSync(remote("side" + std::to_string(side) + "/" + name), copy, {});
            if (!down)
                found.push_back("download: " + down.error().describe());
            else if (readFile(copy) != contents[side])
                found.push_back("the downloaded bytes differ");
        }
    };
    std::thread other([&] { work(second, 1); });
    work(first, 0);
    other.join();
    MainQueue::shared().pump();
    for (auto& side : problems)
        for (auto& problem : side) ADD_FAILURE() << problem;
}

TEST_P(WrapperConformance, RefusedPermissionFails) {
    putServerFile("locked/inside.txt", "inside");
    putServerFile("secret.txt", "secret");
    ::chmod(serverPath("locked").c_str(), 0);
    ::chmod(serverPath("secret.txt").c_str(), 0);
    ::chmod(local_->path().c_str(), 0777);
    writeFile(localPath("up.txt"), "up");
    ::chmod(localPath("up.txt").c_str(), 0644);
    struct Restore {
        std::string locked, secret;
        ~Restore() {
            ::chmod(locked.c_str(), 0777);
            ::chmod(secret.c_str(), 0666);
        }
    } restore{serverPath("locked"), serverPath("secret.txt")};

    const std::string target = localPath("secret copy.txt");
    auto probe = [&]() -> std::vector<std::string> {
        std::vector<std::string> problems;
        auto w = session_.makeWrapper();
        if (!w) return {"no client"};
        w->setForceIncludesHiddenFiles(true);
        auto top = w->contentsOfDirectoryAtPathSync(remoteRoot());
        if (!top)
            problems.push_back("listing the scratch folder failed: " + top.error().describe());
        if (w->contentsOfDirectoryAtPathSync(remote("locked", true)))
            problems.push_back("listing a folder without permissions succeeded");
        if (w->downloadSync(remote("secret.txt"), target, {}))
            problems.push_back("downloading a file without read permission succeeded");
        if (localHas(target)) problems.push_back("a refused download left a file at the target");
        if (w->uploadSync(localRecord(localPath("up.txt")), remote("locked", true), {}))
            problems.push_back("uploading into a folder without permissions succeeded");
        return problems;
    };
    auto runner = GetParam().runRestricted;
    auto findings = runner ? runner(probe) : probe();
    MainQueue::shared().pump();
    if (!findings) GTEST_SKIP() << findings.error();
    for (auto& problem : *findings) ADD_FAILURE() << problem;

    ::chmod(serverPath("locked").c_str(), 0777);
    std::vector<std::string> inLocked;
    for (auto& e : std::filesystem::directory_iterator(serverPath("locked")))
        inLocked.push_back(e.path().filename().string());
    EXPECT_EQ(inLocked, std::vector<std::string>{"inside.txt"}) << "a refused upload landed";
}

TEST_P(WrapperConformance, StreamsRandomReadsAlsoBeyondFourGiB) {
    if (!client_->capabilities().streaming) GTEST_SKIP() << "the client offers no streaming";
    const std::string content = randomBytes(1024 * 1024 + 5, 5);
    putServerFile("stream.bin", content);

    auto opened = client_->initStreamFileMeta(remote("stream.bin"));
    ASSERT_TRUE(opened) << opened.error().describe();
    EXPECT_EQ(client_->contentLength(), content.size());
    EXPECT_EQ(client_->offset(), 0u);

    client_->setOffset(1000);
    auto bytes = client_->readDataOfLength(5000);
    ASSERT_TRUE(bytes) << bytes.error().describe();
    EXPECT_EQ(std::string(bytes->begin(), bytes->end()), content.substr(1000, 5000));
    EXPECT_EQ(client_->offset(), 6000u);

    client_->setOffset(content.size() - 3);
    bytes = client_->readDataOfLength(100);
    ASSERT_TRUE(bytes) << bytes.error().describe();
    EXPECT_EQ(std::string(bytes->begin(), bytes->end()), content.substr(content.size() - 3));
    bytes = client_->readDataOfLength(100);
    ASSERT_TRUE(bytes) << bytes.error().describe();
    EXPECT_TRUE(bytes->empty());

    // Offsets past 4 GiB, on a sparse file so that nothing large is written.
    constexpr std::uint64_t kFar = (std::uint64_t{5} << 30) + 12345;
    const std::string marker = "far away bytes";
    putServerFile("sparse.bin", "");
    {
        int fd = ::open(serverPath("sparse.bin").c_str(), O_WRONLY);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, marker.data(), marker.size(), static_cast<off_t>(kFar)),
                  static_cast<ssize_t>(marker.size()));
        ::close(fd);
    }
    opened = client_->initStreamFileMeta(remote("sparse.bin"));
    ASSERT_TRUE(opened) << opened.error().describe();
    EXPECT_EQ(client_->contentLength(), kFar + marker.size());
    client_->setOffset(kFar - 2);
    bytes = client_->readDataOfLength(100);
    ASSERT_TRUE(bytes) << bytes.error().describe();
    EXPECT_EQ(std::string(bytes->begin(), bytes->end()), std::string(2, '\0') + marker);
    EXPECT_EQ(client_->offset(), kFar + marker.size());

    // What the playback server's cache fetches with: from an offset to the end, or until the
    // receiver has enough; the client goes on working after either.
    if (!client_->capabilities().readFromOffsetToEnd) return;
    opened = client_->initStreamFileMeta(remote("stream.bin"));
    ASSERT_TRUE(opened) << opened.error().describe();
    std::string got;
    auto all = client_->readDataFromOffsetToEnd(1000, [&](const Bytes& chunk) {
        got.append(chunk.begin(), chunk.end());
        return true;
    });
    ASSERT_TRUE(all) << all.error().describe();
    EXPECT_TRUE(got == content.substr(1000)) << got.size() << " bytes";
    got.clear();
    auto some = client_->readDataFromOffsetToEnd(7, [&](const Bytes& chunk) {
        got.append(chunk.begin(), chunk.end());
        return false;
    });
    EXPECT_TRUE(some || some.error().is(ErrorKind::Cancelled)) << some.error().describe();
    EXPECT_TRUE(!got.empty() && content.compare(7, got.size(), got) == 0);
    client_->setOffset(content.size() - 10);
    bytes = client_->readDataOfLength(64);
    ASSERT_TRUE(bytes) << bytes.error().describe();
    EXPECT_EQ(std::string(bytes->begin(), bytes->end()), content.substr(content.size() - 10));
    auto listed = client_->contentsOfDirectoryAtPathSync(remote("", true));
    EXPECT_TRUE(listed) << listed.error().describe();
}

TEST_P(WrapperConformance, AsynchronousFormsComplete) {
    putServerFile("async.txt", "async content");
    using Done = std::optional<Error>;
    auto listing = awaitCompletion<Result<KvMetadataList>>(
        [&](auto complete) { client_->contentsOfDirectoryAtPath(remoteRoot(), complete); });
    ASSERT_TRUE(listing) << listing.error().describe();
    EXPECT_EQ(namesOf(*listing), std::vector<std::string>{"async.txt"});

    auto downloaded = awaitCompletion<Done>([&](auto complete) {
        client_->download(remote("async.txt"), localPath("async copy.txt"), complete, {});
    });
    EXPECT_FALSE(downloaded) << downloaded->describe();
    EXPECT_EQ(readFile(localPath("async copy.txt")), "async content");

    auto created = awaitCompletion<Done>(
        [&](auto complete) { client_->createFolder(remote("async folder", true), complete); });
    EXPECT_FALSE(created) << created->describe();
    EXPECT_TRUE(serverHasFolder("async folder"));

    auto removed = awaitCompletion<Done>(
        [&](auto complete) { client_->remove({remote("async.txt")}, complete); });
    EXPECT_FALSE(removed) << removed->describe();
    EXPECT_FALSE(serverHas("async.txt"));
}

}  // namespace quillon::test
