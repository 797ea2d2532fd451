#include "core/AppPreference.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "core/Initialization.h"
#include "core/PathUtils.h"
#include "support/TestEnv.h"

using namespace quillon;
namespace fs = std::filesystem;

namespace {

using test::modeOf;
// The preference store re-read from the current home.
AppPreference& freshPrefs() {
    auto& prefs = AppPreference::sharedAppPreference();
    (void)prefs.load();
    return prefs;
}

}  // namespace

TEST(AppPreference, FirstLoadSeedsShippedDefaultsReadableByUserOnly) {
    test::IsolatedHome home;
    auto& prefs = freshPrefs();
    EXPECT_FALSE(prefs.loadError());
    std::string path = prefs.prefFilePath();
    EXPECT_EQ(path, PathUtils::getAppDataFolderPath() + "/pref.plist");
    ASSERT_TRUE(fs::exists(path));
    EXPECT_EQ(modeOf(path), 0600u);

    // Every shipped default is there, read through the typed getters too; absent means
    // automatic detection of the text encoding.
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 3);
    EXPECT_TRUE(prefs.boolForKey(PrefKey::SYS_DISPLAY_FILE_EXTENSION));
    EXPECT_FALSE(prefs.valueForKey(PrefKey::TextEncoding));
    auto shipped = Plist::readFile(PathUtils::getResourceFolderPath() + "/pref.plist");
    ASSERT_TRUE(shipped && shipped->is<PlistDict>());
    EXPECT_GE(shipped->get<PlistDict>()->size(), 31u);
    for (const auto& [key, value] : *shipped->get<PlistDict>())
        EXPECT_EQ(prefs.valueForKey(key), value) << key;

    // Absent keys and absent key arguments.
    EXPECT_FALSE(prefs.valueForKey(""));
    EXPECT_FALSE(prefs.boolForKey("NO SUCH KEY"));
    EXPECT_EQ(prefs.integerForKey("NO SUCH KEY"), 0);
    prefs.setValue(PlistValue("x"), "");
    EXPECT_FALSE(prefs.valueForKey(""));
}

TEST(AppPreference, ValuesSetWithoutSaveAreLostOnReload) {
    test::IsolatedHome home;
    auto& prefs = freshPrefs();
    prefs.setValue(PlistValue(7), PrefKey::MaxSimultaneousTransfers);
    prefs.removeValueForKey(PrefKey::FTP_SERVER_PORT);
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 7);
    ASSERT_TRUE(prefs.load());
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 3);
    EXPECT_EQ(prefs.integerForKey(PrefKey::FTP_SERVER_PORT), 2121);

    // A file someone left readable by others becomes private on the next save.
    ::chmod(prefs.prefFilePath().c_str(), 0644);
    prefs.setValue(PlistValue(5), PrefKey::MaxSimultaneousTransfers);
    prefs.setValue(PlistValue("/srv/share"), PrefKey::FTP_SERVER_LOCATION);
    ASSERT_TRUE(prefs.save());
    EXPECT_EQ(modeOf(prefs.prefFilePath()), 0600u);
    ASSERT_TRUE(prefs.load());
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 5);
    EXPECT_EQ(prefs.stringForKey(PrefKey::FTP_SERVER_LOCATION), "/srv/share");
    // No temporary file is left beside it.
    for (auto& e : fs::directory_iterator(PathUtils::getAppDataFolderPath()))
        EXPECT_EQ(e.path().filename().string().find(".tmp"), std::string::npos) << e.path();
}

TEST(AppPreference, CorruptFileIsKeptAsideAndReported) {
    test::IsolatedHome home;
    auto& prefs = AppPreference::sharedAppPreference();
    std::string path = prefs.prefFilePath();
    std::string garbage = "<?xml version=\"1.0\"?><plist><dict><key>Max Simultaneous";
    test::writeFile(path, garbage);

    auto r = prefs.load();
    ASSERT_FALSE(r);
    ASSERT_TRUE(prefs.loadError());
    EXPECT_EQ(*prefs.loadError(), r.error());
    std::vector<fs::path> aside;
    for (auto& e : fs::directory_iterator(fs::path(path).parent_path()))
        if (e.path().filename().string().starts_with("pref.plist.corrupt-"))
            aside.push_back(e.path());
    ASSERT_EQ(aside.size(), 1u);
    EXPECT_NE(r.error().reason.find(aside[0].string()), std::string::npos) << r.error().reason;
    EXPECT_EQ(test::readFile(aside[0]), garbage);
    // The store runs on the defaults, and the file is the defaults again.
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 3);
    EXPECT_EQ(modeOf(path), 0600u);

    // Taken once for reporting, then gone.
    EXPECT_EQ(prefs.takeLoadError(), r.error());
    EXPECT_FALSE(prefs.takeLoadError());
    EXPECT_FALSE(prefs.loadError());
    ASSERT_TRUE(prefs.load());
    EXPECT_FALSE(prefs.loadError());

    // A file that holds a property list but not a dictionary is just as unreadable.
    test::writeFile(path, Plist::toXml(PlistValue(PlistArray{PlistValue(1)})));
    EXPECT_FALSE(prefs.load());
    int kept = 0;
    for (auto& e : fs::directory_iterator(fs::path(path).parent_path()))
        kept += e.path().filename().string().starts_with("pref.plist.corrupt-");
    EXPECT_EQ(kept, 2);
}

TEST(AppPreference, UnreadableFileThatCannotBeMovedIsNeverOverwritten) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not bind root";
    test::IsolatedHome home;
    auto& prefs = AppPreference::sharedAppPreference();
    std::string path = prefs.prefFilePath();
    std::string folder = fs::path(path).parent_path();
    test::writeFile(path, "not a property list");
    ::chmod(folder.c_str(), 0500);
    auto r = prefs.load();
    EXPECT_FALSE(r);
    EXPECT_EQ(prefs.integerForKey(PrefKey::MaxSimultaneousTransfers), 3);
    ::chmod(folder.c_str(), 0700);
    // Writable again, but the file still was not moved aside: save refuses to replace it.
    EXPECT_FALSE(prefs.save());
    EXPECT_EQ(test::readFile(path), "not a property list");
}

TEST(Initialization, InitializeAppIsRememberedAcrossLoads) {
    test::IsolatedHome home;
    (void)freshPrefs();
    EXPECT_FALSE(Initialization::isInitialized());
    Initialization::initializeApp();
    EXPECT_TRUE(Initialization::isInitialized());
    ASSERT_TRUE(AppPreference::sharedAppPreference().load());
    EXPECT_TRUE(Initialization::isInitialized());
}
