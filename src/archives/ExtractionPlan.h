#pragma once
// ExtractionPlan: extracting archives from any place into any folder, in three stages of
// transfer tasks that every face runs the same way: archives on servers are downloaded into the
// cache, each archive is extracted into a new folder (beside it, in the chosen folder, or in a
// scratch folder when that folder is on a server), and for a server folder the new folders are
// uploaded from the scratch folder, which the plan removes when it goes.

#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "archives/ArchiveTask.h"
#include "core/Location.h"
#include "core/Refusal.h"
#include "transfer/TransferPlanner.h"

namespace quillon {

class ExtractionPlan {
  public:
    // New folders go into `target` (none: beside each archive, and into `fallbackFolder` for an
    // archive on a server). Refused when the target cannot be looked up or is not a folder, or
    // the scratch folder for a server target cannot be made.
    static std::expected<ExtractionPlan, Refusal> into(const std::optional<Location>& target,
                                                       std::string fallbackFolder,
                                                       unsigned long encoding,
                                                       std::optional<std::string> password);

    // Adds an archive; the reason when it is refused (not an archive that can be extracted, a
    // failed lookup, a folder).
    std::optional<Refusal> add(const Location& archive);
    bool empty() const { return archives_.empty(); }
    // Whether the new folders are uploaded to a server folder after the extraction.
    bool uploads() const { return !scratch_->path.empty(); }

    // Stage 1: downloads of the archives on servers into the cache (a copy there from before is
    // replaced), each named by its archive.
    Result<std::vector<PlannedTransfer>> downloadTasks() const;
    // Stage 2: an extraction for each archive now on this computer, named by its file name.
    std::vector<std::pair<std::shared_ptr<ArchiveTask>, std::string>> extractionTasks();
    // Stage 3, for a server target: uploads of the folders the completed extractions made, each
    // named by its archive's file name (a name taken there keeps both).
    Result<std::vector<PlannedTransfer>> uploadTasks() const;

  private:
    struct Scratch {
        std::string path;
        ~Scratch();
    };
    struct Archive {
        Location source;
        KvMetadata item;
        std::string localPath;  // the archive on this computer (in the cache for a server's)
        std::string parent;     // the local folder its output folder goes into
        std::shared_ptr<ArchiveTask> extraction;
    };
    ExtractionPlan() = default;

    std::optional<Location> target_;
    std::string fallbackFolder_;
    unsigned long encoding_ = 0;
    std::optional<std::string> password_;
    std::shared_ptr<Scratch> scratch_;
    std::vector<Archive> archives_;
};

}  // namespace quillon
