#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>

#include "app/cli/Cli.h"
#include "app/cli/Json.h"
#include "clients/ServerForm.h"
#include "clients/sftp/SFTPWrapper.h"
#include "core/ClientExtras.h"
#include "core/Location.h"
#include "core/ServerInfoService.h"
#include "core/StringEncoding.h"
#include "core/StringUtils.h"
#include "core/WrapperProxy.h"
#include "sync/SyncInfoService.h"

namespace quillon::cli {

namespace {

const std::map<std::string, std::int32_t> kTypes = {
    {"local", ProtocolType::Local},        {"dropbox", ProtocolType::Dropbox},
    {"gdrive", ProtocolType::GoogleDrive}, {"smb", ProtocolType::SMB},
    {"onedrive", ProtocolType::OneDrive},  {"box", ProtocolType::Box},
    {"webdav", ProtocolType::WebDAV},      {"ftp", ProtocolType::FTP},
    {"sftp", ProtocolType::SFTP},          {"baidu", ProtocolType::BaiduPan},
};

const std::map<std::string, std::string> kFtpProtocols = {
    {"plain", "FTP_PROTOCOL_PLAIN"},
    {"explicit-if-available", "FTP_PROTOCOL_EXPLICIT_IF_AVAILABLE"},
    {"explicit", "FTP_PROTOCOL_EXPLICIT"},
    {"implicit", "FTP_PROTOCOL_IMPLICIT"},
};

std::string typeName(std::int32_t type) {
    for (auto& [name, t] : kTypes)
        if (t == type) return name;
    return std::to_string(type);
}

// Secrets are not printed.
bool isSecret(const std::string& key) {
    return isSecretKey(key);
}

std::string serverJson(const ServerInfo& info) {
    std::string props;
    for (auto& [k, v] : info.props) {
        if (!props.empty()) props += ",";
        props += jsonString(k) + ":" + jsonString(isSecret(k) ? std::string("********") : v);
    }
    return fmt::format(
        "{{\"id\":{},\"name\":{},\"type\":{},\"protocolType\":{},\"root\":{},\"props\":{{{}}}}}",
        jsonString(info.serverID), jsonString(info.displayName),
        jsonString(typeName(info.protocolType)), info.protocolType,
        info.protocolType == ProtocolType::Local ? jsonString(info.rootFolderPath) : "null", props);
}

std::string serverLine(const ServerInfo& info) {
    std::string where;
    if (info.protocolType == ProtocolType::Local) {
        where = info.rootFolderPath;
    } else {
        auto addr = info.valueForKey(ServerProp::ADDR).value_or("");
        auto user = info.valueForKey(ServerProp::USERNAME).value_or("");
        auto port = info.valueForKey(ServerProp::PORT).value_or("");
        std::string scheme = typeName(info.protocolType);
        // The scheme a URL for the server would take: TLS shows.
        auto tls = info.valueForKey(ServerProp::FTP_PROTOCOL).value_or("");
        if (info.protocolType == ProtocolType::FTP && tls == "FTP_PROTOCOL_IMPLICIT")
            scheme = "ftps";
        else if (info.protocolType == ProtocolType::FTP && tls.starts_with("FTP_PROTOCOL_EXPLICIT"))
            scheme = "ftpes";
        else if (info.protocolType == ProtocolType::WebDAV && info.boolValueForKey("WEBDAV_HTTPS"))
            scheme = "davs";
        where = scheme + "://" + (user.empty() ? "" : user + "@") + addr +
                (port.empty() ? "" : ":" + port) + info.valueForKey(ServerProp::PATH).value_or("");
        if (info.boolValueForKey(ServerProp::QUICK_CONNECT)) where += "  (quick connect)";
    }
    return fmt::format("{:<8} {:<24} {}", typeName(info.protocolType), info.displayName, where);
}

Result<ServerInfo> requireServer(const std::string& name) {
    auto info = findServer(name);
    if (!info) return KvError::fail(ErrorDomain::Generic, -1, "No server named \"" + name + "\".");
    return *info;
}

}  // namespace

void registerServerCommands(Cli& cli) {
    auto* servers = cli.app.add_subcommand("servers", "List local volumes and configured servers");
    auto serversJson = std::make_shared<bool>(false);
    servers->add_flag("--json", *serversJson, "Print a JSON array");
    servers->callback([&cli, serversJson] {
        cli.action = [serversJson] {
            if (auto r = startApplication(); !r) return reportError(r.error());
            auto& service = ServerInfoService::sharedServerInfoService();
            auto all = service.localServerInfos();
            auto remote = service.remoteServerInfos();
            ServerInfoService::sortConnections(remote);
            all.insert(all.end(), remote.begin(), remote.end());
            if (*serversJson) {
                std::string out = "[";
                for (std::size_t i = 0; i < all.size(); ++i)
                    out += (i ? ",\n" : "\n") + serverJson(all[i]);
                fmt::print("{}\n]\n", out);
            } else {
                for (auto& info : all) fmt::print("{}\n", serverLine(info));
            }
            return kExitOk;
        };
    });

    auto* server = cli.app.add_subcommand("server", "Add, show, change or remove a server");
    server->require_subcommand(1);

    struct AddOptions {
        std::string name, type, addr, port, path, user, password, ftpProtocol, encoding, keyFile;
        bool passwordStdin = false, active = false, agent = false;
    };
    auto add = std::make_shared<AddOptions>();
    auto* addCmd = server->add_subcommand("add", "Add a server");
    addCmd->add_option("NAME", add->name, "Display name")->required();
    addCmd
        ->add_option("--type", add->type,
                     "local, dropbox, gdrive, smb, onedrive, box, webdav, ftp, sftp, baidu")
        ->required()
        ->check(CLI::IsMember({"local", "dropbox", "gdrive", "smb", "onedrive", "box", "webdav",
                               "ftp", "sftp", "baidu"}));
    addCmd->add_option("--addr", add->addr, "Host name or address");
    addCmd->add_option("--port", add->port, "Port")->check(CLI::Range(1, 65535));
    addCmd->add_option("--path", add->path, "Start folder on the server");
    addCmd->add_option("--user", add->user, "User name");
    auto* pw = addCmd->add_option("--password", add->password, "Password");
    addCmd
        ->add_flag("--password-stdin", add->passwordStdin, "Read the password from standard input")
        ->excludes(pw);
    addCmd
        ->add_option("--ftp-protocol", add->ftpProtocol,
                     "plain, explicit-if-available, explicit or implicit")
        ->check(CLI::IsMember({"plain", "explicit-if-available", "explicit", "implicit"}));
    addCmd->add_flag("--active", add->active, "FTP active mode");
    auto* keyFile = addCmd->add_option(
        "--key-file", add->keyFile,
        "SFTP: log in with this private key (the password is then its passphrase)");
    addCmd->add_flag("--agent", add->agent, "SFTP: log in with the keys of the SSH agent")
        ->excludes(keyFile);
    addCmd->add_option("--encoding", add->encoding,
                       "Server's file-name encoding (UTF-8, GBK, Shift_JIS, ...)");
    addCmd->callback([&cli, add] {
        cli.action = [add] {
            if (auto r = startApplication(); !r) return reportError(r.error());
            if (auto ok = checkNewServerName(add->name); !ok)
                return reportMessage(ok.error().reason);
            ServerInfo info;
            info.displayName = add->name;
            info.protocolType = kTypes.at(add->type);
            std::string ftpProtocol =
                add->ftpProtocol.empty() ? "" : kFtpProtocols.at(add->ftpProtocol);
            if (!ftpProtocol.empty() && info.protocolType != ProtocolType::FTP)
                return reportMessage("--ftp-protocol is only for FTP servers.", kExitUsage);
            std::optional<std::string> password;
            if (add->passwordStdin) {
                password = readPasswordFromStdin();
                if (!password) return reportMessage("No password on standard input.", kExitUsage);
            } else if (!add->password.empty()) {
                password = add->password;
            }
            if ((!add->keyFile.empty() || add->agent) && info.protocolType != ProtocolType::SFTP)
                return reportMessage("--key-file and --agent are only for SFTP servers.",
                                     kExitUsage);
            if (!add->encoding.empty() && !StringEncoding::encodingNumberForName(add->encoding))
                return reportMessage("Unknown encoding \"" + add->encoding + "\".", kExitUsage);
            if (ServerForm::handles(info.protocolType) && add->addr.empty())
                return reportMessage("--addr is required for this kind of server.", kExitUsage);
            if (ServerForm::handles(info.protocolType)) {
                ServerForm form;
                form.name = add->name;
                form.protocolType = info.protocolType;
                form.addr = add->addr;
                form.port = add->port;
                form.path = add->path;
                form.user = add->user;
                form.password = password;
                form.ftpProtocol = ftpProtocol;
                form.encoding = add->encoding;
                form.activeMode = add->active;
                form.keyFile = add->keyFile;
                form.sftpLogin = !add->keyFile.empty() ? ServerForm::SftpLogin::KeyFile
                                 : add->agent          ? ServerForm::SftpLogin::Agent
                                                       : ServerForm::SftpLogin::Password;
                if (auto r = form.applyTo(info); !r) return reportError(r.error());
            } else {
                // Cloud accounts and local volumes: what was given, as it was given.
                if (!add->addr.empty()) info.setValue(add->addr, ServerProp::ADDR);
                if (!add->port.empty()) info.setValue(add->port, ServerProp::PORT);
                if (!add->path.empty()) info.setValue(add->path, ServerProp::PATH);
                if (!add->user.empty()) info.setValue(add->user, ServerProp::USERNAME);
                if (password) {
                    info.setValue(*password, ServerProp::PASSWORD);
                    info.setValue("YES", ServerProp::REMEMBER_PASSWORD);
                }
            }
            if (auto r = addServer(info); !r) return reportError(r.error());
            fmt::print("Added {} ({})\n", info.displayName, info.serverID);
            return kExitOk;
        };
    });

    auto showName = std::make_shared<std::string>();
    auto showJson = std::make_shared<bool>(false);
    auto* show = server->add_subcommand("show", "Show a server's settings");
    show->add_option("NAME", *showName, "Display name or server id")->required();
    show->add_flag("--json", *showJson, "Print JSON");
    show->callback([&cli, showName, showJson] {
        cli.action = [showName, showJson] {
            if (auto r = startApplication(); !r) return reportError(r.error());
            auto info = requireServer(*showName);
            if (!info) return reportError(info.error());
            if (*showJson) {
                fmt::print("{}\n", serverJson(*info));
                return kExitOk;
            }
            fmt::print("name:  {}\nid:    {}\ntype:  {} ({})\n", info->displayName, info->serverID,
                       typeName(info->protocolType), WrapperProxy::kindName(info->protocolType));
            for (auto& [k, v] : info->props)
                fmt::print("  {} = {}\n", k, isSecret(k) ? std::string("********") : v);
            return kExitOk;
        };
    });

    auto setName = std::make_shared<std::string>();
    auto setPairs = std::make_shared<std::vector<std::string>>();
    auto unsetKeys = std::make_shared<std::vector<std::string>>();
    auto* set = server->add_subcommand("set", "Set raw properties: KEY=VALUE...");
    set->add_option("NAME", *setName, "Display name or server id")->required();
    set->add_option("PROPS", *setPairs, "KEY=VALUE pairs");
    set->add_option("--unset", *unsetKeys, "Remove a property");
    set->callback([&cli, setName, setPairs, unsetKeys] {
        cli.action = [setName, setPairs, unsetKeys] {
            if (auto r = startApplication(); !r) return reportError(r.error());
            auto info = requireServer(*setName);
            if (!info) return reportError(info.error());
            if (setPairs->empty() && unsetKeys->empty())
                return reportMessage("Nothing to set: give KEY=VALUE pairs or --unset KEY.",
                                     kExitUsage);
            for (auto& pair : *setPairs) {
                auto eq = pair.find('=');
                if (eq == std::string::npos || eq == 0)
                    return reportMessage("Not a KEY=VALUE pair: " + pair, kExitUsage);
                info->setValue(pair.substr(eq + 1), pair.substr(0, eq));
            }
            for (auto& key : *unsetKeys) info->removeObjectForKey(key);
            if (auto r = ServerInfoService::sharedServerInfoService().updateServerInfo(*info); !r)
                return reportError(r.error());
            return kExitOk;
        };
    });

    auto rmName = std::make_shared<std::string>();
    auto rmForce = std::make_shared<bool>(false);
    auto* rm = server->add_subcommand("rm", "Remove a server");
    rm->add_option("NAME", *rmName, "Display name or server id")->required();
    rm->add_flag("--force", *rmForce, "Remove it even when sync pairs use it");
    rm->callback([&cli, rmName, rmForce] {
        cli.action = [rmName, rmForce] {
            if (auto r = startApplication(); !r) return reportError(r.error());
            auto info = requireServer(*rmName);
            if (!info) return reportError(info.error());
            auto pairs = SyncInfoService::sharedInstance().pairsUsingServer(info->serverID);
            if (!pairs.empty() && !*rmForce) {
                std::string list;
                for (auto& pair : pairs)
                    list += fmt::format("\n  sync pair {}: {} <-> {}", pair.syncInfoID,
                                        pair.localFolderMeta.pathOrEmpty(),
                                        pair.remoteFolderMeta.pathOrEmpty());
                return reportMessage(
                    fmt::format("Server \"{}\" is used by {}:{}\nRemove the pairs first, or use "
                                "--force.",
                                info->displayName, pairs.size() == 1 ? "a sync pair" : "sync pairs",
                                list),
                    kExitUsage);
            }
            if (auto r = ServerInfoService::sharedServerInfoService().deleteServerInfo(*info); !r)
                return reportError(r.error());
            return kExitOk;
        };
    });
}

}  // namespace quillon::cli
