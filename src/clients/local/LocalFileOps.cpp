#include "clients/local/LocalFileOps.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

namespace quillon::LocalFileOps {

ErrorKind kindOfErrno(int err) {
    switch (err) {
        case ENOENT:
            return ErrorKind::NotFound;
        case EEXIST:
            return ErrorKind::AlreadyExists;
        case EACCES:
        case EPERM:
        case EROFS:
            return ErrorKind::PermissionDenied;
        case ECANCELED:
            return ErrorKind::Cancelled;
        case ENOSPC:
        case EDQUOT:
            return ErrorKind::NoSpace;
        case ENOTSUP:
        case ENOSYS:
            return ErrorKind::Unsupported;
        default:
            return ErrorKind::Other;
    }
}

Error posixError(int err, std::string_view path) {
    if (err == ENOENT)
        return KvError::errorWithDomain(ErrorDomain::Local, ErrorCode::NotFound, "File not found!");
    const char* message = ::strerrordesc_np(err);
    std::string text = message ? message : fmt::format("Error {}", err);
    if (!path.empty()) text = fmt::format("{}: {}", path, text);
    return KvError::errorWithDomain(ErrorDomain::Local, err, text, kindOfErrno(err));
}

std::string trimTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    return std::string(path);
}

std::string baseName(std::string_view path) {
    std::string p = trimTrailingSlashes(path);
    if (p == "/") return p;
    auto slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string dirName(std::string_view path) {
    std::string p = trimTrailingSlashes(path);
    auto slash = p.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return p.substr(0, slash);
}

std::string joinPath(std::string_view folder, std::string_view name) {
    std::string out(folder);
    if (out.empty() || out.back() != '/') out += '/';
    while (!name.empty() && name.front() == '/') name.remove_prefix(1);
    out += name;
    return out;
}

std::string pathExtension(std::string_view name) {
    auto dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return {};
    return std::string(name.substr(dot + 1));
}

std::string deletingPathExtension(std::string_view name) {
    auto dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0) return std::string(name);
    return std::string(name.substr(0, dot));
}

std::string percentEncodePath(std::string_view path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(path.size());
    for (unsigned char c : path) {
        bool keep = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '-' || c == '.' || c == '_' || c == '~' || c == '/';
        if (keep) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

TimePoint toTimePoint(const struct timespec& ts) {
    return TimePoint(std::chrono::duration_cast<TimePoint::duration>(
        std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec)));
}

CopyOutcome copyContents(int in, int out, std::uint64_t chunk, const std::function<bool()>& stop,
                         const std::function<void(std::uint64_t)>& step) {
    enum class Mode { Clone, Kernel, Buffer };
    constexpr std::size_t kBufferSize = 1 << 20;

    struct stat st {};
    bool regular = ::fstat(in, &st) == 0 && S_ISREG(st.st_mode);
    // Pipes and devices cannot be cloned or offset-addressed: they go through the buffer.
    Mode mode = regular ? Mode::Clone : Mode::Buffer;
    loff_t offIn = 0, offOut = 0;
    std::unique_ptr<char[]> buffer;
    CopyOutcome result;

    while (true) {
        if (stop && stop()) {
            result.end = CopyEnd::Stopped;
            return result;
        }
        std::uint64_t inChunk = 0;
        bool eof = false;
        while (inChunk < chunk && !eof) {
            std::uint64_t want = chunk - inChunk;
            if (mode == Mode::Clone) {
                auto size = static_cast<std::uint64_t>(st.st_size);
                std::uint64_t len = size > static_cast<std::uint64_t>(offIn)
                                        ? std::min(want, size - static_cast<std::uint64_t>(offIn))
                                        : 0;
                file_clone_range range{};
                range.src_fd = in;
                range.src_offset = static_cast<__u64>(offIn);
                range.src_length = len;
                range.dest_offset = static_cast<__u64>(offOut);
                // Past the size seen at the start the file may have grown: the kernel copy finds
                // the real end.
                if (len == 0 || ::ioctl(out, FICLONERANGE, &range) != 0) {
                    mode = Mode::Kernel;
                    continue;
                }
                offIn += static_cast<loff_t>(len);
                offOut += static_cast<loff_t>(len);
                inChunk += len;
            } else if (mode == Mode::Kernel) {
                ssize_t n = ::copy_file_range(in, &offIn, out, &offOut, want, 0);
                if (n > 0) {
                    inChunk += static_cast<std::uint64_t>(n);
                } else if (n == 0) {
                    eof = true;
                } else if (errno != EINTR) {
                    // The kernel copy cannot tell a read failure from a write failure, and some
                    // file systems refuse it: the buffered copy either works or names the side.
                    mode = Mode::Buffer;
                }
            } else {
                if (!buffer) buffer.reset(new char[kBufferSize]);
                std::size_t n =
                    static_cast<std::size_t>(std::min<std::uint64_t>(want, kBufferSize));
                ssize_t got =
                    regular ? ::pread(in, buffer.get(), n, offIn) : ::read(in, buffer.get(), n);
                if (got < 0) {
                    if (errno == EINTR) continue;
                    result.end = CopyEnd::ReadFailed;
                    result.err = errno;
                    return result;
                }
                if (got == 0) {
                    eof = true;
                    continue;
                }
                ssize_t written = 0;
                while (written < got) {
                    ssize_t w = ::pwrite(out, buffer.get() + written,
                                         static_cast<std::size_t>(got - written), offOut + written);
                    if (w < 0) {
                        if (errno == EINTR) continue;
                        result.end = CopyEnd::WriteFailed;
                        result.err = errno;
                        return result;
                    }
                    written += w;
                }
                offIn += got;
                offOut += got;
                inChunk += static_cast<std::uint64_t>(got);
            }
        }
        if (inChunk > 0) {
            result.copied += inChunk;
            if (step) step(result.copied);
        }
        if (eof) break;
    }
    result.end = CopyEnd::Finished;
    return result;
}

int renameNoReplace(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    struct stat existing {};
    if (::lstat(to.c_str(), &existing) == 0) return EEXIST;
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

int replaceItem(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) == 0) return 0;
    int err = errno;
    // A folder on either side: a rename cannot replace it, an exchange can.
    if (err != EISDIR && err != ENOTDIR && err != ENOTEMPTY && err != EEXIST) return err;
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_EXCHANGE) != 0)
        return errno;
    std::error_code ec;
    std::filesystem::remove_all(from, ec);
    return 0;
}

int applyAttributes(int fd, const struct stat& st) {
    if (::fchmod(fd, st.st_mode & 07777) != 0) return errno;
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (::futimens(fd, times) != 0) return errno;
    return 0;
}

}  // namespace quillon::LocalFileOps
