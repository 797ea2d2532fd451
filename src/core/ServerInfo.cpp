#include "core/ServerInfo.h"

#include <fmt/format.h>
#include <openssl/rand.h>

#include <cstdlib>

namespace quillon {

bool isTrueProp(std::string_view v) {
    return v == "1" || v == "TRUE" || v == "YES";
}

std::string makeUUID() {
    unsigned char b[16];
    if (RAND_bytes(b, sizeof b) != 1) {
        for (auto& c : b) c = static_cast<unsigned char>(std::rand());
    }
    b[6] = (b[6] & 0x0f) | 0x40;
    b[8] = (b[8] & 0x3f) | 0x80;
    return fmt::format(
        "{:02X}{:02X}{:02X}{:02X}-{:02X}{:02X}-{:02X}{:02X}-{:02X}{:02X}-{:02X}{:02X}{:02X}{:02X}{:"
        "02X}{:02X}",
        b[0], b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
        b[14], b[15]);
}

ServerInfo::ServerInfo() : serverID(makeUUID()) {}

std::optional<std::string> ServerInfo::valueForKey(std::string_view key) const {
    auto it = props.find(std::string(key));
    if (it == props.end()) return std::nullopt;
    return it->second;
}

void ServerInfo::setValue(const std::optional<std::string>& value, std::string_view key) {
    props[std::string(key)] = value.value_or("");
}

void ServerInfo::removeObjectForKey(std::string_view key) {
    props.erase(std::string(key));
}

bool ServerInfo::boolValueForKey(std::string_view key) const {
    auto v = valueForKey(key);
    return v && isTrueProp(*v);
}

long ServerInfo::serverType() const {
    auto v = valueForKey(ServerProp::SERVER_TYPE);
    return v ? std::strtol(v->c_str(), nullptr, 10) : 0;
}

void ServerInfo::setServerType(long type) {
    setValue(fmt::format("{}", type), ServerProp::SERVER_TYPE);
}

std::string ServerInfo::keyID() const {
    return "SI:" + serverID;
}

std::string ServerInfo::description() const {
    auto sort = valueForKey(ServerProp::CONNECTION_SORT_ID);
    long sortValue = sort ? std::strtol(sort->c_str(), nullptr, 10) : 0;
    return fmt::format("SI: sortid={:2}, dname={}, proT={}, id={}", sortValue, displayName,
                       protocolType, serverID);
}

ServerInfo ServerInfo::copy() const {
    ServerInfo c;
    c.serverID = serverID;
    c.protocolType = protocolType;
    c.displayName = displayName;
    c.props = props;
    return c;
}

}  // namespace quillon
