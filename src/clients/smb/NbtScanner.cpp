#include "clients/smb/NbtScanner.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>

#include "core/GCD.h"
#include "core/StringEncoding.h"

namespace quillon {

namespace {

constexpr unsigned long kGB18030 = 0x80000632;
constexpr std::size_t kMaxDatagram = 1036;

std::mutex& logLock() {
    static std::mutex m;
    return m;
}
std::function<void(const std::string&)>& logHandler() {
    static std::function<void(const std::string&)> h;
    return h;
}
void log(const std::string& line) {
    std::lock_guard guard(logLock());
    if (logHandler()) logHandler()(line);
}

std::mutex& cacheLock() {
    static std::mutex m;
    return m;
}
std::map<std::string, NbtInfo>& cache() {
    static std::map<std::string, NbtInfo> c;
    return c;
}
// Sweeps run one after another, as on one serial queue.
std::mutex& scanQueue() {
    static std::mutex m;
    return m;
}

std::string lower(std::string s) {
    for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool isIPv4(const std::string& s) {
    in_addr a{};
    return ::inet_pton(AF_INET, s.c_str(), &a) == 1;
}

}  // namespace

namespace Nbt {

std::vector<std::uint8_t> nodeStatusRequest(std::uint16_t id) {
    std::vector<std::uint8_t> p = {static_cast<std::uint8_t>(id >> 8),
                                   static_cast<std::uint8_t>(id & 0xff),
                                   0x00,
                                   0x00,  // a query, no flags
                                   0x00,
                                   0x01,
                                   0x00,
                                   0x00,
                                   0x00,
                                   0x00,
                                   0x00,
                                   0x00,
                                   0x20};
    // "*" padded with zero bytes to 16, each half-byte written as 'A' + value.
    std::uint8_t name[16] = {'*'};
    for (std::uint8_t b : name) {
        p.push_back(static_cast<std::uint8_t>('A' + (b >> 4)));
        p.push_back(static_cast<std::uint8_t>('A' + (b & 15)));
    }
    p.push_back(0x00);
    p.insert(p.end(), {0x00, 0x21, 0x00, 0x01});  // NBSTAT, IN
    return p;
}

std::optional<NbtNodeStatus> parseNodeStatus(std::string_view d, std::string* why) {
    auto fail = [&](const char* reason) -> std::optional<NbtNodeStatus> {
        if (why) *why = reason;
        return std::nullopt;
    };
    auto u8 = [&](std::size_t i) { return static_cast<std::uint8_t>(d[i]); };
    auto u16 = [&](std::size_t i) { return static_cast<unsigned>(u8(i) << 8 | u8(i + 1)); };
    if (d.size() < 12) return fail("short header");
    if (!(u8(2) & 0x80)) return fail("not a response");
    if (u16(6) < 1) return fail("no answer");
    std::size_t at = 12;
    if (at >= d.size()) return fail("short answer");
    if ((u8(at) & 0xC0) == 0xC0) {
        at += 2;
    } else {
        while (at < d.size() && u8(at) != 0) at += 1 + u8(at);
        at += 1;
    }
    if (at + 10 > d.size()) return fail("short answer");
    if (u16(at) != 0x21) return fail("not a node status");
    std::size_t rdlength = u16(at + 8);
    at += 10;
    if (at + rdlength > d.size() || rdlength < 1) return fail("short data");
    std::size_t count = u8(at++);
    if (at + count * 18 > d.size()) return fail("short name table");
    NbtNodeStatus r;
    for (std::size_t i = 0; i < count; ++i, at += 18) {
        std::string name(d.substr(at, 15));
        while (!name.empty() && (name.back() == ' ' || name.back() == '\0')) name.pop_back();
        std::uint8_t suffix = u8(at + 15);
        bool group = u8(at + 16) & 0x80;
        if (suffix == 0x00 && !group) {
            if (name.starts_with("IS~")) r.hasIIS = true;
            if (!r.computerName) r.computerName = name;
        } else if (suffix == 0x00 && group) {
            if (!r.domainName) r.domainName = name;
        } else if (suffix == 0x20) {
            r.hasSharing = true;
        } else if (suffix == 0x1C) {
            if (name.starts_with("INet~Services"))
                r.hasIIS = true;
            else
                r.isDC = true;
        } else if (suffix == 0x06 || suffix == 0x21) {
            r.hasRAS = true;
        } else if (suffix == 0x22 || suffix == 0x23 || suffix == 0x24 || suffix == 0x87 ||
                   suffix == 0x6A) {
            r.hasExchange = true;
        } else if (suffix == 0x2B) {
            r.hasNotes = true;
        } else if (suffix != 0x01 && suffix != 0x03 && suffix != 0x1B && suffix != 0x1D &&
                   suffix != 0x1E && suffix != 0x1F && suffix != 0xBE && suffix != 0xBF &&
                   suffix != 0x42 && suffix != 0x43 && suffix != 0x44 && suffix != 0x45) {
            r.hasUnknown = true;
        }
    }
    if (at + 6 <= d.size())
        r.macaddr = fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", u8(at), u8(at + 1),
                                u8(at + 2), u8(at + 3), u8(at + 4), u8(at + 5));
    return r;
}

std::string decodeName(std::string_view bytes) {
    if (auto gb = StringEncoding::toUtf8(bytes, kGB18030)) return *gb;
    std::string out;
    for (unsigned char c : bytes) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::optional<std::vector<std::string>> targetAddresses(std::string_view target) {
    std::string t(target);
    int prefix = 32;
    if (auto slash = t.find('/'); slash != std::string::npos) {
        std::string p = t.substr(slash + 1);
        if (p.empty() || p.size() > 2 || !std::all_of(p.begin(), p.end(), ::isdigit))
            return std::nullopt;
        prefix = std::stoi(p);
        t.resize(slash);
        if (prefix < 16 || prefix > 32) return std::nullopt;
    }
    in_addr a{};
    if (::inet_pton(AF_INET, t.c_str(), &a) != 1) return std::nullopt;
    std::uint32_t base = ntohl(a.s_addr);
    std::uint32_t mask = prefix == 0 ? 0 : ~0u << (32 - prefix);
    std::uint32_t first = base & mask, last = first | ~mask;
    // The network and broadcast addresses are no hosts.
    if (prefix <= 30) {
        ++first;
        --last;
    }
    std::vector<std::string> out;
    for (std::uint64_t ip = first; ip <= last; ++ip) {
        in_addr x{htonl(static_cast<std::uint32_t>(ip))};
        char buf[INET_ADDRSTRLEN];
        out.emplace_back(::inet_ntop(AF_INET, &x, buf, sizeof buf));
    }
    return out;
}

}  // namespace Nbt

void NbtScanner::setLogHandler(std::function<void(const std::string&)> handler) {
    std::lock_guard guard(logLock());
    logHandler() = std::move(handler);
}

NbtInfo NbtScanner::nbtInfoWithResponse(const NbtNodeStatus& r, const std::string& ip) {
    NbtInfo info;
    info.computerName = r.computerName ? Nbt::decodeName(*r.computerName) : std::string();
    info.domainName = r.domainName ? Nbt::decodeName(*r.domainName) : std::string();
    info.ip = ip;
    info.macaddr = r.macaddr;
    info.hasSharing = r.hasSharing;
    info.isDC = r.isDC;
    info.hasIIS = r.hasIIS;
    info.hasExchange = r.hasExchange;
    info.hasNotes = r.hasNotes;
    info.hasRAS = r.hasRAS;
    info.hasUnknown = r.hasUnknown;
    return info;
}

std::vector<NbtInfo> NbtScanner::scann_impl(const std::string& target) const {
    std::vector<NbtInfo> found;
    auto addresses = Nbt::targetAddresses(target);
    if (!addresses) {
        log(fmt::format("ERROR: invalid target specification: {}", target));
        return found;
    }
    int sock = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        log(fmt::format("ERROR: cannot create socket [{}]", std::strerror(errno)));
        return found;
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    if (::bind(sock, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
        log(fmt::format("ERROR: cannot bind to local socket [{}]", std::strerror(errno)));
        ::close(sock);
        return found;
    }
    std::size_t next = 0;
    std::uint16_t id = 0x6c00;
    for (;;) {
        fd_set readable, writable;
        FD_ZERO(&readable);
        FD_ZERO(&writable);
        FD_SET(sock, &readable);
        bool sending = next < addresses->size();
        if (sending) FD_SET(sock, &writable);
        timeval timeout{timeout_secs, 0};
        int n = ::select(sock + 1, &readable, sending ? &writable : nullptr, nullptr, &timeout);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (!sending) break;
            continue;
        }
        if (FD_ISSET(sock, &readable)) {
            char buf[kMaxDatagram];
            sockaddr_in from{};
            socklen_t len = sizeof from;
            ssize_t got =
                ::recvfrom(sock, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
            if (got > 0) {
                char ip[INET_ADDRSTRLEN];
                ::inet_ntop(AF_INET, &from.sin_addr, ip, sizeof ip);
                std::string why;
                auto parsed = Nbt::parseNodeStatus(
                    std::string_view(buf, static_cast<std::size_t>(got)), &why);
                if (!parsed) {
                    log(fmt::format("ERROR: no parse for {} -- {}", ip, why));
                } else {
                    NbtInfo info = nbtInfoWithResponse(*parsed, ip);
                    if (!info.hasSharing)
                        log(fmt::format("Found computer {}({}), but no sharing on it, ignore it",
                                        info.computerName, info.ip));
                    else
                        found.push_back(std::move(info));
                }
            }
        }
        if (sending && FD_ISSET(sock, &writable)) {
            sockaddr_in to{};
            to.sin_family = AF_INET;
            to.sin_port = htons(port);
            ::inet_pton(AF_INET, (*addresses)[next].c_str(), &to.sin_addr);
            auto request = Nbt::nodeStatusRequest(id++);
            ::sendto(sock, request.data(), request.size(), 0, reinterpret_cast<sockaddr*>(&to),
                     sizeof to);
            ++next;
            if (write_sleep_msecs > 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(write_sleep_msecs));
        }
    }
    ::close(sock);
    return found;
}

void NbtScanner::scanNetwork(const std::string& target,
                             std::function<void(const std::vector<NbtInfo>&)> handler) {
    if (!handler) return;
    foundNewServersHandler = handler;
    NbtScanner copy = *this;
    GCD::doInBackground([copy, target, handler] {
        std::lock_guard serial(scanQueue());
        handler(copy.scann_impl(target));
    });
}

std::optional<std::string> NbtScanner::localWirelessTarget() {
    // The wireless interfaces are those the kernel gives a "wireless" folder.
    std::optional<std::string> address;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) == 0) {
        for (ifaddrs* i = list; i && !address; i = i->ifa_next) {
            if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET) continue;
            std::error_code ec;
            if (!std::filesystem::exists(std::string("/sys/class/net/") + i->ifa_name + "/wireless",
                                         ec))
                continue;
            char ip[INET_ADDRSTRLEN];
            ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(i->ifa_addr)->sin_addr, ip,
                        sizeof ip);
            address = ip;
        }
        ::freeifaddrs(list);
    }
    if (!address) return std::nullopt;
    auto lastDot = address->rfind('.');
    return address->substr(0, lastDot) + ".0/24";
}

