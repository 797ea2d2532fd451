#include "clients/local/SandboxFileAccess.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "clients/local/LocalFileOps.h"
#include "core/PathUtils.h"
#include "core/Plist.h"
#include "core/TemporaryItems.h"

namespace quillon::SandboxFileAccess {

using namespace LocalFileOps;

namespace {

constexpr std::uint64_t kCopyChunk = 10485760;
constexpr std::string_view kPlaceholderSuffix = ".icloud";
// The resource key under which a placeholder records the size of the file it stands for.
constexpr std::string_view kPlaceholderSizeKey = "NSURLFileSizeKey";

struct DirCloser {
    void operator()(DIR* d) const { ::closedir(d); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

struct FdCloser {
    int fd = -1;
    ~FdCloser() {
        if (fd >= 0) ::close(fd);
    }
    int release() {
        int f = fd;
        fd = -1;
        return f;
    }
};

// ".Report.pdf.icloud" stands for "Report.pdf".
bool isPlaceholderName(std::string_view name) {
    return name.size() > 1 + kPlaceholderSuffix.size() && name.front() == '.' &&
           name.ends_with(kPlaceholderSuffix);
}

std::optional<std::uint64_t> placeholderSize(const std::string& path) {
    // Placeholders are property lists keyed by file resource keys; only the XML form is read.
    auto plist = Plist::readFile(path);
    if (!plist) return std::nullopt;
    auto* dict = plist->get<PlistDict>();
    if (!dict) return std::nullopt;
    auto it = dict->find(std::string(kPlaceholderSizeKey));
    if (it == dict->end()) return std::nullopt;
    auto size = it->second.toInteger();
    if (size < 0) return std::nullopt;
    return static_cast<std::uint64_t>(size);
}

// The names in a folder, "." and ".." left out.
Result<std::vector<std::string>> childNames(const std::string& path, bool noFollow) {
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (noFollow ? O_NOFOLLOW : 0));
    if (fd < 0) return posixFailure(errno, path);
    DirHandle dir(::fdopendir(fd));
    if (!dir) {
        int e = errno;
        ::close(fd);
        return posixFailure(e, path);
    }
    std::vector<std::string> names;
    while (true) {
        errno = 0;
        dirent* e = ::readdir(dir.get());
        if (!e) {
            if (errno) return posixFailure(errno, path);
            break;
        }
        std::string_view n(e->d_name);
        if (n != "." && n != "..") names.emplace_back(n);
    }
    return names;
}

Status removeTree(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return posixFailure(errno, path);
    if (!S_ISDIR(st.st_mode)) {
        if (::unlink(path.c_str()) != 0) return posixFailure(errno, path);
        return {};
    }
    // Opened without following links, so a folder swapped for a link meanwhile is not entered.
    auto names = childNames(path, true);
    if (!names) return std::unexpected(names.error());
    for (auto& n : *names)
        if (auto r = removeTree(joinPath(path, n)); !r) return r;
    if (::rmdir(path.c_str()) != 0) return posixFailure(errno, path);
    return {};
}

Status copyRegularFile(const std::string& from, const std::string& to, const struct stat& st) {
    FdCloser in{::open(from.c_str(), O_RDONLY | O_CLOEXEC)};
    if (in.fd < 0) return posixFailure(errno, from);
    FdCloser out{::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)};
    if (out.fd < 0) return posixFailure(errno, to);
    auto copied = copyContents(in.fd, out.fd, kCopyChunk, {}, {});
    if (copied.end == CopyEnd::ReadFailed) return posixFailure(copied.err, from);
    if (copied.end == CopyEnd::WriteFailed) return posixFailure(copied.err, to);
    if (int e = applyAttributes(out.fd, st)) return posixFailure(e, to);
    if (::close(out.release()) != 0) return posixFailure(errno, to);
    return {};
}

Status copyTree(const std::string& from, const std::string& to) {
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) return posixFailure(errno, from);
    if (S_ISLNK(st.st_mode)) {
        std::string target(static_cast<std::size_t>(st.st_size > 0 ? st.st_size : 256) + 1, '\0');
        ssize_t n = ::readlink(from.c_str(), target.data(), target.size());
        if (n < 0) return posixFailure(errno, from);
        target.resize(static_cast<std::size_t>(n));
        if (::symlink(target.c_str(), to.c_str()) != 0) return posixFailure(errno, to);
        return {};
    }
    if (S_ISREG(st.st_mode)) return copyRegularFile(from, to, st);
    if (S_ISFIFO(st.st_mode)) {
        if (::mkfifo(to.c_str(), st.st_mode & 07777) != 0) return posixFailure(errno, to);
        return {};
    }
    if (!S_ISDIR(st.st_mode)) return posixFailure(EOPNOTSUPP, from);

