#include "core/CloudKeyValueStore.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>

#include "core/MainQueue.h"
#include "support/TestEnv.h"

using namespace quillon;
namespace fs = std::filesystem;

namespace {

struct Change {
    int reason = -1;
    std::vector<std::string> keys;
};

// Records every change delivered to an observer of `store`.
struct Recorder {
    explicit Recorder(CloudKeyValueStore& s) : store(s) {
        token = store.addChangeObserver([this](int reason, const std::vector<std::string>& keys) {
            changes.push_back({reason, keys});
        });
    }
    ~Recorder() { store.removeChangeObserver(token); }
    CloudKeyValueStore& store;
    CloudKeyValueStore::ObserverToken token;
    std::vector<Change> changes;
};

PlistDict record(const std::string& name) {
    return PlistDict{{"SIN", PlistValue(name)}};
}

std::string nameIn(const CloudKeyValueStore& store, const std::string& key) {
    auto d = store.dictionaryForKey(key);
    return d ? d->at("SIN").toString() : std::string("<absent>");
}

}  // namespace

TEST(FileCloudKeyValueStore, SharesValuesThroughOneFileAndReportsOnlyOthersChanges) {
    test::ScratchDir dir("cloud");
    FileCloudKeyValueStore a(dir.path()), b(dir.path());
    Recorder seenByA(a), seenByB(b);

    a.setDictionary(record("one"), "S2-1");
    a.setDictionary(record("two"), "S2-2");
    ASSERT_TRUE(a.synchronize());
    std::string file = dir / FileCloudKeyValueStore::kFileName;
    ASSERT_TRUE(fs::exists(file));
    EXPECT_EQ(test::modeOf(file), 0600u);
    auto onDisk = Plist::readFile(file);
    ASSERT_TRUE(onDisk && onDisk->is<PlistDict>());
    EXPECT_EQ(onDisk->get<PlistDict>()->size(), 2u);

    // Either this call or the watch that the observer started finds the change first.
    ASSERT_TRUE(b.synchronize());
    ASSERT_TRUE(test::pumpUntil([&] { return !seenByB.changes.empty(); }));
    EXPECT_EQ(nameIn(b, "S2-1"), "one");
    EXPECT_EQ(seenByB.changes[0].reason, CloudChangeReason::InitialSyncChange);
    EXPECT_EQ(seenByB.changes[0].keys, (std::vector<std::string>{"S2-1", "S2-2"}));
    // A store never hears of its own writes.
    EXPECT_TRUE(seenByA.changes.empty());

    // Different keys changed on both sides both survive; the untouched key is not reported.
    seenByA.changes.clear();
    seenByB.changes.clear();
    a.setDictionary(record("one-a"), "S2-1");
    b.setDictionary(record("three"), "S2-3");
    b.removeObjectForKey("S2-2");
    ASSERT_TRUE(a.synchronize());
    ASSERT_TRUE(b.synchronize());
    ASSERT_TRUE(a.synchronize());
    ASSERT_TRUE(
        test::pumpUntil([&] { return !seenByA.changes.empty() && !seenByB.changes.empty(); }));
    MainQueue::shared().pump();
    for (auto* s : {&a, &b}) {
        EXPECT_EQ(nameIn(*s, "S2-1"), "one-a");
        EXPECT_EQ(nameIn(*s, "S2-2"), "<absent>");
        EXPECT_EQ(nameIn(*s, "S2-3"), "three");
        EXPECT_EQ(s->allKeys(), (std::vector<std::string>{"S2-1", "S2-3"}));
    }
    ASSERT_EQ(seenByB.changes.size(), 1u);
    EXPECT_EQ(seenByB.changes.back().reason, CloudChangeReason::ServerChange);
    EXPECT_EQ(seenByB.changes.back().keys, (std::vector<std::string>{"S2-1"}));
    ASSERT_EQ(seenByA.changes.size(), 1u);
    EXPECT_EQ(seenByA.changes.back().keys, (std::vector<std::string>{"S2-2", "S2-3"}));
}

TEST(FileCloudKeyValueStore, WatchesTheFileForChangesByAnotherInstallation) {
    test::ScratchDir dir("cloud");
    FileCloudKeyValueStore watched(dir.path()), other(dir.path());
    ASSERT_TRUE(watched.synchronize());
    Recorder seen(watched);  // the first observer starts the watch
    EXPECT_TRUE(watched.isWatching());

    other.setDictionary(record("live"), "S2-9");
    ASSERT_TRUE(other.synchronize());
    ASSERT_TRUE(test::pumpUntil([&] { return !seen.changes.empty(); }));
    EXPECT_EQ(seen.changes[0].reason, CloudChangeReason::ServerChange);
    EXPECT_EQ(seen.changes[0].keys, (std::vector<std::string>{"S2-9"}));
    EXPECT_EQ(nameIn(watched, "S2-9"), "live");

    other.removeObjectForKey("S2-9");
    ASSERT_TRUE(other.synchronize());
    ASSERT_TRUE(test::pumpUntil([&] { return seen.changes.size() >= 2; }));
    EXPECT_EQ(seen.changes[1].keys, (std::vector<std::string>{"S2-9"}));
    EXPECT_EQ(nameIn(watched, "S2-9"), "<absent>");

    watched.stopWatching();
    EXPECT_FALSE(watched.isWatching());
}

