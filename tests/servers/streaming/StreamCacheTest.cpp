// The disk data cache and the byte pipe of streaming: runs grow, split and are capped; a full
// cache evicts the oldest written runs after a read, and runs read through on a write; a run whose
// file vanished is dropped and reported; switching files empties the folder; the pipe's bound and
// its stall rule.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "StreamTestKit.h"
#include "servers/streaming/CachedDataReader.h"
#include "servers/streaming/DiskDataCache.h"
#include "servers/streaming/ThreadSafeByteQueue.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;
using namespace test;

constexpr std::uint64_t kMiB = 1048576;

bool write(DiskDataCache& cache, std::uint64_t offset, std::uint64_t size) {
    auto bytes = patternBytes(offset, size);
    return cache.writeDataWithStartPos(offset, bytes);
}

std::vector<std::string> runs(DiskDataCache& cache) {
    std::vector<std::string> out;
    for (auto& item : cache.cacheItems()) out.push_back(item->description());
    return out;
}

TEST(StreamCache, RunsGrowSplitAreCheckedAndEvictOldestWritesFirst) {
    IsolatedHome home;
    LogCapture log;
    auto& cache = DiskDataCache::shared();
    cache.clearCache();
    cache.setMaxTotalCacheSize(kMiB);
    cache.setMaxCacheItemSize(1000);

    // Sequential writes extend one run, a jump starts another, and a run at its cap is followed
    // by a new one at the same boundary.
    EXPECT_TRUE(write(cache, 0, 600));
    EXPECT_TRUE(write(cache, 600, 400));
    EXPECT_TRUE(write(cache, 5000, 100));
    EXPECT_TRUE(write(cache, 1000, 10));
    EXPECT_EQ(runs(cache), (std::vector<std::string>{"(0, 1000)", "(5000, 5100)", "(1000, 1010)"}));
    EXPECT_EQ(cache.lastWriteEndOffset(), 1010u);
    // Each run is one file "c<seconds since 1970>" holding exactly its bytes.
    for (auto& item : cache.cacheItems()) {
        ASSERT_TRUE(item->cacheFilePath);
        EXPECT_TRUE(std::regex_match(fs::path(*item->cacheFilePath).filename().string(),
                                     std::regex(R"(c\d{10}\.\d{6})")));
        EXPECT_EQ(readFile(*item->cacheFilePath), patternString(item->startPos, item->length));
    }
    // A read stops at the end of its run.
    EXPECT_EQ(cache.readDataWithStartPos(990, 100), patternBytes(990, 10));
    EXPECT_FALSE(cache.readDataWithStartPos(1010, 10));

    // A run whose file was removed behind the cache's back is reported and dropped.
    auto gone = *cache.findMatchItem(1000)->cacheFilePath;
    fs::remove(gone);
    EXPECT_FALSE(cache.readDataWithStartPos(1000, 10));
    EXPECT_TRUE(log.has("[DEBUG]cache item corrupted, maybe the system clean up temp file."));
    EXPECT_TRUE(log.has("[DEBUG]Path=" + gone + ", FileSize=0, cacheIdxLength=10"));
    EXPECT_EQ(runs(cache), (std::vector<std::string>{"(0, 1000)", "(5000, 5100)"}));

    // A file below 2.5 GiB gets 256 MiB of cache in runs of 64 MiB. Four full runs fill it; the
    // first write of a fifth finds it full. The run at 300 MiB was written first and read last:
    // eviction goes by write time, so it goes first, then the run at 0.
    cache.clearCache();
    EXPECT_TRUE(fs::is_empty(DiskDataCache::cacheFolder()));
    cache.calcMaxCacheSize(1024 * kMiB);
    EXPECT_EQ(cache.maxTotalCacheSize(), 256 * kMiB);
    EXPECT_EQ(cache.maxCacheItemSize(), 64 * kMiB);
    const std::uint64_t block = 4 * kMiB;
    std::vector<bool> results;
    for (std::uint64_t base : {300 * kMiB, 0 * kMiB, 100 * kMiB, 200 * kMiB})
        for (std::uint64_t at = base; at < base + 64 * kMiB; at += block)
            results.push_back(write(cache, at, block));
    EXPECT_EQ(std::count(results.begin(), results.end(), false), 1);
    EXPECT_FALSE(results.back());
    EXPECT_TRUE(cache.cacheFull());
    EXPECT_FALSE(write(cache, 400 * kMiB, block));
    EXPECT_FALSE(log.has("[DEBUG]Clear 1/4 oldest caches"));
    EXPECT_EQ(cache.readDataWithStartPos(300 * kMiB + 5, 100), patternBytes(300 * kMiB + 5, 100));
    EXPECT_TRUE(log.has("[DEBUG] Last write err or cache full, clear some oldest caches"));
    EXPECT_TRUE(log.has("[DEBUG]Clear 1/4 oldest caches"));
    EXPECT_EQ(runs(cache),
              (std::vector<std::string>{"(104857600, 171966464)", "(209715200, 276824064)",
                                        "(419430400, 423624704)"}));
    EXPECT_FALSE(cache.cacheFull());

    // A fetch its reader keeps up with is not stopped by a full cache: runs read to their end
    // make room, oldest written first; runs not read through stay, however old, and when only
    // those are left a full cache stops the fetch as before.
    cache.clearCache();
    cache.setMaxTotalCacheSize(4000);
    cache.setMaxCacheItemSize(1000);
    EXPECT_TRUE(write(cache, 9000, 1000));
    for (std::uint64_t at = 0; at < 2000; at += 500) EXPECT_TRUE(write(cache, at, 500));
    EXPECT_EQ(cache.readDataWithStartPos(0, 1000), patternBytes(0, 1000));
    cache.noteRead(1000, 999);
    EXPECT_TRUE(write(cache, 2000, 1000));
    EXPECT_EQ(runs(cache),
              (std::vector<std::string>{"(9000, 10000)", "(1000, 2000)", "(2000, 3000)"}));
    EXPECT_FALSE(write(cache, 3000, 1000));  // the run at 1000 lacks its last byte
    cache.noteRead(1999, 1);
    cache.noteRead(2000, 1000);
    EXPECT_TRUE(write(cache, 4000, 1000));
    EXPECT_EQ(runs(cache),
              (std::vector<std::string>{"(9000, 10000)", "(3000, 4000)", "(4000, 5000)"}));

    // The file of a run evicted that way is written over by the next new run, which never shows
    // a byte of its former run (the stale bytes past it are a different part of the pattern):
    // neither while it grows nor once its fetch ended and its file holds exactly the run again.
    cache.clearCache();
    cache.setMaxCacheItemSize(2000);
    EXPECT_TRUE(write(cache, 0, 2000));
    auto former = *cache.findMatchItem(0)->cacheFilePath;
    struct stat formerStat {};
    ASSERT_EQ(::stat(former.c_str(), &formerStat), 0);
    cache.noteRead(0, 2000);
    EXPECT_TRUE(write(cache, 2000, 2000));  // full: the run at 0 was read through and goes
    EXPECT_FALSE(fs::exists(former));
    EXPECT_TRUE(write(cache, 10000, 700));
    auto reused = *cache.findMatchItem(10000)->cacheFilePath;
    struct stat reusedStat {};
    ASSERT_EQ(::stat(reused.c_str(), &reusedStat), 0);
    EXPECT_EQ(reusedStat.st_ino, formerStat.st_ino);
    EXPECT_EQ(cache.readDataWithStartPos(10000, 5000), patternBytes(10000, 700));
    EXPECT_FALSE(cache.readDataWithStartPos(10700, 10));
    EXPECT_TRUE(write(cache, 10700, 300));
    EXPECT_EQ(cache.readDataWithStartPos(10500, 5000), patternBytes(10500, 500));
    cache.publishWrite(11000, true);
    EXPECT_EQ(readFile(reused), patternString(10000, 1000));
    EXPECT_EQ(runs(cache), (std::vector<std::string>{"(2000, 4000)", "(10000, 11000)"}));
    std::vector<std::string> files;
    for (auto& entry : fs::directory_iterator(DiskDataCache::cacheFolder()))
        files.push_back(entry.path().string());
    EXPECT_EQ(files.size(), 2u);
    // A reused file grown behind the cache's back is still caught by the size check.
    {
        std::ofstream grow(reused, std::ios::binary | std::ios::app);
        grow << std::string(500, 'x');
    }
    EXPECT_TRUE(write(cache, 11000, 100));
    EXPECT_FALSE(cache.readDataWithStartPos(11000, 10));
    EXPECT_TRUE(log.has("[DEBUG]Path=" + reused + ", FileSize=1600, cacheIdxLength=1100"));

    // A run evicted while an answer still sends it from its file (a descriptor openCachedRun
    // handed out) keeps its bytes there: its file is not the one the next run writes over.
    cache.clearCache();
    EXPECT_TRUE(write(cache, 0, 2000));
    auto sending = cache.openCachedRun(0, 2000);
    ASSERT_TRUE(sending);
    cache.noteRead(0, 2000);
    EXPECT_TRUE(write(cache, 2000, 2000));
    EXPECT_TRUE(write(cache, 10000, 1000));
    std::vector<std::uint8_t> sent(2000);
    EXPECT_EQ(::pread(sending->fd, sent.data(), sent.size(), 0), 2000);
    ::close(sending->fd);
    EXPECT_EQ(sent, patternBytes(0, 2000));

    // The shared reader switching to another file empties the folder completely; FTP fetches
    // run one at a time, SMB ones five.
    auto ftp = std::make_shared<ServerInfo>();
    ftp->protocolType = ProtocolType::FTP;
    auto a = CachedDataReader::sharedWithServerInfo(ftp, KvMetadata("/a.mp4"));
    EXPECT_FALSE(a->allowMultiConn());
    EXPECT_EQ(CachedDataReader::fetchingQueue().maxConcurrentOperationCount(), 1);
    EXPECT_TRUE(write(cache, 0, 100));
    EXPECT_EQ(CachedDataReader::sharedWithServerInfo(ftp, KvMetadata("/a.mp4")), a);
    EXPECT_FALSE(fs::is_empty(DiskDataCache::cacheFolder()));
    auto smb = std::make_shared<ServerInfo>();
    smb->protocolType = ProtocolType::SMB;
    auto b = CachedDataReader::sharedWithServerInfo(smb, KvMetadata("/b.mp4"));
    EXPECT_TRUE(a->cancelled());
    EXPECT_TRUE(b->allowMultiConn());
    EXPECT_EQ(CachedDataReader::fetchingQueue().maxConcurrentOperationCount(), 5);
    EXPECT_TRUE(fs::is_empty(DiskDataCache::cacheFolder()));
    EXPECT_TRUE(a->readData(10, 0, false).empty());
}

