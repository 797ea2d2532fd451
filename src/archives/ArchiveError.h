#pragma once
// The errors of archive creation and extraction: domain "Archive", one code per message the
// user sees, and the title each one is shown under.

#include <initializer_list>
#include <string>
#include <string_view>

#include "core/Error.h"

namespace quillon {

namespace ErrorDomain {
inline constexpr std::string_view Archive = "Archive";
}

namespace ArchiveErrorCode {
inline constexpr long NeedPassword = 30001;       // "Need Password"
inline constexpr long IncorrectPassword = 30002;  // "Incorrect Password"
inline constexpr long NotZip = 30003;             // "Failed to unzip"
inline constexpr long NotRar = 30004;             // "Failed to unrar"
inline constexpr long RarEncrypted = 30005;       // "Failed to unrar"
inline constexpr long Bad7z = 30006;              // "Need Password or Bad File"
inline constexpr long NotGzip = 30007;            // "Failed", as every code below
inline constexpr long NotBzip2 = 30008;
inline constexpr long UntarFailed = 30009;
inline constexpr long UnsafeEntry = 30010;     // an entry would land outside its folder
inline constexpr long TooLarge = 30011;        // expansion ratio or entry count over the limits
inline constexpr long NoSpace = 30012;         // free space below the reserve
inline constexpr long Cancelled = 30013;       // cancelOperation
inline constexpr long Unsupported = 30014;     // not an extension we extract
inline constexpr long WriteFailed = 30015;     // the output could not be written
inline constexpr long CompressFailed = 30016;  // a zip could not be made
}  // namespace ArchiveErrorCode

namespace ArchiveError {
// An "Archive" error whose reason is the table's text for `key`, each "%@" filled in order.
Error make(long code, std::string_view key, std::initializer_list<std::string_view> args = {});
// The title an archive error is shown under ("Need Password", "Failed to unzip", ...); "Failed"
// for any other error.
std::string title(const Error& error);
}  // namespace ArchiveError

}  // namespace quillon
