#include "core/FileService.h"

#include "core/PathUtils.h"

namespace quillon {

FileService& FileService::sharedService() {
    static FileService s;
    return s;
}

std::string FileService::cacheRootFolder() const {
    return PathUtils::getAppCacheFolderPath() + "/Downloaded";
}

namespace {
// A path component that cannot climb out of, or collapse into, its folder.
std::string safeComponent(std::string_view c) {
    std::string out;
    for (char ch : c) {
        if (ch == '%' || ch == '\0') {
            static const char* hex = "0123456789ABCDEF";
            out += '%';
            out += hex[(static_cast<unsigned char>(ch) >> 4) & 0xF];
            out += hex[static_cast<unsigned char>(ch) & 0xF];
        } else {
            out += ch;
        }
    }
    if (out == "." || out == "..") {
        std::string escaped;
        for (std::size_t i = 0; i < out.size(); ++i) escaped += "%2E";
        return escaped;
    }
    return out;
}
}  // namespace

std::string FileService::cachePathForMetadata(const KvMetadata& meta,
                                              const ServerInfo& server) const {
    std::string result = cacheRootFolder() + "/" + safeComponent(server.serverID);
    std::string path = meta.pathOrEmpty();
    std::size_t start = 0;
    while (start <= path.size()) {
        auto end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (end > start)
            result += "/" + safeComponent(std::string_view(path).substr(start, end - start));
        start = end + 1;
    }
    return result;
}

}  // namespace quillon
