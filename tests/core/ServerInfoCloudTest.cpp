#include <gtest/gtest.h>

#include <filesystem>

#include "core/AppPreference.h"
#include "core/CloudKeyValueStore.h"
#include "core/DBManager.h"
#include "core/MainQueue.h"
#include "core/PathUtils.h"
#include "core/ServerInfoService.h"
#include "core/TovrinCrypto.h"
#include "support/TestEnv.h"

using namespace quillon;
namespace fs = std::filesystem;

namespace {

using Props = std::map<std::string, std::string>;

// A fresh home, database and cloud folder for every test.
class ServerInfoCloud : public test::FreshHome {
  protected:
    void SetUp() override {
        FreshHome::SetUp();
        AppPreference::sharedAppPreference().setValue(PlistValue(true),
                                                      PrefKey::SYS_AUTO_SYNC_CONN);
        store = std::make_shared<FileCloudKeyValueStore>(cloud.path());
        service().setCloudStore(store);
        service().setDisableUpdateCloud(false);
    }
    void TearDown() override {
        service().setCloudStore(nullptr);
        FreshHome::TearDown();
    }

    static ServerInfoService& service() { return ServerInfoService::sharedServerInfoService(); }
    std::string cloudBytes() const {
        return test::readFile(cloud / FileCloudKeyValueStore::kFileName);
    }
    static std::optional<ServerInfo> local(const std::string& id) {
        return service().serverInfoWithServerID(id);
    }

    test::ScratchDir cloud{"cloud"};
    std::shared_ptr<FileCloudKeyValueStore> store;
};

ServerInfo ftpRecord(const std::string& name) {
    ServerInfo info;
    info.protocolType = ProtocolType::FTP;
    info.displayName = name;
    info.setValue("ftp.example.test", ServerProp::ADDR);
    info.setValue("21", ServerProp::PORT);
    info.setValue("alice", ServerProp::USERNAME);
    return info;
}

ServerInfo withStamp(ServerInfo info, const std::string& stamp) {
    info.setValue(stamp, ServerProp::SI_LAST_UPDATE);
    return info;
}

}  // namespace

