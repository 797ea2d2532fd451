#pragma once
// Paths of the FTP server: what a client names is folded into a path seen from the shared folder
// ("/" is the shared folder itself) and then mapped to a local path that never leaves it, not by
// "..", not by an absolute path and not by a symbolic link that points outside.

#include <optional>
#include <string>
#include <string_view>

namespace quillon::FtpPath {

// `argument` applied to `currentFolder` (both seen from the shared folder), with "." and ".."
// folded and never above "/". Absent when the argument holds a NUL byte.
std::optional<std::string> virtualPath(std::string_view currentFolder, std::string_view argument);

enum class Resolve {
    Follow,  // the item itself, every link followed (read, list, change folder, set time)
    Entry,   // the name inside its folder, a link in the last place not followed (delete,
             // rename, create)
};

// The local path of `virtualPath` inside `root` (a canonical path), or absent when it leads out
// of the root through a link, or when it does not exist (Follow) or its folder does not (Entry).
std::optional<std::string> localPath(const std::string& root, const std::string& virtualPath,
                                     Resolve how);

// True when `path` is `root` or lies inside it (both canonical).
bool isInside(const std::string& root, const std::string& path);

// The canonical form of an existing local path (links resolved), or absent.
std::optional<std::string> canonical(const std::string& path);

}  // namespace quillon::FtpPath