void NbtScanner::backgroudScan() {
    auto target = localWirelessTarget();
    if (!target) {
        log("{NBT} Cannot get correct local IP");
        return;
    }
    NbtScanner scanner;
    scanner.scanNetwork(*target,
                        [](const std::vector<NbtInfo>& found) { mergeFoundedInfo(found); });
}

void NbtScanner::mergeFoundedInfo(const std::vector<NbtInfo>& infos) {
    std::lock_guard guard(cacheLock());
    for (auto& info : infos) {
        auto it = cache().find(info.computerName);
        if (it != cache().end() && it->second.ip != info.ip)
            log(fmt::format("{{NBT}} Update table: {} , old: {}, new: {}", info.computerName,
                            it->second.ip, info.ip));
        cache()[info.computerName] = info;
    }
}

std::optional<NbtInfo> NbtScanner::lookUpNbtInfoFromCache(const std::string& computerName) {
    std::lock_guard guard(cacheLock());
    auto it = cache().find(computerName);
    if (it == cache().end()) return std::nullopt;
    return it->second;
}

std::vector<NbtInfo> NbtScanner::cachedInfos() {
    std::lock_guard guard(cacheLock());
    std::vector<NbtInfo> out;
    for (auto& [key, info] : cache()) out.push_back(info);
    return out;
}

