// Sync pairs in the main database, the per-pair database and its two record services, the
// folder and time rules of SyncUtils, `quillon sync add | list | run | rm` run as a user would,
// and the planner's decisions: for one item, from the pair's records and both sides' items; for
// whole trees, in the order a run takes them.

#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>

#include "sync/SyncPlanner.h"
#include "sync/SyncTestKit.h"
#include "sync/SyncTreePlanner.h"

namespace quillon::test {
namespace {

// The first column of the first row `sql` gives ("" for none), or of every row.
std::vector<std::string> column(SyncDBManager& db, const std::string& sql) {
    std::vector<std::string> out;
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db.getDatabase(), sql.c_str(), -1, &stmt, nullptr);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        auto* text = sqlite3_column_text(stmt, 0);
        out.emplace_back(text ? reinterpret_cast<const char*>(text) : "");
    }
    sqlite3_finalize(stmt);
    return out;
}
std::string firstText(SyncDBManager& db, const std::string& sql) {
    auto all = column(db, sql);
    return all.empty() ? "" : all[0];
}
std::vector<std::string> schemaNames(SyncDBManager& db) {
    return column(db, "SELECT name FROM sqlite_master ORDER BY name");
}

TEST(SyncUtils, KeepsPairsUnderSyncedInTheHomeFolder) {
    std::string base = SyncUtils::getSyncBaseFolderPath();
    EXPECT_EQ(base, syncTestHome().path() + "/home/Synced");
    std::string folder = SyncUtils::getSyncFolderPath("Photos");
    EXPECT_EQ(folder, base + "/Photos");
    EXPECT_TRUE(std::filesystem::is_directory(folder));
    EXPECT_EQ(SyncUtils::getRelativePath(folder + "/a/b.jpg"), "/Photos/a/b.jpg");
    EXPECT_EQ(SyncUtils::getRelativePath("/elsewhere/x"), "/elsewhere/x");
    EXPECT_EQ(SyncUtils::getAbsolutePath("/Photos/a/b.jpg"), folder + "/a/b.jpg");
}

TEST(SyncUtils, DatesWithinOneSecondCompareEqual) {
    auto t = timeAt(1700000000.25);
    EXPECT_TRUE(SyncUtils::fuzzyCompareDate(t, timeAt(1700000001.15)));   // 0.9 s
    EXPECT_TRUE(SyncUtils::fuzzyCompareDate(timeAt(1700000001.25), t));   // exactly 1.0 s
    EXPECT_FALSE(SyncUtils::fuzzyCompareDate(t, timeAt(1700000001.35)));  // 1.1 s
    EXPECT_FALSE(SyncUtils::fuzzyCompareDate(timeAt(1699999999.15), t));  // 1.1 s before
    EXPECT_FALSE(SyncUtils::fuzzyCompareDate(std::nullopt, t));
    EXPECT_FALSE(SyncUtils::fuzzyCompareDate(t, std::nullopt));

    // A server listing an older file by its day only shows midnight of the recorded day.
    KvMetadata listed, record;
    record.timestamp = timeAt(1700000000 + 3600 * 5 + 17);
    listed.timestamp = std::chrono::floor<std::chrono::days>(*record.timestamp);
    EXPECT_FALSE(SyncTask::remoteChanged(listed, record));
    listed.timestamp = *listed.timestamp + std::chrono::days(1);
    EXPECT_TRUE(SyncTask::remoteChanged(listed, record));
    EXPECT_FALSE(SyncTask::remoteChanged(KvMetadata{}, KvMetadata{}));
}

