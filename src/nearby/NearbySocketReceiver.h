#pragma once
// NearbySocketReceiver: the receiving side of the socket protocol. It listens (port 4713 on every
// interface by default), keeps one connection (a newer one replaces it), writes each announced
// file to the program's temporary folder and tells its delegate on the main queue; the delegate
// saves the file. Socket work runs on the receiver's own serial queue, "receiver_delegate_queue".
//
// Beyond the protocol, a STORE is answered "RESPONSE_STORE ERROR" when its name could escape the
// target folder (an empty component, "." or "..", a leading "/", a NUL or another control
// character) or when the temporary or the target folder has too little free space for its size.

#include <asio.hpp>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "nearby/NearbyQueue.h"
#include "nearby/NearbyTransferMetadata.h"
#include "transfer/ProgressObserver.h"

namespace quillon {

class NearbySocketReceiver;

// Every call comes on the main queue.
class NearbySocketReceiverDelegate {
  public:
    virtual ~NearbySocketReceiverDelegate() = default;
    // State 2 when a sender connects.
    virtual void receiverDidChangeState(NearbySocketReceiver& receiver, int state) = 0;
    // A STORE was accepted; the progress counts the bytes as they come.
    virtual void receiverDidStartReceivingResource(
        NearbySocketReceiver& receiver, const std::string& name,
        const std::shared_ptr<TransferProgress>& progress) = 0;
    // "STORE_COMPLETED" arrived: the file waits at `filePath` (a temporary file) to be saved. An
    // error when the connection ended before the file was complete (nothing waits then).
    virtual void receiverDidFinishReceivingResource(NearbySocketReceiver& receiver,
                                                    const std::string& name,
                                                    const std::string& filePath,
                                                    const std::optional<Error>& error) = 0;
    // A STORE was answered "RESPONSE_STORE ERROR"; `name` is as announced, or the whole command.
    virtual void receiverDidRefuseResource(NearbySocketReceiver&, const std::string& /*name*/,
                                           const std::string& /*reason*/) {}
    // The receiver stopped 2 s after "DISCONNECT".
    virtual void receiverDidStop(NearbySocketReceiver&) {}
};

struct NearbyReceiverOptions {
    std::string bindAddress;           // empty: every interface, IPv6 and IPv4
    int port = NearbyProtocol::kPort;  // 0 picks a free one
    std::string targetFolder;          // where received files are saved (free space is checked)
};

class NearbySocketReceiver : public std::enable_shared_from_this<NearbySocketReceiver> {
  public:
    static constexpr const char* kQueueName = "receiver_delegate_queue";

    static std::shared_ptr<NearbySocketReceiver> create(NearbyReceiverOptions options = {});
    ~NearbySocketReceiver();
    NearbySocketReceiver(const NearbySocketReceiver&) = delete;
    NearbySocketReceiver& operator=(const NearbySocketReceiver&) = delete;

    // The delegate is held weakly.
    void setDelegate(std::weak_ptr<NearbySocketReceiverDelegate> delegate);
    // Listens and accepts; fails when the address or port cannot be opened.
    [[nodiscard]] Status start();
    // Closes the file (a partial one is removed), the connection and the listening socket.
    void stop();
    bool isRunning() const { return running_.load(); }
    // The port listened on (the chosen one when started with port 0); 0 when not running.
    int listeningPort() const { return port_.load(); }
    const NearbyQueue& queue() const { return queue_; }

  private:
    enum Tag { CommandTag = 1, DataTag = 2 };
    using SocketPtr = std::shared_ptr<asio::ip::tcp::socket>;

    explicit NearbySocketReceiver(NearbyReceiverOptions options);
    void accept();
    void read(const SocketPtr& socket, Tag tag);
    void didReadData(const SocketPtr& socket, std::size_t n);
    void didReadCommand(const SocketPtr& socket, const std::string& command);
    void handleStore(const SocketPtr& socket, const std::string& command);
    void handleStoreCompleted(const SocketPtr& socket);
    // Opens a new temporary file for the announced name; -1 when it cannot be created.
    int createNewFileHandle(const NearbyTransferMetadata& meta);
    // Why the announced file is refused, or nothing.
    std::optional<std::string> refusalReason(const NearbyTransferMetadata& meta) const;
    void sendResponse(std::string_view response, const SocketPtr& socket);
    void connectionDropped(const SocketPtr& socket);
    // Closes the file; removes it when it never reached the delegate.
    void discardPartialFile(const std::optional<Error>& error);
    void stopNow();
    template <typename Call>
    void tellDelegate(Call call);

    NearbyReceiverOptions options_;
    NearbyQueue queue_{kQueueName};
    std::mutex delegateMutex_;
    std::weak_ptr<NearbySocketReceiverDelegate> delegate_;
    std::optional<asio::ip::tcp::acceptor> serverSocket_;
    SocketPtr connectedSocket_;
    asio::steady_timer stopTimer_;
    std::optional<NearbyTransferMetadata> ftMeta_;
    int fileHandle_ = -1;
    bool fileHandedOver_ = true;  // the current file reached the delegate (or there is none)
    std::shared_ptr<TransferProgress> progress_;
    std::int64_t receivedDataLength_ = 0;
    std::string filePath_;
    std::vector<char> buffer_;
    std::atomic<bool> running_{false};
    std::atomic<int> port_{0};
    std::uint64_t generation_ = 0;  // bumped by each stop, so a late accept is dropped
};

}  // namespace quillon
