#include "nearby/NearbyController.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>

#include "clients/local/SandboxFileAccess.h"
#include "core/GCD.h"
#include "core/LocalizedUtils.h"
#include "core/NotificationCenter.h"
#include "core/PathUtils.h"
#include "core/ServerInfo.h"
#include "core/StringUtils.h"
#include "nearby/NearbyUtils.h"
#include "transfer/FileTransferUtils.h"

namespace quillon {

namespace fs = std::filesystem;

namespace {

Error nearbyError(long code, std::string_view reason) {
    return KvError::errorWithDomain(ErrorDomain::NearbyFileTransfer, code, reason);
}

std::chrono::nanoseconds seconds(double s) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(s));
}

NearbyTransferMetadata fileItem(const std::string& path, const std::string& name,
                                const struct stat& st) {
    NearbyTransferMetadata meta;
    meta.name = name;
    meta.path = path;
    meta.fileSize = static_cast<std::int64_t>(st.st_size);
    meta.lastModified = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(st.st_mtim.tv_sec) +
            std::chrono::nanoseconds(st.st_mtim.tv_nsec)));
    return meta;
}

std::string trimSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

// Follows one item's progress for the transfer list: a change copies the bytes done and marks
// it transferring, completion (of a file being sent) marks it finished, cancelling marks it
// failed. List updates happen on the main queue. It lives until the queue that moves the
// progress retires it, so no change can reach it half destroyed.
class NearbyController::ItemWatch : public ProgressObserverDelegate {
  public:
    ItemWatch(std::weak_ptr<NearbyController> controller, ItemPtr item,
              std::shared_ptr<TransferProgress> progress, bool completionFinishes)
        : controller_(std::move(controller)),
          item_(std::move(item)),
          completionFinishes_(completionFinishes),
          observer_(item_->name, std::move(progress)) {
        observer_.setDelegate(this);
    }
    ~ItemWatch() override { observer_.setDelegate(nullptr); }

    const std::shared_ptr<TransferProgress>& progress() const { return observer_.progress(); }

    void observerDidChange(ProgressObserver& observer) override {
        // Many changes between two turns of the main queue make one update.
        if (updatePending_->exchange(true)) return;
        update([progress = observer.progress(),
                pending = updatePending_](NearbyTransferMetadata& item) {
            pending->store(false);
            auto before = std::pair(item.transferredBytes, item.status);
            item.transferredBytes = progress->completedUnitCount();
            if (item.status == NearbyStatus::Waiting) item.status = NearbyStatus::Transferring;
            return before != std::pair(item.transferredBytes, item.status);
        });
    }
    void observerDidComplete(ProgressObserver& observer) override {
        if (!completionFinishes_) return;
        update([done = observer.progress()->completedUnitCount()](NearbyTransferMetadata& item) {
            if (item.status != NearbyStatus::Waiting && item.status != NearbyStatus::Transferring)
                return false;
            item.transferredBytes = done;
            item.status = NearbyStatus::Finished;
            return true;
        });
    }
    void observerDidCancel(ProgressObserver&) override {
        update([](NearbyTransferMetadata& item) {
            if (item.status != NearbyStatus::Waiting && item.status != NearbyStatus::Transferring)
                return false;
            item.status = NearbyStatus::Failed;
            return true;
        });
    }

  private:
    // `change` returns whether the item changed; only a change is announced.
    void update(std::function<bool(NearbyTransferMetadata&)> change) {
        MainQueue::shared().post(
            [controller = controller_, item = item_, change = std::move(change)] {
                if (!change(*item)) return;
                if (auto c = controller.lock()) c->post(NEARBY_ITEM_CHANGED_NOTIFICATION, item);
            });
    }

    std::weak_ptr<NearbyController> controller_;
    ItemPtr item_;
    bool completionFinishes_;
    std::shared_ptr<std::atomic<bool>> updatePending_ = std::make_shared<std::atomic<bool>>(false);
    ProgressObserver observer_;
};

