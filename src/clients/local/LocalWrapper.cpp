#include "clients/local/LocalWrapper.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <vector>

#include "clients/local/LocalFileOps.h"
#include "clients/local/SandboxFileAccess.h"
#include "core/AppPreference.h"
#include "core/GCD.h"
#include "core/TemporaryItems.h"
#include "core/ThumbnailSupport.h"

namespace quillon {

using namespace LocalFileOps;

namespace {

constexpr std::size_t kPlaceholderOverhead = 8;  // "." before the name, ".icloud" after it

std::unexpected<Error> notFound() {
    return KvError::fail(ErrorDomain::Local, ErrorCode::NotFound, "File not found!");
}

std::string systemMessage(int err) {
    const char* m = ::strerrordesc_np(err);
    return m ? m : fmt::format("error {}", err);
}

struct FdGuard {
    int fd = -1;
    ~FdGuard() {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace

LocalWrapper::LocalWrapper(ServerInfoPtr serverInfo) : Wrapper(std::move(serverInfo)) {}

LocalWrapper::~LocalWrapper() {
    closeStream();
}

WrapperCapabilities LocalWrapper::capabilities() const {
    WrapperCapabilities caps;
    caps.streaming = true;
    return caps;
}

Result<std::string> LocalWrapper::linkTextSync(const KvMetadata& link) {
    std::string path = link.pathOrEmpty();
    std::string target(PATH_MAX, '\0');
    ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
    if (n < 0) return LocalFileOps::posixFailure(errno, path);
    target.resize(static_cast<std::size_t>(n));
    return target;
}

Status LocalWrapper::makeLinkSync(const KvMetadata& link, const std::string& target) {
    std::string path = link.pathOrEmpty();
    if (::symlink(target.c_str(), path.c_str()) != 0)
        return LocalFileOps::posixFailure(errno, path);
    return {};
}

bool LocalWrapper::isICloudPath(const std::string&) {
    return false;
}

bool LocalWrapper::includesHiddenFiles() const {
    return forceIncludesHiddenFiles() ||
           AppPreference::sharedAppPreference().boolForKey(PrefKey::SYS_SHOW_HIDDEN_FILES);
}

Result<KvMetadataList> LocalWrapper::contentsOfDirectoryAtPathSync(const KvMetadata& folder) {
    SandboxFileAccess::ListOptions options;
    options.skipsHiddenFiles = !includesHiddenFiles();
    return SandboxFileAccess::contentsOfDirectory(folder, options);
}

Status LocalWrapper::contentsOfDirectoryAtPathInBatches(const KvMetadata& folder,
                                                        const ListingBatchHandler& batch) {
    SandboxFileAccess::ListOptions options;
    options.skipsHiddenFiles = !includesHiddenFiles();
    return SandboxFileAccess::contentsOfDirectory(folder, options, kFirstListingBatch, batch);
}

Result<KvMetadata> LocalWrapper::metadataOfItemSync(const KvMetadata& item) {
    std::string path = item.pathOrEmpty();
    if (path.empty() || trimTrailingSlashes(path) == "/") return rootFolder();
    return SandboxFileAccess::itemAt(path, item);
}

Result<std::string> LocalWrapper::sourcePathOf(const KvMetadata& item, long failureCode) const {
    auto path = item.path();
    if (!path || path->empty()) return notFound();
    if (!item.isIcloudPlaceHold) return *path;
    // There is no cloud container to fetch from here; the file may have arrived by other means.
    std::string name = item.nameIgnoreLinkResolve().value_or("");
    std::string real = joinPath(dirName(*path), name);
    struct stat st {};
    if (!name.empty() && ::lstat(real.c_str(), &st) == 0) return real;
    return KvError::fail(ErrorDomain::Local, failureCode,
                         fmt::format("\"{}\" is only a placeholder of a file kept in iCloud; its "
                                     "contents are not on this computer.",
                                     name));
}

Status LocalWrapper::copyItemForTransfer(const std::string& from, const std::string& to,
                                         const ProgressHandler& progress) {
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) return posixFailure(errno, from);
    if (S_ISLNK(st.st_mode)) {
        // A link is copied as a link, replacing a file or link already at the target.
        struct stat existing {};
        if (::lstat(to.c_str(), &existing) == 0 && !S_ISDIR(existing.st_mode))
            if (auto r = SandboxFileAccess::removeItem(to); !r) return r;
        return SandboxFileAccess::copyItemFrom(from, to);
    }
    if (S_ISDIR(st.st_mode)) return posixFailure(EISDIR, from);
    return copyFile(from, to, progress);
}

Status LocalWrapper::downloadSync(const KvMetadata& file, const std::string& saveTo,
                                  const ProgressHandler& progress) {
    auto source = sourcePathOf(file, ErrorCode::DownloadFailed);
    if (!source) return std::unexpected(source.error());
    if (trimTrailingSlashes(*source) == trimTrailingSlashes(saveTo)) return {};
    return copyItemForTransfer(*source, saveTo, progress);
}

Status LocalWrapper::uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                                const ProgressHandler& progress) {
    auto source = sourcePathOf(localFile, ErrorCode::UploadFailed);
    if (!source) return std::unexpected(source.error());
    auto folderPath = toFolder.path();
    if (!folderPath || folderPath->empty()) return notFound();
    if (dirName(localFile.pathOrEmpty()) == trimTrailingSlashes(*folderPath)) return {};
    // The stored name: a link keeps its own name, not its target's.
    std::string name = localFile.nameIgnoreLinkResolve().value_or("");
    if (name.empty()) name = baseName(*source);
    return copyItemForTransfer(*source, joinPath(*folderPath, name), progress);
}

Status LocalWrapper::copyFile(const std::string& from, const std::string& to,
                              const ProgressHandler& progress) {
    struct stat st {};
    if (::stat(from.c_str(), &st) != 0) return posixFailure(errno, from);
    SandboxFileAccess::ScopedAccess fromAccess(from), toAccess(to);

    FdGuard in{::open(from.c_str(), O_RDONLY | O_CLOEXEC)};
    if (in.fd < 0) return posixFailure(errno, from);
    // The copy grows under a hidden name and replaces the target only when complete, so no
    // partial file is ever seen at `to` and a failed copy leaves an older file there untouched.
    // A kill leaves only that hidden temporary, which the next start clears.
    std::string folder = dirName(to);
    TemporaryItems::noteLocalFolder(folder);
    std::string partial;
    FdGuard out;
    for (int attempt = 0; attempt < 16 && out.fd < 0; ++attempt) {
        partial = TemporaryItems::localPathFor(folder, baseName(to));
        out.fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (out.fd < 0 && errno != EEXIST) break;
    }
    if (out.fd < 0)
        return KvError::fail(ErrorDomain::Local, ErrorCode::TransferFailed,
                             fmt::format("Cannot create file {}", to), kindOfErrno(errno));
    auto failed = [&](std::unexpected<Error> error) {
        ::unlink(partial.c_str());
        return error;
    };
    auto dataError = [&] {
        return failed(KvError::fail(
            ErrorDomain::Local, ErrorCode::TransferFailed,
            fmt::format("Cannot complete the operation becasue some data in \"{}\" cannot be read "
                        "or written.",
                        baseName(from))));
    };

    const auto size = static_cast<std::int64_t>(st.st_size);
    auto copied = copyContents(
        in.fd, out.fd, kCopyChunkSize, [this] { return cancelled(); },
        [&progress, size](std::uint64_t done) {
            if (!progress) return;
            GCD::doInForeground(
                [progress, done, size] { progress(static_cast<std::int64_t>(done), size); });
        });
    if (copied.end == CopyEnd::Stopped) return failed(posixFailure(ECANCELED, to));
    if (copied.end != CopyEnd::Finished) return dataError();
    if (applyAttributes(out.fd, st) != 0) return dataError();
    int fd = out.fd;
    out.fd = -1;
    if (::close(fd) != 0) return dataError();
    if (::rename(partial.c_str(), to.c_str()) != 0) return failed(posixFailure(errno, to));
    return {};
}

Status LocalWrapper::moveSync(const KvMetadata& item, const KvMetadata& to) {
    auto from = item.path();
    auto target = to.path();
    if (!from || from->empty()) return notFound();
    if (!target || target->empty()) return posixFailure(EINVAL, *from);
    if (isICloudPath(*from))
        return KvError::fail(ErrorDomain::Local, ErrorCode::MoveFailed,
                             "Not support move iCloud file");
    return SandboxFileAccess::moveItemFrom(*from, *target);
}

Status LocalWrapper::removeSync(const KvMetadataList& items) {
    for (auto& item : items) {
        auto path = item.path();
        if (!path || path->empty()) return notFound();
        if (auto r = SandboxFileAccess::removeItem(*path); !r) return r;
    }
    return {};
}

Status LocalWrapper::downloadThumbnailSync(const KvMetadata& item) {
    auto folderError = [] {
        return KvError::fail(ErrorDomain::Local, ErrorCode::NoThumbnail,
                             "Folder has no thumbnail.");
    };
    if (item.isDir) return folderError();
    auto path = item.path();
    if (!path || path->empty()) return notFound();
    struct stat st {};
    if (::stat(path->c_str(), &st) != 0) return posixFailure(errno, *path);
    if (S_ISDIR(st.st_mode)) return folderError();
    if (::access(path->c_str(), R_OK) != 0)
        return KvError::fail(ErrorDomain::Local, ErrorCode::NoPermission,
                             "No permission to access file.");
    return ThumbnailSupport::downloadThumbnailSync(*this, item);
}

Status LocalWrapper::createFolderSync(const KvMetadata& folder) {
    auto path = folder.path();
    if (!path || path->empty())
        return KvError::fail(ErrorDomain::Local, ErrorCode::CreateFolderFailed,
                             "Cannot create a folder without a path.");
    if (auto r = SandboxFileAccess::createFolder(*path); !r) {
        bool parentMissing = r.error().is(ErrorKind::NotFound);
        auto why = parentMissing ? fmt::format("the folder \"{}\" does not exist", dirName(*path))
                                 : systemMessage(static_cast<int>(r.error().code));
        return KvError::fail(ErrorDomain::Local, ErrorCode::CreateFolderFailed,
                             fmt::format("Cannot create folder \"{}\": {}.", *path, why),
                             r.error().kind);
    }
    return {};
}

std::optional<std::string> LocalWrapper::loadStreamableURLForFileSync(const KvMetadata& file) {
    auto path = file.path();
    if (!path || path->empty()) return std::nullopt;
    return "file://" + percentEncodePath(*path);
}

KvMetadata LocalWrapper::rootFolder() {
    const auto& info = serverInfo();
    std::string path = info->rootFolderPath.empty() ? "/" : info->rootFolderPath;
    KvMetadata root;
    root.setPath(path);
    root.setName(baseName(path));
    root.localPath = path;
    root.isDir = true;
    root.serverID = info->serverID;
    root.protocolType = info->protocolType;
    return root;
}

void LocalWrapper::closeStream() {
    if (streamFd_ >= 0) ::close(streamFd_);
    streamFd_ = -1;
}

Status LocalWrapper::initStreamFileMeta(const KvMetadata& file) {
    closeStream();
    auto path = file.path();
    if (!path || path->empty()) return notFound();
    SandboxFileAccess::ScopedAccess access(*path);
    int fd = ::open(path->c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return posixFailure(errno, *path);
    struct stat st {};
    if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
        int err = S_ISDIR(st.st_mode) ? EISDIR : errno;
        ::close(fd);
        return posixFailure(err, *path);
    }
    streamFd_ = fd;
    contentLength_ = static_cast<std::uint64_t>(st.st_size);
    offset_ = 0;
    return {};
}

Result<Bytes> LocalWrapper::readDataOfLength(std::uint64_t length) {
    if (streamFd_ < 0)
        return KvError::fail(ErrorDomain::Local, EBADF, "No file is open for reading.");
    std::uint64_t remaining = contentLength_ > offset_ ? contentLength_ - offset_ : 0;
    Bytes data(static_cast<std::size_t>(std::min(length, remaining)));
    std::size_t got = 0;
    while (got < data.size()) {
        ssize_t n = ::pread(streamFd_, data.data() + got, data.size() - got,
                            static_cast<off_t>(offset_ + got));
        if (n < 0) {
            if (errno == EINTR) continue;
            return posixFailure(errno, "");
        }
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    data.resize(got);
    offset_ += got;
    return data;
}

FolderItemCount LocalWrapper::calculateLocalFolderItemsAndSize(const std::string& path,
                                                               bool forceIncludeHidden,
                                                               const std::function<bool()>& cont) {
    FolderItemCount count;
    bool hidden = forceIncludeHidden ||
                  AppPreference::sharedAppPreference().boolForKey(PrefKey::SYS_SHOW_HIDDEN_FILES);
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return count;
    if (!S_ISDIR(st.st_mode)) {
        count.itemCount = 1;
        if (S_ISREG(st.st_mode)) count.totalBytes = st.st_size;
        return count;
    }
    std::vector<std::string> pending{path};
    while (!pending.empty()) {
        if (cont && !cont()) break;
        std::string folder = std::move(pending.back());
        pending.pop_back();
        SandboxFileAccess::ScopedAccess access(folder);
        // Unreadable folders count as items but add nothing below them.
        int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) continue;
        std::unique_ptr<DIR, int (*)(DIR*)> dir(::fdopendir(fd), &::closedir);
        if (!dir) {
            ::close(fd);
            continue;
        }
        while (dirent* e = ::readdir(dir.get())) {
            std::string_view name(e->d_name);
            if (name == "." || name == "..") continue;
            bool placeholder = name.size() > kPlaceholderOverhead && name.front() == '.' &&
                               name.ends_with(".icloud");
            char first = placeholder ? name[1] : name.front();
            if (!hidden && first == '.') continue;
            if (TemporaryItems::isTemporaryName(name)) continue;  // not copied, not counted
            struct stat child {};
            if (::fstatat(fd, e->d_name, &child, AT_SYMLINK_NOFOLLOW) != 0) continue;
            ++count.itemCount;
            if (S_ISREG(child.st_mode)) count.totalBytes += child.st_size;
            if (S_ISDIR(child.st_mode)) pending.push_back(joinPath(folder, name));
        }
    }
    return count;
}

}  // namespace quillon
