#include "nearby/NearbySocketSender.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quillon {

using asio::ip::tcp;

namespace {
Error nearbyError(long code, std::string_view reason) {
    return KvError::errorWithDomain(ErrorDomain::NearbyFileTransfer, code, reason);
}
}  // namespace

std::shared_ptr<NearbySocketSender> NearbySocketSender::create() {
    return std::shared_ptr<NearbySocketSender>(new NearbySocketSender());
}

NearbySocketSender::NearbySocketSender()
    : pauseTimer_(queue_.context()), chunk_(NearbyProtocol::kChunkSize) {}

NearbySocketSender::~NearbySocketSender() {
    // No handler holds the sender any more: pending ones find it gone and return.
    if (fileHandle_ >= 0) ::close(fileHandle_);
    asio::error_code ec;
    if (clientSocket_) clientSocket_->close(ec);
    pauseTimer_.cancel();
}

void NearbySocketSender::setDisconnectedHandler(DisconnectedHandler handler) {
    queue_.post([self = shared_from_this(), handler = std::move(handler)]() mutable {
        self->disconnectedHandler_ = std::move(handler);
    });
}

void NearbySocketSender::connectHost(const tcp::endpoint& address, ConnectedHandler handler) {
    queue_.post([self = shared_from_this(), address, handler = std::move(handler)]() mutable {
        self->connectedHandler_ = std::move(handler);
        self->clientSocket_.emplace(self->queue_.context());
        self->clientSocket_->async_connect(
            address, asio::bind_executor(self->queue_.strand(), [weak = self->weak_from_this(),
                                                                 address](asio::error_code ec) {
                auto me = weak.lock();
                if (!me || me->closing_) return;
                if (!ec) {
                    asio::error_code ignored;
                    me->clientSocket_->set_option(tcp::no_delay(true), ignored);
                }
                auto handler = std::exchange(me->connectedHandler_, nullptr);
                if (ec) {
                    me->clientSocket_.reset();
                    me->ended_ = true;
                    if (handler)
                        handler(std::unexpected(
                            nearbyError(ErrorCode::TransferFailed,
                                        fmt::format("Cannot connect to {} port {}: {}",
                                                    address.address().to_string(), address.port(),
                                                    ec.message()))));
                    return;
                }
                if (handler) handler({});
            }));
    });
}

std::shared_ptr<TransferProgress> NearbySocketSender::startToSendFile(
    const NearbyTransferMetadata& meta, CompleteHandler handler) {
    auto progress = std::make_shared<TransferProgress>();
    progress->setTotalUnitCount(meta.fileSize);
    queue_.post(
        [self = shared_from_this(), meta, handler = std::move(handler), progress]() mutable {
            self->startFile(meta, std::move(handler), std::move(progress));
        });
    return progress;
}

void NearbySocketSender::startFile(const NearbyTransferMetadata& meta, CompleteHandler handler,
                                   std::shared_ptr<TransferProgress> progress) {
    ftMeta_ = meta;
    completeHandler_ = std::move(handler);
    progress_ = std::move(progress);
    sentBytes_ = 0;
    fileInFlight_ = true;
    closeFileHandle();
    fileHandle_ = ::open(meta.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fileHandle_ < 0 && completeHandler_)
        completeHandler_(nearbyError(ErrorCode::NoPermission, "Cannot open file!"));
    // The STORE goes out even without the file: the data phase then ends at once.
    sendCommand(NearbyProtocol::storeCommand(meta));
    readCommand();
}

void NearbySocketSender::sendCommand(std::string command) {
    auto post = [self = shared_from_this(), command = std::move(command)]() mutable {
        self->enqueue({std::move(command), 0, CommandTag});
    };
    if (queue_.isCurrent())
        post();
    else
        queue_.post(std::move(post));
}

void NearbySocketSender::requestDisconnect() {
    queue_.post([self = shared_from_this()] {
        self->enqueue({std::string(NearbyProtocol::DISCONNECT), 0, CommandTag});
        self->readCommand();
    });
}

void NearbySocketSender::disconnect() {
    auto post = [self = shared_from_this()] { self->connectionEnded(std::nullopt); };
    if (queue_.isCurrent())
        post();
    else
        queue_.post(std::move(post));
}

void NearbySocketSender::closeFileHandle() {
    if (fileHandle_ >= 0) ::close(fileHandle_);
    fileHandle_ = -1;
}

void NearbySocketSender::enqueue(PendingWrite write) {
    if (!clientSocket_ || closing_) return;
    writes_.push_back(std::move(write));
    if (!writing_) writeNext();
}

