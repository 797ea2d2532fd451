#pragma once
// WebdavWrapper: the Wrapper of WebDAV servers (both WebDAV kinds), over libcurl with libxml2
// reading the PROPFIND replies. Listings ask for one level at a time (Depth: 1), so servers that
// refuse "Depth: infinity" are served too. Basic and Digest authentication, http and https.
// Errors are of domain "WEBDAV".

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "core/KvConnectionPool.h"
#include "core/Wrapper.h"

typedef void CURL;

namespace quillon {

namespace WebdavProp {
// "YES" when the server is reached over https (also given by an "https://" or "davs://" address).
inline constexpr std::string_view HTTPS = "WEBDAV_HTTPS";
}  // namespace WebdavProp

// One libcurl handle: its connection stays open between requests to the same server.
class WebdavConnection : public KvConnection {
  public:
    WebdavConnection();
    ~WebdavConnection() override;
    void cleanup() override;
    CURL* curl = nullptr;
};

class WebdavWrapper : public Wrapper {
  public:
    explicit WebdavWrapper(ServerInfoPtr serverInfo);
    ~WebdavWrapper() override;

    WrapperCapabilities capabilities() const override;
    std::string_view errorDomain() const override { return ErrorDomain::WebDAV; }

    // A PROPFIND of the top folder.
    [[nodiscard]] Status signInSync() override;
    void signOut() override {}
    [[nodiscard]] Result<KvMetadataList> contentsOfDirectoryAtPathSync(
        const KvMetadata& folder) override;
    // PROPFIND with Depth: 0.
    [[nodiscard]] Result<KvMetadata> metadataOfItemSync(const KvMetadata& item) override;
    // GET into `saveTo`, taken up again with a Range after a broken connection. A file that did
    // not arrive whole is removed.
    [[nodiscard]] Status downloadSync(const KvMetadata& file, const std::string& saveTo,
                                      const ProgressHandler& progress) override;
    [[nodiscard]] Status uploadSync(const KvMetadata& localFile, const KvMetadata& toFolder,
                                    const ProgressHandler& progress) override;
    // MOVE; never over an existing item (Overwrite: F).
    [[nodiscard]] Status moveSync(const KvMetadata& item, const KvMetadata& to) override;
    // DELETE (the server removes a folder with its contents).
    [[nodiscard]] Status removeSync(const KvMetadataList& items) override;
    // MKCOL.
    [[nodiscard]] Status createFolderSync(const KvMetadata& folder) override;
    // COPY on the server; never over an existing item.
    [[nodiscard]] Status copySync(const KvMetadata& item, const KvMetadata& to);
    // The "PATH" setting, "/" when it is empty.
    KvMetadata rootFolder() override;

    [[nodiscard]] Status initStreamFileMeta(const KvMetadata& file) override;
    [[nodiscard]] Result<Bytes> readDataOfLength(std::uint64_t length) override;
    [[nodiscard]] Status readDataFromOffsetToEnd(
        std::int64_t start, const std::function<bool(const Bytes&)>& handler) override;

    // The records of a PROPFIND reply (a multistatus document) for the folder `folderPath`: the
    // folder's own entry is left out; hidden names only with `includeHidden`. Fails on a reply
    // that is not such a document. Public for tests and the benchmark.
    static Result<KvMetadataList> parseMultistatus(const std::string& xml,
                                                   const std::string& folderPath,
                                                   bool includeHidden, const std::string& serverID,
                                                   bool keepSelf = false);
    // The path percent-escaped for a URL, each segment on its own ("/" kept).
    static std::string escapePath(const std::string& path);
    static std::string unescape(const std::string& text);

    // How many times a broken download is taken up again, and the pause before each attempt.
    void setRetries(int attempts, std::chrono::milliseconds pause) {
        maxAttempts_ = attempts;
        retryPause_ = pause;
    }

    // One request's reply: status, body (unless streamed elsewhere), libcurl's result.
    struct Reply {
        long status = 0;
        int curlCode = 0;
        std::string body;
        std::string curlMessage;
    };
    struct Request {
        std::string method = "GET";
        std::string path;  // server path; a trailing "/" is kept
        std::vector<std::string> headers;
        std::string body;             // sent when not empty
        std::FILE* upload = nullptr;  // sent instead of `body`
        std::int64_t uploadSize = -1;
        std::function<bool(const char*, std::size_t)> sink;  // receives the body when set
        ProgressHandler progress;                            // bytes of the body, either way
        bool noBody = false;
    };
    Reply perform(const Request& request);

  private:
    std::string baseUrl() const;
    std::string urlOf(const std::string& path) const;
    // The error of a reply: the status mapped to the shared codes (`code` for those without
    // their own), or libcurl's failure.
    Error errorOf(const Reply& reply, long code, std::string_view what) const;
    Error cancelledError() const;
    Result<KvMetadataList> propfind(const std::string& path, bool depthZero);
    bool includesHiddenFiles() const;
    Status readRange(std::uint64_t from, std::optional<std::uint64_t> length,
                     const std::function<bool(const Bytes&)>& handler);

    std::optional<KvMetadata> streamFile_;
    int maxAttempts_ = 10;
    std::chrono::milliseconds retryPause_{1000};
};

}  // namespace quillon
