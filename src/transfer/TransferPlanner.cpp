#include "transfer/TransferPlanner.h"

#include <fmt/format.h>

#include <algorithm>

#include "transfer/CopyTask.h"
#include "transfer/CrossCopyTask.h"
#include "transfer/CrossMoveTask.h"
#include "transfer/DownloadTask.h"
#include "transfer/FileTransferUtils.h"
#include "transfer/MoveTask.h"
#include "transfer/UploadTask.h"

namespace quillon {

using FileTransferUtils::itemName;

std::expected<TransferPlanner, Refusal> TransferPlanner::into(const Location& target,
                                                              const Result<KvMetadata>& targetItem,
                                                              bool moving, bool recursive) {
    if (!targetItem) return std::unexpected(Refusal::failed(targetItem.error()));
    if (!targetItem->isDir)
        return std::unexpected(Refusal::because(target.display() + " is not a folder."));
    return TransferPlanner(target, moving, recursive);
}

bool TransferPlanner::sameServer(const Location& a, const Location& b) {
    return a.server->serverID == b.server->serverID || (a.isLocal() && b.isLocal());
}

std::optional<Refusal> TransferPlanner::add(const Location& source, KvMetadata item) {
    bool wholeFolder = item.isDir && !item.isSymbolLink;
    if (wholeFolder && !moving_ && !recursive_)
        return Refusal::because(source.display() + " is a folder: use -r to copy it.");
    bool same = sameServer(source, target_);
    if (same && wholeFolder && FileTransferUtils::isCopyIntoItself(source.path, target_.path))
        return Refusal::because(FileTransferUtils::copyIntoItselfMessage());
    if (moving_ && same && FileTransferUtils::parentPath(source.path) == target_.path)
        return std::nullopt;
    Location parent = source;
    parent.path = FileTransferUtils::parentPath(source.path);
    item.parentFolderMeta = std::make_shared<KvMetadata>(parent.metadata(true));
    sources_.push_back({source, std::move(item)});
    return std::nullopt;
}

FileTransferTaskPtr TransferPlanner::makeTaskFor(const Location& source) const {
    bool srcLocal = source.isLocal(), dstLocal = target_.isLocal();
    if (moving_) {
        if (sameServer(source, target_)) return std::make_shared<MoveTask>();
        return std::make_shared<CrossMoveTask>();
    }
    if (srcLocal && dstLocal) return std::make_shared<CopyTask>();
    if (dstLocal) return std::make_shared<DownloadTask>();
    if (srcLocal) return std::make_shared<UploadTask>();
    return std::make_shared<CrossCopyTask>();
}

std::vector<PlannedTransfer> TransferPlanner::tasks() const {
    KvMetadata folder = target_.metadata(true);
    KvMetadataList allItems;
    for (auto& s : sources_) allItems.push_back(s.item);

    std::vector<PlannedTransfer> planned;
    auto addTask = [&](const FileTransferTaskPtr& task, const Source& s, KvMetadataList items) {
        std::string label = s.location.display();
        if (items.size() > 1 && dynamic_cast<MoveTask*>(task.get()))
            label += fmt::format(" (and {} more)", items.size() - 1);
        task->sourceServerInfo = s.location.server;
        task->targetServerInfo = target_.server;
        task->sourceItems = std::move(items);
        task->sourceMetadata = s.item;
        task->targetMetadata = folder;
        planned.push_back({task, std::move(label)});
    };

    // Items moved within one server without a name conflict go in one request.
    std::vector<const Source*> batch;
    std::optional<KvMetadataList> targetListing;
    for (auto& s : sources_) {
        auto task = makeTaskFor(s.location);
        if (!dynamic_cast<MoveTask*>(task.get())) {
            addTask(task, s, allItems);
            continue;
        }
        if (!targetListing) {
            target_.client->setForceIncludesHiddenFiles(true);
            auto listing = target_.client->contentsOfDirectoryAtPathSync(folder);
            targetListing = listing ? *listing : KvMetadataList{};
        }
        bool conflict =
            std::any_of(targetListing->begin(), targetListing->end(),
                        [&](const KvMetadata& e) { return itemName(e) == itemName(s.item); });
        if (conflict)
            addTask(task, s, {s.item});
        else
            batch.push_back(&s);
    }
    if (!batch.empty()) {
        KvMetadataList items;
        for (auto* s : batch) items.push_back(s->item);
        addTask(std::make_shared<MoveTask>(), *batch.front(), std::move(items));
    }
    return planned;
}

std::expected<void, Refusal> TransferPlanner::rename(const Location& source, const KvMetadata& item,
                                                     const Location& target) {
    auto refuse = [](std::string message) {
        return std::unexpected(Refusal::because(std::move(message)));
    };
    if (!sameServer(source, target))
        return refuse(target.display() +
                      " is not a folder: moving to a new name works within one server.");
    if (target.path == source.path) return {};
    if (item.isDir && FileTransferUtils::isCopyIntoItself(source.path, target.path))
        return refuse(FileTransferUtils::copyIntoItselfMessage());
    if (statLocation(target)) return refuse(target.display() + " already exists.");
    Location parent = target;
    parent.path = FileTransferUtils::parentPath(target.path);
    auto folder = statLocation(parent);
    if (!folder || !folder->isDir) return refuse(parent.display() + " is not a folder.");
    auto client = target.isLocal() ? target.client : source.client;
    if (auto r = client->moveSync(item, target.metadata(item.isDir)); !r)
        return std::unexpected(Refusal::failed(r.error().about(source.display())));
    return {};
}

std::expected<TransferPlan, Refusal> TransferPlanner::plan(const Location& target,
                                                           const std::vector<Location>& sources,
                                                           bool moving, bool recursive) {
    auto planner = into(target, statLocation(target), moving, recursive);
    if (!planner) return std::unexpected(planner.error());
    TransferPlan out;
    for (auto& source : sources) {
        auto item = statLocation(source);
        if (!item) {
            out.refusals.push_back(Refusal::failed(item.error()));
            continue;
        }
        if (auto refusal = planner->add(source, std::move(*item)))
            out.refusals.push_back(std::move(*refusal));
    }
    out.transfers = planner->tasks();
    return out;
}

}  // namespace quillon
