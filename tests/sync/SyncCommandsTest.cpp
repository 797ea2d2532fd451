// quillon sync add | list | run | rm, run as a user would.

#include <gtest/gtest.h>

#include "sync/SyncTestKit.h"

namespace quillon::test {
namespace {

std::string idFrom(const CommandResult& added) {
    std::string prefix = "Added sync pair ";
    EXPECT_EQ(added.out.rfind(prefix, 0), 0u) << added.out << added.err;
    auto rest = added.out.substr(prefix.size());
    return rest.substr(0, rest.find(':'));
}

TEST(SyncCommands, AddListRunAndRemoveAPair) {
    ScratchDir remote("clisync");
    writeFile(remote / "a.txt", "alpha");
    writeFile(remote / "sub/b.txt", "beta");
    auto added = runQuillon({"sync", "add", remote.path(), "cli-docs"});
    ASSERT_EQ(added.exitCode, 0) << added.err;
    std::string id = idFrom(added);
    std::string local = SyncUtils::getSyncBaseFolderPath() + "/cli-docs";
    EXPECT_NE(added.out.find(remote.path() + " <-> " + local), std::string::npos) << added.out;
    EXPECT_TRUE(std::filesystem::is_directory(local));

    auto list = runQuillon({"sync", "list"});
    ASSERT_EQ(list.exitCode, 0);
    EXPECT_NE(list.out.find("never"), std::string::npos) << list.out;
    EXPECT_NE(list.out.find(remote.path() + " <-> " + local), std::string::npos) << list.out;

    auto dry = runQuillon({"sync", "run", id, "--dry-run"});
    ASSERT_EQ(dry.exitCode, 0) << dry.err;
    EXPECT_NE(dry.out.find("[" + id + "] download"), std::string::npos) << dry.out;
    EXPECT_NE(dry.out.find("sub/b.txt"), std::string::npos) << dry.out;
    EXPECT_NE(dry.out.find("2 files would be downloaded"), std::string::npos) << dry.out;
    EXPECT_TRUE(treeOf(local).empty());

    auto run = runQuillon({"sync", "run", id});
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("completed"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("local : 2 files downloaded (9 B), 0 files deleted, 1 folder created"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("server: 0 files uploaded (0 B), 0 files deleted"), std::string::npos)
        << run.out;
    EXPECT_EQ(readFile(local + "/sub/b.txt"), "beta");

    writeFile(local + "/c.txt", "gamma");
    std::filesystem::remove(local + "/a.txt");
    auto again = runQuillon({"sync", "run", "--all"});
    ASSERT_EQ(again.exitCode, 0) << again.out << again.err;
    EXPECT_NE(again.out.find("server: 1 file uploaded (5 B), 1 file deleted"), std::string::npos)
        << again.out;
    EXPECT_EQ(readFile(remote / "c.txt"), "gamma");
    EXPECT_FALSE(exists(remote / "a.txt"));

    auto json = runQuillon({"sync", "list", "--json"});
    ASSERT_EQ(json.exitCode, 0);
    EXPECT_NE(json.out.find("\"id\":" + id), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"status\":\"ok\""), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"statusCode\":1"), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("\"remoteFolder\":\"" + remote.path() + "\""), std::string::npos);
    EXPECT_NE(json.out.find("\"localName\":\"cli-docs\""), std::string::npos);
    EXPECT_EQ(json.out.find("\"lastSync\":null"), std::string::npos) << json.out;

    // Forgetting the pair keeps every file on both sides.
    auto rm = runQuillon({"sync", "rm", id});
    ASSERT_EQ(rm.exitCode, 0) << rm.err;
    EXPECT_EQ(readFile(local + "/c.txt"), "gamma");
    EXPECT_EQ(readFile(remote / "c.txt"), "gamma");
    EXPECT_FALSE(exists(local + "/" + SyncDBManager::kFileName));
    EXPECT_EQ(runQuillon({"sync", "list"}).out.find("cli-docs"), std::string::npos);
    EXPECT_EQ(runQuillon({"sync", "run", id}).exitCode, 1);
}

TEST(SyncCommands, RefusesPairsThatCannotWork) {
    ScratchDir remote("clirefuse");
    ASSERT_EQ(runQuillon({"sync", "add", remote.path(), "cli-once"}).exitCode, 0);
    auto sameName = runQuillon({"sync", "add", remote.path() + "/..", "cli-once"});
    EXPECT_EQ(sameName.exitCode, 1);
    EXPECT_NE(sameName.err.find("already belongs to sync pair"), std::string::npos) << sameName.err;
    auto samePlace = runQuillon({"sync", "add", remote.path(), "cli-twice"});
    EXPECT_EQ(samePlace.exitCode, 1);
    EXPECT_NE(samePlace.err.find("already paired"), std::string::npos) << samePlace.err;
    auto itself = runQuillon({"sync", "add", SyncUtils::getSyncBaseFolderPath(), "cli-self"});
    EXPECT_EQ(itself.exitCode, 1);
    EXPECT_NE(itself.err.find("overlaps"), std::string::npos) << itself.err;
    EXPECT_EQ(runQuillon({"sync", "add", remote.path(), "a/b"}).exitCode, 2);
    EXPECT_EQ(runQuillon({"sync", "add", remote.path(), ".hidden"}).exitCode, 2);
    writeFile(remote / "file.txt", "x");
    EXPECT_EQ(runQuillon({"sync", "add", remote / "file.txt", "cli-file"}).exitCode, 1);
    auto url = runQuillon({"sync", "add", "ftp://127.0.0.1:1/x", "cli-url"});
    EXPECT_EQ(url.exitCode, 1);
    EXPECT_NE(url.err.find("configured server"), std::string::npos) << url.err;
    EXPECT_EQ(runQuillon({"sync", "run"}).exitCode, 2);
    EXPECT_EQ(runQuillon({"sync", "run", "9999"}).exitCode, 1);
}

TEST(SyncCommands, ARunThatWouldDeleteMostFilesStopsAndSaysHowToGoAhead) {
    ScratchDir remote("climax");
    for (int i = 0; i < 4; ++i) writeFile(remote / ("f" + std::to_string(i)), "x");
    auto id = idFrom(runQuillon({"sync", "add", remote.path(), "cli-max"}));
    ASSERT_EQ(runQuillon({"sync", "run", id}).exitCode, 0);
    std::string local = SyncUtils::getSyncBaseFolderPath() + "/cli-max";
    for (int i = 0; i < 3; ++i) std::filesystem::remove(local + "/f" + std::to_string(i));
    auto run = runQuillon({"sync", "run", id});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.out.find("would delete 3 of 4 files (75.0%) on the server, more than the 50% "
                           "allowed"),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("Nothing was deleted. If these deletions are meant, run `quillon sync "
                           "run " +
                           id + " --max-delete 75`."),
              std::string::npos)
        << run.out;
    EXPECT_EQ(treeOf(remote.path()).size(), 4u);
    auto list = runQuillon({"sync", "list", "--json"});
    EXPECT_NE(list.out.find("\"status\":\"failed\""), std::string::npos) << list.out;
    EXPECT_EQ(runQuillon({"sync", "run", id, "--max-delete", "101"}).exitCode, 2);
    ASSERT_EQ(runQuillon({"sync", "run", id, "--max-delete", "75"}).exitCode, 0);
    EXPECT_EQ(treeOf(remote.path()).size(), 1u);
}

}  // namespace
}  // namespace quillon::test
