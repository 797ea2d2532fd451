#pragma once
// WrapperProxy: picks the storage client for a server record. Clients register a factory for
// their class name (the kind table below maps kinds to class names); a kind whose client is not
// written yet, and the reserved kinds 8 and 11, yield none.

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "core/Wrapper.h"

namespace quillon::WrapperProxy {

using Factory = std::function<WrapperPtr(ServerInfoPtr)>;

// The client class of a kind ("LocalWrapper", "FtpWrapper", ...), or absent for kinds with no
// client (8, 11 and any unknown value).
std::optional<std::string_view> classNameForProtocolType(std::int32_t protocolType);
// A readable name of the kind ("FTP", "Google Drive", ...).
std::string_view kindName(std::int32_t protocolType);

// Makes `className` available; later calls replace the factory.
void registerClass(std::string_view className, Factory factory);

// A new client for the record, or none.
WrapperPtr wrapperWithServerInfo(const ServerInfoPtr& serverInfo);
// Looks the record up in the server store, then wrapperWithServerInfo.
WrapperPtr wrapperWithServerID(const std::string& serverID);
// Like wrapperWithServerInfo, with a clear error instead of none.
Result<WrapperPtr> clientForServerInfo(const ServerInfoPtr& serverInfo);

// Whether a remote file must be fetched again (true) or its cached copy may be used (false).
// A stale cached copy is deleted.
bool needDownloadFile(const KvMetadata& file, const ServerInfo& server);

}  // namespace quillon::WrapperProxy
