#include "app/cli/Location.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

#include "core/PathUtils.h"
#include "core/ServerInfoService.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"

namespace quillon::cli {

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
    if (isLocal()) return path;
    return server->displayName + ":" + path;
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

std::optional<ParsedUrl> parseUrl(const std::string& text) {
    CURLU* h = curl_url();
    if (!h) return std::nullopt;
    std::optional<ParsedUrl> result;
    if (curl_url_set(h, CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK) {
        ParsedUrl u;
        auto get = [&](CURLUPart part, std::string& out, unsigned flags) {
            char* v = nullptr;
            if (curl_url_get(h, part, &v, flags) == CURLUE_OK && v) out = v;
            curl_free(v);
        };
        get(CURLUPART_SCHEME, u.scheme, 0);
        get(CURLUPART_USER, u.user, CURLU_URLDECODE);
        get(CURLUPART_PASSWORD, u.password, CURLU_URLDECODE);
        get(CURLUPART_HOST, u.host, 0);
        get(CURLUPART_PORT, u.port, 0);
        get(CURLUPART_PATH, u.path, CURLU_URLDECODE);
        result = u;
    }
    curl_url_cleanup(h);
    return result;
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
                info.valueForKey(ServerProp::FTP_PROTOCOL)) {
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
        if (rest.empty() || rest[0] != '/') rest = "/" + rest;
        loc.path = normalizeServerPath(rest);
    } else {
        loc.path = absoluteLocalPath(text);
        loc.server = std::make_shared<ServerInfo>(volumeFor(loc.path));
    }
    auto client = WrapperProxy::clientForServerInfo(loc.server);
    if (!client) return std::unexpected(client.error());
    loc.client = *client;
    return loc;
}

Result<KvMetadata> statLocation(const Location& loc) {
    if (loc.path == "/") return loc.metadata(true);
    return loc.client->metadataOfItemSync(loc.metadata(false));
}

}  // namespace quillon::cli
