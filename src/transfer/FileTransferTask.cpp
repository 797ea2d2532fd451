#include "transfer/FileTransferTask.h"

#include "core/Location.h"

#include <fmt/format.h>

#include "core/ClientExtras.h"
#include "core/GCD.h"
#include "core/Location.h"
#include "core/NotificationCenter.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "transfer/FileTransferNode.h"
#include "transfer/FileTransferTaskManager.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/RemoteUpload.h"

namespace quillon {

namespace {

std::mutex& clockMutex() {
    static std::mutex m;
    return m;
}
FileTransferTask::Clock& clockSlot() {
    static FileTransferTask::Clock clock;
    return clock;
}

}  // namespace

FileTransferTask::FileTransferTask() = default;
FileTransferTask::~FileTransferTask() = default;

void FileTransferTask::setClock(Clock clock) {
    std::lock_guard lock(clockMutex());
    clockSlot() = std::move(clock);
}

double FileTransferTask::now() {
    {
        std::lock_guard lock(clockMutex());
        if (clockSlot()) return clockSlot()();
    }
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::optional<Error> FileTransferTask::error() const {
    std::lock_guard lock(mutex_);
    return error_;
}

std::optional<TimePoint> FileTransferTask::startTime() const {
    std::lock_guard lock(mutex_);
    return startTime_;
}

std::optional<TimePoint> FileTransferTask::endTime() const {
    std::lock_guard lock(mutex_);
    return endTime_;
}

std::optional<KvMetadata> FileTransferTask::transferringFileMeta() const {
    std::lock_guard lock(mutex_);
    return transferringFileMeta_;
}

std::vector<FileTransferTask::ItemFailure> FileTransferTask::itemFailures() const {
    std::lock_guard lock(mutex_);
    return itemFailures_;
}

Status FileTransferTask::itemFailed(const KvMetadata& item, const Error& error) {
    // The failure is the child's: it names the child, not the folder the task copies.
    Error named = error.about(displayItem(item));
    if (!continueAfterItemFailure || stopped()) return std::unexpected(named);
    std::lock_guard lock(mutex_);
    itemFailures_.push_back({item.pathOrEmpty(), named});
    return {};
}

std::vector<std::string> FileTransferTask::notices() const {
    std::lock_guard lock(mutex_);
    return notices_;
}

void FileTransferTask::addNotice(std::string text) {
    std::lock_guard lock(mutex_);
    notices_.push_back(std::move(text));
}

void FileTransferTask::skipLink(const KvMetadata& source, std::optional<std::string> holds) {
    std::string shown = holds ? *holds : source.symbolLinkTarget.value_or("?");
    addNotice(fmt::format("skipped link {} -> {}",
                          StringUtils::escapedForDisplay(source.pathOrEmpty()),
                          StringUtils::escapedForDisplay(shown)));
}

Status FileTransferTask::transferLink(const KvMetadata& source, const KvMetadata& target,
                                      Wrapper& sourceSide, Wrapper& targetSide, bool replace) {
    setTransferringFileMeta(source);
    // A client that cannot read links may still have listed what one holds ("name -> target").
    Result<std::string> text = std::unexpected(Error{});
    if (auto* reader = dynamic_cast<LinkReader*>(&sourceSide))
        text = reader->linkTextSync(source);
    else if (source.symbolLinkTarget && !source.symbolLinkTarget->empty())
        text = *source.symbolLinkTarget;
    auto* maker = dynamic_cast<LinkMaker*>(&targetSide);
    if (!text || !maker) {
        skipLink(source, text ? std::optional<std::string>(*text) : std::nullopt);
        return {};
    }
    KvMetadata link = target;
    link.isDir = false;
    link.isSymbolLink = true;
    auto made = maker->makeLinkSync(link, *text);
    if (!made && replace) {
        auto there = targetSide.metadataOfItemSync(link);
        if (there && !(there->isDir && !there->isSymbolLink) && targetSide.removeSync({*there}))
            made = maker->makeLinkSync(link, *text);
    }
    if (!made) return itemFailed(source, made.error());
    return {};
}

void FileTransferTask::setTransferringFileMeta(std::optional<KvMetadata> meta) {
    std::lock_guard lock(mutex_);
    transferringFileMeta_ = std::move(meta);
}

void FileTransferTask::trackWrapper(const WrapperPtr& wrapper) {
    if (!wrapper) return;
    {
        std::lock_guard lock(mutex_);
        wrappers_.push_back(wrapper);
    }
    if (stopped()) wrapper->cancelOperation();
}

void FileTransferTask::cancelTrackedWrappers() {
    std::vector<WrapperPtr> current;
    {
        std::lock_guard lock(mutex_);
        current = wrappers_;
    }
    for (auto& w : current) w->cancelOperation();
}

void FileTransferTask::raiseTransferredBytes(std::int64_t n) {
    auto current = transferredBytes_.load();
    while (current < n && !transferredBytes_.compare_exchange_weak(current, n)) {
    }
}

ProgressHandler FileTransferTask::relayProgress(
    std::function<std::int64_t(std::int64_t, std::int64_t)> toTransferred,
    std::function<void(std::int64_t, std::int64_t)> also) {
    std::weak_ptr<FileTransferTask> weak = weak_from_this();
    return [weak, toTransferred = std::move(toTransferred), also = std::move(also)](
               std::int64_t done, std::int64_t total) {
        auto self = weak.lock();
        if (!self || self->state() != TransferTaskState::Running) return;
        self->raiseTransferredBytes(toTransferred(done, total));
        if (also) also(done, total);
        self->reportProgress();
    };
}

void FileTransferTask::beginTransfer() {
    // A task stopped before its thread got here stays stopped.
    auto expected = TransferTaskState::Waiting;
    if (!state_.compare_exchange_strong(expected, TransferTaskState::Running)) {
        expected = TransferTaskState::Running;
        state_.compare_exchange_strong(expected, TransferTaskState::Running);
    }
    {
        std::lock_guard lock(mutex_);
        startTime_ = std::chrono::system_clock::now();
        targetFolder_ = targetMetadata;
    }
    transferredBytes_.store(0);
    arrivedBytes_.store(0);
    totalBytes_.store(0);
}

KvMetadataList FileTransferTask::foldersToRefresh() const {
    KvMetadataList folders;
    if (sourceMetadata.parentFolderMeta) {
        folders.push_back(*sourceMetadata.parentFolderMeta);
    } else if (sourceMetadata.path()) {
        KvMetadata parent(FileTransferUtils::parentPath(*sourceMetadata.path()));
        parent.isDir = true;
        parent.serverID = sourceMetadata.serverID;
        parent.protocolType = sourceMetadata.protocolType;
        folders.push_back(std::move(parent));
    }
    if (targetFolder_.path()) folders.push_back(targetFolder_);
    return folders;
}

void FileTransferTask::reportProgress() {
    if (progressQueued_.exchange(true)) return;
    auto self = shared_from_this();
    GCD::doInForeground([self] {
        self->progressQueued_.store(false);
        // A report that arrives after the task was stopped is of no interest.
        if (self->state() != TransferTaskState::Running) return;
        if (auto* d = self->delegate())
            d->updateTask(*self, self->transferredBytes(), self->totalBytes());
    });
}

void FileTransferTask::completeFileTransfer(std::optional<Error> err) {
    if (completed_.exchange(true)) return;
    auto current = state();
    if (!err && current != TransferTaskState::Stopped) {
        // Items that failed while the run went on: it ends failed, with the first of them.
        std::lock_guard lock(mutex_);
        if (!itemFailures_.empty()) {
            const auto& first = itemFailures_.front();
            Error summary = first.error;
            if (itemFailures_.size() > 1) {
                summary.reason = fmt::format(
                    "{} items failed; the first, {}: {}", itemFailures_.size(),
                    StringUtils::escapedForDisplay(first.error.item), first.error.reason);
                summary.item.clear();
            }
            err = summary;
        }
    }
    if (current != TransferTaskState::Stopped) {
        if (err) {
            setState(TransferTaskState::Failed);
        } else {
            setState(fileConflict() == ConflictAction::Skip ? TransferTaskState::Stopped
                                                            : TransferTaskState::Completed);
        }
    }
    if (countsArrivals_ && state() != TransferTaskState::Completed)
        transferredBytes_.store(arrivedBytes_.load());
    {
        std::lock_guard lock(mutex_);
        if (err && state() == TransferTaskState::Failed) error_ = err;
        endTime_ = std::chrono::system_clock::now();
        transferringFileMeta_.reset();
    }
    auto self = shared_from_this();
    auto folders = foldersToRefresh();
    GCD::doInForeground([self, err, folders = std::move(folders)] {
        auto* manager = self->manager();
        if (self->state() == TransferTaskState::Completed && manager &&
            !manager->hasOtherActiveTaskOfClass(*self) && !folders.empty()) {
            UserInfo info;
            info[std::string(REFRESH_FOLDER_USER_INFO)] = folders;
            NotificationCenter::defaultCenter().post(REFRESH_FOLDER_NOTIFICATION, info);
        }
        if (auto* d = self->delegate()) d->didCompleteTask(*self, err);
    });
}

std::string_view stateName(TransferTaskState state) {
    switch (state) {
        case TransferTaskState::Waiting:
            return "waiting";
        case TransferTaskState::Running:
            return "running";
        case TransferTaskState::Completed:
            return "completed";
        case TransferTaskState::Stopped:
            return "stopped";
        case TransferTaskState::Failed:
            return "failed";
    }
    return "unknown";
}

Status FileTransferTask::collectTree(const std::shared_ptr<FileTransferNode>& node,
                                     const TreeWalk& walk,
                                     std::vector<std::shared_ptr<FileTransferNode>>& files) {
    if (stopped()) return {};
    auto listing = walk.list(node->sourceMetadata);
    if (!listing) return itemFailed(node->sourceMetadata, listing.error());
    bool toServer = node->targetMetadata.protocolType != ProtocolType::Local;
    for (auto& entry : *listing) {
        if (stopped()) return {};
        if (FileTransferUtils::isTemporary(entry)) continue;
        auto target =
            FileTransferUtils::targetMetadataWithSourceMetadata(entry, node->targetMetadata);
        if (walk.adjustTarget) walk.adjustTarget(entry, target);
        Status usable = toServer ? FileTransferUtils::checkNameForServer(
                                       FileTransferUtils::itemName(target), entry.pathOrEmpty())
                                 : Status{};
        bool fetched = walk.fetchLinks && entry.isSymbolLink && !entry.isDir;
        if (usable && entry.isSymbolLink && !fetched) {
            if (walk.fetchLinks || !walk.linkSource || !walk.linkTarget) {
                skipLink(entry);
                continue;
            }
            if (auto r =
                    transferLink(entry, target, *walk.linkSource, *walk.linkTarget, overwrites());
                !r)
                return r;
            continue;
        }
        if (usable && entry.isDir) usable = walk.makeFolder(target);
        if (!usable) {
            if (auto r = itemFailed(entry, usable.error()); !r) return r;
            continue;
        }
        auto child = std::make_shared<FileTransferNode>(entry, target, node->targetMetadata);
        node->addChild(child);
        if (entry.isDir) {
            if (auto r = collectTree(child, walk, files); !r) return r;
        } else {
            setTotalBytes(totalBytes() +
                          static_cast<std::int64_t>(entry.fileSizeInBytes.value_or(0)));
            files.push_back(child);
        }
    }
    return {};
}

void FileTransferTask::cancelTransfer() {
    setState(TransferTaskState::Stopped);
    cancelTrackedWrappers();
}

bool FileTransferTask::openSides(bool withSource) {
    beginTransfer();
    if (fileConflict() == ConflictAction::Skip || stopped()) {
        completeFileTransfer(std::nullopt);
        return false;
    }
    Result<WrapperPtr> source = WrapperPtr();
    if (withSource) source = WrapperProxy::clientForServerInfo(sourceServerInfo);
    auto target = WrapperProxy::clientForServerInfo(targetServerInfo);
    if (!source || !target) {
        completeFileTransfer(!source ? source.error() : target.error());
        return false;
    }
    sourceProxy_ = *source;
    targetProxy_ = *target;
    for (const auto& side : {sourceProxy_, targetProxy_}) {
        if (!side) continue;
        side->setForceIncludesHiddenFiles(true);
        trackWrapper(side);
    }
    return true;
}

Result<std::optional<KvMetadata>> FileTransferTask::targetEntryWithSourceName() const {
    auto client = WrapperProxy::clientForServerInfo(targetServerInfo);
    if (!client) return std::unexpected(client.error());
    (*client)->setForceIncludesHiddenFiles(true);
    auto target =
        FileTransferUtils::targetMetadataWithSourceMetadata(sourceMetadata, targetMetadata);
    auto found = (*client)->metadataOfItemSync(target);
    if (found) return std::optional<KvMetadata>(std::move(*found));
    if (found.error().is(ErrorKind::NotFound)) return std::optional<KvMetadata>();
    return std::unexpected(found.error());
}

Result<bool> FileTransferTask::targetHasSourceName() const {
    auto entry = targetEntryWithSourceName();
    if (!entry) return std::unexpected(entry.error());
    return entry->has_value();
}

Status FileTransferTask::renameForKeepBoth(KvMetadata& target, const KvMetadata& folder) {
    if (fileConflict() != ConflictAction::KeepBoth) return {};
    auto listing = targetProxy_->contentsOfDirectoryAtPathSync(folder);
    if (!listing) return std::unexpected(listing.error());
    FileTransferUtils::renameTarget(
        target, FileTransferUtils::getUniqueFileName(*listing,
                                                     FileTransferUtils::itemName(sourceMetadata)));
    return {};
}

Status FileTransferTask::placeFolder(const FileTransferNode::Ptr& root,
                                     const std::function<Status()>& fill) {
    KvMetadata finalTarget = root->targetMetadata;
    bool swap = false;
    if (overwrites()) {
        auto there = targetProxy_->metadataOfItemSync(finalTarget);
        if (!there && !there.error().is(ErrorKind::NotFound)) return std::unexpected(there.error());
        swap = there &&
               (fileConflict() == ConflictAction::Replace || !there->isDir || there->isSymbolLink);
    }
    if (swap) root->targetMetadata = RemoteUpload::stagedFolderFor(*targetProxy_, finalTarget);
    Status built = targetProxy_->createFolderSync(root->targetMetadata);
    if (!built && fileConflict() == ConflictAction::Merge && !swap) built = {};
    if (built) built = fill();
    if (swap) {
        bool complete = built && !stopped();
        auto placed = RemoteUpload::finishStagedFolder(*targetProxy_, root->targetMetadata,
                                                       finalTarget, complete);
        if (complete) built = placed;
        if (!complete || !placed) nothingArrived();
    }
    return built;
}

void FileTransferTask::failBeforeStart(const Error& error) {
    beginTransfer();
    completeFileTransfer(error);
}

}  // namespace quillon
