#include "clients/ftp/FTPDirListParser.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <vector>

#include "clients/ftp/FtpWrapper.h"
#include "core/AppPreference.h"

namespace quillon::FTPDirListParser {

namespace {

using std::chrono::system_clock;

struct Token {
    std::size_t begin;
    std::size_t end;
    std::string_view text;
};

bool isSpace(char c) {
    return c == ' ' || c == '\t';
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool allDigits(std::string_view s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!isDigit(c)) return false;
    return true;
}

std::optional<long long> toNumber(std::string_view s) {
    if (!allDigits(s) || s.size() > 18) return std::nullopt;
    long long v = 0;
    std::from_chars(s.data(), s.data() + s.size(), v);
    return v;
}

std::vector<Token> tokenize(std::string_view line, std::size_t maxTokens) {
    std::vector<Token> out;
    std::size_t i = 0;
    while (i < line.size() && out.size() < maxTokens) {
        while (i < line.size() && isSpace(line[i])) ++i;
        if (i >= line.size()) break;
        std::size_t b = i;
        while (i < line.size() && !isSpace(line[i])) ++i;
        out.push_back({b, i, line.substr(b, i - b)});
    }
    return out;
}

std::string lower(std::string_view s) {
    std::string out(s);
    for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

// 1..12 for a month name (English, and the German and French short forms that some localised
// servers print), else 0.
int monthNumber(std::string_view token) {
    if (!token.empty() && token.back() == '.') token.remove_suffix(1);
    auto t = lower(token);
    static const std::array<std::pair<std::string_view, int>, 32> names = {{
        {"jan", 1},   {"feb", 2},    {"mar", 3},  {"apr", 4},  {"may", 5},  {"jun", 6},
        {"jul", 7},   {"aug", 8},    {"sep", 9},  {"oct", 10}, {"nov", 11}, {"dec", 12},
        {"mär", 3},   {"mrz", 3},    {"mai", 5},  {"okt", 10}, {"dez", 12}, {"janv", 1},
        {"févr", 2},  {"mars", 3},   {"avr", 4},  {"juin", 6}, {"juil", 7}, {"août", 8},
        {"sept", 9},  {"déc", 12},   {"june", 6}, {"july", 7}, {"sept", 9}, {"march", 3},
        {"april", 4}, {"august", 8},
    }};
    for (auto& [name, n] : names)
        if (t == name) return n;
    // Full English names ("January").
    static const std::array<std::string_view, 12> full = {
        "january", "february", "march",     "april",   "may",      "june",
        "july",    "august",   "september", "october", "november", "december"};
    for (std::size_t m = 0; m < full.size(); ++m)
        if (t == full[m]) return static_cast<int>(m) + 1;
    return 0;
}

int dayNumber(std::string_view token) {
    if (!token.empty() && token.back() == '.') token.remove_suffix(1);
    auto n = toNumber(token);
    if (!n || token.size() > 2 || *n < 1 || *n > 31) return 0;
    return static_cast<int>(*n);
}

struct TimeOrYear {
    bool hasYear = false;
    int year = 0;
    int hour = 0, minute = 0, second = 0;
};

// "HH:MM", "HH:MM:SS" or a four-digit year.
std::optional<TimeOrYear> timeOrYear(std::string_view token) {
    TimeOrYear r;
    if (token.size() == 4 && allDigits(token)) {
        r.hasYear = true;
        r.year = static_cast<int>(*toNumber(token));
        return r;
    }
    auto colon = token.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    auto h = toNumber(token.substr(0, colon));
    auto rest = token.substr(colon + 1);
    std::optional<long long> s = 0;
    auto colon2 = rest.find(':');
    if (colon2 != std::string_view::npos) {
        s = toNumber(rest.substr(colon2 + 1));
        rest = rest.substr(0, colon2);
    }
    auto m = toNumber(rest);
    if (!h || !m || !s || *h > 23 || *m > 59 || *s > 60 || rest.size() != 2) return std::nullopt;
    r.hour = static_cast<int>(*h);
    r.minute = static_cast<int>(*m);
    r.second = static_cast<int>(*s);
    return r;
}

std::optional<system_clock::time_point> makeTime(int year, int month, int day, int hour, int minute,
                                                 int second) {
    using namespace std::chrono;
    // The clock counts nanoseconds: it holds the years 1678 to 2261 and nothing beyond.
    if (year < 1678 || year > 2261) return std::nullopt;
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 60)
        return std::nullopt;
    year_month_day ymd{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                       std::chrono::day{static_cast<unsigned>(day)}};
    if (!ymd.ok()) return std::nullopt;
    return sys_days{ymd} + hours{hour} + minutes{minute} + seconds{second};
}

int yearOf(system_clock::time_point t) {
    using namespace std::chrono;
    return static_cast<int>(year_month_day{floor<days>(t)}.year());
}

// A date listed without a year lies in the past year of `now`: a day more than one day ahead
// of now belongs to the year before.
std::optional<system_clock::time_point> inferYear(int month, int day, int hour, int minute,
                                                  int second, system_clock::time_point now) {
    int year = yearOf(now);
    auto t = makeTime(year, month, day, hour, minute, second);
    if (!t) t = makeTime(year - 1, month, day, hour, minute, second);  // 29 February
    if (t && *t > now + std::chrono::hours(24))
        t = makeTime(year - 1, month, day, hour, minute, second);
    return t;
}

bool isPermissionText(std::string_view t) {
    if (t.size() < 10) return false;
    if (std::string_view("-dlbcpsDn").find(t[0]) == std::string_view::npos) return false;
    for (std::size_t i = 1; i < 10; ++i)
        if (std::string_view("rwxsStTlL-").find(t[i]) == std::string_view::npos) return false;
    return true;
}

std::string_view stripCR(std::string_view line) {
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
    return line;
}

// Unix "ls -l" forms: permissions, links, owner, group, size (or "major, minor"), a date in one
// of the orders "Mon DD HH:MM|YYYY", "DD Mon HH:MM|YYYY" or "YYYY-MM-DD HH:MM", then the name.
std::optional<KvMetadata> parseUnix(std::string_view line, system_clock::time_point now) {
    auto toks = tokenize(line, 12);
    if (toks.size() < 4 || !isPermissionText(toks[0].text)) return std::nullopt;
    for (std::size_t i = 1; i + 1 < toks.size(); ++i) {
        int month = 0, day = 0;
        std::optional<TimeOrYear> ty;
        std::size_t dateEnd = 0;  // index of the last date token
        std::optional<system_clock::time_point> when;
        if (i + 2 < toks.size() && (month = monthNumber(toks[i].text)) &&
            (day = dayNumber(toks[i + 1].text)) && (ty = timeOrYear(toks[i + 2].text))) {
            dateEnd = i + 2;
        } else if (i + 2 < toks.size() && (day = dayNumber(toks[i].text)) &&
                   (month = monthNumber(toks[i + 1].text)) && (ty = timeOrYear(toks[i + 2].text))) {
            dateEnd = i + 2;
        } else {
            auto t = toks[i].text;
            if (t.size() == 10 && t[4] == '-' && t[7] == '-' && allDigits(t.substr(0, 4)) &&
                allDigits(t.substr(5, 2)) && allDigits(t.substr(8, 2))) {
                auto tt = timeOrYear(toks[i + 1].text);
                if (tt && !tt->hasYear) {
                    ty = tt;
                    ty->hasYear = true;
                    ty->year = static_cast<int>(*toNumber(t.substr(0, 4)));
                    month = static_cast<int>(*toNumber(t.substr(5, 2)));
                    day = static_cast<int>(*toNumber(t.substr(8, 2)));
                    dateEnd = i + 1;
                }
            }
        }
        if (!dateEnd) continue;
        // The size column stands right before the date; device files have "major, minor" there.
        std::optional<long long> size = toNumber(toks[i - 1].text);
        char kind = toks[0].text[0];
        bool device = false;
        std::size_t sizeIdx = i - 1;
        if (kind == 'c' || kind == 'b') {
            if (i >= 3 && !toks[i - 2].text.empty() && toks[i - 2].text.back() == ',') {
                device = true;
                sizeIdx = i - 2;
            } else if (toks[i - 1].text.find(',') != std::string_view::npos) {
                device = true;
            }
        }
        if (!size && !device) continue;
        if (ty->hasYear)
            when = makeTime(ty->year, month, day, 0, 0, 0);
        else
            when = inferYear(month, day, ty->hour, ty->minute, ty->second, now);
        if (!when) continue;
        if (ty->hasYear && dateEnd == i + 1)
            *when += std::chrono::hours(ty->hour) + std::chrono::minutes(ty->minute);

        std::size_t nameStart = toks[dateEnd].end + 1;
        if (nameStart >= line.size()) return std::nullopt;
        std::string name(line.substr(nameStart));

        KvMetadata m;
        m.isDir = kind == 'd' || kind == 'D';
        m.unixPermission = std::string(toks[0].text);
        if (kind == 'l') {
            m.isSymbolLink = true;
            auto arrow = name.find(" -> ");
            if (arrow != std::string::npos) {
                m.symbolLinkTarget = name.substr(arrow + 4);
                name.resize(arrow);
            }
        }
        if (name.empty()) return std::nullopt;
        m.setName(name);
        m.fileSizeInBytes = device ? 0 : static_cast<std::uint64_t>(*size);
        m.timestamp = when;
        m.timestampString =
            std::string(line.substr(toks[i].begin, toks[dateEnd].end - toks[i].begin));
        // Between the permissions and the size: an optional link count, the owner, the group.
        std::size_t first = 1;
        if (first < sizeIdx && allDigits(toks[first].text)) ++first;
        if (first < sizeIdx) m.owner = std::string(toks[first].text);
        if (first + 1 < sizeIdx) m.group = std::string(toks[first + 1].text);
        return m;
    }
    return std::nullopt;
}

// DOS / IIS: "MM-DD-YY  HH:MM[AM|PM]  <DIR>|size  name" (also with four-digit years and "/").
std::optional<KvMetadata> parseDos(std::string_view line) {
    auto toks = tokenize(line, 4);
    if (toks.size() < 4) return std::nullopt;
    auto d = toks[0].text;
    char sep = d.size() >= 8 ? d[2] : 0;
    if ((sep != '-' && sep != '/') || d[5] != sep) return std::nullopt;
    auto mo = toNumber(d.substr(0, 2)), da = toNumber(d.substr(3, 2)), yr = toNumber(d.substr(6));
    if (!mo || !da || !yr || (d.size() != 8 && d.size() != 10)) return std::nullopt;
    int year = static_cast<int>(*yr);
    if (d.size() == 8) year += year < 70 ? 2000 : 1900;

    auto t = toks[1].text;
    std::string_view suffix;
    if (t.size() > 2) {
        auto last2 = lower(t.substr(t.size() - 2));
        if (last2 == "am" || last2 == "pm") {
            suffix = t.substr(t.size() - 2);
            t = t.substr(0, t.size() - 2);
        }
    }
    std::size_t sizeTok = 2;
    if (suffix.empty() && (lower(toks[2].text) == "am" || lower(toks[2].text) == "pm")) {
        // "03:04 PM" written apart: retokenize to keep four fields after it.
        auto more = tokenize(line, 5);
        if (more.size() < 5) return std::nullopt;
        suffix = more[2].text;
        toks = more;
        sizeTok = 3;
    }
    auto tm = timeOrYear(t);
    if (!tm || tm->hasYear) return std::nullopt;
    int hour = tm->hour;
    if (!suffix.empty()) {
        if (hour < 1 || hour > 12) return std::nullopt;
        bool pm = std::tolower(static_cast<unsigned char>(suffix[0])) == 'p';
        hour = hour % 12 + (pm ? 12 : 0);
    }
    auto when = makeTime(year, static_cast<int>(*mo), static_cast<int>(*da), hour, tm->minute, 0);
    if (!when) return std::nullopt;

    KvMetadata m;
    auto sz = toks[sizeTok].text;
    std::size_t nameStart;
    if (lower(sz) == "<dir>") {
        m.isDir = true;
        nameStart = toks[sizeTok].end;
        while (nameStart < line.size() && isSpace(line[nameStart])) ++nameStart;
    } else {
        std::string digits;
        for (char c : sz)
            if (c != ',' && c != '.') digits += c;
        auto n = toNumber(digits);
        if (!n) return std::nullopt;
        m.fileSizeInBytes = static_cast<std::uint64_t>(*n);
        nameStart = toks[sizeTok].end + 1;
    }
    if (nameStart >= line.size()) return std::nullopt;
    m.setName(std::string(line.substr(nameStart)));
    m.timestamp = when;
    m.timestampString = std::string(line.substr(0, toks[sizeTok - 1].end));
    return m;
}

// EPLF: "+fact,fact,...\tname" with "/" (folder), "r" (file), "s<size>", "m<unix time>",
// "i<id>", "up<octal mode>".
std::optional<KvMetadata> parseEplf(std::string_view line) {
    if (line.size() < 3 || line[0] != '+') return std::nullopt;
    auto tab = line.find('\t');
    if (tab == std::string_view::npos || tab + 1 >= line.size()) return std::nullopt;
    KvMetadata m;
    bool known = false;
    auto facts = line.substr(1, tab - 1);
    while (!facts.empty()) {
        auto comma = facts.find(',');
        auto f = facts.substr(0, comma);
        facts = comma == std::string_view::npos ? std::string_view{} : facts.substr(comma + 1);
        if (f.empty()) continue;
        switch (f[0]) {
            case '/':
                m.isDir = true;
                known = true;
                break;
            case 'r':
                known = true;
                break;
            case 's':
                if (auto n = toNumber(f.substr(1)))
                    m.fileSizeInBytes = static_cast<std::uint64_t>(*n);
                break;
            case 'm':
                // Seconds since 1970, within what the clock holds (up to the year 2261).
                if (auto n = toNumber(f.substr(1)); n && *n <= 9'100'000'000LL) {
                    m.timestamp = system_clock::time_point{} + std::chrono::seconds(*n);
                    m.timestampString = std::string(f.substr(1));
                }
                break;
            case 'i':
                m.identifier = std::string(f.substr(1));
                break;
            case 'u':
                if (f.size() > 2 && f[1] == 'p') m.unixPermission = std::string(f.substr(2));
                break;
            default:
                break;
        }
    }
    if (!known) return std::nullopt;
    m.setName(std::string(line.substr(tab + 1)));
    return m;
}

bool keepName(const std::string& name, bool includeHidden) {
    if (name.empty() || name == "." || name == "..") return false;
    // A listing names entries of one folder: a "/" or NUL in a name is a hostile or broken
    // server, and such a name would lead a copy out of the folder it is made into.
    if (name.find('/') != std::string::npos || name.find('\0') != std::string::npos) return false;
    if (name[0] == '.' && !includeHidden) return false;
    return true;
}

template <typename LineFn>
KvMetadataList parseLines(std::string_view text, const Options& options, LineFn&& parseOne) {
    KvMetadataList out;
    // Records are large: one allocation for the whole listing instead of moves on each growth.
    out.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
    std::string folder = options.folderPath;
    if (options.pwd && !options.pwd->empty()) folder = *options.pwd;
    std::size_t pos = 0;
    while (pos < text.size()) {
        auto nl = text.find('\n', pos);
        auto line = stripCR(
            text.substr(pos, nl == std::string_view::npos ? std::string_view::npos : nl - pos));
        pos = nl == std::string_view::npos ? text.size() : nl + 1;
        if (line.empty()) continue;
        auto m = parseOne(line);
        if (!m) continue;
        auto name = m->nameIgnoreLinkResolve().value_or("");
        if (!keepName(name, options.includeHidden)) continue;
        m->protocolType = ProtocolType::FTP;
        if (!options.serverID.empty()) m->serverID = options.serverID;
        m->setPath(childPath(folder, name));
        out.push_back(std::move(*m));
    }
    return out;
}

}  // namespace

std::string childPath(std::string_view folder, std::string_view name) {
    std::string out(folder);
    if (out.empty() || out.back() != '/') out += '/';
    out += name;
    return out;
}

std::optional<KvMetadata> parseListLine(std::string_view line, system_clock::time_point now) {
    line = stripCR(line);
    if (line.empty()) return std::nullopt;
    if (line[0] == '+') return parseEplf(line);
    if (isDigit(line[0])) return parseDos(line);
    return parseUnix(line, now);
}

std::optional<KvMetadata> parseMlsdLine(std::string_view line) {
    line = stripCR(line);
    std::string_view facts, name;
    // Facts end at the first blank; the name is everything after that one blank (it may itself
    // hold blanks, ";" or "=").
    auto sp = line.find(' ');
    if (sp != std::string_view::npos) {
        facts = line.substr(0, sp);
        name = line.substr(sp + 1);
    } else {
        // No blank at all: a name is the one fact without "=".
        auto semi = line.rfind(';');
        if (semi == std::string_view::npos) return std::nullopt;
        facts = line.substr(0, semi + 1);
        name = line.substr(semi + 1);
    }
    if (name.empty()) return std::nullopt;
    KvMetadata m;
    bool typed = false;
    while (!facts.empty()) {
        auto semi = facts.find(';');
        auto f = facts.substr(0, semi);
        facts = semi == std::string_view::npos ? std::string_view{} : facts.substr(semi + 1);
        auto eq = f.find('=');
        if (eq == std::string_view::npos) continue;
        auto key = lower(f.substr(0, eq));
        auto value = f.substr(eq + 1);
        if (key == "type") {
            auto v = lower(value);
            if (v == "cdir" || v == "pdir") return std::nullopt;
            typed = true;
            if (v == "dir") {
                m.isDir = true;
            } else if (v.starts_with("os.unix=slink") || v.starts_with("os.unix=symlink")) {
                m.isSymbolLink = true;
                auto colon = value.find(':');
                if (colon != std::string_view::npos && colon + 1 < value.size())
                    m.symbolLinkTarget = std::string(value.substr(colon + 1));
            } else if (v == "os.unix=slink" || v.starts_with("os.unix")) {
                m.isSymbolLink = v.find("link") != std::string::npos;
            }
        } else if (key == "size" || key == "sizd") {
            if (auto n = toNumber(value)) m.fileSizeInBytes = static_cast<std::uint64_t>(*n);
        } else if (key == "modify") {
            auto v = value;
            int ms = 0;
            auto dot = v.find('.');
            if (dot != std::string_view::npos) {
                auto frac = v.substr(dot + 1);
                if (auto n = toNumber(frac.substr(0, 3))) {
                    ms = static_cast<int>(*n);
                    for (std::size_t k = std::min<std::size_t>(frac.size(), 3); k < 3; ++k)
                        ms *= 10;
                }
                v = v.substr(0, dot);
            }
            if (v.size() == 14 && allDigits(v)) {
                auto num = [&](std::size_t at, std::size_t len) {
                    return static_cast<int>(*toNumber(v.substr(at, len)));
                };
                if (auto t = makeTime(num(0, 4), num(4, 2), num(6, 2), num(8, 2), num(10, 2),
                                      num(12, 2))) {
                    m.timestamp = *t + std::chrono::milliseconds(ms);
                    m.timestampString = std::string(value);
                }
            }
        } else if (key == "unique") {
            m.identifier = std::string(value);
        } else if (key == "unix.mode") {
            m.unixPermission = std::string(value);
        } else if (key == "unix.owner" || key == "unix.ownername" || key == "unix.uid") {
            // The name wins over the number when a server sends both.
            if (key == "unix.ownername" || !m.owner) m.owner = std::string(value);
        } else if (key == "unix.group" || key == "unix.groupname" || key == "unix.gid") {
            if (key == "unix.groupname" || !m.group) m.group = std::string(value);
        }
    }
    if (!typed && !m.fileSizeInBytes && !m.timestamp) return std::nullopt;
    m.setName(std::string(name));
    return m;
}

KvMetadataList parse(std::string_view text, const Options& options) {
    return parseLines(text, options,
                      [&](std::string_view line) { return parseListLine(line, options.now); });
}

KvMetadataList parseMlsd(std::string_view text, const Options& options) {
    return parseLines(text, options, [](std::string_view line) { return parseMlsdLine(line); });
}

KvMetadataList parse(std::string_view text, const std::string& folderPath,
                     const std::optional<std::string>& pwd, const ServerInfo& serverInfo,
                     const FtpWrapper& wp) {
    Options o;
    o.folderPath = folderPath;
    o.pwd = pwd;
    o.serverID = serverInfo.serverID;
    o.includeHidden = wp.includesHiddenFiles();
    return parse(text, o);
}

}  // namespace quillon::FTPDirListParser