TEST(SyncUtils, CloudItemsAreRecordedByTheirChainOfIdentifiers) {
    auto root = std::make_shared<KvMetadata>("/");
    root->identifier = "root";
    root->setName("My Drive");
    root->protocolType = ProtocolType::GoogleDrive;
    auto docs = std::make_shared<KvMetadata>("/Docs");
    docs->identifier = "1AbC";
    docs->protocolType = ProtocolType::GoogleDrive;
    docs->parentFolderMeta = root;
    KvMetadata file("/Docs/report.pdf");
    file.identifier = "9XyZ";
    file.protocolType = ProtocolType::GoogleDrive;
    file.parentFolderMeta = docs;
    std::string full = SyncUtils::getFullPath(file);
    EXPECT_EQ(full, "/CLOUD_PATH/root::My Drive/1AbC::Docs/9XyZ::report.pdf");
    EXPECT_EQ(SyncUtils::getIdentify(full), "9XyZ");
    EXPECT_EQ(SyncUtils::getIdentify(SyncUtils::getFullPath(*docs)), "1AbC");
    EXPECT_FALSE(SyncUtils::getIdentify("/Docs/report.pdf"));

    KvMetadata ftp("/pub/report.pdf");
    ftp.protocolType = ProtocolType::FTP;
    ftp.identifier = "ignored";
    EXPECT_EQ(SyncUtils::getFullPath(ftp), "/pub/report.pdf");
}

TEST(SyncDBManager, CreatesBothTablesWithTheirIndexesOnlyWhenMissing) {
    ScratchDir dir("syncdb");
    std::string path = dir / SyncDBManager::kFileName;
    {
        SyncDBManager db(path);
        ASSERT_TRUE(db.openDB());
        EXPECT_TRUE(db.isOpened());
        EXPECT_EQ(db.dbPath(), path);
        EXPECT_EQ(schemaNames(db),
                  (std::vector<std::string>{
                      "local_items", "local_items_path_idx", "local_items_remote_path_idx",
                      "remote_items", "remote_items_local_path_idx", "remote_items_path_idx"}));
        auto tables = db.allCreatedTables();
        EXPECT_FALSE(SyncDBManager::needCreateTable("local_items", tables));
        EXPECT_TRUE(SyncDBManager::needCreateTable("favorites", tables));
        ASSERT_TRUE(db.execDDL("INSERT INTO local_items (name, path) VALUES ('a', '/p/a')"));
        // Gone index: a later open must not touch a database whose tables exist.
        ASSERT_TRUE(db.execDDL("DROP INDEX local_items_path_idx"));
        db.closeDB();
        EXPECT_FALSE(db.isOpened());
    }
    SyncDBManager again(path);
    ASSERT_TRUE(again.openDB());
    auto names = schemaNames(again);
    EXPECT_EQ(std::count(names.begin(), names.end(), "local_items_path_idx"), 0);
    EXPECT_EQ(names.size(), 5u);
    EXPECT_EQ(firstText(again, "SELECT path FROM local_items"), "/p/a");

    SyncDBManager missing(dir / (std::string("none/") + SyncDBManager::kFileName));
    EXPECT_TRUE(missing.openDBReadOnly());
    EXPECT_FALSE(missing.isOpened());
    SyncLocalService nothing(missing);
    EXPECT_FALSE(nothing.getLocalItemByLocalMeta(KvMetadata("/x")));
}

