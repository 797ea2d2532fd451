#include "servers/streaming/DiskDataCache.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "core/PathUtils.h"
#include "servers/streaming/StreamingLog.h"

namespace quillon {

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMiB = 1048576;
constexpr std::uint64_t kGiB = 1073741824;

double nowTick() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

bool writeAllAt(int fd, const std::uint8_t* data, std::size_t size, std::uint64_t at) {
    std::size_t done = 0;
    while (done < size) {
        ssize_t n = ::pwrite(fd, data + done, size - done, static_cast<off_t>(at + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool sameFile(int fd, const std::string& path) {
    struct stat a {
    }, b{};
    return ::fstat(fd, &a) == 0 && ::stat(path.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

void lockShared(int fd) {
    while (::flock(fd, LOCK_SH) != 0 && errno == EINTR) {
    }
}

}  // namespace

// --- CacheItem

CacheItem::CacheItem(DiskDataCache& cache, std::uint64_t start) : CacheItem(cache, start, false) {}

CacheItem::CacheItem(DiskDataCache& cache, std::uint64_t start, bool reuseSpare)
    : startPos(start), lastReadTick(nowTick()), cache_(cache) {
    if (!cache_.ensureFolderLocked()) return;
    std::string folder = DiskDataCache::cacheFolder();
    // Named by the creation time; two runs made within the same microsecond take the next one.
    double tick = lastReadTick;
    for (int attempt = 0; attempt < 1000; ++attempt, tick += 0.000001) {
        std::string path = fmt::format("{}/c{:f}", folder, tick);
        if (reuseSpare) {
            int err = 0;
            if (cache_.takeSpare(path, err)) {
                writeFd_ = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
                struct stat st {};
                if (writeFd_ >= 0 && ::fstat(writeFd_, &st) == 0) {
                    cacheFilePath = path;
                    fileSize_ = static_cast<std::uint64_t>(st.st_size);
                    return;
                }
                if (writeFd_ >= 0) ::close(writeFd_);
                writeFd_ = -1;
                ::unlink(path.c_str());
                reuseSpare = false;
                continue;
            }
            if (err == EEXIST) continue;
            reuseSpare = false;
        }
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd >= 0) {
            ::close(fd);
            cacheFilePath = path;
            return;
        }
        if (errno != EEXIST) return;
    }
}

CacheItem::~CacheItem() {
    if (cacheFilePath) ::unlink(cacheFilePath->c_str());
    if (writeFd_ >= 0) ::close(writeFd_);
}

bool CacheItem::appendData(const std::uint8_t* data, std::size_t size) {
    if (!cacheFilePath) {
        StreamingLog::log("[DEBUG] appendData: This cache item has been disposed.");
        return false;
    }
    // The file stays open between blocks (a run takes thousands of them); it must still be there:
    // a run whose file was removed is not silently continued in a file nobody can read.
    if (writeFd_ < 0) writeFd_ = ::open(cacheFilePath->c_str(), O_WRONLY | O_CLOEXEC);
    struct stat st {};
    if (writeFd_ < 0 || ::fstat(writeFd_, &st) != 0 || st.st_nlink == 0) return false;
    // The bytes go after the run's, over what a reused file held there. A file changed behind
    // the cache's back is written at its end instead, so that the read's size check notices.
    bool changed = static_cast<std::uint64_t>(st.st_size) != fileSize_;
    std::uint64_t at = changed ? static_cast<std::uint64_t>(st.st_size) : length;
    bool ok = writeAllAt(writeFd_, data, size, at);
    if (!ok) {
        // A short write (a full disk) leaves the file as long as the run says it is.
        if (::ftruncate(writeFd_, static_cast<off_t>(length)) == 0) fileSize_ = length;
        return false;
    }
    length += size;
    // Such a file is expected to hold exactly the run again, which it then does not.
    fileSize_ = changed ? length : std::max(fileSize_, length);
    lastWriteTick = nowTick();
    return true;
}

int CacheItem::openVerified() {
    int fd = ::open(cacheFilePath->c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    std::uint64_t onDisk = 0;
    if (fd >= 0 && ::fstat(fd, &st) == 0) onDisk = static_cast<std::uint64_t>(st.st_size);
    if (fd >= 0 && onDisk == fileSize_) return fd;
    if (fd >= 0) ::close(fd);
    StreamingLog::log("[DEBUG]cache item corrupted, maybe the system clean up temp file.");
    StreamingLog::log(fmt::format("[DEBUG]Path={}, FileSize={}, cacheIdxLength={}", *cacheFilePath,
                                  onDisk, length));
    disposeCache();
    return -1;
}

std::optional<std::vector<std::uint8_t>> CacheItem::readData(std::uint64_t offset,
                                                             std::uint64_t maxLength) {
    if (!cacheFilePath) {
        StreamingLog::log("[DEBUG] readData: This cache item has been disposed.");
        return std::nullopt;
    }
    if (offset < startPos || offset >= startPos + length) return std::nullopt;
    int fd = openVerified();
    if (fd < 0) return std::nullopt;
    std::uint64_t from = offset - startPos;
    std::vector<std::uint8_t> out(static_cast<std::size_t>(std::min(maxLength, length - from)));
    std::size_t got = 0;
    while (got < out.size()) {
        ssize_t n = ::pread(fd, out.data() + got, out.size() - got, static_cast<off_t>(from + got));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    ::close(fd);
    out.resize(got);
    lastReadTick = nowTick();
    return out;
}

void CacheItem::closeWriteFile() {
    if (cacheFilePath && fileSize_ > length) {
        int fd = writeFd_ >= 0 ? writeFd_ : ::open(cacheFilePath->c_str(), O_WRONLY | O_CLOEXEC);
        if (fd >= 0 && ::ftruncate(fd, static_cast<off_t>(length)) == 0) fileSize_ = length;
        if (fd >= 0 && fd != writeFd_) ::close(fd);
    }
    if (writeFd_ >= 0) ::close(writeFd_);
    writeFd_ = -1;
}

void CacheItem::dropFile() {
    if (writeFd_ >= 0) ::close(writeFd_);
    writeFd_ = -1;
    cacheFilePath.reset();
    length = 0;
    startPos = 0;
    fileSize_ = 0;
    cache_.removeItem(this);
}

void CacheItem::disposeCache() {
    if (cacheFilePath) ::unlink(cacheFilePath->c_str());
    dropFile();
}

void CacheItem::retire() {
    auto path = cacheFilePath;
    auto size = fileSize_;
    auto& cache = cache_;
    dropFile();
    if (path && !cache.keepSpare(*path, size)) ::unlink(path->c_str());
}

std::uint64_t CacheItem::endPos() const {
    if (!cacheFilePath) StreamingLog::log("[DEBUG] endPos: This cache item has been disposed.");
    return startPos + length;
}

std::string CacheItem::description() const {
    return fmt::format("({}, {})", startPos, startPos + length);
}

// --- DiskDataCache

DiskDataCache& DiskDataCache::shared() {
    // Never destroyed: fetches still running at exit may write to it.
    static DiskDataCache* cache = new DiskDataCache;
    return *cache;
}

DiskDataCache::DiskDataCache() = default;

DiskDataCache::~DiskDataCache() {
    cacheItems_.clear();
    if (folderFd_ >= 0) ::close(folderFd_);
}

std::string DiskDataCache::cacheFolder() {
    return PathUtils::getAppTempPath() + "/" + kFolderName;
}

bool DiskDataCache::ensureFolderLocked() {
    std::string folder = cacheFolder();
    if (folderFd_ >= 0 && lockedFolder_ == folder && sameFile(folderFd_, folder)) return true;
    if (folderFd_ >= 0) ::close(folderFd_);
    folderFd_ = -1;
    lockedFolder_.clear();
    // Another process's start-up clean-up may remove an unheld folder between its creation and
    // the lock: then make it again.
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (!PathUtils::ensureFolder(folder)) return false;
        int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) return false;
        lockShared(fd);
        if (sameFile(fd, folder)) {
            folderFd_ = fd;
            lockedFolder_ = folder;
            return true;
        }
        ::close(fd);
    }
    return false;
}

void DiskDataCache::removeItem(const CacheItem* item) {
    std::lock_guard lock(mutex_);
    std::erase_if(cacheItems_, [item](const auto& p) { return p.get() == item; });
}

void DiskDataCache::clearCache() {
    std::lock_guard lock(mutex_);
    lastWriteStatusFailed_ = false;
    auto items = std::move(cacheItems_);
    cacheItems_.clear();
    items.clear();  // each deletes its file
    dropSpares();
    std::error_code ec;
    if (folderFd_ < 0) {
        // Not used by this process yet (start-up): the folder goes, unless another process
        // streams from it; it is made again when a run is first cached.
        int fd = ::open(cacheFolder().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) return;
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) fs::remove_all(cacheFolder(), ec);
        ::close(fd);
        return;
    }
    if (!ensureFolderLocked()) return;
    // Files of runs nobody holds any more (a killed run's) go too, but only while no other
    // process streams from the folder.
    if (::flock(folderFd_, LOCK_EX | LOCK_NB) == 0) {
        for (fs::directory_iterator it(lockedFolder_, ec), end; !ec && it != end; it.increment(ec))
            fs::remove_all(it->path(), ec);
    }
    lockShared(folderFd_);
}

void DiskDataCache::clearSomeOldestCaches() {
    std::lock_guard lock(mutex_);
    StreamingLog::log("[DEBUG]Clear 1/4 oldest caches");
    evictOldestQuarter([](const CacheItem&) { return true; });
}

void DiskDataCache::evictOldestQuarter(const std::function<bool(const CacheItem&)>& evictable) {
    std::uint64_t target = cachedSizeLocked() / 4;
    auto byAge = cacheItems_;
    std::stable_sort(byAge.begin(), byAge.end(), [](const auto& a, const auto& b) {
        return a->lastWriteTick < b->lastWriteTick;
    });
    std::uint64_t removed = 0;
    for (auto& item : byAge) {
        if (removed >= target) break;
        if (!evictable(*item)) continue;
        removed += item->length;
        item->retire();
    }
}

void DiskDataCache::calcMaxCacheSize(std::uint64_t fileSize) {
    std::int64_t freeBytes = 0;
    struct statvfs vfs {};
    if (::statvfs(PathUtils::getHomeFolderPath().c_str(), &vfs) == 0)
        freeBytes = static_cast<std::int64_t>(vfs.f_bavail * vfs.f_frsize);
    freeBytes -= static_cast<std::int64_t>(kGiB);
    std::uint64_t total = fileSize / 10;
    std::uint64_t item = fileSize / 40;
    if (fileSize < 2684354560ULL) {
        total = 256 * kMiB;
        item = 64 * kMiB;
    }
    if (freeBytes <= 0 || total > static_cast<std::uint64_t>(freeBytes)) {
        total = 256 * kMiB;
        item = 64 * kMiB;
    }
    if (total > kGiB) {
        total = kGiB;
        item = 256 * kMiB;
    }
    std::lock_guard lock(mutex_);
    maxTotalCacheSize_ = total;
    maxCacheItemSize_ = item;
}

bool DiskDataCache::writeDataWithStartPos(std::uint64_t startPos, const std::uint8_t* data,
                                          std::size_t size) {
    std::lock_guard lock(mutex_);
    std::shared_ptr<CacheItem> item;
    for (auto& candidate : cacheItems_) {
        if (candidate->endPos() == startPos && candidate->length + size <= maxCacheItemSize_) {
            item = candidate;
            break;
        }
    }
    if (!item) {
        // Runs stop growing when another one starts, mostly: the others need no open file.
        for (auto& other : cacheItems_) other->closeWriteFile();
        item = std::make_shared<CacheItem>(*this, startPos, true);
        cacheItems_.push_back(item);
    }
    bool ok = item->appendData(data, size);
    if (!ok) {
        clearSomeOldestCaches();
        ok = item->appendData(data, size);
    }
    // A fetch that stopped here would be started again, on a new connection, by the next read
    // past its end; what was read already makes room instead.
    if (ok && cacheFullLocked()) evictReadRuns(item.get());
    lastWriteStatusFailed_ = !ok;
    lastWriteEndOffset_ = startPos + size;
    ++writeCount_;
    written_.notify_all();
    return ok && !cacheFullLocked();
}

void DiskDataCache::endWrites(std::uint64_t writeEnd) {
    std::lock_guard lock(mutex_);
    for (auto& item : cacheItems_)
        if (item->cacheFilePath && item->endPos() == writeEnd) item->closeWriteFile();
}

bool DiskDataCache::keepSpare(const std::string& path, std::uint64_t size) {
    std::lock_guard lock(mutex_);
    // At most what one eviction frees: a quarter of the total and the run that passes it.
    std::uint64_t kept = size;
    for (auto& spare : spares_) kept += spare.size;
    if (size == 0 || size > maxCacheItemSize_ || kept > maxTotalCacheSize_ / 4 + maxCacheItemSize_)
        return false;
    // A descriptor of it handed out by openCachedRun (an answer still sending the run) holds a
    // shared lock: then the file goes as it is, and the answer goes on reading its bytes.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    bool unused = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0;
    if (fd >= 0) ::close(fd);
    if (!unused) return false;
    std::string spare = fmt::format("{}/{}{}", cacheFolder(), kSparePrefix, nextSpare_++);
    if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, spare.c_str(), RENAME_NOREPLACE) != 0)
        return false;
    spares_.push_back({spare, size});
    return true;
}

bool DiskDataCache::takeSpare(const std::string& path, int& err) {
    std::lock_guard lock(mutex_);
    err = ENOENT;
    if (spares_.empty()) return false;
    if (::renameat2(AT_FDCWD, spares_.back().path.c_str(), AT_FDCWD, path.c_str(),
                    RENAME_NOREPLACE) == 0) {
        spares_.pop_back();
        return true;
    }
    err = errno;
    if (err != EEXIST) dropSpares();
    return false;
}

void DiskDataCache::dropSpares() {
    std::lock_guard lock(mutex_);
    for (auto& spare : spares_) ::unlink(spare.path.c_str());
    spares_.clear();
}

std::shared_ptr<CacheItem> DiskDataCache::findMatchItem(std::uint64_t offset) {
    std::lock_guard lock(mutex_);
    for (auto& item : cacheItems_)
        if (item->length > 0 && item->startPos <= offset && offset < item->endPos()) return item;
    return nullptr;
}

void DiskDataCache::evictReadRuns(const CacheItem* writing) {
    evictOldestQuarter([writing](const CacheItem& item) {
        return &item != writing && item.length > 0 && item.readEnd >= item.endPos();
    });
}

void DiskDataCache::noteRead(std::uint64_t offset, std::uint64_t size) {
    std::lock_guard lock(mutex_);
    if (auto item = findMatchItem(offset)) item->readEnd = std::max(item->readEnd, offset + size);
}

int DiskDataCache::addWriteObserver(WriteObserver observer) {
    std::lock_guard lock(observersMutex_);
    observers_.emplace_back(nextObserverId_, std::move(observer));
    return nextObserverId_++;
}

void DiskDataCache::removeWriteObserver(int id) {
    std::lock_guard lock(observersMutex_);
    std::erase_if(observers_, [id](const auto& o) { return o.first == id; });
}

void DiskDataCache::publishWrite(std::uint64_t writeEnd, bool fetchEnded) {
    if (fetchEnded) {
        std::lock_guard lock(mutex_);
        endWrites(writeEnd);
        ++writeCount_;
        written_.notify_all();
    }
    // Held while they run, so that an observer removed is never called afterwards.
    std::lock_guard lock(observersMutex_);
    for (auto& [id, observer] : observers_) observer(writeEnd, fetchEnded);
}

void DiskDataCache::evictAfterRead() {
    if (!lastWriteStatusFailed_ && !cacheFullLocked()) return;
    StreamingLog::log("[DEBUG] Last write err or cache full, clear some oldest caches");
    clearSomeOldestCaches();
}

std::optional<std::vector<std::uint8_t>> DiskDataCache::readDataWithStartPos(
    std::uint64_t offset, std::uint64_t maxLength) {
    std::lock_guard lock(mutex_);
    std::optional<std::vector<std::uint8_t>> data;
    if (auto item = findMatchItem(offset)) {
        data = item->readData(offset, maxLength);
        if (data) item->readEnd = std::max(item->readEnd, offset + data->size());
    }
    evictAfterRead();
    return data;
}

std::optional<CachedRun> DiskDataCache::openCachedRun(std::uint64_t offset, std::uint64_t length) {
    std::lock_guard lock(mutex_);
    auto item = findMatchItem(offset);
    if (!item || length > item->endPos() - offset) return std::nullopt;
    int fd = item->openVerified();
    std::optional<CachedRun> run;
    if (fd >= 0) {
        // Held as long as the descriptor is open (by whoever it is handed to): a file still read
        // from is never written over by another run (see keepSpare).
        lockShared(fd);
        run = CachedRun{fd, offset - item->startPos, item->endPos() - offset};
        item->lastReadTick = nowTick();
    }
    evictAfterRead();
    return run;
}

std::uint64_t DiskDataCache::cachedSizeLocked() const {
    std::uint64_t total = 0;
    for (auto& item : cacheItems_) total += item->length;
    return total;
}

bool DiskDataCache::cacheFullLocked() const {
    return cachedSizeLocked() >= maxTotalCacheSize_ && !cacheItems_.empty();
}

std::uint64_t DiskDataCache::cachedSize() const {
    std::lock_guard lock(mutex_);
    return cachedSizeLocked();
}

bool DiskDataCache::cacheFull() const {
    std::lock_guard lock(mutex_);
    return cacheFullLocked();
}

std::uint64_t DiskDataCache::writeCount() const {
    std::lock_guard lock(mutex_);
    return writeCount_;
}

void DiskDataCache::waitForWrite(std::uint64_t seen, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    written_.wait_for(lock, timeout, [&] { return writeCount_ != seen; });
}

std::uint64_t DiskDataCache::maxTotalCacheSize() const {
    std::lock_guard lock(mutex_);
    return maxTotalCacheSize_;
}
std::uint64_t DiskDataCache::maxCacheItemSize() const {
    std::lock_guard lock(mutex_);
    return maxCacheItemSize_;
}
void DiskDataCache::setMaxTotalCacheSize(std::uint64_t bytes) {
    std::lock_guard lock(mutex_);
    maxTotalCacheSize_ = bytes;
}
void DiskDataCache::setMaxCacheItemSize(std::uint64_t bytes) {
    std::lock_guard lock(mutex_);
    maxCacheItemSize_ = bytes;
}
std::uint64_t DiskDataCache::lastWriteEndOffset() const {
    std::lock_guard lock(mutex_);
    return lastWriteEndOffset_;
}
bool DiskDataCache::lastWriteStatusFailed() const {
    std::lock_guard lock(mutex_);
    return lastWriteStatusFailed_;
}
std::vector<std::shared_ptr<CacheItem>> DiskDataCache::cacheItems() const {
    std::lock_guard lock(mutex_);
    return cacheItems_;
}

}  // namespace quillon
