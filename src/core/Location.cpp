#include "core/Location.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string_view>

#include "core/ClientExtras.h"
#include "core/PathUtils.h"
#include "core/ServerInfoService.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"

namespace quillon {

KvMetadata Location::metadata(bool isDir) const {
    KvMetadata m(path);
    if (path == "/") m.setName("/");
    m.isDir = isDir;
    m.serverID = server->serverID;
    m.protocolType = server->protocolType;
    if (isLocal()) m.localPath = path;
    return m;
}

std::string Location::display() const {
    return displayItem(*server, path);
}

std::string displayItem(const ServerInfo& server, const std::string& path) {
    if (server.protocolType == ProtocolType::Local) return path;
    return server.displayName + ":" + path;
}

std::string displayItem(const KvMetadata& item) {
    std::string path = item.pathOrEmpty();
    if (item.protocolType == ProtocolType::Local || !item.serverID || item.serverID->empty())
        return path;
    auto server =
        ServerInfoService::sharedServerInfoService().serverInfoWithServerID(*item.serverID);
    return server ? displayItem(*server, path) : path;
}

Status checkNewServerName(const std::string& name) {
    auto refuse = [](std::string reason) {
        return KvError::fail(ErrorDomain::Generic, -1, std::move(reason));
    };
    if (StringUtils::trim(name).empty()) return refuse("A server needs a name.");
    if (name.find(':') != std::string::npos)
        return refuse("A server name cannot contain \":\" (NAME:/path names a place on it).");
    for (auto& other : ServerInfoService::sharedServerInfoService().remoteServerInfos())
        if (other.displayName == name)
            return refuse("A server named \"" + name + "\" exists already.");
    return {};
}

std::optional<ServerInfo> findServer(const std::string& nameOrId) {
    auto& service = ServerInfoService::sharedServerInfoService();
    if (auto byId = service.serverInfoWithServerID(nameOrId)) return byId;
    for (auto& info : service.remoteServerInfos())
        if (info.displayName == nameOrId) return info;
    return std::nullopt;
}

namespace {

Error usage(const std::string& reason) {
    return KvError::errorWithDomain(ErrorDomain::Generic, -1, reason);
}

// Collapses "." and ".." and duplicate slashes of an absolute server path.
std::string normalizeServerPath(const std::string& p) {
    auto n = std::filesystem::path(p.empty() ? "/" : p).lexically_normal().string();
    if (n.empty() || n[0] != '/') n = "/" + n;
    while (n.size() > 1 && n.back() == '/') n.pop_back();
    return n;
}

struct ParsedUrl {
    std::string scheme, user, password, host, port, path;
};

// %XX escapes decoded; a control character among the results leaves nothing (a user name, a
// password or a path cannot hold one).
std::string percentDecoded(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() &&
            std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    for (unsigned char c : out)
        if (c < 0x20) return {};
    return out;
}

// scheme://[user[:password]@]host[:port][/path][?query][#fragment]; none when the text is not
// such a URL (no scheme, no host, a bad port, a blank or control character, a bad host name).
std::optional<ParsedUrl> parseUrl(const std::string& text) {
    for (unsigned char c : text)
        if (c <= 0x20 || c == 0x7f) return std::nullopt;
    auto sep = text.find("://");
    if (sep == std::string::npos || sep == 0 || !std::isalpha(static_cast<unsigned char>(text[0])))
        return std::nullopt;
    ParsedUrl u;
    u.scheme = text.substr(0, sep);
    for (unsigned char c : u.scheme)
        if (!std::isalnum(c) && c != '+' && c != '-' && c != '.') return std::nullopt;
    std::string_view rest = std::string_view(text).substr(sep + 3);
    // A third slash is taken as part of "//", as browsers do.
    if (rest.starts_with('/')) rest.remove_prefix(1);
    auto authorityEnd = rest.find_first_of("/?#");
    std::string_view authority = rest.substr(0, authorityEnd);
    std::string_view tail =
        authorityEnd == std::string_view::npos ? std::string_view{} : rest.substr(authorityEnd);
    std::string_view path = tail.substr(0, tail.find_first_of("?#"));
    u.path = path.empty() ? "/" : percentDecoded(path);
    if (auto at = authority.find('@'); at != std::string_view::npos) {
        std::string_view login = authority.substr(0, at);
        authority = authority.substr(at + 1);
        auto colon = login.find(':');
        u.user = percentDecoded(login.substr(0, colon));
        if (colon != std::string_view::npos) u.password = percentDecoded(login.substr(colon + 1));
    }
    std::string_view port;
    if (authority.starts_with('[')) {
        auto close = authority.find(']');
        if (close == std::string_view::npos) return std::nullopt;
        for (char c : authority.substr(1, close - 1))
            if (!std::isxdigit(static_cast<unsigned char>(c)) && c != ':' && c != '.')
                return std::nullopt;
        u.host = std::string(authority.substr(0, close + 1));
        std::string_view after = authority.substr(close + 1);
        if (!after.empty()) {
            if (after[0] != ':') return std::nullopt;
            port = after.substr(1);
        }
    } else {
        auto colon = authority.find(':');
        u.host = std::string(authority.substr(0, colon));
        if (colon != std::string_view::npos) port = authority.substr(colon + 1);
        static constexpr std::string_view bad = " /:#?!@{}[]\\$'\"^`*<>=;,+&()%";
        if (u.host.find_first_of(bad) != std::string::npos) return std::nullopt;
    }
    if (u.host.empty()) return std::nullopt;
    if (!port.empty()) {
        if (port.size() > 5) return std::nullopt;
        for (char c : port)
            if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
        if (std::stoi(std::string(port)) > 65535) return std::nullopt;
        u.port = std::to_string(std::stoi(std::string(port)));
    }
    return u;
}

// A quick-connect record for the URL; an earlier one for the same place is reused.
Result<ServerInfo> quickConnect(const std::string& text) {
    auto url = parseUrl(text);
    if (!url || url->host.empty()) return std::unexpected(usage("Not a valid URL: " + text));
    ServerInfo info;
    std::string scheme = StringUtils::toLower(url->scheme);
    if (scheme == "ftp" || scheme == "ftps" || scheme == "ftpes") {
        info.protocolType = ProtocolType::FTP;
        info.setValue(scheme == "ftps"    ? "FTP_PROTOCOL_IMPLICIT"
                      : scheme == "ftpes" ? "FTP_PROTOCOL_EXPLICIT"
                                          : "FTP_PROTOCOL_PLAIN",
                      ServerProp::FTP_PROTOCOL);
    } else if (scheme == "sftp") {
        info.protocolType = ProtocolType::SFTP;
    } else if (scheme == "smb") {
        info.protocolType = ProtocolType::SMB;
    } else if (scheme == "dav" || scheme == "davs" || scheme == "webdav" || scheme == "http" ||
               scheme == "https") {
        info.protocolType = ProtocolType::WebDAV;
        if (scheme == "https" || scheme == "davs") info.setValue("YES", "WEBDAV_HTTPS");
    } else {
        return std::unexpected(usage("Unsupported URL scheme \"" + url->scheme + "\""));
    }
    std::string port = url->port;
    if (port.empty()) {
        port = scheme == "ftp" || scheme == "ftpes"    ? "21"
               : scheme == "ftps"                      ? "990"
               : scheme == "sftp"                      ? "22"
               : scheme == "smb"                       ? "445"
               : scheme == "https" || scheme == "davs" ? "443"
                                                       : "80";
    }
    info.setValue(url->host, ServerProp::ADDR);
    info.setValue(port, ServerProp::PORT);
    if (!url->user.empty()) info.setValue(url->user, ServerProp::USERNAME);
    if (!url->password.empty()) info.setValue(url->password, ServerProp::PASSWORD);
    info.setValue("YES", ServerProp::QUICK_CONNECT);
    info.displayName = url->user.empty() ? url->host : url->user + "@" + url->host;
    if (port != "21" || scheme != "ftp") info.displayName += ":" + port;

    auto& service = ServerInfoService::sharedServerInfoService();
    for (auto& existing : service.remoteServerInfos()) {
        if (existing.boolValueForKey(ServerProp::QUICK_CONNECT) &&
            existing.protocolType == info.protocolType &&
            existing.valueForKey(ServerProp::ADDR) == info.valueForKey(ServerProp::ADDR) &&
            existing.valueForKey(ServerProp::PORT) == info.valueForKey(ServerProp::PORT) &&
            existing.valueForKey(ServerProp::USERNAME) == info.valueForKey(ServerProp::USERNAME) &&
            existing.valueForKey(ServerProp::FTP_PROTOCOL) ==
                info.valueForKey(ServerProp::FTP_PROTOCOL) &&
            existing.valueForKey("WEBDAV_HTTPS") == info.valueForKey("WEBDAV_HTTPS")) {
            if (info.valueForKey(ServerProp::PASSWORD) &&
                info.valueForKey(ServerProp::PASSWORD) !=
                    existing.valueForKey(ServerProp::PASSWORD)) {
                existing.setValue(info.valueForKey(ServerProp::PASSWORD), ServerProp::PASSWORD);
                if (auto r = service.updateServerInfo(existing); !r)
                    return std::unexpected(r.error());
            }
            return existing;
        }
    }
    if (auto r = service.saveServerInfo(info); !r) return std::unexpected(r.error());
    return info;
}

std::string absoluteLocalPath(const std::string& text) {
    std::string p = text;
    if (p == "~" || p.starts_with("~/")) p = PathUtils::getHomeFolderPath() + p.substr(1);
    if (p.empty() || p[0] != '/') {
        char cwd[PATH_MAX];
        if (::getcwd(cwd, sizeof cwd)) p = std::string(cwd) + "/" + p;
    }
    return normalizeServerPath(p);
}

// The mounted volume that holds a local path (the longest mount path that prefixes it).
ServerInfo volumeFor(const std::string& path) {
    auto volumes = ServerInfoService::sharedServerInfoService().localServerInfos();
    const ServerInfo* best = &volumes.front();
    for (auto& v : volumes) {
        const auto& root = v.rootFolderPath;
        bool inside =
            path == root || (path.starts_with(root) && (root == "/" || path[root.size()] == '/'));
        if (inside && root.size() > best->rootFolderPath.size()) best = &v;
    }
    return *best;
}

}  // namespace

Result<Location> resolveLocation(const std::string& text) {
    if (text.empty()) return std::unexpected(usage("An empty location was given."));
    if (text.find('\0') != std::string::npos)
        return std::unexpected(usage("A location cannot contain a NUL byte."));
    Location loc;
    bool relative = false;
    auto scheme = text.find("://");
    auto colon = text.find(':');
    if (scheme != std::string::npos && scheme == colon && text[0] != '/') {
        auto info = quickConnect(text);
        if (!info) return std::unexpected(info.error());
        loc.server = std::make_shared<ServerInfo>(*info);
        auto url = parseUrl(text);
        loc.path = normalizeServerPath(url ? url->path : "/");
    } else if (colon != std::string::npos && colon > 0 && text[0] != '/' && text[0] != '.' &&
               text[0] != '~' && findServer(text.substr(0, colon))) {
        loc.server = std::make_shared<ServerInfo>(*findServer(text.substr(0, colon)));
        std::string rest = text.substr(colon + 1);
        relative = rest.empty() || rest[0] != '/';
        loc.path = normalizeServerPath(rest);
    } else {
        loc.path = absoluteLocalPath(text);
        // "typo:/x" is far more often a mistyped server than a local name with a colon.
        auto slash = text.find('/');
        std::error_code ec;
        if (colon != std::string::npos && colon > 0 &&
            (slash == std::string::npos || colon < slash) && text[0] != '.' && text[0] != '~' &&
            !std::filesystem::exists(loc.path, ec))
            return std::unexpected(
                usage(fmt::format("No server named \"{}\" (for a local item of that name, write "
                                  "./{})",
                                  text.substr(0, colon), text)));
        loc.server = std::make_shared<ServerInfo>(volumeFor(loc.path));
    }
    auto client = WrapperProxy::clientForServerInfo(loc.server);
    if (!client) return std::unexpected(client.error());
    loc.client = *client;
    if (relative) {
        // NAME: and NAME:relative/path start at the server's start folder: its path setting, else
        // the folder the login lands in (a server that does not confine its users would
        // otherwise show its whole disk).
        std::string start = loc.client->rootFolder().pathOrEmpty();
        if (start.empty() || start[0] != '/') {
            std::string login = "/";
            if (auto* knows = dynamic_cast<LoginFolder*>(loc.client.get())) {
                auto found = knows->loginFolderSync();
                if (!found) return std::unexpected(found.error());
                login = *found;
            }
            start = login + "/" + start;
        }
        loc.path = normalizeServerPath(start + "/" + loc.path);
    }
    return loc;
}

Result<KvMetadata> statLocation(const Location& loc) {
    if (loc.path == "/") return loc.metadata(true);
    auto item = loc.client->metadataOfItemSync(loc.metadata(false));
    if (!item) return std::unexpected(item.error().about(loc.display()));
    return item;
}

}  // namespace quillon
