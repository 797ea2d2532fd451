#include "archives/ZipArchive.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

#include "archives/ArchiveError.h"
#include "core/StringUtils.h"

namespace quillon {

namespace {

std::string libraryError(archive* a) {
    const char* text = archive_error_string(a);
    return text ? text : "unknown error";
}

std::optional<std::string> charsetOf(unsigned long encoding) {
    if (encoding == StringEncoding::UTF8) return std::nullopt;
    return StringEncoding::iconvNameForEncodingNumber(encoding);
}

std::uint32_t le(const unsigned char* p, int bytes) {
    std::uint32_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | p[i];
    return v;
}

std::string readAt(int fd, std::uint64_t offset, std::size_t size) {
    std::string out(size, '\0');
    ssize_t n = ::pread(fd, out.data(), size, static_cast<off_t>(offset));
    out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return out;
}

// Info-ZIP encrypts a link's target like file data, and libarchive takes a link's target from
// the raw data without decrypting it: the target is read here from the zip's directory and
// local header, and decrypted (traditional zip encryption; links under AES are refused).
std::expected<std::string, ExtractError> encryptedLinkTarget(const std::string& zipPath,
                                                             const std::string& name,
                                                             const std::string& password) {
    auto fail = [&](ExtractFailure f) {
        return std::unexpected(ExtractError{f, "the link " + name + " cannot be decrypted here"});
    };
    int fd = ::open(zipPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return fail(ExtractFailure::WriteFailed);
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat st {};
    ::fstat(fd, &st);
    auto size = static_cast<std::uint64_t>(st.st_size);
    std::uint64_t tailAt = size > 65557 ? size - 65557 : 0;
    std::string tail = readAt(fd, tailAt, static_cast<std::size_t>(size - tailAt));
    auto* t = reinterpret_cast<const unsigned char*>(tail.data());
    std::size_t end = tail.size() < 22 ? 0 : tail.size() - 22 + 1;
    while (end > 0 && le(t + end - 1, 4) != 0x06054b50) --end;
    if (end == 0) return fail(ExtractFailure::Damaged);
    const unsigned char* eocd = t + end - 1;
    std::string dir = readAt(fd, le(eocd + 16, 4), le(eocd + 12, 4));
    auto* p = reinterpret_cast<const unsigned char*>(dir.data());
    auto* stop = p + dir.size();
    while (p + 46 <= stop && le(p, 4) == 0x02014b50) {
        std::uint32_t flags = le(p + 8, 2), method = le(p + 10, 2), time = le(p + 12, 2);
        std::uint32_t crc = le(p + 16, 4), packed = le(p + 20, 4), offset = le(p + 42, 4);
        std::size_t nameLen = le(p + 28, 2);
        std::size_t skip = 46 + nameLen + le(p + 30, 2) + le(p + 32, 2);
        if (p + 46 + nameLen > stop) break;
        if (std::string_view(reinterpret_cast<const char*>(p + 46), nameLen) != name) {
            p += skip;
            continue;
        }
        if (!(flags & 1) || method == 99 || packed < 12 || packed > (64u << 10))
            return fail(ExtractFailure::WriteFailed);
        std::string local = readAt(fd, offset, 30);
        auto* l = reinterpret_cast<const unsigned char*>(local.data());
        if (local.size() < 30 || le(l, 4) != 0x04034b50) return fail(ExtractFailure::Damaged);
        std::string data = readAt(fd, offset + 30 + le(l + 26, 2) + le(l + 28, 2), packed);
        if (data.size() != packed) return fail(ExtractFailure::Damaged);
        const z_crc_t* table = get_crc_table();
        std::uint32_t k0 = 0x12345678, k1 = 0x23456789, k2 = 0x34567890;
        auto update = [&](unsigned char c) {
            k0 = table[(k0 ^ c) & 0xff] ^ (k0 >> 8);
            k1 = (k1 + (k0 & 0xff)) * 134775813u + 1;
            k2 = table[(k2 ^ (k1 >> 24)) & 0xff] ^ (k2 >> 8);
        };
        for (unsigned char c : password) update(c);
        for (auto& ch : data) {
            std::uint32_t x = (k2 | 2) & 0xffff;
            auto plain =
                static_cast<unsigned char>(static_cast<unsigned char>(ch) ^ ((x * (x ^ 1)) >> 8));
            update(plain);
            ch = static_cast<char>(plain);
        }
        auto check = static_cast<unsigned char>(data[11]);
        if (check != ((flags & 8) ? (time >> 8) & 0xff : crc >> 24))
            return fail(ExtractFailure::WrongPassword);
        data.erase(0, 12);
        if (method == 0) return data;
        if (method != 8) return fail(ExtractFailure::WriteFailed);
        z_stream zs{};
        std::string target(4096, '\0');
        inflateInit2(&zs, -MAX_WBITS);
        zs.next_in = reinterpret_cast<Bytef*>(data.data());
        zs.avail_in = static_cast<uInt>(data.size());
        zs.next_out = reinterpret_cast<Bytef*>(target.data());
        zs.avail_out = static_cast<uInt>(target.size());
        int r = inflate(&zs, Z_FINISH);
        target.resize(zs.total_out);
        inflateEnd(&zs);
        if (r != Z_STREAM_END) return fail(ExtractFailure::Damaged);
        return target;
    }
    return fail(ExtractFailure::Damaged);
}

}  // namespace

ZipArchive::ZipArchive() : buffer_(1 << 20) {}

ZipArchive::~ZipArchive() {
    abandon();
}

void ZipArchive::abandon() {
    if (writer_) {
        archive_write_free(writer_);
        writer_ = nullptr;
    }
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    if (!scratchPath_.empty()) {
        ::unlink(scratchPath_.c_str());
        scratchPath_.clear();
    }
}

Status ZipArchive::writeFailure(const std::string& what) {
    auto error = ArchiveError::make(ArchiveErrorCode::CompressFailed, "archive.create_failed",
                                    {StringUtils::lastPathComponent(path_), what});
    abandon();
    return std::unexpected(error);
}

Status ZipArchive::CreateZipFile2(const std::string& path, const std::optional<std::string>& pass) {
    abandon();
    // libarchive fixes the character set of names when the options are set.
    ScopedUtf8Names utf8;
    path_ = path;
    numFiles_ = 0;
    if (pass) password = pass;
    // The new zip is written beside the target, under a hidden name, and renamed over it at
    // the end: a failure never costs the user an older file of that name.
    auto slash = path.rfind('/');
    std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    std::string scratch = folder + "." + StringUtils::lastPathComponent(path) + ".part-XXXXXX";
    fd_ = ::mkostemp(scratch.data(), O_CLOEXEC);
    if (fd_ < 0) return writeFailure(std::strerror(errno));
    scratchPath_ = scratch;
    writer_ = archive_write_new();
    archive_write_set_format_zip(writer_);
    archive_write_set_bytes_per_block(writer_, 1 << 18);
    archive_write_set_bytes_in_last_block(writer_, 1);
    archive_write_set_format_option(writer_, "zip", "hdrcharset", "UTF-8");
    if (compression <= 0) {
        archive_write_set_format_option(writer_, "zip", "compression", "store");
    } else {
        auto level = std::to_string(std::min(compression, 9));
        archive_write_set_format_option(writer_, "zip", "compression-level", level.c_str());
    }
    if (password) {
        const char* method = encryption == Encryption::Aes256 ? "aes256" : "zipcrypt";
        if (archive_write_set_format_option(writer_, "zip", "encryption", method) != ARCHIVE_OK ||
            archive_write_set_passphrase(writer_, password->c_str()) != ARCHIVE_OK)
            return writeFailure(libraryError(writer_));
    }
    if (archive_write_open_fd(writer_, fd_) != ARCHIVE_OK)
        return writeFailure(libraryError(writer_));
    return {};
}

Status ZipArchive::addFileToZipByTovrin(const std::string& path, const std::string& newname,
                                        const ProgressBlock& progress,
                                        const std::atomic<bool>* cancelled) {
    if (!writer_) return writeFailure("the zip is not open");
    ScopedUtf8Names utf8;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return writeFailure(path + ": " + std::strerror(errno));
    int fd = -1;
    if (S_ISREG(st.st_mode)) {
        fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0 || ::fstat(fd, &st) != 0) {
            int err = errno;
            if (fd >= 0) ::close(fd);
            return writeFailure(path + ": " + std::strerror(err));
        }
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    std::unique_ptr<archive_entry, decltype(&archive_entry_free)> entry(archive_entry_new(),
                                                                        archive_entry_free);
    archive_entry_copy_stat(entry.get(), &st);
    archive_entry_copy_pathname(entry.get(), newname.c_str());
    if (S_ISLNK(st.st_mode)) {
        std::string target(4096, '\0');
        ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
        if (n < 0) return writeFailure(path + ": " + std::strerror(errno));
        target.resize(static_cast<std::size_t>(n));
        archive_entry_copy_symlink(entry.get(), target.c_str());
    } else if (!S_ISREG(st.st_mode)) {
        archive_entry_set_size(entry.get(), 0);
    }
    Status status;
    if (archive_write_header(writer_, entry.get()) < ARCHIVE_WARN) {
        status = writeFailure(libraryError(writer_));
    } else if (fd >= 0) {
        auto total = static_cast<std::int64_t>(st.st_size);
        std::int64_t done = 0;
        while (done < total) {
            if (cancelled && cancelled->load()) {
                status = std::unexpected(
                    ArchiveError::make(ArchiveErrorCode::Cancelled, "archive.cancelled"));
                abandon();
                break;
            }
            ssize_t n = ::read(fd, buffer_.data(), buffer_.size());
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                status = writeFailure(
                    path + ": " +
                    (n < 0 ? std::strerror(errno) : std::string("the file got shorter")));
                break;
            }
            if (archive_write_data(writer_, buffer_.data(), static_cast<std::size_t>(n)) < 0) {
                status = writeFailure(libraryError(writer_));
                break;
            }
            done += n;
            if (progress) progress(done, total);
        }
    }
    if (fd >= 0) ::close(fd);
    if (status) ++numFiles_;
    return status;
}

Status ZipArchive::CloseZipFile2() {
    if (!writer_) return writeFailure("the zip is not open");
    ScopedUtf8Names utf8;
    if (archive_write_close(writer_) != ARCHIVE_OK) return writeFailure(libraryError(writer_));
    archive_write_free(writer_);
    writer_ = nullptr;
    int rc = ::close(fd_);
    fd_ = -1;
    if (rc != 0) return writeFailure(std::strerror(errno));
    if (::rename(scratchPath_.c_str(), path_.c_str()) != 0)
        return writeFailure(std::strerror(errno));
    scratchPath_.clear();
    return {};
}

Status ZipArchive::UnzipOpenFile(const std::string& path, const std::optional<std::string>& pass) {
    readPath_ = path;
    if (pass) password = pass;
    if (::access(path.c_str(), R_OK) != 0)
        return std::unexpected(ArchiveError::make(ArchiveErrorCode::NotZip, "archive.not_zip",
                                                  {StringUtils::lastPathComponent(path)}));
    return {};
}

ExtractStatus ZipArchive::UnzipFileTo(const std::string& folder, ExtractMonitor& monitor) {
    ExtractRequest request;
    request.format = ArchiveFormat::Zip;
    request.archivePath = readPath_;
    request.outputFolder = folder;
    request.password = password;
    request.nameCharset = charsetOf(stringEncoding);
    if (password)
        request.encryptedLinkTarget = [path = readPath_, pass = *password](const std::string& n) {
            return encryptedLinkTarget(path, n, pass);
        };
    auto before = monitor.entries();
    auto status = extractArchive(request, monitor);
    numFiles_ = monitor.entries() - before;
    return status;
}

void ZipArchive::UnzipCloseFile() {
    readPath_.clear();
    numFiles_ = 0;
}

}  // namespace quillon
