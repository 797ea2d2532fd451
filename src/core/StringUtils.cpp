#include "core/StringUtils.h"

#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <regex>
#include <unordered_map>
#include <vector>

namespace quillon::StringUtils {

namespace {

constexpr char32_t kInvalid = 0xFFFFFFFF;

// Decodes one UTF-8 sequence at `i`, advancing it; an invalid byte decodes as kInvalid and
// advances by one so callers can pass it through untouched.
char32_t decodeUtf8(std::string_view s, std::size_t& i) {
    auto b0 = static_cast<unsigned char>(s[i]);
    if (b0 < 0x80) {
        ++i;
        return b0;
    }
    int len;
    char32_t cp;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        len = 2;
        cp = b0 & 0x1F;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        len = 3;
        cp = b0 & 0x0F;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        len = 4;
        cp = b0 & 0x07;
    } else {
        ++i;
        return kInvalid;
    }
    if (i + len > s.size()) {
        ++i;
        return kInvalid;
    }
    for (int k = 1; k < len; ++k) {
        auto b = static_cast<unsigned char>(s[i + k]);
        if ((b & 0xC0) != 0x80) {
            ++i;
            return kInvalid;
        }
        cp = (cp << 6) | (b & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
    static constexpr char32_t minimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < minimum[len] || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) {
        ++i;
        return kInvalid;
    }
    i += len;
    return cp;
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// Unicode case mapping comes from the C.UTF-8 locale so that the result does not depend on the
// user's locale; without it only ASCII letters change case.
locale_t utf8Locale() {
    static locale_t loc = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    return loc;
}

char32_t lowerChar(char32_t c) {
    if (c < 0x80) return (c >= 'A' && c <= 'Z') ? c + 32 : c;
    if (auto loc = utf8Locale())
        return static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), loc));
    return c;
}

char32_t upperChar(char32_t c) {
    if (c < 0x80) return (c >= 'a' && c <= 'z') ? c - 32 : c;
    if (auto loc = utf8Locale())
        return static_cast<char32_t>(towupper_l(static_cast<wint_t>(c), loc));
    return c;
}

template <typename F>
std::string mapChars(std::string_view s, F f) {
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size();) {
        std::size_t start = i;
        char32_t c = decodeUtf8(s, i);
        if (c == kInvalid)
            out.append(s.substr(start, i - start));
        else
            appendUtf8(out, f(c));
    }
    return out;
}

char asciiLower(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}

bool isTrimmable(char32_t c) {
    switch (c) {
        case ' ':
        case '\t':
        case '\n':
        case '\v':
        case '\f':
        case '\r':
        case 0x85:
        case 0xA0:
        case 0x1680:
        case 0x2028:
        case 0x2029:
        case 0x202F:
        case 0x205F:
        case 0x3000:
            return true;
        default:
            return c >= 0x2000 && c <= 0x200A;
    }
}

// Start offsets of every character, valid UTF-8 or single stray bytes.
std::vector<std::size_t> charStarts(std::string_view s) {
    std::vector<std::size_t> starts;
    for (std::size_t i = 0; i < s.size();) {
        starts.push_back(i);
        decodeUtf8(s, i);
    }
    return starts;
}

// "." outside character classes becomes "[\s\S]" so that it also matches line breaks.
std::string dotMatchesAll(std::string_view pattern) {
    std::string out;
    bool inClass = false;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        char c = pattern[i];
        if (c == '\\' && i + 1 < pattern.size()) {
            out += c;
            out += pattern[++i];
        } else if (inClass) {
            out += c;
            if (c == ']') inClass = false;
        } else if (c == '[') {
            out += c;
            inClass = true;
        } else if (c == '.') {
            out += "[\\s\\S]";
        } else {
            out += c;
        }
    }
    return out;
}

struct Entity {
    const char* name;
    char32_t code;
};

