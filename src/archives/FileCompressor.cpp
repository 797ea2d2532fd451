#include "archives/FileCompressor.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "archives/SevenZipTool.h"
#include "archives/StreamSources.h"
#include "core/StringUtils.h"

namespace quillon {

namespace {

namespace fs = std::filesystem;
using ArchiveError::make;

std::string lower(std::string_view s) {
    return StringUtils::toLower(s);
}

// One entry of a zip to be made: the local item and its name in the zip.
struct ZipItem {
    std::string path;
    std::string name;
    std::uint64_t size = 0;  // bytes of data (files only)
};

// Appends the folder's contents below `name`, sorted by name so that the same tree always makes
// the same zip. Links are entries of their own and never followed.
Status walkFolder(const std::string& path, const std::string& name, std::vector<ZipItem>& out,
                  const struct stat& skip, const std::function<Error(std::string)>& fail) {
    DIR* dir = ::opendir(path.c_str());
    if (!dir) return std::unexpected(fail(path + ": " + std::strerror(errno)));
    std::vector<std::string> children;
    while (auto* d = ::readdir(dir)) {
        std::string_view n = d->d_name;
        if (n != "." && n != "..") children.emplace_back(n);
    }
    ::closedir(dir);
    std::sort(children.begin(), children.end());
    for (auto& child : children) {
        std::string childPath = path + "/" + child;
        struct stat st {};
        if (::lstat(childPath.c_str(), &st) != 0)
            return std::unexpected(fail(childPath + ": " + std::strerror(errno)));
        if (st.st_dev == skip.st_dev && st.st_ino == skip.st_ino) continue;  // the zip itself
        std::string childName = name + "/" + child;
        if (S_ISDIR(st.st_mode)) {
            out.push_back({childPath, childName, 0});
            if (auto r = walkFolder(childPath, childName, out, skip, fail); !r) return r;
        } else if (S_ISREG(st.st_mode)) {
            out.push_back({childPath, childName, static_cast<std::uint64_t>(st.st_size)});
        } else if (S_ISLNK(st.st_mode)) {
            out.push_back({childPath, childName, 0});
        }  // pipes, sockets and devices have no content to keep
    }
    return {};
}

ExtractRequest requestFor(ArchiveFormat format, const std::string& path,
                          const std::string& folder) {
    ExtractRequest request;
    request.format = format;
    request.archivePath = path;
    request.outputFolder = folder;
    return request;
}

std::string removeSuffix(const std::string& name, std::size_t n) {
    return name.substr(0, name.size() - n);
}

}  // namespace

std::string FileCompressor::decompressOutputFolder() const {
    std::lock_guard lock(mutex_);
    return decompressOutputFolder_;
}

FileCompressor::Handler FileCompressor::handlerFor(std::string_view name) {
    auto ext = lower(StringUtils::pathExtension(name));
    for (auto e : {"zip", "cbz", "cab", "jar", "chm"})
        if (ext == e) return &FileCompressor::unzipFile;
    for (auto e : {"rar", "cbr"})
        if (ext == e) return &FileCompressor::unrarFile;
    if (ext == "7z") return &FileCompressor::un7z;
    // "tar.gz" and "tar.bz2" are reached through their last extension.
    for (auto e : {"tar", "gz", "gzip", "tgz", "tbz", "bz2", "tbz2", "bzip2"})
        if (ext == e) return &FileCompressor::unArchive;
    return nullptr;
}

bool FileCompressor::canDecompress(std::string_view name) {
    return handlerFor(name) != nullptr;
}

void FileCompressor::reportProgress(std::int64_t done, std::int64_t total, bool final) {
    if (!progressHandler) return;
    int percent = 100;
    if (!final)
        percent =
            total > 0 ? static_cast<int>(std::clamp<std::int64_t>(done * 100 / total, 0, 99)) : 0;
    percent = std::max(percent, lastPercent_);
    auto now = std::chrono::steady_clock::now();
    if (!final && lastPercent_ >= 0 &&
        now - lastProgressUpdateTick_ < std::chrono::milliseconds(100))
        return;
    lastProgressUpdateTick_ = now;
    lastPercent_ = percent;
    progressHandler(percent, final ? std::max(done, total) : done, total);
}

Result<std::string> FileCompressor::destFolderWithZipFilePath(const std::string& zipPath,
                                                              const std::string& parentFolder) {
    std::string name = StringUtils::lastPathComponent(zipPath);
    std::string base = StringUtils::stringByDeletingPathExtension(name);
    if (base.empty()) base = name;
    std::error_code ec;
    fs::create_directories(parentFolder, ec);
    for (long n = 1; n <= 999; ++n) {
        std::string candidate =
            parentFolder + "/" + (n == 1 ? base : base + " " + std::to_string(n));
        if (::mkdir(candidate.c_str(), 0777) == 0) {
            std::lock_guard lock(mutex_);
            decompressOutputFolder_ = candidate;
            return candidate;
        }
        if (errno != EEXIST)
            return std::unexpected(make(ArchiveErrorCode::WriteFailed, "archive.write_failed",
                                        {name, candidate + ": " + std::strerror(errno)}));
    }
    return std::unexpected(make(ArchiveErrorCode::WriteFailed, "archive.write_failed",
                                {name, parentFolder + ": no free folder name"}));
}

Status FileCompressor::decompressFile(const std::string& archivePath,
                                      const std::string& parentFolder,
                                      const std::optional<std::string>& password) {
    std::string name = StringUtils::lastPathComponent(archivePath);
    Handler handler = handlerFor(name);
    if (!handler)
        return std::unexpected(make(ArchiveErrorCode::Unsupported, "archive.unsupported", {name}));
    struct stat st {};
    if (::stat(archivePath.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return std::unexpected(make(ErrorCode::NotFound, "archive.not_found", {name}));
    lastPercent_ = -1;
    auto folder = destFolderWithZipFilePath(archivePath, parentFolder);
    if (!folder) return std::unexpected(folder.error());
    auto status = (this->*handler)(archivePath, *folder, password);
    if (!status) {
        std::error_code ec;
        fs::remove_all(*folder, ec);
        return status;
    }
    reportProgress(0, 0, true);
    return {};
}

ExtractMonitor FileCompressor::monitorFor(const std::string& folder) {
    return ExtractMonitor(
        limits, isCancelled_, folder,
        [this](std::int64_t done, std::int64_t total) { reportProgress(done, total); });
}

Error FileCompressor::failureError(const ExtractError& error, const std::string& archiveName,
                                   long code, std::string_view key) const {
    switch (error.failure) {
        case ExtractFailure::Unsafe:
            return make(ArchiveErrorCode::UnsafeEntry, "archive.unsafe_entry",
                        {archiveName, error.detail});
        case ExtractFailure::TooLarge:
            if (error.detail == "entries")
                return make(ArchiveErrorCode::TooLarge, "archive.too_many_entries",
                            {archiveName, std::to_string(limits.maxEntries)});
            return make(ArchiveErrorCode::TooLarge, "archive.too_large",
                        {archiveName, std::to_string(static_cast<long>(limits.maxRatio))});
        case ExtractFailure::NoSpace:
            return make(ArchiveErrorCode::NoSpace, "trans.no_space");
        case ExtractFailure::Cancelled:
            return make(ArchiveErrorCode::Cancelled, "archive.cancelled");
        case ExtractFailure::WriteFailed:
            return make(ArchiveErrorCode::WriteFailed, "archive.write_failed",
                        {archiveName, error.detail});
        default:
            return make(code, key, {archiveName});
    }
}

Status FileCompressor::unzipFile(const std::string& path, const std::string& folder,
                                 const std::optional<std::string>& password) {
    std::string name = StringUtils::lastPathComponent(path);
    ZipArchive zip;
    zip.stringEncoding = encoding;
    if (auto r = zip.UnzipOpenFile(path, password); !r) return r;
    auto monitor = monitorFor(folder);
    auto status = zip.UnzipFileTo(folder, monitor);
    zip.UnzipCloseFile();
    if (status) return {};
    switch (status.error().failure) {
        case ExtractFailure::NeedPassword:
            return std::unexpected(
                make(ArchiveErrorCode::NeedPassword, "archive.need_password", {name}));
        case ExtractFailure::WrongPassword:
        case ExtractFailure::Encrypted:
            if (!password)
                return std::unexpected(
                    make(ArchiveErrorCode::NeedPassword, "archive.need_password", {name}));
            return std::unexpected(
                make(ArchiveErrorCode::IncorrectPassword, "archive.incorrect_password", {name}));
        default:
            return std::unexpected(
                failureError(status.error(), name, ArchiveErrorCode::NotZip, "archive.not_zip"));
    }
}

Status FileCompressor::unrarFile(const std::string& path, const std::string& folder,
                                 const std::optional<std::string>& password) {
    std::string name = StringUtils::lastPathComponent(path);
    auto request = requestFor(ArchiveFormat::Rar, path, folder);
    request.password = password;
    auto monitor = monitorFor(folder);
    auto status = extractArchive(request, monitor);
    if (status) return {};
    switch (status.error().failure) {
        case ExtractFailure::NeedPassword:
        case ExtractFailure::WrongPassword:
        case ExtractFailure::Encrypted:
            return std::unexpected(
                make(ArchiveErrorCode::RarEncrypted, "archive.rar_encrypted", {name}));
        default:
            return std::unexpected(
                failureError(status.error(), name, ArchiveErrorCode::NotRar, "archive.not_rar"));
    }
}

Status FileCompressor::un7z(const std::string& path, const std::string& folder,
                            const std::optional<std::string>& password) {
    std::string name = StringUtils::lastPathComponent(path);
    auto request = requestFor(ArchiveFormat::SevenZip, path, folder);
    request.password = password;
    auto monitor = monitorFor(folder);
    auto status = extractArchive(request, monitor);
    if (!status && status.error().failure == ExtractFailure::Encrypted && password) {
        // libarchive reads 7z but cannot decrypt it: start again with the 7zz program.
        if (auto program = SevenZipTool::locate(sevenZipProgram)) {
            std::error_code ec;
            fs::remove_all(folder, ec);
            fs::create_directory(folder, ec);
            auto again = monitorFor(folder);
            status = SevenZipTool::extract(*program, path, folder, *password, again);
        }
    }
    if (status) return {};
    return std::unexpected(
        failureError(status.error(), name, ArchiveErrorCode::Bad7z, "archive.bad_7z"));
}

Status FileCompressor::unArchive(const std::string& path, const std::string& folder,
                                 const std::optional<std::string>&) {
    std::string name = StringUtils::lastPathComponent(path);
    std::string low = lower(name);
    auto monitor = monitorFor(folder);
    auto untarFailed = [&](const ExtractError& e) {
        return std::unexpected(
            failureError(e, name, ArchiveErrorCode::UntarFailed, "archive.untar_failed"));
    };
    std::optional<DecompressingSource::Kind> kind;
    std::string inner;  // the decompressed file's name
    if (low.ends_with("tgz")) {
        kind = DecompressingSource::Kind::Gzip;
        inner = removeSuffix(name, 3) + "tar";
    } else if (low.ends_with(".gz") || low.ends_with(".gzip")) {
        kind = DecompressingSource::Kind::Gzip;
        inner = removeSuffix(name, low.ends_with(".gz") ? 3 : 5);
    } else if (low.ends_with("tbz") || low.ends_with("tbz2")) {
        kind = DecompressingSource::Kind::Bzip2;
        inner = removeSuffix(name, low.ends_with("tbz") ? 3 : 4) + "tar";
    } else if (low.ends_with(".bz2") || low.ends_with(".bzip2")) {
        kind = DecompressingSource::Kind::Bzip2;
        inner = removeSuffix(name, low.ends_with(".bz2") ? 4 : 6);
    }
    if (!kind) {
        auto request = requestFor(ArchiveFormat::Tar, path, folder);
        if (auto s = extractArchive(request, monitor); !s) return untarFailed(s.error());
        return {};
    }
    bool gzip = *kind == DecompressingSource::Kind::Gzip;
    auto invalid = [&] {
        return std::unexpected(make(gzip ? ArchiveErrorCode::NotGzip : ArchiveErrorCode::NotBzip2,
                                    gzip ? "archive.not_gzip" : "archive.not_bzip2", {name}));
    };
    DecompressingSource source(*kind, path);
    if (lower(inner).ends_with(".tar")) {
        // The tar is read as it is decompressed: the same result as writing it out, extracting
        // it and deleting it, without writing it.
        auto request = requestFor(ArchiveFormat::Tar, path, folder);
        request.source = &source;
        auto s = extractArchive(request, monitor);
        if (s) return {};
        if (source.failed()) return invalid();
        return untarFailed(s.error());
    }
    if (inner.empty()) inner = name;
    struct stat st {};
    ::stat(path.c_str(), &st);
    std::string target = folder + "/" + inner;
    auto s = decompressToFile(source, target, monitor, static_cast<std::uint64_t>(st.st_size));
    if (!s) {
        if (source.failed()) return invalid();
        return std::unexpected(
            failureError(s.error(), name, ArchiveErrorCode::WriteFailed, "archive.write_failed"));
    }
    // As gunzip does: the file is as old as the archive.
    struct timespec times[2] = {{0, UTIME_OMIT}, st.st_mtim};
    ::utimensat(AT_FDCWD, target.c_str(), times, AT_SYMLINK_NOFOLLOW);
    return {};
}

Status FileCompressor::compressItems(const std::vector<std::string>& items,
                                     const std::string& zipPath,
                                     const std::optional<std::string>& password) {
    std::string zipName = StringUtils::lastPathComponent(zipPath);
    auto fail = [&](std::string why) {
        return make(ArchiveErrorCode::CompressFailed, "archive.create_failed", {zipName, why});
    };
    lastPercent_ = -1;
    struct stat skip {};
    ::stat(zipPath.c_str(), &skip);  // an older zip inside a folder being compressed stays out
    std::vector<ZipItem> entries;
    std::uint64_t total = 0;
    for (auto item : items) {
        while (item.size() > 1 && item.ends_with('/')) item.pop_back();
        struct stat st {};
        if (::lstat(item.c_str(), &st) != 0)
            return std::unexpected(fail(item + ": " + std::strerror(errno)));
        std::string name = StringUtils::lastPathComponent(item);
        entries.push_back(
            {item, name, S_ISREG(st.st_mode) ? static_cast<std::uint64_t>(st.st_size) : 0});
        if (S_ISDIR(st.st_mode))
            if (auto r = walkFolder(item, name, entries, skip, fail); !r) return r;
    }
    for (auto& e : entries) total += e.size;

    ZipArchive zip;
    zip.compression = compression;
    zip.encryption = zipEncryption;
    if (auto r = zip.CreateZipFile2(zipPath, password); !r) return r;
    std::uint64_t before = 0;
    auto itotal = static_cast<std::int64_t>(total);
    for (auto& e : entries) {
        if (isCancelled())
            return std::unexpected(make(ArchiveErrorCode::Cancelled, "archive.cancelled"));
        auto progress = [&](std::int64_t done, std::int64_t) {
            reportProgress(static_cast<std::int64_t>(before) + done, itotal);
        };
        if (auto r = zip.addFileToZipByTovrin(e.path, e.name, progress, &isCancelled_); !r)
            return r;
        before += e.size;
    }
    if (auto r = zip.CloseZipFile2(); !r) return r;
    reportProgress(itotal, itotal, true);
    return {};
}

}  // namespace quillon
