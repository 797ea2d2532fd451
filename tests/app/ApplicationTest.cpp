#include "app/Application.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "core/AppPreference.h"
#include "core/DBManager.h"
#include "core/Initialization.h"
#include "core/PathUtils.h"
#include "core/ServerInfoService.h"
#include "core/UserDefaults.h"
#include "support/TestEnv.h"

using namespace quillon;
namespace fs = std::filesystem;

namespace {

using Delayed = ApplicationOptions::DelayedSteps;

ApplicationOptions options(ApplicationOptions::DelayedSteps steps,
                           std::shared_ptr<CloudKeyValueStore> store = {}) {
    ApplicationOptions o;
    o.delayedSteps = steps;
    o.cloudStore = std::move(store);
    return o;
}

ServerInfoService& service() {
    return ServerInfoService::sharedServerInfoService();
}

ServerInfo ftpRecord(const std::string& name) {
    ServerInfo info;
    info.protocolType = ProtocolType::FTP;
    info.displayName = name;
    info.setValue("127.0.0.1", ServerProp::ADDR);
    info.setValue("2121", ServerProp::PORT);
    return info;
}

void enableCloud(const std::string& folder) {
    auto& prefs = AppPreference::sharedAppPreference();
    prefs.setValue(PlistValue(true), PrefKey::SYS_AUTO_SYNC_CONN);
    prefs.setValue(PlistValue(folder), PrefKey::CLOUD_SYNC_FOLDER);
    (void)prefs.save();
}

// This program doubles as a second installation of the program: started with
// QUILLON_TEST_ROLE, it runs one short session in its own QUILLON_HOME against the shared
// folder QUILLON_TEST_CLOUD, prints its server records ("REC id name stamp password", tab
// separated) and exits before any test runs.
void runAsOtherInstallation() {
    const char* role = std::getenv("QUILLON_TEST_ROLE");
    if (!role) return;
    auto arg = [](const char* name) {
        const char* v = std::getenv(name);
        return std::string(v ? v : "");
    };
    enableCloud(arg("QUILLON_TEST_CLOUD"));
    Application app(options(Delayed::Immediate));
    if (auto r = app.start(); !r) {
        std::fprintf(stderr, "start: %s\n", r.error().describe().c_str());
        std::exit(3);
    }
    std::string what = role;
    if (what == "rename") {
        auto info = service().serverInfoWithServerID(arg("QUILLON_TEST_ARG1"));
        if (!info) std::exit(4);
        info->displayName = arg("QUILLON_TEST_ARG2");
        if (!service().updateServerInfo(*info)) std::exit(5);
    } else if (what == "add") {
        ServerInfo info = ftpRecord(arg("QUILLON_TEST_ARG1"));
        info.setValue(arg("QUILLON_TEST_ARG2"), ServerProp::PASSWORD);
        if (!service().saveServerInfo(info)) std::exit(5);
    }
    for (auto& info : service().remoteServerInfos())
        std::printf("REC\t%s\t%s\t%s\t%s\n", info.serverID.c_str(), info.displayName.c_str(),
                    info.valueForKey(ServerProp::SI_LAST_UPDATE).value_or("").c_str(),
                    info.valueForKey(ServerProp::PASSWORD).value_or("").c_str());
    app.stop();
    std::fflush(stdout);
    std::exit(0);
}
class OtherInstallation : public ::testing::Environment {
  public:
    void SetUp() override { runAsOtherInstallation(); }
};
[[maybe_unused]] auto* const kOtherInstallation =
    ::testing::AddGlobalTestEnvironment(new OtherInstallation);

struct OtherRecord {
    std::string name, stamp, password;
};

using test::modeOf;

// Drives the main queue's timers without waiting for them.
struct FakeClock {
    MainQueue::Clock::time_point now = MainQueue::Clock::now();
    FakeClock() {
        MainQueue::shared().setClock([this] { return now; });
    }
    ~FakeClock() { MainQueue::shared().setClock({}); }
    void advance(double seconds) {
        now += std::chrono::duration_cast<MainQueue::Clock::duration>(
            std::chrono::duration<double>(seconds));
        MainQueue::shared().pump();
    }
};

// The application opens the database itself.
class ApplicationTest : public test::FreshHome {
  protected:
    ApplicationTest() : FreshHome(false) {}

