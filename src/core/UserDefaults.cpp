#include "core/UserDefaults.h"

#include "core/PathUtils.h"

namespace quillon {

UserDefaults UserDefaults::standardUserDefaults() {
    return UserDefaults(PathUtils::getAppDataFolderPath() + "/defaults.plist");
}

UserDefaults::UserDefaults(std::string path) : path_(std::move(path)) {
    if (auto v = Plist::readFile(path_); v && v->is<PlistDict>()) values_ = *v->get<PlistDict>();
}

std::optional<PlistValue> UserDefaults::objectForKey(std::string_view key) const {
    auto it = values_.find(std::string(key));
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

bool UserDefaults::boolForKey(std::string_view key) const {
    auto v = objectForKey(key);
    return v && v->toBool();
}

void UserDefaults::setObject(PlistValue value, std::string_view key) {
    values_[std::string(key)] = std::move(value);
}

void UserDefaults::removeObjectForKey(std::string_view key) {
    values_.erase(std::string(key));
}

Status UserDefaults::synchronize() {
    return Plist::writeFile(path_, PlistValue(values_), 0600);
}

}  // namespace quillon
