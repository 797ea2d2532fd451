#include "core/Error.h"

#include <fmt/format.h>

namespace quillon {

std::string Error::describe() const {
    return fmt::format("{} ({} {})", reason, domain, code);
}

namespace KvError {

Error errorWithDomain(std::string_view domain, long code, std::string_view reason) {
    return errorWithDomain(domain, code, reason,
                           code == ErrorCode::NotFound ? ErrorKind::NotFound : ErrorKind::Other);
}

Error errorWithDomain(std::string_view domain, long code, std::string_view reason, ErrorKind kind) {
    return Error{std::string(domain), code, std::string(reason), kind};
}

std::optional<Error> errorWithDescription(const std::optional<std::string>& reason,
                                          std::string_view domain, long code) {
    if (!reason) return std::nullopt;
    return errorWithDomain(domain, code, *reason);
}

}  // namespace KvError
}  // namespace quillon