TEST(ServerInfoCloudNames, PropertyTableTranslatesBothWays) {
    ServerInfo info;
    Props props = {{"ADDR", "10.0.0.5"},
                   {"PORT", "2121"},
                   {"PATH", "/pub"},
                   {"USERNAME", "bob"},
                   {"SERVER_TYPE", "2"},
                   {"SHOW_ADMIN_SHARES", "YES"},
                   {"FTP_ACTIVE_MODE", "YES"},
                   {"FTP_PROTOCOL", "FTP_PROTOCOL_EXPLICIT_IF_AVAILABLE"},
                   {"SERVER_ENCODING", "windows-1252"},
                   {"SFTP_LOGIN_TYPE", "SFTP_LOGIN_TYPE_KEYFILE"},
                   {"CONNECTION_SORT_ID", "7"},
                   {"CUSTOM", "kept"}};
    info.props = props;
    Props cloud = ServerInfoService::translatePropsToCloud(props, info);
    Props expected = {{"SMB_SERVER_ADDR_KEY", "10.0.0.5"},
                      {"SMB_SERVER_PORT", "2121"},
                      {"SMB_SERVER_ADDITIONAL_PATH_KEY", "/pub"},
                      {"SMB_USER_NAME_KEY", "bob"},
                      {"SMB_SERVER_OS_TYPE", "Linux"},
                      {"SMB_SHOW_ADMIN_SHARES", "YES"},
                      {"SETTING_FTP_MODE_KEY", "SETTING_FTP_ACTIVE"},
                      {"SETTING_FTP_PROTOCOL_KEY", "SETTING_PROTOCOL_FTPES_IF_AVAILABLE"},
                      {"SETTING_FTP_SERVER_CHARSET", "windows-1252"},
                      {"SETTING_FTP_LOGON_TYPE", "SETTING_FTP_LOGON_TYPE_KEYFILE"},
                      {"CONNECTION_SORT_ID", "7"},
                      {"CUSTOM", "kept"},
                      {"REMEMBER PASSWORD", "YES"}};
    EXPECT_EQ(cloud, expected);

    ServerInfo back;
    back.props.clear();
    ServerInfoService::translatePropsFromCloud(cloud, back);
    Props roundTrip = props;
    roundTrip["REMEMBER PASSWORD"] = "YES";
    EXPECT_EQ(back.props, roundTrip);

    // The session-only credentials have cloud names too (the mirror drops them before).
    Props temp = ServerInfoService::translatePropsToCloud(
        {{"TEMP_USERNAME", "u"}, {"TEMP_PASSWORD", "p"}, {"REMEMBER PASSWORD", "NO"}}, [] {
            ServerInfo i;
            i.setValue("NO", ServerProp::REMEMBER_PASSWORD);
            return i;
        }());
    EXPECT_EQ(temp, (Props{{"SMB_TEMP_LOGIN_NAME_KEY", "u"},
                           {"SMB_TEMP_LOGIN_PASSWD_KEY_2", "p"},
                           {"REMEMBER PASSWORD", "NO"}}));

    struct Case {
        Props in;
        Props out;
    };
    std::vector<Case> cases = {
        {{{"FTP_ACTIVE_MODE", "0"}}, {{"SETTING_FTP_MODE_KEY", "SETTING_FTP_PASSIVE"}}},
        {{{"FTP_PROTOCOL", "FTP_PROTOCOL_PLAIN"}},
         {{"SETTING_FTP_PROTOCOL_KEY", "SETTING_PROTOCOL_FTP"}}},
        {{{"FTP_PROTOCOL", "FTP_PROTOCOL_EXPLICIT"}},
         {{"SETTING_FTP_PROTOCOL_KEY", "SETTING_PROTOCOL_FTPES"}}},
        {{{"FTP_PROTOCOL", "FTP_PROTOCOL_IMPLICIT"}},
         {{"SETTING_FTP_PROTOCOL_KEY", "SETTING_PROTOCOL_FTPS"}}},
        {{{"FTP_PROTOCOL", "FTP_PROTOCOL_SOMETHING_NEW"}},
         {{"SETTING_FTP_PROTOCOL_KEY", "FTP_PROTOCOL_SOMETHING_NEW"}}},
        {{{"SFTP_LOGIN_TYPE", "SFTP_LOGIN_TYPE_NORMAL"}},
         {{"SETTING_FTP_LOGON_TYPE", "SFTP_LOGIN_TYPE_NORMAL"}}},
        {{{"SFTP_LOGIN_TYPE", "SFTP_LOGIN_TYPE_AGENT"}}, {}},
        {{{"SERVER_TYPE", "99"}}, {{"SMB_SERVER_OS_TYPE", "Unknown"}}},
    };
    ServerInfo remembers;
    remembers.setValue("YES", ServerProp::REMEMBER_PASSWORD);
    for (auto& c : cases) {
        EXPECT_EQ(ServerInfoService::translatePropsToCloud(c.in, remembers), c.out)
            << c.in.begin()->second;
        ServerInfo rev;
        ServerInfoService::translatePropsFromCloud(c.out, rev);
        // Reading back gives the property again, in its canonical spelling.
        Props expectedBack = c.in;
        if (c.in.begin()->second == "SFTP_LOGIN_TYPE_AGENT") expectedBack.clear();
        if (c.in.begin()->first == "SERVER_TYPE") expectedBack = {{"SERVER_TYPE", "0"}};
        if (c.in.begin()->second == "0") expectedBack = {{"FTP_ACTIVE_MODE", "NO"}};
        EXPECT_EQ(rev.props, expectedBack);
    }
    ServerInfo passive;
    ServerInfoService::translatePropsFromCloud({{"SETTING_FTP_MODE_KEY", "SETTING_FTP_PASSIVE"}},
                                               passive);
    EXPECT_FALSE(passive.boolValueForKey(ServerProp::FTP_ACTIVE_MODE));

    std::set<std::string> names;
    for (long t = ServerOSType::Unknown; t <= ServerOSType::ToshibaNAS; ++t) {
        auto name = ServerInfoService::serverTypeToCloud(t);
        names.insert(name);
        EXPECT_EQ(ServerInfoService::serverTypeFromCloud(name), t);
    }
    EXPECT_EQ(names, (std::set<std::string>{"WDNAS", "ToshibaNAS", "Apple", "Linux", "Windows",
                                            "Darwin", "Unknown"}));
    EXPECT_EQ(ServerInfoService::serverTypeFromCloud("BeOS"), ServerOSType::Unknown);
}