std::optional<std::string> NbtScanner::ipAddressWithNetbiosName(const std::string& name) {
    std::lock_guard guard(cacheLock());
    for (auto& [key, info] : cache())
        if (lower(key) == lower(name)) return info.ip;
    return std::nullopt;
}

void NbtScanner::clearNbtNameCache() {
    log("{NBT}: ========= Clear NBT cache ...");
    std::lock_guard guard(cacheLock());
    cache().clear();
}

std::vector<std::string> NbtScanner::ipListWithHostName(const std::string& host) {
    if (host.empty()) return {};
    if (isIPv4(host)) return {host};
    in6_addr a6{};
    if (::inet_pton(AF_INET6, host.c_str(), &a6) == 1) return {host};
    std::string name = lower(host);
    std::string netbios = name, mdns = name;
    if (name.ends_with(".local"))
        netbios = name.substr(0, name.size() - 6);
    else
        mdns = name + ".local";
    if (auto ip = ipAddressWithNetbiosName(netbios)) return {*ip};
    std::vector<std::string> out;
    for (const std::string& candidate : {name, mdns}) {
        addrinfo hints{};
        hints.ai_family = AF_INET;
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* res = nullptr;
        if (::getaddrinfo(candidate.c_str(), nullptr, &hints, &res) != 0) continue;
        for (addrinfo* r = res; r; r = r->ai_next) {
            char ip[INET_ADDRSTRLEN];
            ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(r->ai_addr)->sin_addr, ip,
                        sizeof ip);
            if (std::find(out.begin(), out.end(), ip) == out.end()) out.emplace_back(ip);
        }
        ::freeaddrinfo(res);
        if (!out.empty()) break;
    }
    if (out.empty()) out.push_back(host);
    return out;
}

}  // namespace quillon
