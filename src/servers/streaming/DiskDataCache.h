#pragma once
// DiskDataCache: what the streaming reader fetched, kept on disk as contiguous byte runs of the
// one file being streamed, so that seeking back and a player's repeated probing are served from
// disk. Each run (CacheItem) is one plain file "c<creation time>" in "DiskDataCacheFolder" of the
// program's temporary folder, holding exactly the run's bytes. Runs are only ever extended at
// their end, never merged, and capped in size so that eviction frees space in pieces; eviction
// removes the oldest written runs first.
//
// An evicted run's file is kept aside (as "spare<n>") for a later run to write over instead of a
// new one: overwriting pages the file system already holds costs about half of filling fresh ones.
// The files kept hold no more than one eviction frees.
// While a run writes over such a file, the bytes past the run's length are the former run's; they
// are never read, and they are cut off once the run stops growing.
//
// Every operation is serialised on the cache's own lock. While a process uses the cache it holds
// a shared lock on the folder, so that the start-up clean-up of another process leaves it alone.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quillon {

class DiskDataCache;

class CacheItem {
  public:
    // A run starting at `startPos`: creates the cache folder when missing and the empty file.
    CacheItem(DiskDataCache& cache, std::uint64_t startPos);
    // The same over one of the cache's spare files when it has one (see above), else as the other.
    CacheItem(DiskDataCache& cache, std::uint64_t startPos, bool reuseSpare);
    // Deletes the file if the item still has one.
    ~CacheItem();
    CacheItem(const CacheItem&) = delete;
    CacheItem& operator=(const CacheItem&) = delete;

    // Writes the bytes at the end of the run's file. False for a disposed item, a file that is
    // gone, or a failed write.
    bool appendData(const std::uint8_t* data, std::size_t size);
    // Lets go of the file kept open for appending (it is opened again by the next append), and
    // cuts off what a reused file held past the run.
    void closeWriteFile();
    // Up to `maxLength` bytes from media-file offset `offset` (within the run). Absent for a
    // disposed item, and for one whose file no longer holds `length` bytes (then disposed).
    std::optional<std::vector<std::uint8_t>> readData(std::uint64_t offset,
                                                      std::uint64_t maxLength);
    // Deletes the file, clears path, start and length, and leaves the cache's list.
    void disposeCache();
    std::uint64_t endPos() const;
    // "(start, end)"
    std::string description() const;

    std::optional<std::string> cacheFilePath;
    std::uint64_t startPos = 0;
    std::uint64_t length = 0;
    double lastReadTick = 0;   // seconds since 1970
    double lastWriteTick = 0;  // seconds since 1970
    // The media-file offset just after the furthest byte read from the run.
    std::uint64_t readEnd = 0;

  private:
    friend class DiskDataCache;
    // The file as it is on disk: its descriptor when it holds exactly the bytes it should.
    int openVerified();
    // Evicted: the file becomes a spare of the cache (or goes), and the item leaves the list.
    void retire();
    void dropFile();

    DiskDataCache& cache_;
    int writeFd_ = -1;
    // The size the file has on disk: `length`, or more while a reused file is written over.
    std::uint64_t fileSize_ = 0;
};

// A cached run of the file opened for reading: `fd` (the caller closes it); the wanted bytes
// begin at `fileOffset` in it, and `available` bytes follow from there.
struct CachedRun {
    int fd = -1;
    std::uint64_t fileOffset = 0;
    std::uint64_t available = 0;
};

class DiskDataCache {
  public:
    static constexpr std::uint64_t kDefaultMaxTotalCacheSize = 1073741824;  // 1 GiB
    static constexpr std::uint64_t kDefaultMaxCacheItemSize = 268435456;    // 256 MiB
    static constexpr const char* kFolderName = "DiskDataCacheFolder";
    // Evicted runs' files kept for later runs are "spare<n>" in the folder.
    static constexpr const char* kSparePrefix = "spare";

    static DiskDataCache& shared();
    DiskDataCache();
    ~DiskDataCache();
    DiskDataCache(const DiskDataCache&) = delete;
    DiskDataCache& operator=(const DiskDataCache&) = delete;