namespace {
// Hands a watch to the queue that moves its progress, which destroys it after its last change.
template <typename Watch>
void retire(std::shared_ptr<Watch>& watch, const NearbyQueue& queue) {
    if (!watch) return;
    queue.post([w = std::move(watch)] {});
    watch.reset();
}
}  // namespace

std::shared_ptr<NearbyController> NearbyController::create() {
    return std::shared_ptr<NearbyController>(new NearbyController());
}

NearbyController::~NearbyController() {
    if (targetTimer_) MainQueue::shared().cancel(*targetTimer_);
    if (startTimer_) MainQueue::shared().cancel(*startTimer_);
    if (sender_) {
        sender_->disconnect();
        if (currentWatch_) {
            auto progress = currentWatch_->progress();
            sender_->queue().post([progress] { progress->cancel(); });
        }
        retire(currentWatch_, sender_->queue());
    }
    if (receiver_) {
        receiver_->stop();
        retire(receivingWatch_, receiver_->queue());
    }
}

void NearbyController::post(std::string_view name, const ItemPtr& item,
                            const std::optional<Error>& error) {
    UserInfo info;
    info[std::string(NEARBY_CONTROLLER)] = static_cast<const NearbyController*>(this);
    if (item) info[std::string(NEARBY_ITEM)] = std::shared_ptr<const NearbyTransferMetadata>(item);
    if (error) info[std::string(NEARBY_ERROR)] = *error;
    NotificationCenter::defaultCenter().post(name, info);
}

std::shared_ptr<NearbyController::ItemWatch> NearbyController::watch(
    const ItemPtr& item, const std::shared_ptr<TransferProgress>& progress,
    bool completionFinishes) {
    return std::make_shared<ItemWatch>(weak_from_this(), item, progress, completionFinishes);
}

// ---- Items -------------------------------------------------------------------------------

Result<std::vector<NearbyTransferMetadata>> NearbyController::getAllItems(
    const KvMetadataList& items) {
    for (const auto& item : items)
        if (item.protocolType != ProtocolType::Local)
            return std::unexpected(
                nearbyError(ErrorCode::TransferFailed,
                            LocalizedUtils::localizedStringForKey(
                                "nearby.cannot_transfer_files",
                                "Cannot transfer files that are stored on connection.")));
    std::vector<NearbyTransferMetadata> result;
    for (const auto& item : items) {
        std::string path = trimSlashes(item.localPath.value_or(item.pathOrEmpty()));
        struct stat st {};
        if (path.empty() || ::lstat(path.c_str(), &st) != 0)
            return KvError::fail(ErrorDomain::Local, ErrorCode::NotFound,
                                 fmt::format("{}: File not found!", path));
        if (S_ISLNK(st.st_mode)) continue;
        if (S_ISREG(st.st_mode)) {
            result.push_back(fileItem(path, StringUtils::lastPathComponent(path), st));
            continue;
        }
        if (!S_ISDIR(st.st_mode)) continue;  // devices, pipes and sockets have no bytes to send
        // Names start at the folder's parent, so the folder itself arrives with its contents.
        std::string parent = StringUtils::stringByDeletingLastPathComponentDirectly(path);
        std::vector<NearbyTransferMetadata> files;
        std::error_code ec;
        for (fs::recursive_directory_iterator it(path, ec), end; !ec && it != end;
             it.increment(ec)) {
            struct stat entry {};
            std::string p = it->path().string();
            if (::lstat(p.c_str(), &entry) != 0 || !S_ISREG(entry.st_mode)) continue;
            files.push_back(fileItem(p, p.substr(parent.size() + 1), entry));
        }
        if (ec)
            return KvError::fail(ErrorDomain::Local, ec.value(),
                                 fmt::format("{}: {}", path, ec.message()));
        std::sort(files.begin(), files.end(),
                  [](const auto& a, const auto& b) { return a.name < b.name; });
        result.insert(result.end(), files.begin(), files.end());
    }
    return result;
}

