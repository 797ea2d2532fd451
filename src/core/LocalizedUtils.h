#pragma once
// Texts shown to the user, looked up by key in the English string table under resources/.

#include <string>
#include <string_view>

namespace quillon::LocalizedUtils {
// The table's text for `key`, or the key itself when the table has none.
std::string localizedStringForKey(std::string_view key, std::string_view comment = {});
}  // namespace quillon::LocalizedUtils
