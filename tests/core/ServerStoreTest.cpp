// The server database, the records stored in it, and local volumes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>

#include "core/DBManager.h"
#include "core/ServerInfoService.h"
#include "support/TestEnv.h"

using namespace quillon;

TEST(DBManager, CreatesOnlyMissingTablesAndLeavesAForeignFileAlone) {
    test::ScratchDir dir("db");
    std::string path = dir / "db.sqlite";
    {
        // A database from an older version with one table and data in it.
        DBManager old(path);
        ASSERT_TRUE(old.openDB());
        ASSERT_TRUE(old.execute("DROP TABLE favorites"));
        ASSERT_TRUE(old.execute("INSERT INTO bookmarks (file_path, bookmark_page) VALUES (?, ?)",
                                {std::string("/a.pdf"), std::int64_t{3}}));
    }
    DBManager db(path);
    ASSERT_TRUE(db.openDB());
    std::set<std::string> tables;
    ASSERT_TRUE(db.execute("SELECT name FROM sqlite_master WHERE type='table'", {},
                           [&](const SqlRow& r) { tables.insert(sqlText(r[0])); }));
    EXPECT_EQ(tables, (std::set<std::string>{"bookmarks", "server_info", "server_props", "ads_2",
                                             "favorites", "favorites_props", "sync_info",
                                             "sync_info_props"}));
    auto rows =
        db.query("SELECT bookmark_page FROM bookmarks WHERE file_path=?", {std::string("/a.pdf")});
    ASSERT_TRUE(rows);
    ASSERT_EQ(rows->size(), 1u);
    EXPECT_EQ(sqlInt((*rows)[0][0]), 3);
    EXPECT_EQ(test::modeOf(path), 0600u);

    // A file that is not a database is reported and left as it was.
    std::string junk = dir / "junk.sqlite";
    std::string content(4096, 'x');
    test::writeFile(junk, content);
    DBManager bad(junk);
    auto r = bad.openDB();
    ASSERT_FALSE(r);
    EXPECT_NE(r.error().reason.find("cannot be read"), std::string::npos) << r.error().reason;
    EXPECT_EQ(test::readFile(junk), content);
}

namespace {

class ServerInfoStore : public test::FreshHome {
  protected:
    static ServerInfoService& service() { return ServerInfoService::sharedServerInfoService(); }
    static std::int64_t count(const std::string& sql, const std::vector<SqlValue>& params = {}) {
        auto rows = DBManager::sharedDBManager().query(sql, params);
        return rows && !rows->empty() ? sqlInt((*rows)[0][0]) : -1;
    }
};

}  // namespace

TEST_F(ServerInfoStore, SavesUpdatesAndDeletesRecordsWithTheirProperties) {
    ServerInfo info;
    info.protocolType = ProtocolType::FTP;
    info.displayName = "Office";
    info.setValue("ftp.example.test", ServerProp::ADDR);
    info.setValue(std::nullopt, ServerProp::PATH);
    info.setValue("YES", ServerProp::QUICK_CONNECT);
    ASSERT_TRUE(service().saveOrUpdateServerInfo(info));
    auto firstStamp = info.valueForKey(ServerProp::SI_LAST_UPDATE);
    ASSERT_TRUE(firstStamp);
    info.displayName = "Office NAS";
    info.setValue("2121", ServerProp::PORT);
    info.removeObjectForKey(ServerProp::QUICK_CONNECT);
    ASSERT_TRUE(service().saveOrUpdateServerInfo(info));

    // Saved twice: one row, whose properties are exactly the record's.
    EXPECT_EQ(count("SELECT COUNT(*) FROM server_info"), 1);
    EXPECT_EQ(count("SELECT COUNT(*) FROM server_props WHERE server_uuid=?", SqlRow{info.serverID}),
              static_cast<std::int64_t>(info.props.size()));
    auto all = service().remoteServerInfos();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].displayName, "Office NAS");
    EXPECT_EQ(all[0].valueForKey(ServerProp::PORT), "2121");
    EXPECT_EQ(all[0].valueForKey(ServerProp::PATH), "");  // absent values store ""
    EXPECT_FALSE(all[0].valueForKey(ServerProp::QUICK_CONNECT));
    // Every save is stamped later than the one before.
    EXPECT_GT(std::stod(*all[0].valueForKey(ServerProp::SI_LAST_UPDATE)), std::stod(*firstStamp));

    // protocol_type is written once, at insert.
    info.protocolType = ProtocolType::SFTP;
    ASSERT_TRUE(service().updateServerInfo(info));
    EXPECT_EQ(service().serverInfoWithServerID(info.serverID)->protocolType, ProtocolType::FTP);
    EXPECT_EQ(service().serverInfosWithProtocolType(ProtocolType::FTP).size(), 1u);

    ServerInfo quick;
    quick.protocolType = ProtocolType::FTP;
    quick.displayName = "quick";
    quick.setValue("YES", ServerProp::QUICK_CONNECT);
    ASSERT_TRUE(service().saveServerInfo(quick));
    auto forSync = service().serverInfosForSync();
    ASSERT_EQ(forSync.size(), 1u);
    EXPECT_EQ(forSync[0].serverID, info.serverID);

    ASSERT_TRUE(service().deleteServerInfo(info));
    EXPECT_FALSE(service().serverInfoWithServerID(info.serverID));
    EXPECT_EQ(count("SELECT COUNT(*) FROM server_props WHERE server_uuid=?", SqlRow{info.serverID}),
              0);
}