Result<std::string> NearbyController::saveReceivedFile(const std::string& filePath,
                                                       const std::string& resourceName) {
    std::string base = receiveFolder_.empty() ? NearbyUtils::getNearbyLocation() : receiveFolder_;
    std::error_code ec;
    if (!fs::is_directory(base, ec)) base = PathUtils::getDownloadFolderPath();
    if (auto reason = NearbyUtils::unsafeNameReason(resourceName))
        return KvError::fail(ErrorDomain::NearbyFileTransfer, ErrorCode::TransferFailed,
                             fmt::format("Refused \"{}\": {}", resourceName, *reason));
    SandboxFileAccess::ScopedAccess access(base);

    // Subfolders are created one by one; an existing link is never followed out of the folder.
    std::string folder = trimSlashes(base);
    auto slash = resourceName.rfind('/');
    std::string subfolders = slash == std::string::npos ? "" : resourceName.substr(0, slash);
    std::string name = resourceName.substr(slash == std::string::npos ? 0 : slash + 1);
    for (std::size_t start = 0; !subfolders.empty() && start <= subfolders.size();) {
        auto end = subfolders.find('/', start);
        if (end == std::string::npos) end = subfolders.size();
        folder += "/" + subfolders.substr(start, end - start);
        start = end + 1;
        struct stat st {};
        if (::lstat(folder.c_str(), &st) == 0) {
            if (!S_ISDIR(st.st_mode))
                return KvError::fail(ErrorDomain::Local, ENOTDIR,
                                     fmt::format("{}: not a folder", folder));
            continue;
        }
        if (::mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST)
            return KvError::fail(ErrorDomain::Local, errno,
                                 fmt::format("{}: {}", folder, std::strerror(errno)));
    }

    // The unique name follows getUniqueFileName's rule against the folder's entries. The folder
    // may change meanwhile: a name taken in between is never replaced, another is chosen.
    for (int attempt = 0; attempt < 20; ++attempt) {
        std::string target = FileTransferUtils::uniqueFilePathInFolder(folder, name);
        auto moved = SandboxFileAccess::moveItemFrom(filePath, target);
        if (moved) {
            UserInfo info;
            info[std::string(REFRESH_FOLDER_USER_INFO)] = std::vector<std::string>{folder};
            NotificationCenter::defaultCenter().post(REFRESH_FOLDER_NOTIFICATION, info);
            return target;
        }
        if (!moved.error().is(ErrorKind::AlreadyExists)) return std::unexpected(moved.error());
    }
    return KvError::fail(ErrorDomain::Local, EEXIST,
                         fmt::format("{}: no free name for {}", folder, name));
}

// ---- Discovery ---------------------------------------------------------------------------

Status NearbyController::ensureDiscovery() {
    if (discovery_) return {};
    std::weak_ptr<NearbyController> weak = weak_from_this();
    NearbyDiscovery::Events events;
    events.serviceFound = [weak](const NearbyService& s) {
        if (auto self = weak.lock()) self->deviceFound(s);
    };
    events.serviceLost = [weak](const std::string& name) {
        if (auto self = weak.lock()) self->deviceLost(name);
    };
    events.failed = [weak](const Error& e) {
        if (auto self = weak.lock()) self->discoveryFailed(e);
    };
    auto discovery = NearbyDiscovery::create(std::move(events));
    if (!discovery) {
        discoveryError_ = discovery.error();
        return std::unexpected(discovery.error());
    }
    discovery_ = std::move(*discovery);
    discoveryError_.reset();
    return {};
}

Status NearbyController::startBrowsing() {
    if (auto ready = ensureDiscovery(); !ready) return ready;
    if (auto browsing = discovery_->browse(); !browsing) {
        discoveryError_ = browsing.error();
        return browsing;
    }
    browsing_ = true;
    return {};
}

