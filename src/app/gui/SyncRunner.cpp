#include "app/gui/SyncRunner.h"

namespace quillon::gui {

SyncOptions& SyncRunner::options() {
    static SyncOptions options;
    return options;
}

std::shared_ptr<SyncTask> SyncRunner::task(const SyncInfo& pair, bool preview,
                                           std::optional<double> allowDeletePercent) {
    SyncOptions o = options();
    o.dryRun = preview;
    if (allowDeletePercent) o.maxDeletePercent = allowDeletePercent;
    return std::make_shared<SyncTask>(pair, o);
}

std::optional<double> SyncRunner::deletesHeldBack(const SyncTask& task) {
    auto e = task.error();
    if (!e || e->domain != ErrorDomain::FileSync || e->code != SyncTask::kErrorMaxDelete)
        return std::nullopt;
    return task.summary().deletePercentNeeded;
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
