#include "nearby/NearbySocketReceiver.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "core/MainQueue.h"
#include "core/PathUtils.h"
#include "core/StringUtils.h"
#include "nearby/NearbyUtils.h"
#include "transfer/FileTransferUtils.h"

namespace quillon {

using asio::ip::tcp;

namespace {
// Large reads keep a fast sender from waiting on us; commands are far shorter.
constexpr std::size_t kReadSize = 256 * 1024;
}  // namespace

std::shared_ptr<NearbySocketReceiver> NearbySocketReceiver::create(NearbyReceiverOptions options) {
    return std::shared_ptr<NearbySocketReceiver>(new NearbySocketReceiver(std::move(options)));
}

NearbySocketReceiver::NearbySocketReceiver(NearbyReceiverOptions options)
    : options_(std::move(options)), stopTimer_(queue_.context()), buffer_(kReadSize) {}

NearbySocketReceiver::~NearbySocketReceiver() {
    // No handler holds the receiver any more; a partial file is ours to remove.
    discardPartialFile(std::nullopt);
    asio::error_code ec;
    if (serverSocket_) serverSocket_->close(ec);
    if (connectedSocket_) connectedSocket_->close(ec);
}

void NearbySocketReceiver::setDelegate(std::weak_ptr<NearbySocketReceiverDelegate> delegate) {
    std::lock_guard lock(delegateMutex_);
    delegate_ = std::move(delegate);
}

template <typename Call>
void NearbySocketReceiver::tellDelegate(Call call) {
    std::weak_ptr<NearbySocketReceiverDelegate> delegate;
    {
        std::lock_guard lock(delegateMutex_);
        delegate = delegate_;
    }
    MainQueue::shared().post([self = shared_from_this(), delegate, call = std::move(call)] {
        if (auto d = delegate.lock()) call(*d, *self);
    });
}

Status NearbySocketReceiver::start() {
    if (running_) return {};
    auto fail = [this](const std::string& address, const asio::error_code& ec) {
        return KvError::fail(
            ErrorDomain::NearbyFileTransfer, ec.value(),
            fmt::format("Cannot listen on {} port {}: {}", address, options_.port, ec.message()));
    };
    if (options_.port < 0 || options_.port > 65535)
        return KvError::fail(ErrorDomain::NearbyFileTransfer, -1,
                             fmt::format("Invalid port {}", options_.port));
    auto open = [this](const asio::ip::address& address, tcp::acceptor& acceptor) {
        asio::error_code ec;
        tcp::endpoint endpoint(address, static_cast<unsigned short>(options_.port));
        acceptor.open(endpoint.protocol(), ec);
        if (!ec && address.is_v6()) acceptor.set_option(asio::ip::v6_only(false), ec);
        if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
        if (!ec) acceptor.bind(endpoint, ec);
        if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
        if (ec) {
            asio::error_code ignored;
            acceptor.close(ignored);
        }
        return ec;
    };
    tcp::acceptor acceptor(queue_.context());
    if (options_.bindAddress.empty()) {
        // Every interface: IPv6 with IPv4 mapped, or IPv4 alone where IPv6 is off.
        if (open(asio::ip::address_v6::any(), acceptor))
            if (auto ec = open(asio::ip::address_v4::any(), acceptor)) return fail("0.0.0.0", ec);
    } else {
        asio::error_code ec;
        auto address = asio::ip::make_address(options_.bindAddress, ec);
        if (ec)
            return KvError::fail(ErrorDomain::NearbyFileTransfer, -1,
                                 fmt::format("Invalid address {}", options_.bindAddress));
        if ((ec = open(address, acceptor))) return fail(options_.bindAddress, ec);
    }
    asio::error_code ec;
    port_ = acceptor.local_endpoint(ec).port();
    running_ = true;
    auto listening = std::make_shared<tcp::acceptor>(std::move(acceptor));
    queue_.post([self = shared_from_this(), listening] {
        self->serverSocket_.emplace(std::move(*listening));
        self->accept();
    });
    return {};
}

void NearbySocketReceiver::stop() {
    queue_.post([self = shared_from_this()] { self->stopNow(); });
}

void NearbySocketReceiver::stopNow() {
    ++generation_;
    stopTimer_.cancel();
    discardPartialFile(std::nullopt);
    asio::error_code ec;
    if (serverSocket_) serverSocket_->close(ec);
    serverSocket_.reset();
    if (connectedSocket_) connectedSocket_->close(ec);
    connectedSocket_.reset();
    port_ = 0;
    running_ = false;
}

void NearbySocketReceiver::accept() {
    if (!serverSocket_) return;
    serverSocket_->async_accept(
        asio::bind_executor(queue_.strand(), [weak = weak_from_this(), generation = generation_](
                                                 asio::error_code ec, tcp::socket socket) {
            auto me = weak.lock();
            if (!me || generation != me->generation_ || !me->serverSocket_) return;
            if (ec) {
                if (ec == asio::error::operation_aborted) return;
                // Out of descriptors, or a connection that died in the queue: try again shortly.
                auto retry = std::make_shared<asio::steady_timer>(me->queue_.context(),
                                                                  std::chrono::milliseconds(100));
                retry->async_wait(asio::bind_executor(
                    me->queue_.strand(), [weak, generation, retry](asio::error_code) {
                        auto again = weak.lock();
                        if (again && generation == again->generation_) again->accept();
                    }));
                return;
            }
            // A newer connection replaces the one before; its unfinished file is dropped.
            if (me->connectedSocket_) {
                me->discardPartialFile(std::nullopt);
                asio::error_code ignored;
                me->connectedSocket_->close(ignored);
            }
            asio::error_code ignored;
            socket.set_option(tcp::no_delay(true), ignored);  // replies are short and awaited
            me->connectedSocket_ = std::make_shared<tcp::socket>(std::move(socket));
            me->read(me->connectedSocket_, CommandTag);
            me->tellDelegate([](NearbySocketReceiverDelegate& d, NearbySocketReceiver& r) {
                d.receiverDidChangeState(r, 2);
            });
            me->accept();
        }));
}

void NearbySocketReceiver::read(const SocketPtr& socket, Tag tag) {
    std::size_t size = buffer_.size();
    // Data reads stop at the announced size, so the "STORE_COMPLETED" that follows is read as a
    // command even when the sender's pause was too short for a slow disk. An empty file keeps
    // the protocol's own behaviour: its first read is taken as data, whatever it holds.
    if (tag == DataTag && ftMeta_ && ftMeta_->fileSize > receivedDataLength_)
        size = static_cast<std::size_t>(std::min<std::int64_t>(
            static_cast<std::int64_t>(size), ftMeta_->fileSize - receivedDataLength_));
    socket->async_read_some(
        asio::buffer(buffer_.data(), size),
        asio::bind_executor(queue_.strand(), [weak = weak_from_this(), socket, tag](
                                                 asio::error_code ec, std::size_t n) {
            auto me = weak.lock();
            if (!me || socket != me->connectedSocket_) return;
            if (ec) {
                me->connectionDropped(socket);
                return;
            }
            if (tag == DataTag)
                me->didReadData(socket, n);
            else
                me->didReadCommand(socket, std::string(me->buffer_.data(), n));
        }));
}

void NearbySocketReceiver::didReadData(const SocketPtr& socket, std::size_t n) {
    receivedDataLength_ += static_cast<std::int64_t>(n);
    if (fileHandle_ >= 0) {
        // Write errors are swallowed; the bytes still count as received.
        std::size_t done = 0;
        while (done < n) {
            ssize_t w = ::write(fileHandle_, buffer_.data() + done, n - done);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) break;
            done += static_cast<std::size_t>(w);
        }
    }
    if (progress_)
        progress_->setCompletedUnitCount(progress_->completedUnitCount() +
                                         static_cast<std::int64_t>(n));
    bool more = ftMeta_ && receivedDataLength_ < ftMeta_->fileSize;
    read(socket, more ? DataTag : CommandTag);
}