void NearbyController::stopBrowsing() {
    browsing_ = false;
    if (discovery_) discovery_->stopBrowsing();
    if (!devices_.empty()) {
        devices_.clear();
        post(NEARBY_DEVICES_CHANGED_NOTIFICATION);
    }
}

void NearbyController::deviceFound(const NearbyService& service) {
    auto it = std::find_if(devices_.begin(), devices_.end(),
                           [&](const NearbyPeerItem& p) { return p.hostname == service.name; });
    if (it != devices_.end()) return;  // listed once
    devices_.push_back({service.name, service});
    post(NEARBY_DEVICES_CHANGED_NOTIFICATION);
    if (!pendingTarget_.empty() && pendingTarget_ == service.name) resolveTarget(pendingTarget_);
}

void NearbyController::deviceLost(const std::string& name) {
    auto it = std::find_if(devices_.begin(), devices_.end(),
                           [&](const NearbyPeerItem& p) { return p.hostname == name; });
    if (it == devices_.end()) return;
    devices_.erase(it);
    post(NEARBY_DEVICES_CHANGED_NOTIFICATION);
}

void NearbyController::discoveryFailed(const Error& error) {
    discoveryError_ = error;
    post(NEARBY_DISCOVERY_FAILED_NOTIFICATION, nullptr, error);
    // A device being looked for will not turn up now.
    if (!pendingTarget_.empty()) resolveHostName(pendingTarget_, error);
}

void NearbyController::publishWhenNamed() {
    // Taking the display name may wait on the system, so it is done in the background.
    std::weak_ptr<NearbyController> weak = weak_from_this();
    GCD::doInBackground([weak] {
        auto name = NearbyUtils::localDisplayName();
        GCD::doInForeground([weak, name] {
            auto self = weak.lock();
            if (!self || !self->receiver_ || !self->discovery_) return;
            auto port = static_cast<std::uint16_t>(self->receiver_->listeningPort());
            if (auto published = self->discovery_->publish(name, port); !published)
                self->discoveryFailed(published.error());
        });
    });
}

// ---- Receiving ---------------------------------------------------------------------------

Status NearbyController::startReceiving(const NearbyReceiveOptions& options) {
    if (receiver_) return {};
    receiveOptions_ = options;
    receiveFolder_ = options.folder.empty() ? NearbyUtils::getNearbyLocation() : options.folder;
    std::error_code ec;
    if (!fs::is_directory(receiveFolder_, ec))
        return KvError::fail(ErrorDomain::Local, ErrorCode::NotFound,
                             fmt::format("{}: no such folder", receiveFolder_));
    NearbyReceiverOptions receiverOptions{options.bindAddress, options.port, receiveFolder_};
    auto receiver = NearbySocketReceiver::create(receiverOptions);
    receiver->setDelegate(weak_from_this());
    if (auto started = receiver->start(); !started) return started;
    receiver_ = std::move(receiver);
    // A restart after a batch keeps the port chosen the first time.
    receiveOptions_.port = receiver_->listeningPort();
    nearbyType_ = NearbyType::Receiving;
    if (options.publish) {
        if (auto ready = ensureDiscovery(); ready)
            publishWhenNamed();
        else
            post(NEARBY_DISCOVERY_FAILED_NOTIFICATION, nullptr, ready.error());
    }
    return {};
}

void NearbyController::stopReceiving() {
    if (discovery_) discovery_->stopPublishing();
    if (!receiver_) return;
    receiver_->stop();
    retire(receivingWatch_, receiver_->queue());
    receiver_.reset();
    receivingItem_.reset();
}

void NearbyController::receiverDidChangeState(NearbySocketReceiver&, int) {}

