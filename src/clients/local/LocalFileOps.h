#pragma once
// Small POSIX helpers shared by SandboxFileAccess and LocalWrapper: error values from errno,
// path text operations, and the chunked byte copy behind every local file copy.

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "core/KvMetadata.h"

namespace quillon::LocalFileOps {

// A platform failure in domain "Local": ENOENT becomes 10008 "File not found!", anything else
// keeps errno as its code and reads "<path>: <system message>".
// Its kind follows from errno.
Error posixError(int err, std::string_view path);
ErrorKind kindOfErrno(int err);
inline std::unexpected<Error> posixFailure(int err, std::string_view path) {
    return std::unexpected(posixError(err, path));
}

// The text after the last "/" (a lone "/" stays "/"); trailing slashes are ignored.
std::string baseName(std::string_view path);
// The text before the last "/" ("/" for items at the top, "." for bare names).
std::string dirName(std::string_view path);
// folder + "/" + name, without doubling the slash.
std::string joinPath(std::string_view folder, std::string_view name);
// The path without trailing slashes ("/" stays "/").
std::string trimTrailingSlashes(std::string_view path);
// The text after the last "." of the name, or "" when there is none or the only dot leads.
std::string pathExtension(std::string_view name);
// The name without its extension.
std::string deletingPathExtension(std::string_view name);
// Percent-encodes everything but unreserved characters and "/", as file URLs and trash info
// files want.
std::string percentEncodePath(std::string_view path);

TimePoint toTimePoint(const struct timespec& ts);

// How a chunked copy ended.
enum class CopyEnd { Finished, Stopped, ReadFailed, WriteFailed };
struct CopyOutcome {
    CopyEnd end = CopyEnd::Finished;
    std::uint64_t copied = 0;
    int err = 0;  // errno of a failure
};

// Copies `in` to `out` from their current positions in steps of `chunk` bytes: by cloning
// extents where the file system can, else in the kernel, else through a buffer. Before each
// step `stop()` is asked whether to end early; after each step `step(copiedSoFar)` is called.
CopyOutcome copyContents(int in, int out, std::uint64_t chunk, const std::function<bool()>& stop,
                         const std::function<void(std::uint64_t)>& step);

// Renames `from` to `to` unless something is at `to` (then fails with EEXIST); on file systems
// without the kernel's no-replace rename, by a check and a plain rename. Returns 0 or errno.
int renameNoReplace(const std::string& from, const std::string& to);

// Puts the item at `from` in the place of whatever is at `to` (a file, a link, a folder with its
// contents) so that at every moment one whole item bears the name `to`: a plain rename where it
// can, else an exchange of the two, after which the old item (now at `from`) is removed. Both
// must be on one file system. Returns 0 or errno.
int replaceItem(const std::string& from, const std::string& to);

// Copies mode bits and access and modification times of `st` to the open file.
int applyAttributes(int fd, const struct stat& st);

}  // namespace quillon::LocalFileOps
