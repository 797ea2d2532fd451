#include "clients/ServerForm.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "clients/sftp/SFTPWrapper.h"
#include "clients/webdav/WebdavWrapper.h"
#include "core/Location.h"
#include "core/ServerInfoService.h"
#include "core/StringEncoding.h"

namespace quillon {

namespace {

Status refuse(const std::string& message) {
    return KvError::fail(ErrorDomain::Generic, -1, message);
}

std::string absolutePath(const std::string& path) {
    std::error_code ec;
    auto full = std::filesystem::absolute(path, ec);
    return ec ? path : full.lexically_normal().string();
}

// Another record than `self` with that display name.
bool nameTaken(const std::string& name, const std::string& self) {
    auto& service = ServerInfoService::sharedServerInfoService();
    auto all = service.remoteServerInfos();
    return std::any_of(all.begin(), all.end(), [&](const ServerInfo& other) {
        return other.displayName == name && other.serverID != self;
    });
}

}  // namespace

bool ServerForm::handles(std::int32_t protocolType) {
    return protocolType == ProtocolType::FTP || protocolType == ProtocolType::SFTP ||
           protocolType == ProtocolType::WebDAV || protocolType == ProtocolType::SMB;
}

std::string ServerForm::defaultPort(std::int32_t protocolType, const std::string& ftpProtocol,
                                    bool https) {
    switch (protocolType) {
        case ProtocolType::FTP:
            return ftpProtocol == "FTP_PROTOCOL_IMPLICIT" ? "990" : "21";
        case ProtocolType::SFTP:
            return "22";
        case ProtocolType::SMB:
            return "445";
        case ProtocolType::WebDAV:
            return https ? "443" : "80";
        default:
            return "";
    }
}

ServerForm ServerForm::of(const ServerInfo& info) {
    ServerForm f;
    f.name = info.displayName;
    f.protocolType = info.protocolType;
    f.addr = info.valueForKey(ServerProp::ADDR).value_or("");
    f.port = info.valueForKey(ServerProp::PORT).value_or("");
    f.path = info.valueForKey(ServerProp::PATH).value_or("");
    f.user = info.valueForKey(ServerProp::USERNAME).value_or("");
    f.ftpProtocol = info.valueForKey(ServerProp::FTP_PROTOCOL).value_or("");
    if (auto enc = info.valueForKey(ServerProp::SERVER_ENCODING); enc && !enc->empty())
        f.encoding = *enc;
    f.activeMode = info.boolValueForKey(ServerProp::FTP_ACTIVE_MODE);
    auto login = info.valueForKey(SftpProp::LOGIN_TYPE).value_or("");
    f.sftpLogin = login == "SFTP_LOGIN_TYPE_KEYFILE" ? SftpLogin::KeyFile
                  : login == "SFTP_LOGIN_TYPE_AGENT" ? SftpLogin::Agent
                                                     : SftpLogin::Password;
    f.keyFile = info.valueForKey(SftpProp::KEYFILE).value_or("");
    f.https = info.boolValueForKey(WebdavProp::HTTPS);
    return f;
}

Status ServerForm::applyTo(ServerInfo& info) const {
    if (!handles(protocolType)) return refuse("This kind of server has no such settings.");
    if (name.empty()) return refuse("A server needs a name.");
    if (addr.empty()) return refuse("A server needs an address.");
    if (!port.empty()) {
        char* end = nullptr;
        long n = std::strtol(port.c_str(), &end, 10);
        if (*end || n < 1 || n > 65535) return refuse("\"" + port + "\" is not a port number.");
    }
    std::optional<unsigned long> encodingNumber;
    if (!encoding.empty()) {
        encodingNumber = StringEncoding::encodingNumberForName(encoding);
        if (!encodingNumber) return refuse("Unknown encoding \"" + encoding + "\".");
    }
    bool sftp = protocolType == ProtocolType::SFTP;
    if (sftp && sftpLogin == SftpLogin::KeyFile && keyFile.empty())
        return refuse("Choose the private key file to log in with.");

    ServerInfo out = info;
    out.displayName = name;
    out.protocolType = protocolType;
    // Settings of other kinds would only confuse the client of this one.
    for (auto key : {ServerProp::FTP_PROTOCOL, ServerProp::FTP_ACTIVE_MODE, SftpProp::LOGIN_TYPE,
                     SftpProp::KEYFILE, WebdavProp::HTTPS, ServerProp::SERVER_ENCODING})
        out.removeObjectForKey(key);
    out.setValue(addr, ServerProp::ADDR);
    std::string ftp = protocolType == ProtocolType::FTP ? ftpProtocol : "";
    out.setValue(port.empty() ? defaultPort(protocolType, ftp, https) : port, ServerProp::PORT);
    if (path.empty())
        out.removeObjectForKey(ServerProp::PATH);
    else
        out.setValue(path, ServerProp::PATH);
    if (user.empty())
        out.removeObjectForKey(ServerProp::USERNAME);
    else
        out.setValue(user, ServerProp::USERNAME);
    if (!ftp.empty()) out.setValue(ftp, ServerProp::FTP_PROTOCOL);
    if (protocolType == ProtocolType::FTP && activeMode)
        out.setValue("YES", ServerProp::FTP_ACTIVE_MODE);
    if (protocolType == ProtocolType::WebDAV && https) out.setValue("YES", WebdavProp::HTTPS);
    if (encodingNumber) out.setValue(std::to_string(*encodingNumber), ServerProp::SERVER_ENCODING);

    bool keyLogin = sftp && sftpLogin == SftpLogin::KeyFile;
    if (password) {
        out.removeObjectForKey(ServerProp::PASSWORD);
        out.removeObjectForKey(SftpProp::PASSPHRASE);
        if (!password->empty()) {
            out.setValue(*password, keyLogin ? SftpProp::PASSPHRASE : ServerProp::PASSWORD);
            out.setValue("YES", ServerProp::REMEMBER_PASSWORD);
        }
    } else if (keyLogin) {
        // A password kept from before the key file is that key's passphrase now.
        if (auto old = out.valueForKey(ServerProp::PASSWORD)) {
            out.setValue(*old, SftpProp::PASSPHRASE);
            out.removeObjectForKey(ServerProp::PASSWORD);
        }
    }
    if (sftp) {
        switch (sftpLogin) {
            case SftpLogin::KeyFile:
                out.setValue("SFTP_LOGIN_TYPE_KEYFILE", SftpProp::LOGIN_TYPE);
                out.setValue(absolutePath(keyFile), SftpProp::KEYFILE);
                break;
            case SftpLogin::Agent:
                out.setValue("SFTP_LOGIN_TYPE_AGENT", SftpProp::LOGIN_TYPE);
                break;
            case SftpLogin::Password:
                out.setValue("SFTP_LOGIN_TYPE_NORMAL", SftpProp::LOGIN_TYPE);
                break;
        }
    }
    if (!sftp || sftpLogin != SftpLogin::KeyFile) out.removeObjectForKey(SftpProp::PASSPHRASE);
    info = std::move(out);
    return {};
}

Status addServer(ServerInfo& info) {
    if (nameTaken(info.displayName, info.serverID))
        return refuse("A server named \"" + info.displayName + "\" exists already.");
    auto& service = ServerInfoService::sharedServerInfoService();
    auto remote = service.remoteServerInfos();
    info.sortID = static_cast<std::int64_t>(remote.size());
    info.setValue(std::to_string(remote.size()), ServerProp::CONNECTION_SORT_ID);
    return service.saveServerInfo(info);
}

Status updateServer(ServerInfo& info) {
    if (nameTaken(info.displayName, info.serverID))
        return refuse("A server named \"" + info.displayName + "\" exists already.");
    return ServerInfoService::sharedServerInfoService().updateServerInfo(info);
}

}  // namespace quillon