    static std::optional<ServerInfo> local(const std::string& id) {
        return service().serverInfoWithServerID(id);
    }
    static std::string dataFile(const std::string& name) {
        return PathUtils::getAppDataFolderPath() + "/" + name;
    }

    // Runs one session of another installation with its home in `otherHome`.
    std::map<std::string, OtherRecord> runOther(const std::string& otherHome,
                                                const std::string& role,
                                                const std::string& arg1 = {},
                                                const std::string& arg2 = {}) {
        auto self = fs::read_symlink("/proc/self/exe").string();
        auto r =
            test::runProgram({"/usr/bin/env", "QUILLON_HOME=" + otherHome,
                              "QUILLON_TEST_ROLE=" + role, "QUILLON_TEST_CLOUD=" + cloud.path(),
                              "QUILLON_TEST_ARG1=" + arg1, "QUILLON_TEST_ARG2=" + arg2, self});
        EXPECT_EQ(r.exitCode, 0) << r.err;
        std::map<std::string, OtherRecord> out;
        std::istringstream in(r.out);
        for (std::string line; std::getline(in, line);) {
            std::vector<std::string> f;
            std::istringstream fields(line);
            for (std::string x; std::getline(fields, x, '\t');) f.push_back(x);
            if (f.empty() || f[0] != "REC") continue;
            f.resize(5);
            out[f[1]] = {f[2], f[3], f[4]};
        }
        return out;
    }

    test::ScratchDir cloud{"cloud"};
};

}  // namespace

TEST_F(ApplicationTest, QuickConnectionIsGoneAfterTheNextStart) {
    {
        Application app(options(Delayed::Skip));
        ASSERT_TRUE(app.start()) << app.start().error().describe();
        EXPECT_TRUE(app.warnings().empty());
        // Files that hold passwords are readable by the user only.
        EXPECT_EQ(modeOf(DBManager::sharedDBManager().path()), 0600u);
        EXPECT_EQ(modeOf(AppPreference::sharedAppPreference().prefFilePath()), 0600u);
        EXPECT_TRUE(Initialization::isInitialized());
        EXPECT_TRUE(UserDefaults::standardUserDefaults().boolForKey(MIGRATED_TO_VERSION_3_0));

        ServerInfo quick = ftpRecord("ftp://127.0.0.1:2121/");
        quick.setValue("YES", ServerProp::QUICK_CONNECT);
        ASSERT_TRUE(service().saveServerInfo(quick));
        ServerInfo quickTrue = ftpRecord("another quick one");
        quickTrue.setValue("TRUE", ServerProp::QUICK_CONNECT);
        ASSERT_TRUE(service().saveServerInfo(quickTrue));
        ServerInfo kept = ftpRecord("Configured");
        kept.setValue("NO", ServerProp::QUICK_CONNECT);
        ASSERT_TRUE(service().saveServerInfo(kept));
        EXPECT_EQ(service().remoteServerInfos().size(), 3u);
        app.stop();
        EXPECT_FALSE(DBManager::sharedDBManager().isOpen());
    }
    Application again(options(Delayed::Skip));
    ASSERT_TRUE(again.start());
    auto left = service().remoteServerInfos();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].displayName, "Configured");
}

TEST_F(ApplicationTest, CorruptDatabaseIsReportedAndLeftUntouched) {
    std::string path = DBManager::sharedDBManager().path();
    std::string garbage(8192, 'Q');
    test::writeFile(path, garbage);
    Application app(options(Delayed::Skip));
    auto r = app.start();
    ASSERT_FALSE(r);
    EXPECT_TRUE(test::contains(r.error().reason, path)) << r.error().reason;
    EXPECT_EQ(test::readFile(path), garbage);
}

TEST_F(ApplicationTest, MissingSharedFolderIsAWarningNotAFailure) {
    enableCloud(cloud / "not-there");
    Application app(options(Delayed::Skip));
    ASSERT_TRUE(app.start()) << app.start().error().describe();
    ASSERT_EQ(app.warnings().size(), 1u);
    EXPECT_TRUE(test::contains(app.warnings()[0].reason, "not-there"));
    EXPECT_FALSE(app.cloudStore());
}

