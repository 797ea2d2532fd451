#pragma once
// CachedDataReader: the one shared reader of the file being streamed. A read is answered from the
// disk data cache when it holds the bytes; near the position where a running fetch is writing it
// waits for them to arrive; otherwise it starts a new fetch there (a TransferOperation on the
// queue "CachedDataFetchingQueue") and returns the fetch's first block. Switching to another file
// stops the fetches and empties the cache.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "core/Wrapper.h"
#include "servers/streaming/DiskDataCache.h"
#include "servers/streaming/OperationQueue.h"

namespace quillon {

class CachedDataReader {
  public:
    static constexpr std::uint64_t kNearWriteWindow = 5242880;       // 5 MiB either side
    static constexpr int kWaitsForRunningFetch = 3;                  // of one second each
    static constexpr std::int64_t kThumbnailFetchLength = 10485760;  // 10 MiB
    static constexpr const char* kQueueName = "CachedDataFetchingQueue";

    // The shared reader, first switched to the file when it reads another one: unfinished
    // fetches are told to finish after their quick return, the cache is emptied, and the queue
    // runs 5 fetches at once, or 1 for FTP and SFTP servers (one connection each).
    static std::shared_ptr<CachedDataReader> sharedWithServerInfo(const ServerInfoPtr& serverInfo,
                                                                  const KvMetadata& meta);
    // Up to `length` bytes from `offset`: from the cache, after waiting for a running fetch that
    // is about to write them, or from a new fetch's first block. Empty when nothing came, when
    // `stop` became true, or when the shared reader has moved to another file meanwhile.
    Bytes readData(std::uint64_t length, std::uint64_t offset, bool forThumbnail,
                   const std::function<bool()>& stop = {});
    // When the cache holds all of [offset, offset + length) of this reader's file: that run
    // opened for reading.
    std::optional<CachedRun> openCachedRun(std::uint64_t offset, std::uint64_t length);
    // Records that [offset, offset + size) of this reader's file was read from such a run.
    void noteRead(std::uint64_t offset, std::uint64_t size);

    // Cancels every fetch (unstarted ones never run).
    static void cancelAllBackgroundFetching();
    // True while any fetch is executing.
    static bool fetchingIsRunning();
    static OperationQueue& fetchingQueue();

    const ServerInfoPtr& serverInfo() const { return serverInfo_; }
    const KvMetadata& metadata() const { return metadata_; }
    bool allowMultiConn() const { return allowMultiConn_; }
    // Set once the shared reader has moved to another file.
    bool cancelled() const { return cancelled_; }

  private:
    CachedDataReader(ServerInfoPtr serverInfo, KvMetadata meta);
    // Whether the reader serves the file of this record.
    bool reads(const ServerInfo& server, const KvMetadata& meta) const;
    Bytes startFetch(std::uint64_t length, std::uint64_t offset, bool forThumbnail,
                     const std::function<bool()>& stop);

    ServerInfoPtr serverInfo_;
    KvMetadata metadata_;
    std::atomic<bool> cancelled_{false};
    bool allowMultiConn_ = true;
};

}  // namespace quillon
