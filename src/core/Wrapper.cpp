#include "core/Wrapper.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "core/GCD.h"
#include "core/StreamingSupport.h"
#include "core/StringUtils.h"
#include "core/ThumbnailSupport.h"

namespace quillon {

Wrapper::Wrapper(ServerInfoPtr serverInfo) : serverInfo_(std::move(serverInfo)) {
    if (!serverInfo_) serverInfo_ = std::make_shared<ServerInfo>();
}

namespace {
std::atomic<bool> gEveryOperationCancelled{false};
}  // namespace

void Wrapper::cancelEveryOperation() {
    gEveryOperationCancelled = true;
}

bool Wrapper::everyOperationCancelled() {
    return gEveryOperationCancelled.load(std::memory_order_relaxed);
}

std::int64_t ProgressThrottle::stepsFor(std::int64_t total) {
    return total > 524288000 ? 1000 : 100;
}

void ProgressThrottle::report(std::int64_t done, std::int64_t total) {
    if (!handler_ || total <= 0) return;
    std::int64_t now = stepsFor(total) * done / total;
    if (now == step_) return;
    step_ = now;
    GCD::doInForeground([handler = handler_, done, total] { handler(done, total); });
}

void ProgressThrottle::finish(std::int64_t done, std::int64_t total) {
    if (!handler_ || step_ == stepsFor(total)) return;
    step_ = stepsFor(total);
    GCD::doInForeground([handler = handler_, done, total] { handler(done, total); });
}

Status Wrapper::downloadThumbnailSync(const KvMetadata& item) {
    if (item.isDir)
        return KvError::fail(thumbnailErrorDomain(), ErrorCode::NoThumbnail,
                             "Folder has no thumbnail.");
    auto made = ThumbnailSupport::downloadThumbnailSync(*this, item);
    if (!made && made.error().code == ErrorCode::NoThumbnail &&
        made.error().domain == ErrorDomain::Local)
        made.error().domain = std::string(thumbnailErrorDomain());
    return made;
}

std::optional<std::string> Wrapper::loadStreamableURLForFileSync(const KvMetadata& file) {
    std::string path = file.pathOrEmpty();
    while (!path.empty() && path.front() == '/') path.erase(0, 1);
    return StreamingSupport::streamableURL(serverInfo(), file, path);
}

Error Wrapper::localWriteError(long code, const std::string& path, int err) const {
    return KvError::errorWithDomain(errorDomain(), code,
                                    fmt::format("Cannot write {}: {}", path, std::strerror(err)),
                                    err == ENOSPC ? ErrorKind::NoSpace : ErrorKind::Other);
}

Error Wrapper::unsupported(std::string_view operation) const {
    return KvError::errorWithDomain(ErrorDomain::Generic, -1,
                                    fmt::format("{} is not supported by this server", operation),
                                    ErrorKind::Unsupported);
}

Result<KvMetadata> Wrapper::metadataOfItemSync(const KvMetadata& item) {
    const std::string path = item.pathOrEmpty();
    auto parent = StringUtils::stringByDeletingLastPathComponentDirectly(path);
    if (path.empty() || path == "/" || parent == path) return rootFolder();
    // A new string rather than an assignment: GCC 12 warns wrongly (-Wrestrict) on the latter.
    const std::string parentPath = parent.empty() ? std::string("/") : parent;
    KvMetadata folder(parentPath);
    folder.isDir = true;
    folder.serverID = item.serverID;
    folder.protocolType = item.protocolType;
    if (item.protocolType == ProtocolType::Local) folder.localPath = parentPath;
    bool wasForced = forceIncludesHiddenFiles();
    setForceIncludesHiddenFiles(true);
    auto listing = contentsOfDirectoryAtPathSync(folder);
    setForceIncludesHiddenFiles(wasForced);
    auto missing = [&] {
        return KvError::fail(errorDomain(), ErrorCode::NotFound, "File not found!",
                             ErrorKind::NotFound);
    };
    // A missing parent is a missing item, reported the same way.
    if (!listing)
        return listing.error().is(ErrorKind::NotFound) ? missing()
                                                       : std::unexpected(listing.error());
    auto name = StringUtils::lastPathComponent(path);
    for (auto& entry : *listing) {
        if (entry.nameIgnoreLinkResolve().value_or("") == name ||
            StringUtils::lastPathComponent(entry.pathOrEmpty()) == name) {
            entry.setPath(path);
            return entry;
        }
    }
    return missing();
}

Status Wrapper::initStreamFileMeta(const KvMetadata&) {
    return std::unexpected(unsupported("Streaming"));
}
Result<Bytes> Wrapper::readDataOfLength(std::uint64_t) {
    return std::unexpected(unsupported("Streaming"));
}
Status Wrapper::readDataFromOffsetToEnd(std::int64_t, const std::function<bool(const Bytes&)>&) {
    return std::unexpected(unsupported("Reading to the end"));
}
Status Wrapper::moveItemsSync(const KvMetadataList&, const KvMetadata&) {
    return std::unexpected(unsupported("Moving several items at once"));
}
Status Wrapper::searchSync(const KvMetadata&, const std::string&,
                           const std::function<void(const KvMetadataList&)>&) {
    return std::unexpected(unsupported("Search"));
}

void Wrapper::deliverCompletion(std::function<void()> fn) {
    GCD::doInForeground(std::move(fn));
}

void Wrapper::runAsync(std::function<std::optional<Error>()> work, CompletionHandler complete) {
    // The queued work holds the client alive until its completion has run.
    auto self = shared_from_this();
    GCD::doInBackground([self, work = std::move(work), complete = std::move(complete)] {
        auto error = work();
        self->deliverCompletion([self, complete, error] {
            if (complete) complete(error);
        });
    });
}

namespace {
std::optional<Error> errorOf(const Status& s) {
    if (s) return std::nullopt;
    return s.error();
}
}  // namespace

void Wrapper::signIn(CompletionHandler complete) {
    runAsync([this] { return errorOf(signInSync()); }, std::move(complete));
}

Status Wrapper::contentsOfDirectoryAtPathInBatches(const KvMetadata& folder,
                                                   const ListingBatchHandler& batch) {
    auto listing = contentsOfDirectoryAtPathSync(folder);
    if (!listing) return std::unexpected(listing.error());
    batch(std::move(*listing));
    return {};
}

void Wrapper::contentsOfDirectoryAtPath(const KvMetadata& folder, ListingHandler complete) {
    auto self = shared_from_this();
    GCD::doInBackground([self, folder, complete = std::move(complete)] {
        auto result =
            std::make_shared<Result<KvMetadataList>>(self->contentsOfDirectoryAtPathSync(folder));
        self->deliverCompletion([self, complete, result] {
            if (complete) complete(std::move(*result));
        });
    });
}

void Wrapper::download(const KvMetadata& file, const std::string& saveTo,
                       CompletionHandler complete, ProgressHandler progress) {
    runAsync(
        [this, file, saveTo, progress] { return errorOf(downloadSync(file, saveTo, progress)); },
        std::move(complete));
}

void Wrapper::upload(const KvMetadata& localFile, const KvMetadata& toFolder,
                     CompletionHandler complete, ProgressHandler progress) {
    runAsync([this, localFile, toFolder,
              progress] { return errorOf(uploadSync(localFile, toFolder, progress)); },
             std::move(complete));
}

void Wrapper::move(const KvMetadata& item, const KvMetadata& to, CompletionHandler complete) {
    runAsync([this, item, to] { return errorOf(moveSync(item, to)); }, std::move(complete));
}

void Wrapper::remove(const KvMetadataList& items, CompletionHandler complete) {
    runAsync([this, items] { return errorOf(removeSync(items)); }, std::move(complete));
}

void Wrapper::downloadThumbnail(const KvMetadata& item, CompletionHandler complete) {
    runAsync([this, item] { return errorOf(downloadThumbnailSync(item)); }, std::move(complete));
}

void Wrapper::createFolder(const KvMetadata& folder, CompletionHandler complete) {
    runAsync([this, folder] { return errorOf(createFolderSync(folder)); }, std::move(complete));
}

void Wrapper::moveItems(const KvMetadataList& items, const KvMetadata& toFolder,
                        CompletionHandler complete) {
    runAsync([this, items, toFolder] { return errorOf(moveItemsSync(items, toFolder)); },
             std::move(complete));
}

void Wrapper::search(const KvMetadata& folder, const std::string& keyword,
                     CompletionHandler complete,
                     std::function<void(const KvMetadataList&)> update) {
    runAsync(
        [this, folder, keyword, update] { return errorOf(searchSync(folder, keyword, update)); },
        std::move(complete));
}

}  // namespace quillon
