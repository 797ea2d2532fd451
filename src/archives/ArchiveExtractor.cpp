#include "archives/ArchiveExtractor.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <string_view>

namespace quillon {

namespace {

using ReaderPtr = std::unique_ptr<archive, decltype(&archive_read_free)>;
using WriterPtr = std::unique_ptr<archive, decltype(&archive_write_free)>;

ExtractError failure(ExtractFailure kind, std::string detail = {}) {
    return ExtractError{kind, std::move(detail)};
}

std::string errorText(archive* a) {
    const char* text = archive_error_string(a);
    return text ? text : "";
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> out;
    while (!path.empty()) {
        auto slash = path.find('/');
        auto part = path.substr(0, slash);
        if (!part.empty() && part != ".") out.push_back(part);
        if (slash == std::string_view::npos) break;
        path.remove_prefix(slash + 1);
    }
    return out;
}

// The entry's path below the output folder, or absent when it is absolute or climbs with "..".
// Empty for the folder itself ("./").
std::optional<std::string> relativeEntryPath(std::string_view path) {
    if (path.starts_with('/')) return std::nullopt;
    std::string out;
    for (auto part : components(path)) {
        if (part == "..") return std::nullopt;
        if (!out.empty()) out += '/';
        out += part;
    }
    return out;
}

std::optional<std::string> readLink(const std::string& path) {
    std::string target(4096, '\0');
    ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
    if (n < 0 || static_cast<std::size_t>(n) >= target.size()) return std::nullopt;
    target.resize(static_cast<std::size_t>(n));
    return target;
}

// Whether a link at `linkPath` (below root) with `target` leads to a place inside root. The walk
// follows the links it meets on disk (at most 40), as the kernel would: a link to "." makes a
// later ".." climb from where it really is, not from where the text says.
bool linkStaysInside(const std::string& root, std::string_view linkPath, std::string_view target) {
    if (target.empty() || target.starts_with('/')) return false;
    std::vector<std::string> stack;
    auto linkParts = components(linkPath);
    for (std::size_t i = 0; i + 1 < linkParts.size(); ++i) stack.emplace_back(linkParts[i]);
    std::deque<std::string> todo;
    for (auto part : components(target)) todo.emplace_back(part);
    int hops = 0;
    while (!todo.empty()) {
        std::string part = std::move(todo.front());
        todo.pop_front();
        if (part == "..") {
            if (stack.empty()) return false;
            stack.pop_back();
            continue;
        }
        stack.push_back(part);
        std::string path = root;
        for (auto& s : stack) path += "/" + s;
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) continue;
        auto next = readLink(path);
        if (!next || next->empty() || next->starts_with('/') || ++hops > 40) return false;
        stack.pop_back();
        auto parts = components(*next);
        todo.insert(todo.begin(), parts.begin(), parts.end());
    }
    return true;
}

// A reader for the request's format; filters only for tar, whose files are sometimes compressed
// under a plain ".tar" name.
ReaderPtr newReader(const ExtractRequest& req) {
    ReaderPtr a(archive_read_new(), archive_read_free);
    switch (req.format) {
        case ArchiveFormat::Zip:
            archive_read_support_format_zip(a.get());
            archive_read_support_format_cab(a.get());
            break;
        case ArchiveFormat::Rar:
            archive_read_support_format_rar(a.get());
            archive_read_support_format_rar5(a.get());
            break;
        case ArchiveFormat::SevenZip:
            archive_read_support_format_7zip(a.get());
            break;
        case ArchiveFormat::Tar:
            archive_read_support_format_tar(a.get());
            archive_read_support_filter_all(a.get());
            break;
    }
    if (req.password) archive_read_add_passphrase(a.get(), req.password->c_str());
    if (req.nameCharset && req.format == ArchiveFormat::Zip)
        archive_read_set_format_option(a.get(), "zip", "hdrcharset", req.nameCharset->c_str());
    return a;
}

la_ssize_t readSource(archive* a, void* data, const void** buffer) {
    auto r = static_cast<ArchiveSource*>(data)->read();
    if (!r) {
        archive_set_error(a, EIO, "%s", r.error().c_str());
        return -1;
    }
    *buffer = r->data();
    return static_cast<la_ssize_t>(r->size());
}

int openReader(archive* a, const ExtractRequest& req) {
    if (req.source) return archive_read_open(a, req.source, nullptr, readSource, nullptr);
    return archive_read_open_filename(a, req.archivePath.c_str(), 1 << 17);
}

// libarchive says why it could not read only in words; these are its words for passwords and
// for encryption it does not undo.
ExtractError readFailure(archive* a, bool started) {
    std::string text = errorText(a);
    if (contains(text, "Passphrase required")) return failure(ExtractFailure::NeedPassword, text);
    if (contains(text, "Incorrect passphrase")) return failure(ExtractFailure::WrongPassword, text);
    if (contains(text, "encrypt")) return failure(ExtractFailure::Encrypted, text);
    return failure(started ? ExtractFailure::Damaged : ExtractFailure::NotArchive, text);
}

ExtractError writeFailure(archive* disk) {
    std::string text = errorText(disk);
    if (archive_errno(disk) == ENOSPC) return failure(ExtractFailure::NoSpace, text);
    // The secure-extraction refusals: through a symbolic link, "..", an absolute path.
    if (contains(text, "symlink") || contains(text, "'..'") || contains(text, "absolute"))
        return failure(ExtractFailure::Unsafe, text);
    return failure(ExtractFailure::WriteFailed, text);
}

// What a zip or 7z archive declares in its directory, read without touching the data: bytes
// and entries. Absent when the directory cannot be read (the extraction then says why).
std::optional<std::pair<std::uint64_t, std::uint64_t>> declaredContent(const ExtractRequest& req) {
    auto a = newReader(req);
    if (openReader(a.get(), req) != ARCHIVE_OK) return std::nullopt;
    std::uint64_t bytes = 0, entries = 0;
    archive_entry* e = nullptr;
    int r;
    while ((r = archive_read_next_header(a.get(), &e)) >= ARCHIVE_WARN) {
        ++entries;
        if (archive_entry_size_is_set(e) && archive_entry_size(e) > 0)
            bytes += static_cast<std::uint64_t>(archive_entry_size(e));
    }
    if (r != ARCHIVE_EOF) return std::nullopt;
    return std::pair{bytes, entries};
}

std::uint64_t fileSize(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
}

class Extraction {
  public:
    Extraction(const ExtractRequest& req, ExtractMonitor& monitor, std::string root)
        : req_(req), monitor_(monitor), root_(std::move(root)) {}