// The named entities of HTML 4 (Latin-1, symbols and Greek, special characters) and "apos".
constexpr Entity kEntities[] = {
    {"quot", 34},     {"amp", 38},      {"apos", 39},      {"lt", 60},        {"gt", 62},
    {"nbsp", 160},    {"iexcl", 161},   {"cent", 162},     {"pound", 163},    {"curren", 164},
    {"yen", 165},     {"brvbar", 166},  {"sect", 167},     {"uml", 168},      {"copy", 169},
    {"ordf", 170},    {"laquo", 171},   {"not", 172},      {"shy", 173},      {"reg", 174},
    {"macr", 175},    {"deg", 176},     {"plusmn", 177},   {"sup2", 178},     {"sup3", 179},
    {"acute", 180},   {"micro", 181},   {"para", 182},     {"middot", 183},   {"cedil", 184},
    {"sup1", 185},    {"ordm", 186},    {"raquo", 187},    {"frac14", 188},   {"frac12", 189},
    {"frac34", 190},  {"iquest", 191},  {"Agrave", 192},   {"Aacute", 193},   {"Acirc", 194},
    {"Atilde", 195},  {"Auml", 196},    {"Aring", 197},    {"AElig", 198},    {"Ccedil", 199},
    {"Egrave", 200},  {"Eacute", 201},  {"Ecirc", 202},    {"Euml", 203},     {"Igrave", 204},
    {"Iacute", 205},  {"Icirc", 206},   {"Iuml", 207},     {"ETH", 208},      {"Ntilde", 209},
    {"Ograve", 210},  {"Oacute", 211},  {"Ocirc", 212},    {"Otilde", 213},   {"Ouml", 214},
    {"times", 215},   {"Oslash", 216},  {"Ugrave", 217},   {"Uacute", 218},   {"Ucirc", 219},
    {"Uuml", 220},    {"Yacute", 221},  {"THORN", 222},    {"szlig", 223},    {"agrave", 224},
    {"aacute", 225},  {"acirc", 226},   {"atilde", 227},   {"auml", 228},     {"aring", 229},
    {"aelig", 230},   {"ccedil", 231},  {"egrave", 232},   {"eacute", 233},   {"ecirc", 234},
    {"euml", 235},    {"igrave", 236},  {"iacute", 237},   {"icirc", 238},    {"iuml", 239},
    {"eth", 240},     {"ntilde", 241},  {"ograve", 242},   {"oacute", 243},   {"ocirc", 244},
    {"otilde", 245},  {"ouml", 246},    {"divide", 247},   {"oslash", 248},   {"ugrave", 249},
    {"uacute", 250},  {"ucirc", 251},   {"uuml", 252},     {"yacute", 253},   {"thorn", 254},
    {"yuml", 255},    {"OElig", 338},   {"oelig", 339},    {"Scaron", 352},   {"scaron", 353},
    {"Yuml", 376},    {"fnof", 402},    {"circ", 710},     {"tilde", 732},    {"Alpha", 913},
    {"Beta", 914},    {"Gamma", 915},   {"Delta", 916},    {"Epsilon", 917},  {"Zeta", 918},
    {"Eta", 919},     {"Theta", 920},   {"Iota", 921},     {"Kappa", 922},    {"Lambda", 923},
    {"Mu", 924},      {"Nu", 925},      {"Xi", 926},       {"Omicron", 927},  {"Pi", 928},
    {"Rho", 929},     {"Sigma", 931},   {"Tau", 932},      {"Upsilon", 933},  {"Phi", 934},
    {"Chi", 935},     {"Psi", 936},     {"Omega", 937},    {"alpha", 945},    {"beta", 946},
    {"gamma", 947},   {"delta", 948},   {"epsilon", 949},  {"zeta", 950},     {"eta", 951},
    {"theta", 952},   {"iota", 953},    {"kappa", 954},    {"lambda", 955},   {"mu", 956},
    {"nu", 957},      {"xi", 958},      {"omicron", 959},  {"pi", 960},       {"rho", 961},
    {"sigmaf", 962},  {"sigma", 963},   {"tau", 964},      {"upsilon", 965},  {"phi", 966},
    {"chi", 967},     {"psi", 968},     {"omega", 969},    {"thetasym", 977}, {"upsih", 978},
    {"piv", 982},     {"ensp", 8194},   {"emsp", 8195},    {"thinsp", 8201},  {"zwnj", 8204},
    {"zwj", 8205},    {"lrm", 8206},    {"rlm", 8207},     {"ndash", 8211},   {"mdash", 8212},
    {"lsquo", 8216},  {"rsquo", 8217},  {"sbquo", 8218},   {"ldquo", 8220},   {"rdquo", 8221},
    {"bdquo", 8222},  {"dagger", 8224}, {"Dagger", 8225},  {"bull", 8226},    {"hellip", 8230},
    {"permil", 8240}, {"prime", 8242},  {"Prime", 8243},   {"lsaquo", 8249},  {"rsaquo", 8250},
    {"oline", 8254},  {"frasl", 8260},  {"euro", 8364},    {"image", 8465},   {"weierp", 8472},
    {"real", 8476},   {"trade", 8482},  {"alefsym", 8501}, {"larr", 8592},    {"uarr", 8593},
    {"rarr", 8594},   {"darr", 8595},   {"harr", 8596},    {"crarr", 8629},   {"lArr", 8656},
    {"uArr", 8657},   {"rArr", 8658},   {"dArr", 8659},    {"hArr", 8660},    {"forall", 8704},
    {"part", 8706},   {"exist", 8707},  {"empty", 8709},   {"nabla", 8711},   {"isin", 8712},
    {"notin", 8713},  {"ni", 8715},     {"prod", 8719},    {"sum", 8721},     {"minus", 8722},
    {"lowast", 8727}, {"radic", 8730},  {"prop", 8733},    {"infin", 8734},   {"ang", 8736},
    {"and", 8743},    {"or", 8744},     {"cap", 8745},     {"cup", 8746},     {"int", 8747},
    {"there4", 8756}, {"sim", 8764},    {"cong", 8773},    {"asymp", 8776},   {"ne", 8800},
    {"equiv", 8801},  {"le", 8804},     {"ge", 8805},      {"sub", 8834},     {"sup", 8835},
    {"nsub", 8836},   {"sube", 8838},   {"supe", 8839},    {"oplus", 8853},   {"otimes", 8855},
    {"perp", 8869},   {"sdot", 8901},   {"lceil", 8968},   {"rceil", 8969},   {"lfloor", 8970},
    {"rfloor", 8971}, {"lang", 9001},   {"rang", 9002},    {"loz", 9674},     {"spades", 9824},
    {"clubs", 9827},  {"hearts", 9829}, {"diams", 9830},
};