void NearbySocketSender::writeNext() {
    if (writes_.empty() || !clientSocket_) return;
    writing_ = true;
    auto& w = writes_.front();
    auto buffer = w.tag == DataTag ? asio::buffer(chunk_.data(), w.dataSize) : asio::buffer(w.text);
    asio::async_write(
        *clientSocket_, buffer,
        asio::bind_executor(
            queue_.strand(), [weak = weak_from_this()](asio::error_code ec, std::size_t) {
                auto me = weak.lock();
                if (!me || me->closing_) return;
                me->writing_ = false;
                Tag tag = me->writes_.front().tag;
                me->writes_.pop_front();
                if (ec) {
                    me->connectionEnded(nearbyError(ErrorCode::TransferFailed,
                                                    "The connection to the receiver was lost."));
                    return;
                }
                // One data write outstanding: the next chunk follows this one's end.
                if (tag == DataTag) me->sendChunk();
                if (!me->writing_) me->writeNext();
            }));
}

void NearbySocketSender::readCommand() {
    if (!clientSocket_ || closing_ || reading_) return;
    reading_ = true;
    clientSocket_->async_read_some(
        asio::buffer(reply_),
        asio::bind_executor(
            queue_.strand(), [weak = weak_from_this()](asio::error_code ec, std::size_t n) {
                auto me = weak.lock();
                if (!me || me->closing_) return;
                me->reading_ = false;
                if (ec) {
                    me->connectionEnded(nearbyError(
                        ErrorCode::TransferFailed,
                        ec == asio::error::eof ? "The receiver closed the connection."
                                               : "The connection to the receiver was lost."));
                    return;
                }
                me->didReadReply(std::string(me->reply_.data(), n));
            }));
}

void NearbySocketSender::didReadReply(const std::string& reply) {
    if (reply == NearbyProtocol::RESPONSE_STORE_COMPLETED) {
        fileInFlight_ = false;
        complete(std::nullopt);
    } else if (reply == NearbyProtocol::RESPONSE_STORE_OK) {
        sendChunk();
    } else if (reply == NearbyProtocol::RESPONSE_STORE_ERROR) {
        fileInFlight_ = false;
        complete(nearbyError(ErrorCode::TransferFailed, "Failed to send file!"));
    } else if (reply == NearbyProtocol::RESPONSE_DISCONNECT) {
        connectionEnded(std::nullopt);
    }
    // Anything else is ignored, and no further read is posted.
}

void NearbySocketSender::sendChunk() {
    if (fileHandle_ < 0) {
        finishData();
        return;
    }
    // Never more than announced: a file that grew meanwhile would end in bytes the receiver
    // takes for a command.
    auto want = static_cast<std::size_t>(
        std::min<std::int64_t>(static_cast<std::int64_t>(chunk_.size()),
                               std::max<std::int64_t>(0, ftMeta_.fileSize - sentBytes_)));
    ssize_t n = 0;
    if (want > 0) {
        do n = ::read(fileHandle_, chunk_.data(), want);
        while (n < 0 && errno == EINTR);
    }
    if (n > 0) {
        sentBytes_ += n;
        enqueue({{}, static_cast<std::size_t>(n), DataTag});
        progress_->setCompletedUnitCount(progress_->completedUnitCount() + n);
        return;
    }
    if (n < 0 || sentBytes_ < ftMeta_.fileSize) {
        // The file shrank or cannot be read: the receiver would wait for the missing bytes for
        // ever, so the connection ends and it drops the partial file.
        int err = n < 0 ? errno : 0;
        closeFileHandle();
        complete(nearbyError(ErrorCode::TransferFailed,
                             fmt::format("{}: {}", ftMeta_.path,
                                         err ? std::strerror(err) : "the file became shorter")));
        fileInFlight_ = false;
        connectionEnded(std::nullopt);
        return;
    }
    finishData();
}

void NearbySocketSender::finishData() {
    progress_->setCompletedUnitCount(ftMeta_.fileSize);
    closeFileHandle();
    // The pause keeps "STORE_COMPLETED" out of the receiver's read of the last data bytes.
    pauseTimer_.expires_after(NearbyProtocol::kCompletionPause);
    pauseTimer_.async_wait(
        asio::bind_executor(queue_.strand(), [weak = weak_from_this()](asio::error_code ec) {
            auto me = weak.lock();
            if (!me || ec || me->closing_) return;
            me->enqueue({std::string(NearbyProtocol::STORE_COMPLETED), 0, CommandTag});
            me->readCommand();
        }));
}

void NearbySocketSender::complete(const std::optional<Error>& error) {
    if (completeHandler_) completeHandler_(error);
}

void NearbySocketSender::connectionEnded(const std::optional<Error>& error) {
    if (ended_) return;
    ended_ = true;
    closeNow();
    if (fileInFlight_) {
        fileInFlight_ = false;
        complete(error ? error
                       : nearbyError(ErrorCode::TransferFailed,
                                     "The connection closed before the file was sent."));
    }
    if (disconnectedHandler_) std::exchange(disconnectedHandler_, nullptr)(error);
}

void NearbySocketSender::closeNow() {
    closing_ = true;
    closeFileHandle();
    pauseTimer_.cancel();
    writes_.clear();
    if (clientSocket_) {
        asio::error_code ec;
        clientSocket_->shutdown(tcp::socket::shutdown_both, ec);
        clientSocket_->close(ec);
        clientSocket_.reset();
    }
}

}  // namespace quillon