    ExtractStatus run() {
        archiveSize_ = fileSize(req_.archivePath);
        // Zip and 7z know their content up front: progress counts the bytes written, and the
        // space check can refuse before anything is written. Other formats count the archive
        // bytes read.
        if (!req_.source &&
            (req_.format == ArchiveFormat::Zip || req_.format == ArchiveFormat::SevenZip)) {
            if (auto declared = declaredContent(req_)) {
                if (auto r = monitor_.precheck(declared->first, declared->second); !r) return r;
                declaredBytes_ = declared->first;
            }
        }
        reader_ = newReader(req_);
        if (openReader(reader_.get(), req_) != ARCHIVE_OK)
            return std::unexpected(readFailure(reader_.get(), false));
        disk_ = WriterPtr(archive_write_disk_new(), archive_write_free);
        // The output folder is new and empty, and its path holds no link: until the archive
        // has made a link in it, no entry can be written through one. The check for links on
        // each entry's path (a walk from "/" that doubles the cost of small files) is turned on
        // with the first link.
        archive_write_disk_set_options(disk_.get(),
                                       ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_TIME);
        bool started = false;
        while (true) {
            archive_entry* e = nullptr;
            int r = archive_read_next_header(reader_.get(), &e);
            if (r == ARCHIVE_EOF) break;
            if (r < ARCHIVE_WARN) return std::unexpected(readFailure(reader_.get(), started));
            started = true;
            if (auto s = monitor_.beginEntry(); !s) return s;
            if (auto s = extractEntry(e); !s) return s;
        }
        if (archive_write_close(disk_.get()) < ARCHIVE_WARN)
            return std::unexpected(writeFailure(disk_.get()));
        // A link written early may lead outside through one written later: check them all.
        for (auto& link : links_) {
            auto target = readLink(root_ + "/" + link);
            if (!target || !linkStaysInside(root_, link, *target))
                return std::unexpected(failure(ExtractFailure::Unsafe, link));
        }
        return {};
    }

