#include "archives/StreamSources.h"

#include <bzlib.h>
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

namespace quillon {

// One member of a gzip or bzip2 file after another: both formats allow several in one file
// (what `cat a.gz b.gz` makes), and both tools read them as one stream.
struct DecompressingSource::Codec {
    enum class Step { Ok, MemberEnd, Error };

    explicit Codec(Kind k) : kind(k) {}
    ~Codec() { endMember(); }

    // Whether `byte` can start a member; trailing padding after the last member is ignored.
    bool startsMember(char byte) const {
        return kind == Kind::Gzip ? static_cast<unsigned char>(byte) == 0x1f : byte == 'B';
    }
    bool startMember() {
        endMember();
        if (kind == Kind::Gzip) {
            zs = {};
            live = inflateInit2(&zs, 16 + MAX_WBITS) == Z_OK;
        } else {
            bz = {};
            live = BZ2_bzDecompressInit(&bz, 0, 0) == BZ_OK;
        }
        return live;
    }
    void endMember() {
        if (!live) return;
        if (kind == Kind::Gzip)
            inflateEnd(&zs);
        else
            BZ2_bzDecompressEnd(&bz);
        live = false;
    }
    // Decompresses from in/inSize into out/outSize; both are advanced.
    Step step(const char*& in, std::size_t& inSize, char*& out, std::size_t& outSize) {
        if (kind == Kind::Gzip) {
            zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in));
            zs.avail_in = static_cast<uInt>(inSize);
            zs.next_out = reinterpret_cast<Bytef*>(out);
            zs.avail_out = static_cast<uInt>(outSize);
            int r = inflate(&zs, Z_NO_FLUSH);
            in = reinterpret_cast<const char*>(zs.next_in);
            inSize = zs.avail_in;
            out = reinterpret_cast<char*>(zs.next_out);
            outSize = zs.avail_out;
            if (r == Z_STREAM_END) return Step::MemberEnd;
            if (r == Z_OK || r == Z_BUF_ERROR) return Step::Ok;
            message = zs.msg ? zs.msg : "invalid compressed data";
            return Step::Error;
        }
        bz.next_in = const_cast<char*>(in);
        bz.avail_in = static_cast<unsigned>(inSize);
        bz.next_out = out;
        bz.avail_out = static_cast<unsigned>(outSize);
        int r = BZ2_bzDecompress(&bz);
        in = bz.next_in;
        inSize = bz.avail_in;
        out = bz.next_out;
        outSize = bz.avail_out;
        if (r == BZ_STREAM_END) return Step::MemberEnd;
        if (r == BZ_OK) return Step::Ok;
        message = "invalid compressed data";
        return Step::Error;
    }

    Kind kind;
    z_stream zs{};
    bz_stream bz{};
    bool live = false;
    bool inMember = false;
    int members = 0;
    const char* next = nullptr;  // unconsumed input in in_
    std::size_t available = 0;
    std::string message;
};

DecompressingSource::DecompressingSource(Kind kind, const std::string& path)
    : codec_(std::make_unique<Codec>(kind)),
      in_(kind == Kind::Gzip ? 16384 : 102400),
      out_(1 << 18) {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) openErrno_ = errno;
}

DecompressingSource::~DecompressingSource() {
    if (fd_ >= 0) ::close(fd_);
}

std::expected<std::span<const char>, std::string> DecompressingSource::fail(std::string why) {
    failed_ = true;
    return std::unexpected(std::move(why));
}

std::expected<std::span<const char>, std::string> DecompressingSource::read() {
    if (fd_ < 0) return fail(std::strerror(openErrno_));
    if (failed_) return fail(codec_->message);
    if (ended_) return std::span<const char>{};
    auto& c = *codec_;
    char* out = out_.data();
    std::size_t room = out_.size();
    while (room == out_.size()) {
        if (c.available == 0) {
            ssize_t n = ::read(fd_, in_.data(), in_.size());
            if (n < 0) {
                if (errno == EINTR) continue;
                return fail(std::strerror(errno));
            }
            if (n == 0) {
                if (c.inMember || c.members == 0) return fail("unexpected end of data");
                ended_ = true;
                break;
            }
            c.next = in_.data();
            c.available = static_cast<std::size_t>(n);
        }
        if (!c.inMember) {
            if (!c.startsMember(*c.next)) {
                if (c.members == 0) return fail("not compressed data of this kind");
                ended_ = true;  // padding after the last member
                break;
            }
            if (!c.startMember()) return fail("out of memory");
            c.inMember = true;
        }
        std::size_t before = c.available;
        auto step = c.step(c.next, c.available, out, room);
        consumed_ += before - c.available;
        if (step == Codec::Step::Error) return fail(c.message);
        if (step == Codec::Step::MemberEnd) {
            c.inMember = false;
            ++c.members;
        }
    }
    return std::span<const char>(out_.data(), out_.size() - room);
}

ExtractStatus decompressToFile(DecompressingSource& source, const std::string& path,
                               ExtractMonitor& monitor, std::uint64_t archiveSize) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (fd < 0)
        return std::unexpected(ExtractError{ExtractFailure::WriteFailed, std::strerror(errno)});
    std::uint64_t total = 0;
    ExtractStatus status;
    while (status) {
        auto chunk = source.read();
        if (!chunk) {
            status = std::unexpected(ExtractError{ExtractFailure::Damaged, chunk.error()});
            break;
        }
        if (chunk->empty()) break;
        const char* p = chunk->data();
        std::size_t left = chunk->size();
        while (left > 0) {
            ssize_t n = ::write(fd, p, left);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                auto kind = errno == ENOSPC ? ExtractFailure::NoSpace : ExtractFailure::WriteFailed;
                status = std::unexpected(ExtractError{kind, std::strerror(errno)});
                break;
            }
            p += n;
            left -= static_cast<std::size_t>(n);
        }
        if (!status) break;
        total += chunk->size();
        status = monitor.wrote(chunk->size(), total, source.consumed());
        monitor.progress(static_cast<std::int64_t>(source.consumed()),
                         static_cast<std::int64_t>(archiveSize));
    }
    if (::close(fd) != 0 && status)
        status = std::unexpected(ExtractError{ExtractFailure::WriteFailed, std::strerror(errno)});
    return status;
}

}  // namespace quillon
