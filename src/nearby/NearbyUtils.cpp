#include "nearby/NearbyUtils.h"

#include <limits.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <fstream>

#include "core/AppPreference.h"
#include "core/PathUtils.h"
#include "core/StringUtils.h"
#include "nearby/NearbyTransferMetadata.h"

namespace quillon::NearbyUtils {

namespace {
bool isFolder(const std::string& path) {
    std::error_code ec;
    return !path.empty() && std::filesystem::is_directory(path, ec);
}
}  // namespace

void saveNearbyLocation(const std::string& path) {
    std::error_code ec;
    if (path.empty() || !std::filesystem::exists(path, ec)) return;
    auto& prefs = AppPreference::sharedAppPreference();
    prefs.setValue(PlistValue(path), PrefKey::NearbyLocation);
    (void)prefs.save();
}

std::string getNearbyLocation() {
    auto stored = AppPreference::sharedAppPreference().stringForKey(PrefKey::NearbyLocation);
    if (isFolder(stored)) return stored;
    return PathUtils::getDownloadFolderPath();
}

std::string localDisplayName() {
    // The name the user gave the machine, as desktop settings write it.
    std::ifstream info("/etc/machine-info");
    std::string line;
    while (std::getline(info, line)) {
        if (!StringUtils::startsWith(line, "PRETTY_HOSTNAME=")) continue;
        auto value = StringUtils::trim(line.substr(16));
        if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
            value.back() == value.front())
            value = value.substr(1, value.size() - 2);
        if (!value.empty()) return value;
    }
    char host[HOST_NAME_MAX + 1] = {};
    if (::gethostname(host, sizeof host - 1) == 0 && host[0]) return host;
    return "Quillon";
}

std::string serviceNameForDisplayName(const std::string& displayName) {
    return displayName + " Wi-Fi";
}

std::optional<std::string> unsafeNameReason(std::string_view name) {
    if (name.empty()) return "the name is empty";
    if (name.front() == '/') return "the name begins with \"/\"";
    for (unsigned char c : name)
        if (c < 0x20 || c == 0x7f) return "the name holds a control character";
    std::size_t start = 0;
    while (true) {
        auto slash = name.find('/', start);
        auto part = name.substr(
            start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
        if (part.empty()) return "the name has an empty component";
        if (part == "." || part == "..") return "the name has a \".\" or \"..\" component";
        if (part.size() > NAME_MAX) return "a component of the name is too long";
        if (slash == std::string_view::npos) break;
        start = slash + 1;
    }
    return std::nullopt;
}

std::optional<asio::ip::tcp::endpoint> parseAddress(std::string_view text) {
    std::string host(text);
    int port = NearbyProtocol::kPort;
    auto readPort = [&port](std::string_view digits) {
        int value = 0;
        auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (ec != std::errc() || end != digits.data() + digits.size() || value < 1 || value > 65535)
            return false;
        port = value;
        return true;
    };
    if (!text.empty() && text.front() == '[') {
        auto close = text.find(']');
        if (close == std::string_view::npos) return std::nullopt;
        host = std::string(text.substr(1, close - 1));
        auto rest = text.substr(close + 1);
        if (!rest.empty() && (rest.front() != ':' || !readPort(rest.substr(1))))
            return std::nullopt;
    } else if (auto colon = text.find(':'); colon != std::string_view::npos &&
                                            text.find(':', colon + 1) == std::string_view::npos) {
        host = std::string(text.substr(0, colon));
        if (!readPort(text.substr(colon + 1))) return std::nullopt;
    }
    asio::error_code ec;
    auto address = asio::ip::make_address(host, ec);
    if (ec) return std::nullopt;
    return asio::ip::tcp::endpoint(address, static_cast<unsigned short>(port));
}

}  // namespace quillon::NearbyUtils
