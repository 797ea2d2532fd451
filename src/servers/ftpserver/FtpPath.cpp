#include "servers/ftpserver/FtpPath.h"

#include <limits.h>
#include <stdlib.h>

#include <vector>

namespace quillon::FtpPath {

std::optional<std::string> virtualPath(std::string_view currentFolder, std::string_view argument) {
    if (argument.find('\0') != std::string_view::npos) return std::nullopt;
    std::vector<std::string_view> parts;
    auto fold = [&parts](std::string_view text) {
        std::size_t pos = 0;
        while (pos <= text.size()) {
            auto slash = text.find('/', pos);
            if (slash == std::string_view::npos) slash = text.size();
            auto part = text.substr(pos, slash - pos);
            if (part == "..") {
                if (!parts.empty()) parts.pop_back();
            } else if (!part.empty() && part != ".") {
                parts.push_back(part);
            }
            pos = slash + 1;
        }
    };
    if (argument.empty() || argument.front() != '/') fold(currentFolder);
    fold(argument);
    if (parts.empty()) return std::string("/");
    std::string out;
    for (auto part : parts) {
        out += '/';
        out += part;
    }
    return out;
}

bool isInside(const std::string& root, const std::string& path) {
    if (path == root) return true;
    if (root == "/") return !path.empty() && path.front() == '/';
    return path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
           path[root.size()] == '/';
}

std::optional<std::string> canonical(const std::string& path) {
    if (path.find('\0') != std::string::npos) return std::nullopt;
    char buf[PATH_MAX];
    if (!::realpath(path.c_str(), buf)) return std::nullopt;
    return std::string(buf);
}

std::optional<std::string> localPath(const std::string& root, const std::string& virtualPath,
                                     Resolve how) {
    if (virtualPath.empty() || virtualPath.front() != '/') return std::nullopt;
    if (virtualPath.find('\0') != std::string::npos) return std::nullopt;
    auto join = [&root](std::string_view rel) {
        if (rel.empty() || rel == "/") return root;
        return root == "/" ? std::string(rel) : root + std::string(rel);
    };
    if (how == Resolve::Follow) {
        auto real = canonical(join(virtualPath));
        if (!real || !isInside(root, *real)) return std::nullopt;
        return real;
    }
    if (virtualPath == "/") return std::nullopt;
    auto slash = virtualPath.rfind('/');
    std::string_view name = std::string_view(virtualPath).substr(slash + 1);
    if (name.empty() || name == "." || name == "..") return std::nullopt;
    auto folder = canonical(join(std::string_view(virtualPath).substr(0, slash)));
    if (!folder || !isInside(root, *folder)) return std::nullopt;
    return (*folder == "/" ? std::string() : *folder) + "/" + std::string(name);
}

}  // namespace quillon::FtpPath
