#pragma once
// The program's error value and the shared code space of every storage client.

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace quillon {

// What went wrong, whatever the client: callers decide on this instead of matching each
// client's own codes. The domain, code and reason stay as the client gives them.
enum class ErrorKind {
    Other,
    NotFound,
    AlreadyExists,
    PermissionDenied,
    Cancelled,
    Unsupported,
    NoSpace,
    Connection,
};

struct Error {
    std::string domain;
    long code = 0;
    std::string reason;
    ErrorKind kind = ErrorKind::Other;
    // The item the failure is about as a person names it ("py:/tree/a.txt", a local path); empty
    // when the failure is about no one item. Filled where the failure happens, where the item
    // is known: a folder's operation names the child that failed, not the folder.
    std::string item = {};
    // The server's own words, when it refused ("553 Prohibited file name: back\slash").
    std::string serverReply = {};
    // The request that reply answered, as sent ("STOR a.txt", never a password); recorded only
    // while KvError::recordRequests is on.
    std::string request = {};

    bool is(ErrorKind k) const { return kind == k; }

    // What a person reads, in every face of the program: the item, what failed, the server's
    // reply, then domain and code ("py:/a.txt: Permission denied; the server said \"550 No
    // such file\" (FTP 21)"); "reason (domain code)" when there is neither item nor reply.
    std::string describe() const;
    // The error about `name` unless it names an item already.
    Error about(const std::string& name) const& {
        Error e = *this;
        if (e.item.empty()) e.item = name;
        return e;
    }
    // The kind follows from the rest, so two errors are the same when domain, code and reason
    // are.
    bool operator==(const Error& other) const {
        return domain == other.domain && code == other.code && reason == other.reason;
    }
};

// A failure nobody looks at is a failure lost, so the compiler checks every call that returns
// one of these, whoever wrote the function. Dropping one on purpose takes a `(void)` and a
// comment saying why that is safe.
template <typename T>
class [[nodiscard]] Result : public std::expected<T, Error> {
  public:
    using Base = std::expected<T, Error>;
    using Base::Base;
    Result() = default;
    Result(const Base& other) : Base(other) {}
    Result(Base&& other) : Base(std::move(other)) {}
};
using Status = Result<void>;

namespace ErrorCode {
inline constexpr long NoPermission = 10001;    // local item cannot be opened for lack of permission
inline constexpr long TransferFailed = 10002;  // a transfer step failed
inline constexpr long DeleteFailed = 10003;    // delete failed
inline constexpr long MoveFailed = 10005;      // move or rename failed
inline constexpr long DownloadFailed = 10006;  // a client's synchronous download failed
inline constexpr long UploadFailed = 10007;    // a client's synchronous upload failed
inline constexpr long NotFound = 10008;        // item not found
inline constexpr long NoThumbnail = 10009;     // thumbnail could not be produced
inline constexpr long CrossCopyFailed = 10013;     // cross-server copy failed
inline constexpr long CreateFolderFailed = 10014;  // create folder failed
inline constexpr long CloudListFailed = 20001;     // listing or search of a cloud folder failed
inline constexpr long CloudCreateFailed = 20002;   // create on a cloud drive failed
inline constexpr long DragOutFailed = 20003;       // a dragged-out file could not be delivered
inline constexpr long GoogleDocs = 1001;           // the Google Drive client's own code
}  // namespace ErrorCode

namespace ErrorDomain {
inline constexpr std::string_view Local = "Local";
inline constexpr std::string_view FTP = "FTP";
inline constexpr std::string_view SFTP = "SFTP";
inline constexpr std::string_view SMB = "SMB";
inline constexpr std::string_view WebDAV = "WEBDAV";
inline constexpr std::string_view GoogleDrive = "GOOGLEDRIVE";
inline constexpr std::string_view OneDrive = "ONEDRIVE";
inline constexpr std::string_view Dropbox = "DROPBOX";
inline constexpr std::string_view Baidu = "BAIDU";  // also used by the Box client, on purpose
inline constexpr std::string_view FileTransfer = "File Transfer";
inline constexpr std::string_view FileSync = "File Sync";
inline constexpr std::string_view NearbyFileTransfer = "Nearby File Transfer";
inline constexpr std::string_view Generic = "Kv Generic";
inline constexpr std::string_view GoogleDocs = "GoogleDocs";
}  // namespace ErrorDomain

namespace KvError {
// Whether clients note the request each refusal answered (Error::request). Off by default: it
// costs a trace of every command; a face turns it on when the user asks for the details.
void recordRequests(bool on);
bool recordsRequests();

// An error with that domain, code and reason; its kind follows from the shared codes (10008 is
// NotFound), else Other.
Error errorWithDomain(std::string_view domain, long code, std::string_view reason);
// The same with an explicit kind.
Error errorWithDomain(std::string_view domain, long code, std::string_view reason, ErrorKind kind);
// Like errorWithDomain, but an absent reason yields no error at all (a missing library message
// means success).
std::optional<Error> errorWithDescription(const std::optional<std::string>& reason,
                                          std::string_view domain, long code);
// The same as an unexpected Status, for `return KvError::fail(...)`.
inline std::unexpected<Error> fail(std::string_view domain, long code, std::string_view reason) {
    return std::unexpected(errorWithDomain(domain, code, reason));
}
inline std::unexpected<Error> fail(std::string_view domain, long code, std::string_view reason,
                                   ErrorKind kind) {
    return std::unexpected(errorWithDomain(domain, code, reason, kind));
}
}  // namespace KvError

}  // namespace quillon
