#include "servers/streaming/CachedDataReader.h"

#include <chrono>

#include "servers/streaming/TransferOperation.h"

namespace quillon {

namespace {

// Guards the shared reader, its switches, and each reader's cache reads and fetch starts, so that
// nothing of the previous file reaches the cache after a switch.
std::mutex& readerMutex() {
    static std::mutex m;
    return m;
}

std::shared_ptr<CachedDataReader>& sharedReader() {
    static std::shared_ptr<CachedDataReader> reader;
    return reader;
}

std::vector<std::shared_ptr<TransferOperation>> fetches() {
    std::vector<std::shared_ptr<TransferOperation>> out;
    for (auto& op : CachedDataReader::fetchingQueue().operations())
        if (auto t = std::dynamic_pointer_cast<TransferOperation>(op)) out.push_back(std::move(t));
    return out;
}

}  // namespace

CachedDataReader::CachedDataReader(ServerInfoPtr serverInfo, KvMetadata meta)
    : serverInfo_(std::move(serverInfo)), metadata_(std::move(meta)) {
    // One connection per server for these kinds: a second fetch would only wait for it.
    allowMultiConn_ = serverInfo_->protocolType != ProtocolType::FTP &&
                      serverInfo_->protocolType != ProtocolType::SFTP;
}

OperationQueue& CachedDataReader::fetchingQueue() {
    // Never destroyed: fetches may still run while the process exits.
    static OperationQueue* queue = new OperationQueue(kQueueName, 5);
    return *queue;
}

bool CachedDataReader::reads(const ServerInfo& server, const KvMetadata& meta) const {
    return serverInfo_->serverID == server.serverID &&
           serverInfo_->protocolType == server.protocolType && metadata_.path() == meta.path() &&
           metadata_.fileSizeInBytes == meta.fileSizeInBytes &&
           metadata_.timestamp == meta.timestamp;
}

std::shared_ptr<CachedDataReader> CachedDataReader::sharedWithServerInfo(
    const ServerInfoPtr& serverInfo, const KvMetadata& meta) {
    std::lock_guard lock(readerMutex());
    auto& reader = sharedReader();
    if (reader && reader->reads(*serverInfo, meta)) return reader;
    for (auto& op : fetches()) op->setFinishOperationAfterQuickReturned(true);
    DiskDataCache::shared().clearCache();
    if (reader) reader->cancelled_ = true;
    // The reader keeps a copy of the record: clients note what they learn in theirs.
    reader = std::shared_ptr<CachedDataReader>(
        new CachedDataReader(std::make_shared<ServerInfo>(*serverInfo), meta));
    fetchingQueue().setMaxConcurrentOperationCount(reader->allowMultiConn_ ? 5 : 1);
    return reader;
}

Bytes CachedDataReader::readData(std::uint64_t length, std::uint64_t offset, bool forThumbnail,
                                 const std::function<bool()>& stop) {
    auto& cache = DiskDataCache::shared();
    auto stopped = [&] { return cancelled_ || (stop && stop()); };
    // Absent on a miss; empty once this reader is stale.
    auto fromCache = [&]() -> std::optional<Bytes> {
        std::lock_guard lock(readerMutex());
        if (cancelled_) return Bytes{};
        return cache.readDataWithStartPos(offset, length);
    };
    if (auto data = fromCache()) return std::move(*data);

    // A running fetch writing near the offset is about to bring the bytes: wait for them rather
    // than open another connection. Each write wakes the wait, so the bytes go out as they land.
    auto lastEnd = cache.lastWriteEndOffset();
    auto distance = offset > lastEnd ? offset - lastEnd : lastEnd - offset;
    if (fetchingIsRunning() && distance <= kNearWriteWindow) {
        using Clock = std::chrono::steady_clock;
        for (int wait = 0; wait < kWaitsForRunningFetch; ++wait) {
            auto deadline = Clock::now() + std::chrono::seconds(1);
            bool running = true;
            while (running && Clock::now() < deadline) {
                auto seen = cache.writeCount();
                // Sampled before the look into the cache: a fetch that ended before it has
                // written all it will.
                running = fetchingIsRunning();
                if (auto data = fromCache()) return std::move(*data);
                if (stopped()) return {};
                auto left =
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
                if (running)
                    cache.waitForWrite(seen, std::min(left, std::chrono::milliseconds(50)));
            }
            if (!running) break;
        }
    }
    if (stopped()) return {};
    return startFetch(length, offset, forThumbnail, stop);
}

Bytes CachedDataReader::startFetch(std::uint64_t length, std::uint64_t offset, bool forThumbnail,
                                   const std::function<bool()>& stop) {
    std::shared_ptr<TransferOperation> op;
    {
        std::lock_guard lock(readerMutex());
        if (cancelled_) return {};
        for (auto& running : fetches()) running->cancel();
        op = std::make_shared<TransferOperation>(
            serverInfo_, metadata_, static_cast<std::int64_t>(offset),
            forThumbnail ? kThumbnailFetchLength : -1, DiskDataCache::shared());
        fetchingQueue().addOperation(op);
    }
    auto stopped = [&] { return cancelled_ || (stop && stop()); };
    Bytes data = op->readQuickReturnData(stopped);
    if (stopped()) {
        // Whoever asked has gone (the player seeked away): its fetch must not keep the connection.
        op->cancel();
        return {};
    }
    if (data.size() > length) data.resize(static_cast<std::size_t>(length));
    return data;
}

std::optional<CachedRun> CachedDataReader::openCachedRun(std::uint64_t offset,
                                                         std::uint64_t length) {
    std::lock_guard lock(readerMutex());
    if (cancelled_ || length == 0) return std::nullopt;
    return DiskDataCache::shared().openCachedRun(offset, length);
}

void CachedDataReader::noteRead(std::uint64_t offset, std::uint64_t size) {
    std::lock_guard lock(readerMutex());
    if (!cancelled_) DiskDataCache::shared().noteRead(offset, size);
}

void CachedDataReader::cancelAllBackgroundFetching() {
    for (auto& op : fetchingQueue().operations()) op->cancel();
    fetchingQueue().cancelAllOperations();
}

bool CachedDataReader::fetchingIsRunning() {
    for (auto& op : fetchingQueue().operations())
        if (op->isExecuting()) return true;
    return false;
}

}  // namespace quillon