void NearbyController::receiverDidStartReceivingResource(
    NearbySocketReceiver& receiver, const std::string& name,
    const std::shared_ptr<TransferProgress>& progress) {
    retire(receivingWatch_, receiver.queue());
    auto item = std::make_shared<NearbyTransferMetadata>();
    item->name = name;
    item->fileSize = progress->totalUnitCount();
    item->status = NearbyStatus::Transferring;
    items_.push_back(item);
    receivingItem_ = item;
    receivingWatch_ = watch(item, progress, /*completionFinishes=*/false);
    post(NEARBY_ITEM_CHANGED_NOTIFICATION, item);
}

void NearbyController::receiverDidFinishReceivingResource(NearbySocketReceiver& receiver,
                                                          const std::string& name,
                                                          const std::string& filePath,
                                                          const std::optional<Error>& error) {
    retire(receivingWatch_, receiver.queue());
    ItemPtr item = receivingItem_;
    receivingItem_.reset();
    if (!item || item->name != name) {
        item = std::make_shared<NearbyTransferMetadata>();
        item->name = name;
        items_.push_back(item);
    }
    std::optional<Error> failure = error;
    if (!failure) {
        auto saved = saveReceivedFile(filePath, name);
        if (saved) {
            item->path = *saved;
            struct stat st {};
            if (::stat(saved->c_str(), &st) == 0) item->transferredBytes = st.st_size;
        } else {
            failure = saved.error();
            ::unlink(filePath.c_str());
        }
    }
    item->status = failure ? NearbyStatus::Failed : NearbyStatus::Finished;
    post(NEARBY_ITEM_CHANGED_NOTIFICATION, item, failure);
}

void NearbyController::receiverDidRefuseResource(NearbySocketReceiver&, const std::string& name,
                                                 const std::string& reason) {
    auto item = std::make_shared<NearbyTransferMetadata>();
    item->name = name;
    item->status = NearbyStatus::Failed;
    items_.push_back(item);
    post(NEARBY_ITEM_CHANGED_NOTIFICATION, item,
         nearbyError(ErrorCode::TransferFailed, fmt::format("Refused: {}", reason)));
}

void NearbyController::receiverDidStop(NearbySocketReceiver& receiver) {
    if (receiver_.get() != &receiver) return;
    retire(receivingWatch_, receiver.queue());
    receiver_.reset();
    if (receiveOptions_.once) {
        if (discovery_) discovery_->stopPublishing();
        post(NEARBY_RECEIVING_ENDED_NOTIFICATION);
        return;
    }
    // The protocol closes the receiver after each batch; the user asked to go on receiving.
    auto again = NearbySocketReceiver::create(
        {receiveOptions_.bindAddress, receiveOptions_.port, receiveFolder_});
    again->setDelegate(weak_from_this());
    if (auto started = again->start(); !started) {
        if (discovery_) discovery_->stopPublishing();
        post(NEARBY_RECEIVING_ENDED_NOTIFICATION, nullptr, started.error());
        return;
    }
    receiver_ = std::move(again);
}

// ---- Sending -----------------------------------------------------------------------------

Status NearbyController::prepareBatch(const KvMetadataList& items) {
    if (batchActive_)
        return KvError::fail(ErrorDomain::NearbyFileTransfer, ErrorCode::TransferFailed,
                             "A batch is being sent already.");
    auto all = getAllItems(items);
    if (!all) return std::unexpected(all.error());
    if (all->empty())
        return KvError::fail(ErrorDomain::NearbyFileTransfer, ErrorCode::TransferFailed,
                             "Nothing to send: no files among the items (links are skipped).");
    pending_.clear();
    for (auto& meta : *all) pending_.push_back(std::make_shared<NearbyTransferMetadata>(meta));
    nearbyType_ = NearbyType::Sending;
    batchActive_ = true;
    batchStopped_ = false;
    disconnectRequested_ = false;
    return {};
}

