#include "core/Error.h"

#include <fmt/format.h>

#include <atomic>

#include "core/StringUtils.h"

namespace quillon {

std::string Error::describe() const {
    // Control characters in a name or a reply would act on a terminal: they are shown escaped.
    std::string text = item.empty() ? reason : StringUtils::escapedForDisplay(item) + ": " + reason;
    // Libraries often quote the reply code alone ("Failed FTP upload: 553"): the whole reply
    // says why.
    if (!serverReply.empty() && reason.find(serverReply) == std::string::npos)
        text +=
            fmt::format("; the server said \"{}\"", StringUtils::escapedForDisplay(serverReply));
    return fmt::format("{} ({} {})", text, domain, code);
}

namespace KvError {

namespace {
std::atomic<bool> recordingRequests{false};
}

void recordRequests(bool on) {
    recordingRequests = on;
}

bool recordsRequests() {
    return recordingRequests;
}

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