TEST_F(ApplicationTest, CloudStepsRunFiveThenTwoSecondsAfterStart) {
    FakeClock clock;
    enableCloud(cloud.path());
    auto store =
        std::make_shared<FileCloudKeyValueStore>(cloud.path(), dataFile("cloud-kv-cache.plist"));
    FileCloudKeyValueStore other(cloud.path());
    // Known to this installation's store already, but never merged into its records: only the
    // full pass brings it in.
    ServerInfo known = ftpRecord("known to the store");
    ServerInfoService::tickForServerInfo(known);
    other.setDictionary(ServerInfoService::cloudDictionaryForServerInfo(known),
                        ServerInfoService::cloudKeyForServerInfo(known));
    ASSERT_TRUE(other.synchronize());
    auto token = store->addChangeObserver([](int, const std::vector<std::string>&) {});
    ASSERT_TRUE(store->synchronize());
    MainQueue::shared().pump();
    store->removeChangeObserver(token);
    store->stopWatching();

    Application app(options(Delayed::Scheduled, store));
    ASSERT_TRUE(app.start()) << app.start().error().describe();
    // Changed after launch: reported by the synchronisation at five seconds.
    ServerInfo changed = ftpRecord("changed after launch");
    ServerInfoService::tickForServerInfo(changed);
    other.setDictionary(ServerInfoService::cloudDictionaryForServerInfo(changed),
                        ServerInfoService::cloudKeyForServerInfo(changed));
    ASSERT_TRUE(other.synchronize());

    clock.advance(4.9);
    EXPECT_EQ(store->observerCount(), 0u);
    EXPECT_FALSE(local(changed.serverID));
    clock.advance(0.1);
    EXPECT_EQ(store->observerCount(), 1u);
    EXPECT_TRUE(local(changed.serverID));
    EXPECT_FALSE(local(known.serverID));
    clock.advance(1.9);
    EXPECT_FALSE(local(known.serverID));
    clock.advance(0.1);
    EXPECT_TRUE(local(known.serverID));

    // After stop nothing is observed any more.
    app.stop();
    EXPECT_EQ(store->observerCount(), 0u);
    EXPECT_FALSE(service().cloudStore());
}

TEST_F(ApplicationTest, CloudChangeWithReasonTwoOrThreeTriggersNothing) {
    enableCloud(cloud.path());
    Application app(options(Delayed::Skip));
    ASSERT_TRUE(app.start()) << app.start().error().describe();
    ASSERT_TRUE(app.cloudStore());
    FileCloudKeyValueStore other(cloud.path());
    ServerInfo first = ftpRecord("first"), second = ftpRecord("second");
    for (auto* info : {&first, &second}) {
        ServerInfoService::tickForServerInfo(*info);
        other.setDictionary(ServerInfoService::cloudDictionaryForServerInfo(*info),
                            ServerInfoService::cloudKeyForServerInfo(*info));
    }
    ASSERT_TRUE(other.synchronize());
    ASSERT_TRUE(app.cloudStore()->synchronize());
    std::string key = ServerInfoService::cloudKeyForServerInfo(first);

    app.keyvalueStoreDidChange(CloudChangeReason::QuotaViolationChange, {key});
    app.keyvalueStoreDidChange(CloudChangeReason::AccountChange, {key});
    app.keyvalueStoreDidChange(7, {key});
    // Keys of other kinds must not turn into a full pass either.
    app.keyvalueStoreDidChange(CloudChangeReason::ServerChange, {"FAV-1", "settings"});
    EXPECT_TRUE(service().remoteServerInfos().empty());

    app.keyvalueStoreDidChange(CloudChangeReason::ServerChange, {"FAV-1", key});
    EXPECT_TRUE(local(first.serverID));
    EXPECT_FALSE(local(second.serverID));
    app.keyvalueStoreDidChange(CloudChangeReason::InitialSyncChange,
                               {ServerInfoService::cloudKeyForServerInfo(second)});
    EXPECT_TRUE(local(second.serverID));
}

