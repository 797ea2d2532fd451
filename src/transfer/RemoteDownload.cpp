#include "transfer/RemoteDownload.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "core/LocalizedUtils.h"
#include "transfer/FileTransferUtils.h"

namespace quillon::RemoteDownload {

namespace {

bool existsLocally(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace

Status checkRoom(const KvMetadata& file, const std::string& scratchFolder,
                 const std::string& targetFolder) {
    auto freeSpace = std::min(FileTransferUtils::totalFreeDiskSpace(scratchFolder),
                              FileTransferUtils::totalFreeDiskSpace(targetFolder));
    if (file.fileSizeInBytes.value_or(0) > freeSpace)
        return KvError::fail(ErrorDomain::FileTransfer, ErrorCode::TransferFailed,
                             LocalizedUtils::localizedStringForKey("trans.no_space"));
    return {};
}

Result<bool> fetchFile(Wrapper& wrapper, const KvMetadata& file, const std::string& scratch,
                       const ProgressHandler& progress, const std::function<bool()>& stopped) {
    if (existsLocally(scratch)) ::unlink(scratch.c_str());
    auto r = wrapper.downloadSync(file, scratch, progress);
    auto cleanup = [&] {
        if (existsLocally(scratch)) ::unlink(scratch.c_str());
    };
    if (stopped && stopped()) {
        cleanup();
        return false;
    }
    if (!r) {
        cleanup();
        return std::unexpected(r.error());
    }
    // A wrapper that produced no file skipped it.
    if (!existsLocally(scratch)) return false;
    if (file.timestamp) {
        auto secs = std::chrono::floor<std::chrono::seconds>(*file.timestamp);
        struct timespec times[2] = {{0, UTIME_OMIT}, {}};
        times[1].tv_sec = static_cast<time_t>(secs.time_since_epoch().count());
        times[1].tv_nsec = static_cast<long>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(*file.timestamp - secs).count());
        ::utimensat(AT_FDCWD, scratch.c_str(), times, 0);
    }
    return true;
}

}  // namespace quillon::RemoteDownload