const std::unordered_map<std::string_view, char32_t>& entityByName() {
    static const auto map = [] {
        std::unordered_map<std::string_view, char32_t> m;
        for (auto& e : kEntities) m.emplace(e.name, e.code);
        return m;
    }();
    return map;
}

const std::unordered_map<char32_t, std::string_view>& entityByCode() {
    static const auto map = [] {
        std::unordered_map<char32_t, std::string_view> m;
        // "&apos;" is not HTML 4; an apostrophe is written numerically instead.
        for (auto& e : kEntities)
            if (e.code != 39) m.emplace(e.code, e.name);
        return m;
    }();
    return map;
}

std::string escapeHTML(std::string_view s, bool ascii) {
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size();) {
        std::size_t start = i;
        char32_t c = decodeUtf8(s, i);
        if (c == kInvalid) {
            out.append(s.substr(start, i - start));
            continue;
        }
        bool basic = c == '&' || c == '<' || c == '>' || c == '"' || c == '\'';
        if (basic || (ascii && c >= 0x80)) {
            auto& byCode = entityByCode();
            if (auto it = byCode.find(c); it != byCode.end()) {
                out += '&';
                out += it->second;
                out += ';';
            } else {
                out += "&#" + std::to_string(static_cast<std::uint32_t>(c)) + ";";
            }
            continue;
        }
        out.append(s.substr(start, i - start));
    }
    return out;
}

