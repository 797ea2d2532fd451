#pragma once
// StreamingSupport: what every remote client shares to let a media player read a file. The
// streaming service (servers/streaming) provides the cached reader and the playback server when
// it is installed; clients reach both only through here and never depend on the servers.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "core/Wrapper.h"

namespace quillon::StreamingSupport {

// Up to `length` bytes of `file` from `offset` on, through the shared cache; empty when the read
// ended without data or `stop` became true.
using CachedRead = std::function<Bytes(const ServerInfoPtr& server, const KvMetadata& file,
                                       std::uint64_t offset, std::uint64_t length,
                                       bool forThumbnail, const std::function<bool()>& stop)>;
// Makes the file the one the playback server serves (starting the server when it is offline);
// the port it listens on, or absent when it cannot run.
using PlaybackOffer =
    std::function<std::optional<int>(const ServerInfoPtr& server, const KvMetadata& file)>;

// Installed by the streaming service; clients work without it (see each use).
void install(CachedRead read, PlaybackOffer offer);
bool installed();

// Reads asked for more than this are never thumbnail reads.
inline constexpr std::uint64_t kMaxThumbnailReadLength = 10485759;

// The streaming read of a remote client: up to `length` bytes of `file` from `offset` through the
// shared cached reader (flagged as a thumbnail read only for a thumbnail client asking at most
// kMaxThumbnailReadLength bytes), trimmed to `length` and to `client.contentLength()`; `offset`
// advances by the bytes returned. Empty at the end of the file, when nothing arrived, or once the
// client is cancelled. Fails when no streaming service is installed.
[[nodiscard]] Result<Bytes> readDataOfLength(Wrapper& client, const KvMetadata& file,
                                             std::uint64_t& offset, std::uint64_t length);

// Up to `length` bytes of the open file from `offset`, read from the server itself.
using RangedRead = std::function<Result<Bytes>(std::uint64_t offset, std::uint64_t length)>;

// readDataOfLength of every remote client: through the shared cache when the streaming service
// is installed and a file is open (a player's repeated probing then costs the server nothing),
// else `rangedRead` for `length` trimmed to `client.contentLength()` (nothing at or past the
// end); `offset` advances by the bytes returned.
[[nodiscard]] Result<Bytes> readDataOfLength(Wrapper& client, const std::optional<KvMetadata>& file,
                                             std::uint64_t& offset, std::uint64_t length,
                                             const RangedRead& rangedRead);

// Gathers up to `length` bytes from a read that hands its blocks to a handler, telling it to
// stop once they are there.
using BlockRead = std::function<Status(const std::function<bool(const Bytes&)>& handler)>;
[[nodiscard]] Result<Bytes> collectBlocks(std::uint64_t length, const BlockRead& read);

// "http://127.0.0.1:<port>/<relativePath, URL-escaped>" after making the file the playback
// server's; absent when no streaming service is installed or its server cannot run.
std::optional<std::string> streamableURL(const ServerInfoPtr& server, const KvMetadata& file,
                                         std::string_view relativePath);

}  // namespace quillon::StreamingSupport
