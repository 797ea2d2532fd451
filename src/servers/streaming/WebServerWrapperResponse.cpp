#include "servers/streaming/WebServerWrapperResponse.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "core/StringUtils.h"
#include "core/WrapperProxy.h"

namespace quillon {

namespace {

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
    return s;
}

std::optional<std::uint64_t> number(std::string_view s) {
    std::uint64_t v = 0;
    if (s.empty() || s.find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || end != s.data() + s.size() || v >= ByteRange::kNotSetFrom)
        return std::nullopt;
    return v;
}

bool missing(const Error& e) {
    return e.is(ErrorKind::NotFound);
}

}  // namespace

std::optional<ByteRange> parseRangeHeader(std::string_view value) {
    value = trimmed(value);
    if (value.size() < 6 || !StringUtils::startsWithIgnoreCase(value, "bytes="))
        return std::nullopt;
    value = trimmed(value.substr(6));
    auto dash = value.find('-');
    if (dash == std::string_view::npos || value.find(',') != std::string_view::npos)
        return std::nullopt;
    auto first = trimmed(value.substr(0, dash));
    auto last = trimmed(value.substr(dash + 1));
    ByteRange range;
    if (first.empty()) {
        auto n = number(last);
        if (!n || *n == 0) return std::nullopt;
        range.length = *n;
        return range;
    }
    auto a = number(first);
    if (!a) return std::nullopt;
    range.location = *a;
    if (last.empty()) return range;
    auto b = number(last);
    if (!b || *b < *a) return std::nullopt;
    range.length = *b - *a + 1;
    return range;
}

ResolvedRange resolveRange(const std::optional<ByteRange>& range, std::uint64_t total,
                           bool suffixFromStart) {
    ResolvedRange r;
    if (!range) {
        r.length = total;
        return r;
    }
    bool locationSet = range->location < ByteRange::kNotSetFrom;
    bool lengthSet = range->length < ByteRange::kNotSetFrom;
    if (locationSet)
        r.start = range->location;
    else if (!suffixFromStart && lengthSet)
        r.start = total - std::min(total, range->length);
    if (r.start >= total) {
        r.status = 416;
        r.contentRange = fmt::format("bytes */{}", total);
        return r;
    }
    // An end past the file is clipped, so that the announced length is always sent.
    r.length = lengthSet ? std::min(range->length, total - r.start) : total - r.start;
    r.status = 206;
    r.contentRange = fmt::format("bytes {}-{}/{}", r.start, r.start + r.length - 1, total);
    return r;
}

WebServerWrapperResponse::WebServerWrapperResponse(ServerInfoPtr serverInfo, KvMetadata meta)
    : serverInfo_(std::move(serverInfo)), metadata_(std::move(meta)) {}

WebServerWrapperResponse::~WebServerWrapperResponse() {
    setCancelled(true);
    if (fd_ >= 0) ::close(fd_);
}

