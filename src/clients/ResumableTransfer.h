#pragma once
// What the SFTP and SMB transfers share: attempts that take a broken transfer up again where it
// stopped, the local file a download writes (removed unless it arrived whole) and the local file
// an upload reads (what the server did not take is offered again).

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/Error.h"

namespace quillon {

// How often a transfer that a broken connection interrupted is taken up again, and after what
// pause.
struct TransferAttempts {
    int max = 10;
    std::chrono::milliseconds pause{1000};

    // Runs `attempt(number)` until one succeeds, one fails other than by the connection, or none
    // is left: the outcome of the last. `pausing(pause)` waits between attempts (a client that
    // holds a lock lets it go meanwhile); `stopped()`, asked after each pause, ends the attempts
    // with the last failure.
    Status run(const std::function<Status(int)>& attempt, const std::function<bool()>& stopped,
               const std::function<void(std::chrono::milliseconds)>& pausing = {}) const {
        Status last = std::unexpected(
            KvError::errorWithDomain(ErrorDomain::Generic, -1, "No attempt was made"));
        for (int n = 0; n < max; ++n) {
            if (n > 0) {
                if (pausing)
                    pausing(pause);
                else
                    std::this_thread::sleep_for(pause);
                if (stopped()) break;
            }
            last = attempt(n);
            if (last || last.error().kind != ErrorKind::Connection) break;
        }
        return last;
    }
};

// The local file a download goes to: created on first use, written at the offsets of what arrives
// (in order, into a pipe or a terminal), and removed unless it is finished whole.
class DownloadSink {
  public:
    explicit DownloadSink(std::string path) : path_(std::move(path)) {}
    ~DownloadSink() { (void)finish(false, std::nullopt); }
    DownloadSink(const DownloadSink&) = delete;
    DownloadSink& operator=(const DownloadSink&) = delete;

    const std::string& path() const { return path_; }
    bool opened() const { return fd_ >= 0; }
    // Parts of the file may be written at once, each at its offsets.
    bool seekable() const { return seekable_; }
    // Creates the file, emptied; 0 or the errno.
    int open() {
        if (fd_ >= 0) return 0;
        fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd_ < 0) return errno;
        struct stat st {};
        seekable_ = ::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode);
        return 0;
    }
    // Writes all of `data` at `offset`; 0 or the errno.
    int write(std::int64_t offset, const char* data, std::size_t size) const {
        while (size > 0) {
            ssize_t n = seekable_ ? ::pwrite(fd_, data, size, offset) : ::write(fd_, data, size);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return n == 0 ? EIO : errno;
            data += n;
            size -= static_cast<std::size_t>(n);
            offset += n;
        }
        return 0;
    }
    // Closes the file: kept with the server's time `mtime` when `whole` and closed cleanly, else
    // removed. 0, or the errno of the failed close of a whole file.
    int finish(bool whole, std::optional<std::chrono::system_clock::time_point> mtime) {
        if (fd_ < 0) return 0;
        int err = ::close(fd_) == 0 ? 0 : errno;
        fd_ = -1;
        if (!whole || err != 0) {
            ::unlink(path_.c_str());
            return whole ? err : 0;
        }
        if (mtime) {
            timespec times[2];
            times[0].tv_sec = times[1].tv_sec = std::chrono::system_clock::to_time_t(*mtime);
            times[0].tv_nsec = times[1].tv_nsec = 0;
            ::utimensat(AT_FDCWD, path_.c_str(), times, 0);
        }
        return 0;
    }

  private:
    std::string path_;
    int fd_ = -1;
    bool seekable_ = false;
};

// The local file an upload sends, read in large pieces: what the server took of a piece counts,
// the rest is offered again. A pipe is read once, front to back.
class UploadSource {
  public:
    explicit UploadSource(std::size_t pieceSize) : buffer_(pieceSize) {}
    ~UploadSource() {
        if (fd_ >= 0) ::close(fd_);
    }
    UploadSource(const UploadSource&) = delete;
    UploadSource& operator=(const UploadSource&) = delete;

    // Opens the file; 0 or the errno.
    int open(const std::string& path) {
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) return errno;
        if (::fstat(fd_, &stat_) != 0) return errno;
        seekable_ = S_ISREG(stat_.st_mode);
        return 0;
    }
    const struct stat& stat() const { return stat_; }
    // A file, not a pipe: its size is known and it can be read again.
    bool seekable() const { return seekable_; }
    std::int64_t size() const { return stat_.st_size; }
    // The bytes of the file the server took.
    std::int64_t sent() const { return sent_; }
    // Sending goes on from `offset` (what the server holds after a broken connection); false
    // when that is before the last piece of a pipe.
    bool restartAt(std::int64_t offset) {
        std::int64_t pieceStart = readAt_ - static_cast<std::int64_t>(filled_);
        if (offset >= pieceStart && offset <= readAt_) {
            offered_ = static_cast<std::size_t>(offset - pieceStart);
        } else if (seekable_) {
            readAt_ = offset;
            filled_ = offered_ = 0;
        } else {
            return false;
        }
        sent_ = offset;
        return true;
    }
    // What is still to offer of the last piece, the next piece read when it is all taken (none
    // at the end of the file); false with the errno when the file cannot be read.
    bool pending(const char*& data, std::size_t& size, int& err) {
        if (offered_ == filled_) {
            offered_ = filled_ = 0;
            ssize_t r;
            do
                r = seekable_ ? ::pread(fd_, buffer_.data(), buffer_.size(), readAt_)
                              : ::read(fd_, buffer_.data(), buffer_.size());
            while (r < 0 && errno == EINTR);
            if (r < 0) {
                err = errno;
                return false;
            }
            filled_ = static_cast<std::size_t>(r);
            readAt_ += r;
        }
        data = buffer_.data() + offered_;
        size = filled_ - offered_;
        return true;
    }
    // Bytes of the last piece not taken yet.
    std::size_t rest() const { return filled_ - offered_; }
    // The server took `n` of the pending bytes.
    void taken(std::size_t n) {
        offered_ += n;
        sent_ += static_cast<std::int64_t>(n);
    }

  private:
    std::vector<char> buffer_;
    int fd_ = -1;
    bool seekable_ = false;
    struct stat stat_ {};
    std::int64_t readAt_ = 0;
    std::int64_t sent_ = 0;
    std::size_t filled_ = 0;
    std::size_t offered_ = 0;
};

}  // namespace quillon
