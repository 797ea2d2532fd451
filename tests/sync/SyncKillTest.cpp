// `quillon sync run` killed with SIGKILL at random moments: no file is lost, none is left
// partial, and one further run leaves both sides equal and settled.

#include <gtest/gtest.h>
#include <signal.h>

#include <random>
#include <set>

#include "support/ChildProcess.h"
#include "support/FtpServers.h"
#include "sync/SyncTestKit.h"

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

TEST(SyncKill, OneRunAfterAKillAtAnyMomentSettlesThePair) {
    auto server = FtpServer::start(FtpServerKind::PureFtpd);
    ASSERT_TRUE(server);
    server->makeDir("pair");
    ASSERT_TRUE(
        quillonExits(0,
                     {"server", "add", "killftp", "--type", "ftp", "--addr", "127.0.0.1", "--port",
                      std::to_string(server->port()), "--user", server->user(), "--password-stdin"},
                     "", server->password() + "\n"));
    std::string id = idFrom(runQuillon({"sync", "add", "killftp:/pair", "killed"}));
    ASSERT_FALSE(id.empty());
    std::string local = SyncUtils::getSyncBaseFolderPath() + "/killed";
    auto r = [&](const std::string& rel) { return server->hostPath("pair/" + rel); };
    auto l = [&](const std::string& rel) { return local + "/" + rel; };

    // A synced starting point: each trial works in a folder of its own.
    const int trials = 6, n = 12;
    // bothR and bothL: edited on both sides, the server's or the local version later.
    const std::vector<std::string> kinds{"editR", "editL", "bothR", "bothL",
                                         "delL",  "delR",  "same"};
    auto file = [](int trial, const std::string& kind, int i) {
        return "t" + std::to_string(trial) + "/" + kind + "/" + kind + std::to_string(i);
    };
    double t0 = wholeMinutesAgo(600);
    std::map<std::string, std::string> expected;  // the content every file must end with
    std::set<std::string> whole;                  // every version ever written
    auto onServer = [&](const std::string& f, const std::string& content, double when) {
        server->writeFile("pair/" + f, content);
        setMtime(r(f), when);
        whole.insert(content);
    };
    auto here = [&](const std::string& f, const std::string& content, double when) {
        writeWithTime(l(f), content, when);
        whole.insert(content);
    };
    for (int t = 0; t < trials; ++t)
        for (auto& kind : kinds)
            for (int i = 0; i < n; ++i) {
                std::string f = file(t, kind, i);
                onServer(f, version(f, "v1"), t0);
                expected[f] = version(f, "v1");
            }
    auto first = runQuillon({"sync", "run", id});
    ASSERT_EQ(first.exitCode, 0) << first.out << first.err;
    ASSERT_EQ(treeOf(local), treeOf(server->hostPath("pair")));

    unsigned start = std::random_device{}();
    SCOPED_TRACE("random start value " + std::to_string(start));
    std::mt19937 random(start);
    int kills = 0, latest = 3000;
    for (int t = 0; t < trials; ++t) {
        SCOPED_TRACE("trial " + std::to_string(t));
        for (int i = 0; i < n; ++i) {
            std::string f = file(t, "editR", i);
            onServer(f, expected[f] = version(f, "v2 server"), t0 + 600);
            f = file(t, "editL", i);
            here(f, expected[f] = version(f, "v2 local"), t0 + 600);
            // The local version that loses is kept beside the winner on both sides.
            f = file(t, "bothR", i);
            here(f, expected[f + ".original"] = version(f, "v2 local"), t0 + 300);
            onServer(f, expected[f] = version(f, "v2 server"), t0 + 600);
            f = file(t, "bothL", i);
            here(f, expected[f] = version(f, "v2 local"), t0 + 600);
            onServer(f, version(f, "v2 server"), t0 + 300);
            for (auto [kind, path] : {std::pair{"delL", l(file(t, "delL", i))},
                                      std::pair{"delR", r(file(t, "delR", i))}}) {
                std::filesystem::remove(path);
                expected.erase(file(t, kind, i));
            }
            f = file(t, "newR", i);
            onServer(f, expected[f] = version(f, "new"), t0 + 900);
            f = file(t, "newL", i);
            here(f, expected[f] = version(f, "new"), t0 + 900);
        }
        server->chownTree();

        // Killed once or a few times in a row, each time at a random moment up to the length of
        // the last run that ended before its kill (the first second is the ability check and
        // its pause).
        int rounds = std::uniform_int_distribution<int>(1, 3)(random);
        for (int round = 0; round < rounds; ++round) {
            ChildProcess run({QUILLON_BINARY, "sync", "run", id});
            auto started = std::chrono::steady_clock::now();
            auto deadline = started + std::chrono::milliseconds(
                                          std::uniform_int_distribution<int>(200, latest)(random));
            while (std::chrono::steady_clock::now() < deadline && run.running(5)) {
            }
            if (!run.running()) {
                ASSERT_EQ(run.wait(), 0) << run.out() << run.err();
                auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
                    std::chrono::steady_clock::now() - started);
                latest = std::max(1000, static_cast<int>(took.count()) - 20);
                break;
            }
            run.stop(SIGKILL);
            ++kills;
            auto remoteTree = treeOf(server->hostPath("pair"));
            auto localTree = treeOf(local);

            // Every version that must survive is somewhere, and every file present anywhere
            // is one whole version.
            std::set<std::string> present;
            for (auto* tree : {&remoteTree, &localTree})
                for (auto& [rel, content] : *tree) {
                    if (content == "<dir>") continue;
                    present.insert(content);
                    EXPECT_TRUE(whole.contains(content)) << rel << " is torn";
                }
            for (auto& [rel, content] : expected)
                EXPECT_TRUE(present.contains(content)) << rel << " lost";
        }

        // One run settles the pair, and the next one finds nothing to do.
        auto settle = runQuillon({"sync", "run", id, "-v"});
        ASSERT_EQ(settle.exitCode, 0) << settle.out << settle.err;
        auto remoteTree = treeOf(server->hostPath("pair"));
        auto localTree = treeOf(local);
        EXPECT_EQ(differingPaths(remoteTree, localTree), std::vector<std::string>{});
        std::size_t files = 0;
        for (auto& [rel, content] : localTree) files += content != "<dir>";
        EXPECT_EQ(files, expected.size());
        for (auto& [rel, content] : expected) EXPECT_TRUE(localTree[rel] == content) << rel;

        auto quiet = runQuillon({"sync", "run", id, "-v"});
        ASSERT_EQ(quiet.exitCode, 0) << quiet.out << quiet.err;
        EXPECT_TRUE(contains(quiet.out,
                             "local : 0 files downloaded (0 B), 0 files deleted\n  "
                             "server: 0 files uploaded (0 B), 0 files deleted"))
            << "after\n"
            << settle.out << "\nagain\n"
            << quiet.out;
        EXPECT_EQ(quiet.out.find("] "), std::string::npos) << quiet.out;
        if (::testing::Test::HasFailure()) break;
    }
    EXPECT_GE(kills, trials / 2);
}

}  // namespace
}  // namespace quillon::test
