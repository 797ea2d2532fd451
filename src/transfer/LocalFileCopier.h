#pragma once
// LocalFileCopier: the byte-moving steps the tasks share on the local disk: copying one file by
// cloning (reflink) where the file system can, else in the kernel in fixed steps; putting a
// finished file in place without ever exposing partial data at the target: data grows under a
// hidden temporary name beside the target (TemporaryItems) and is renamed into place.

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>

#include "core/Error.h"

namespace quillon {

class LocalFileCopier {
  public:
    static constexpr std::uint64_t kChunkSize = 10485760;  // 10 MiB

    // Asked before each step; true ends the copy early.
    std::function<bool()> shouldStop;
    // Called after each step with the bytes of this file copied so far.
    std::function<void(std::uint64_t)> onStep;

    // Copies the regular file `from` to `to` with its mode and times, through a hidden sibling
    // renamed into place when complete. `replace` lets it take the place of an existing item;
    // otherwise an existing item fails the copy. `staged`: `to` lies inside a hidden folder that
    // is renamed into place as a whole, so the file is written there directly. A failed or
    // stopped copy leaves nothing new at `to`. Errors in domain "Local": 10002 "Cannot create
    // file %@" and "Cannot complete the operation becasue some data in "%@" cannot be read or
    // written."; a missing source is "Not Found: %@" in "Kv Generic" (10008). A stopped copy
    // returns success with `stopped()` true.
    [[nodiscard]] Status copyFile(const std::string& from, const std::string& to, bool replace,
                                  bool staged = false);
    // Copies a symbolic link as a link (after removing a non-folder item at `to` when
    // `replace`), with its times.
    [[nodiscard]] Status copyLink(const std::string& from, const std::string& to, bool replace);
    // Moves a finished file to `to`: a rename on one file system, else a copy into a hidden
    // sibling renamed into place, then the source removed.
    [[nodiscard]] Status moveIntoPlace(const std::string& from, const std::string& to,
                                       bool replace);
    bool stopped() const { return stopped_; }

    // Copies mode and times of `st` to the folder at `path`.
    static void copyFolderAttributes(const struct stat& st, const std::string& path);
    // A hidden temporary name beside `path` that does not exist now (for staging a copy); its
    // folder is noted so that a killed run's leftover is cleared at the next start.
    static std::string hiddenSibling(const std::string& path);

  private:
    Status copyData(int in, int out, const struct stat& st, const std::string& name);
    Status placeFile(const std::string& partial, const std::string& to, bool replace);
    bool cloneFailed_ = false;
    bool kernelCopyFailed_ = false;
    bool stopped_ = false;
};

}  // namespace quillon
