#pragma once
// NearbyController: what the nearby window does, without the window. It keeps the device list
// from DNS-SD, sends batches of files to a device over the socket protocol (one connection per
// batch, the first file 0.4 s after connecting, the next when the last one completed,
// "DISCONNECT" at the end, the batch ends at the first error), receives files while the user asks
// for it, and saves each received file under a unique name in the chosen folder.
//
// Use it on the main thread. Its events reach the faces as notifications on the main queue, each
// with the controller under NEARBY_CONTROLLER so that a face can tell controllers apart.

#include <asio.hpp>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "core/MainQueue.h"
#include "nearby/NearbyDiscovery.h"
#include "nearby/NearbySocketReceiver.h"
#include "nearby/NearbySocketSender.h"

namespace quillon {

// The device list changed.
inline constexpr std::string_view NEARBY_DEVICES_CHANGED_NOTIFICATION =
    "NEARBY_DEVICES_CHANGED_NOTIFICATION";
// A transfer item changed (NEARBY_ITEM; NEARBY_ERROR when it failed or was refused).
inline constexpr std::string_view NEARBY_ITEM_CHANGED_NOTIFICATION =
    "NEARBY_ITEM_CHANGED_NOTIFICATION";
// A batch being sent ended (NEARBY_ERROR when it failed).
inline constexpr std::string_view NEARBY_BATCH_ENDED_NOTIFICATION =
    "NEARBY_BATCH_ENDED_NOTIFICATION";
// Receiving ended by itself (a single batch was asked for and it is over).
inline constexpr std::string_view NEARBY_RECEIVING_ENDED_NOTIFICATION =
    "NEARBY_RECEIVING_ENDED_NOTIFICATION";
// Publishing or browsing failed (NEARBY_ERROR); the window shows it with an "OK" button.
inline constexpr std::string_view NEARBY_DISCOVERY_FAILED_NOTIFICATION =
    "NEARBY_DISCOVERY_FAILED_NOTIFICATION";
// User-info keys: const NearbyController*, std::shared_ptr<const NearbyTransferMetadata>, Error.
inline constexpr std::string_view NEARBY_CONTROLLER = "NEARBY_CONTROLLER";
inline constexpr std::string_view NEARBY_ITEM = "NEARBY_ITEM";
inline constexpr std::string_view NEARBY_ERROR = "NEARBY_ERROR";

// One device in the list.
struct NearbyPeerItem {
    std::string hostname;                     // the name shown
    std::optional<NearbyService> netService;  // how to reach it over the socket transport
};

struct NearbyReceiveOptions {
    std::string folder;       // where files are saved; empty: the "Nearby Location" setting
    std::string bindAddress;  // empty: every interface
    int port = NearbyProtocol::kPort;
    bool publish = true;  // announce this machine over DNS-SD
    bool once = false;    // stop after the first batch
};

class NearbyController : public std::enable_shared_from_this<NearbyController>,
                         public NearbySocketReceiverDelegate {
  public:
    enum class NearbyType { Sending = 0, Receiving = 1 };
    using ItemPtr = std::shared_ptr<NearbyTransferMetadata>;

    static constexpr double kSocketStartDelay = 0.4;  // seconds from connection to first file
    // How long a device name is looked for before the name is tried as a host name.
    static constexpr double kDeviceSearchSeconds = 8.0;

    static std::shared_ptr<NearbyController> create();
    ~NearbyController() override;

    // The files of local items, in order: links skipped, folders walked (each file named by its
    // path from the folder's parent), plain files by their names. Fails with
    // "nearby.cannot_transfer_files" when an item lives on a connection, 10008 when one is missing.
    [[nodiscard]] static Result<std::vector<NearbyTransferMetadata>> getAllItems(
        const KvMetadataList& items);
    // Moves a received file to its place below the receive folder: subfolders of the name are
    // created (never through a link), the name is made unique against the folder's listing, an
    // existing file is never replaced. Returns the final path.
    [[nodiscard]] Result<std::string> saveReceivedFile(const std::string& filePath,
                                                       const std::string& resourceName);

    // Browses for devices (the device list and NEARBY_DEVICES_CHANGED_NOTIFICATION follow).
    // Fails when no DNS-SD daemon can be reached.
    [[nodiscard]] Status startBrowsing();
    void stopBrowsing();
    const std::vector<NearbyPeerItem>& devices() const { return devices_; }
    // The error that keeps discovery from working, if any.
    const std::optional<Error>& discoveryError() const { return discoveryError_; }

    // Listens for senders and, with `publish`, announces this machine. Receiving goes on across
    // batches until stopReceiving(), or ends after one batch with `once`.
    [[nodiscard]] Status startReceiving(const NearbyReceiveOptions& options);
    void stopReceiving();
    bool isReceiving() const { return receiver_ != nullptr; }
    int receivingPort() const { return receiver_ ? receiver_->listeningPort() : 0; }
    const std::string& receiveFolder() const { return receiveFolder_; }

    // Sends the items to `target`: a device name from the list (looked for a few seconds when
    // not there yet), an IP address with an optional ":PORT", or a host name. The batch runs on;
    // NEARBY_BATCH_ENDED_NOTIFICATION tells its end. Fails at once when nothing can be sent.
    [[nodiscard]] Status sendItems(const KvMetadataList& items, const std::string& target);
    [[nodiscard]] Status sendItems(const KvMetadataList& items,
                                   const asio::ip::tcp::endpoint& target);
    bool isSending() const { return batchActive_; }
    // The user stops the batch: the file in flight is cancelled and the connection closed.
    void stopBatch();

    // Every item sent or received, in order.
    const std::vector<ItemPtr>& transferItems() const { return items_; }
    NearbyType nearbyType() const { return nearbyType_; }

    // Receiver delegate (main queue).
    void receiverDidChangeState(NearbySocketReceiver& receiver, int state) override;
    void receiverDidStartReceivingResource(
        NearbySocketReceiver& receiver, const std::string& name,
        const std::shared_ptr<TransferProgress>& progress) override;
    void receiverDidFinishReceivingResource(NearbySocketReceiver& receiver, const std::string& name,
                                            const std::string& filePath,
                                            const std::optional<Error>& error) override;
    void receiverDidRefuseResource(NearbySocketReceiver& receiver, const std::string& name,
                                   const std::string& reason) override;
    void receiverDidStop(NearbySocketReceiver& receiver) override;

  private:
    class ItemWatch;
    NearbyController() = default;

    Status ensureDiscovery();
    void deviceFound(const NearbyService& service);
    void deviceLost(const std::string& name);
    void discoveryFailed(const Error& error);
    void publishWhenNamed();
    Status prepareBatch(const KvMetadataList& items);
    void resolveTarget(const std::string& target);
    void resolveHostName(const std::string& target, const std::optional<Error>& why);
    void connect(const asio::ip::tcp::endpoint& endpoint);
    void didConnect(const Status& status);
    void nextItem();
    void itemCompleted(const ItemPtr& item, const std::optional<Error>& error);
    void senderDisconnected(const std::optional<Error>& error);
    void endBatch(const std::optional<Error>& error);
    std::shared_ptr<ItemWatch> watch(const ItemPtr& item,
                                     const std::shared_ptr<TransferProgress>& progress,
                                     bool completionFinishes);
    void post(std::string_view name, const ItemPtr& item = nullptr,
              const std::optional<Error>& error = std::nullopt);

    NearbyType nearbyType_ = NearbyType::Sending;
    std::vector<NearbyPeerItem> devices_;
    std::vector<ItemPtr> items_;
    std::unique_ptr<NearbyDiscovery> discovery_;
    std::optional<Error> discoveryError_;
    bool browsing_ = false;

    // Receiving.
    std::shared_ptr<NearbySocketReceiver> receiver_;
    NearbyReceiveOptions receiveOptions_;
    std::string receiveFolder_;
    ItemPtr receivingItem_;

    // Sending.
    std::shared_ptr<NearbySocketSender> sender_;
    std::deque<ItemPtr> pending_;
    ItemPtr current_;
    std::shared_ptr<ItemWatch> currentWatch_, receivingWatch_;
    bool batchActive_ = false;
    bool batchStopped_ = false;
    bool disconnectRequested_ = false;
    std::string pendingTarget_;  // a device name being looked for
    std::optional<MainQueue::TimerId> targetTimer_, startTimer_;
};

}  // namespace quillon
