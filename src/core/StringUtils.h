#pragma once
// String operations used everywhere. Remote paths are plain text with "/" as separator: the
// "Directly" operations work on the text alone and never normalise it.

#include <optional>
#include <string>
#include <string_view>

namespace quillon::StringUtils {

// Text before the last "/", or the text unchanged when it has none ("/a" gives "").
std::string stringByDeletingLastPathComponentDirectly(std::string_view s);
// receiver + "/" + component, with leading "/" of the component stripped (a lone "/" stays).
std::string stringByAppendingPathComponentDirectly(std::string_view s, std::string_view component);
// The last piece after "://", or the text unchanged.
std::string stringByDeletingProtocolSymbol(std::string_view s);
// The path part of a URL-like text without a trailing "/", or absent when there is none.
std::optional<std::string> relativePath(std::string_view s);
// Deletes path extensions while there is one ("a.tar.gz" gives "a").
std::string stringByDeletingAllPathExtensions(std::string_view s);
// The platform's path helpers, on text: last component, extension, deleting the extension.
std::string lastPathComponent(std::string_view s);
// The platform's parent of a path: trailing "/" ignored, "/a" gives "/", "a" gives "".
std::string stringByDeletingLastPathComponent(std::string_view s);
std::string pathExtension(std::string_view s);
std::string stringByDeletingPathExtension(std::string_view s);

// True when the ECMAScript regular expression matches somewhere ("." also matches line breaks);
// false on a pattern that does not compile.
bool matchPattern(std::string_view s, std::string_view pattern);
// Absent or of length 0.
bool isEmpty(const std::optional<std::string>& s);
inline bool isEmpty(std::string_view s) {
    return s.empty();
}
// White space and line breaks removed at both ends.
std::string trim(std::string_view s);
std::string reversedString(std::string_view s);

bool startsWith(std::string_view s, std::string_view prefix);
bool startsWithIgnoreCase(std::string_view s, std::string_view prefix);
bool endsWith(std::string_view s, std::string_view suffix);
bool endsWithIgnoreCase(std::string_view s, std::string_view suffix);
bool contains(std::string_view s, std::string_view part);
bool containsIgnoreCase(std::string_view s, std::string_view part);
// Position of `part` ignoring ASCII case, or npos.
std::size_t rangeOfStringIgnoreCase(std::string_view s, std::string_view part);
// Position of the last occurrence, or -1.
long lastIndexOf(std::string_view s, std::string_view part);
bool isEqualToStringIgnoreCase(std::string_view a, std::string_view b);
inline bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    return isEqualToStringIgnoreCase(a, b);
}
std::string toLower(std::string_view s);
std::string toUpper(std::string_view s);

// HTML escaping with the usual entity names; the ASCII form also escapes every non-ASCII
// character as a numeric entity.
std::string stringByEscapingForHTML(std::string_view s);
std::string stringByEscapingForAsciiHTML(std::string_view s);
// Named, decimal and hexadecimal entities back to text; unknown entities stay as they are.
std::string stringByUnescapingFromHTML(std::string_view s);

// Every byte but ASCII letters, digits and the characters of `kept` becomes "%XX".
std::string percentEncode(std::string_view s, std::string_view kept);
// Percent-encoding of a whole URL (keeps the URL's reserved characters) and of a query argument
// (escapes everything but unreserved characters).
std::string stringByEscapingForURL(std::string_view s);
std::string stringByUnescapingFromURL(std::string_view s);
std::string stringByEscapingForURLArgument(std::string_view s);
// Like stringByUnescapingFromURL, and "+" reads as a blank.
std::string stringByUnescapingFromURLArgument(std::string_view s);

// True when `s` is valid UTF-8.
bool isValidUtf8(std::string_view s);
// The longest start of `s` of at most `maxBytes` bytes that cuts no UTF-8 sequence in two.
std::string_view utf8Prefix(std::string_view s, std::size_t maxBytes);
// A name that holds control characters (C0, DEL, C1) or bytes that are not UTF-8 written as a
// shell would take it, as GNU ls does on a terminal: 'a'$'\n''b'. Other names come back as they
// are.
std::string escapedForDisplay(std::string_view s);
// Natural, case-insensitive comparison: digit runs compare by value ("a2" < "a10").
int localizedStandardCompare(std::string_view a, std::string_view b);

}  // namespace quillon::StringUtils
