#pragma once
// NbtScanner: finds SMB hosts by a NetBIOS node-status sweep (UDP 137) and keeps the names it saw,
// so that a host typed by name reaches the address the sweep found. NbtInfo: one answering host.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillon {

struct NbtInfo {
    std::string computerName;
    std::string domainName;
    std::string ip;
    std::string macaddr;
    bool hasSharing = false, isDC = false, hasIIS = false, hasExchange = false, hasNotes = false,
         hasRAS = false, hasUnknown = false;
};

// A node-status response as the wire gives it: names still in their bytes.
struct NbtNodeStatus {
    std::optional<std::string> computerName;  // raw bytes, trailing blanks removed
    std::optional<std::string> domainName;
    std::string macaddr;  // "aa:bb:cc:dd:ee:ff"
    bool hasSharing = false, isDC = false, hasIIS = false, hasExchange = false, hasNotes = false,
         hasRAS = false, hasUnknown = false;
};

namespace Nbt {
// The 50-byte node status request for name "*" (type NBSTAT, class IN) with this transaction id.
std::vector<std::uint8_t> nodeStatusRequest(std::uint16_t transactionId);
// The parsed response, or why it does not parse.
std::optional<NbtNodeStatus> parseNodeStatus(std::string_view datagram, std::string* why = nullptr);
// GB 18030 text when the bytes are valid GB 18030, else Latin-1.
std::string decodeName(std::string_view bytes);
// The addresses of "a.b.c.d" or "a.b.c.d/prefix" (prefix 16..32; host addresses only for /24
// and wider), or none for a bad target.
std::optional<std::vector<std::string>> targetAddresses(std::string_view target);
}  // namespace Nbt

class NbtScanner {
  public:
    int timeout_secs = 2;
    int write_sleep_msecs = 3;
    // Where the requests go; 137 but for tests.
    std::uint16_t port = 137;
    std::function<void(const std::vector<NbtInfo>&)> foundNewServersHandler;

    // Runs the sweep on the one "Scan Queue" (sweeps never overlap) and hands the result to
    // `handler` there. A null handler does nothing.
    void scanNetwork(const std::string& target,
                     std::function<void(const std::vector<NbtInfo>&)> handler);
    // The sweep itself, on the calling thread.
    std::vector<NbtInfo> scann_impl(const std::string& target) const;
    static NbtInfo nbtInfoWithResponse(const NbtNodeStatus& response, const std::string& ip);

    // The local wireless interface's /24, merged into the name cache; no wireless IPv4 address,
    // no sweep.
    static void backgroudScan();
    // "a.b.c.0/24" of the first wireless interface's IPv4 address, or none.
    static std::optional<std::string> localWirelessTarget();
    static void mergeFoundedInfo(const std::vector<NbtInfo>& infos);
    static std::optional<NbtInfo> lookUpNbtInfoFromCache(const std::string& computerName);
    // Every host the sweeps found so far, by name.
    static std::vector<NbtInfo> cachedInfos();
    static std::optional<std::string> ipAddressWithNetbiosName(const std::string& name);
    static void clearNbtNameCache();
    // The addresses to try for an SMB host, in order.
    static std::vector<std::string> ipListWithHostName(const std::string& host);

    // Where the log lines go (nowhere by default).
    static void setLogHandler(std::function<void(const std::string&)> handler);
};

}  // namespace quillon