  private:
    ExtractStatus extractEntry(archive_entry* e) {
        const char* name = archive_entry_pathname(e);
        if (!name) return std::unexpected(failure(ExtractFailure::Damaged, "an entry has no name"));
        auto rel = relativeEntryPath(name);
        if (!rel) return std::unexpected(failure(ExtractFailure::Unsafe, name));
        if (rel->empty()) return {};  // the archive's own top folder, "./"
        if (archive_entry_is_data_encrypted(e)) {
            if (req_.format == ArchiveFormat::Rar || req_.format == ArchiveFormat::SevenZip)
                return std::unexpected(failure(ExtractFailure::Encrypted, name));
            if (!req_.password) return std::unexpected(failure(ExtractFailure::NeedPassword, name));
        }
        auto type = archive_entry_filetype(e);
        const char* hardlink = archive_entry_hardlink(e);
        if (hardlink) {
            auto target = relativeEntryPath(hardlink);
            if (!target || target->empty())
                return std::unexpected(failure(ExtractFailure::Unsafe, hardlink));
            archive_entry_copy_hardlink(e, (root_ + "/" + *target).c_str());
        } else if (type == AE_IFLNK) {
            const char* target = archive_entry_symlink(e);
            std::string decrypted;
            if (archive_entry_is_data_encrypted(e) && req_.encryptedLinkTarget) {
                auto t = req_.encryptedLinkTarget(name);
                if (!t) return std::unexpected(t.error());
                decrypted = std::move(*t);
                target = decrypted.c_str();
                archive_entry_copy_symlink(e, target);
            }
            if (!target || !linkStaysInside(root_, *rel, target))
                return std::unexpected(failure(ExtractFailure::Unsafe, *rel));
            addLink(*rel);
        } else if (type != AE_IFREG && type != AE_IFDIR) {
            return {};  // devices, pipes and sockets are not made from an archive
        }
        std::string path = root_ + "/" + *rel;
        archive_entry_copy_pathname(e, path.c_str());
        if (archive_write_header(disk_.get(), e) < ARCHIVE_WARN)
            return std::unexpected(writeFailure(disk_.get()));
        if (hardlink) {
            // A hard link to a link is a link of its own, read from its new folder.
            struct stat st {};
            if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
                auto target = readLink(path);
                if (!target || !linkStaysInside(root_, *rel, *target))
                    return std::unexpected(failure(ExtractFailure::Unsafe, *rel));
                addLink(*rel);
            }
        }
        // Links have no data of their own (a hard link's is its target's).
        if (!hardlink && type == AE_IFREG)
            if (auto s = copyData(); !s) return s;
        if (archive_write_finish_entry(disk_.get()) < ARCHIVE_WARN)
            return std::unexpected(writeFailure(disk_.get()));
        return {};
    }

    void addLink(const std::string& rel) {
        if (links_.empty())
            archive_write_disk_set_options(disk_.get(), ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                                                            ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                                            ARCHIVE_EXTRACT_TIME);
        links_.push_back(rel);
    }

    ExtractStatus copyData() {
        std::uint64_t entryWritten = 0;
        while (true) {
            const void* buffer = nullptr;
            std::size_t size = 0;
            la_int64_t offset = 0;
            int r = archive_read_data_block(reader_.get(), &buffer, &size, &offset);
            if (r == ARCHIVE_EOF) return {};
            if (r < ARCHIVE_WARN) return std::unexpected(readFailure(reader_.get(), true));
            if (size == 0) continue;
            if (archive_write_data_block(disk_.get(), buffer, size, offset) < ARCHIVE_OK)
                return std::unexpected(writeFailure(disk_.get()));
            entryWritten += size;
            auto consumed = static_cast<std::uint64_t>(archive_filter_bytes(reader_.get(), -1));
            if (req_.source) consumed = req_.source->consumed();
            if (auto s = monitor_.wrote(size, entryWritten, consumed); !s) return s;
            if (declaredBytes_)
                monitor_.progress(static_cast<std::int64_t>(monitor_.written()),
                                  static_cast<std::int64_t>(*declaredBytes_));
            else
                monitor_.progress(static_cast<std::int64_t>(consumed),
                                  static_cast<std::int64_t>(archiveSize_));
        }
    }

