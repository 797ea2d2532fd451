#pragma once
// ZipArchive: our zip file, written and read through libarchive. Writing goes to a scratch file
// beside the target that replaces it only when CloseZipFile2 succeeds; reading extracts through
// the one safe extraction path.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "archives/ArchiveExtractor.h"
#include "core/Error.h"
#include "core/StringEncoding.h"

struct archive;

namespace quillon {

class ZipArchive {
  public:
    // How a password protects the entries: traditional zip encryption opens in every unzip
    // program; AES-256 is strong but needs a newer one.
    enum class Encryption { Traditional, Aes256 };
    using ProgressBlock = std::function<void(std::int64_t done, std::int64_t total)>;

    ZipArchive();
    ~ZipArchive();
    ZipArchive(const ZipArchive&) = delete;
    ZipArchive& operator=(const ZipArchive&) = delete;

    std::optional<std::string> password;
    Encryption encryption = Encryption::Traditional;
    int compression = 6;  // deflate level 0 (stored) to 9
    // Encoding of entry names that do not say they are UTF-8.
    unsigned long stringEncoding = StringEncoding::UTF8;

    // Entries added since CreateZipFile2, or extracted by the last UnzipFileTo.
    std::size_t numFiles() const { return numFiles_; }

    // Starts a new zip for `path`, protected by `pass` when given. An existing file there is
    // replaced when CloseZipFile2 succeeds, and kept otherwise.
    [[nodiscard]] Status CreateZipFile2(const std::string& path,
                                        const std::optional<std::string>& pass = std::nullopt);
    // Adds the local item at `path` as entry `newname`: a file with its data (progress reports
    // the bytes of this file), a folder as a folder entry, a symbolic link as a link. `cancelled`
    // is polled between blocks.
    [[nodiscard]] Status addFileToZipByTovrin(const std::string& path, const std::string& newname,
                                              const ProgressBlock& progress,
                                              const std::atomic<bool>* cancelled = nullptr);
    // Finishes the zip and puts it at its path.
    [[nodiscard]] Status CloseZipFile2();

    // Opens an existing zip for reading.
    [[nodiscard]] Status UnzipOpenFile(const std::string& path,
                                       const std::optional<std::string>& pass = std::nullopt);
    // Extracts every entry below `folder` (which exists and is empty) under the monitor's limits.
    [[nodiscard]] ExtractStatus UnzipFileTo(const std::string& folder, ExtractMonitor& monitor);
    void UnzipCloseFile();

  private:
    Status writeFailure(const std::string& what);
    void abandon();

    archive* writer_ = nullptr;
    int fd_ = -1;
    std::string path_;
    std::string scratchPath_;
    std::string readPath_;
    std::size_t numFiles_ = 0;
    std::vector<char> buffer_;
};

}  // namespace quillon