// Besides letters and digits: the unreserved characters of a URL, and those with the reserved.
constexpr std::string_view kUnreserved = "-._~";
constexpr std::string_view kUnreservedAndReserved = "-._~:/?#[]@!$&'()*+,;=";

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string percentDecode(std::string_view s, bool plusIsBlank) {
    std::string out;
    out.reserve(s.size());
    for (std::size_t i = 0; i < s.size(); ++i) {
        char c = s[i];
        if (c == '%' && i + 2 < s.size() && hexValue(s[i + 1]) >= 0 && hexValue(s[i + 2]) >= 0) {
            out += static_cast<char>(hexValue(s[i + 1]) * 16 + hexValue(s[i + 2]));
            i += 2;
        } else if (c == '+' && plusIsBlank) {
            out += ' ';
        } else {
            out += c;
        }
    }
    return out;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

std::string stringByDeletingLastPathComponentDirectly(std::string_view s) {
    auto pos = s.rfind('/');
    if (pos == std::string_view::npos) return std::string(s);
    return std::string(s.substr(0, pos));
}

std::string stringByAppendingPathComponentDirectly(std::string_view s, std::string_view component) {
    while (component.size() >= 2 && component.front() == '/') component.remove_prefix(1);
    std::string out(s);
    if (!s.ends_with('/')) out += '/';
    out += component;
    return out;
}

std::string stringByDeletingProtocolSymbol(std::string_view s) {
    auto pos = s.rfind("://");
    if (pos == std::string_view::npos) return std::string(s);
    return std::string(s.substr(pos + 3));
}

std::optional<std::string> relativePath(std::string_view s) {
    std::string rest = stringByDeletingProtocolSymbol(s);
    auto slash = rest.find('/');
    if (slash == std::string::npos) return std::nullopt;
    std::string path = rest.substr(slash);
    if (path.size() >= 2 && path.back() == '/') path.pop_back();
    return path;
}

std::string stringByDeletingAllPathExtensions(std::string_view s) {
    std::string out(s);
    while (!pathExtension(out).empty()) out = stringByDeletingPathExtension(out);
    return out;
}

std::string lastPathComponent(std::string_view s) {
    while (s.size() > 1 && s.back() == '/') s.remove_suffix(1);
    if (s == "/") return "/";
    auto pos = s.rfind('/');
    return std::string(pos == std::string_view::npos ? s : s.substr(pos + 1));
}

std::string stringByDeletingLastPathComponent(std::string_view s) {
    while (s.size() > 1 && s.back() == '/') s.remove_suffix(1);
    if (s == "/") return "/";
    auto pos = s.rfind('/');
    if (pos == std::string_view::npos) return "";
    s = s.substr(0, pos);
    while (s.size() > 1 && s.back() == '/') s.remove_suffix(1);
    if (s.empty()) return "/";
    return std::string(s);
}

std::string pathExtension(std::string_view s) {
    std::string name = lastPathComponent(s);
    auto dot = name.rfind('.');
    // A leading dot marks a hidden file, not an extension.
    if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return "";
    std::string ext = name.substr(dot + 1);
    if (ext.find_first_of(" /") != std::string::npos) return "";
    return ext;
}

std::string stringByDeletingPathExtension(std::string_view s) {
    while (s.size() > 1 && s.back() == '/') s.remove_suffix(1);
    std::string ext = pathExtension(s);
    if (ext.empty()) return std::string(s);
    return std::string(s.substr(0, s.size() - ext.size() - 1));
}

bool matchPattern(std::string_view s, std::string_view pattern) {
    try {
        std::regex re(dotMatchesAll(pattern), std::regex::ECMAScript);
        return std::regex_search(s.begin(), s.end(), re);
    } catch (const std::regex_error&) {
        return false;
    }
}

bool isEmpty(const std::optional<std::string>& s) {
    return !s || s->empty();
}

std::string trim(std::string_view s) {
    auto starts = charStarts(s);
    std::size_t first = 0, last = starts.size();
    auto charAt = [&](std::size_t k) {
        std::size_t i = starts[k];
        return decodeUtf8(s, i);
    };
    while (first < last && isTrimmable(charAt(first))) ++first;
    while (last > first && isTrimmable(charAt(last - 1))) --last;
    if (first == last) return "";
    std::size_t end = last == starts.size() ? s.size() : starts[last];
    return std::string(s.substr(starts[first], end - starts[first]));
}

std::string reversedString(std::string_view s) {
    auto starts = charStarts(s);
    std::string out;
    out.reserve(s.size());
    for (std::size_t k = starts.size(); k-- > 0;) {
        std::size_t end = k + 1 == starts.size() ? s.size() : starts[k + 1];
        out.append(s.substr(starts[k], end - starts[k]));
    }
    return out;
}

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.starts_with(prefix);
}

