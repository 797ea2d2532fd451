#include "core/StreamingSupport.h"

#include <fmt/format.h>

#include <mutex>

#include "core/StringUtils.h"

namespace quillon::StreamingSupport {

namespace {

struct Provider {
    std::mutex mutex;
    CachedRead read;
    PlaybackOffer offer;
};

Provider& provider() {
    static Provider p;
    return p;
}

}  // namespace

void install(CachedRead read, PlaybackOffer offer) {
    auto& p = provider();
    std::lock_guard lock(p.mutex);
    p.read = std::move(read);
    p.offer = std::move(offer);
}

bool installed() {
    auto& p = provider();
    std::lock_guard lock(p.mutex);
    return static_cast<bool>(p.read);
}

Result<Bytes> readDataOfLength(Wrapper& client, const KvMetadata& file, std::uint64_t& offset,
                               std::uint64_t length) {
    CachedRead read;
    {
        auto& p = provider();
        std::lock_guard lock(p.mutex);
        read = p.read;
    }
    if (!read) return KvError::fail(ErrorDomain::Generic, -1, "Streaming is not available here.");
    std::uint64_t total = client.contentLength();
    if (length == 0 || offset >= total || client.cancelled()) return Bytes{};
    length = std::min(length, total - offset);
    bool forThumbnail = client.isServiceForThumbnail() && length <= kMaxThumbnailReadLength;
    Bytes data = read(client.serverInfo(), file, offset, length, forThumbnail,
                      [&client] { return client.cancelled(); });
    if (data.size() > length) data.resize(static_cast<std::size_t>(length));
    offset += data.size();
    return data;
}

Result<Bytes> readDataOfLength(Wrapper& client, const std::optional<KvMetadata>& file,
                               std::uint64_t& offset, std::uint64_t length,
                               const RangedRead& rangedRead) {
    if (file && installed()) return readDataOfLength(client, *file, offset, length);
    std::uint64_t total = client.contentLength();
    if (length == 0 || offset >= total) return Bytes{};
    auto data = rangedRead(offset, std::min(length, total - offset));
    if (data) offset += data->size();
    return data;
}

Result<Bytes> collectBlocks(std::uint64_t length, const BlockRead& read) {
    Bytes out;
    out.reserve(static_cast<std::size_t>(length));
    auto s = read([&](const Bytes& block) {
        std::size_t take = std::min<std::size_t>(block.size(), length - out.size());
        out.insert(out.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(take));
        return out.size() < length;
    });
    if (!s) return std::unexpected(s.error());
    return out;
}

std::optional<std::string> streamableURL(const ServerInfoPtr& server, const KvMetadata& file,
                                         std::string_view relativePath) {
    PlaybackOffer offer;
    {
        auto& p = provider();
        std::lock_guard lock(p.mutex);
        offer = p.offer;
    }
    if (!offer) return std::nullopt;
    auto port = offer(server, file);
    if (!port) return std::nullopt;
    // Each component is escaped whole, so that "#", "?" and "%" in a name stay part of the path.
    std::string escaped;
    for (std::size_t start = 0; start <= relativePath.size();) {
        auto slash = relativePath.find('/', start);
        if (slash == std::string_view::npos) slash = relativePath.size();
        if (start > 0) escaped += '/';
        escaped +=
            StringUtils::stringByEscapingForURLArgument(relativePath.substr(start, slash - start));
        start = slash + 1;
    }
    return fmt::format("http://{}:{}/{}", "127.0.0.1", *port, escaped);
}

}  // namespace quillon::StreamingSupport