TEST(ServerInfoCloudNames, CloudDictionaryCarriesIdentityAndEnciphersThePassword) {
    ServerInfo info = ftpRecord("Work FTP");
    info.setValue("pa55-word", ServerProp::PASSWORD);
    info.setValue("temp-user", ServerProp::TEMP_USERNAME);
    info.setValue("temp-pass", ServerProp::TEMP_PASSWORD);
    info.setValue("123456", ServerProp::ONEDRIVE_TK_EXP);
    info.setValue("3", ServerProp::CONNECTION_SORT_ID);
    info.setServerType(ServerOSType::Windows);

    PlistDict dict = ServerInfoService::cloudDictionaryForServerInfo(info);
    EXPECT_EQ(dict.at("SID").toString(), info.serverID);
    EXPECT_EQ(dict.at("SIN").toString(), "Work FTP");
    ASSERT_TRUE(dict.at("SIP").is<std::int64_t>());
    EXPECT_EQ(*dict.at("SIP").get<std::int64_t>(), ProtocolType::FTP);
    EXPECT_EQ(dict.at("SMB_SERVER_OS_TYPE").toString(), "Windows");
    EXPECT_EQ(dict.at("CONNECTION_SORT_ID").toString(), "3");
    EXPECT_EQ(dict.at("REMEMBER PASSWORD").toString(), "YES");
    for (auto gone : {"PASSWORD", "TEMP_USERNAME", "TEMP_PASSWORD", "ONEDRIVE_TK_EXP",
                      "SMB_TEMP_LOGIN_NAME_KEY", "SMB_TEMP_LOGIN_PASSWD_KEY_2", "NEED_SIGNIN"})
        EXPECT_FALSE(dict.contains(gone)) << gone;
    ASSERT_TRUE(dict.contains("PW_ENCRYPTED"));
    EXPECT_EQ(TovrinCrypto().decryptString(dict.at("PW_ENCRYPTED").toString()).value_or(""),
              "pa55-word");

    auto back = ServerInfoService::serverInfoFromCloudDictionary(dict);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->serverID, info.serverID);
    EXPECT_EQ(back->displayName, "Work FTP");
    EXPECT_EQ(back->protocolType, ProtocolType::FTP);
    EXPECT_EQ(back->sortID, 3);
    EXPECT_EQ(back->valueForKey(ServerProp::PASSWORD).value_or(""), "pa55-word");
    EXPECT_EQ(back->valueForKey(ServerProp::ADDR).value_or(""), "ftp.example.test");
    EXPECT_EQ(back->serverType(), ServerOSType::Windows);
    EXPECT_FALSE(back->valueForKey("PW_ENCRYPTED"));
    EXPECT_FALSE(back->valueForKey(ServerProp::TEMP_PASSWORD));

    // Sign-ins of cloud drives belong to one installation.
    ServerInfo drive;
    drive.protocolType = ProtocolType::Dropbox;
    drive.displayName = "Drop";
    EXPECT_EQ(ServerInfoService::cloudDictionaryForServerInfo(drive).at("NEED_SIGNIN").toString(),
              "YES");

    PlistDict noIdentity = dict;
    noIdentity.erase("SIP");
    EXPECT_FALSE(ServerInfoService::serverInfoFromCloudDictionary(noIdentity));
}

