#include "core/Migrator.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sstream>

#include "core/AppPreference.h"
#include "core/Base64.h"
#include "core/CloudKeyValueStore.h"
#include "core/DBManager.h"
#include "core/ServerInfoService.h"
#include "core/UserDefaults.h"
#include "support/TestEnv.h"

using namespace quillon;
namespace fs = std::filesystem;

namespace {

class MigratorTest : public test::FreshHome {
  protected:
    void SetUp() override {
        FreshHome::SetUp();
        AppPreference::sharedAppPreference().setValue(PlistValue(true),
                                                      PrefKey::SYS_AUTO_SYNC_CONN);
        service().setCloudStore(std::make_shared<FileCloudKeyValueStore>(cloud.path()));
    }
    void TearDown() override {
        service().setCloudStore(nullptr);
        FreshHome::TearDown();
    }
    static ServerInfoService& service() { return ServerInfoService::sharedServerInfoService(); }

    ServerInfo stored(std::int32_t type, const std::string& name) {
        ServerInfo info;
        info.protocolType = type;
        info.displayName = name;
        service().setDisableUpdateCloud(true);
        EXPECT_TRUE(service().saveServerInfo(info));
        service().setDisableUpdateCloud(false);
        return info;
    }

    // The record's stored Google sign-in.
    static std::optional<std::string> signIn(const ServerInfo& info) {
        return service()
            .serverInfoWithServerID(info.serverID)
            ->valueForKey(ServerProp::GoogleAuthorizationData);
    }

    test::ScratchDir cloud{"cloud"};
};

PlistValue signInObject(const std::string& token) {
    return PlistValue(PlistDict{{"refresh_token", PlistValue(token)},
                                {"scope", PlistValue(std::string(200, 's'))}});
}

}  // namespace

TEST_F(MigratorTest, MovesGoogleSignInsOnceWithTheFlagSetBeforeTheWork) {
    ServerInfo drive = stored(ProtocolType::GoogleDrive, "Drive");
    ServerInfo already = stored(ProtocolType::GoogleDrive, "Drive with data");
    already.setValue("existing", ServerProp::GoogleAuthorizationData);
    service().setDisableUpdateCloud(true);
    ASSERT_TRUE(service().updateServerInfo(already));
    service().setDisableUpdateCloud(false);
    ServerInfo withoutSignIn = stored(ProtocolType::GoogleDrive, "Drive never signed in");
    ServerInfo ftp = stored(ProtocolType::FTP, "FTP");

    std::vector<std::string> asked;
    bool flagOnDiskDuringWork = false;
    KeychainLookup keychain = [&](const std::string& name) -> std::optional<PlistValue> {
        asked.push_back(name);
        flagOnDiskDuringWork =
            UserDefaults::standardUserDefaults().boolForKey(MIGRATED_TO_VERSION_3_0);
        if (name == std::string(kKeychainServerIDPrefix) + drive.serverID)
            return signInObject("tok-" + drive.serverID);
        return std::nullopt;
    };
    ASSERT_TRUE(Migrator(keychain).migrate());
    EXPECT_TRUE(flagOnDiskDuringWork);
    EXPECT_EQ(std::set<std::string>(asked.begin(), asked.end()),
              (std::set<std::string>{"Kv_KEYCHAIN_ServerID_" + drive.serverID,
                                     "Kv_KEYCHAIN_ServerID_" + withoutSignIn.serverID}));
    EXPECT_EQ(asked.size(), 2u);

    auto migrated = service().serverInfoWithServerID(drive.serverID);
    ASSERT_TRUE(migrated);
    auto text = migrated->valueForKey(ServerProp::GoogleAuthorizationData);
    ASSERT_TRUE(text);
    std::istringstream in(*text);
    for (std::string line; std::getline(in, line);) EXPECT_LE(line.size(), 64u);
    EXPECT_NE(text->find('\n'), std::string::npos);
    auto bytes = Base64::decode(*text);
    ASSERT_TRUE(bytes);
    auto object = Plist::fromXml(std::string(bytes->begin(), bytes->end()));
    ASSERT_TRUE(object);
    EXPECT_EQ(*object, signInObject("tok-" + drive.serverID));

    EXPECT_EQ(signIn(already), "existing");
    EXPECT_FALSE(signIn(withoutSignIn));
    EXPECT_FALSE(signIn(ftp));
    // Records changed by the migration are not mirrored, and mirroring is on again after it.
    auto cloudFile = cloud / FileCloudKeyValueStore::kFileName;
    EXPECT_FALSE(test::contains(test::readFile(cloudFile), drive.serverID));
    EXPECT_FALSE(service().disableUpdateCloud());

    // The second run finds the flag and touches nothing: so does a run after one that died
    // half-way, once the flag was set.
    asked.clear();
    ServerInfo later = stored(ProtocolType::GoogleDrive, "Added later");
    ASSERT_TRUE(Migrator(keychain).migrate());
    EXPECT_TRUE(asked.empty());
    EXPECT_FALSE(signIn(later));
    EXPECT_EQ(
        *service().serverInfoWithServerID(drive.serverID)->valueForKey(ServerProp::SI_LAST_UPDATE),
        *migrated->valueForKey(ServerProp::SI_LAST_UPDATE));
}

TEST_F(MigratorTest, WithoutAKeychainNoSignInIsFound) {
    ServerInfo drive = stored(ProtocolType::GoogleDrive, "Drive");
    ASSERT_TRUE(Migrator().migrate());
    EXPECT_FALSE(signIn(drive));
    EXPECT_TRUE(UserDefaults::standardUserDefaults().boolForKey(MIGRATED_TO_VERSION_3_0));
}