std::shared_ptr<WebServerWrapperResponse> WebServerWrapperResponse::responseWithServerInfo(
    ServerInfoPtr serverInfo, KvMetadata meta, const std::optional<ByteRange>& range) {
    std::shared_ptr<WebServerWrapperResponse> r(
        new WebServerWrapperResponse(std::move(serverInfo), std::move(meta)));
    auto name = r->metadata_.nameOrEmpty();
    if (name.empty()) name = StringUtils::lastPathComponent(r->metadata_.pathOrEmpty());
    auto ext = StringUtils::pathExtension(name);
    r->contentType_ =
        StringUtils::equalsIgnoreCase(ext, "mp4") ? "video/mp4" : "application/octet-stream";
    r->headers_.emplace_back("Accept-Ranges", "bytes");
    auto fail = [&](const Error& e) {
        r->failure_ = e;
        r->statusCode_ = missing(e) ? 404 : 502;
        return r;
    };

    std::uint64_t total = r->metadata_.fileSizeInBytes.value_or(0);
    if (r->serverInfo_->protocolType == ProtocolType::Local) {
        std::string path = r->metadata_.localPath.value_or(r->metadata_.pathOrEmpty());
        r->fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st {};
        if (r->fd_ < 0 || ::fstat(r->fd_, &st) != 0 || S_ISDIR(st.st_mode)) {
            int err = r->fd_ < 0 ? errno : EISDIR;
            return fail(KvError::errorWithDomain(ErrorDomain::Local, err,
                                                 fmt::format("{}: {}", path, std::strerror(err))));
        }
        if (!r->metadata_.fileSizeInBytes) total = static_cast<std::uint64_t>(st.st_size);
    } else {
        // A client of its own, on a copy of the record: clients note what they learn in it.
        auto wrapper =
            WrapperProxy::wrapperWithServerInfo(std::make_shared<ServerInfo>(*r->serverInfo_));
        if (!wrapper || !wrapper->capabilities().streaming)
            return fail(KvError::errorWithDomain(ErrorDomain::Generic, -1,
                                                 "This server cannot stream files."));
        if (auto s = wrapper->initStreamFileMeta(r->metadata_); !s) return fail(s.error());
        if (wrapper->contentLength() > 0) {
            total = wrapper->contentLength();
            r->metadata_.fileSizeInBytes = total;
        }
        r->wrapper_ = std::move(wrapper);
    }
    r->total_ = total;
    auto resolved = resolveRange(range, total, true);
    r->statusCode_ = resolved.status;
    r->start_ = resolved.start;
    r->length_ = resolved.length;
    if (!resolved.contentRange.empty())
        r->headers_.emplace_back("Content-Range", resolved.contentRange);
    return r;
}

void WebServerWrapperResponse::open() {
    std::lock_guard lock(mutex_);
    maxChunkSize_ = kInitialChunkSize;
    if (wrapper_) {
        wrapper_->setIsServiceForThumbnail(forThumbnail_);
        wrapper_->setOffset(start_);
    }
    filePosition_ = start_;
    leftbytes_ = statusCode_ == 200 || statusCode_ == 206 ? length_ : 0;
}

Bytes WebServerWrapperResponse::readData() {
    WrapperPtr wrapper;
    std::uint64_t chunk = 0;
    std::uint64_t position = 0;
    {
        std::lock_guard lock(mutex_);
        if (leftbytes_ == 0 || cancelled_ || (!wrapper_ && fd_ < 0)) return {};
        chunk = maxChunkSize_;
        if (maxChunkSize_ <= kGrowWhileAtMost) maxChunkSize_ += kChunkGrowth;
        if (forThumbnail_) chunk = kThumbnailChunkSize;
        chunk = std::min(chunk, leftbytes_);
        wrapper = wrapper_;
        position = filePosition_;
    }
    Bytes data;
    if (wrapper) {
        auto r = wrapper->readDataOfLength(chunk);
        if (r) data = std::move(*r);
    } else {
        data.resize(static_cast<std::size_t>(chunk));
        std::size_t got = 0;
        while (got < data.size()) {
            ssize_t n = ::pread(fd_, data.data() + got, data.size() - got,
                                static_cast<off_t>(position + got));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            got += static_cast<std::size_t>(n);
        }
        data.resize(got);
    }
    std::lock_guard lock(mutex_);
    if (cancelled_) return {};
    data.resize(static_cast<std::size_t>(std::min<std::uint64_t>(data.size(), leftbytes_)));
    leftbytes_ -= data.size();
    filePosition_ += data.size();
    return data;
}

std::uint64_t WebServerWrapperResponse::leftbytes() const {
    std::lock_guard lock(mutex_);
    return leftbytes_;
}

std::uint64_t WebServerWrapperResponse::position() const {
    std::lock_guard lock(mutex_);
    return filePosition_;
}

void WebServerWrapperResponse::advance(std::uint64_t n) {
    std::lock_guard lock(mutex_);
    n = std::min(n, leftbytes_);
    leftbytes_ -= n;
    filePosition_ += n;
    if (wrapper_) wrapper_->setOffset(filePosition_);
}

void WebServerWrapperResponse::setCancelled(bool cancelled) {
    WrapperPtr wrapper;
    {
        std::lock_guard lock(mutex_);
        if (!cancelled || cancelled_) return;
        cancelled_ = true;
        wrapper = std::move(wrapper_);
        wrapper_.reset();
    }
    if (wrapper) wrapper->cancelOperation();
}

bool WebServerWrapperResponse::cancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

}  // namespace quillon
