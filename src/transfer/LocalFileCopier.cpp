#include "transfer/LocalFileCopier.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "clients/local/LocalFileOps.h"
#include "core/ServerInfo.h"
#include "core/TemporaryItems.h"
#include "transfer/FileTransferUtils.h"

namespace quillon {

namespace {

struct Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

std::string fileName(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string folderOf(const std::string& path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Called right after the failed system call: errno tells why.
std::unexpected<Error> cannotCreate(const std::string& path, int err = errno) {
    return FileTransferUtils::cannotCreateFile(path, err);
}

std::unexpected<Error> dataFault(const std::string& name) {
    return KvError::fail(
        ErrorDomain::Local, ErrorCode::TransferFailed,
        fmt::format("Cannot complete the operation becasue some data in \"{}\" cannot be read or "
                    "written.",
                    name));
}

std::unexpected<Error> notFound(const std::string& path) {
    return KvError::fail(ErrorDomain::Generic, ErrorCode::NotFound,
                         fmt::format("Not Found: {}", path));
}

}  // namespace

std::string LocalFileCopier::hiddenSibling(const std::string& path) {
    std::string folder = folderOf(path);
    TemporaryItems::noteLocalFolder(folder);
    while (true) {
        std::string candidate = TemporaryItems::localPathFor(folder, fileName(path));
        struct stat st {};
        if (::lstat(candidate.c_str(), &st) != 0) return candidate;
    }
}

void LocalFileCopier::copyFolderAttributes(const struct stat& st, const std::string& path) {
    ::chmod(path.c_str(), st.st_mode & 07777);
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
}

Status LocalFileCopier::copyData(int in, int out, const struct stat& st, const std::string& name) {
    auto size = static_cast<std::uint64_t>(st.st_size);
    if (!cloneFailed_ && size > 0) {
        // A clone shares the extents: instant, and no data is read.
        if (::ioctl(out, FICLONE, in) == 0) {
            if (onStep) onStep(size);
            return {};
        }
        cloneFailed_ = true;
    }
    std::uint64_t copied = 0;
    std::unique_ptr<char[]> buffer;
    while (true) {
        if (shouldStop && shouldStop()) {
            stopped_ = true;
            return {};
        }
        std::uint64_t step = 0;
        bool eof = false;
        while (step < kChunkSize && !eof) {
            std::size_t want = static_cast<std::size_t>(kChunkSize - step);
            if (!kernelCopyFailed_) {
                ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, want, 0);
                if (n > 0) {
                    step += static_cast<std::uint64_t>(n);
                } else if (n == 0) {
                    eof = true;
                } else if (errno == EINTR) {
                    continue;
                } else if (errno == EXDEV || errno == EINVAL || errno == ENOSYS ||
                           errno == EOPNOTSUPP || errno == EBADF) {
                    // Some file systems refuse the kernel copy; the buffer always works.
                    kernelCopyFailed_ = true;
                } else {
                    return dataFault(name);
                }
                continue;
            }
            if (!buffer) buffer.reset(new char[1 << 20]);
            ssize_t got = ::read(in, buffer.get(), std::min<std::size_t>(want, 1 << 20));
            if (got < 0) {
                if (errno == EINTR) continue;
                return dataFault(name);
            }
            if (got == 0) {
                eof = true;
                continue;
            }
            for (ssize_t done = 0; done < got;) {
                ssize_t w = ::write(out, buffer.get() + done, static_cast<std::size_t>(got - done));
                if (w < 0) {
                    if (errno == EINTR) continue;
                    return dataFault(name);
                }
                done += w;
            }
            step += static_cast<std::uint64_t>(got);
        }
        copied += step;
        if (step > 0 && onStep) onStep(copied);
        if (eof) return {};
    }
}

Status LocalFileCopier::placeFile(const std::string& partial, const std::string& to, bool replace) {
    int err = replace ? LocalFileOps::replaceItem(partial, to)
                      : LocalFileOps::renameNoReplace(partial, to);
    if (err != 0) return cannotCreate(to, err);
    return {};
}

Status LocalFileCopier::copyFile(const std::string& from, const std::string& to, bool replace,
                                 bool staged) {
    stopped_ = false;
    Fd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.fd < 0) {
        if (errno == ENOENT) return notFound(from);
        return dataFault(fileName(from));
    }
    struct stat st {};
    if (::fstat(in.fd, &st) != 0) return dataFault(fileName(from));
    struct stat existing {};
    if (!replace && !staged && ::lstat(to.c_str(), &existing) == 0) return cannotCreate(to, EEXIST);
    // Whatever a kill leaves is a hidden temporary, never a torn file under the target's name.
    std::string writePath = staged ? to : hiddenSibling(to);
    Fd out(::open(writePath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (out.fd < 0) return cannotCreate(to);
    auto discard = [&] {
        ::close(out.fd);
        out.fd = -1;
        ::unlink(writePath.c_str());
    };
    auto r = copyData(in.fd, out.fd, st, fileName(from));
    if (!r || stopped_) {
        discard();
        return r;
    }
    ::fchmod(out.fd, st.st_mode & 07777);
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    ::futimens(out.fd, times);
    if (::close(out.fd) != 0) {
        out.fd = -1;
        ::unlink(writePath.c_str());
        return dataFault(fileName(from));
    }
    out.fd = -1;
    if (writePath != to) {
        if (auto placed = placeFile(writePath, to, replace); !placed) {
            ::unlink(writePath.c_str());
            return placed;
        }
    }
    return {};
}

Status LocalFileCopier::copyLink(const std::string& from, const std::string& to, bool replace) {
    std::string target(4096, '\0');
    ssize_t n = ::readlink(from.c_str(), target.data(), target.size());
    if (n < 0) return errno == ENOENT ? notFound(from) : dataFault(fileName(from));
    target.resize(static_cast<std::size_t>(n));
    struct stat st {};
    ::lstat(from.c_str(), &st);
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    struct stat existing {};
    if (!replace || ::lstat(to.c_str(), &existing) != 0) {
        if (::symlink(target.c_str(), to.c_str()) != 0) return cannotCreate(to);
        ::utimensat(AT_FDCWD, to.c_str(), times, AT_SYMLINK_NOFOLLOW);
        return {};
    }
    // The link is made beside the item it replaces and takes its place in one step.
    std::string staging = hiddenSibling(to);
    if (::symlink(target.c_str(), staging.c_str()) != 0) return cannotCreate(to);
    ::utimensat(AT_FDCWD, staging.c_str(), times, AT_SYMLINK_NOFOLLOW);
    auto placed = placeFile(staging, to, true);
    if (!placed) ::unlink(staging.c_str());
    return placed;
}

Status LocalFileCopier::moveIntoPlace(const std::string& from, const std::string& to,
                                      bool replace) {
    int err =
        replace ? LocalFileOps::replaceItem(from, to) : LocalFileOps::renameNoReplace(from, to);
    if (err == 0) return {};
    if (err != EXDEV) return cannotCreate(to, err);
    // Another file system: copy beside the target, then rename it into place.
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) return notFound(from);
    std::string staging = hiddenSibling(to);
    Status copied = S_ISLNK(st.st_mode) ? copyLink(from, staging, false)
                                        : copyFile(from, staging, false, /*staged=*/true);
    if (!copied || stopped_) {
        ::unlink(staging.c_str());
        return copied;
    }
    if (auto placed = placeFile(staging, to, replace); !placed) {
        ::unlink(staging.c_str());
        return placed;
    }
    ::unlink(from.c_str());
    return {};
}

}  // namespace quillon