Status NearbyController::sendItems(const KvMetadataList& items, const std::string& target) {
    if (auto ready = prepareBatch(items); !ready) return ready;
    resolveTarget(target);
    return {};
}

Status NearbyController::sendItems(const KvMetadataList& items,
                                   const asio::ip::tcp::endpoint& target) {
    if (auto ready = prepareBatch(items); !ready) return ready;
    connect(target);
    return {};
}

void NearbyController::resolveTarget(const std::string& target) {
    if (!batchActive_) return;
    if (auto endpoint = NearbyUtils::parseAddress(target)) {
        pendingTarget_.clear();
        connect(*endpoint);
        return;
    }
    auto it = std::find_if(devices_.begin(), devices_.end(),
                           [&](const NearbyPeerItem& p) { return p.hostname == target; });
    if (it != devices_.end()) {
        pendingTarget_.clear();
        if (targetTimer_) MainQueue::shared().cancel(*targetTimer_);
        targetTimer_.reset();
        if (!it->netService || it->netService->addresses.empty()) {
            endBatch(nearbyError(ErrorCode::TransferFailed,
                                 fmt::format("{} has no address to connect to.", target)));
            return;
        }
        connect(it->netService->addresses.front());
        return;
    }
    if (!browsing_) {
        if (auto started = startBrowsing(); !started) {
            resolveHostName(target, started.error());
            return;
        }
    }
    if (pendingTarget_ == target) return;  // already looking
    pendingTarget_ = target;
    std::weak_ptr<NearbyController> weak = weak_from_this();
    targetTimer_ = MainQueue::shared().postAfter(seconds(kDeviceSearchSeconds), [weak, target] {
        auto self = weak.lock();
        if (!self || self->pendingTarget_ != target) return;
        self->targetTimer_.reset();
        self->resolveHostName(target, std::nullopt);
    });
}

void NearbyController::resolveHostName(const std::string& target, const std::optional<Error>& why) {
    pendingTarget_.clear();
    if (targetTimer_) MainQueue::shared().cancel(*targetTimer_);
    targetTimer_.reset();
    std::string notFound = fmt::format("No nearby device named \"{}\" was found", target);
    if (why) notFound += fmt::format(" ({})", why->reason);
    // A device name has blanks ("... Wi-Fi"); a host name has none and may still resolve.
    if (target.empty() || target.find(' ') != std::string::npos) {
        endBatch(nearbyError(ErrorCode::TransferFailed, notFound + "."));
        return;
    }
    std::string host = target, port = std::to_string(NearbyProtocol::kPort);
    if (auto colon = target.rfind(':'); colon != std::string::npos) {
        host = target.substr(0, colon);
        port = target.substr(colon + 1);
    }
    std::weak_ptr<NearbyController> weak = weak_from_this();
    GCD::doInBackground([weak, host, port, notFound] {
        asio::io_context io;
        asio::ip::tcp::resolver resolver(io);
        asio::error_code ec;
        auto results = resolver.resolve(host, port, ec);
        std::optional<asio::ip::tcp::endpoint> endpoint;
        if (!ec && !results.empty()) endpoint = results.begin()->endpoint();
        GCD::doInForeground([weak, endpoint, notFound, message = ec.message()] {
            auto self = weak.lock();
            if (!self || !self->batchActive_) return;
            if (endpoint)
                self->connect(*endpoint);
            else
                self->endBatch(nearbyError(
                    ErrorCode::TransferFailed,
                    fmt::format("{}, nor a host of that name: {}.", notFound, message)));
        });
    });
}

void NearbyController::connect(const asio::ip::tcp::endpoint& endpoint) {
    if (!batchActive_) return;
    sender_ = NearbySocketSender::create();
    std::weak_ptr<NearbyController> weak = weak_from_this();
    std::weak_ptr<NearbySocketSender> sender = sender_;
    sender_->setDisconnectedHandler([weak, sender](const std::optional<Error>& error) {
        GCD::doInForeground([weak, sender, error] {
            auto self = weak.lock();
            if (self && self->sender_ == sender.lock()) self->senderDisconnected(error);
        });
    });
    sender_->connectHost(endpoint, [weak, sender](const Status& status) {
        GCD::doInForeground([weak, sender, status] {
            auto self = weak.lock();
            if (self && self->sender_ && self->sender_ == sender.lock()) self->didConnect(status);
        });
    });
}

