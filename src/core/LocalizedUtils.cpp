#include "core/LocalizedUtils.h"

#include <map>

#include "core/PathUtils.h"
#include "core/Plist.h"

namespace quillon::LocalizedUtils {

namespace {

using Table = std::map<std::string, std::string, std::less<>>;

// Read once, on first use; a missing or malformed table leaves every key showing as itself.
const Table& table() {
    static const Table t = [] {
        Table t;
        auto root = Plist::readFile(PathUtils::getResourceFolderPath() + "/Localizable.plist");
        if (!root) return t;
        if (auto dict = root->get<PlistDict>())
            for (auto& [key, value] : *dict)
                if (auto text = value.get<std::string>()) t.emplace(key, *text);
        return t;
    }();
    return t;
}

}  // namespace

std::string localizedStringForKey(std::string_view key, std::string_view /*comment*/) {
    auto& t = table();
    auto it = t.find(key);
    if (it == t.end()) return std::string(key);
    return it->second;
}

std::string localizedFormat(std::string_view key, std::initializer_list<std::string_view> args,
                            std::string_view comment) {
    std::string format = localizedStringForKey(key, comment);
    std::string out;
    auto next = args.begin();
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] == '%' && i + 1 < format.size()) {
            char c = format[i + 1];
            if (c == '%') {
                out += '%';
                ++i;
                continue;
            }
            if (c == '@' || c == 'd') {
                if (next != args.end()) out += *next++;
                ++i;
                continue;
            }
        }
        out += format[i];
    }
    return out;
}

}  // namespace quillon::LocalizedUtils
