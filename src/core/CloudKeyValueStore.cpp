#include "core/CloudKeyValueStore.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "core/MainQueue.h"

namespace fs = std::filesystem;

namespace quillon {

CloudKeyValueStore::CloudKeyValueStore() : observers_(std::make_shared<Observers>()) {}

CloudKeyValueStore::~CloudKeyValueStore() = default;

CloudKeyValueStore::ObserverToken CloudKeyValueStore::addChangeObserver(ChangeObserver observer) {
    ObserverToken token;
    bool first;
    {
        std::lock_guard lock(observers_->mutex);
        token = observers_->next++;
        first = observers_->map.empty();
        observers_->map.emplace(token, std::move(observer));
    }
    if (first) observersStarted();
    return token;
}

void CloudKeyValueStore::removeChangeObserver(ObserverToken token) {
    std::lock_guard lock(observers_->mutex);
    observers_->map.erase(token);
}

std::size_t CloudKeyValueStore::observerCount() const {
    std::lock_guard lock(observers_->mutex);
    return observers_->map.size();
}

void CloudKeyValueStore::notifyExternalChange(int reason, std::vector<std::string> keys) {
    std::vector<ObserverToken> tokens;
    {
        std::lock_guard lock(observers_->mutex);
        for (auto& [token, fn] : observers_->map) tokens.push_back(token);
    }
    if (tokens.empty()) return;
    // Observers registered after the change do not get it; removed ones no longer do; a store
    // destroyed meanwhile leaves its observer table alive through this pointer.
    MainQueue::shared().post(
        [observers = observers_, tokens = std::move(tokens), reason, keys = std::move(keys)] {
            for (auto token : tokens) {
                ChangeObserver fn;
                {
                    std::lock_guard lock(observers->mutex);
                    auto it = observers->map.find(token);
                    if (it == observers->map.end()) continue;
                    fn = it->second;
                }
                fn(reason, keys);
            }
        });
}

namespace {

Error storeError(long code, const std::string& reason) {
    return KvError::errorWithDomain(ErrorDomain::Generic, code, reason);
}

// Holds an exclusive flock on the lock file of the shared folder.
class FolderLock {
  public:
    explicit FolderLock(const std::string& path) {
        fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ < 0) {
            error_ = errno;
            return;
        }
        while (::flock(fd_, LOCK_EX) != 0) {
            if (errno == EINTR) continue;
            error_ = errno;
            ::close(fd_);
            fd_ = -1;
            return;
        }
    }
    ~FolderLock() {
        if (fd_ >= 0) ::close(fd_);
    }
    int error() const { return error_; }

  private:
    int fd_ = -1;
    int error_ = 0;
};

}  // namespace

FileCloudKeyValueStore::FileCloudKeyValueStore(std::string folder, std::string cachePath)
    : folder_(std::move(folder)), cachePath_(std::move(cachePath)) {
    if (cachePath_.empty()) return;
    auto cache = Plist::readFile(cachePath_);
    if (!cache || !cache->is<PlistDict>()) return;
    auto& dict = *cache->get<PlistDict>();
    auto folderIt = dict.find("folder");
    auto valuesIt = dict.find("values");
    // A last-seen copy of another folder says nothing about this one.
    if (folderIt == dict.end() || folderIt->second.toString() != folder_) return;
    if (valuesIt == dict.end() || !valuesIt->second.is<PlistDict>()) return;
    values_ = *valuesIt->second.get<PlistDict>();
    auto initialIt = dict.find("initial");
    initial_ = initialIt != dict.end() && initialIt->second.toBool();
    if (auto it = dict.find("unreported"); it != dict.end() && it->second.is<PlistArray>())
        for (auto& key : *it->second.get<PlistArray>()) unreported_.insert(key.toString());
}

FileCloudKeyValueStore::~FileCloudKeyValueStore() {
    stopWatching();
}

std::string FileCloudKeyValueStore::filePath() const {
    return folder_ + "/" + kFileName;
}

std::optional<PlistDict> FileCloudKeyValueStore::dictionaryForKey(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto it = values_.find(key);
    if (it == values_.end() || !it->second.is<PlistDict>()) return std::nullopt;
    return *it->second.get<PlistDict>();
}

void FileCloudKeyValueStore::setDictionary(const PlistDict& value, const std::string& key) {
    std::lock_guard lock(mutex_);
    values_[key] = PlistValue(value);
    pendingSet_.insert(key);
    pendingRemove_.erase(key);
}

void FileCloudKeyValueStore::removeObjectForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    values_.erase(key);
    pendingRemove_.insert(key);
    pendingSet_.erase(key);
}

std::vector<std::string> FileCloudKeyValueStore::allKeys() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> keys;
    for (auto& [k, v] : values_) keys.push_back(k);
    return keys;
}

PlistDict FileCloudKeyValueStore::dictionaryRepresentation() const {
    std::lock_guard lock(mutex_);
    return values_;
}

