#pragma once
// FileCompressor: makes zip archives of local files and folders, and extracts zip, rar, 7z, tar,
// gzip and bzip2 archives into a new folder beside them. It runs on a background thread;
// cancelOperation may come from any thread and takes effect between entries (and between the
// blocks of a large one). Failures are "Archive" errors shown under ArchiveError::title; after
// a failure or a cancel nothing of the output is left.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "archives/ArchiveError.h"
#include "archives/ArchiveExtractor.h"
#include "archives/ZipArchive.h"
#include "core/StringEncoding.h"

namespace quillon {

class FileCompressor {
  public:
    // The percentage done (0 to 100) with the bytes behind it; throttled, and 100 comes last.
    using ProgressHandler = std::function<void(int percent, std::int64_t done, std::int64_t total)>;

    FileCompressor() = default;
    // Zip entry names that do not say they are UTF-8 are read in `encoding` (a StringEncoding
    // number).
    explicit FileCompressor(unsigned long encoding) : encoding(encoding) {}

    unsigned long encoding = StringEncoding::UTF8;
    ProgressHandler progressHandler;
    ExtractLimits limits;
    ZipArchive::Encryption zipEncryption = ZipArchive::Encryption::Traditional;
    int compression = 6;                  // deflate level of new zips
    std::string sevenZipProgram = "7zz";  // extracts encrypted 7z archives; looked up on PATH

    void cancelOperation() { isCancelled_ = true; }
    bool isCancelled() const { return isCancelled_.load(); }
    // The folder the current or the last extraction writes into.
    std::string decompressOutputFolder() const;

    // Whether decompressFile extracts a file of this name (by its last extension).
    static bool canDecompress(std::string_view name);
    // Extracts the archive into a new folder in `parentFolder` (destFolderWithZipFilePath), the
    // format chosen by the archive's last extension.
    [[nodiscard]] Status decompressFile(const std::string& archivePath,
                                        const std::string& parentFolder,
                                        const std::optional<std::string>& password);

    // Makes a zip at `zipPath` of the local items, in order: a folder with everything below it
    // under its own name, a file under its name, a symbolic link as a link. A file already at
    // `zipPath` is replaced only when the new zip is complete.
    [[nodiscard]] Status compressItems(const std::vector<std::string>& items,
                                       const std::string& zipPath,
                                       const std::optional<std::string>& password);
    [[nodiscard]] Status compressItems(const std::vector<std::string>& items,
                                       const std::string& zipPath) {
        return compressItems(items, zipPath, std::nullopt);
    }
    [[nodiscard]] Status compressFolder(const std::string& folder, const std::string& zipPath) {
        return compressItems({folder}, zipPath, std::nullopt);
    }

    // Creates and returns the output folder for the archive: in `parentFolder`, the archive's
    // name without its last extension, else that name, a blank and 2, 3, ... (999 tries).
    [[nodiscard]] Result<std::string> destFolderWithZipFilePath(const std::string& zipPath,
                                                                const std::string& parentFolder);

  private:
    using Handler = Status (FileCompressor::*)(const std::string&, const std::string&,
                                               const std::optional<std::string>&);
    static Handler handlerFor(std::string_view name);

    // The handlers of decompressFile; each extracts into the existing, empty output folder.
    Status unzipFile(const std::string& path, const std::string& folder,
                     const std::optional<std::string>& password);
    Status unrarFile(const std::string& path, const std::string& folder,
                     const std::optional<std::string>& password);
    Status un7z(const std::string& path, const std::string& folder,
                const std::optional<std::string>& password);
    Status unArchive(const std::string& path, const std::string& folder,
                     const std::optional<std::string>& password);

    ExtractMonitor monitorFor(const std::string& folder);
    // The error for an extraction failure; the format-specific failures become `code` / `key`.
    Error failureError(const ExtractError& error, const std::string& archiveName, long code,
                       std::string_view key) const;
    void reportProgress(std::int64_t done, std::int64_t total, bool final = false);

    std::atomic<bool> isCancelled_{false};
    mutable std::mutex mutex_;
    std::string decompressOutputFolder_;
    std::chrono::steady_clock::time_point lastProgressUpdateTick_{};
    int lastPercent_ = -1;
};

}  // namespace quillon
