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
    EXPECT_TRUE(contains(added.out, remote.path() + " <-> " + local)) << added.out;
    EXPECT_TRUE(std::filesystem::is_directory(local));
    auto list = runQuillon({"sync", "list"});
    EXPECT_TRUE(contains(list.out, "never") && contains(list.out, remote.path() + " <-> " + local))
        << list.out;

    auto dry = runQuillon({"sync", "run", id, "--dry-run"});
    for (auto says : {"[" + id + "] download", std::string("sub/b.txt"),
                      std::string("2 files would be downloaded")})
        EXPECT_TRUE(contains(dry.out, says)) << dry.out << dry.err;
    EXPECT_TRUE(treeOf(local).empty());

    EXPECT_TRUE(quillonExits(0, {"sync", "run", id},
                             "local : 2 files downloaded (9 B), 0 files deleted, 1 folder "
                             "created\n  server: 0 files uploaded (0 B), 0 files deleted"));
    EXPECT_EQ(readFile(local + "/sub/b.txt"), "beta");

    writeFile(local + "/c.txt", "gamma");
    std::filesystem::remove(local + "/a.txt");
    std::error_code ec;
    std::filesystem::create_symlink("c.txt", local + "/c-link", ec);
    auto second = runQuillon({"sync", "run", "--all"});
    EXPECT_EQ(second.exitCode, 0) << second.err;
    // A link is told about once, without -v, and goes nowhere.
    for (auto says :
         {std::string("server: 1 file uploaded (5 B), 1 file deleted"), "[" + id + "] skip",
          std::string(" c-link  (links are not synced)"), std::string("1 item not synced")})
        EXPECT_TRUE(contains(second.out, says)) << says << " in " << second.out << second.err;
    EXPECT_EQ(readFile(remote / "c.txt"), "gamma");
    EXPECT_FALSE(exists(remote / "c-link"));
    EXPECT_FALSE(exists(remote / "a.txt"));

    auto json = runQuillon({"sync", "list", "--json"}).out;
    for (auto says :
         {"\"id\":" + id, std::string("\"status\":\"ok\",\"statusCode\":1"),
          "\"remoteFolder\":\"" + remote.path() + "\"", std::string("\"localName\":\"cli-docs\"")})
        EXPECT_TRUE(contains(json, says)) << says << " in " << json;
    EXPECT_FALSE(contains(json, "\"lastSync\":null")) << json;

    // Forgetting the pair keeps every file on both sides.
    ASSERT_TRUE(quillonExits(0, {"sync", "rm", id}));
    EXPECT_EQ(readFile(local + "/c.txt"), "gamma");
    EXPECT_EQ(readFile(remote / "c.txt"), "gamma");
    EXPECT_FALSE(exists(local + "/" + SyncDBManager::kFileName));
    EXPECT_FALSE(contains(runQuillon({"sync", "list"}).out, "cli-docs"));
    EXPECT_TRUE(quillonExits(1, {"sync", "run", id}));
}

TEST(SyncCommands, RefusesPairsThatCannotWork) {
    ScratchDir remote("clirefuse");
    ASSERT_TRUE(quillonExits(0, {"sync", "add", remote.path(), "cli-once"}));
    EXPECT_TRUE(quillonExits(1, {"sync", "add", remote.path() + "/..", "cli-once"},
                             "already belongs to sync pair"));
    EXPECT_TRUE(quillonExits(1, {"sync", "add", remote.path(), "cli-twice"}, "already paired"));
    EXPECT_TRUE(quillonExits(1, {"sync", "add", SyncUtils::getSyncBaseFolderPath(), "cli-self"},
                             "overlaps"));
    EXPECT_TRUE(quillonExits(2, {"sync", "add", remote.path(), "a/b"}));
    EXPECT_TRUE(quillonExits(2, {"sync", "add", remote.path(), ".hidden"}));
    writeFile(remote / "file.txt", "x");
    EXPECT_TRUE(quillonExits(1, {"sync", "add", remote / "file.txt", "cli-file"}));
    EXPECT_TRUE(
        quillonExits(1, {"sync", "add", "ftp://127.0.0.1:1/x", "cli-url"}, "configured server"));
    EXPECT_TRUE(quillonExits(2, {"sync", "run"}));
    EXPECT_TRUE(quillonExits(1, {"sync", "run", "9999"}));
}

TEST(SyncCommands, ARunThatWouldDeleteMostFilesStopsAndSaysHowToGoAhead) {
    ScratchDir remote("climax");
    for (int i = 0; i < 4; ++i) writeFile(remote / ("f" + std::to_string(i)), "x");
    auto id = idFrom(runQuillon({"sync", "add", remote.path(), "cli-max"}));
    ASSERT_TRUE(quillonExits(0, {"sync", "run", id}));
    std::string local = SyncUtils::getSyncBaseFolderPath() + "/cli-max";
    for (int i = 0; i < 3; ++i) std::filesystem::remove(local + "/f" + std::to_string(i));
    EXPECT_TRUE(quillonExits(1, {"sync", "run", id},
                             "would delete 3 of 4 files (75.0%) on the server, more than the 50% "
                             "allowed"));
    EXPECT_TRUE(quillonExits(1, {"sync", "run", id},
                             "Nothing was deleted. If these deletions are meant, run `quillon sync "
                             "run " +
                                 id + " --max-delete 75`."));
    EXPECT_EQ(treeOf(remote.path()).size(), 4u);
    EXPECT_TRUE(quillonExits(0, {"sync", "list", "--json"}, "\"status\":\"failed\""));
    EXPECT_TRUE(quillonExits(2, {"sync", "run", id, "--max-delete", "101"}));
    ASSERT_TRUE(quillonExits(0, {"sync", "run", id, "--max-delete", "75"}));
    EXPECT_EQ(treeOf(remote.path()).size(), 1u);
}

}  // namespace
}  // namespace quillon::test
