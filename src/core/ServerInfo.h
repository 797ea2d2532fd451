#pragma once
// ServerInfo: one configured place the user can browse (a local volume, a server, a cloud
// account). Every setting but the identity lives in the string dictionary `props`.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace quillon {

class KvMetadata;

// Server kinds carried by ServerInfo::protocolType and KvMetadata::protocolType.
namespace ProtocolType {
inline constexpr std::int32_t Local = 0;
inline constexpr std::int32_t Dropbox = 1;
inline constexpr std::int32_t GoogleDrive = 2;
inline constexpr std::int32_t SMB = 3;
inline constexpr std::int32_t OneDrive = 4;
inline constexpr std::int32_t Box = 5;
inline constexpr std::int32_t WebDAV = 6;
inline constexpr std::int32_t FTP = 7;
inline constexpr std::int32_t Reserved8 = 8;
inline constexpr std::int32_t WebDAV2 = 9;
inline constexpr std::int32_t SFTP = 10;
inline constexpr std::int32_t Reserved11 = 11;
inline constexpr std::int32_t BaiduPan = 12;
}  // namespace ProtocolType

// Property keys used across the program.
namespace ServerProp {
inline constexpr std::string_view ADDR = "ADDR";
inline constexpr std::string_view PORT = "PORT";
inline constexpr std::string_view PATH = "PATH";
inline constexpr std::string_view USERNAME = "USERNAME";
inline constexpr std::string_view PASSWORD = "PASSWORD";
inline constexpr std::string_view TEMP_USERNAME = "TEMP_USERNAME";
inline constexpr std::string_view TEMP_PASSWORD = "TEMP_PASSWORD";
inline constexpr std::string_view REMEMBER_PASSWORD = "REMEMBER PASSWORD";
inline constexpr std::string_view QUICK_CONNECT = "QUICK_CONNECT";
inline constexpr std::string_view CONNECTION_SORT_ID = "CONNECTION_SORT_ID";
inline constexpr std::string_view SERVER_TYPE = "SERVER_TYPE";
inline constexpr std::string_view SERVER_ENCODING = "SERVER_ENCODING";
inline constexpr std::string_view NEED_SIGNIN = "NEED_SIGNIN";
inline constexpr std::string_view GoogleAuthorizationData = "GoogleAuthorizationData";
inline constexpr std::string_view DROPBOX_ACCESS_TOKEN = "DROPBOX_ACCESS_TOKEN";
inline constexpr std::string_view ONEDRIVE_TK_EXP = "ONEDRIVE_TK_EXP";
inline constexpr std::string_view FTP_ACTIVE_MODE = "FTP_ACTIVE_MODE";
inline constexpr std::string_view FTP_PROTOCOL = "FTP_PROTOCOL";
inline constexpr std::string_view SI_LAST_UPDATE = "SI_LAST_UPDATE";
}  // namespace ServerProp

// True for "1", "TRUE" and "YES".
bool isTrueProp(std::string_view value);

class ServerInfo {
  public:
    std::string serverID;  // a fresh UUID string
    std::int32_t protocolType = 0;
    std::string displayName;
    std::int64_t sortID = 0;
    std::map<std::string, std::string> props;
    std::string rootFolderPath;  // local volumes: the mount path
    std::uint64_t volumeType = 0;
    // FTP capabilities learnt on first contact; not stored.
    std::optional<bool> supportMLSD, supportMFMT, supportUTF8, supportEPSV;
    bool needRunPWD = false;

    // A record with a fresh UUID.
    ServerInfo();

    // The property's value, or absent.
    std::optional<std::string> valueForKey(std::string_view key) const;
    // Stores the value; an absent value stores the empty string.
    void setValue(const std::optional<std::string>& value, std::string_view key);
    void removeObjectForKey(std::string_view key);
    // True when the stored text is "1", "TRUE" or "YES".
    bool boolValueForKey(std::string_view key) const;

    // The detected operating system of the server, kept under "SERVER_TYPE".
    long serverType() const;
    void setServerType(long type);

    // "SI:<serverID>"
    std::string keyID() const;
    // "SI: sortid=%2ld, dname=%@, proT=%d, id=%@"
    std::string description() const;
    bool supportMediaStream() const { return protocolType != 0; }

    // The copy: serverID, protocolType, displayName and props; nothing else.
    ServerInfo copy() const;
};

using ServerInfoPtr = std::shared_ptr<ServerInfo>;

// A fresh random UUID string in upper case, as the platform prints them.
std::string makeUUID();

}  // namespace quillon
