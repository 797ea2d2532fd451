#pragma once
// The one extraction path of every archive format. libarchive reads the entries; each one is
// checked before it is written (no absolute path, no "..", no link leading outside the output
// folder), written below the output folder only and never through a symbolic link, and the
// limits against hostile archives are enforced while the data is written.

#include <locale.h>

#include <atomic>
#include <cstdint>
#include <expected>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace quillon {

// Limits that stop a decompression bomb.
struct ExtractLimits {
    double maxRatio = 200;                         // bytes written per archive byte read,
    std::uint64_t ratioCheckedFrom = 64ull << 20;  // checked once this much is written
    std::uint64_t ratioEntryMinimum = 1ull << 20;  // while writing an entry at least this big
    std::uint64_t maxEntries = 1'000'000;          // entries in one archive
    std::uint64_t minFreeSpace = 64ull << 20;      // free bytes left on the output's file system
};

// Why an extraction stopped; the caller turns it into the message of the archive's format.
enum class ExtractFailure {
    NotArchive,     // the data is not of the format at all
    Damaged,        // truncated or corrupt after a valid start
    NeedPassword,   // an encrypted entry and no password
    WrongPassword,  // an encrypted entry the password does not open
    Encrypted,      // encryption this reader cannot undo
    Unsafe,         // an entry would land outside the output folder
    TooLarge,       // the expansion ratio or the entry count passed its limit
    NoSpace,        // the free space fell below the reserve
    Cancelled,
    WriteFailed,
};
struct ExtractError {
    ExtractFailure failure;
    std::string detail;  // the library's or the system's message
};
using ExtractStatus = std::expected<void, ExtractError>;

// Progress, cancellation and the limits of one extraction, shared by each step that writes.
class ExtractMonitor {
  public:
    using Progress = std::function<void(std::int64_t done, std::int64_t total)>;

    ExtractMonitor(const ExtractLimits& limits, const std::atomic<bool>& cancelled,
                   std::string outputFolder, Progress progress);

    // Before writing, from what the archive declares: fails when it holds too many entries or
    // when `bytes` would not fit beside the reserve; `archiveSize` (when not 0) also checks the
    // whole archive's ratio.
    [[nodiscard]] ExtractStatus precheck(std::uint64_t bytes, std::uint64_t entries,
                                         std::uint64_t archiveSize = 0);
    // One more entry. Fails past the entry limit, or when cancelled.
    [[nodiscard]] ExtractStatus beginEntry();
    // `n` more bytes written, `entryWritten` of them by the current entry so far, `consumed`
    // archive bytes read so far. Fails on the ratio, the free space or a cancel.
    [[nodiscard]] ExtractStatus wrote(std::uint64_t n, std::uint64_t entryWritten,
                                      std::uint64_t consumed);
    // Passes progress on: `done` of `total` (bytes of whichever measure the format allows).
    void progress(std::int64_t done, std::int64_t total) const {
        if (progress_) progress_(done, total);
    }
    bool cancelled() const { return cancelled_.load(); }
    const std::atomic<bool>& cancelFlag() const { return cancelled_; }
    std::uint64_t written() const { return written_; }
    std::uint64_t entries() const { return entries_; }
    const ExtractLimits& limits() const { return limits_; }

  private:
    ExtractStatus checkSpace(std::uint64_t needed);

    ExtractLimits limits_;
    const std::atomic<bool>& cancelled_;
    std::string folder_;
    Progress progress_;
    std::uint64_t entries_ = 0;
    std::uint64_t written_ = 0;
    std::uint64_t sinceSpaceCheck_ = 0;
};

// Bytes of an archive that do not come straight from its file (a decompressor in front of it).
class ArchiveSource {
  public:
    virtual ~ArchiveSource() = default;
    // The next bytes, empty at the end; a failure is described by its text.
    virtual std::expected<std::span<const char>, std::string> read() = 0;
    // Bytes of the underlying file consumed so far.
    virtual std::uint64_t consumed() const = 0;
};

enum class ArchiveFormat { Zip, Rar, SevenZip, Tar };

struct ExtractRequest {
    ArchiveFormat format = ArchiveFormat::Zip;
    std::string archivePath;
    std::string outputFolder;  // exists and is empty
    std::optional<std::string> password;
    std::optional<std::string> nameCharset;  // iconv name of zip names without the UTF-8 flag
    ArchiveSource* source = nullptr;         // absent: the file at archivePath
    // The target of an encrypted link entry, for formats whose reader cannot decrypt it.
    std::function<std::expected<std::string, ExtractError>(const std::string& entryName)>
        encryptedLinkTarget;
};

// Extracts the whole archive into the output folder. On failure the folder keeps what was
// written; the caller removes it.
[[nodiscard]] ExtractStatus extractArchive(const ExtractRequest& request, ExtractMonitor& monitor);

// Every symbolic link below `root`, found by walking it, resolves to a place inside it.
[[nodiscard]] ExtractStatus checkTreeLinks(const std::string& root);

// Runs the calling thread with UTF-8 as the character set of file names while it lives, so that
// libarchive converts names to UTF-8 whatever the process locale.
class ScopedUtf8Names {
  public:
    ScopedUtf8Names();
    ~ScopedUtf8Names();
    ScopedUtf8Names(const ScopedUtf8Names&) = delete;
    ScopedUtf8Names& operator=(const ScopedUtf8Names&) = delete;

  private:
    locale_t previous_ = nullptr;
    bool switched_ = false;
};

}  // namespace quillon
