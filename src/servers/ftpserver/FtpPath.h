#pragma once
// Paths of the FTP server: what a client names is folded into a path seen from the shared folder
// ("/" is the shared folder itself), and that path is resolved beneath a descriptor of the shared
// folder, so that neither "..", an absolute path, a link pointing outside, nor a link swapped in
// while a command runs leads out of it. Commands act on the descriptors resolved here, never on
// path strings that something could change between a check and its use.

#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace quillon::FtpPath {

// `argument` applied to `currentFolder` (both seen from the shared folder), with "." and ".."
// folded and never above "/". Absent when the argument holds a NUL, CR or LF byte: such a name
// could not be sent back in a reply or a listing line.
std::optional<std::string> virtualPath(std::string_view currentFolder, std::string_view argument);

// True when `path` is `root` or lies inside it (both canonical).
bool isInside(const std::string& root, const std::string& path);

// The canonical form of an existing local path (links resolved), or absent.
std::optional<std::string> canonical(const std::string& path);

// An owned file descriptor, closed by the destructor.
class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd();
    Fd(Fd&& other) noexcept : fd_(other.release()) {}
    Fd& operator=(Fd&& other) noexcept;
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release();

  private:
    int fd_ = -1;
};

// The item named by the last part of a path: the descriptor of the folder that holds it and its
// name in there.
struct Entry {
    Fd folder;
    std::string name;
};

// A failure is the errno value; EXDEV means that the path leads out of the shared folder.
template <typename T>
using Resolved = std::expected<T, int>;

// The shared folder, held open. Links met on the way are followed while they stay inside it (an
// absolute link counts when it names a place inside the shared folder) and refused otherwise.
class Root {
  public:
    // Opens the folder at the canonical `path`; absent when it is not a folder that can be opened.
    static std::optional<Root> open(const std::string& path);

    const std::string& path() const { return path_; }
    int fd() const { return fd_.get(); }

    // Opens the item at `virtualPath`, every link followed. `flags` are open(2) flags without
    // O_CREAT; O_NONBLOCK, O_NOCTTY and O_CLOEXEC are always added, so that opening a FIFO or a
    // device never waits.
    Resolved<Fd> open(std::string_view virtualPath, int flags) const;
    // The folder holding the item at `virtualPath` and its name there, the folder's own path
    // resolved like open(). A link in the last place is followed when `followLast` (to the
    // folder and name of what it points to, which need not exist), else it is the entry itself.
    // Fails for "/", which no folder inside holds.
    Resolved<Entry> entry(std::string_view virtualPath, bool followLast) const;
    // The local path of an item opened beneath the root, as the system tells where `fd` is (for
    // change notices and thumbnails); the root's path joined with `virtualPath` when it cannot.
    std::string localPath(int fd, std::string_view virtualPath) const;

  private:
    Root(std::string path, Fd fd) : path_(std::move(path)), fd_(std::move(fd)) {}
    enum class Want { Open, EntryFollowingLast };
    struct Walked {
        Fd item;  // what was opened (Want::Open)
        Entry entry;
    };
    // Resolves one component at a time with O_NOFOLLOW, reading links itself: the way that
    // cannot be raced on kernels without openat2, and the way absolute links inside are taken.
    Resolved<Walked> walk(std::string_view virtualPath, Want want, int flags) const;
    // The path below the root of an absolute link target, when it points inside.
    std::optional<std::string> beneath(const std::string& target) const;

    std::string path_;
    Fd fd_;
};

// False resolves every path component by component, as on a kernel without openat2 (tests run
// both ways with it). True by default; the first ENOSYS from openat2 turns it off for good.
void setOpenat2Allowed(bool allowed);

}  // namespace quillon::FtpPath