    // "DiskDataCacheFolder" in the program's temporary folder.
    static std::string cacheFolder();
    // Forgets every run and empties the folder, of other processes' runs too when no other
    // process is using it. A process that has not cached anything yet removes the folder.
    void clearCache();
    // Evicts the oldest written runs until a quarter of the cached bytes is gone.
    void clearSomeOldestCaches();
    // A fetch that wrote up to `writeEnd` has ended: the run ending there stops growing.
    void endWrites(std::uint64_t writeEnd);
    // Sets the limits for a media file of `fileSize` bytes and the free space of the home folder.
    void calcMaxCacheSize(std::uint64_t fileSize);
    // Stores the bytes at media-file offset `startPos`: at the end of the run ending there, else
    // in a new run. True when they were stored and the cache is not full afterwards.
    bool writeDataWithStartPos(std::uint64_t startPos, const std::uint8_t* data, std::size_t size);
    bool writeDataWithStartPos(std::uint64_t startPos, const std::vector<std::uint8_t>& data) {
        return writeDataWithStartPos(startPos, data.data(), data.size());
    }
    // The first run in list order holding the byte at `offset`, or none.
    std::shared_ptr<CacheItem> findMatchItem(std::uint64_t offset);
    // Up to `maxLength` cached bytes from `offset` (to the end of its run), or absent.
    std::optional<std::vector<std::uint8_t>> readDataWithStartPos(std::uint64_t offset,
                                                                  std::uint64_t maxLength);
    // The run holding all of [offset, offset + length) opened for reading, or absent; counts as
    // a read of the run (and may evict afterwards, as reads do). While the descriptor is open the
    // file keeps the run's bytes, evicted or not.
    std::optional<CachedRun> openCachedRun(std::uint64_t offset, std::uint64_t length);
    std::uint64_t cachedSize() const;
    bool cacheFull() const;

    // Counts the writes so far; waitForWrite waits until the count passes `seen` or `timeout`
    // passes.
    std::uint64_t writeCount() const;
    void waitForWrite(std::uint64_t seen, std::chrono::milliseconds timeout);
    // Records that [offset, offset + size) was read from the cache elsewhere (from a run opened
    // with openCachedRun).
    void noteRead(std::uint64_t offset, std::uint64_t size);

    // Told of a fetch's progress: the media-file offset its last write ended at, and whether the
    // fetch has ended. Called on the fetch's thread with no lock of the cache held; once
    // removeWriteObserver has returned, never again.
    using WriteObserver = std::function<void(std::uint64_t writeEnd, bool fetchEnded)>;
    int addWriteObserver(WriteObserver observer);
    void removeWriteObserver(int id);
    // Tells the observers (and those waiting in waitForWrite) how a fetch got on; called by the
    // fetch without holding any lock.
    void publishWrite(std::uint64_t writeEnd, bool fetchEnded);

    std::uint64_t maxTotalCacheSize() const;
    std::uint64_t maxCacheItemSize() const;
    void setMaxTotalCacheSize(std::uint64_t bytes);
    void setMaxCacheItemSize(std::uint64_t bytes);
    std::uint64_t lastWriteEndOffset() const;
    bool lastWriteStatusFailed() const;
    // A snapshot of the runs in list order.
    std::vector<std::shared_ptr<CacheItem>> cacheItems() const;

  private:
    friend class CacheItem;
    // The folder exists and this process holds its lock; false when it cannot be made.
    bool ensureFolderLocked();
    void removeItem(const CacheItem* item);
    void evictAfterRead();
    // Makes room for a sequential fetch without stopping it: evicts runs read to their end,
    // oldest written first, except `writing`, until a quarter of the cached bytes is gone.
    void evictReadRuns(const CacheItem* writing);
    // Disposes of the oldest written runs `evictable` allows until a quarter of the cached bytes
    // is gone.
    void evictOldestQuarter(const std::function<bool(const CacheItem&)>& evictable);
    std::uint64_t cachedSizeLocked() const;
    bool cacheFullLocked() const;
    // Keeps an evicted run's file (of `size` bytes) as a spare when nothing reads from it and the
    // spares stay within what one eviction frees; false when the caller is to delete it.
    bool keepSpare(const std::string& path, std::uint64_t size);
    // Hands a spare over to `path` (renamed); false with `err` EEXIST when `path` is taken, else
    // when there is no spare.
    bool takeSpare(const std::string& path, int& err);
    void dropSpares();

    mutable std::recursive_mutex mutex_;
    std::condition_variable_any written_;
    std::uint64_t writeCount_ = 0;
    std::uint64_t maxTotalCacheSize_ = kDefaultMaxTotalCacheSize;
    std::uint64_t maxCacheItemSize_ = kDefaultMaxCacheItemSize;
    std::uint64_t lastWriteEndOffset_ = 0;
    bool lastWriteStatusFailed_ = false;
    std::vector<std::shared_ptr<CacheItem>> cacheItems_;
    int folderFd_ = -1;
    std::string lockedFolder_;
    struct Spare {
        std::string path;
        std::uint64_t size = 0;
    };
    std::vector<Spare> spares_;
    std::uint64_t nextSpare_ = 0;
    std::mutex observersMutex_;
    std::vector<std::pair<int, WriteObserver>> observers_;
    int nextObserverId_ = 1;
};

}  // namespace quillon