TEST(SyncItemServices, FindUpdateAndDeleteRecordsByTheirKeys) {
    ScratchDir dir("syncitems");
    SyncDBManager db(dir / SyncDBManager::kFileName);
    ASSERT_TRUE(db.openDB());
    SyncLocalService local(db);
    SyncRemoteService remote(db);
    std::string base = SyncUtils::getSyncBaseFolderPath();

    KvMetadata l(base + "/pair/docs/a.txt");
    l.fileSizeInBytes = 5;
    l.timestamp = timeAt(1700000000.5);
    auto parent = std::make_shared<KvMetadata>("/srv/docs");
    parent->isDir = true;
    KvMetadata r("/srv/docs/a.txt");
    r.parentFolderMeta = parent;
    r.fileSizeInBytes = 5;
    r.timestamp = timeAt(1700000000.0);
    ASSERT_TRUE(local.addLocalItem(l, r));
    ASSERT_TRUE(remote.addRemoteItem(r, l));
    // Local paths are kept relative to the sync base folder.
    EXPECT_EQ(firstText(db, "SELECT path FROM local_items"), "/pair/docs/a.txt");
    EXPECT_EQ(firstText(db, "SELECT local_path FROM remote_items"), "/pair/docs/a.txt");
    EXPECT_EQ(firstText(db, "SELECT parent_path FROM remote_items"), "/srv/docs");

    auto sl = local.getLocalItemByLocalMeta(l);
    ASSERT_TRUE(sl);
    EXPECT_EQ(sl->pathOrEmpty(), l.pathOrEmpty());
    EXPECT_EQ(sl->nameOrEmpty(), "a.txt");
    EXPECT_EQ(sl->fileSizeInBytes, 5u);
    EXPECT_DOUBLE_EQ(secondsOf(*sl->timestamp), 1700000000.5);
    EXPECT_TRUE(local.getLocalItemByRemoteMeta(r));
    auto sr = remote.getRemoteItemByLocalMeta(l);
    ASSERT_TRUE(sr);
    EXPECT_EQ(sr->pathOrEmpty(), "/srv/docs/a.txt");
    EXPECT_EQ(sr->parentFolderMeta->pathOrEmpty(), "/srv/docs");
    KvMetadata asFolder = l;
    asFolder.isDir = true;
    EXPECT_FALSE(local.getLocalItemByLocalMeta(asFolder));

    l.fileSizeInBytes = 9;
    l.timestamp = timeAt(1700000100.0);
    ASSERT_TRUE(local.updateLocalItem(l));
    EXPECT_EQ(local.getLocalItemByLocalMeta(l)->fileSizeInBytes, 9u);

    // Remote rows are updated and deleted by path alone, local rows by path and kind.
    KvMetadata rAsFolder = r;
    rAsFolder.isDir = true;
    rAsFolder.fileSizeInBytes = 77;
    ASSERT_TRUE(remote.updateRemoteItem(rAsFolder));
    EXPECT_EQ(remote.getRemoteItemByRemoteMeta(r)->fileSizeInBytes, 77u);
    ASSERT_TRUE(local.deleteLocalItem(asFolder));
    EXPECT_TRUE(local.getLocalItemByLocalMeta(l));
    ASSERT_TRUE(remote.deleteRemoteItem(rAsFolder));
    EXPECT_FALSE(remote.getRemoteItemByRemoteMeta(r));
    ASSERT_TRUE(local.deleteLocalItem(l));
    EXPECT_FALSE(local.getLocalItemByLocalMeta(l));
}

TEST(SyncInfoService, StoresPairsWithTheirPropertiesAndStatus) {
    auto& service = SyncInfoService::sharedInstance();
    auto server = std::make_shared<ServerInfo>();
    server->protocolType = ProtocolType::FTP;
    server->displayName = "store-test";
    ASSERT_TRUE(ServerInfoService::sharedServerInfoService().saveServerInfo(*server));

    SyncInfo info;
    info.serverInfo = server;
    info.remoteFolderMeta = SyncInfo::remoteFolderMetaFor("music", "/pub/music", server->serverID,
                                                          ProtocolType::FTP, std::nullopt);
    info.localFolderMeta = SyncInfo::localFolderMetaForName("Music");
    info.setValue("1", "SOME_SETTING");
    info.setValue("x", "GONE");
    info.removeObjectForKey("GONE");
    ASSERT_TRUE(service.saveSyncInfo(info));
    EXPECT_GT(info.syncInfoID, 0);

    auto found = service.getSyncInfo(*server, info.remoteFolderMeta);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->syncInfoID, info.syncInfoID);
    ASSERT_TRUE(found->serverInfo);
    EXPECT_EQ(found->serverInfo->displayName, "store-test");
    EXPECT_EQ(found->valueForKey("SOME_SETTING"), "1");
    EXPECT_FALSE(found->valueForKey("GONE"));
    EXPECT_EQ(found->status, SyncStatus::NeverSynced);
    EXPECT_FALSE(found->lastSyncDate);
    EXPECT_EQ(found->remoteFolderMeta.pathOrEmpty(), "/pub/music");
    EXPECT_EQ(found->remoteFolderMeta.nameOrEmpty(), "music");
    EXPECT_TRUE(found->remoteFolderMeta.isDir);
    EXPECT_EQ(found->localFolderMeta.pathOrEmpty(), SyncUtils::getSyncBaseFolderPath() + "/Music");
    KvMetadata other("/pub/other");
    EXPECT_FALSE(service.getSyncInfo(*server, other));

    found->status = SyncStatus::Failed;
    found->lastSyncDate = timeAt(1700000123.5);
    ASSERT_TRUE(service.updateSyncStatus(*found));
    auto updated = service.getSyncInfoByID(info.syncInfoID);
    ASSERT_TRUE(updated);
    EXPECT_EQ(updated->status, SyncStatus::Failed);
    EXPECT_DOUBLE_EQ(secondsOf(*updated->lastSyncDate), 1700000123.5);

    ASSERT_TRUE(service.deleteSyncInfo(*updated));
    EXPECT_FALSE(service.getSyncInfoByID(info.syncInfoID));
    auto props = DBManager::sharedDBManager().query(
        "SELECT COUNT(*) FROM sync_info_props WHERE sync_info_id=?", {info.syncInfoID});
    ASSERT_TRUE(props);
    EXPECT_EQ(sqlInt((*props)[0][0]), 0);

    // A pair whose server was removed is still listed, without a server.
    SyncInfo orphan = info;
    orphan.serverInfo.reset();
    orphan.serverUUID = "NO-SUCH-SERVER";
    ASSERT_TRUE(service.saveSyncInfo(orphan));
    auto listed = service.getSyncInfoByID(orphan.syncInfoID);
    ASSERT_TRUE(listed);
    EXPECT_FALSE(listed->serverInfo);
    EXPECT_EQ(listed->serverUUID, "NO-SUCH-SERVER");
    EXPECT_EQ(syncStatusName(SyncStatus::Running), "running");
    ASSERT_TRUE(service.deleteSyncInfo(*listed));
}