Status FileCloudKeyValueStore::synchronize() {
    std::vector<std::string> changed;
    int reason;
    {
        std::lock_guard lock(mutex_);
        std::error_code ec;
        if (!fs::is_directory(folder_, ec))
            return std::unexpected(storeError(
                ENOENT,
                fmt::format("The shared folder {} of the server list does not exist.", folder_)));
        FolderLock folderLock(folder_ + "/" + kLockName);
        if (folderLock.error())
            return std::unexpected(storeError(
                folderLock.error(), fmt::format("Cannot lock the shared folder {}: {}", folder_,
                                                std::strerror(folderLock.error()))));

        std::string path = filePath();
        bool present = fs::exists(path, ec);
        PlistDict shared;
        if (present) {
            auto value = Plist::readFile(path);
            // A copy being written by a sync tool, or damaged: leave it alone and retry later.
            if (!value || !value->is<PlistDict>())
                return std::unexpected(storeError(
                    -1,
                    fmt::format("The shared server list {} cannot be read: {}", path,
                                value ? "it does not hold a dictionary" : value.error().reason)));
            shared = *value->get<PlistDict>();
        }

        PlistDict merged;
        if (present) {
            merged = shared;
            for (auto& key : pendingSet_) merged[key] = values_[key];
            for (auto& key : pendingRemove_) merged.erase(key);
        } else {
            // A missing shared file is a fresh folder (or one emptied by accident): publish what
            // this installation has instead of reading it as the removal of every key.
            merged = values_;
        }

        for (auto& [key, value] : merged) {
            auto it = values_.find(key);
            if (it == values_.end() || !(it->second == value)) changed.push_back(key);
        }
        for (auto& [key, value] : values_)
            if (!merged.contains(key)) changed.push_back(key);

        if (!present || !(merged == shared)) {
            if (auto w = Plist::writeFile(path, PlistValue(merged), 0600); !w) return w;
        }
        values_ = std::move(merged);
        pendingSet_.clear();
        pendingRemove_.clear();
        reason = initial_ ? CloudChangeReason::InitialSyncChange : CloudChangeReason::ServerChange;
        // Changes nobody observes wait for the first observer, so that a short run which only
        // writes does not swallow removals made by another installation.
        unreported_.insert(changed.begin(), changed.end());
        changed.clear();
        if (observerCount() > 0) {
            changed.assign(unreported_.begin(), unreported_.end());
            unreported_.clear();
        }
        if (unreported_.empty()) initial_ = false;
        if (!cachePath_.empty()) {
            PlistArray pending;
            for (auto& key : unreported_) pending.emplace_back(key);
            PlistDict cache{{"folder", PlistValue(folder_)},
                            {"values", PlistValue(values_)},
                            {"unreported", PlistValue(std::move(pending))},
                            {"initial", PlistValue(initial_)}};
            // The last-seen copy only sharpens change reports; losing it is not an error.
            (void)Plist::writeFile(cachePath_, PlistValue(cache), 0600);
        }
    }
    if (!changed.empty()) notifyExternalChange(reason, std::move(changed));
    return {};
}

void FileCloudKeyValueStore::observersStarted() {
    (void)startWatching();
}

bool FileCloudKeyValueStore::isWatching() const {
    return watching_.load();
}

Status FileCloudKeyValueStore::startWatching() {
    std::lock_guard lock(watchMutex_);
    if (watching_) return {};
    int in = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (in < 0)
        return std::unexpected(
            storeError(errno, fmt::format("Cannot watch {}: {}", folder_, std::strerror(errno))));
    if (::inotify_add_watch(in, folder_.c_str(),
                            IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE) < 0) {
        int e = errno;
        ::close(in);
        return std::unexpected(
            storeError(e, fmt::format("Cannot watch {}: {}", folder_, std::strerror(e))));
    }
    int stop = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (stop < 0) {
        int e = errno;
        ::close(in);
        return std::unexpected(
            storeError(e, fmt::format("Cannot watch {}: {}", folder_, std::strerror(e))));
    }
    stopFd_ = stop;
    watching_ = true;
    watcher_ = std::thread([this, in, stop] { watchLoop(in, stop); });
    return {};
}

void FileCloudKeyValueStore::stopWatching() {
    std::lock_guard lock(watchMutex_);
    if (!watching_) return;
    std::uint64_t one = 1;
    (void)!::write(stopFd_, &one, sizeof one);
    if (watcher_.joinable()) watcher_.join();
    ::close(stopFd_);
    stopFd_ = -1;
    watching_ = false;
}

void FileCloudKeyValueStore::watchLoop(int inotifyFd, int stopFd) {
    alignas(inotify_event) char buf[8192];
    while (true) {
        pollfd fds[2] = {{inotifyFd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (fds[1].revents) break;
        if (!(fds[0].revents & POLLIN)) continue;
        bool relevant = false;
        bool gone = false;
        while (true) {
            ssize_t n = ::read(inotifyFd, buf, sizeof buf);
            if (n <= 0) break;
            for (char* p = buf; p < buf + n;) {
                auto* ev = reinterpret_cast<inotify_event*>(p);
                if (ev->mask & IN_IGNORED) gone = true;
                if (ev->len && std::strcmp(ev->name, kFileName) == 0) relevant = true;
                p += sizeof(inotify_event) + ev->len;
            }
        }
        // Our own replacement of the file shows up here too; it finds nothing new to report.
        if (relevant) (void)synchronize();
        if (gone) break;
    }
    ::close(inotifyFd);
}

}  // namespace quillon
