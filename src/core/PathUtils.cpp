#include "core/PathUtils.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "core/KvMetadata.h"

namespace fs = std::filesystem;

namespace quillon::PathUtils {

namespace {

std::optional<std::string> env(const char* name) {
    const char* v = std::getenv(name);
    if (!v || !*v) return std::nullopt;
    return std::string(v);
}

std::string realHome() {
    if (auto h = env("HOME")) return *h;
    if (auto* pw = getpwuid(getuid())) return pw->pw_dir;
    return "/";
}

// XDG base directory: $VAR, else home + fallback.
std::string xdg(const char* var, const char* fallback) {
    if (auto v = env(var); v && v->front() == '/') return *v;
    return realHome() + "/" + fallback;
}

// A folder of xdg-user-dirs (Downloads, Desktop) from ~/.config/user-dirs.dirs.
std::string userDir(const std::string& key, const std::string& fallback) {
    std::ifstream in(xdg("XDG_CONFIG_HOME", ".config") + "/user-dirs.dirs");
    std::string line;
    std::string prefix = "XDG_" + key + "_DIR=";
    while (std::getline(in, line)) {
        if (!line.starts_with(prefix)) continue;
        std::string v = line.substr(prefix.size());
        if (v.size() >= 2 && v.front() == '"' && v.back() == '"') v = v.substr(1, v.size() - 2);
        if (v.starts_with("$HOME")) v = realHome() + v.substr(5);
        if (!v.empty() && v.front() == '/') return v;
    }
    return realHome() + "/" + fallback;
}

std::optional<std::string> override() {
    return env("QUILLON_HOME");
}

std::string ensured(const std::string& p) {
    ensureFolder(p);
    return p;
}

}  // namespace

bool ensureFolder(const std::string& path) {
    std::error_code ec;
    fs::create_directories(path, ec);
    return fs::is_directory(path, ec);
}

std::string getAppDataFolderPath() {
    if (auto o = override()) return ensured(*o + "/data/KvQuillon");
    return ensured(xdg("XDG_DATA_HOME", ".local/share") + "/KvQuillon");
}

std::string getAppCacheFolderPath() {
    if (auto o = override()) return ensured(*o + "/cache/KvQuillon/Cache");
    return ensured(xdg("XDG_CACHE_HOME", ".cache") + "/KvQuillon/Cache");
}

std::string getAppTempPath() {
    if (auto o = override()) return ensured(*o + "/tmp/KvQuillon");
    std::string base = env("TMPDIR").value_or("/tmp");
    // One temporary folder per user, so two users on a machine never share scratch files.
    return ensured(base + "/KvQuillon-" + std::to_string(::getuid()));
}

void cleanAppTempDir() {
    std::error_code ec;
    // Stepped with increment(ec): the range-for's ++ throws on a read error.
    for (fs::directory_iterator it(getAppTempPath(), ec), end; !ec && it != end; it.increment(ec))
        fs::remove_all(it->path(), ec);
}

std::string getDBFolderPath() {
    return ensured(getAppDataFolderPath() + "/db");
}

std::string getBackupFolderPath() {
    return ensured(getAppDataFolderPath() + "/Backup");
}

std::string getHomeFolderPath() {
    if (auto o = override()) return ensured(*o + "/home");
    return realHome();
}

std::string getDownloadFolderPath() {
    if (auto o = override()) return ensured(*o + "/home/Downloads");
    return userDir("DOWNLOAD", "Downloads");
}

std::string getDesktopFolderPath() {
    if (auto o = override()) return ensured(*o + "/home/Desktop");
    return userDir("DESKTOP", "Desktop");
}

std::string getApplicationsFolderPath() {
    return "/Applications";
}

std::string getResourceFolderPath() {
    if (auto r = env("QUILLON_RESOURCES")) return *r;
    // An installed program finds its resources beside its prefix; a build finds the source tree.
    std::error_code ec;
    auto exe = fs::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        auto installed = exe.parent_path().parent_path() / "share" / "quillon";
        if (fs::exists(installed / "pref.plist", ec)) return installed.string();
    }
    if (fs::exists(fs::path(QUILLON_INSTALL_RESOURCE_DIR) / "pref.plist", ec))
        return QUILLON_INSTALL_RESOURCE_DIR;
    return QUILLON_RESOURCE_DIR;
}

void updateLocalSymbolLinkInfo(KvMetadata& meta) {
    auto path = meta.path();
    if (!path) return;
    std::error_code ec;
    if (fs::is_symlink(*path, ec)) {
        meta.isSymbolLink = true;
        auto target = fs::read_symlink(*path, ec);
        if (!ec) {
            fs::path t = target;
            if (t.is_relative()) t = fs::path(*path).parent_path() / t;
            meta.symbolLinkTarget = t.lexically_normal().string();
        }
        // A link to a folder browses as a folder.
        if (fs::is_directory(*path, ec)) meta.isDir = true;
    } else {
        meta.isSymbolLink = false;
    }
}

}  // namespace quillon::PathUtils
