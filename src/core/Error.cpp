#include "core/Error.h"

#include <fmt/format.h>

namespace quillon {

std::string Error::describe() const {
    return fmt::format("{} ({} {})", reason, domain, code);
}

namespace KvError {

Error errorWithDomain(std::string_view domain, long code, std::string_view reason) {
    return Error{std::string(domain), code, std::string(reason)};
}

std::optional<Error> errorWithDescription(const std::optional<std::string>& reason,
                                          std::string_view domain, long code) {
    if (!reason) return std::nullopt;
    return errorWithDomain(domain, code, *reason);
}

}  // namespace KvError
}  // namespace quillon