TEST_F(ServerInfoStore, StoringARecordKeepsItsStampAsItCame) {
    ServerInfo info;
    info.protocolType = ProtocolType::SFTP;
    info.displayName = "From elsewhere";
    info.setValue("12.500", ServerProp::SI_LAST_UPDATE);
    ASSERT_TRUE(service().storeServerInfo(info));
    ASSERT_TRUE(service().storeServerInfo(info));
    EXPECT_EQ(count("SELECT COUNT(*) FROM server_info WHERE server_uuid=?", SqlRow{info.serverID}),
              1);
    EXPECT_EQ(
        service().serverInfoWithServerID(info.serverID)->valueForKey(ServerProp::SI_LAST_UPDATE),
        "12.500");
}

TEST(ServerInfoService, SortsConnectionsNaturallyIgnoringCase) {
    auto make = [](std::string name, std::optional<std::string> sort) {
        ServerInfo i;
        i.displayName = std::move(name);
        if (sort) i.setValue(*sort, ServerProp::CONNECTION_SORT_ID);
        return i;
    };
    std::vector<ServerInfo> v{make("ten", "10"), make("two", "2"), make("B", "b1"),
                              make("a", "A1")};
    ServerInfoService::sortConnections(v);
    std::vector<std::string> names;
    for (auto& i : v) names.push_back(i.displayName);
    EXPECT_EQ(names, (std::vector<std::string>{"two", "ten", "a", "B"}));
}

TEST(ServerInfoService, LocalVolumesAreRealFileSystemsWithRootFirst) {
    const char* mountinfo =
        "60 1 0:50 / /proc rw,nosuid - proc proc rw\n"
        "61 1 0:51 / /dev/shm rw - tmpfs tmpfs rw\n"
        "70 1 8:17 / /tmp rw,relatime - ext4 /dev/sdb1 rw\n"
        "22 0 8:1 / / rw,relatime - ext4 /dev/sda1 rw\n"
        "80 1 0:60 / /srv/share\\040files ro,relatime - nfs4 server:/export rw\n"
        "81 1 0:61 / /sys/fs/cgroup rw - cgroup2 cgroup2 rw\n";
    auto volumes = ServerInfoService::localServerInfosFromMountInfo(mountinfo);
    ASSERT_GE(volumes.size(), 1u);
    EXPECT_EQ(volumes[0].rootFolderPath, "/");
    EXPECT_EQ(volumes[0].protocolType, 0);
    std::set<std::string> roots;
    for (auto& v : volumes) {
        roots.insert(v.rootFolderPath);
        EXPECT_FALSE(v.displayName.empty());
    }
    for (auto pseudo : {"/proc", "/dev/shm", "/sys/fs/cgroup"}) EXPECT_FALSE(roots.count(pseudo));
    // /tmp exists on every machine, so the ext4 volume there is listed.
    EXPECT_TRUE(roots.count("/tmp"));
    // The real machine's list starts with "/" too.
    EXPECT_EQ(ServerInfoService::sharedServerInfoService().rootLocalServerInfo().rootFolderPath,
              "/");
}
