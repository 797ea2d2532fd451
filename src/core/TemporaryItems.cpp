#include "core/TemporaryItems.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "core/PathUtils.h"
#include "core/ServerInfo.h"
#include "core/StringUtils.h"

namespace quillon::TemporaryItems {

namespace {

constexpr std::string_view kPrefix = ".quillon-";
constexpr std::size_t kMarkLength = 8;
constexpr std::size_t kNameMax = 255;
constexpr const char* kLeftoversName = "leftovers";

struct State {
    std::mutex mutex;
    std::string mark = makeUUID().substr(0, kMarkLength);
    std::atomic<unsigned long> counter{0};
    int recordFd = -1;
    std::string recordPath;
    std::set<std::string> noted;
    std::map<std::string, int> scratch;  // path -> its locked descriptor
};

// Never destroyed: background threads may still note folders while the process exits.
State& state() {
    static State* s = new State();
    return *s;
}

std::string recordFolder() {
    std::string folder = PathUtils::getAppDataFolderPath() + "/Temporaries";
    PathUtils::ensureFolder(folder);
    return folder;
}

// Fields of a record line: "%", tab and line breaks are percent-escaped.
std::string escapeField(std::string_view s) {
    std::string out;
    for (char c : s) {
        if (c == '%' || c == '\t' || c == '\n' || c == '\r')
            out += fmt::format("%{:02X}", static_cast<unsigned char>(c));
        else
            out += c;
    }
    return out;
}

std::string unescapeField(std::string_view s) {
    std::string out;
    for (std::size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size()) {
            auto hex = std::string(s.substr(i + 1, 2));
            char* end = nullptr;
            long v = std::strtol(hex.c_str(), &end, 16);
            if (end && *end == '\0' && hex.size() == 2) {
                out += static_cast<char>(v);
                i += 2;
                continue;
            }
        }
        out += s[i];
    }
    return out;
}

std::vector<std::vector<std::string>> parseLines(const std::string& text) {
    std::vector<std::vector<std::string>> lines;
    std::size_t at = 0;
    while (at < text.size()) {
        auto end = text.find('\n', at);
        if (end == std::string::npos) break;  // a line cut by a kill is not trusted
        std::vector<std::string> fields;
        std::string_view line(text.data() + at, end - at);
        std::size_t from = 0;
        while (true) {
            auto tab = line.find('\t', from);
            fields.push_back(unescapeField(line.substr(from, tab - from)));
            if (tab == std::string_view::npos) break;
            from = tab + 1;
        }
        lines.push_back(std::move(fields));
        at = end + 1;
    }
    return lines;
}

std::string readAll(int fd) {
    std::string text;
    char buf[8192];
    ::lseek(fd, 0, SEEK_SET);
    while (true) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        text.append(buf, static_cast<std::size_t>(n));
    }
    return text;
}

bool writeAll(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t n = ::write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        text.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

void lockFully(int fd) {
    while (::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
}

// True when the descriptor still is the item at `path` (a clean-up may have removed it between
// its creation and its locking).
bool stillAt(int fd, const std::string& path) {
    struct stat a {
    }, b{};
    return ::fstat(fd, &a) == 0 && ::lstat(path.c_str(), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

std::string lineOf(const std::vector<std::string>& fields) {
    std::string line;
    for (std::size_t i = 0; i < fields.size(); ++i)
        line += (i ? "\t" : "") + escapeField(fields[i]);
    return line + "\n";
}

bool openRecord(struct State& s);

// Appends one line to this process's record (made on first use); false when it cannot be
// written, which only costs a later clean-up.
bool appendToRecord(const std::vector<std::string>& fields) {
    auto& s = state();
    std::string line = lineOf(fields);
    std::lock_guard lock(s.mutex);
    return openRecord(s) && writeAll(s.recordFd, line);
}

void removeRecordAtExit() {
    auto& s = state();
    if (s.recordFd >= 0) ::unlink(s.recordPath.c_str());
}

// Opens this process's record, locked.
bool openRecord(State& s) {
    if (s.recordFd >= 0) return true;
    std::string path = recordFolder() + "/" + s.mark;
    for (int attempt = 0; attempt < 4; ++attempt) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (fd < 0) return false;
        lockFully(fd);
        if (stillAt(fd, path)) {
            s.recordFd = fd;
            s.recordPath = path;
            static bool registered = std::atexit(removeRecordAtExit) == 0;
            (void)registered;
            return true;
        }
        ::close(fd);
    }
    return false;
}

bool isHex(std::string_view s) {
    for (char c : s)
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    return !s.empty();
}

// The mark of a temporary's name, or empty.
std::string_view markOf(std::string_view name) {
    if (!name.starts_with(kPrefix)) return {};
    auto rest = name.substr(kPrefix.size());
    if (rest.size() < kMarkLength + 3 || rest[kMarkLength] != '-') return {};
    auto mark = rest.substr(0, kMarkLength);
    auto afterMark = rest.substr(kMarkLength + 1);
    auto dash = afterMark.find('-');
    if (dash == std::string_view::npos || dash == 0) return {};
    for (char c : afterMark.substr(0, dash))
        if (c < '0' || c > '9') return {};
    return isHex(mark) ? mark : std::string_view{};
}

void removePath(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

// Removes the temporaries of `mark` in a local folder.
void sweepLocalFolder(const std::string& folder, std::string_view mark) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), &::closedir);
    if (!dir) return;
    std::vector<std::string> found;
    while (dirent* e = ::readdir(dir.get()))
        if (isTemporaryOf(e->d_name, mark)) found.emplace_back(e->d_name);
    for (auto& name : found)
        removePath(StringUtils::stringByAppendingPathComponentDirectly(folder, name));
}

void appendLeftovers(const std::string& lines) {
    if (lines.empty()) return;
    std::string path = recordFolder() + "/" + kLeftoversName;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd < 0) return;
    lockFully(fd);
    (void)writeAll(fd, lines);
    ::close(fd);
}