void NearbyController::didConnect(const Status& status) {
    if (!status) {
        endBatch(status.error());
        return;
    }
    if (batchStopped_) return;
    std::weak_ptr<NearbyController> weak = weak_from_this();
    startTimer_ = MainQueue::shared().postAfter(seconds(kSocketStartDelay), [weak] {
        auto self = weak.lock();
        if (!self) return;
        self->startTimer_.reset();
        if (!self->batchStopped_) self->nextItem();
    });
}

void NearbyController::nextItem() {
    if (!batchActive_ || !sender_) return;
    if (pending_.empty()) {
        disconnectRequested_ = true;
        sender_->requestDisconnect();
        return;
    }
    ItemPtr item = pending_.front();
    pending_.pop_front();
    items_.push_back(item);
    current_ = item;
    std::weak_ptr<NearbyController> weak = weak_from_this();
    auto progress = sender_->startToSendFile(*item, [weak, item](const std::optional<Error>& e) {
        GCD::doInForeground([weak, item, e] {
            if (auto self = weak.lock()) self->itemCompleted(item, e);
        });
    });
    currentWatch_ = watch(item, progress, /*completionFinishes=*/true);
    post(NEARBY_ITEM_CHANGED_NOTIFICATION, item);
}

void NearbyController::itemCompleted(const ItemPtr& item, const std::optional<Error>& error) {
    // A file that could not be opened completes twice (at once, and after its empty data
    // phase); only the first one counts.
    if (item != current_) return;
    current_.reset();
    if (sender_) retire(currentWatch_, sender_->queue());
    if (error) {
        item->status = NearbyStatus::Failed;
        post(NEARBY_ITEM_CHANGED_NOTIFICATION, item, error);
        endBatch(error);
        return;
    }
    if (item->status != NearbyStatus::Finished) {
        item->status = NearbyStatus::Finished;
        item->transferredBytes = item->fileSize;
        post(NEARBY_ITEM_CHANGED_NOTIFICATION, item);
    }
    if (!batchStopped_) nextItem();
}

void NearbyController::senderDisconnected(const std::optional<Error>& error) {
    if (!batchActive_) return;
    if (!error && disconnectRequested_) {
        endBatch(std::nullopt);
        return;
    }
    endBatch(error ? *error
                   : nearbyError(ErrorCode::TransferFailed,
                                 "The receiver closed the connection before the batch ended."));
}

void NearbyController::endBatch(const std::optional<Error>& error) {
    if (!batchActive_) return;
    batchActive_ = false;
    pendingTarget_.clear();
    if (targetTimer_) MainQueue::shared().cancel(*targetTimer_);
    if (startTimer_) MainQueue::shared().cancel(*startTimer_);
    targetTimer_.reset();
    startTimer_.reset();
    if (sender_) {
        // After an error no "DISCONNECT" goes out; closing tells the receiver the batch is over.
        sender_->disconnect();
        retire(currentWatch_, sender_->queue());
        sender_.reset();
    }
    current_.reset();
    post(NEARBY_BATCH_ENDED_NOTIFICATION, nullptr, error);
}

void NearbyController::stopBatch() {
    if (!batchActive_) return;
    batchStopped_ = true;
    if (current_ && currentWatch_ && sender_) {
        auto progress = currentWatch_->progress();
        sender_->queue().post([progress] { progress->cancel(); });
    }
    endBatch(nearbyError(ErrorCode::TransferFailed, "Stopped."));
}

}  // namespace quillon
