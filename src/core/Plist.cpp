#include "core/Plist.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "core/Base64.h"

namespace quillon {

bool PlistValue::toBool() const {
    if (auto b = get<bool>()) return *b;
    if (auto i = get<std::int64_t>()) return *i != 0;
    if (auto d = get<double>()) return *d != 0;
    if (auto s = get<std::string>()) {
        if (*s == "YES" || *s == "yes" || *s == "TRUE" || *s == "true" || *s == "Y" || *s == "y" ||
            *s == "T" || *s == "t")
            return true;
        return std::strtoll(s->c_str(), nullptr, 10) != 0;
    }
    return false;
}

std::int64_t PlistValue::toInteger() const {
    if (auto b = get<bool>()) return *b ? 1 : 0;
    if (auto i = get<std::int64_t>()) return *i;
    if (auto d = get<double>()) return static_cast<std::int64_t>(*d);
    if (auto s = get<std::string>()) return std::strtoll(s->c_str(), nullptr, 10);
    return 0;
}

double PlistValue::toDouble() const {
    if (auto b = get<bool>()) return *b ? 1 : 0;
    if (auto i = get<std::int64_t>()) return static_cast<double>(*i);
    if (auto d = get<double>()) return *d;
    if (auto s = get<std::string>()) return std::strtod(s->c_str(), nullptr);
    return 0;
}

std::string PlistValue::toString() const {
    if (auto b = get<bool>()) return *b ? "1" : "0";
    if (auto i = get<std::int64_t>()) return std::to_string(*i);
    if (auto d = get<double>()) return fmt::format("{}", *d);
    if (auto s = get<std::string>()) return *s;
    return {};
}

namespace {

std::string formatDate(PlistDate d) {
    using namespace std::chrono;
    auto secs = floor<seconds>(d);
    auto frac = duration_cast<microseconds>(d - secs).count();
    std::time_t t = system_clock::to_time_t(system_clock::time_point(secs));
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    if (frac == 0) return std::string(buf) + "Z";
    return fmt::format("{}.{:06}Z", buf, frac);
}

std::optional<PlistDate> parseDate(const std::string& s) {
    std::tm tm{};
    const char* rest = strptime(s.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    if (!rest) return std::nullopt;
    long micros = 0;
    if (*rest == '.') {
        ++rest;
        std::string digits;
        while (*rest >= '0' && *rest <= '9') digits += *rest++;
        digits = digits.substr(0, 6);
        while (digits.size() < 6) digits += '0';
        micros = std::strtol(digits.c_str(), nullptr, 10);
    }
    if (*rest != 'Z' && *rest != '\0') return std::nullopt;
    std::time_t t = timegm(&tm);
    return std::chrono::system_clock::from_time_t(t) + std::chrono::microseconds(micros);
}

void writeValue(xmlNodePtr parent, const PlistValue& v) {
    auto text = [&](const char* tag, const std::string& content) {
        xmlNewTextChild(parent, nullptr, BAD_CAST tag, BAD_CAST content.c_str());
    };
    std::visit(
        [&](auto&& x) {
            using T = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<T, bool>) {
                xmlNewChild(parent, nullptr, BAD_CAST(x ? "true" : "false"), nullptr);
            } else if constexpr (std::is_same_v<T, std::int64_t>) {
                text("integer", std::to_string(x));
            } else if constexpr (std::is_same_v<T, double>) {
                text("real", fmt::format("{}", x));
            } else if constexpr (std::is_same_v<T, std::string>) {
                text("string", x);
            } else if constexpr (std::is_same_v<T, PlistDate>) {
                text("date", formatDate(x));
            } else if constexpr (std::is_same_v<T, PlistData>) {
                text("data", Base64::encode(x, 68));
            } else if constexpr (std::is_same_v<T, PlistArray>) {
                auto node = xmlNewChild(parent, nullptr, BAD_CAST "array", nullptr);
                for (auto& e : x) writeValue(node, e);
            } else if constexpr (std::is_same_v<T, PlistDict>) {
                auto node = xmlNewChild(parent, nullptr, BAD_CAST "dict", nullptr);
                for (auto& [k, e] : x) {
                    xmlNewTextChild(node, nullptr, BAD_CAST "key", BAD_CAST k.c_str());
                    writeValue(node, e);
                }
            }
        },
        v.value);
}

std::string nodeText(xmlNodePtr n) {
    xmlChar* c = xmlNodeGetContent(n);
    std::string s = c ? reinterpret_cast<const char*>(c) : "";
    xmlFree(c);
    return s;
}

bool isElement(xmlNodePtr n) {
    return n && n->type == XML_ELEMENT_NODE;
}

Result<PlistValue> readValue(xmlNodePtr n, int depth) {
    auto bad = [](const std::string& why) {
        return KvError::fail(ErrorDomain::Generic, -1, "Malformed property list: " + why);
    };
    if (depth > 256) return bad("nested too deeply");
    std::string tag = reinterpret_cast<const char*>(n->name);
    if (tag == "true") return PlistValue(true);
    if (tag == "false") return PlistValue(false);
    if (tag == "string") return PlistValue(nodeText(n));
    if (tag == "integer") {
        auto s = nodeText(n);
        char* end = nullptr;
        errno = 0;
        long long v = std::strtoll(s.c_str(), &end, 10);
        if (s.empty() || *end != '\0' || errno) return bad("bad integer \"" + s + "\"");
        return PlistValue(v);
    }
    if (tag == "real") {
        auto s = nodeText(n);
        char* end = nullptr;
        double v = std::strtod(s.c_str(), &end);
        if (s.empty() || *end != '\0') return bad("bad real \"" + s + "\"");
        return PlistValue(v);
    }
    if (tag == "date") {
        auto d = parseDate(nodeText(n));
        if (!d) return bad("bad date");
        return PlistValue(*d);
    }
    if (tag == "data") {
        auto d = Base64::decode(nodeText(n));
        if (!d) return bad("bad data");
        return PlistValue(std::move(*d));
    }
    if (tag == "array") {
        PlistArray a;
        for (auto c = n->children; c; c = c->next) {
            if (!isElement(c)) continue;
            auto v = readValue(c, depth + 1);
            if (!v) return v;
            a.push_back(std::move(*v));
        }
        return PlistValue(std::move(a));
    }
    if (tag == "dict") {
        PlistDict d;
        for (auto c = n->children; c; c = c->next) {
            if (!isElement(c)) continue;
            if (std::strcmp(reinterpret_cast<const char*>(c->name), "key") != 0)
                return bad("dictionary entry without a key");
            std::string key = nodeText(c);
            auto vn = c->next;
            while (vn && !isElement(vn)) vn = vn->next;
            if (!vn) return bad("key \"" + key + "\" without a value");
            auto v = readValue(vn, depth + 1);
            if (!v) return v;
            d[key] = std::move(*v);
            c = vn;
        }
        return PlistValue(std::move(d));
    }
    return bad("unknown element <" + tag + ">");
}

}  // namespace

namespace Plist {

std::string toXml(const PlistValue& root) {
    xmlDocPtr doc = xmlNewDoc(BAD_CAST "1.0");
    xmlCreateIntSubset(doc, BAD_CAST "plist", BAD_CAST "-//Apple//DTD PLIST 1.0//EN",
                       BAD_CAST "http://www.apple.com/DTDs/PropertyList-1.0.dtd");
    xmlNodePtr plist = xmlNewNode(nullptr, BAD_CAST "plist");
    xmlNewProp(plist, BAD_CAST "version", BAD_CAST "1.0");
    xmlDocSetRootElement(doc, plist);
    writeValue(plist, root);
    xmlChar* buf = nullptr;
    int size = 0;
    xmlDocDumpFormatMemoryEnc(doc, &buf, &size, "UTF-8", 1);
    std::string out(reinterpret_cast<const char*>(buf), static_cast<std::size_t>(size));
    xmlFree(buf);
    xmlFreeDoc(doc);
    return out;
}

Result<PlistValue> fromXml(std::string_view xml) {
    // No network, no entity expansion: a property list never needs them.
    xmlDocPtr doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), "plist.xml", nullptr,
                                  XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    if (!doc) return KvError::fail(ErrorDomain::Generic, -1, "Malformed property list: not XML");
    Result<PlistValue> result =
        KvError::fail(ErrorDomain::Generic, -1, "Malformed property list: no <plist> root");
    xmlNodePtr root = xmlDocGetRootElement(doc);
    if (root && std::strcmp(reinterpret_cast<const char*>(root->name), "plist") == 0) {
        xmlNodePtr first = root->children;
        while (first && !isElement(first)) first = first->next;
        if (first)
            result = readValue(first, 0);
        else
            result = KvError::fail(ErrorDomain::Generic, -1, "Malformed property list: empty");
    }
    xmlFreeDoc(doc);
    return result;
}

Result<PlistValue> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return KvError::fail(ErrorDomain::Generic, -1,
                             fmt::format("Cannot read {}: {}", path, std::strerror(errno)));
    std::ostringstream ss;
    ss << in.rdbuf();
    auto r = fromXml(ss.str());
    if (!r) r.error().reason = path + ": " + r.error().reason;
    return r;
}

Status writeFile(const std::string& path, const PlistValue& root, unsigned mode) {
    std::string xml = toXml(root);
    std::string tmp = path + ".tmp-" + std::to_string(::getpid());
    int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    auto fail = [&](const char* what) {
        int e = errno;
        if (fd >= 0) ::close(fd);
        ::unlink(tmp.c_str());
        return KvError::fail(ErrorDomain::Generic, -1,
                             fmt::format("Cannot {} {}: {}", what, path, std::strerror(e)));
    };
    if (fd < 0) return fail("create");
    ::fchmod(fd, mode);
    std::size_t done = 0;
    while (done < xml.size()) {
        ssize_t n = ::write(fd, xml.data() + done, xml.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return fail("write");
        }
        done += static_cast<std::size_t>(n);
    }
    if (::fsync(fd) != 0) return fail("flush");
    if (::close(fd) != 0) {
        fd = -1;
        return fail("close");
    }
    fd = -1;
    if (::rename(tmp.c_str(), path.c_str()) != 0) return fail("replace");
    return {};
}

}  // namespace Plist
}  // namespace quillon