bool startsWithIgnoreCase(std::string_view s, std::string_view prefix) {
    return toLower(s).starts_with(toLower(prefix));
}

bool endsWith(std::string_view s, std::string_view suffix) {
    return s.ends_with(suffix);
}

bool endsWithIgnoreCase(std::string_view s, std::string_view suffix) {
    return toLower(s).ends_with(toLower(suffix));
}

bool contains(std::string_view s, std::string_view part) {
    return s.find(part) != std::string_view::npos;
}

bool containsIgnoreCase(std::string_view s, std::string_view part) {
    return toLower(s).find(toLower(part)) != std::string::npos;
}

std::size_t rangeOfStringIgnoreCase(std::string_view s, std::string_view part) {
    if (part.empty()) return std::string_view::npos;
    auto it = std::search(s.begin(), s.end(), part.begin(), part.end(),
                          [](char a, char b) { return asciiLower(a) == asciiLower(b); });
    if (it == s.end()) return std::string_view::npos;
    return static_cast<std::size_t>(it - s.begin());
}

long lastIndexOf(std::string_view s, std::string_view part) {
    auto pos = s.rfind(part);
    return pos == std::string_view::npos ? -1 : static_cast<long>(pos);
}

bool isEqualToStringIgnoreCase(std::string_view a, std::string_view b) {
    return toLower(a) == toLower(b);
}

std::string toLower(std::string_view s) {
    return mapChars(s, lowerChar);
}

std::string toUpper(std::string_view s) {
    return mapChars(s, upperChar);
}

std::string stringByEscapingForHTML(std::string_view s) {
    return escapeHTML(s, false);
}

std::string stringByEscapingForAsciiHTML(std::string_view s) {
    return escapeHTML(s, true);
}

std::string stringByUnescapingFromHTML(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    std::size_t i = 0;
    while (i < s.size()) {
        auto amp = s.find('&', i);
        if (amp == std::string_view::npos) break;
        out.append(s.substr(i, amp - i));
        auto semi = s.find(';', amp + 1);
        // Entity names are short; a far-away ";" belongs to ordinary text.
        if (semi == std::string_view::npos || semi - amp > 12) {
            out += '&';
            i = amp + 1;
            continue;
        }
        std::string_view body = s.substr(amp + 1, semi - amp - 1);
        std::optional<char32_t> code;
        if (body.size() >= 2 && body[0] == '#') {
            bool hex = body[1] == 'x' || body[1] == 'X';
            std::string_view digits = body.substr(hex ? 2 : 1);
            std::uint32_t v = 0;
            bool ok = !digits.empty() && digits.size() <= 8;
            for (char c : digits) {
                int d = hex ? hexValue(c) : (isDigit(c) ? c - '0' : -1);
                if (d < 0) {
                    ok = false;
                    break;
                }
                v = v * (hex ? 16 : 10) + static_cast<std::uint32_t>(d);
            }
            if (ok && v != 0 && v <= 0x10FFFF && !(v >= 0xD800 && v <= 0xDFFF)) code = v;
        } else {
            auto& byName = entityByName();
            if (auto it = byName.find(body); it != byName.end()) code = it->second;
        }
        if (code) {
            appendUtf8(out, *code);
            i = semi + 1;
        } else {
            out += '&';
            i = amp + 1;
        }
    }
    if (i < s.size()) out.append(s.substr(i));
    return out;
}

std::string percentEncode(std::string_view s, std::string_view kept) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(s.size());
    for (unsigned char c : s) {
        bool keep = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    kept.find(static_cast<char>(c)) != std::string_view::npos;
        if (keep) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
    }
    return out;
}

std::string stringByEscapingForURL(std::string_view s) {
    return percentEncode(s, kUnreservedAndReserved);
}

std::string stringByUnescapingFromURL(std::string_view s) {
    return percentDecode(s, false);
}

std::string stringByEscapingForURLArgument(std::string_view s) {
    return percentEncode(s, kUnreserved);
}

