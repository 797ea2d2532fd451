#include "app/gui/SyncRunner.h"

namespace quillon::gui {

SyncOptions& SyncRunner::options() {
    static SyncOptions options;
    return options;
}

std::shared_ptr<SyncTask> SyncRunner::task(const SyncInfo& pair, bool preview) {
    SyncOptions o = options();
    o.dryRun = preview;
    return std::make_shared<SyncTask>(pair, o);
}

SyncPreview SyncRunner::previewOf(const SyncTask& task) {
    SyncPreview p;
    p.decisions = task.plannedDecisions();
    p.summary = task.summary();
    p.error = task.error();
    return p;
}

std::string SyncRunner::actionText(const SyncDecision& d) {
    std::string what(syncActionName(d.action));
    return d.conflict ? "conflict: " + what : what;
}

}  // namespace quillon::gui
