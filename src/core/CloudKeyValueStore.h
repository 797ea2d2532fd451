#pragma once
// CloudKeyValueStore: a key-value store shared between installations of the program (server
// records are mirrored in it under "S2-<serverID>"). FileCloudKeyValueStore keeps it as a
// property-list file in a folder the user chooses and shares by their own means.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "core/Error.h"
#include "core/Plist.h"

namespace quillon {

// Why the store's values changed under the program.
namespace CloudChangeReason {
inline constexpr int ServerChange = 0;          // another installation changed values
inline constexpr int InitialSyncChange = 1;     // first download of the shared values
inline constexpr int QuotaViolationChange = 2;  // the store is over its quota
inline constexpr int AccountChange = 3;         // the user's account changed
}  // namespace CloudChangeReason

class CloudKeyValueStore {
  public:
    using ChangeObserver = std::function<void(int reason, const std::vector<std::string>& keys)>;
    using ObserverToken = std::uint64_t;

    CloudKeyValueStore();
    virtual ~CloudKeyValueStore();
    CloudKeyValueStore(const CloudKeyValueStore&) = delete;
    CloudKeyValueStore& operator=(const CloudKeyValueStore&) = delete;

    // The dictionary stored under `key`, or absent (also when the value is not a dictionary).
    virtual std::optional<PlistDict> dictionaryForKey(const std::string& key) const = 0;
    // Stores the value locally; synchronize shares it.
    virtual void setDictionary(const PlistDict& value, const std::string& key) = 0;
    virtual void removeObjectForKey(const std::string& key) = 0;
    virtual std::vector<std::string> allKeys() const = 0;
    virtual PlistDict dictionaryRepresentation() const = 0;
    // Exchanges local changes with the shared copy; values changed by another installation are
    // reported to the observers.
    virtual Status synchronize() = 0;

    // Calls `observer` on the main queue for every later external change.
    ObserverToken addChangeObserver(ChangeObserver observer);
    void removeChangeObserver(ObserverToken token);
    std::size_t observerCount() const;

  protected:
    // Queues delivery of a change to the observers registered now.
    void notifyExternalChange(int reason, std::vector<std::string> keys);
    // Called after the first observer was added (e.g. to start watching for changes).
    virtual void observersStarted() {}

  private:
    struct Observers {
        std::mutex mutex;
        std::map<ObserverToken, ChangeObserver> map;
        ObserverToken next = 1;
    };
    std::shared_ptr<Observers> observers_;
};

// The shared copy is "<folder>/quillon-cloud-kv.plist", replaced atomically under a lock file;
// local writes win for the keys they touch, everything else comes from the shared copy. What
// this installation saw last is kept in `cachePath`, so changes made while it was not running
// (removals included) are reported by the next synchronize that has an observer. A missing
// shared file is recreated from this installation's values, never read as removing them all.
class FileCloudKeyValueStore : public CloudKeyValueStore {
  public:
    static constexpr const char* kFileName = "quillon-cloud-kv.plist";
    static constexpr const char* kLockName = ".quillon-cloud-kv.lock";

    // `folder` must exist; `cachePath` empty keeps the last-seen copy in memory only.
    FileCloudKeyValueStore(std::string folder, std::string cachePath = {});
    ~FileCloudKeyValueStore() override;

    std::optional<PlistDict> dictionaryForKey(const std::string& key) const override;
    void setDictionary(const PlistDict& value, const std::string& key) override;
    void removeObjectForKey(const std::string& key) override;
    std::vector<std::string> allKeys() const override;
    PlistDict dictionaryRepresentation() const override;
    Status synchronize() override;

    const std::string& folder() const { return folder_; }
    std::string filePath() const;
    // Watches the shared file with inotify and synchronizes when another program replaces it.
    Status startWatching();
    void stopWatching();
    bool isWatching() const;

  protected:
    void observersStarted() override;

  private:
    void watchLoop(int inotifyFd, int stopFd);

    std::string folder_;
    std::string cachePath_;
    mutable std::mutex mutex_;
    PlistDict values_;
    std::set<std::string> pendingSet_, pendingRemove_;
    std::set<std::string> unreported_;  // external changes seen while nobody observed
    bool initial_ = true;  // no last-seen copy yet: the first changes are an initial download

    std::mutex watchMutex_;
    std::thread watcher_;
    int stopFd_ = -1;
    std::atomic<bool> watching_{false};
};

}  // namespace quillon