TEST(SyncInfoService, RefusesStoredLocalNamesThatLeadOutOfTheSyncFolder) {
    ScratchDir remote("syncrefused");
    writeFile(remote / "a.txt", "a");
    std::string home = SyncUtils::getSyncBaseFolderPath() + "/..";
    auto& db = DBManager::sharedDBManager();
    for (std::string name : {std::string(".."), syncTestHome().path() + "/outside",
                             std::string("a/../../escaped"), std::string()}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(db.execute(
            "INSERT INTO sync_info (server_uuid, last_sync_time, sync_status, local_folder_name, "
            "remote_folder_name, remote_folder_path) VALUES (?, NULL, 0, ?, 'remote', ?)",
            {localFileSystem()->serverID, name, remote.path()}));
        auto info = SyncInfoService::sharedInstance().getSyncInfoByID(db.lastInsertRowId());
        ASSERT_TRUE(info);
        EXPECT_FALSE(info->hasSafeLocalName());
        EXPECT_EQ(info->localFolderMeta.nameOrEmpty(), name);
        EXPECT_FALSE(info->localFolderMeta.path());
        auto run = runSync(*info);
        ASSERT_EQ(run.state(), TransferTaskState::Failed);
        EXPECT_EQ(run.task->error()->code, SyncTask::kErrorUnsafeLocalName);
        EXPECT_NE(run.task->error()->reason.find("leads outside the sync folder"),
                  std::string::npos);
        EXPECT_TRUE(SyncInfoService::sharedInstance().deleteSyncInfo(*info));
    }
    for (auto path : {home + "/" + SyncDBManager::kFileName, home + "/escaped",
                      syncTestHome().path() + "/outside", home + "/a.txt"})
        EXPECT_FALSE(exists(path)) << path;
    EXPECT_TRUE(SyncInfo::isSafeLocalName("Photos 2024"));
    EXPECT_TRUE(SyncInfo::isSafeLocalName(".hidden"));
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

namespace quillon::test {
namespace {

// "-" nothing there, "d" a folder, "l" a link, "f<seconds>" a file with that time.
std::optional<KvMetadata> item(const std::string& text) {
    if (text == "-") return std::nullopt;
    KvMetadata m("/x/item");
    m.isDir = text == "d";
    m.isSymbolLink = text == "l";
    if (text.front() == 'f')
        m.timestamp = TimePoint(std::chrono::duration_cast<TimePoint::duration>(
            std::chrono::duration<double>(std::stod(text.substr(1)))));
    return m;
}

std::string decide(const SyncItemState& state, const SyncTimeRules& rules = {}) {
    auto plan = state.remote ? SyncPlanner::planRemoteItem(state, rules)
                             : SyncPlanner::planLocalOnlyItem(state);
    EXPECT_FALSE(plan.reason.empty());
    EXPECT_EQ(plan.keepLocalCopy, plan.conflict && plan.verdict == SyncVerdict::Download);
    return (plan.conflict ? "conflict " : "") + std::string(syncVerdictName(plan.verdict));
}

TEST(SyncPlanner, DecidesEachItemFromItsRecordsAndBothSides) {
    // A day of 2022, and 05:00 that day: a listing that shows an older file by its day only.
    const std::string midnight = "f1660003200", fiveAm = "f1660021200";
    struct Row {
        std::string remoteRecord, localRecord, remote, local, decision;
    };
    const Row table[] = {
        // Files listed on the server.
        {"-", "-", "f100", "-", "download"},
        {"-", "-", "f100", "f100", "conflict download"},  // never synced: newer wins, ties to
        {"-", "-", "f100", "f200", "conflict upload"},    // the server
        {"f100", "f100", "f200", "f100", "download"},
        {"f100", "f100", "f200", "f300", "conflict upload"},
        {"f100", "f100", "f300", "f200", "conflict download"},
        {"f100", "f100", "f200", "-", "download"},  // changed there beats deleted here
        {"f100", "-", "f200", "f300", "conflict upload"},
        {"f100", "-", "f100", "f50", "conflict download"},
        {"f100", "f100", "f100", "-", "delete remote"},
        {"f100", "-", "f100", "-", "delete remote"},  // an interrupted deletion is finished
        {"f100", "f100", "f100", "f200", "upload"},
        {"f100", "f100", "f100.9", "f100.9", "nothing"},  // within a second: unchanged
        {"f100", "f100", "f101.1", "f100", "download"},
        {"f100", "f100", "f100", "f98.9", "upload"},
        {fiveAm, "f100", midnight, "f100", "nothing"},
        // Folders and what is not synced.
        {"-", "-", "d", "-", "mkdir local"},
        {"d", "d", "d", "-", "rmdir remote"},
        {"d", "-", "d", "-", "rmdir remote"},
        {"-", "-", "d", "d", "enter"},
        {"d", "d", "d", "d", "enter"},
        {"-", "-", "d", "f100", "skip"},
        {"-", "-", "f100", "d", "skip"},
        {"-", "-", "l", "-", "skip"},
        {"-", "-", "f100", "l", "skip"},
        // Local items with nothing of their name on the server.
        {"-", "-", "-", "f100", "upload"},
        {"f100", "f100", "-", "f100", "delete local"},
        {"-", "f100", "-", "f100", "delete local"},
        {"f100", "f100", "-", "f200", "upload"},  // changed here beats deleted there
        {"-", "-", "-", "d", "mkdir remote"},
        {"d", "d", "-", "d", "rmdir local"},
        {"-", "-", "-", "l", "skip"},
    };
    for (const Row& row : table) {
        SyncItemState state{item(row.remote), item(row.local), item(row.remoteRecord),
                            item(row.localRecord)};
        EXPECT_EQ(decide(state), row.decision)
            << "records " << row.remoteRecord << " " << row.localRecord << ", sides " << row.remote
            << " " << row.local;
    }

    // A server whose listed times are coarse answers the comparisons with exact ones.
    SyncTimeRules exact;
    exact.remoteChanged = [](const KvMetadata&, const KvMetadata&) { return true; };
    exact.localIsNewer = [](const KvMetadata&, const KvMetadata&) { return true; };
    SyncItemState same{item("f100"), item("f100"), item("f100"), item("f100")};
    EXPECT_EQ(decide(same, exact), "download");
    same.localRecord = item("f50");
    EXPECT_EQ(decide(same, exact), "conflict upload");
}

// A tree as "path=kind" words: "d" a folder, "l" a link, "f<seconds>" a file.
using Tree = std::map<std::string, std::string>;

Tree parseTree(const std::string& text) {
    Tree tree;
    std::istringstream words(text);
    for (std::string w; words >> w;) tree[w.substr(0, w.find('='))] = w.substr(w.find('=') + 1);
    return tree;
}

KvMetadata entry(const std::string& root, const std::string& rel, const std::string& kind) {
    auto m = *item(kind);
    m.setPath(root + "/" + rel);
    m.setName(rel.substr(rel.rfind('/') + 1));
    m.fileSizeInBytes = 10;
    return m;
}

SyncTreeSnapshot snapshotOf(const std::string& root, const Tree& tree) {
    SyncTreeSnapshot snap;
    snap.folders[""];
    for (auto& [rel, kind] : tree) {
        auto slash = rel.rfind('/');
        snap.folders[slash == std::string::npos ? "" : rel.substr(0, slash)].push_back(
            entry(root, rel, kind));
        if (kind == "d") snap.folders[rel];
    }
    return snap;
}

// The steps for both trees and the records (each recorded item on both sides); those that only
// write or drop records in parentheses.
std::string planTrees(const std::string& records, const std::string& remote,
                      const std::string& local) {
    Tree recorded = parseTree(records);
    auto lookup = [recorded](const std::string& root, const std::string& recordRoot) {
        return [recorded, root, recordRoot](const KvMetadata& m) -> std::optional<KvMetadata> {
            auto rel = m.pathOrEmpty().substr(root.size() + 1);
            auto it = recorded.find(rel);
            if (it == recorded.end() || (it->second == "d") != m.isDir) return std::nullopt;
            return entry(recordRoot, rel, it->second);
        };
    };
    auto remoteTree = snapshotOf("/r", parseTree(remote));
    auto localTree = snapshotOf("/l", parseTree(local));
    SyncTreePlanner::Input input;
    input.remote = &remoteTree;
    input.local = &localTree;
    input.remoteRoot = KvMetadata("/r");
    input.localRoot = KvMetadata("/l");
    input.records = {lookup("/r", "/r"), lookup("/r", "/l"), lookup("/l", "/l"),
                     lookup("/l", "/r")};
    std::string out;
    for (auto& step : SyncTreePlanner::plan(input).steps) {
        auto& d = step.decision;
        std::string what = step.kind == SyncStepKind::RecordFolder ? "(record " + d.path + ")"
                           : step.kind == SyncStepKind::ForgetFolder
                               ? "(forget " + d.path + ")"
                               : std::string(syncActionName(d.action)) + " " + d.path;
        out += (out.empty() ? "" : ", ") + what;
    }
    return out;
}

TEST(SyncTreePlanner, DecidesWholeTreesInTheOrderARunTakesThem) {
    struct Row {
        std::string records, remote, local, decisions;
    };
    const Row table[] = {
        // New on the server: its folder first, then what it holds.
        {"", "a=d a/b=f100", "", "mkdir local a, download a/b"},
        // A folder on both sides that was never synced gets its records, then what it holds.
        {"", "a=d a/b=f100", "a=d", "(record a), download a/b"},
        // A conflict's local loser joins the local pass, after the local items.
        {"c=f100", "c=f300", "c=f200 n=f100", "download c, upload n, upload c.original"},
        // New here, in a new folder.
        {"", "", "n=d n/x=f100", "mkdir remote n, upload n/x"},
        // Folders deleted on one side go after both passes, down to what changed since.
        {"g=d g/x=f100", "g=d g/x=f100", "", "delete remote g/x, rmdir remote g"},
        {"d=d d/x=f100 d/y=f100", "d=d d/x=f100 d/y=f200", "",
         "delete remote d/x, keep d/y, (forget d), mkdir local d, download d/y"},
        {"e=d e/u=f100 e/v=f100", "", "e=d e/u=f100 e/v=f300 e/.h=f1",
         "keep e/.h, delete local e/u, keep e/v, (forget e), mkdir remote e, upload e/v"},
        // Links on either side are skipped once each and never delete their twin.
        {"f=f100 gone=f100 rl=f100", "f=f100 rl=l", "f=l gone=l rl=f100 dl=l",
         "skip f, skip rl, skip dl, skip gone"},
    };
    for (const Row& row : table)
        EXPECT_EQ(planTrees(row.records, row.remote, row.local), row.decisions)
            << "records " << row.records << "; server " << row.remote << "; local " << row.local;
}

}  // namespace
}  // namespace quillon::test