void NearbySocketReceiver::didReadCommand(const SocketPtr& socket, const std::string& command) {
    // The exact test comes first: "STORE_COMPLETED" also begins with "STORE".
    if (command == NearbyProtocol::STORE_COMPLETED) {
        handleStoreCompleted(socket);
    } else if (StringUtils::startsWith(command, NearbyProtocol::STORE)) {
        handleStore(socket, command);
    } else if (command == NearbyProtocol::DISCONNECT) {
        sendResponse(NearbyProtocol::RESPONSE_DISCONNECT, socket);
        stopTimer_.expires_after(NearbyProtocol::kStopDelay);
        stopTimer_.async_wait(asio::bind_executor(
            queue_.strand(),
            [weak = weak_from_this(), generation = generation_](asio::error_code ec) {
                auto me = weak.lock();
                if (!me || ec || generation != me->generation_) return;
                me->stopNow();
                me->tellDelegate([](NearbySocketReceiverDelegate& d, NearbySocketReceiver& r) {
                    d.receiverDidStop(r);
                });
            }));
        read(socket, CommandTag);
    }
    // Anything else: no reply and no further read; the connection goes quiet.
}

std::optional<std::string> NearbySocketReceiver::refusalReason(
    const NearbyTransferMetadata& meta) const {
    if (auto reason = NearbyUtils::unsafeNameReason(meta.name)) return reason;
    if (meta.fileSize < 0) return std::string("the size is negative");
    auto size = static_cast<std::uint64_t>(meta.fileSize);
    for (const auto& folder : {PathUtils::getAppTempPath(), options_.targetFolder}) {
        if (folder.empty()) continue;
        if (size > FileTransferUtils::totalFreeDiskSpace(folder))
            return fmt::format("{} has not enough free space for {} bytes", folder, size);
    }
    return std::nullopt;
}

