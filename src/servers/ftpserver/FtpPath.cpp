#include "servers/ftpserver/FtpPath.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <vector>

namespace quillon::FtpPath {

namespace {

std::atomic<bool> openat2Allowed{true};

// As many links as the kernel follows in one lookup.
constexpr int kMaxLinks = 40;

int addedFlags(int flags) {
    // openat2 refuses with O_PATH every flag but these few, and they mean nothing there anyway.
    if (flags & O_PATH) return O_CLOEXEC;
    return O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
}

// The parts of `path` put before the ones still to resolve, in their order.
void prepend(std::deque<std::string>& parts, std::string_view path) {
    std::vector<std::string> split;
    std::size_t pos = 0;
    while (pos <= path.size()) {
        auto slash = path.find('/', pos);
        if (slash == std::string_view::npos) slash = path.size();
        if (slash > pos) split.emplace_back(path.substr(pos, slash - pos));
        pos = slash + 1;
    }
    parts.insert(parts.begin(), split.begin(), split.end());
}

Fd duplicate(int fd) {
    return Fd(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

std::optional<std::string> readLink(int linkFd) {
    char buf[PATH_MAX + 1];
    ssize_t n = ::readlinkat(linkFd, "", buf, sizeof buf);
    if (n <= 0 || static_cast<std::size_t>(n) >= sizeof buf) return std::nullopt;
    return std::string(buf, static_cast<std::size_t>(n));
}

}  // namespace

std::optional<std::string> virtualPath(std::string_view currentFolder, std::string_view argument) {
    if (argument.find_first_of(std::string_view("\0\r\n", 3)) != std::string_view::npos)
        return std::nullopt;
    std::vector<std::string_view> parts;
    auto fold = [&parts](std::string_view text) {
        std::size_t pos = 0;
        while (pos <= text.size()) {
            auto slash = text.find('/', pos);
            if (slash == std::string_view::npos) slash = text.size();
            auto part = text.substr(pos, slash - pos);
            if (part == "..") {
                if (!parts.empty()) parts.pop_back();
            } else if (!part.empty() && part != ".") {
                parts.push_back(part);
            }
            pos = slash + 1;
        }
    };
    if (argument.empty() || argument.front() != '/') fold(currentFolder);
    fold(argument);
    if (parts.empty()) return std::string("/");
    std::string out;
    for (auto part : parts) {
        out += '/';
        out += part;
    }
    return out;
}

bool isInside(const std::string& root, const std::string& path) {
    if (path == root) return true;
    if (root == "/") return !path.empty() && path.front() == '/';
    return path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
           path[root.size()] == '/';
}

std::optional<std::string> canonical(const std::string& path) {
    if (path.find('\0') != std::string::npos) return std::nullopt;
    char buf[PATH_MAX];
    if (!::realpath(path.c_str(), buf)) return std::nullopt;
    return std::string(buf);
}

void setOpenat2Allowed(bool allowed) {
    openat2Allowed = allowed;
}

// ---- Fd ----

Fd::~Fd() {
    if (fd_ >= 0) ::close(fd_);
}

Fd& Fd::operator=(Fd&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = other.release();
    }
    return *this;
}

int Fd::release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
}

// ---- Root ----

std::optional<Root> Root::open(const std::string& path) {
    Fd fd(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!fd) return std::nullopt;
    return Root(path, std::move(fd));
}

std::optional<std::string> Root::beneath(const std::string& target) const {
    auto below = [this](const std::string& path) -> std::optional<std::string> {
        if (!isInside(path_, path)) return std::nullopt;
        return path_ == "/" ? path : path.substr(path_.size());
    };
    if (auto rel = below(target)) return rel;
    // A link may name the shared folder by another way to it, through a linked parent. What
    // realpath makes of it is only a path below the root, resolved beneath the root again.
    if (auto real = canonical(target)) return below(*real);
    return std::nullopt;
}

Resolved<Fd> Root::open(std::string_view virtualPath, int flags) const {
    flags |= addedFlags(flags);
    if (virtualPath.empty() || virtualPath.front() != '/') return std::unexpected(EINVAL);
    if (openat2Allowed) {
        std::string relative(virtualPath.substr(1));
        if (relative.empty()) relative = ".";
        open_how how{};
        how.flags = static_cast<std::uint64_t>(flags);
        how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
        for (int attempt = 0; attempt < 4; ++attempt) {
            long fd = ::syscall(SYS_openat2, fd_.get(), relative.c_str(), &how, sizeof how);
            if (fd >= 0) return Fd(static_cast<int>(fd));
            int error = errno;
            // EAGAIN: a rename elsewhere raced with the lookup; it is safe to look again.
            if (error == EAGAIN || error == EINTR) continue;
            if (error == ENOSYS) {
                openat2Allowed = false;
                break;
            }
            // EXDEV: an absolute link, or one leading out; the walk tells which. ELOOP: many
            // links, or a magic link, which the walk reads like any other.
            if (error != EXDEV && error != ELOOP) return std::unexpected(error);
            break;
        }
    }
    auto walked = walk(virtualPath, Want::Open, flags);
    if (!walked) return std::unexpected(walked.error());
    return std::move(walked->item);
}

Resolved<Entry> Root::entry(std::string_view virtualPath, bool followLast) const {
    if (virtualPath.empty() || virtualPath.front() != '/') return std::unexpected(EINVAL);
    auto slash = virtualPath.rfind('/');
    std::string name(virtualPath.substr(slash + 1));
    if (name.empty() || name == "." || name == "..") return std::unexpected(EINVAL);
    auto folder = open(slash == 0 ? std::string_view("/") : virtualPath.substr(0, slash),
                       O_PATH | O_DIRECTORY);
    if (!folder) return std::unexpected(folder.error());
    struct stat st {};
    if (followLast && ::fstatat(folder->get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISLNK(st.st_mode)) {
        auto walked = walk(virtualPath, Want::EntryFollowingLast, 0);
        if (!walked) return std::unexpected(walked.error());
        return std::move(walked->entry);
    }
    return Entry{std::move(*folder), std::move(name)};
}

Resolved<Root::Walked> Root::walk(std::string_view virtualPath, Want want, int flags) const {
    std::vector<Fd> folders;  // the folders below the root on the way; the last one is current
    auto here = [&folders, this] { return folders.empty() ? fd_.get() : folders.back().get(); };
    auto entryHere = [&](std::string name) -> Resolved<Walked> {
        Fd folder = folders.empty() ? duplicate(fd_.get()) : std::move(folders.back());
        if (!folder) return std::unexpected(errno);
        return Walked{Fd(), Entry{std::move(folder), std::move(name)}};
    };
    std::deque<std::string> parts;
    prepend(parts, virtualPath);
    int links = 0;
    while (!parts.empty()) {
        std::string part = std::move(parts.front());
        parts.pop_front();
        bool last = parts.empty();
        if (part == ".") continue;
        if (part == "..") {
            if (folders.empty()) return std::unexpected(EXDEV);
            folders.pop_back();
            continue;
        }
        Fd item(::openat(here(), part.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat st {};
        if (!item || ::fstat(item.get(), &st) != 0) {
            if (errno == ENOENT && last && want == Want::EntryFollowingLast)
                return entryHere(std::move(part));
            return std::unexpected(errno);
        }
        if (S_ISLNK(st.st_mode)) {
            if (++links > kMaxLinks) return std::unexpected(ELOOP);
            auto target = readLink(item.get());
            if (!target) return std::unexpected(ENOENT);
            if (target->front() == '/') {
                auto below = beneath(*target);
                if (!below) return std::unexpected(EXDEV);
                folders.clear();
                prepend(parts, *below);
            } else {
                prepend(parts, *target);
            }
            continue;
        }
        if (last) {
            if (want == Want::EntryFollowingLast) return entryHere(std::move(part));
            Fd opened(::openat(here(), part.c_str(), flags | O_NOFOLLOW));
            struct stat again {};
            if (!opened || ::fstat(opened.get(), &again) != 0) return std::unexpected(errno);
            // Swapped for something else since it was looked at: let the caller fail.
            if (again.st_dev != st.st_dev || again.st_ino != st.st_ino)
                return std::unexpected(EAGAIN);
            return Walked{std::move(opened), {}};
        }
        if (!S_ISDIR(st.st_mode)) return std::unexpected(ENOTDIR);
        folders.push_back(std::move(item));
    }
    // The path ended in a folder: the root itself, or one reached by "." or "..".
    if (want != Want::Open) return std::unexpected(EINVAL);
    Fd opened(::openat(here(), ".", flags));
    if (!opened) return std::unexpected(errno);
    return Walked{std::move(opened), {}};
}

std::string Root::localPath(int fd, std::string_view virtualPath) const {
    char buf[PATH_MAX + 1];
    std::string link = "/proc/self/fd/" + std::to_string(fd);
    ssize_t n = ::readlink(link.c_str(), buf, sizeof buf);
    if (n > 0 && static_cast<std::size_t>(n) < sizeof buf && buf[0] == '/')
        return std::string(buf, static_cast<std::size_t>(n));
    if (virtualPath.empty() || virtualPath == "/") return path_;
    return (path_ == "/" ? std::string() : path_) + std::string(virtualPath);
}

}  // namespace quillon::FtpPath
