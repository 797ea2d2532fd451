#pragma once
// NearbyUtils: where received files go ("Nearby Location"), the name this machine shows to
// nearby devices, and the rules a received name must pass.

#include <asio.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace quillon::NearbyUtils {

// Stores `path` under "Nearby Location" and saves the preferences, only when it exists on disk.
void saveNearbyLocation(const std::string& path);
// The stored location when it exists on disk, else the user's download folder.
std::string getNearbyLocation();

// The host's display name: the pretty host name of /etc/machine-info, else its network name.
std::string localDisplayName();
// The DNS-SD instance name published for a display name: "%@ Wi-Fi".
std::string serviceNameForDisplayName(const std::string& displayName);

// Why a received name may not be saved below the target folder (an empty name or component,
// "." or "..", a leading "/", a NUL or another control character, a component longer than the
// file system allows), or nothing when it is fine.
std::optional<std::string> unsafeNameReason(std::string_view name);

// "HOST", "HOST:PORT", "[IPv6]:PORT" or a bare IPv6 address with the IP written as numbers; the
// port defaults to 4713. Absent for anything else (a device name, a host name).
std::optional<asio::ip::tcp::endpoint> parseAddress(std::string_view text);

}  // namespace quillon::NearbyUtils