TEST(ServerInfoCloudMerge, NewerStampWinsAndRemovalsDeleteLocally) {
    ServerInfo base = ftpRecord("base");
    ServerInfo mineOld = withStamp(base, "100.000");
    mineOld.setValue("session-pass", ServerProp::TEMP_PASSWORD);
    mineOld.sortID = 4;
    ServerInfo cloudNew = withStamp(base, "200.000");
    cloudNew.displayName = "renamed elsewhere";

    ServerInfo localNewer = withStamp(ftpRecord("local newer"), "300.500");
    ServerInfo cloudOlder = withStamp(localNewer, "300.499");
    cloudOlder.displayName = "stale";

    ServerInfo same = withStamp(ftpRecord("same"), "50.000");
    ServerInfo sameCloud = same;
    sameCloud.displayName = "same stamp, other name";

    ServerInfo removed = withStamp(ftpRecord("removed"), "999.000");
    ServerInfo onlyLocal = withStamp(ftpRecord("only local"), "10.000");
    ServerInfo onlyCloud = withStamp(ftpRecord("only cloud"), "20.000");
    ServerInfo unstamped = ftpRecord("unstamped");
    ServerInfo unstampedCloud = withStamp(unstamped, "1.000");
    unstampedCloud.displayName = "stamped in cloud";
    ServerInfo volume;
    volume.protocolType = ProtocolType::Local;

    std::vector<ServerInfo> local = {mineOld,   localNewer, same,  removed,
                                     onlyLocal, unstamped,  volume};
    std::map<std::string, std::optional<ServerInfo>> cloudMap = {
        {base.serverID, cloudNew},       {localNewer.serverID, cloudOlder},
        {same.serverID, sameCloud},      {removed.serverID, std::nullopt},
        {onlyCloud.serverID, onlyCloud}, {unstamped.serverID, unstampedCloud},
        {volume.serverID, std::nullopt}};

    auto names = [](const std::vector<ServerInfo>& v) {
        std::set<std::string> out;
        for (auto& i : v) out.insert(i.displayName);
        return out;
    };
    auto plan = ServerInfoService::syncServerInfoWithLocal(local, cloudMap, false);
    EXPECT_EQ(names(plan.toStore),
              (std::set<std::string>{"renamed elsewhere", "only cloud", "stamped in cloud"}));
    EXPECT_EQ(names(plan.toUpload), (std::set<std::string>{"local newer"}));
    EXPECT_EQ(names(plan.toDelete), (std::set<std::string>{"removed"}));
    for (auto& s : plan.toStore) {
        if (s.serverID != base.serverID) continue;
        // The session-only password and the list position stay as they were here.
        EXPECT_EQ(s.valueForKey(ServerProp::TEMP_PASSWORD).value_or(""), "session-pass");
        EXPECT_EQ(s.sortID, 4);
        EXPECT_EQ(s.valueForKey(ServerProp::SI_LAST_UPDATE).value_or(""), "200.000");
    }

    auto full = ServerInfoService::syncServerInfoWithLocal(local, cloudMap, true);
    EXPECT_EQ(names(full.toUpload), (std::set<std::string>{"local newer", "only local"}));
    EXPECT_EQ(names(full.toDelete), (std::set<std::string>{"removed"}));
}

TEST_F(ServerInfoCloud, PasswordNeverReachesTheCloudFileInClear) {
    ServerInfo info = ftpRecord("Secret server");
    info.setValue("Tr0ub4dor&3-clear", ServerProp::PASSWORD);
    info.setValue("one-time-Pa55", ServerProp::TEMP_PASSWORD);
    info.setValue("one-time-user", ServerProp::TEMP_USERNAME);
    ASSERT_TRUE(service().saveServerInfo(info));

    std::string bytes = cloudBytes();
    ASSERT_NE(bytes.find("S2-" + info.serverID), std::string::npos);
    EXPECT_TRUE(test::contains(bytes, "PW_ENCRYPTED"));
    for (auto secret : {"Tr0ub4dor&amp;3-clear", "Tr0ub4dor", "one-time-Pa55", "one-time-user",
                        "TEMP_PASSWORD", "TEMP_USERNAME", "SMB_TEMP_LOGIN_PASSWD_KEY_2"})
        EXPECT_FALSE(test::contains(bytes, secret)) << secret;

    info.setValue("N3w-secret-clear", ServerProp::PASSWORD);
    ASSERT_TRUE(service().updateServerInfo(info));
    bytes = cloudBytes();
    EXPECT_FALSE(test::contains(bytes, "N3w-secret"));
    EXPECT_FALSE(test::contains(bytes, "one-time-Pa55"));
    FileCloudKeyValueStore reader(cloud.path());
    ASSERT_TRUE(reader.synchronize());
    auto copy = ServerInfoService::serverInfoFromCloudDictionary(
        *reader.dictionaryForKey("S2-" + info.serverID));
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->valueForKey(ServerProp::PASSWORD).value_or(""), "N3w-secret-clear");

    ASSERT_TRUE(service().deleteServerInfo(info));
    EXPECT_FALSE(test::contains(cloudBytes(), info.serverID));
}

