// The NetBIOS name scan: the request and response bytes, and a sweep of 127.0.0.1 answered by a
// scripted fake responder (no real host can be made to send a malformed or GB 18030 reply).

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "clients/smb/NbtScanner.h"
#include "support/TestEnv.h"

namespace quillon {
namespace {

struct NameEntry {
    std::string name;
    std::uint8_t suffix;
    bool group;
};

// A node status response naming `entries`, with adapter address 00:11:22:33:44:55.
std::string response(const std::vector<NameEntry>& entries) {
    std::string d = {'\x6c', '\x00', '\x84', '\x00', 0, 0, 0, 1, 0, 0, 0, 0, '\x20'};
    d += "CK" + std::string(30, 'A');
    d += std::string("\0\0\x21\0\x01\0\0\0\0", 9);
    std::string data(1, static_cast<char>(entries.size()));
    for (auto& e : entries) {
        std::string name = e.name;
        name.resize(15, ' ');
        data += name;
        data += static_cast<char>(e.suffix);
        data += e.group ? std::string("\x84\x00", 2) : std::string("\x04\x00", 2);
    }
    data += std::string("\x00\x11\x22\x33\x44\x55", 6) + std::string(40, '\0');
    d += static_cast<char>(data.size() >> 8);
    d += static_cast<char>(data.size() & 0xff);
    return d + data;
}

TEST(Nbt, RequestAndResponseBytes) {
    auto req = Nbt::nodeStatusRequest(0x1234);
    ASSERT_EQ(req.size(), 50u);
    std::string bytes(req.begin(), req.end());
    EXPECT_EQ(bytes.substr(0, 12), std::string("\x12\x34\0\0\0\x01\0\0\0\0\0\0", 12));
    EXPECT_EQ(bytes.substr(12, 34),
              "\x20"
              "CK" +
                  std::string(30, 'A') + std::string(1, '\0'));
    EXPECT_EQ(bytes.substr(46), std::string("\0\x21\0\x01", 4));

    struct Case {
        const char* what;
        std::string datagram;
        bool parses;
        std::string computer, domain;
        bool sharing, dc;
    };
    std::vector<Case> cases = {
        {"file server",
         response({{"HOST", 0x00, false}, {"WG", 0x00, true}, {"HOST", 0x20, false}}), true, "HOST",
         "WG", true, false},
        {"workstation only", response({{"PC", 0x00, false}, {"WG", 0x00, true}}), true, "PC", "WG",
         false, false},
        {"domain controller", response({{"DC", 0x20, false}, {"CORP", 0x1C, true}}), true, "", "",
         true, true},
        {"GB 18030 name", response({{"\xB2\xE2\xCA\xD4", 0x00, false}, {"X", 0x20, false}}), true,
         "测试", "", true, false},
        {"invalid GB 18030 as Latin-1", response({{"A\xFF", 0x00, false}, {"X", 0x20, false}}),
         true, "A\xC3\xBF", "", true, false},
        {"truncated", response({{"HOST", 0x20, false}}).substr(0, 60), false, "", "", false, false},
        {"a query", std::string(req.begin(), req.end()), false, "", "", false, false},
    };
    for (auto& c : cases) {
        std::string why;
        auto parsed = Nbt::parseNodeStatus(c.datagram, &why);
        ASSERT_EQ(parsed.has_value(), c.parses) << c.what << ": " << why;
        if (!parsed) continue;
        auto info = NbtScanner::nbtInfoWithResponse(*parsed, "10.0.0.9");
        EXPECT_EQ(info.computerName, c.computer) << c.what;
        EXPECT_EQ(info.domainName, c.domain) << c.what;
        EXPECT_EQ(info.hasSharing, c.sharing) << c.what;
        EXPECT_EQ(info.isDC, c.dc) << c.what;
        EXPECT_EQ(info.macaddr, "00:11:22:33:44:55") << c.what;
        EXPECT_EQ(info.ip, "10.0.0.9");
    }

    EXPECT_EQ(Nbt::targetAddresses("192.168.1.0/24")->size(), 254u);
    EXPECT_EQ(Nbt::targetAddresses("192.168.1.0/24")->front(), "192.168.1.1");
    EXPECT_EQ(*Nbt::targetAddresses("127.0.0.1"), std::vector<std::string>{"127.0.0.1"});
    for (auto bad : {"", "1.2.3", "1.2.3.4/", "1.2.3.4/33", "host/24", "1.2.3.4/8"})
        EXPECT_FALSE(Nbt::targetAddresses(bad)) << bad;
}

// A sweep of 127.0.0.1, answered by a fake responder with three datagrams to the one request:
// a file server, a host without sharing and a malformed reply. Then the name cache.
TEST(Nbt, SweepAndNameCache) {
    std::vector<std::string> logs;
    std::mutex logMutex;
    NbtScanner::setLogHandler([&](const std::string& line) {
        std::lock_guard g(logMutex);
        logs.push_back(line);
    });
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    std::thread responder([fd] {
        char buf[100];
        sockaddr_in from{};
        socklen_t flen = sizeof from;
        ssize_t n = ::recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &flen);
        if (n != 50) return;
        for (const std::string& reply :
             {response(
                  {{"SERVER", 0x00, false}, {"WORKGROUP", 0x00, true}, {"SERVER", 0x20, false}}),
              response({{"LAPTOP", 0x00, false}}), std::string("\x6c\x00\x84", 3)})
            ::sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), flen);
    });
    NbtScanner scanner;
    scanner.port = ntohs(a.sin_port);
    scanner.timeout_secs = 1;
    auto found = scanner.scann_impl("127.0.0.1");
    responder.join();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].computerName, "SERVER");
    EXPECT_EQ(found[0].domainName, "WORKGROUP");
    EXPECT_EQ(found[0].ip, "127.0.0.1");
    {
        std::lock_guard g(logMutex);
        EXPECT_EQ(logs, (std::vector<std::string>{
                            "Found computer LAPTOP(127.0.0.1), but no sharing on it, ignore it",
                            "ERROR: no parse for 127.0.0.1 -- short header"}));
        logs.clear();
    }
    EXPECT_TRUE(scanner.scann_impl("127.0.0.1/40").empty());

    // The command line's sweep of the same responder.
    std::thread again([fd] {
        char buf[100];
        sockaddr_in from{};
        socklen_t flen = sizeof from;
        if (::recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &flen) != 50)
            return;
        std::string reply =
            response({{"SERVER", 0x00, false}, {"WORKGROUP", 0x00, true}, {"SERVER", 0x20, false}});
        ::sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from), flen);
    });
    auto cli = test::runQuillon(
        {"smb", "scan", "127.0.0.1", "--json", "--port", std::to_string(ntohs(a.sin_port))});
    again.join();
    EXPECT_EQ(cli.exitCode, 0) << cli.err;
    EXPECT_EQ(cli.out,
              "{\"name\":\"SERVER\",\"workgroup\":\"WORKGROUP\",\"ip\":\"127.0.0.1\","
              "\"mac\":\"00:11:22:33:44:55\"}\n");
    EXPECT_EQ(test::runQuillon({"smb", "scan", "10.0.0.0/8"}).exitCode, 2);

    ::close(fd);
    NbtScanner::clearNbtNameCache();
    NbtScanner::mergeFoundedInfo(found);
    EXPECT_EQ(NbtScanner::ipListWithHostName("server.local"),
              std::vector<std::string>{"127.0.0.1"});
    EXPECT_EQ(NbtScanner::ipListWithHostName("SERVER"), std::vector<std::string>{"127.0.0.1"});
    found[0].ip = "127.0.0.7";
    NbtScanner::mergeFoundedInfo(found);
    EXPECT_EQ(NbtScanner::lookUpNbtInfoFromCache("SERVER")->ip, "127.0.0.7");
    EXPECT_EQ(NbtScanner::ipListWithHostName("10.1.2.3"), std::vector<std::string>{"10.1.2.3"});
    std::lock_guard g(logMutex);
    EXPECT_EQ(logs, (std::vector<std::string>{
                        "ERROR: invalid target speci"
                        "fication: 127.0.0.1/40",
                        "{NBT}: ========= Clear NBT cache ...",
                        "{NBT} Update table: SERVER , old: 127.0.0.1, new: 127.0.0.7"}));
    NbtScanner::setLogHandler({});
}

}  // namespace
}  // namespace quillon
