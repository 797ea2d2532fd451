#pragma once
// TransferOperation: one queued ranged read that fills the disk data cache for streaming. It
// reads the remote file from its start offset to the end (or to its maximum length) through a
// fresh client, writes every block into the cache, and hands its first block back at once to the
// reader that is waiting for it ("quick return"). Marked to finish after the quick return, it
// stops writing and ends at its next block.

#include <cstdint>
#include <functional>
#include <mutex>

#include "core/GCD.h"
#include "core/Wrapper.h"
#include "servers/streaming/OperationQueue.h"

namespace quillon {

class DiskDataCache;

class TransferOperation : public Operation {
  public:
    static constexpr std::size_t kQuickReturnSize = 61440;
    static constexpr std::int64_t kSmallReadLimit = 5242880;  // 5 MiB
    static constexpr double kQuickReturnTimeOutSec = 5.0;

    // A read of `meta` on `serverInfo` from `startOff`; `maxLen` below 0 means to the end.
    TransferOperation(ServerInfoPtr serverInfo, KvMetadata meta, std::int64_t startOff,
                      std::int64_t maxLen, DiskDataCache& cache);

    // Marks the operation to finish after its quick return, cancels it, and cancels and drops its
    // client (which ends the remote read).
    void cancel() override;
    // Waits for the first block (at most quickReturnTimeOutSec, or until `stop` is true) and
    // returns what arrived: the first block, or less (even nothing) when the read ended or the
    // wait gave up. An operation marked to finish after the quick return is cancelled then.
    Bytes readQuickReturnData(const std::function<bool()>& stop = {});
    void setFinishOperationAfterQuickReturned(bool finish);
    bool finishOperationAfterQuickReturned() const;
    // Waits until the read has ended; false after `seconds` without that.
    bool waitUntilTransferFinished(double seconds);

    std::int64_t startOffset() const { return startOffset_; }
    std::int64_t maxReadLength() const { return maxReadLength_; }
    std::int64_t readedCnt() const;

  protected:
    void main() override;

  private:
    // A client for the server with the file opened for streaming, or none.
    WrapperPtr makeWrapper();
    // The read handler: false stops the read.
    bool receive(const Bytes& chunk);

    ServerInfoPtr serverInfo_;
    KvMetadata metadata_;
    std::int64_t maxReadLength_;
    std::int64_t startOffset_;
    DiskDataCache& cache_;
    mutable std::mutex mutex_;  // the operation's lock: the read handler and the flags below
    bool finishOperationAfterQuickReturned_ = false;
    WrapperPtr wp_;
    std::int64_t readedCnt_ = 0;
    SemaphorePtr transferFinishedSema_;
    SemaphorePtr quickReturnFinishedSema_;
    double quickReturnTimeOutSec_ = kQuickReturnTimeOutSec;
    bool quickReturnFinished_ = false;
    std::size_t quickReturnSize_ = kQuickReturnSize;
    Bytes quickReturnData_;
};

}  // namespace quillon
