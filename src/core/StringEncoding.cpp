#include "core/StringEncoding.h"

#include <fmt/format.h>
#include <iconv.h>

#include <cerrno>
#include <cstdlib>

namespace quillon::StringEncoding {

const std::vector<Encoding>& knownEncodings() {
    static const std::vector<Encoding> table = {
        {1, "ASCII", "ASCII"},
        {2, "NEXTSTEP", "NEXTSTEP"},
        {3, "EUC-JP", "EUC-JP"},
        {4, "UTF-8", "UTF-8"},
        {5, "ISO-8859-1", "ISO-8859-1"},
        {8, "Shift_JIS", "SHIFT_JIS"},
        {9, "ISO-8859-2", "ISO-8859-2"},
        {10, "UTF-16", "UTF-16"},
        {11, "Windows-1251", "CP1251"},
        {12, "Windows-1252", "CP1252"},
        {13, "Windows-1253", "CP1253"},
        {14, "Windows-1254", "CP1254"},
        {15, "Windows-1250", "CP1250"},
        {21, "ISO-2022-JP", "ISO-2022-JP"},
        {30, "MacRoman", "MACINTOSH"},
        {0x90000100, "UTF-16BE", "UTF-16BE"},
        {0x94000100, "UTF-16LE", "UTF-16LE"},
        {0x80000632, "GB18030", "GB18030"},
        {0x80000631, "GBK", "GBK"},
        {0x80000930, "GB2312", "EUC-CN"},
        {0x80000A03, "Big5", "BIG5"},
        {0x80000A06, "Big5-HKSCS", "BIG5-HKSCS"},
        {0x80000940, "EUC-KR", "EUC-KR"},
        {0x80000A02, "KOI8-R", "KOI8-R"},
        {0x80000A08, "KOI8-U", "KOI8-U"},
        {0x80000413, "CP866", "CP866"},
        {0x80000203, "ISO-8859-3", "ISO-8859-3"},
        {0x80000204, "ISO-8859-4", "ISO-8859-4"},
        {0x80000205, "ISO-8859-5", "ISO-8859-5"},
        {0x80000206, "ISO-8859-6", "ISO-8859-6"},
        {0x80000207, "ISO-8859-7", "ISO-8859-7"},
        {0x80000208, "ISO-8859-8", "ISO-8859-8"},
        {0x80000209, "ISO-8859-9", "ISO-8859-9"},
        {0x8000020F, "ISO-8859-15", "ISO-8859-15"},
        {0x80000505, "Windows-874", "CP874"},
        {0x80000504, "Windows-1257", "CP1257"},
        {0x80000506, "Windows-1255", "CP1255"},
        {0x80000507, "Windows-1256", "CP1256"},
        {0x80000508, "Windows-1258", "CP1258"},
    };
    return table;
}

namespace {
std::string squash(std::string_view s) {
    std::string out;
    for (char c : s) {
        if (c == '-' || c == '_' || c == ' ') continue;
        out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return out;
}
}  // namespace

std::optional<unsigned long> encodingNumberForName(std::string_view name) {
    if (name.empty()) return std::nullopt;
    std::string text(name);
    char* end = nullptr;
    unsigned long number = std::strtoul(text.c_str(), &end, 0);
    if (end && *end == '\0') {
        for (auto& e : knownEncodings())
            if (e.number == number) return number;
        return std::nullopt;
    }
    auto key = squash(name);
    static const std::vector<std::pair<std::string_view, std::string_view>> aliases = {
        {"utf8", "UTF-8"},          {"sjis", "Shift_JIS"},      {"shiftjis", "Shift_JIS"},
        {"cp932", "Shift_JIS"},     {"latin1", "ISO-8859-1"},   {"latin2", "ISO-8859-2"},
        {"cp1252", "Windows-1252"}, {"cp1251", "Windows-1251"}, {"cp936", "GBK"},
        {"euccn", "GB2312"},        {"big5", "Big5"},           {"ascii", "ASCII"},
        {"usascii", "ASCII"},       {"eucjp", "EUC-JP"},        {"euckr", "EUC-KR"},
        {"cp949", "EUC-KR"},        {"koi8r", "KOI8-R"},        {"macroman", "MacRoman"},
    };
    for (auto& [alias, canonical] : aliases)
        if (key == alias) key = squash(canonical);
    for (auto& e : knownEncodings())
        if (squash(e.name) == key || squash(e.iconv) == key) return e.number;
    return std::nullopt;
}

std::optional<std::string> iconvNameForEncodingNumber(unsigned long number) {
    for (auto& e : knownEncodings())
        if (e.number == number) return std::string(e.iconv);
    return std::nullopt;
}

unsigned long encodingFromProperty(const std::optional<std::string>& value) {
    if (!value || value->empty()) return UTF8;
    auto n = encodingNumberForName(*value);
    return n ? *n : UTF8;
}

namespace {
Result<std::string> convert(std::string_view in, const std::string& from, const std::string& to) {
    iconv_t cd = iconv_open(to.c_str(), from.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1))
        return KvError::fail(
            ErrorDomain::Generic, -1,
            fmt::format("The encoding {} is not available here", from == "UTF-8" ? to : from));
    std::string out;
    std::string input(in);
    char* src = input.data();
    std::size_t srcLeft = input.size();
    char buf[4096];
    Result<std::string> result;
    while (true) {
        char* dst = buf;
        std::size_t dstLeft = sizeof buf;
        std::size_t rc = iconv(cd, srcLeft ? &src : nullptr, &srcLeft, &dst, &dstLeft);
        out.append(buf, static_cast<std::size_t>(dst - buf));
        if (rc != static_cast<std::size_t>(-1)) {
            if (srcLeft == 0) {
                // Flush any shift state.
                dst = buf;
                dstLeft = sizeof buf;
                iconv(cd, nullptr, nullptr, &dst, &dstLeft);
                out.append(buf, static_cast<std::size_t>(dst - buf));
                result = out;
                break;
            }
            continue;
        }
        if (errno == E2BIG) continue;
        result = KvError::fail(ErrorDomain::Generic, -1,
                               fmt::format("The name cannot be converted from {} to {}", from, to));
        break;
    }
    iconv_close(cd);
    return result;
}
}  // namespace

Result<std::string> fromUtf8(std::string_view utf8, unsigned long encoding) {
    if (encoding == UTF8) return std::string(utf8);
    auto name = iconvNameForEncodingNumber(encoding);
    if (!name)
        return KvError::fail(ErrorDomain::Generic, -1,
                             fmt::format("Unknown encoding {}", encoding));
    return convert(utf8, "UTF-8", *name);
}

Result<std::string> toUtf8(std::string_view bytes, unsigned long encoding) {
    if (encoding == UTF8) return std::string(bytes);
    auto name = iconvNameForEncodingNumber(encoding);
    if (!name)
        return KvError::fail(ErrorDomain::Generic, -1,
                             fmt::format("Unknown encoding {}", encoding));
    return convert(bytes, *name, "UTF-8");
}

}  // namespace quillon::StringEncoding