    const ExtractRequest& req_;
    ExtractMonitor& monitor_;
    std::string root_;
    ReaderPtr reader_{nullptr, archive_read_free};
    WriterPtr disk_{nullptr, archive_write_free};
    std::uint64_t archiveSize_ = 0;
    std::optional<std::uint64_t> declaredBytes_;
    std::vector<std::string> links_;  // symbolic links written, relative to root
};

}  // namespace

ExtractMonitor::ExtractMonitor(const ExtractLimits& limits, const std::atomic<bool>& cancelled,
                               std::string outputFolder, Progress progress)
    : limits_(limits),
      cancelled_(cancelled),
      folder_(std::move(outputFolder)),
      progress_(std::move(progress)) {}

ExtractStatus ExtractMonitor::checkSpace(std::uint64_t needed) {
    struct statvfs vfs {};
    if (::statvfs(folder_.c_str(), &vfs) != 0) return {};
    auto free = static_cast<std::uint64_t>(vfs.f_bavail) * vfs.f_frsize;
    if (free < needed + limits_.minFreeSpace)
        return std::unexpected(failure(ExtractFailure::NoSpace));
    return {};
}

ExtractStatus ExtractMonitor::precheck(std::uint64_t bytes, std::uint64_t entries,
                                       std::uint64_t archiveSize) {
    if (entries > limits_.maxEntries)
        return std::unexpected(failure(ExtractFailure::TooLarge, "entries"));
    if (archiveSize > 0 && bytes >= limits_.ratioCheckedFrom &&
        static_cast<double>(bytes) > limits_.maxRatio * static_cast<double>(archiveSize))
        return std::unexpected(failure(ExtractFailure::TooLarge, "ratio"));
    return checkSpace(bytes);
}

ExtractStatus ExtractMonitor::beginEntry() {
    if (cancelled()) return std::unexpected(failure(ExtractFailure::Cancelled));
    if (++entries_ > limits_.maxEntries)
        return std::unexpected(failure(ExtractFailure::TooLarge, "entries"));
    // Empty files cost no bytes but still take room: look at the space every thousand entries.
    if (entries_ % 1024 == 0) return checkSpace(0);
    return {};
}

ExtractStatus ExtractMonitor::wrote(std::uint64_t n, std::uint64_t entryWritten,
                                    std::uint64_t consumed) {
    written_ += n;
    sinceSpaceCheck_ += n;
    if (cancelled()) return std::unexpected(failure(ExtractFailure::Cancelled));
    if (entryWritten >= limits_.ratioEntryMinimum && written_ >= limits_.ratioCheckedFrom &&
        static_cast<double>(written_) >
            limits_.maxRatio * static_cast<double>(std::max<std::uint64_t>(consumed, 1)))
        return std::unexpected(failure(ExtractFailure::TooLarge, "ratio"));
    if (sinceSpaceCheck_ >= (8u << 20)) {
        sinceSpaceCheck_ = 0;
        return checkSpace(0);
    }
    return {};
}

ExtractStatus extractArchive(const ExtractRequest& request, ExtractMonitor& monitor) {
    ScopedUtf8Names names;
    // The secure-extraction check refuses any symbolic link on an entry's path, so the folder's
    // own path is given without any.
    char* real = ::realpath(request.outputFolder.c_str(), nullptr);
    if (!real) return std::unexpected(failure(ExtractFailure::WriteFailed, std::strerror(errno)));
    std::string root = real;
    std::free(real);
    if (auto s = monitor.precheck(0, 0); !s) return s;
    return Extraction(request, monitor, root).run();
}

ExtractStatus checkTreeLinks(const std::string& root) {
    namespace fs = std::filesystem;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (!it->is_symlink(ec)) continue;
        auto rel = it->path().lexically_relative(root).string();
        auto target = readLink(it->path().string());
        if (!target || !linkStaysInside(root, rel, *target))
            return std::unexpected(failure(ExtractFailure::Unsafe, rel));
    }
    if (ec) return std::unexpected(failure(ExtractFailure::WriteFailed, ec.message()));
    return {};
}

ScopedUtf8Names::ScopedUtf8Names() {
    // Made once and kept for the life of the process: every zip entry added switches to it.
    static const locale_t utf8 =
        ::newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    if (utf8) previous_ = ::uselocale(utf8);
    switched_ = utf8 != nullptr;
}

ScopedUtf8Names::~ScopedUtf8Names() {
    if (switched_) ::uselocale(previous_);
}

}  // namespace quillon