TEST_F(ApplicationTest, TwoHomesSharingOneCloudFolderConvergeNewerStampWinning) {
    test::ScratchDir otherHome("homeB");
    enableCloud(cloud.path());
    Application app(options(Delayed::Skip));
    ASSERT_TRUE(app.start()) << app.start().error().describe();
    auto& prefs = AppPreference::sharedAppPreference();
    auto fullSync = [&] {
        ASSERT_TRUE(app.cloudStore()->synchronize());
        MainQueue::shared().pump();
        service().syncServerInfoWithChangedIds({});
    };

    ServerInfo r = ftpRecord("Alpha");
    r.setValue("pw-alpha", ServerProp::PASSWORD);
    ASSERT_TRUE(service().saveServerInfo(r));
    auto b = runOther(otherHome.path(), "sync");
    ASSERT_TRUE(b.contains(r.serverID));
    EXPECT_EQ(b[r.serverID].name, "Alpha");
    EXPECT_EQ(b[r.serverID].password, "pw-alpha");

    // Edited here while sharing was off, then later elsewhere: the later edit wins here.
    prefs.setValue(PlistValue(false), PrefKey::SYS_AUTO_SYNC_CONN);
    r.displayName = "A offline";
    ASSERT_TRUE(service().updateServerInfo(r));
    prefs.setValue(PlistValue(true), PrefKey::SYS_AUTO_SYNC_CONN);
    b = runOther(otherHome.path(), "rename", r.serverID, "B edit");
    EXPECT_EQ(b[r.serverID].name, "B edit");
    fullSync();
    EXPECT_EQ(local(r.serverID)->displayName, "B edit");
    EXPECT_EQ(local(r.serverID)->valueForKey(ServerProp::SI_LAST_UPDATE), b[r.serverID].stamp);

    // A later edit here, unshared at first, goes up at the next full pass and reaches B.
    prefs.setValue(PlistValue(false), PrefKey::SYS_AUTO_SYNC_CONN);
    r = *local(r.serverID);
    r.displayName = "A late";
    ASSERT_TRUE(service().updateServerInfo(r));
    prefs.setValue(PlistValue(true), PrefKey::SYS_AUTO_SYNC_CONN);
    fullSync();
    b = runOther(otherHome.path(), "sync");
    EXPECT_EQ(b[r.serverID].name, "A late");
    EXPECT_EQ(b[r.serverID].stamp, *local(r.serverID)->valueForKey(ServerProp::SI_LAST_UPDATE));
    EXPECT_EQ(b[r.serverID].password, "pw-alpha");

    // A record added there arrives here; one deleted here disappears there for good.
    b = runOther(otherHome.path(), "add", "Bravo", "pw-bravo");
    std::string bravo;
    for (auto& [id, rec] : b)
        if (rec.name == "Bravo") bravo = id;
    ASSERT_FALSE(bravo.empty());
    fullSync();
    ASSERT_TRUE(local(bravo));
    EXPECT_EQ(local(bravo)->valueForKey(ServerProp::PASSWORD).value_or(""), "pw-bravo");

    ASSERT_TRUE(service().deleteServerInfo(*local(r.serverID)));
    b = runOther(otherHome.path(), "sync");
    EXPECT_FALSE(b.contains(r.serverID));
    EXPECT_TRUE(b.contains(bravo));
    EXPECT_FALSE(
        test::contains(test::readFile(cloud / FileCloudKeyValueStore::kFileName), r.serverID));
    fullSync();
    EXPECT_FALSE(local(r.serverID));
    EXPECT_EQ(service().remoteServerInfos().size(), b.size());
}

TEST_F(ApplicationTest, ChangeByAnotherInstallationArrivesWhileRunning) {
    FakeClock clock;
    test::ScratchDir otherHome("homeB");
    enableCloud(cloud.path());
    Application app;
    ASSERT_TRUE(app.start()) << app.start().error().describe();
    clock.advance(Application::kCloudObserveDelay);
    clock.advance(Application::kCloudFullSyncDelay);
    ASSERT_EQ(app.cloudStore()->observerCount(), 1u);

    ServerInfo r = ftpRecord("Original");
    ASSERT_TRUE(service().saveServerInfo(r));
    auto b = runOther(otherHome.path(), "rename", r.serverID, "Renamed there");
    ASSERT_EQ(b[r.serverID].name, "Renamed there");
    EXPECT_TRUE(test::pumpUntil([&] { return local(r.serverID)->displayName == "Renamed there"; }));
}
