#pragma once
// ThumbnailSupport: how clients and the built-in FTP server reach the thumbnail maker (media),
// which they may not depend on. Installed by the media subsystem; without it every request fails
// with 10009.

#include <functional>
#include <string>

#include "core/Wrapper.h"

namespace quillon::ThumbnailSupport {

// Writes the item's thumbnail into the thumbnail cache, reading the file through `client`.
using Maker = std::function<Status(Wrapper& client, const KvMetadata& item)>;
// The path of a local file's thumbnail in the cache, made when missing (for "name::thumbnail"
// on the FTP server).
using LocalRenderer = std::function<Result<std::string>(const std::string& path)>;

void install(Maker maker, LocalRenderer renderer);
bool installed();
[[nodiscard]] Status downloadThumbnailSync(Wrapper& client, const KvMetadata& item);
[[nodiscard]] Result<std::string> thumbnailOfLocalFile(const std::string& path);

}  // namespace quillon::ThumbnailSupport