TEST(StreamCache, ByteQueueIsBoundedAndAStallCancelsIt) {
    using Queue = ThreadSafeByteQueue;
    const std::vector<std::uint8_t> chunk(100 * 1024, 7);

    // A push waits while 256 KiB are held, and goes on once the reader takes some.
    {
        Queue q(std::chrono::seconds(60));
        std::vector<bool> pushed;
        std::thread producer([&] {
            for (int i = 0; i < 4; ++i) pushed.push_back(q.push(chunk));
        });
        while (q.size() < 3 * chunk.size()) std::this_thread::yield();
        auto taken = q.pop(chunk.size());
        producer.join();
        ASSERT_TRUE(taken);
        EXPECT_EQ(taken->size(), chunk.size());
        EXPECT_EQ(pushed, (std::vector<bool>{true, true, true, true}));
        EXPECT_EQ(q.size(), 3 * chunk.size());
    }
    // Nobody reading for the whole stall limit cancels the queue; what it held still comes out.
    {
        Queue q(std::chrono::milliseconds(200));
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(q.push(chunk));
        EXPECT_FALSE(q.push(chunk));
        EXPECT_TRUE(q.cancelled());
        EXPECT_EQ(q.size(), 3 * chunk.size());
        EXPECT_EQ(q.pop(1 << 20)->size(), 3 * chunk.size());
        EXPECT_FALSE(q.pop(1));
    }
    // An empty queue gives nothing after the producer's last bytes, and cancels itself when
    // nothing comes for the stall limit.
    {
        Queue q(std::chrono::milliseconds(200));
        EXPECT_TRUE(q.push({1, 2, 3}));
        q.setNoMoreDataFlag();
        EXPECT_EQ(q.pop(2), (std::vector<std::uint8_t>{1, 2}));
        EXPECT_EQ(q.pop(2), (std::vector<std::uint8_t>{3}));
        EXPECT_FALSE(q.pop(2));
        EXPECT_FALSE(q.cancelled());
        Queue idle(std::chrono::milliseconds(200));
        EXPECT_FALSE(idle.pop(10));
        EXPECT_TRUE(idle.cancelled());
        EXPECT_FALSE(idle.push(chunk));
        Queue reset;
        reset.push(chunk);
        reset.reset();
        EXPECT_EQ(reset.size(), 0u);
        EXPECT_FALSE(reset.pop(10));
    }
}

}  // namespace
}  // namespace quillon
