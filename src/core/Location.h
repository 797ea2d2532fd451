#pragma once
// Locations as a user types them (the command line, a window's "Go to" field): a local path,
// NAME:/path for a configured server (display name or server id), or a URL such as
// ftp://user@host:2121/path, which creates a quick-connect record that the next launch deletes.

#include <memory>
#include <optional>
#include <string>

#include "core/KvMetadata.h"
#include "core/ServerInfo.h"
#include "core/Wrapper.h"

namespace quillon {

struct Location {
    ServerInfoPtr server;
    WrapperPtr client;
    std::string path;  // absolute path on the server
    bool isLocal() const { return server && server->protocolType == ProtocolType::Local; }
    // A record for the path; isDir as given (the kind is unknown until listed).
    KvMetadata metadata(bool isDir) const;
    // "NAME:/path" or the local path, for messages.
    std::string display() const;
};

// An item as a person names it: "NAME:/path" on a server, the path alone on the local disk (the
// server looked up by the record's serverID).
std::string displayItem(const KvMetadata& item);
std::string displayItem(const ServerInfo& server, const std::string& path);

// Finds the server for the text: a configured server's display name or id, else none.
std::optional<ServerInfo> findServer(const std::string& nameOrId);

// Whether a new server may be called `name`: not blank, no ":" (NAME:/path names a place on
// it), and no other server called so. The refusal says why.
[[nodiscard]] Status checkNewServerName(const std::string& name);

// Parses a location and makes its client. NAME: and NAME:relative/path start at the server's
// start folder: its path setting, else the folder the login lands in. "NAME:/path" whose NAME is
// no configured server and that is no existing local path fails with "No server named ...".
Result<Location> resolveLocation(const std::string& text);

// The record of the item at the location (the top folder is the client's root folder). Fails
// with kind NotFound, 10008 "File not found!", when it does not exist; a failure names the
// location.
Result<KvMetadata> statLocation(const Location& loc);

}  // namespace quillon
