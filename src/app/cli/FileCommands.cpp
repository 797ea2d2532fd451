#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "app/cli/Cli.h"
#include "app/cli/Json.h"
#include "core/FileTypeUtils.h"
#include "core/Location.h"
#include "core/StringUtils.h"

namespace quillon::cli {

namespace {

std::string kindColumn(const KvMetadata& m) {
    if (m.isSymbolLink) return "link";
    return m.isDir ? "dir" : "file";
}

std::string timeColumn(const std::optional<TimePoint>& t) {
    if (!t) return std::string(16, ' ');
    std::time_t tt = std::chrono::system_clock::to_time_t(*t);
    std::tm tm{};
    localtime_r(&tt, &tm);
    return fmt::format("{:%Y-%m-%d %H:%M}", tm);
}

// Control characters in a name (or a link's target) would act on the terminal: they are shown
// escaped, never raw.
std::string displayName(const KvMetadata& m) {
    auto name = StringUtils::escapedForDisplay(
        m.nameIgnoreLinkResolve().value_or(StringUtils::lastPathComponent(m.pathOrEmpty())));
    if (m.isSymbolLink && m.symbolLinkTarget)
        name += " -> " + StringUtils::escapedForDisplay(*m.symbolLinkTarget);
    return name;
}

std::string itemJson(const KvMetadata& m) {
    std::string out =
        "{\"name\":" + jsonOptString(m.nameIgnoreLinkResolve()) +
        ",\"path\":" + jsonOptString(m.path()) + ",\"kind\":" + jsonString(kindColumn(m)) +
        ",\"isDir\":" + (m.isDir ? "true" : "false") +
        ",\"size\":" + (m.fileSizeInBytes ? std::to_string(*m.fileSizeInBytes) : "null") +
        ",\"mtime\":" + jsonTime(m.timestamp);
    if (m.isSymbolLink) out += ",\"target\":" + jsonOptString(m.symbolLinkTarget);
    if (m.unixPermission) out += ",\"permission\":" + jsonOptString(m.unixPermission);
    if (m.isIcloudPlaceHold) out += ",\"placeholder\":true";
    return out + "}";
}

void printLong(const KvMetadata& m, std::string& out) {
    std::string size = m.isDir ? "-" : m.fileSizeInBytes ? std::to_string(*m.fileSizeInBytes) : "?";
    out += fmt::format("{:<4} {:>12}  {}  {}\n", kindColumn(m), size, timeColumn(m.timestamp),
                       displayName(m));
}

// Buffered standard output: listings of 100,000 entries must not cost one write per line.
void flushOut(std::string& out, bool force) {
    if (!force && out.size() < (1 << 16)) return;
    std::fwrite(out.data(), 1, out.size(), stdout);
    out.clear();
}

Result<Location> resolveAndStart(const std::string& text) {
    if (auto r = startApplication(); !r) return std::unexpected(r.error());
    return resolveLocation(text);
}

}  // namespace

void registerFileCommands(Cli& cli) {
    // ls
    auto lsTarget = std::make_shared<std::string>(".");
    auto lsAll = std::make_shared<bool>(false);
    auto lsJson = std::make_shared<bool>(false);
    auto* ls = cli.app.add_subcommand("ls", "List a folder: kind, size, modification time, name");
    ls->add_option("LOCATION", *lsTarget, "Local path, NAME:/path or URL (default: .)");
    ls->add_flag("-a,--all", *lsAll, "Include hidden items");
    ls->add_flag("--json", *lsJson, "Print a JSON array");
    ls->callback([&cli, lsTarget, lsAll, lsJson] {
        cli.action = [lsTarget, lsAll, lsJson] {
            auto loc = resolveAndStart(*lsTarget);
            if (!loc) return reportError(loc.error());
            // Without -a the clients follow the setting "SYS_SHOW_HIDDEN_FILES".
            loc->client->setForceIncludesHiddenFiles(*lsAll);
            auto item = statLocation(*loc);
            if (!item) return reportError(item.error());
            KvMetadataList entries;
            // The order to print in: pointers are sorted, the records (large) stay in place.
            std::vector<const KvMetadata*> order;
            if (item->isDir) {
                auto listing = loc->client->contentsOfDirectoryAtPathSync(loc->metadata(true));
                if (!listing) return reportError(listing.error().about(loc->display()));
                entries = std::move(*listing);
                static const std::string noName;
                auto nameOf = [](const KvMetadata* m) -> const std::string& {
                    const auto& name = m->nameIgnoreLinkResolve();
                    return name ? *name : noName;
                };
                order.reserve(entries.size());
                for (const auto& e : entries) order.push_back(&e);
                std::sort(
                    order.begin(), order.end(), [&](const KvMetadata* a, const KvMetadata* b) {
                        return StringUtils::localizedStandardCompare(nameOf(a), nameOf(b)) < 0;
                    });
            } else {
                entries.push_back(std::move(*item));
                order.push_back(&entries.front());
            }
            std::string out;
            if (*lsJson) {
                out += "[";
                for (std::size_t i = 0; i < order.size(); ++i) {
                    out += i ? ",\n" : "\n";
                    out += itemJson(*order[i]);
                    flushOut(out, false);
                }
                out += "\n]\n";
            } else {
                for (const auto* e : order) {
                    printLong(*e, out);
                    flushOut(out, false);
                }
            }
            flushOut(out, true);
            return kExitOk;
        };
    });

    // stat
    auto statTarget = std::make_shared<std::string>();
    auto statJson = std::make_shared<bool>(false);
    auto* stat = cli.app.add_subcommand("stat", "Show one item");
    stat->add_option("LOCATION", *statTarget, "Local path, NAME:/path or URL")->required();
    stat->add_flag("--json", *statJson, "Print JSON");
    stat->callback([&cli, statTarget, statJson] {
        cli.action = [statTarget, statJson] {
            auto loc = resolveAndStart(*statTarget);
            if (!loc) return reportError(loc.error());
            auto item = statLocation(*loc);
            if (!item) return reportError(item.error());
            if (*statJson) {
                fmt::print("{}\n", itemJson(*item));
                return kExitOk;
            }
            fmt::print("name:     {}\n", displayName(*item));
            fmt::print("location: {}\n", StringUtils::escapedForDisplay(loc->display()));
            fmt::print("kind:     {} ({})\n", kindColumn(*item),
                       FileTypeUtils::kindForFileName(item->nameOrEmpty(), item->isDir));
            if (item->fileSizeInBytes) fmt::print("size:     {} bytes\n", *item->fileSizeInBytes);
            if (item->timestamp) fmt::print("modified: {}\n", timeColumn(item->timestamp));
            if (item->unixPermission) fmt::print("mode:     {}\n", *item->unixPermission);
            return kExitOk;
        };
    });

    // mkdir
    auto mkdirTargets = std::make_shared<std::vector<std::string>>();
    auto* mkdir = cli.app.add_subcommand("mkdir", "Create folders");
    mkdir->add_option("LOCATION", *mkdirTargets, "Folders to create")->required();
    mkdir->callback([&cli, mkdirTargets] {
        cli.action = [mkdirTargets] {
            int rc = kExitOk;
            for (auto& t : *mkdirTargets) {
                auto loc = resolveAndStart(t);
                if (!loc) return reportError(loc.error());
                if (auto r = loc->client->createFolderSync(loc->metadata(true)); !r)
                    rc = reportError(r.error().about(loc->display()));
            }
            return rc;
        };
    });

    // rm
    auto rmTargets = std::make_shared<std::vector<std::string>>();
    auto rmRecursive = std::make_shared<bool>(false);
    auto* rm = cli.app.add_subcommand("rm", "Delete files, and folders with -r");
    rm->add_option("LOCATION", *rmTargets, "Items to delete")->required();
    rm->add_flag("-r,--recursive", *rmRecursive, "Delete folders with their contents");
    rm->callback([&cli, rmTargets, rmRecursive] {
        cli.action = [rmTargets, rmRecursive] {
            int rc = kExitOk;
            for (auto& t : *rmTargets) {
                auto loc = resolveAndStart(t);
                if (!loc) return reportError(loc.error());
                if (loc->path == "/" || loc->path == loc->server->rootFolderPath) {
                    rc = reportMessage("Refusing to delete the top folder " + loc->display() + ".");
                    continue;
                }
                auto item = statLocation(*loc);
                if (!item) {
                    rc = reportError(item.error());
                    continue;
                }
                if (item->isDir && !item->isSymbolLink && !*rmRecursive) {
                    rc = reportMessage(loc->display() + " is a folder: use -r to delete it.");
                    continue;
                }
                if (auto r = loc->client->removeSync({*item}); !r)
                    rc = reportError(r.error().about(loc->display()));
            }
            return rc;
        };
    });

    // cat
    auto catTarget = std::make_shared<std::string>();
    auto* cat = cli.app.add_subcommand("cat", "Write a file's bytes to standard output");
    cat->add_option("LOCATION", *catTarget, "File to print")->required();
    cat->callback([&cli, catTarget] {
        cli.action = [catTarget] {
            auto loc = resolveAndStart(*catTarget);
            if (!loc) return reportError(loc.error());
            auto item = statLocation(*loc);
            if (!item) return reportError(item.error());
            if (item->isDir) return reportMessage(loc->display() + " is a folder.");
            auto caps = loc->client->capabilities();
            auto write = [](const Bytes& chunk) {
                return std::fwrite(chunk.data(), 1, chunk.size(), stdout) == chunk.size();
            };
            if (!caps.streaming) return reportMessage("This server cannot stream files yet.");
            if (auto r = loc->client->initStreamFileMeta(*item); !r)
                return reportError(r.error().about(loc->display()));
            if (caps.readFromOffsetToEnd) {
                if (auto r = loc->client->readDataFromOffsetToEnd(0, write); !r)
                    return reportError(r.error().about(loc->display()));
            } else {
                while (true) {
                    auto chunk = loc->client->readDataOfLength(1 << 20);
                    if (!chunk) return reportError(chunk.error().about(loc->display()));
                    if (chunk->empty()) break;
                    if (!write(*chunk)) return reportMessage("Cannot write to standard output.");
                }
            }
            std::fflush(stdout);
            return kExitOk;
        };
    });
}

}  // namespace quillon::cli
