#include "core/AppPreference.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "core/PathUtils.h"

namespace fs = std::filesystem;

namespace quillon {

namespace {

// A free name beside `path` for a file that could not be read, e.g.
// "pref.plist.corrupt-20240131T120000".
std::string asideName(const std::string& path) {
    std::time_t t = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%S", &tm);
    std::string base = path + ".corrupt-" + stamp;
    std::string candidate = base;
    std::error_code ec;
    for (int n = 1; fs::exists(candidate, ec); ++n) candidate = fmt::format("{}-{}", base, n);
    return candidate;
}

// Copies the shipped defaults to `target`, atomically and readable by the user only.
bool seedFromShipped(const std::string& shipped, const std::string& target) {
    auto value = Plist::readFile(shipped);
    if (!value || !value->is<PlistDict>()) return false;
    std::error_code ec;
    std::string tmp = target + ".tmp-" + std::to_string(::getpid());
    fs::copy_file(shipped, tmp, fs::copy_options::overwrite_existing, ec);
    if (ec) return false;
    ::chmod(tmp.c_str(), 0600);
    if (::rename(tmp.c_str(), target.c_str()) != 0) {
        ::unlink(tmp.c_str());
        return false;
    }
    return true;
}

}  // namespace

AppPreference& AppPreference::sharedAppPreference() {
    static AppPreference* shared = new AppPreference();
    return *shared;
}

AppPreference::AppPreference() {
    (void)load();
}

std::string AppPreference::prefFilePath() const {
    return PathUtils::getAppDataFolderPath() + "/pref.plist";
}

Status AppPreference::load() {
    std::string path = prefFilePath();
    std::string shipped = PathUtils::getResourceFolderPath() + "/pref.plist";
    std::optional<Error> problem;
    bool keepFile = false;
    std::optional<PlistDict> loaded;

    std::error_code ec;
    if (fs::exists(path, ec) || fs::is_symlink(path, ec)) {
        auto value = Plist::readFile(path);
        if (value && value->is<PlistDict>()) {
            loaded = *value->get<PlistDict>();
        } else {
            std::string why = value ? "it does not hold a dictionary" : value.error().reason;
            std::string aside = asideName(path);
            if (::rename(path.c_str(), aside.c_str()) == 0) {
                problem = KvError::errorWithDomain(
                    ErrorDomain::Generic, -1,
                    fmt::format("The preference file {} could not be read ({}); it was kept as {} "
                                "and the default settings are used.",
                                path, why, aside));
            } else {
                keepFile = true;
                problem = KvError::errorWithDomain(
                    ErrorDomain::Generic, errno,
                    fmt::format("The preference file {} could not be read ({}) nor moved aside "
                                "({}); the default settings are used and the file is left as it "
                                "is.",
                                path, why, std::strerror(errno)));
            }
        }
    }
    if (!loaded && !keepFile && seedFromShipped(shipped, path)) {
        if (auto value = Plist::readFile(path); value && value->is<PlistDict>())
            loaded = *value->get<PlistDict>();
    }
    if (!loaded) {
        // A data folder that cannot be written still gets the shipped defaults.
        if (auto value = Plist::readFile(shipped); value && value->is<PlistDict>())
            loaded = *value->get<PlistDict>();
    }

    std::lock_guard lock(mutex_);
    prefDic_ = loaded.value_or(PlistDict{});
    loadError_ = problem;
    fileProtected_ = keepFile;
    if (problem) return std::unexpected(*problem);
    return {};
}

Status AppPreference::save() {
    std::lock_guard lock(mutex_);
    std::string path = prefFilePath();
    if (fileProtected_)
        return KvError::fail(ErrorDomain::Generic, -1,
                             fmt::format("The preference file {} was not replaced: it could not be "
                                         "read and could not be moved aside.",
                                         path));
    // The store holds the built-in FTP server's password: readable by the user only.
    return Plist::writeFile(path, PlistValue(prefDic_), 0600);
}

std::optional<Error> AppPreference::loadError() const {
    std::lock_guard lock(mutex_);
    return loadError_;
}

std::optional<Error> AppPreference::takeLoadError() {
    std::lock_guard lock(mutex_);
    auto e = std::move(loadError_);
    loadError_.reset();
    return e;
}

Status AppPreference::checkValue(std::string_view key, const PlistValue& value) {
    if (key == PrefKey::MaxSimultaneousTransfers && value.toInteger() < 1)
        return KvError::fail(ErrorDomain::Generic, -1,
                             fmt::format("\"{}\" must be 1 or more.", key));
    return {};
}

std::optional<PlistValue> AppPreference::valueForKey(std::string_view key) const {
    if (key.empty()) return std::nullopt;
    // Reads lock as well: a std::map must not be read while another thread changes it.
    std::lock_guard lock(mutex_);
    auto it = prefDic_.find(std::string(key));
    if (it == prefDic_.end()) return std::nullopt;
    return it->second;
}

bool AppPreference::boolForKey(std::string_view key) const {
    auto v = valueForKey(key);
    return v && v->toBool();
}

std::int64_t AppPreference::integerForKey(std::string_view key) const {
    auto v = valueForKey(key);
    return v ? v->toInteger() : 0;
}

std::string AppPreference::stringForKey(std::string_view key) const {
    auto v = valueForKey(key);
    return v ? v->toString() : std::string();
}

void AppPreference::setValue(PlistValue value, std::string_view key) {
    if (key.empty()) return;
    std::lock_guard lock(mutex_);
    prefDic_[std::string(key)] = std::move(value);
}

void AppPreference::removeValueForKey(std::string_view key) {
    std::lock_guard lock(mutex_);
    prefDic_.erase(std::string(key));
}

PlistDict AppPreference::snapshot() const {
    std::lock_guard lock(mutex_);
    return prefDic_;
}

}  // namespace quillon