TEST(FileCloudKeyValueStore, ChangesSeenWhileNobodyObservedReachTheNextObserver) {
    test::ScratchDir dir("cloud");
    test::ScratchDir local("local");
    std::string cache = local / "cache.plist";
    FileCloudKeyValueStore other(dir.path());
    other.setDictionary(record("kept"), "S2-1");
    other.setDictionary(record("doomed"), "S2-2");
    ASSERT_TRUE(other.synchronize());
    {
        FileCloudKeyValueStore first(dir.path(), cache);
        Recorder seen(first);
        ASSERT_TRUE(first.synchronize());
        MainQueue::shared().pump();
        ASSERT_EQ(seen.changes.size(), 1u);
        EXPECT_EQ(seen.changes[0].reason, CloudChangeReason::InitialSyncChange);
    }
    // Removed while this installation was not running.
    other.removeObjectForKey("S2-2");
    ASSERT_TRUE(other.synchronize());
    {
        // A run that only writes and has no observer must not swallow the removal...
        FileCloudKeyValueStore writer(dir.path(), cache);
        EXPECT_EQ(nameIn(writer, "S2-2"), "doomed");  // last seen, until synchronized
        writer.setDictionary(record("new"), "S2-3");
        ASSERT_TRUE(writer.synchronize());
        EXPECT_EQ(nameIn(writer, "S2-2"), "<absent>");
        MainQueue::shared().pump();
    }
    {
        // ...which the next observed synchronize reports.
        FileCloudKeyValueStore later(dir.path(), cache);
        Recorder seen(later);
        ASSERT_TRUE(later.synchronize());
        MainQueue::shared().pump();
        ASSERT_EQ(seen.changes.size(), 1u);
        EXPECT_EQ(seen.changes[0].reason, CloudChangeReason::ServerChange);
        EXPECT_EQ(seen.changes[0].keys, (std::vector<std::string>{"S2-2"}));
    }
    // The last-seen copy of one folder says nothing about another.
    test::ScratchDir elsewhere("cloud2");
    FileCloudKeyValueStore moved(elsewhere.path(), cache);
    EXPECT_TRUE(moved.allKeys().empty());
}

TEST(FileCloudKeyValueStore, MissingFileIsRepublishedAndDamagedFileLeftAlone) {
    test::ScratchDir dir("cloud");
    FileCloudKeyValueStore a(dir.path());
    Recorder seen(a);
    a.setDictionary(record("one"), "S2-1");
    ASSERT_TRUE(a.synchronize());
    std::string file = dir / FileCloudKeyValueStore::kFileName;
    fs::remove(file);
    ASSERT_TRUE(a.synchronize());
    MainQueue::shared().pump();
    EXPECT_EQ(nameIn(a, "S2-1"), "one");
    ASSERT_TRUE(fs::exists(file));
    for (auto& c : seen.changes) EXPECT_NE(c.keys, std::vector<std::string>{"S2-1"});

    test::writeFile(file, "<plist><dict><key>S2-1");
    a.setDictionary(record("two"), "S2-2");
    auto r = a.synchronize();
    ASSERT_FALSE(r);
    EXPECT_TRUE(test::contains(r.error().reason, file));
    EXPECT_EQ(test::readFile(file), "<plist><dict><key>S2-1");
    // The local change waits for a readable file.
    fs::remove(file);
    ASSERT_TRUE(a.synchronize());
    FileCloudKeyValueStore b(dir.path());
    ASSERT_TRUE(b.synchronize());
    EXPECT_EQ(nameIn(b, "S2-2"), "two");

    FileCloudKeyValueStore nowhere(dir / "missing");
    EXPECT_FALSE(nowhere.synchronize());
}

TEST(CloudKeyValueStore, ObserverRemovedBeforeDeliveryIsNotCalled) {
    test::ScratchDir dir("cloud");
    FileCloudKeyValueStore a(dir.path()), b(dir.path());
    a.setDictionary(record("one"), "S2-1");
    ASSERT_TRUE(a.synchronize());
    int calls = 0;
    auto token = b.addChangeObserver([&](int, const std::vector<std::string>&) { ++calls; });
    EXPECT_EQ(b.observerCount(), 1u);
    ASSERT_TRUE(b.synchronize());
    b.removeChangeObserver(token);
    EXPECT_EQ(b.observerCount(), 0u);
    MainQueue::shared().pump();
    EXPECT_EQ(calls, 0);
}
