#include <fmt/format.h>

#include <cstdlib>

#include "app/cli/Cli.h"
#include "core/AppPreference.h"
#include "core/ClientExtras.h"
#include "core/StringUtils.h"

namespace quillon::cli {

namespace {

std::string show(const PlistValue& v) {
    if (auto b = v.get<bool>()) return *b ? "true" : "false";
    if (v.is<PlistDict>() || v.is<PlistArray>() || v.is<PlistData>()) return "(structured value)";
    if (auto d = v.get<PlistDate>()) {
        auto secs = std::chrono::floor<std::chrono::seconds>(*d);
        return fmt::format("{}", std::chrono::system_clock::to_time_t(secs));
    }
    return v.toString();
}

// Reads the text as the same kind of value as the key holds now (text for a new key).
Result<PlistValue> parseLike(const std::optional<PlistValue>& current, const std::string& text) {
    auto bad = [&](const char* kind) {
        return KvError::fail(ErrorDomain::Generic, -1,
                             fmt::format("\"{}\" is not {}.", text, kind));
    };
    if (!current || current->is<std::string>()) return PlistValue(text);
    if (current->is<bool>()) {
        auto t = StringUtils::toLower(text);
        if (t == "true" || t == "yes" || t == "1" || t == "on") return PlistValue(true);
        if (t == "false" || t == "no" || t == "0" || t == "off") return PlistValue(false);
        return bad("true or false");
    }
    if (current->is<std::int64_t>()) {
        char* end = nullptr;
        long long v = std::strtoll(text.c_str(), &end, 10);
        if (text.empty() || *end) return bad("an integer");
        return PlistValue(v);
    }
    if (current->is<double>()) {
        char* end = nullptr;
        double v = std::strtod(text.c_str(), &end);
        if (text.empty() || *end) return bad("a number");
        return PlistValue(v);
    }
    return KvError::fail(ErrorDomain::Generic, -1,
                         "This setting cannot be set from the command line.");
}

}  // namespace

void registerPrefsCommand(Cli& cli) {
    auto key = std::make_shared<std::string>();
    auto value = std::make_shared<std::string>();
    auto unset = std::make_shared<bool>(false);
    auto* cmd = cli.app.add_subcommand(
        "prefs", "List the settings, show one (KEY), or set one (KEY VALUE) and save");
    cmd->add_option("KEY", *key, "Setting name, for example \"Max Simultaneous Transfers\"");
    auto* valueOpt = cmd->add_option("VALUE", *value, "New value");
    cmd->add_flag("--unset", *unset, "Remove the setting")->excludes(valueOpt);
    cmd->callback([&cli, key, value, valueOpt, unset] {
        cli.action = [key, value, valueOpt, unset] {
            if (auto r = startApplication(); !r) return reportError(r.error());
            auto& prefs = AppPreference::sharedAppPreference();
            if (key->empty()) {
                for (auto& [k, v] : prefs.snapshot())
                    fmt::print("{} = {}\n", k, isSecretKey(k) ? std::string("********") : show(v));
                return kExitOk;
            }
            if (*unset) {
                prefs.removeValueForKey(*key);
                if (auto r = prefs.save(); !r) return reportError(r.error());
                return kExitOk;
            }
            if (valueOpt->count() == 0) {
                auto v = prefs.valueForKey(*key);
                if (!v) return reportMessage("No setting named \"" + *key + "\".");
                fmt::print("{}\n", isSecretKey(*key) ? "********" : show(*v));
                return kExitOk;
            }
            auto parsed = parseLike(prefs.valueForKey(*key), *value);
            if (!parsed) return reportMessage(parsed.error().reason, kExitUsage);
            if (auto allowed = AppPreference::checkValue(*key, *parsed); !allowed)
                return reportMessage(allowed.error().reason, kExitUsage);
            prefs.setValue(*parsed, *key);
            if (auto r = prefs.save(); !r) return reportError(r.error());
            return kExitOk;
        };
    });
}

}  // namespace quillon::cli
