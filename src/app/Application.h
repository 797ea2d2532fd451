#pragma once
// Application: the start-up and exit sequences of the program, shared by the command line and,
// later, the desktop window.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/CloudKeyValueStore.h"
#include "core/Error.h"
#include "core/MainQueue.h"
#include "core/Migrator.h"

namespace quillon {

struct ApplicationOptions {
    // How the cloud synchronisation that follows start-up runs: on main-queue timers (a
    // long-running process), at once inside start (a short run that wants the shared server
    // list), or not at all (a short run that needs no incoming changes).
    enum class DelayedSteps { Scheduled, Immediate, Skip };
    DelayedSteps delayedSteps = DelayedSteps::Scheduled;
    // The cloud store to use; absent: a file store in the folder of "CLOUD_SYNC_FOLDER", if set.
    std::shared_ptr<CloudKeyValueStore> cloudStore;
    // Where migration finds sign-ins of earlier versions; absent: no keychain.
    KeychainLookup keychain;
};

class Application {
  public:
    static constexpr double kCloudObserveDelay = 5.0;   // seconds after launch
    static constexpr double kCloudFullSyncDelay = 2.0;  // seconds after observing
    static constexpr const char* kCloudCacheFileName = "cloud-kv-cache.plist";

    explicit Application(ApplicationOptions options = {});
    ~Application();
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    // Reads the preferences afresh, opens the database, registers the clients, migrates, deletes
    // the quick connections, starts the cloud synchronisation, clears the streaming cache and
    // makes clients stream through it. Fails on a preference file that had to be kept aside or a
    // database that cannot be read; nothing stored is lost.
    [[nodiscard]] Status start();
    // Stops the cloud synchronisation and the streaming servers, empties the streaming cache and
    // closes the database.
    void stop();
    bool isRunning() const { return running_; }
    // Problems that did not stop start-up (a missing shared folder, a failed migration).
    const std::vector<Error>& warnings() const { return warnings_; }
    std::shared_ptr<CloudKeyValueStore> cloudStore() const { return store_; }

    // Deletes every remote record whose "QUICK_CONNECT" is true.
    void deleteQuickConnections();
    // With "SYS_AUTO_SYNC_CONN": observe the cloud store, synchronize it, then merge every record.
    void syncConnectionsWithCloud();
    // Handles reasons 0 and 1 only, and only the "S2-" keys among the changed ones.
    void keyvalueStoreDidChange(int reason, const std::vector<std::string>& changedKeys);

  private:
    void observeCloudStore();
    void makeCloudStore();

    ApplicationOptions options_;
    bool running_ = false;
    std::vector<Error> warnings_;
    std::shared_ptr<CloudKeyValueStore> store_;
    std::optional<CloudKeyValueStore::ObserverToken> observer_;
    std::vector<MainQueue::TimerId> timers_;
};

}  // namespace quillon