void removeUnheldScratchFolders() {
    std::string temp = PathUtils::getAppTempPath();
    int dfd = ::open(temp.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0) return;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::fdopendir(dfd), &::closedir);
    if (!dir) {
        ::close(dfd);
        return;
    }
    std::vector<std::string> names;
    while (dirent* e = ::readdir(dir.get())) {
        std::string_view n(e->d_name);
        if (n != "." && n != "..") names.emplace_back(n);
    }
    for (auto& name : names) {
        std::string path = temp + "/" + name;
        int fd = ::openat(dfd, name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0) {
            // Nothing of ours is a link or unreadable: not a scratch folder anyone holds.
            if (errno == ELOOP) ::unlinkat(dfd, name.c_str(), 0);
            continue;
        }
        // A held scratch folder is locked by its process for as long as it exists.
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) removePath(path);
        ::close(fd);
    }
}

// Local folders are swept at once; the server temporaries still unresolved go to the list of
// leftovers, as "place, path, path to restore to".
void processRecord(const std::string& text, const std::string& mark) {
    std::map<std::pair<std::string, std::string>, std::string> remote;  // (place, path) -> restore
    for (auto& fields : parseLines(text)) {
        if (fields.empty()) continue;
        const auto& kind = fields[0];
        if (kind == "L" && fields.size() == 2)
            sweepLocalFolder(fields[1], mark);
        else if (kind == "+" && fields.size() == 3)
            remote[{fields[1], fields[2]}] = "";
        else if (kind == "A" && fields.size() == 4)
            remote[{fields[1], fields[2]}] = fields[3];
        else if (kind == "-" && fields.size() == 3)
            remote.erase({fields[1], fields[2]});
    }
    std::string lines;
    for (auto& [key, restore] : remote) lines += lineOf({key.first, key.second, restore});
    appendLeftovers(lines);
}

void processEndedRecords() {
    std::string folder = recordFolder();
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), &::closedir);
    if (!dir) return;
    std::vector<std::string> marks;
    while (dirent* e = ::readdir(dir.get())) {
        std::string_view n(e->d_name);
        if (n.size() == kMarkLength && isHex(n)) marks.emplace_back(n);
    }
    std::string mine = state().mark;
    for (auto& mark : marks) {
        if (mark == mine) continue;
        std::string path = folder + "/" + mark;
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) continue;
        // Locked: its process runs. Gone meanwhile: another start-up took it.
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || !stillAt(fd, path)) {
            ::close(fd);
            continue;
        }
        processRecord(readAll(fd), mark);
        ::unlink(path.c_str());
        ::close(fd);
    }
}

}  // namespace

std::string nameFor(std::string_view finalName, std::size_t maxBytes) {
    auto& s = state();
    std::string prefix =
        fmt::format("{}{}-{}-", kPrefix, s.mark, s.counter.fetch_add(1, std::memory_order_relaxed));
    std::size_t room = std::min(maxBytes, kNameMax);
    room = room > prefix.size() ? room - prefix.size() : 0;
    return prefix + std::string(StringUtils::utf8Prefix(finalName, room));
}