    auto names = childNames(from, true);
    if (!names) return std::unexpected(names.error());
    if (::mkdir(to.c_str(), 0700) != 0) return posixFailure(errno, to);
    for (auto& n : *names)
        if (auto r = copyTree(joinPath(from, n), joinPath(to, n)); !r) return r;
    // Mode and times last: a read-only folder must still take its children first.
    if (::chmod(to.c_str(), st.st_mode & 07777) != 0) return posixFailure(errno, to);
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (::utimensat(AT_FDCWD, to.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        return posixFailure(errno, to);
    return {};
}

// The absolute, link-free form of a path whose last component may not exist yet.
std::optional<std::string> canonicalParentJoin(const std::string& path) {
    std::string parent = dirName(path);
    char* real = ::realpath(parent.c_str(), nullptr);
    if (!real) return std::nullopt;
    std::string out = joinPath(real, baseName(path));
    std::free(real);
    return out;
}

bool isSameOrInside(const std::string& inner, const std::string& outer) {
    return inner == outer || (inner.size() > outer.size() && inner.starts_with(outer) &&
                              (outer == "/" || inner[outer.size()] == '/'));
}

std::optional<std::string> envValue(const char* name) {
    const char* v = std::getenv(name);
    if (!v || !*v) return std::nullopt;
    return std::string(v);
}

Status makeFolders(const std::string& path, mode_t mode) {
    if (::mkdir(path.c_str(), mode) == 0 || errno == EEXIST) return {};
    if (errno != ENOENT) return posixFailure(errno, path);
    if (auto r = makeFolders(dirName(path), mode); !r) return r;
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return posixFailure(errno, path);
    return {};
}

std::string trashInfoText(const std::string& originalPath) {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
    return fmt::format("[Trash Info]\nPath={}\nDeletionDate={}\n", percentEncodePath(originalPath),
                       date);
}

// The record of the item at `path` shown as `name`, from its lstat fields.
void fillRecord(KvMetadata& item, std::string_view name, std::string path, mode_t mode, off_t size,
                const struct timespec& mtime, bool placeholder) {
    item.localPath = path;
    item.setName(std::string(name));
    item.fileExtension = pathExtension(name);
    item.isDir = S_ISDIR(mode);
    if (!item.isDir) item.fileSizeInBytes = static_cast<std::uint64_t>(size);
    item.timestamp = toTimePoint(mtime);
    if (placeholder) {
        item.isIcloudPlaceHold = true;
        item.fileSizeInBytes = placeholderSize(path);
    }
    item.setPath(std::move(path));
    if (S_ISLNK(mode)) PathUtils::updateLocalSymbolLinkInfo(item);
}

// Reads the folder, handing its records over in batches: the first of `firstBatch` entries, each
// next one twice as big up to kLargestBatch (a listing read whole passes SIZE_MAX).
Status readFolder(const std::string& path, const KvMetadata& folder, ListOptions options,
                  std::size_t firstBatch, const ListingBatchHandler& batch) {
    constexpr std::size_t kLargestBatch = 16384;
    ScopedAccess access(path);
    int dfd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0) return posixFailure(errno, path);
    DirHandle dir(::fdopendir(dfd));
    if (!dir) {
        int e = errno;
        ::close(dfd);
        return posixFailure(e, path);
    }
    auto parent = std::make_shared<const KvMetadata>(folder);
    const std::string prefix = path.ends_with('/') ? path : path + "/";

    // Entries are gathered first so that the records are built in place, once: a record is
    // large, and moving 100,000 of them while the array grows costs more than the listing.
    struct Entry {
        std::string fileName;
        std::size_t nameStart = 0, nameLength = 0;  // the shown name within fileName
        bool placeholder = false;
        mode_t mode = 0;
        off_t size = 0;
        struct timespec mtime {};
    };
    std::vector<Entry> entries;
    std::size_t batchSize = firstBatch;
    auto handOver = [&] {
        KvMetadataList items;
        items.reserve(entries.size());
        for (auto& e : entries) {
            KvMetadata& item = items.emplace_back();
            std::string_view name = std::string_view(e.fileName).substr(e.nameStart, e.nameLength);
            item.serverID = folder.serverID;
            item.protocolType = folder.protocolType;
            item.parentFolderMeta = parent;
            fillRecord(item, name, prefix + e.fileName, e.mode, e.size, e.mtime, e.placeholder);
        }
        entries.clear();
        if (batchSize < kLargestBatch) batchSize = std::min(batchSize * 2, kLargestBatch);
        return batch(std::move(items));
    };
    while (true) {
        errno = 0;
        dirent* entry = ::readdir(dir.get());
        if (!entry) {
            if (errno) return posixFailure(errno, path);
            break;
        }
        std::string_view fileName(entry->d_name);
        if (fileName == "." || fileName == "..") continue;
        bool placeholder = isPlaceholderName(fileName);
        std::size_t nameStart = placeholder ? 1 : 0;
        std::size_t nameLength =
            placeholder ? fileName.size() - 1 - kPlaceholderSuffix.size() : fileName.size();
        // A placeholder is hidden only when the file it stands for is.
        if (options.skipsHiddenFiles && fileName[nameStart] == '.') continue;

        struct stat st {};
        // An entry removed since readdir saw it is simply not listed.
        if (::fstatat(dfd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (placeholder && !S_ISREG(st.st_mode)) {
            placeholder = false;
            nameStart = 0;
            nameLength = fileName.size();
            if (options.skipsHiddenFiles) continue;
        }
        entries.push_back(Entry{std::string(fileName), nameStart, nameLength, placeholder,
                                st.st_mode, st.st_size, st.st_mtim});
        if (entries.size() >= batchSize && !handOver()) return {};
    }
    if (!entries.empty()) (void)handOver();
    return {};
}

// The link folder's target, or the folder's own path.
Result<std::string> folderToRead(const KvMetadata& folder) {
    auto path = folder.path();
    if (!path || path->empty())
        return KvError::fail(ErrorDomain::Local, ErrorCode::NotFound, "File not found!");
    if (!folder.isSymbolLink || !folder.symbolLinkTarget) return *path;
    ScopedAccess access(*folder.symbolLinkTarget);
    char* real = ::realpath(folder.symbolLinkTarget->c_str(), nullptr);
    if (!real) return posixFailure(errno, *folder.symbolLinkTarget);
    std::string target(real);
    std::free(real);
    return target;
}

}  // namespace

Result<KvMetadataList> listDir(const std::string& path, const KvMetadata& folder,
                               ListOptions options) {
    KvMetadataList all;
    auto read = readFolder(path, folder, options, SIZE_MAX, [&](KvMetadataList&& items) {
        all = std::move(items);
        return true;
    });
    if (!read) return std::unexpected(read.error());
    return all;
}

Result<KvMetadataList> contentsOfDirectory(const KvMetadata& folder, ListOptions options) {
    auto path = folderToRead(folder);
    if (!path) return std::unexpected(path.error());
    return listDir(*path, folder, options);
}

Status contentsOfDirectory(const KvMetadata& folder, ListOptions options, std::size_t firstBatch,
                           const ListingBatchHandler& batch) {
    auto path = folderToRead(folder);
    if (!path) return std::unexpected(path.error());
    return readFolder(*path, folder, options, std::max<std::size_t>(firstBatch, 1), batch);
}

Result<KvMetadata> itemAt(const std::string& path, const KvMetadata& like) {
    ScopedAccess access(path);
    std::string name = baseName(path);
    std::string found = trimTrailingSlashes(path);
    struct stat st {};
    bool placeholder = false;
    if (::lstat(path.c_str(), &st) != 0) {
        int err = errno;
        // A file kept only in the cloud is there as its placeholder, as the listing shows it.
        std::string stand = joinPath(dirName(path), "." + name + std::string(kPlaceholderSuffix));
        if (err != ENOENT || ::lstat(stand.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
            return posixFailure(err, path);
        found = stand;
        placeholder = true;
    }
    KvMetadata item;
    item.serverID = like.serverID;
    item.protocolType = like.protocolType;
    fillRecord(item, name, found, st.st_mode, st.st_size, st.st_mtim, placeholder);
    return item;
}

Status copyItemFrom(const std::string& from, const std::string& to) {
    ScopedAccess fromAccess(from), toAccess(to);
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) return posixFailure(errno, from);
    struct stat existing {};
    if (::lstat(to.c_str(), &existing) == 0) return posixFailure(EEXIST, to);
    if (S_ISDIR(st.st_mode)) {
        // A folder copied into itself would never end.
        char* real = ::realpath(from.c_str(), nullptr);
        auto target = canonicalParentJoin(to);
        bool inside = real && target && isSameOrInside(*target, real);
        std::free(real);
        if (inside) return posixFailure(EINVAL, to);
    }
    // The copy is built under a hidden temporary name beside `to` and takes that name only when
    // complete, so a copy that fails or is killed never leaves a partial item there.
    std::string folder = dirName(to);
    TemporaryItems::noteLocalFolder(folder);
    std::string staging = TemporaryItems::localPathFor(folder, baseName(to));
    auto copied = copyTree(from, staging);
    if (copied)
        if (int err = renameNoReplace(staging, to); err != 0) copied = posixFailure(err, to);
    if (!copied) {
        struct stat leftover {};
        if (::lstat(staging.c_str(), &leftover) == 0) (void)removeTree(staging);
    }
    return copied;
}

Status moveItemFrom(const std::string& from, const std::string& to) {
    ScopedAccess fromAccess(from), toAccess(to);
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) return posixFailure(errno, from);
    if (trimTrailingSlashes(from) == trimTrailingSlashes(to)) return {};
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return {};
    int err = errno;
    if (err == EINVAL || err == ENOSYS) {
        // File systems without the no-replace flag: check, then a plain rename.
        struct stat existing {};
        if (::lstat(to.c_str(), &existing) == 0) return posixFailure(EEXIST, to);
        if (::rename(from.c_str(), to.c_str()) == 0) return {};
        err = errno;
    }
    if (err == EXDEV) {
        if (auto r = copyItemFrom(from, to); !r) return r;
        return removeTree(from);
    }
    bool aboutTarget = err == EEXIST || err == ENOTEMPTY || err == EISDIR || err == ENOTDIR;
    return posixFailure(err, aboutTarget ? to : from);
}

Status createFolder(const std::string& path) {
    ScopedAccess access(path);
    if (::mkdir(path.c_str(), 0777) != 0) return posixFailure(errno, path);
    return {};
}

Status removeItem(const std::string& path) {
    ScopedAccess access(path);
    std::string p = trimTrailingSlashes(path);
    if (p.empty() || p == "/") return posixFailure(EPERM, path);
    return removeTree(p);
}

std::string trashFolderPath() {
    if (envValue("QUILLON_HOME")) return PathUtils::getHomeFolderPath() + "/.local/share/Trash";
    if (auto data = envValue("XDG_DATA_HOME"); data && data->front() == '/')
        return *data + "/Trash";
    return PathUtils::getHomeFolderPath() + "/.local/share/Trash";
}

Result<std::string> trashItem(const std::string& path) {
    ScopedAccess access(path);
    std::string p = trimTrailingSlashes(path);
    struct stat st {};
    if (::lstat(p.c_str(), &st) != 0) return posixFailure(errno, p);
    if (p == "/") return posixFailure(EPERM, p);
    auto original = canonicalParentJoin(p);
    if (!original) return posixFailure(errno, p);

    std::string trash = trashFolderPath();
    std::string filesDir = trash + "/files", infoDir = trash + "/info";
    if (auto r = makeFolders(filesDir, 0700); !r) return std::unexpected(r.error());
    if (auto r = makeFolders(infoDir, 0700); !r) return std::unexpected(r.error());

    std::string base = baseName(p);
    std::string stem = deletingPathExtension(base), ext = pathExtension(base);
    for (int n = 1;; ++n) {
        std::string name =
            n == 1 ? base : fmt::format("{}.{}{}", stem, n, ext.empty() ? "" : "." + ext);
        std::string infoPath = infoDir + "/" + name + ".trashinfo";
        std::string trashed = filesDir + "/" + name;
        // The info file is created first and exclusively: it reserves the name.
        FdCloser info{::open(infoPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)};
        if (info.fd < 0) {
            if (errno == EEXIST) continue;
            return posixFailure(errno, infoPath);
        }
        struct stat taken {};
        if (::lstat(trashed.c_str(), &taken) == 0) {
            ::unlink(infoPath.c_str());
            continue;
        }
        std::string text = trashInfoText(*original);
        bool written =
            ::write(info.fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        int writeErr = errno;
        if (::close(info.release()) != 0 || !written) {
            ::unlink(infoPath.c_str());
            return posixFailure(written ? errno : writeErr, infoPath);
        }
        if (::rename(p.c_str(), trashed.c_str()) == 0) return trashed;
        int err = errno;
        if (err == EXDEV) {
            auto moved = copyItemFrom(p, trashed);
            if (moved) moved = removeTree(p);
            if (moved) return trashed;
            ::unlink(infoPath.c_str());
            return std::unexpected(moved.error());
        }
        ::unlink(infoPath.c_str());
        return posixFailure(err, p);
    }
}

}  // namespace quillon::SandboxFileAccess
