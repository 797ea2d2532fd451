#pragma once
// Thumbnails in the freedesktop.org thumbnail cache, shared with other programs:
// <cache>/thumbnails/{normal,large,x-large,xx-large}/<MD5 of the URI>.png (128, 256, 512 and 1024
// pixels), each PNG carrying the "Thumb::URI" and "Thumb::MTime" keys; a file that cannot be
// thumbnailed gets an entry under fail/quillon/ and is not tried again until it changes.
//
// Images are shrunk on load with their EXIF orientation applied (libvips), videos give a frame
// that is not black (libffmpegthumbnailer), audio files their cover art (TagLib), PDFs their
// first page (poppler). Remote files are sampled through their client's streaming read, at most
// the first 10 MiB.

#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "core/KvMetadata.h"
#include "core/ServerInfo.h"
#include "core/Wrapper.h"

namespace quillon::Thumbnails {

enum class Size { Normal, Large, XLarge, XXLarge };
int pixels(Size size);
std::string_view folderName(Size size);
std::optional<Size> sizeForName(std::string_view name);

// $XDG_CACHE_HOME/thumbnails (or ~/.cache/thumbnails; under QUILLON_HOME when that is set).
std::string cacheRoot();
// "file:///path" with the path percent-escaped, as other programs write it.
std::string uriForLocalPath(const std::string& absolutePath);
// The URI of a remote item ("ftp://user@host:port/path").
std::string uriForItem(const ServerInfo& server, const KvMetadata& item);
std::string md5Hex(std::string_view text);
std::string cachePathForURI(const std::string& uri, Size size);
std::string failPathForURI(const std::string& uri);

// Whether a thumbnail can be made from the name's kind (image, movie, audio, PDF).
bool isThumbnailable(std::string_view name);
// The thumbnail of a local file as PNG bytes, at most `pixels` on its longer side, without
// keys. Fails with 10009 for a kind without thumbnails or a file that cannot be decoded.
[[nodiscard]] Result<std::string> renderLocalFile(const std::string& path, int pixels);

// The cache entry for a local file: an entry whose MTime matches is reused; a matching failure
// entry fails at once. Returns the PNG's path.
[[nodiscard]] Result<std::string> thumbnailForLocalFile(const std::string& path, Size size);
// The same for any item, read through its client (remote files: the first 10 MiB).
[[nodiscard]] Result<std::string> thumbnailForItem(Wrapper& client, const KvMetadata& item,
                                                   Size size);

// Makes the thumbnail maker the one that clients and the FTP server use. Idempotent.
void installThumbnails();

}  // namespace quillon::Thumbnails
