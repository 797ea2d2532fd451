#pragma once
// NearbySocketSender: the sending side of the socket protocol over one TCP connection. Per file:
// "STORE ...", the reply, the bytes in 32768-byte chunks with one write outstanding, a 0.25 s
// pause, "STORE_COMPLETED" and its reply; "DISCONNECT" ends the batch. Every handler runs on the
// sender's own serial queue, "sender_delegate_queue".

#include <asio.hpp>

#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "nearby/NearbyQueue.h"
#include "nearby/NearbyTransferMetadata.h"
#include "transfer/ProgressObserver.h"

namespace quillon {

class NearbySocketSender : public std::enable_shared_from_this<NearbySocketSender> {
  public:
    using ConnectedHandler = std::function<void(const Status&)>;
    using CompleteHandler = std::function<void(const std::optional<Error>&)>;
    using DisconnectedHandler = std::function<void(const std::optional<Error>&)>;

    static constexpr const char* kQueueName = "sender_delegate_queue";

    static std::shared_ptr<NearbySocketSender> create();
    // Closes the file and the connection.
    ~NearbySocketSender();
    NearbySocketSender(const NearbySocketSender&) = delete;
    NearbySocketSender& operator=(const NearbySocketSender&) = delete;

    // Connects to the receiver; `handler` gets success, or the reason the connection failed.
    void connectHost(const asio::ip::tcp::endpoint& address, ConnectedHandler handler);
    // Announces and streams one file; returns its progress (total = fileSize). `handler` gets no
    // error once the receiver stored the file, 10002 "Failed to send file!" when it refused it,
    // and 10001 "Cannot open file!" when the source cannot be opened; the STORE is sent all the
    // same and its data phase then ends at once, as other machines expect.
    std::shared_ptr<TransferProgress> startToSendFile(const NearbyTransferMetadata& meta,
                                                      CompleteHandler handler);
    // Writes the text as it is, with no terminator.
    void sendCommand(std::string command);
    // Sends "DISCONNECT" and reads the reply, which closes the connection.
    void requestDisconnect();
    void disconnect();
    void closeFileHandle();
    // Called once when the connection ends: no error after "RESPONSE_DISCONNECT" or disconnect(),
    // else the reason (the receiver went away). A file in flight then fails with it too.
    void setDisconnectedHandler(DisconnectedHandler handler);

    const NearbyQueue& queue() const { return queue_; }

  private:
    enum Tag { CommandTag = 0, DataTag = 1 };
    struct PendingWrite {
        std::string text;  // a command; data writes point into chunk_
        std::size_t dataSize = 0;
        Tag tag = CommandTag;
    };

    NearbySocketSender();
    void startFile(const NearbyTransferMetadata& meta, CompleteHandler handler,
                   std::shared_ptr<TransferProgress> progress);
    void enqueue(PendingWrite write);
    void writeNext();
    void readCommand();
    void didReadReply(const std::string& reply);
    void sendChunk();
    void finishData();
    void complete(const std::optional<Error>& error);
    void connectionEnded(const std::optional<Error>& error);
    void closeNow();

    NearbyQueue queue_{kQueueName};
    std::optional<asio::ip::tcp::socket> clientSocket_;
    asio::steady_timer pauseTimer_;
    ConnectedHandler connectedHandler_;
    CompleteHandler completeHandler_;
    DisconnectedHandler disconnectedHandler_;
    NearbyTransferMetadata ftMeta_;
    std::shared_ptr<TransferProgress> progress_;
    int fileHandle_ = -1;
    std::int64_t sentBytes_ = 0;
    bool fileInFlight_ = false;
    bool closing_ = false;
    bool ended_ = false;
    bool reading_ = false;
    bool writing_ = false;
    std::deque<PendingWrite> writes_;
    std::vector<char> chunk_;
    std::array<char, 4096> reply_{};
};

}  // namespace quillon
