#pragma once
// Text encodings by the platform's encoding numbers (as stored in "SERVER_ENCODING" and
// "Text Encoding"), converted with iconv.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Error.h"

namespace quillon::StringEncoding {

inline constexpr unsigned long UTF8 = 4;

struct Encoding {
    unsigned long number;    // the platform's encoding number
    std::string_view name;   // the usual name ("UTF-8", "GBK", "Shift_JIS", ...)
    std::string_view iconv;  // the iconv name
};
const std::vector<Encoding>& knownEncodings();

// The number of an encoding name (case, "-" and "_" ignored; "sjis", "latin1" and other usual
// aliases accepted) or of a number given as text.
std::optional<unsigned long> encodingNumberForName(std::string_view name);
// The iconv name of an encoding number.
std::optional<std::string> iconvNameForEncodingNumber(unsigned long number);
// The encoding of a "SERVER_ENCODING" value (a number as text); UTF-8 when empty or unknown.
unsigned long encodingFromProperty(const std::optional<std::string>& value);

// Converts UTF-8 text to the encoding, and bytes in the encoding to UTF-8. Fails on text that
// the target cannot hold or bytes that are not valid in the source.
Result<std::string> fromUtf8(std::string_view utf8, unsigned long encoding);
Result<std::string> toUtf8(std::string_view bytes, unsigned long encoding);

}  // namespace quillon::StringEncoding
