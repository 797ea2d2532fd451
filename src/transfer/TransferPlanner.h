#pragma once
// TransferPlanner: turns what a user dropped or named (sources and a target folder) into the
// transfer tasks that carry it out, the same way for every face: which task class moves each
// item, which sources are refused (a folder without its contents asked for, a copy into itself),
// and which moves within one server go in a single request.

#include <expected>
#include <optional>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "core/Location.h"
#include "core/Refusal.h"
#include "transfer/FileTransferTask.h"

namespace quillon {

// A task ready for the task manager and the name a transfer list shows for it.
struct PlannedTransfer {
    FileTransferTaskPtr task;
    std::string label;
};

// What one gesture (a drop, a copy to the other panel) comes to: its tasks, and why each refused
// source was refused.
struct TransferPlan {
    std::vector<PlannedTransfer> transfers;
    std::vector<Refusal> refusals;
};

class TransferPlanner {
  public:
    // Looks up the target and each source and plans them: into, add, tasks. Refused as a whole
    // when the target is not a folder. Blocks on the lookups: call it off the window's thread.
    static std::expected<TransferPlan, Refusal> plan(const Location& target,
                                                     const std::vector<Location>& sources,
                                                     bool moving, bool recursive);

    // A plan into the folder at `target`, whose looked-up record is `targetItem`; refused when the
    // lookup failed or the target is not a folder. `recursive`: folders are copied with their
    // contents (a move always takes them whole).
    static std::expected<TransferPlanner, Refusal> into(const Location& target,
                                                        const Result<KvMetadata>& targetItem,
                                                        bool moving, bool recursive);

    // Adds a source and its looked-up record; the reason when it is refused. Moving an item into
    // the folder it is in changes nothing, so that source is accepted and left out.
    std::optional<Refusal> add(const Location& source, KvMetadata item);

    // The tasks, in the order of their sources; moves within one server whose names are free in
    // the target go in one task at the end. Lists the target folder when there are such moves.
    std::vector<PlannedTransfer> tasks() const;

    // Whether two locations are on one server (the local disk is one place, whatever volume an
    // item is on).
    static bool sameServer(const Location& a, const Location& b);

    // Renames (moves to a new name) the item at `source`, whose record is `item`, to `target`
    // within one server: refused across servers, into itself, onto an existing item or into a
    // missing folder.
    static std::expected<void, Refusal> rename(const Location& source, const KvMetadata& item,
                                               const Location& target);

  private:
    TransferPlanner(Location target, bool moving, bool recursive)
        : target_(std::move(target)), moving_(moving), recursive_(recursive) {}

    struct Source {
        Location location;
        KvMetadata item;
    };
    FileTransferTaskPtr makeTaskFor(const Location& source) const;

    Location target_;
    bool moving_;
    bool recursive_;
    std::vector<Source> sources_;
};

}  // namespace quillon
