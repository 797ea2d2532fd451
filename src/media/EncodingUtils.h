#pragma once
// Reading text files whose encoding nobody recorded (playlists, CUE sheets).

#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"

namespace quillon::EncodingUtils {

// Whether the bytes are well-formed UTF-8 (no overlong forms, no surrogates).
bool isValidUtf8(std::string_view bytes);
// The iconv name of the bytes' encoding: "UTF-8" for valid UTF-8 (checked first, because the
// detector misreads short Western texts), else what uchardet finds; absent when it finds nothing.
std::optional<std::string> detectEncoding(std::string_view bytes);
// The same for a file's contents.
std::optional<std::string> detectFileEncoding(const std::string& path);
// Bytes in the iconv encoding as UTF-8. Fails on bytes that are not valid in it.
Result<std::string> convertToUtf8(std::string_view bytes, const std::string& iconvName);
// The file's text as UTF-8: in the encoding of the "Text Encoding" preference when it holds one,
// else in the detected encoding. A UTF-8 byte-order mark is dropped. Fails when the file cannot
// be read or its bytes do not fit the encoding.
Result<std::string> stringFromLocalFileWithAutomaticEncoding(const std::string& path);
// The same for bytes already read.
Result<std::string> stringWithAutomaticEncoding(std::string_view bytes);

}  // namespace quillon::EncodingUtils
