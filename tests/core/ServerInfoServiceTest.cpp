#include "core/ServerInfoService.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "core/DBManager.h"
#include "support/TestEnv.h"

using namespace quillon;
namespace fs = std::filesystem;

namespace {

class ServerInfoStore : public test::FreshHome {
  protected:
    static ServerInfoService& service() { return ServerInfoService::sharedServerInfoService(); }
    static std::int64_t count(const std::string& sql, const std::string& id) {
        auto rows = DBManager::sharedDBManager().query(sql, {id});
        return rows && !rows->empty() ? sqlInt((*rows)[0][0]) : -1;
    }
};

}  // namespace

TEST_F(ServerInfoStore, SavingARecordTwiceUpdatesItsOneRow) {
    ServerInfo info;
    info.protocolType = ProtocolType::FTP;
    info.displayName = "Office";
    info.setValue("ftp.office.test", ServerProp::ADDR);
    info.setValue("YES", ServerProp::QUICK_CONNECT);
    ASSERT_TRUE(service().saveOrUpdateServerInfo(info));
    auto firstStamp = info.valueForKey(ServerProp::SI_LAST_UPDATE);
    ASSERT_TRUE(firstStamp);

    info.displayName = "Office (renamed)";
    info.setValue("2121", ServerProp::PORT);
    info.removeObjectForKey(ServerProp::QUICK_CONNECT);
    ASSERT_TRUE(service().saveOrUpdateServerInfo(info));

    EXPECT_EQ(count("SELECT COUNT(*) FROM server_info WHERE server_uuid=?", info.serverID), 1);
    EXPECT_EQ(count("SELECT COUNT(*) FROM server_props WHERE server_uuid=?", info.serverID),
              static_cast<std::int64_t>(info.props.size()));
    auto stored = service().serverInfoWithServerID(info.serverID);
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->displayName, "Office (renamed)");
    EXPECT_EQ(stored->valueForKey(ServerProp::PORT).value_or(""), "2121");
    EXPECT_FALSE(stored->valueForKey(ServerProp::QUICK_CONNECT));
    // Every save is stamped later than the one before.
    EXPECT_GT(std::stod(*stored->valueForKey(ServerProp::SI_LAST_UPDATE)), std::stod(*firstStamp));
    EXPECT_EQ(service().serverInfosForSync().size(), 1u);

    // The database holds passwords: readable by the user only.
    EXPECT_EQ(test::modeOf(DBManager::sharedDBManager().path()), 0600u);
}

TEST_F(ServerInfoStore, StoringARecordKeepsItsStampAsItCame) {
    ServerInfo info;
    info.protocolType = ProtocolType::SFTP;
    info.displayName = "From elsewhere";
    info.setValue("12.500", ServerProp::SI_LAST_UPDATE);
    ASSERT_TRUE(service().storeServerInfo(info));
    ASSERT_TRUE(service().storeServerInfo(info));
    EXPECT_EQ(count("SELECT COUNT(*) FROM server_info WHERE server_uuid=?", info.serverID), 1);
    EXPECT_EQ(
        service().serverInfoWithServerID(info.serverID)->valueForKey(ServerProp::SI_LAST_UPDATE),
        "12.500");
}
