#pragma once
// WebServerWrapperResponse: one streamed HTTP answer of the playback or thumbnail server,
// honouring a byte range. Local files are read through a file descriptor, remote ones through
// their client's streaming read (and so through the disk data cache). Bodies are read in chunks
// that start small, so that playback starts quickly, and grow to about 1 MB.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/Wrapper.h"

namespace quillon {

// A byte range as a Range header gives it. `location` is kRangeNotSet for a suffix range
// ("bytes=-500"), `length` is kRangeNotSet for an open end ("bytes=100-").
struct ByteRange {
    static constexpr std::uint64_t kRangeNotSet = UINT64_MAX;
    // Values from here on mean "not set", as the toolkit the server was first written on had it.
    static constexpr std::uint64_t kNotSetFrom = 1000000000000000000ULL;
    std::uint64_t location = kRangeNotSet;
    std::uint64_t length = kRangeNotSet;
};

// The range of a "Range" header value: "bytes=A-B", "bytes=A-" or "bytes=-N". Absent for
// anything else (several ranges, other units, malformed), which is answered as a whole body.
std::optional<ByteRange> parseRangeHeader(std::string_view value);

// Where a range falls in a body of `total` bytes.
struct ResolvedRange {
    int status = 200;  // 200 whole body, 206 partial, 416 not satisfiable
    std::uint64_t start = 0;
    std::uint64_t length = 0;
    std::string contentRange;  // "bytes S-E/T" for 206, "bytes */T" for 416, else empty
};
// The whole body without a range. With one: start = location (0 when not set); length = the
// range's length (to the end when not set), clipped to the body. A suffix range counts from the
// start when `suffixFromStart` (the streamed answers' reading), else from the end (files). A
// start at or past the end is not satisfiable.
ResolvedRange resolveRange(const std::optional<ByteRange>& range, std::uint64_t total,
                           bool suffixFromStart);

class WebServerWrapperResponse {
  public:
    static constexpr std::uint64_t kInitialChunkSize = 62000;
    static constexpr std::uint64_t kChunkGrowth = 102400;
    static constexpr std::uint64_t kGrowWhileAtMost = 999999;
    static constexpr std::uint64_t kThumbnailChunkSize = 524288;

    // Opens the file (a descriptor for local files, the client's streaming read otherwise) and
    // works out status, headers and length. A file that cannot be opened gives 404 (missing) or
    // 502 with the reason as `failure`.
    static std::shared_ptr<WebServerWrapperResponse> responseWithServerInfo(
        ServerInfoPtr serverInfo, KvMetadata meta, const std::optional<ByteRange>& range);
    ~WebServerWrapperResponse();
    WebServerWrapperResponse(const WebServerWrapperResponse&) = delete;
    WebServerWrapperResponse& operator=(const WebServerWrapperResponse&) = delete;

    int statusCode() const { return statusCode_; }
    // "video/mp4" for ".mp4" names, else "application/octet-stream".
    const std::string& contentType() const { return contentType_; }
    // "Accept-Ranges" always; "Content-Range" for partial answers.
    const std::vector<std::pair<std::string, std::string>>& headers() const { return headers_; }
    // Start and length of the body within the file.
    std::uint64_t rangeStart() const { return start_; }
    std::uint64_t contentLength() const { return length_; }
    std::uint64_t totalSize() const { return total_; }
    const std::optional<Error>& failure() const { return failure_; }
    const KvMetadata& metadata() const { return metadata_; }
    const ServerInfoPtr& serverInfo() const { return serverInfo_; }
    bool readsLocalFile() const { return fd_ >= 0; }

    // Whether the answer goes to the thumbnail server (fixed chunks, thumbnail reads).
    void setServiceForThumbnail(bool thumbnail) { forThumbnail_ = thumbnail; }
    // Positions the read at the range start.
    void open();
    // The next chunk of the body; empty at its end, once cancelled, or when a read gave nothing.
    Bytes readData();
    // Bytes of the body not read yet, and the file offset of the next one.
    std::uint64_t leftbytes() const;
    std::uint64_t position() const;
    // Counts `n` bytes of the body as read elsewhere (from the cache).
    void advance(std::uint64_t n);
    // Cancelling stops the client's read at once; it is not undone.
    void setCancelled(bool cancelled);
    bool cancelled() const;

  private:
    WebServerWrapperResponse(ServerInfoPtr serverInfo, KvMetadata meta);

    ServerInfoPtr serverInfo_;
    KvMetadata metadata_;
    mutable std::mutex mutex_;
    WrapperPtr wrapper_;
    int fd_ = -1;
    std::uint64_t filePosition_ = 0;
    bool cancelled_ = false;
    bool forThumbnail_ = false;
    std::uint64_t maxChunkSize_ = kInitialChunkSize;
    std::uint64_t leftbytes_ = 0;
    int statusCode_ = 200;
    std::string contentType_;
    std::vector<std::pair<std::string, std::string>> headers_;
    std::uint64_t start_ = 0;
    std::uint64_t length_ = 0;
    std::uint64_t total_ = 0;
    std::optional<Error> failure_;
};

}  // namespace quillon
