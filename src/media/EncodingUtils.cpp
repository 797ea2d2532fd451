#include "media/EncodingUtils.h"

#include <iconv.h>
#include <uchardet/uchardet.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>

#include "core/AppPreference.h"
#include "core/StringEncoding.h"

namespace quillon::EncodingUtils {

namespace {

Error encodingError(std::string reason) {
    return KvError::errorWithDomain(ErrorDomain::Local, ErrorCode::TransferFailed, reason);
}

std::string_view withoutBom(std::string_view bytes) {
    if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
    return bytes;
}

Result<std::string> readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return std::unexpected(KvError::errorWithDomain(ErrorDomain::Local, ErrorCode::NotFound,
                                                        "File not found!", ErrorKind::NotFound));
    std::ostringstream out;
    out << in.rdbuf();
    if (in.bad()) return std::unexpected(encodingError("Cannot read " + path + "."));
    return out.str();
}

}  // namespace

bool isValidUtf8(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        std::size_t n;
        std::uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            n = 1, cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            n = 2, cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            n = 3, cp = c & 0x07;
        } else {
            return false;
        }
        if (i + n >= s.size()) return false;
        for (std::size_t k = 1; k <= n; ++k) {
            auto d = static_cast<unsigned char>(s[i + k]);
            if ((d & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (d & 0x3F);
        }
        static constexpr std::uint32_t minimum[] = {0, 0x80, 0x800, 0x10000};
        if (cp < minimum[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += n + 1;
    }
    return true;
}

std::optional<std::string> detectEncoding(std::string_view bytes) {
    if (isValidUtf8(bytes)) return "UTF-8";
    uchardet_t detector = uchardet_new();
    std::optional<std::string> found;
    if (uchardet_handle_data(detector, bytes.data(), bytes.size()) == 0) {
        uchardet_data_end(detector);
        std::string name = uchardet_get_charset(detector);
        if (!name.empty() && name != "ASCII") found = name;
    }
    uchardet_delete(detector);
    return found;
}

std::optional<std::string> detectFileEncoding(const std::string& path) {
    auto bytes = readAll(path);
    if (!bytes) return std::nullopt;
    return detectEncoding(*bytes);
}

Result<std::string> convertToUtf8(std::string_view bytes, const std::string& iconvName) {
    iconv_t cd = ::iconv_open("UTF-8", iconvName.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1))
        return std::unexpected(encodingError("Unknown text encoding " + iconvName + "."));
    std::string out(bytes.size() * 4 + 16, '\0');
    char* in = const_cast<char*>(bytes.data());
    std::size_t inLeft = bytes.size();
    char* to = out.data();
    std::size_t toLeft = out.size();
    std::size_t r = ::iconv(cd, &in, &inLeft, &to, &toLeft);
    int err = errno;
    ::iconv_close(cd);
    if (r == static_cast<std::size_t>(-1) || inLeft != 0)
        return std::unexpected(encodingError("The text is not valid " + iconvName +
                                             (err == EILSEQ ? " (invalid bytes)." : ".")));
    out.resize(out.size() - toLeft);
    return out;
}

Result<std::string> stringWithAutomaticEncoding(std::string_view bytes) {
    auto chosen = AppPreference::sharedAppPreference().stringForKey(PrefKey::TextEncoding);
    std::optional<std::string> iconvName;
    if (!chosen.empty()) {
        if (auto number = StringEncoding::encodingNumberForName(chosen))
            iconvName = StringEncoding::iconvNameForEncodingNumber(*number);
        if (!iconvName) iconvName = chosen;  // an iconv name as it is
    } else {
        iconvName = detectEncoding(withoutBom(bytes));
    }
    if (!iconvName || *iconvName == "UTF-8") {
        if (!isValidUtf8(withoutBom(bytes)))
            return std::unexpected(encodingError("The text's encoding cannot be recognised."));
        return std::string(withoutBom(bytes));
    }
    return convertToUtf8(bytes, *iconvName);
}

Result<std::string> stringFromLocalFileWithAutomaticEncoding(const std::string& path) {
    auto bytes = readAll(path);
    if (!bytes) return std::unexpected(bytes.error());
    return stringWithAutomaticEncoding(*bytes);
}

}  // namespace quillon::EncodingUtils
