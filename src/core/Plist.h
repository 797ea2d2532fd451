#pragma once
// Property-list values and their XML form (the format of "pref.plist", "ftp_commands.plist",
// the string table and archived records), read and written with libxml2.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "core/Error.h"

namespace quillon {

struct PlistValue;
using PlistArray = std::vector<PlistValue>;
using PlistDict = std::map<std::string, PlistValue>;
using PlistData = std::vector<std::uint8_t>;
using PlistDate = std::chrono::system_clock::time_point;

struct PlistValue {
    using Variant = std::variant<bool, std::int64_t, double, std::string, PlistDate, PlistData,
                                 PlistArray, PlistDict>;
    Variant value;

    PlistValue() : value(std::string()) {}
    PlistValue(bool b) : value(b) {}
    PlistValue(int i) : value(std::int64_t{i}) {}
    PlistValue(long i) : value(std::int64_t{i}) {}
    PlistValue(long long i) : value(std::int64_t{i}) {}
    PlistValue(unsigned long i) : value(static_cast<std::int64_t>(i)) {}
    PlistValue(unsigned long long i) : value(static_cast<std::int64_t>(i)) {}
    PlistValue(double d) : value(d) {}
    PlistValue(const char* s) : value(std::string(s)) {}
    PlistValue(std::string s) : value(std::move(s)) {}
    PlistValue(PlistDate d) : value(d) {}
    PlistValue(PlistData d) : value(std::move(d)) {}
    PlistValue(PlistArray a) : value(std::move(a)) {}
    PlistValue(PlistDict d) : value(std::move(d)) {}

    template <typename T>
    bool is() const {
        return std::holds_alternative<T>(value);
    }
    template <typename T>
    const T* get() const {
        return std::get_if<T>(&value);
    }

    // Boolean reading as the platform does: numbers are true when non-zero, strings when they
    // read "YES", "TRUE" or a non-zero number.
    bool toBool() const;
    // Integer reading: numbers truncated, strings parsed (0 when not a number).
    std::int64_t toInteger() const;
    double toDouble() const;
    // Text form: strings as they are, numbers printed, booleans "1"/"0".
    std::string toString() const;

    bool operator==(const PlistValue&) const = default;
};

namespace Plist {
// The XML property-list document of a value.
std::string toXml(const PlistValue& root);
// Parses an XML property list; fails with a clear reason on malformed input.
Result<PlistValue> fromXml(std::string_view xml);
Result<PlistValue> readFile(const std::string& path);
// Writes atomically: a temporary file beside the target, flushed, then renamed over it.
Status writeFile(const std::string& path, const PlistValue& root, unsigned mode = 0644);
}  // namespace Plist

}  // namespace quillon