void NearbySocketReceiver::handleStore(const SocketPtr& socket, const std::string& command) {
    // A STORE in the middle of a file drops that file.
    discardPartialFile(std::nullopt);
    ftMeta_ = NearbyProtocol::parseStoreCommand(command);
    receivedDataLength_ = 0;
    progress_.reset();
    std::string refusal;
    if (!ftMeta_) {
        refusal = "the command has fewer than four parts or unreadable numbers";
    } else if (auto reason = refusalReason(*ftMeta_)) {
        refusal = *reason;
        ftMeta_.reset();
    } else {
        fileHandle_ = createNewFileHandle(*ftMeta_);
        if (fileHandle_ < 0) {
            refusal = fmt::format("cannot create {}: {}", filePath_, std::strerror(errno));
        } else {
            fileHandedOver_ = false;
            progress_ = std::make_shared<TransferProgress>();
            progress_->setTotalUnitCount(ftMeta_->fileSize);
        }
    }
    if (fileHandle_ < 0) {
        sendResponse(NearbyProtocol::RESPONSE_STORE_ERROR, socket);
        auto name = command;
        if (auto parsed = NearbyProtocol::parseStoreCommand(command)) name = parsed->name;
        tellDelegate([name, refusal](NearbySocketReceiverDelegate& d, NearbySocketReceiver& r) {
            d.receiverDidRefuseResource(r, name, refusal);
        });
        read(socket, CommandTag);
        return;
    }
    sendResponse(NearbyProtocol::RESPONSE_STORE_OK, socket);
    tellDelegate([name = ftMeta_->name, progress = progress_](NearbySocketReceiverDelegate& d,
                                                              NearbySocketReceiver& r) {
        d.receiverDidStartReceivingResource(r, name, progress);
    });
    read(socket, DataTag);
}

void NearbySocketReceiver::handleStoreCompleted(const SocketPtr& socket) {
    if (fileHandle_ >= 0) ::close(fileHandle_);
    fileHandle_ = -1;
    if (ftMeta_ && !fileHandedOver_) {
        fileHandedOver_ = true;
        struct stat st {};
        if (ftMeta_->lastModified && ::stat(filePath_.c_str(), &st) == 0) {
            auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                ftMeta_->lastModified->time_since_epoch());
            struct timespec times[2] = {{0, UTIME_OMIT}, {seconds.count(), 0}};
            (void)::utimensat(AT_FDCWD, filePath_.c_str(), times, 0);
        }
        tellDelegate([name = ftMeta_->name, path = filePath_](NearbySocketReceiverDelegate& d,
                                                              NearbySocketReceiver& r) {
            d.receiverDidFinishReceivingResource(r, name, path, std::nullopt);
        });
    }
    sendResponse(NearbyProtocol::RESPONSE_STORE_COMPLETED, socket);
    read(socket, CommandTag);
}

int NearbySocketReceiver::createNewFileHandle(const NearbyTransferMetadata& meta) {
    // A file of the same name may still wait for the main queue to save it (a/x then b/x), so
    // an existing temporary file is left alone and the new one takes a free name beside it.
    std::string folder = PathUtils::getAppTempPath();
    std::string name = StringUtils::lastPathComponent(meta.name);
    filePath_ = folder + "/" + name;
    for (int attempt = 0; attempt < 100; ++attempt) {
        int fd = ::open(filePath_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0 || errno != EEXIST) return fd;
        filePath_ = FileTransferUtils::uniqueFilePathInFolder(folder, name);
    }
    errno = EEXIST;
    return -1;
}

void NearbySocketReceiver::sendResponse(std::string_view response, const SocketPtr& socket) {
    auto text = std::make_shared<std::string>(response);
    asio::async_write(*socket, asio::buffer(*text),
                      asio::bind_executor(queue_.strand(), [text](asio::error_code, std::size_t) {
                          // A failed write shows as a failed read.
                      }));
}

void NearbySocketReceiver::connectionDropped(const SocketPtr& socket) {
    discardPartialFile(
        KvError::errorWithDomain(ErrorDomain::NearbyFileTransfer, ErrorCode::TransferFailed,
                                 "The sender closed the connection before the file was complete."));
    asio::error_code ec;
    socket->close(ec);
    if (socket == connectedSocket_) connectedSocket_.reset();
}

void NearbySocketReceiver::discardPartialFile(const std::optional<Error>& error) {
    if (fileHandle_ >= 0) ::close(fileHandle_);
    fileHandle_ = -1;
    if (fileHandedOver_) return;
    fileHandedOver_ = true;
    if (!filePath_.empty()) ::unlink(filePath_.c_str());
    if (progress_) progress_->cancel();
    if (error && ftMeta_)
        tellDelegate([name = ftMeta_->name, path = filePath_, error](
                         NearbySocketReceiverDelegate& d, NearbySocketReceiver& r) {
            d.receiverDidFinishReceivingResource(r, name, path, error);
        });
}

}  // namespace quillon
