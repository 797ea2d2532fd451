#include "archives/ArchiveError.h"

#include "core/LocalizedUtils.h"

namespace quillon::ArchiveError {

Error make(long code, std::string_view key, std::initializer_list<std::string_view> args) {
    return KvError::errorWithDomain(ErrorDomain::Archive, code,
                                    LocalizedUtils::localizedFormat(key, args));
}

std::string title(const Error& error) {
    std::string_view key = "archive.failed.title";
    if (error.domain == ErrorDomain::Archive) {
        switch (error.code) {
            case ArchiveErrorCode::NeedPassword:
                key = "archive.need_password.title";
                break;
            case ArchiveErrorCode::IncorrectPassword:
                key = "archive.incorrect_password.title";
                break;
            case ArchiveErrorCode::NotZip:
                key = "archive.not_zip.title";
                break;
            case ArchiveErrorCode::NotRar:
            case ArchiveErrorCode::RarEncrypted:
                key = "archive.not_rar.title";
                break;
            case ArchiveErrorCode::Bad7z:
                key = "archive.bad_7z.title";
                break;
            default:
                break;
        }
    }
    return LocalizedUtils::localizedStringForKey(key);
}

}  // namespace quillon::ArchiveError
