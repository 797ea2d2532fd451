#pragma once
// ServerForm: the settings a person gives for a server of a kind that is reached by address
// (FTP, SFTP, WebDAV, SMB), and how they become the properties of its record. The command line's
// "server add" and the window's server editor both fill one and apply it, so a record means the
// same whichever face made it.

#include <cstdint>
#include <optional>
#include <string>

#include "core/Error.h"
#include "core/ServerInfo.h"

namespace quillon {

struct ServerForm {
    enum class SftpLogin { Password, KeyFile, Agent };

    std::string name;
    std::int32_t protocolType = ProtocolType::FTP;
    std::string addr;
    std::string port;  // empty: the kind's usual port
    std::string path;  // start folder on the server
    std::string user;  // SMB: empty logs in as guest
    // Absent leaves the stored password (and passphrase) as it is; empty removes it.
    std::optional<std::string> password;
    std::string ftpProtocol;  // "FTP_PROTOCOL_..."; empty: plain
    std::string encoding;     // an encoding name or number; empty: UTF-8
    bool activeMode = false;  // FTP
    SftpLogin sftpLogin = SftpLogin::Password;
    std::string keyFile;  // SFTP with a key file; the password is then its passphrase
    bool https = false;   // WebDAV

    // The form of an existing record (the password stays absent: secrets are not read back).
    static ServerForm of(const ServerInfo& info);
    // The usual port of the kind, "" for kinds without one.
    static std::string defaultPort(std::int32_t protocolType, const std::string& ftpProtocol,
                                   bool https);
    // Whether the kind is one this form describes.
    static bool handles(std::int32_t protocolType);

    // Writes the settings into `info` (name, kind and properties of the kind; properties of
    // other kinds removed). Fails, leaving `info` as it was, for a missing name or address, a
    // bad port or an unknown encoding.
    [[nodiscard]] Status applyTo(ServerInfo& info) const;
};

// Saves a new record at the end of the server list. Fails when another server has the name.
[[nodiscard]] Status addServer(ServerInfo& info);
// Stores a changed record. Fails when another server has its name.
[[nodiscard]] Status updateServer(ServerInfo& info);

}  // namespace quillon
