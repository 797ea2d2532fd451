#include "servers/ftpserver/FtpListing.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace quillon::FtpListing {

namespace {

constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

std::optional<FtpListEntry> fromStat(const struct stat& st, std::string name) {
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) return std::nullopt;
    FtpListEntry e;
    e.name = std::move(name);
    e.isDir = S_ISDIR(st.st_mode);
    e.size = e.isDir ? 0 : static_cast<std::uint64_t>(st.st_size);
    e.mtime = st.st_mtime;
    e.mode = st.st_mode & 07777;
    e.links = st.st_nlink;
    return e;
}

std::string permissions(const FtpListEntry& e) {
    std::string p = e.isDir ? "d" : "-";
    const char* letters = "rwxrwxrwx";
    for (int i = 0; i < 9; ++i) p += (e.mode & (0400u >> i)) ? letters[i] : '-';
    return p;
}

}  // namespace

std::optional<FtpListEntry> entryOf(int fd, std::string name) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) return std::nullopt;
    return fromStat(st, std::move(name));
}

std::vector<FtpListEntry> entriesOfFolder(const FtpPath::Root& root, std::string_view folder,
                                          int folderFd) {
    std::vector<FtpListEntry> out;
    int fd = ::openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return out;
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        ::close(fd);
        return out;
    }
    std::string prefix = folder == "/" ? std::string() : std::string(folder);
    while (auto* d = ::readdir(dir)) {
        std::string_view name = d->d_name;
        if (name == "." || name == ".." || name.find_first_of("\r\n") != std::string_view::npos ||
            name.starts_with(kUploadTempPrefix))
            continue;
        struct stat st {};
        if (::fstatat(::dirfd(dir), d->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISLNK(st.st_mode)) {
            // A link shows as what it points to, when that is inside.
            auto target = root.open(prefix + "/" + std::string(name), O_PATH);
            if (!target || ::fstat(target->get(), &st) != 0) continue;
        }
        if (auto e = fromStat(st, std::string(name))) out.push_back(std::move(*e));
    }
    ::closedir(dir);
    std::sort(out.begin(), out.end(),
              [](const FtpListEntry& a, const FtpListEntry& b) { return a.name < b.name; });
    return out;
}

std::string listLine(const FtpListEntry& e, std::time_t now) {
    std::tm tm{};
    ::gmtime_r(&e.mtime, &tm);
    constexpr std::time_t halfYear = 182L * 24 * 3600;
    std::string when;
    if (e.mtime > now + 3600 || now - e.mtime > halfYear)
        when = fmt::format("{} {:>2}  {}", kMonths[tm.tm_mon], tm.tm_mday, tm.tm_year + 1900);
    else
        when = fmt::format("{} {:>2} {:02}:{:02}", kMonths[tm.tm_mon], tm.tm_mday, tm.tm_hour,
                           tm.tm_min);
    return fmt::format("{} {:>3} ftp      ftp      {:>12} {} {}", permissions(e), e.links, e.size,
                       when, e.name);
}

std::string mlsxLine(const FtpListEntry& e, bool writable) {
    if (e.isDir)
        return fmt::format("type=dir;modify={};perm={};UNIX.mode={:04o}; {}", timeString(e.mtime),
                           writable ? "flcdmpe" : "fle", e.mode, e.name);
    return fmt::format("type=file;size={};modify={};perm={};UNIX.mode={:04o}; {}", e.size,
                       timeString(e.mtime), writable ? "adfrw" : "r", e.mode, e.name);
}

std::string timeString(std::time_t t) {
    std::tm tm{};
    ::gmtime_r(&t, &tm);
    return fmt::format("{:04}{:02}{:02}{:02}{:02}{:02}", tm.tm_year + 1900, tm.tm_mon + 1,
                       tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
}

std::optional<std::time_t> parseTimeString(std::string_view text) {
    if (auto dot = text.find('.'); dot != std::string_view::npos) {
        auto frac = text.substr(dot + 1);
        if (frac.empty() || frac.size() > 9 ||
            !std::all_of(frac.begin(), frac.end(), [](char c) { return c >= '0' && c <= '9'; }))
            return std::nullopt;
        text = text.substr(0, dot);
    }
    if (text.size() != 14 ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
        return std::nullopt;
    auto num = [&text](std::size_t at, std::size_t len) {
        int v = 0;
        for (std::size_t i = at; i < at + len; ++i) v = v * 10 + (text[i] - '0');
        return v;
    };
    std::tm tm{};
    tm.tm_year = num(0, 4) - 1900;
    tm.tm_mon = num(4, 2) - 1;
    tm.tm_mday = num(6, 2);
    tm.tm_hour = num(8, 2);
    tm.tm_min = num(10, 2);
    tm.tm_sec = num(12, 2);
    if (tm.tm_mon < 0 || tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 ||
        tm.tm_min > 59 || tm.tm_sec > 60)
        return std::nullopt;
    std::tm check = tm;
    std::time_t t = ::timegm(&check);
    // timegm normalises 31 February into March; such a date is not one the client meant.
    if (check.tm_mday != tm.tm_mday || check.tm_mon != tm.tm_mon) return std::nullopt;
    return t;
}

}  // namespace quillon::FtpListing