std::string stringByUnescapingFromURLArgument(std::string_view s) {
    return percentDecode(s, true);
}

bool isValidUtf8(std::string_view s) {
    for (std::size_t i = 0; i < s.size();)
        if (decodeUtf8(s, i) == kInvalid) return false;
    return true;
}

std::string_view utf8Prefix(std::string_view s, std::size_t maxBytes) {
    if (s.size() <= maxBytes) return s;
    std::size_t end = maxBytes;
    // Back off over continuation bytes to the start of the sequence that would be cut.
    while (end > 0 && (static_cast<unsigned char>(s[end]) & 0xC0) == 0x80) --end;
    return s.substr(0, end);
}

std::string escapedForDisplay(std::string_view s) {
    auto unprintable = [](char32_t c) {
        return c == kInvalid || c < 0x20 || (c >= 0x7F && c <= 0x9F);
    };
    bool any = false;
    for (std::size_t i = 0; i < s.size() && !any;) any = unprintable(decodeUtf8(s, i));
    if (!any) return std::string(s);

    enum class Quote { None, Plain, Dollar } quote = Quote::None;
    std::string out;
    auto switchTo = [&](Quote q) {
        if (quote == q) return;
        if (quote != Quote::None) out += '\'';
        if (q == Quote::Plain) out += '\'';
        if (q == Quote::Dollar) out += "$'";
        quote = q;
    };
    for (std::size_t i = 0; i < s.size();) {
        std::size_t start = i;
        char32_t c = decodeUtf8(s, i);
        if (!unprintable(c)) {
            switchTo(Quote::Plain);
            if (c == '\'')
                out += "'\\''";
            else
                out.append(s.substr(start, i - start));
            continue;
        }
        switchTo(Quote::Dollar);
        for (std::size_t k = start; k < i; ++k) {
            auto b = static_cast<unsigned char>(s[k]);
            switch (b) {
                case '\a':
                    out += "\\a";
                    break;
                case '\b':
                    out += "\\b";
                    break;
                case '\t':
                    out += "\\t";
                    break;
                case '\n':
                    out += "\\n";
                    break;
                case '\v':
                    out += "\\v";
                    break;
                case '\f':
                    out += "\\f";
                    break;
                case '\r':
                    out += "\\r";
                    break;
                default:
                    out += '\\';
                    out += static_cast<char>('0' + ((b >> 6) & 7));
                    out += static_cast<char>('0' + ((b >> 3) & 7));
                    out += static_cast<char>('0' + (b & 7));
                    break;
            }
        }
    }
    switchTo(Quote::None);
    return out;
}

int localizedStandardCompare(std::string_view a, std::string_view b) {
    std::size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            std::size_t ei = i, ej = j;
            while (ei < a.size() && isDigit(a[ei])) ++ei;
            while (ej < b.size() && isDigit(b[ej])) ++ej;
            std::string_view na = a.substr(i, ei - i), nb = b.substr(j, ej - j);
            // Compare by value: drop leading zeros, then a longer run is larger.
            while (na.size() > 1 && na.front() == '0') na.remove_prefix(1);
            while (nb.size() > 1 && nb.front() == '0') nb.remove_prefix(1);
            if (na.size() != nb.size()) return na.size() < nb.size() ? -1 : 1;
            if (int c = na.compare(nb); c != 0) return c < 0 ? -1 : 1;
            i = ei;
            j = ej;
            continue;
        }
        std::size_t si = i, sj = j;
        char32_t ca = decodeUtf8(a, i), cb = decodeUtf8(b, j);
        // Stray bytes compare by their byte value, after every valid character.
        std::uint64_t ka =
            ca == kInvalid ? 0x110000u + static_cast<unsigned char>(a[si]) : lowerChar(ca);
        std::uint64_t kb =
            cb == kInvalid ? 0x110000u + static_cast<unsigned char>(b[sj]) : lowerChar(cb);
        if (ka != kb) return ka < kb ? -1 : 1;
    }
    if (i < a.size()) return 1;
    if (j < b.size()) return -1;
    return 0;
}

}  // namespace quillon::StringUtils
