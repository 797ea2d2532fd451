#pragma once
// SyncRunner: the window's one contact with the sync engine. A preview is a dry run of the pair
// and a run is a real one, each a task of the transfer manager like every other transfer; the
// preview's decisions are read from the finished task.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sync/SyncTask.h"

namespace quillon::gui {

struct SyncPreview {
    std::vector<SyncDecision> decisions;
    SyncSummary summary;
    std::optional<Error> error;
};

class SyncRunner {
  public:
    // Options of every run started from the window (tests shorten the pause).
    static SyncOptions& options();
    // A task for the pair: a dry run for a preview, else a real run; `allowDeletePercent`
    // replaces the share of a side's files a run may delete.
    static std::shared_ptr<SyncTask> task(const SyncInfo& pair, bool preview,
                                          std::optional<double> allowDeletePercent = {});
    // The share of a side's files the finished run `task` would have had to delete when it
    // stopped before deleting more than allowed; absent for any other ending.
    static std::optional<double> deletesHeldBack(const SyncTask& task);
    // What a finished dry run decided.
    static SyncPreview previewOf(const SyncTask& task);
    // One line for a decision: "download", "conflict: upload", ...
    static std::string actionText(const SyncDecision& decision);
};

}  // namespace quillon::gui
