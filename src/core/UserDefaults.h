#pragma once
// UserDefaults: the platform's standard user-defaults domain, on Linux the small property list
// "defaults.plist" in the data folder. It holds the few settings kept outside "pref.plist".

#include <optional>
#include <string>
#include <string_view>

#include "core/Error.h"
#include "core/Plist.h"

namespace quillon {

class UserDefaults {
  public:
    // The defaults of the current data folder, read now.
    static UserDefaults standardUserDefaults();
    // The defaults kept in `path` (read now; a missing or unreadable file is empty).
    explicit UserDefaults(std::string path);

    std::optional<PlistValue> objectForKey(std::string_view key) const;
    bool boolForKey(std::string_view key) const;
    void setObject(PlistValue value, std::string_view key);
    void removeObjectForKey(std::string_view key);
    // Writes the file atomically, readable by the user only.
    [[nodiscard]] Status synchronize();
    const std::string& path() const { return path_; }

  private:
    std::string path_;
    PlistDict values_;
};

}  // namespace quillon
