#include "servers/streaming/TransferOperation.h"

#include "core/WrapperProxy.h"
#include "servers/streaming/DiskDataCache.h"

namespace quillon {

TransferOperation::TransferOperation(ServerInfoPtr serverInfo, KvMetadata meta,
                                     std::int64_t startOff, std::int64_t maxLen,
                                     DiskDataCache& cache)
    : serverInfo_(std::move(serverInfo)),
      metadata_(std::move(meta)),
      maxReadLength_(maxLen),
      startOffset_(startOff),
      cache_(cache),
      transferFinishedSema_(GCD::initSema()),
      quickReturnFinishedSema_(GCD::initSema()) {}

WrapperPtr TransferOperation::makeWrapper() {
    // A client of its own, on a copy of the record: clients note what they learn in it.
    auto wp = WrapperProxy::wrapperWithServerInfo(std::make_shared<ServerInfo>(*serverInfo_));
    if (!wp || !wp->capabilities().readFromOffsetToEnd) return nullptr;
    if (!wp->initStreamFileMeta(metadata_)) return nullptr;
    return wp;
}

void TransferOperation::main() {
    WrapperPtr wp = makeWrapper();
    {
        std::lock_guard lock(mutex_);
        if (isCancelled()) wp.reset();
        wp_ = wp;
        if (maxReadLength_ > 0 && maxReadLength_ < kSmallReadLimit)
            quickReturnSize_ = static_cast<std::size_t>(maxReadLength_);
    }
    if (wp) {
        if (maxReadLength_ < 0 || maxReadLength_ > kSmallReadLimit) {
            std::uint64_t size = wp->contentLength();
            if (size == 0 && metadata_.fileSizeInBytes) size = *metadata_.fileSizeInBytes;
            cache_.calcMaxCacheSize(size);
        }
        (void)wp->readDataFromOffsetToEnd(startOffset_, [this](const Bytes& chunk) {
            bool more = receive(chunk);
            // Outside the operation's lock: those waiting for the bytes take locks of their own.
            cache_.publishWrite(static_cast<std::uint64_t>(startOffset_ + readedCnt()), false);
            return more;
        });
    }
    cache_.publishWrite(static_cast<std::uint64_t>(startOffset_ + readedCnt()), true);
    GCD::signalSema(transferFinishedSema_);
    // A reader still waiting for the first block gets what there is.
    GCD::signalSema(quickReturnFinishedSema_);
    std::lock_guard lock(mutex_);
    wp_.reset();
}

bool TransferOperation::receive(const Bytes& chunk) {
    std::lock_guard lock(mutex_);
    if (isCancelled() || chunk.empty()) return false;
    bool written = true;
    if (!finishOperationAfterQuickReturned_) {
        written = cache_.writeDataWithStartPos(
            static_cast<std::uint64_t>(startOffset_ + readedCnt_), chunk);
        readedCnt_ += static_cast<std::int64_t>(chunk.size());
    }
    if (!quickReturnFinished_) {
        if (quickReturnData_.size() < quickReturnSize_)
            quickReturnData_.insert(quickReturnData_.end(), chunk.begin(), chunk.end());
        if (quickReturnData_.size() >= quickReturnSize_ && !isCancelled()) {
            GCD::signalSema(quickReturnFinishedSema_);
            quickReturnFinished_ = true;
        }
    }
    // A maximum length of exactly 0 stops after the first block, as meant.
    return written && !finishOperationAfterQuickReturned_ &&
           (maxReadLength_ < 0 || readedCnt_ < maxReadLength_);
}

Bytes TransferOperation::readQuickReturnData(const std::function<bool()>& stop) {
    using namespace std::chrono;
    auto deadline = steady_clock::now() +
                    duration_cast<steady_clock::duration>(duration<double>(quickReturnTimeOutSec_));
    // The wait is cut into short slices so that a reader whose player went away stops soon.
    while (true) {
        auto left = duration<double>(deadline - steady_clock::now()).count();
        if (left <= 0) break;
        if (GCD::waitSema(quickReturnFinishedSema_, std::min(left, 0.05))) {
            GCD::signalSema(quickReturnFinishedSema_);  // later waiters pass too
            break;
        }
        if (stop && stop()) break;
    }
    Bytes data;
    bool cancelNow = false;
    {
        std::lock_guard lock(mutex_);
        quickReturnFinished_ = true;
        data = quickReturnData_;
        cancelNow = finishOperationAfterQuickReturned_;
    }
    if (cancelNow) cancel();
    return data;
}

void TransferOperation::cancel() {
    WrapperPtr wp;
    {
        std::lock_guard lock(mutex_);
        finishOperationAfterQuickReturned_ = true;
        Operation::cancel();
        wp = std::move(wp_);
        wp_.reset();
    }
    if (wp) wp->cancelOperation();
    // A reader waiting for the first block of an operation that never starts must not wait on.
    GCD::signalSema(quickReturnFinishedSema_);
}

void TransferOperation::setFinishOperationAfterQuickReturned(bool finish) {
    std::lock_guard lock(mutex_);
    finishOperationAfterQuickReturned_ = finish;
}

bool TransferOperation::finishOperationAfterQuickReturned() const {
    std::lock_guard lock(mutex_);
    return finishOperationAfterQuickReturned_;
}

bool TransferOperation::waitUntilTransferFinished(double seconds) {
    if (!GCD::waitSema(transferFinishedSema_, seconds)) return false;
    GCD::signalSema(transferFinishedSema_);
    return true;
}

std::int64_t TransferOperation::readedCnt() const {
    std::lock_guard lock(mutex_);
    return readedCnt_;
}

}  // namespace quillon
