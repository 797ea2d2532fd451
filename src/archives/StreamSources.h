#pragma once
// The Unix compressors in front of an archive: a gzip file read through zlib 16384 bytes at a
// time, a bzip2 file through libbzip2 with a 102400-byte buffer. Each hands out the decompressed
// bytes as an ArchiveSource, so a compressed tar is read without an intermediate tar file.

#include <memory>
#include <string>
#include <vector>

#include "archives/ArchiveExtractor.h"

namespace quillon {

class DecompressingSource : public ArchiveSource {
  public:
    enum class Kind { Gzip, Bzip2 };
    // Opens the file; a failure to open shows at the first read.
    DecompressingSource(Kind kind, const std::string& path);
    ~DecompressingSource() override;
    DecompressingSource(const DecompressingSource&) = delete;
    DecompressingSource& operator=(const DecompressingSource&) = delete;

    std::expected<std::span<const char>, std::string> read() override;
    std::uint64_t consumed() const override { return consumed_; }
    // Whether a read failed: the compressed data, not what it holds, is bad.
    bool failed() const { return failed_; }

  private:
    struct Codec;
    std::expected<std::span<const char>, std::string> fail(std::string why);

    int fd_ = -1;
    int openErrno_ = 0;
    std::unique_ptr<Codec> codec_;
    std::vector<char> in_;
    std::vector<char> out_;
    std::uint64_t consumed_ = 0;
    bool failed_ = false;
    bool ended_ = false;
};

// Writes the whole decompressed stream to a new file at `path` under the monitor's limits.
// `archiveSize` is the compressed file's size, for progress.
[[nodiscard]] ExtractStatus decompressToFile(DecompressingSource& source, const std::string& path,
                                             ExtractMonitor& monitor, std::uint64_t archiveSize);

}  // namespace quillon
