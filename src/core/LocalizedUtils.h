#pragma once
// Texts shown to the user, looked up by key in the English string table under resources/.

#include <initializer_list>
#include <string>
#include <string_view>

namespace quillon::LocalizedUtils {
// The table's text for `key`, or the key itself when the table has none.
std::string localizedStringForKey(std::string_view key, std::string_view comment = {});
// The table's text for `key` with each "%@" or "%d" filled by the next argument ("%%" is "%").
std::string localizedFormat(std::string_view key, std::initializer_list<std::string_view> args,
                            std::string_view comment = {});
}  // namespace quillon::LocalizedUtils
