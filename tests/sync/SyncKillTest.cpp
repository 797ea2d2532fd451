// `quillon sync run` killed with SIGKILL at many points and run again: no file is lost, none is
// left partial, and the run that finally completes leaves both sides equal.

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <set>

#include "support/FtpServers.h"
#include "sync/SyncTestKit.h"

extern char** environ;

namespace quillon::test {
namespace {

// Every version of a file is a 48 KiB text naming the file and the version, so a torn copy
// can never pass for a whole one.
std::string version(const std::string& name, const std::string& which) {
    std::string head = name + " " + which + "\n";
    std::string body;
    while (body.size() < 48 * 1024) body += head;
    return body;
}

// Starts the quillon binary with its output in `log`.
pid_t spawnQuillon(const std::vector<std::string>& args, const std::string& log) {
    std::vector<std::string> all{QUILLON_BINARY};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    int rc = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return rc == 0 ? pid : -1;
}

TEST(SyncKill, KilledAtAnyPointAndRunAgainLosesNothing) {
    std::string why;
    auto server = FtpServer::start(FtpServerKind::PureFtpd, {}, &why);
    ASSERT_TRUE(server) << why;
    server->makeDir("pair");
    auto added =
        runQuillon({"server", "add", "killftp", "--type", "ftp", "--addr", "127.0.0.1", "--port",
                    std::to_string(server->port()), "--user", server->user(), "--password-stdin"},
                   server->password() + "\n");
    ASSERT_EQ(added.exitCode, 0) << added.err;
    auto pair = runQuillon({"sync", "add", "killftp:/pair", "killed"});
    ASSERT_EQ(pair.exitCode, 0) << pair.err;
    std::string id = pair.out.substr(std::string("Added sync pair ").size());
    id = id.substr(0, id.find(':'));
    std::string local = SyncUtils::getSyncBaseFolderPath() + "/killed";
    auto r = [&](const std::string& rel) { return server->hostPath("pair/" + rel); };
    auto l = [&](const std::string& rel) { return local + "/" + rel; };

    // A synced starting point.
    double t0 = wholeMinutesAgo(600);
    const int n = 24;
    auto name = [](const char* kind, int i) { return std::string(kind) + std::to_string(i); };
    for (int i = 0; i < n; ++i) {
        for (auto kind : {"editR", "editL", "delL", "delR", "same"})
            server->writeFile("pair/" + std::string(kind) + "/" + name(kind, i),
                              version(name(kind, i), "v1"));
    }
    for (auto& e : std::filesystem::recursive_directory_iterator(server->hostPath("pair")))
        if (e.is_regular_file()) setMtime(e.path().string(), t0);
    auto first = runQuillon({"sync", "run", id});
    ASSERT_EQ(first.exitCode, 0) << first.out << first.err;
    ASSERT_EQ(treeOf(local), treeOf(server->hostPath("pair")));

    // Work of every kind for the runs that get killed.
    std::map<std::string, std::string> expected;  // final content of every file
    std::set<std::string> deleted;
    for (int i = 0; i < n; ++i) {
        std::string f;
        f = "editR/" + name("editR", i);
        server->writeFile("pair/" + f, version(f, "v2 server"));
        setMtime(r(f), t0 + 600);
        expected[f] = version(f, "v2 server");
        f = "editL/" + name("editL", i);
        writeWithTime(l(f), version(f, "v2 local"), t0 + 600);
        expected[f] = version(f, "v2 local");
        f = "delL/" + name("delL", i);
        std::filesystem::remove(l(f));
        deleted.insert(f);
        f = "delR/" + name("delR", i);
        std::filesystem::remove(r(f));
        deleted.insert(f);
        f = "same/" + name("same", i);
        expected[f] = version(name("same", i), "v1");
        f = "newR/" + name("newR", i);
        server->writeFile("pair/" + f, version(f, "new"));
        expected[f] = version(f, "new");
        f = "newL/" + name("newL", i);
        writeFile(l(f), version(f, "new"));
        expected[f] = version(f, "new");
    }
    server->chownTree();
    // Contents of the starting versions, which a file may still hold on either side.
    auto acceptable = [&](const std::string& rel, const std::string& content) {
        auto slash = rel.find('/');
        std::string base = rel.substr(slash + 1);
        return content == version(base, "v1") || content == version(rel, "v1") ||
               (expected.contains(rel) && content == expected[rel]);
    };

    ScratchDir logs("synckill");
    std::string log = logs / "runs.log";
    bool completed = false;
    int kills = 0;
    for (int attempt = 0; attempt < 40 && !completed; ++attempt) {
        pid_t pid = spawnQuillon({"sync", "run", id}, log);
        ASSERT_GT(pid, 0);
        // The first second is the ability check and its pause; the kills then walk through
        // the run.
        auto delay = std::chrono::milliseconds(950 + 90 * attempt);
        int status = 0;
        auto deadline = std::chrono::steady_clock::now() + delay;
        pid_t done = 0;
        while (std::chrono::steady_clock::now() < deadline &&
               (done = ::waitpid(pid, &status, WNOHANG)) == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (done == pid) {
            completed = WIFEXITED(status) && WEXITSTATUS(status) == 0;
            ASSERT_TRUE(completed) << readFile(log);
            break;
        }
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        ++kills;

        // After every kill: each file that must survive exists on one side at least, and every
        // file present anywhere is one whole version of itself.
        auto remoteTree = treeOf(server->hostPath("pair"));
        auto localTree = treeOf(local);
        for (auto& [rel, content] : expected) {
            bool somewhere = remoteTree.contains(rel) || localTree.contains(rel);
            EXPECT_TRUE(somewhere) << rel << " lost after kill " << kills;
        }
        for (auto* tree : {&remoteTree, &localTree})
            for (auto& [rel, content] : *tree) {
                if (content == "<dir>") continue;
                EXPECT_TRUE(acceptable(rel, content)) << rel << " is torn after kill " << kills;
            }
        // A new version is never lost: it is on its side until it reached the other.
        for (int i = 0; i < n; ++i) {
            std::string f = "editL/" + name("editL", i);
            EXPECT_TRUE(localTree[f] == expected[f] || remoteTree[f] == expected[f]) << f;
            f = "editR/" + name("editR", i);
            EXPECT_TRUE(localTree[f] == expected[f] || remoteTree[f] == expected[f]) << f;
        }
        if (::testing::Test::HasFailure()) break;
    }
    ASSERT_TRUE(completed) << "no run completed after " << kills << " kills";
    EXPECT_GE(kills, 3);

    // One more run settles anything a killed run left for later; then both sides are the
    // expected ones and a further run has nothing to do.
    auto settle = runQuillon({"sync", "run", id});
    ASSERT_EQ(settle.exitCode, 0) << settle.out << settle.err;
    auto remoteTree = treeOf(server->hostPath("pair"));
    auto localTree = treeOf(local);
    EXPECT_EQ(remoteTree, localTree);
    for (auto& [rel, content] : expected) EXPECT_EQ(localTree[rel], content) << rel;
    for (auto& rel : deleted) EXPECT_FALSE(localTree.contains(rel)) << rel;
    // Folders emptied by the deletions stay (their records say they were synced).
    std::size_t files = 0;
    for (auto& [rel, content] : localTree) files += content != "<dir>";
    EXPECT_EQ(files, expected.size());

    auto quiet = runQuillon({"sync", "run", id, "-v"});
    ASSERT_EQ(quiet.exitCode, 0);
    EXPECT_NE(quiet.out.find("0 files downloaded"), std::string::npos) << quiet.out;
    EXPECT_NE(quiet.out.find("0 files uploaded"), std::string::npos) << quiet.out;
    EXPECT_EQ(quiet.out.find("] "), std::string::npos) << quiet.out;
}

}  // namespace
}  // namespace quillon::test