TEST_F(ServerInfoCloud, MirrorIsSkippedWhenDisabledLocalOrSwitchedOff) {
    ServerInfo whileMigrating = ftpRecord("migrating");
    service().setDisableUpdateCloud(true);
    ASSERT_TRUE(service().saveServerInfo(whileMigrating));
    service().setDisableUpdateCloud(false);

    ServerInfo volume;
    volume.protocolType = ProtocolType::Local;
    volume.displayName = "Disk";
    service().uploadServerInfoToCloud(volume, false);

    AppPreference::sharedAppPreference().setValue(PlistValue(false), PrefKey::SYS_AUTO_SYNC_CONN);
    ServerInfo switchedOff = ftpRecord("switched off");
    ASSERT_TRUE(service().saveServerInfo(switchedOff));
    // Nothing comes in either while switched off.
    FileCloudKeyValueStore other(cloud.path());
    ServerInfo incoming = withStamp(ftpRecord("incoming"), "5.000");
    other.setDictionary(ServerInfoService::cloudDictionaryForServerInfo(incoming),
                        "S2-" + incoming.serverID);
    ASSERT_TRUE(other.synchronize());
    ASSERT_TRUE(store->synchronize());
    service().syncServerInfoWithChangedIds({});
    EXPECT_FALSE(local(incoming.serverID));
    AppPreference::sharedAppPreference().setValue(PlistValue(true), PrefKey::SYS_AUTO_SYNC_CONN);

    std::string bytes = cloudBytes();
    EXPECT_FALSE(test::contains(bytes, whileMigrating.serverID));
    EXPECT_FALSE(test::contains(bytes, volume.serverID));
    EXPECT_FALSE(test::contains(bytes, switchedOff.serverID));
    EXPECT_TRUE(test::contains(bytes, incoming.serverID));

    // A full pass later shares the records made meanwhile, and takes the incoming one.
    service().syncServerInfoWithChangedIds({});
    bytes = cloudBytes();
    EXPECT_TRUE(test::contains(bytes, whileMigrating.serverID));
    EXPECT_TRUE(test::contains(bytes, switchedOff.serverID));
    ASSERT_TRUE(local(incoming.serverID));
    EXPECT_EQ(local(incoming.serverID)->displayName, "incoming");
}

TEST_F(ServerInfoCloud, ChangedKeysAreMergedIntoTheDatabase) {
    ServerInfo mine = ftpRecord("mine");
    ASSERT_TRUE(service().saveServerInfo(mine));
    ServerInfo gone = ftpRecord("gone");
    ASSERT_TRUE(service().saveServerInfo(gone));
    ServerInfo untouched = ftpRecord("untouched");
    ASSERT_TRUE(service().saveServerInfo(untouched));

    // Another installation renames one record, removes another and adds a third.
    FileCloudKeyValueStore other(cloud.path());
    ASSERT_TRUE(other.synchronize());
    ServerInfo renamed = *local(mine.serverID);
    renamed.displayName = "renamed by the other";
    renamed.setValue("9", ServerProp::CONNECTION_SORT_ID);
    ServerInfoService::tickForServerInfo(renamed);
    other.setDictionary(ServerInfoService::cloudDictionaryForServerInfo(renamed),
                        "S2-" + mine.serverID);
    other.removeObjectForKey("S2-" + gone.serverID);
    ServerInfo added = ftpRecord("added by the other");
    added.setValue("secret-of-added", ServerProp::PASSWORD);
    ServerInfoService::tickForServerInfo(added);
    other.setDictionary(ServerInfoService::cloudDictionaryForServerInfo(added),
                        "S2-" + added.serverID);
    // A stale copy of a record this installation changed since.
    ServerInfo stale = withStamp(*local(untouched.serverID), "1.000");
    stale.displayName = "stale";
    other.setDictionary(ServerInfoService::cloudDictionaryForServerInfo(stale),
                        "S2-" + untouched.serverID);
    ASSERT_TRUE(other.synchronize());
    ASSERT_TRUE(store->synchronize());

    service().syncServerInfoWithChangedIds({"S2-" + mine.serverID, "S2-" + gone.serverID,
                                            "S2-" + added.serverID, "S2-" + untouched.serverID,
                                            "OTHER-KEY"});
    ASSERT_TRUE(local(mine.serverID));
    EXPECT_EQ(local(mine.serverID)->displayName, "renamed by the other");
    EXPECT_EQ(local(mine.serverID)->valueForKey(ServerProp::CONNECTION_SORT_ID).value_or(""), "9");
    EXPECT_FALSE(local(gone.serverID));
    ASSERT_TRUE(local(added.serverID));
    EXPECT_EQ(local(added.serverID)->protocolType, ProtocolType::FTP);
    EXPECT_EQ(local(added.serverID)->valueForKey(ServerProp::PASSWORD).value_or(""),
              "secret-of-added");
    EXPECT_EQ(local(untouched.serverID)->displayName, "untouched");
    // The newer local copy went back up; the removal was not mirrored back as a new record.
    ASSERT_TRUE(other.synchronize());
    EXPECT_EQ(other.dictionaryForKey("S2-" + untouched.serverID)->at("SIN").toString(),
              "untouched");
    EXPECT_FALSE(other.dictionaryForKey("S2-" + gone.serverID));
    auto count = DBManager::sharedDBManager().query("SELECT COUNT(*) FROM server_info");
    ASSERT_TRUE(count);
    EXPECT_EQ(sqlInt((*count)[0][0]), 3);
}
