#include "core/ThumbnailSupport.h"

#include <mutex>

namespace quillon::ThumbnailSupport {

namespace {
struct Hooks {
    std::mutex mutex;
    Maker maker;
    LocalRenderer renderer;
};
Hooks& hooks() {
    static Hooks h;
    return h;
}
Error unavailable() {
    return KvError::errorWithDomain(ErrorDomain::Local, ErrorCode::NoThumbnail,
                                    "It doesn't have a thumbnail.");
}
}  // namespace

void install(Maker maker, LocalRenderer renderer) {
    std::lock_guard lock(hooks().mutex);
    hooks().maker = std::move(maker);
    hooks().renderer = std::move(renderer);
}

bool installed() {
    std::lock_guard lock(hooks().mutex);
    return static_cast<bool>(hooks().maker);
}

Status downloadThumbnailSync(Wrapper& client, const KvMetadata& item) {
    Maker maker;
    {
        std::lock_guard lock(hooks().mutex);
        maker = hooks().maker;
    }
    if (!maker) return std::unexpected(unavailable());
    return maker(client, item);
}

Result<std::string> thumbnailOfLocalFile(const std::string& path) {
    LocalRenderer renderer;
    {
        std::lock_guard lock(hooks().mutex);
        renderer = hooks().renderer;
    }
    if (!renderer) return std::unexpected(unavailable());
    return renderer(path);
}

}  // namespace quillon::ThumbnailSupport
