#include <fmt/format.h>

#include "app/cli/Cli.h"
#include "app/cli/Json.h"
#include "clients/smb/NbtScanner.h"

namespace quillon::cli {

void registerSmbCommands(Cli& cli) {
    auto* smb = cli.app.add_subcommand("smb", "SMB hosts on the local network");
    smb->require_subcommand(1);
    auto* scan = smb->add_subcommand(
        "scan", "Find hosts sharing files by a NetBIOS sweep of the wireless network's /24");
    struct Options {
        std::string target;
        bool json = false;
        int port = 137;
    };
    auto o = std::make_shared<Options>();
    scan->add_option("TARGET", o->target, "An IPv4 address, or address/prefix (16 to 32)");
    scan->add_flag("--json", o->json, "One JSON object per host");
    scan->add_option("--port", o->port, "The NetBIOS name service port asked")
        ->check(CLI::Range(1, 65535));
    scan->callback([&cli, o] {
        cli.action = [o] {
            std::string target = o->target;
            if (target.empty()) {
                auto local = NbtScanner::localWirelessTarget();
                if (!local)
                    return reportMessage("no wireless IPv4 address to scan from; give a TARGET");
                target = *local;
            }
            if (!Nbt::targetAddresses(target))
                return reportMessage("invalid target \"" + target + "\"", kExitUsage);
            NbtScanner scanner;
            scanner.port = static_cast<std::uint16_t>(o->port);
            for (auto& host : scanner.scann_impl(target)) {
                if (o->json)
                    fmt::print("{{\"name\":{},\"workgroup\":{},\"ip\":{},\"mac\":{}}}\n",
                               jsonString(host.computerName), jsonString(host.domainName),
                               jsonString(host.ip), jsonString(host.macaddr));
                else
                    fmt::print("{:<16} {:<16} {}\n", host.computerName, host.domainName, host.ip);
            }
            return kExitOk;
        };
    });
}

}  // namespace quillon::cli