std::string localPathFor(const std::string& folder, std::string_view finalName) {
    std::string base = folder == "/" ? "" : folder;
    // The path with its terminating zero must stay within PATH_MAX.
    std::size_t used = base.size() + 1;
    std::size_t room = used + 1 < PATH_MAX ? PATH_MAX - 1 - used : 0;
    return base + "/" + nameFor(finalName, room);
}

bool isTemporaryName(std::string_view name) {
    return !markOf(name).empty();
}

bool isTemporaryOf(std::string_view name, std::string_view mark) {
    auto m = markOf(name);
    return !m.empty() && m == mark;
}

std::string placeOf(const ServerInfo* server) {
    if (!server || server->protocolType == ProtocolType::Local) return {};
    auto addr = server->valueForKey(ServerProp::ADDR);
    if (!addr || addr->empty()) return server->serverID;
    auto user = server->valueForKey(ServerProp::USERNAME);
    if (!user || user->empty()) user = server->valueForKey(ServerProp::TEMP_USERNAME);
    return fmt::format("{}:{}:{}:{}", server->protocolType, *addr,
                       server->valueForKey(ServerProp::PORT).value_or(""), user.value_or(""));
}

void noteLocalFolder(const std::string& folder) {
    if (folder.empty()) return;
    auto& s = state();
    {
        std::lock_guard lock(s.mutex);
        if (s.noted.contains(folder)) return;
    }
    std::string temp = PathUtils::getAppTempPath();
    if (folder == temp || folder.starts_with(temp + "/")) return;
    if (appendToRecord({"L", folder})) {
        std::lock_guard lock(s.mutex);
        s.noted.insert(folder);
    }
}

void noteTemporary(std::string_view place, const std::string& path) {
    (void)appendToRecord({"+", std::string(place), path});
}

void noteAside(std::string_view place, const std::string& aside, const std::string& target) {
    (void)appendToRecord({"A", std::string(place), aside, target});
}

void forgetTemporary(std::string_view place, const std::string& path) {
    (void)appendToRecord({"-", std::string(place), path});
}

Result<std::string> makeScratchFolder() {
    std::string temp = PathUtils::getAppTempPath();
    std::string path;
    for (int attempt = 0; attempt < 8; ++attempt) {
        path = StringUtils::stringByAppendingPathComponentDirectly(temp, makeUUID());
        if (::mkdir(path.c_str(), 0700) != 0) {
            if (errno == EEXIST) continue;
            break;
        }
        int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) continue;
        lockFully(fd);
        // A start-up clean-up in another process may have taken it before the lock.
        if (!stillAt(fd, path)) {
            ::close(fd);
            continue;
        }
        auto& s = state();
        std::lock_guard lock(s.mutex);
        s.scratch[path] = fd;
        return path;
    }
    return KvError::fail(ErrorDomain::Local, ErrorCode::TransferFailed,
                         "Cannot create file " + path);
}

void removeScratchFolder(const std::string& path) {
    if (path.empty()) return;
    removePath(path);
    auto& s = state();
    std::lock_guard lock(s.mutex);
    if (auto it = s.scratch.find(path); it != s.scratch.end()) {
        ::close(it->second);
        s.scratch.erase(it);
    }
}

void cleanUpAfterEndedProcesses() {
    removeUnheldScratchFolders();
    processEndedRecords();
}

std::vector<Leftover> takeLeftovers(std::string_view place) {
    std::vector<Leftover> taken;
    if (place.empty()) return taken;
    std::string path = recordFolder() + "/" + kLeftoversName;
    int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return taken;
    lockFully(fd);
    std::string rest;
    for (auto& fields : parseLines(readAll(fd))) {
        if (fields.size() != 3) continue;
        if (fields[0] == place)
            taken.push_back({fields[1], fields[2]});
        else
            rest += lineOf(fields);
    }
    // Carried into this process's record first, so that a kill before they are cleared hands
    // them on to the next start.
    for (auto& leftover : taken)
        (void)appendToRecord(leftover.restoreTo.empty()
                                 ? std::vector<std::string>{"+", std::string(place), leftover.path}
                                 : std::vector<std::string>{"A", std::string(place), leftover.path,
                                                            leftover.restoreTo});
    if (!taken.empty() && ::ftruncate(fd, 0) == 0) {
        ::lseek(fd, 0, SEEK_SET);
        (void)writeAll(fd, rest);
    }
    ::close(fd);
    return taken;
}

}  // namespace quillon::TemporaryItems
