#include <fmt/format.h>

#include "app/cli/Cli.h"
#include "core/FileTypeUtils.h"

namespace quillon::cli {

void registerTypeCommand(Cli& cli) {
    auto* cmd = cli.app.add_subcommand("type", "Print each name's file kind and icon name");
    auto names = std::make_shared<std::vector<std::string>>();
    auto json = std::make_shared<bool>(false);
    cmd->add_option("NAME", *names, "File names or paths")->required();
    cmd->add_flag("--json", *json, "One JSON object per name");
    cmd->callback([&cli, names, json] {
        cli.action = [names, json] {
            for (auto& n : *names) {
                auto kind = FileTypeUtils::kindForFileName(n, false);
                auto icon = FileTypeUtils::iconNameForFileName(n);
                if (*json)
                    fmt::print("{{\"name\":\"{}\",\"kind\":\"{}\",\"icon\":\"{}\"}}\n", n, kind,
                               icon);
                else
                    fmt::print("{}\t{}\t{}\n", n, kind, icon);
            }
            return kExitOk;
        };
    });
}

}  // namespace quillon::cli
