#include "servers/streaming/StreamHttpServerService.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "core/GCD.h"
#include "core/PathUtils.h"
#include "core/StreamingSupport.h"
#include "servers/streaming/CachedDataReader.h"
#include "servers/streaming/DiskDataCache.h"
#include "servers/streaming/WebServerWrapperResponse.h"

namespace quillon {

namespace {

// libmicrohttpd asks for body bytes in blocks of at most this size.
constexpr std::size_t kBodyBlockSize = 1048576;
// A body that has caught up with the fetch writing its bytes is woken when this much more has
// arrived (or the body's rest, or the fetch ended): one wake-up per block fetched costs more
// than the copy.
constexpr std::uint64_t kWakeBatch = 262144;
// How long a body waits for a running fetch before it reads on its own, as the reader does.
constexpr auto kFetchWait = std::chrono::seconds(CachedDataReader::kWaitsForRunningFetch);

// Kinds whose files are streamed through their client (or, for local files, a descriptor).
bool streamedKind(std::int32_t type) {
    switch (type) {
        case ProtocolType::Local:
        case ProtocolType::GoogleDrive:
        case ProtocolType::SMB:
        case ProtocolType::WebDAV:
        case ProtocolType::FTP:
        case ProtocolType::WebDAV2:
        case ProtocolType::SFTP:
            return true;
        default:
            return false;
    }
}

// A body read from a file descriptor (a cached run, a playlist file); closes it unless handed on.
struct FileBody {
    int fd = -1;
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    FileBody() = default;
    FileBody(int f, std::uint64_t o, std::uint64_t l) : fd(f), offset(o), length(l) {}
    FileBody(FileBody&& other) noexcept
        : fd(std::exchange(other.fd, -1)), offset(other.offset), length(other.length) {}
    FileBody& operator=(FileBody&& other) noexcept {
        std::swap(fd, other.fd);
        offset = other.offset;
        length = other.length;
        return *this;
    }
    ~FileBody() {
        if (fd >= 0) ::close(fd);
    }
};

// What a request is answered with, worked out before the answer is queued.
struct Reply {
    int status = 500;
    std::string contentType;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string text;                                    // a short body
    std::optional<FileBody> file;                        // or a file's bytes
    std::shared_ptr<WebServerWrapperResponse> response;  // or a streamed body
    std::shared_ptr<CachedDataReader> reader;            // whose cache the body may come from
    std::string logTail;
};

Reply textReply(int status, std::string text) {
    Reply r;
    r.status = status;
    r.contentType = "text/plain; charset=utf-8";
    r.text = std::move(text);
    return r;
}

}  // namespace

// One request and its answer. Shared by libmicrohttpd's request slot, the body reader and the
// background work done for it; every change of the connection's suspension happens under its
// lock, so that it is resumed exactly once per suspension.
struct Exchange {
    StreamHttpServerService::Impl* impl = nullptr;
    MHD_Connection* connection = nullptr;
    int socketFd = -1;
    std::string method;
    std::string url;
    std::string rangeHeader;

    std::mutex mutex;
    bool suspended = false;
    bool cancelled = false;
    bool queued = false;
    bool completed = false;  // libmicrohttpd is done with the request (and may reuse the socket)
    std::optional<Reply> reply;
    bool jobRunning = false;
    bool eof = false;
    Bytes pending;
    std::size_t pendingPos = 0;
    // The cached run the body is being read from: media offsets [runStart, runEnd) at
    // runBase + (offset - runStart) in runFd.
    int runFd = -1;
    std::uint64_t runStart = 0;
    std::uint64_t runEnd = 0;
    std::uint64_t runBase = 0;
    // Parked until the running fetch has written up to wakeAt (see Impl::onWrite); a wait that
    // took too long is not repeated until the body moves on.
    bool waitingForWrite = false;
    bool waitGaveUp = false;
    std::uint64_t waitSerial = 0;  // tells this wait from the exchange's earlier ones
    std::uint64_t wakeAt = 0;
    std::chrono::steady_clock::time_point waitSince;

    ~Exchange() { closeRun(); }
    void closeRun() {
        if (runFd >= 0) ::close(runFd);
        runFd = -1;
    }
    // Copies body bytes the cache holds straight into `buf`; 0 when it holds none here.
    std::size_t readCachedLocked(char* buf, std::size_t max);

    void suspendLocked();
    void resumeLocked() {
        if (!suspended) return;
        suspended = false;
        MHD_resume_connection(connection);
    }
    // Ends the answer: the client's read stops and the connection is shut at once (a client that
    // reads slowly would otherwise get what the socket buffers hold first).
    void cancel(bool shutSocket = true) {
        std::lock_guard lock(mutex);
        if (cancelled) return;
        cancelled = true;
        if (reply && reply->response) reply->response->setCancelled(true);
        if (shutSocket && !completed && socketFd >= 0) ::shutdown(socketFd, SHUT_RDWR);
        resumeLocked();
    }
};

using ExchangePtr = std::shared_ptr<Exchange>;

struct StreamHttpServerService::Impl {
    explicit Impl(bool thumbnail)
        : forThumbnail(thumbnail),
          port(thumbnail ? StreamHttpServerService::kThumbnailPort
                         : StreamHttpServerService::kPlaybackPort) {}

    const bool forThumbnail;
    mutable std::mutex mutex;
    int port;
    MHD_Daemon* daemon = nullptr;
    int listenFd = -1;
    int boundPort = 0;
    bool stopping = false;
    ServerInfoPtr serverInfo;
    std::optional<KvMetadata> metadata;
    std::vector<std::weak_ptr<Exchange>> responseList;
    std::function<void(const std::string&)> logHandler;

    // Bodies parked until the running fetch brings their bytes.
    std::mutex waitMutex;
    std::vector<std::pair<std::weak_ptr<Exchange>, std::uint64_t>> writeWaiters;  // and serial
    int writeObserver = 0;

    // Parked connections are watched for clients that hang up (a player that seeked elsewhere),
    // so that their reads stop at once instead of fetching for nobody.
    std::thread watchdog;
    int wakeFd = -1;
    bool watchdogStop = false;
    // The watchdog looks at the parked connections every 100 ms anyway (bodies wait for a
    // fetch): one more parked needs no wake-up.
    std::atomic<bool> watchdogPolling{false};

    // Background work that uses this object; the destructor waits for it. A lock of its own:
    // work is started while an exchange's lock is held.
    std::mutex jobsMutex;
    int jobs = 0;
    std::condition_variable jobsDone;
    void runJob(std::function<void()> job) {
        {
            std::lock_guard lock(jobsMutex);
            ++jobs;
        }
        GCD::doInBackground([this, job = std::move(job)] {
            job();
            std::lock_guard lock(jobsMutex);
            if (--jobs == 0) jobsDone.notify_all();
        });
    }

    void log(const std::string& line) {
        std::function<void(const std::string&)> handler;
        {
            std::lock_guard lock(mutex);
            handler = logHandler;
        }
        if (handler) handler(line);
    }
    void wakeWatchdog() {
        if (wakeFd < 0) return;
        std::uint64_t one = 1;
        if (::write(wakeFd, &one, sizeof one) < 0) {
        }
    }
    Reply prepare(const Exchange& ex);
    void queue(const ExchangePtr& ex);
    void watch();
    // With the exchange's lock held, after a miss in the cache at the body's position: parks
    // the body until the running fetch writing just before it brings the bytes (the caller
    // suspends it). No when no fetch is about to; LookAgain when a write came in since
    // `seenWrites`.
    enum class FetchWait { No, Parked, LookAgain };
    FetchWait waitForFetch(const ExchangePtr& ex, std::uint64_t seenWrites);
    // A fetch wrote up to `writeEnd` or ended: wakes the bodies it brought enough for.
    void onWrite(std::uint64_t writeEnd, bool fetchEnded);
    // Wakes the bodies whose fetch ended or took too long; whether any still wait.
    bool expireWaits();
};

std::size_t Exchange::readCachedLocked(char* buf, std::size_t max) {
    auto& response = *reply->response;
    if (!reply->reader) return 0;
    std::uint64_t position = response.position();
    std::uint64_t left = response.leftbytes();
    if (left == 0) return 0;
    if (runFd < 0 || position < runStart || position >= runEnd) {
        closeRun();
        auto run = reply->reader->openCachedRun(position, 1);
        if (!run) return 0;
        runFd = run->fd;
        runStart = position;
        runEnd = position + run->available;
        runBase = run->fileOffset;
    }
    std::size_t n =
        static_cast<std::size_t>(std::min<std::uint64_t>({max, runEnd - position, left}));
    ssize_t got = ::pread(runFd, buf, n, static_cast<off_t>(runBase + (position - runStart)));
    if (got <= 0) {
        closeRun();
        return 0;
    }
    response.advance(static_cast<std::uint64_t>(got));
    reply->reader->noteRead(position, static_cast<std::uint64_t>(got));
    waitGaveUp = false;
    return static_cast<std::size_t>(got);
}

auto StreamHttpServerService::Impl::waitForFetch(const ExchangePtr& ex, std::uint64_t seenWrites)
    -> FetchWait {
    auto& cache = DiskDataCache::shared();
    auto& response = *ex->reply->response;
    if (ex->waitGaveUp || !ex->reply->reader || forThumbnail) return FetchWait::No;
    std::uint64_t position = response.position();
    std::uint64_t lastEnd = cache.lastWriteEndOffset();
    if (lastEnd > position || position - lastEnd > CachedDataReader::kNearWriteWindow ||
        !CachedDataReader::fetchingIsRunning())
        return FetchWait::No;
    ex->wakeAt = position + std::min(response.leftbytes(), kWakeBatch);
    ex->waitSince = std::chrono::steady_clock::now();
    ex->waitingForWrite = true;
    ++ex->waitSerial;
    {
        std::lock_guard lock(waitMutex);
        writeWaiters.emplace_back(ex, ex->waitSerial);
    }
    if (cache.writeCount() != seenWrites) {
        ex->waitingForWrite = false;
        return FetchWait::LookAgain;
    }
    return FetchWait::Parked;
}

void StreamHttpServerService::Impl::onWrite(std::uint64_t writeEnd, bool fetchEnded) {
    std::vector<std::pair<ExchangePtr, std::uint64_t>> waiting;
    {
        std::lock_guard lock(waitMutex);
        for (auto& [weak, serial] : writeWaiters)
            if (auto ex = weak.lock()) waiting.emplace_back(std::move(ex), serial);
    }
    if (waiting.empty()) return;
    // The waits that are over; one that an exchange started meanwhile has a new serial.
    std::vector<std::pair<const Exchange*, std::uint64_t>> over;
    for (auto& [ex, serial] : waiting) {
        std::lock_guard lock(ex->mutex);
        bool current = ex->waitingForWrite && ex->waitSerial == serial;
        if (current && (fetchEnded || writeEnd >= ex->wakeAt)) {
            ex->waitingForWrite = false;
            ex->resumeLocked();
            current = false;
        }
        if (!current) over.emplace_back(ex.get(), serial);
    }
    std::lock_guard lock(waitMutex);
    std::erase_if(writeWaiters, [&](const auto& entry) {
        auto ex = entry.first.lock();
        return !ex || std::find(over.begin(), over.end(),
                                std::pair<const Exchange*, std::uint64_t>(
                                    ex.get(), entry.second)) != over.end();
    });
}

bool StreamHttpServerService::Impl::expireWaits() {
    std::vector<ExchangePtr> waiting;
    {
        std::lock_guard lock(waitMutex);
        for (auto& entry : writeWaiters)
            if (auto ex = entry.first.lock()) waiting.push_back(std::move(ex));
    }
    if (waiting.empty()) return false;
    bool running = CachedDataReader::fetchingIsRunning();
    auto now = std::chrono::steady_clock::now();
    bool any = false;
    for (auto& ex : waiting) {
        std::lock_guard lock(ex->mutex);
        if (!ex->waitingForWrite) continue;
        if (running && now - ex->waitSince < kFetchWait) {
            any = true;
            continue;
        }
        // The body reads on its own now (and starts a fetch of its own if need be).
        ex->waitingForWrite = false;
        ex->waitGaveUp = running;
        ex->resumeLocked();
    }
    return any;
}

void Exchange::suspendLocked() {
    suspended = true;
    MHD_suspend_connection(connection);
    if (!waitingForWrite || !impl->watchdogPolling) impl->wakeWatchdog();
}

namespace {

void setNoDelay(int fd) {
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

void onConnection(void*, MHD_Connection* connection, void**, MHD_ConnectionNotificationCode code) {
    if (code != MHD_CONNECTION_NOTIFY_STARTED) return;
    // Small answers (headers, the first chunk after a seek) must not wait for more to come.
    if (auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD))
        setNoDelay(info->connect_fd);
}

void onCompleted(void*, MHD_Connection*, void** slot, MHD_RequestTerminationCode) {
    auto* holder = static_cast<ExchangePtr*>(*slot);
    if (!holder) return;
    {
        std::lock_guard lock((*holder)->mutex);
        (*holder)->completed = true;
    }
    delete holder;
    *slot = nullptr;
}

void freeBody(void* cls) {
    // The answer is over (sent, or its connection gone): its client's read stops.
    auto* holder = static_cast<ExchangePtr*>(cls);
    (*holder)->cancel(false);
    delete holder;
}

ssize_t readBody(void* cls, std::uint64_t, char* buf, std::size_t max) {
    auto ex = *static_cast<ExchangePtr*>(cls);
    std::unique_lock lock(ex->mutex);
    auto& response = ex->reply->response;
    while (true) {
        if (ex->cancelled) return MHD_CONTENT_READER_END_WITH_ERROR;
        std::uint64_t seenWrites = DiskDataCache::shared().writeCount();
        if (ex->pendingPos < ex->pending.size()) {
            std::size_t n = std::min(max, ex->pending.size() - ex->pendingPos);
            std::memcpy(buf, ex->pending.data() + ex->pendingPos, n);
            ex->pendingPos += n;
            return static_cast<ssize_t>(n);
        }
        // A body that ends before its announced length closes the connection.
        if (ex->eof)
            return response->leftbytes() == 0 ? MHD_CONTENT_READER_END_OF_STREAM
                                              : MHD_CONTENT_READER_END_WITH_ERROR;
        if (response->readsLocalFile()) {
            ex->pending = response->readData();
            ex->pendingPos = 0;
            ex->eof = ex->pending.empty();
            continue;
        }
        // What the cache holds goes out from there at once, without a copy of our own.
        if (std::size_t n = ex->readCachedLocked(buf, max)) return static_cast<ssize_t>(n);
        if (response->leftbytes() == 0) return MHD_CONTENT_READER_END_OF_STREAM;
        // Caught up with the fetch: parked until it has written more, then read from the cache.
        if (!ex->jobRunning) {
            auto wait = ex->impl->waitForFetch(ex, seenWrites);
            if (wait == StreamHttpServerService::Impl::FetchWait::Parked) {
                ex->suspendLocked();
                return 0;
            }
            if (wait == StreamHttpServerService::Impl::FetchWait::LookAgain) continue;
        }
        break;
    }
    // A remote read may wait for the server: it runs on the background queue while the
    // connection is parked.
    if (!ex->jobRunning) {
        ex->jobRunning = true;
        ex->impl->runJob([ex, response] {
            Bytes data = response->readData();
            std::lock_guard lock(ex->mutex);
            ex->jobRunning = false;
            ex->pending = std::move(data);
            ex->pendingPos = 0;
            ex->eof = ex->pending.empty();
            ex->resumeLocked();
        });
    }
    ex->suspendLocked();
    return 0;
}

MHD_Result onAccess(void* cls, MHD_Connection* connection, const char* url, const char* method,
                    const char*, const char*, std::size_t* uploadSize, void** slot) {
    auto* impl = static_cast<StreamHttpServerService::Impl*>(cls);
    if (!*slot) {
        auto ex = std::make_shared<Exchange>();
        ex->impl = impl;
        ex->connection = connection;
        ex->method = method;
        ex->url = url;
        if (const char* range = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, "Range"))
            ex->rangeHeader = range;
        if (auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD))
            ex->socketFd = info->connect_fd;
        *slot = new ExchangePtr(ex);
        bool get = ex->method == MHD_HTTP_METHOD_GET || ex->method == MHD_HTTP_METHOD_HEAD;
        std::unique_lock lock(impl->mutex);
        if (!get || impl->stopping) {
            lock.unlock();
            ex->reply = get ? textReply(503, "The server is stopping.\n")
                            : textReply(405, "Only GET and HEAD are answered here.\n");
            impl->queue(ex);
            return MHD_YES;
        }
        std::erase_if(impl->responseList, [](const auto& w) { return w.expired(); });
        impl->responseList.push_back(ex);
        // Opening a remote file may take a round trip to its server: done in the background.
        bool remote = !impl->serverInfo || impl->serverInfo->protocolType != ProtocolType::Local;
        lock.unlock();
        std::optional<Reply> reply;
        if (!remote) reply = impl->prepare(*ex);
        {
            std::lock_guard exLock(ex->mutex);
            // A stop or a new file that came in between must not find the connection parked.
            if (ex->cancelled) {
                ex->reply = textReply(503, "The answer was cancelled.\n");
            } else if (reply) {
                ex->reply = std::move(reply);
            } else {
                ex->suspendLocked();
                impl->runJob([ex] {
                    Reply reply = ex->impl->prepare(*ex);
                    std::lock_guard lock(ex->mutex);
                    if (!ex->cancelled) ex->reply = std::move(reply);
                    ex->resumeLocked();
                });
                return MHD_YES;
            }
        }
        impl->queue(ex);
        return MHD_YES;
    }
    auto ex = *static_cast<ExchangePtr*>(*slot);
    if (*uploadSize > 0) {
        *uploadSize = 0;  // a body sent with a GET is ignored
        return MHD_YES;
    }
    {
        std::lock_guard lock(ex->mutex);
        if (ex->queued || ex->suspended) return MHD_YES;
        if (!ex->reply) ex->reply = textReply(503, "The answer was cancelled.\n");
    }
    impl->queue(ex);
    return MHD_YES;
}

}  // namespace

Reply StreamHttpServerService::Impl::prepare(const Exchange& ex) {
    ServerInfoPtr server;
    std::optional<KvMetadata> meta;
    {
        std::lock_guard lock(mutex);
        server = serverInfo;
        meta = metadata;
    }
    if (!server || !meta) return textReply(404, "No file is offered for streaming.\n");
    std::optional<ByteRange> range;
    if (!ex.rangeHeader.empty()) range = parseRangeHeader(ex.rangeHeader);

    if (streamedKind(server->protocolType)) {
        auto response = WebServerWrapperResponse::responseWithServerInfo(server, *meta, range);
        response->setServiceForThumbnail(forThumbnail);
        if (response->failure())
            return textReply(response->statusCode(), response->failure()->reason + "\n");
        Reply r;
        r.status = response->statusCode();
        r.contentType = response->contentType();
        r.headers = response->headers();
        if (r.status == 416) return r;
        std::uint64_t length = response->contentLength();
        if (length == 0) return r;
        if (server->protocolType != ProtocolType::Local && ex.method == MHD_HTTP_METHOD_GET) {
            // A range the cache holds in one run goes out by sendfile, without passing through
            // here; parts of a longer one are read from the cache as they are there.
            r.reader = CachedDataReader::sharedWithServerInfo(server, *meta);
            if (auto run = r.reader->openCachedRun(response->rangeStart(), length)) {
                r.file.emplace(run->fd, run->fileOffset, length);
                r.logTail = " (cached)";
                return r;
            }
        }
        response->open();
        r.response = std::move(response);
        return r;
    }
    if (server->protocolType == ProtocolType::BaiduPan) {
        // The playlist written for the file beside the other temporary files.
        std::string path = PathUtils::getAppTempPath() + "/" + meta->nameOrEmpty() + ".m3u8";
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat st {};
        if (fd < 0 || ::fstat(fd, &st) != 0) {
            if (fd >= 0) ::close(fd);
            return textReply(404, "The playlist of the file is missing.\n");
        }
        FileBody body(fd, 0, 0);
        auto resolved = resolveRange(range, static_cast<std::uint64_t>(st.st_size), false);
        Reply r;
        r.status = resolved.status;
        r.contentType = "application/vnd.apple.mpegurl";
        r.headers.emplace_back("Accept-Ranges", "bytes");
        if (!resolved.contentRange.empty())
            r.headers.emplace_back("Content-Range", resolved.contentRange);
        if (r.status == 416) return r;
        body.offset = resolved.start;
        body.length = resolved.length;
        r.file = std::move(body);
        return r;
    }
    return textReply(404, "Files of this kind of server cannot be streamed.\n");
}

void StreamHttpServerService::Impl::queue(const ExchangePtr& ex) {
    std::unique_lock lock(ex->mutex);
    ex->queued = true;
    Reply& r = *ex->reply;
    MHD_Response* response = nullptr;
    std::string shape;
    if (r.response) {
        response = MHD_create_response_from_callback(r.response->contentLength(), kBodyBlockSize,
                                                     readBody, new ExchangePtr(ex), freeBody);
    } else if (r.file) {
        response =
            MHD_create_response_from_fd_at_offset64(r.file->length, r.file->fd, r.file->offset);
        if (response) r.file->fd = -1;  // libmicrohttpd closes it
    } else {
        response =
            MHD_create_response_from_buffer(r.text.size(), r.text.data(), MHD_RESPMEM_MUST_COPY);
    }
    if (!response) return;
    if (!r.contentType.empty())
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, r.contentType.c_str());
    for (auto& [name, value] : r.headers) {
        MHD_add_response_header(response, name.c_str(), value.c_str());
        if (name == "Content-Range") shape = " " + value;
    }
    int status = r.status;
    std::string line =
        fmt::format("{} {} {} {}{}{}", ex->method, ex->url,
                    ex->rangeHeader.empty() ? "-" : ex->rangeHeader, status, shape, r.logTail);
    // Unlocked: destroying a response that was not queued calls freeBody, which takes the lock.
    lock.unlock();
    MHD_queue_response(ex->connection, static_cast<unsigned>(status), response);
    MHD_destroy_response(response);
    log(line);
}

void StreamHttpServerService::Impl::watch() {
    while (true) {
        std::vector<pollfd> fds{{wakeFd, POLLIN, 0}};
        std::vector<ExchangePtr> watched;
        {
            std::lock_guard lock(mutex);
            if (watchdogStop) return;
            for (auto& weak : responseList) {
                auto ex = weak.lock();
                if (!ex) continue;
                std::lock_guard exLock(ex->mutex);
                if (ex->suspended && !ex->cancelled && ex->socketFd >= 0) {
                    fds.push_back({ex->socketFd, POLLRDHUP, 0});
                    watched.push_back(ex);
                }
            }
        }
        // Bodies waiting for a fetch are looked at now and then: the fetch may end or stall
        // without telling.
        bool waits = expireWaits();
        watchdogPolling = waits;
        if (::poll(fds.data(), fds.size(), waits ? 100 : -1) < 0 && errno != EINTR) return;
        if (fds[0].revents & POLLIN) {
            std::uint64_t count = 0;
            if (::read(wakeFd, &count, sizeof count) < 0) {
            }
        }
        for (std::size_t i = 1; i < fds.size(); ++i) {
            if (!(fds[i].revents & (POLLRDHUP | POLLHUP | POLLERR))) continue;
            auto& ex = watched[i - 1];
            log(fmt::format("{} {} {}: the client went away", ex->method, ex->url,
                            ex->rangeHeader.empty() ? "-" : ex->rangeHeader));
            ex->cancel();
        }
    }
}

// --- StreamHttpServerService

StreamHttpServerService& StreamHttpServerService::sharedHttpServerService() {
    // Never destroyed: answers in progress may outlive the main function.
    static auto* service = new StreamHttpServerService(false);
    return *service;
}

StreamHttpServerService& StreamHttpServerService::sharedHttpServerForThumbnail() {
    static auto* service = new StreamHttpServerService(true);
    return *service;
}

StreamHttpServerService::StreamHttpServerService(bool isServiceForThumbnail)
    : impl_(std::make_unique<Impl>(isServiceForThumbnail)) {
    installStreaming();
}

StreamHttpServerService::~StreamHttpServerService() {
    stopServer();
    std::unique_lock lock(impl_->jobsMutex);
    impl_->jobsDone.wait(lock, [this] { return impl_->jobs == 0; });
}

bool StreamHttpServerService::isServiceForThumbnail() const {
    return impl_->forThumbnail;
}

void StreamHttpServerService::setPort(int port) {
    std::lock_guard lock(impl_->mutex);
    impl_->port = port;
}

int StreamHttpServerService::port() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->port;
}

Status StreamHttpServerService::startServer() {
    stopServer();
    auto& d = *impl_;
    std::unique_lock lock(d.mutex);
    int port = d.port;
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return KvError::fail(ErrorDomain::Generic, errno,
                             fmt::format("Cannot open a socket: {}", std::strerror(errno)));
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 64) != 0) {
        int err = errno;
        ::close(fd);
        if (err == EADDRINUSE)
            return KvError::fail(ErrorDomain::Generic, err,
                                 fmt::format("Port {} on 127.0.0.1 is already in use.", port));
        return KvError::fail(
            ErrorDomain::Generic, err,
            fmt::format("Cannot listen on 127.0.0.1:{}: {}", port, std::strerror(err)));
    }
    socklen_t len = sizeof addr;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    d.wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    d.daemon = MHD_start_daemon(MHD_USE_AUTO_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr,
                                nullptr, onAccess, &d, MHD_OPTION_LISTEN_SOCKET, fd,
                                MHD_OPTION_NOTIFY_COMPLETED, onCompleted, &d,
                                MHD_OPTION_NOTIFY_CONNECTION, onConnection, &d, MHD_OPTION_END);
    if (!d.daemon || d.wakeFd < 0) {
        if (d.daemon) MHD_stop_daemon(d.daemon);
        d.daemon = nullptr;
        ::close(fd);
        if (d.wakeFd >= 0) ::close(d.wakeFd);
        d.wakeFd = -1;
        return KvError::fail(ErrorDomain::Generic, -1,
                             fmt::format("Cannot start the HTTP server on 127.0.0.1:{}.", port));
    }
    d.listenFd = fd;
    d.boundPort = ntohs(addr.sin_port);
    d.writeObserver = DiskDataCache::shared().addWriteObserver(
        [&d](std::uint64_t writeEnd, bool fetchEnded) { d.onWrite(writeEnd, fetchEnded); });
    d.stopping = false;
    d.watchdogStop = false;
    d.watchdog = std::thread([&d] { d.watch(); });
    return {};
}

void StreamHttpServerService::stopServer() {
    auto& d = *impl_;
    std::vector<ExchangePtr> live;
    {
        std::lock_guard lock(d.mutex);
        if (!d.daemon) return;
        // From here on no request parks its connection; the parked ones are woken below, as
        // libmicrohttpd must not stop with a connection suspended.
        d.stopping = true;
        for (auto& weak : d.responseList)
            if (auto ex = weak.lock()) live.push_back(std::move(ex));
        d.responseList.clear();
        d.watchdogStop = true;
    }
    DiskDataCache::shared().removeWriteObserver(d.writeObserver);
    // Quiesced, the listening socket is ours to close; otherwise libmicrohttpd closes it.
    bool quiesced = MHD_quiesce_daemon(d.daemon) != MHD_INVALID_SOCKET;
    for (auto& ex : live) ex->cancel();
    d.wakeWatchdog();
    if (d.watchdog.joinable()) d.watchdog.join();
    MHD_stop_daemon(d.daemon);
    std::lock_guard lock(d.mutex);
    if (quiesced) ::close(d.listenFd);
    ::close(d.wakeFd);
    d.daemon = nullptr;
    d.listenFd = -1;
    d.wakeFd = -1;
    d.boundPort = 0;
    d.stopping = false;
}

bool StreamHttpServerService::isOnline() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->daemon != nullptr;
}

int StreamHttpServerService::listeningPort() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->boundPort;
}

std::string StreamHttpServerService::httpServerURL() const {
    int port = listeningPort();
    return port > 0 ? fmt::format("http://127.0.0.1:{}/", port) : std::string();
}

void StreamHttpServerService::setServerInfo(const ServerInfoPtr& serverInfo) {
    std::lock_guard lock(impl_->mutex);
    impl_->serverInfo = serverInfo ? std::make_shared<ServerInfo>(*serverInfo) : nullptr;
}

void StreamHttpServerService::setMetadata(const std::optional<KvMetadata>& metadata) {
    std::vector<ExchangePtr> live;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->metadata = metadata;
        if (impl_->metadata) impl_->metadata->streamHeaderCache.reset();
        for (auto& weak : impl_->responseList)
            if (auto ex = weak.lock()) live.push_back(std::move(ex));
        impl_->responseList.clear();
    }
    for (auto& ex : live) ex->cancel();
    CachedDataReader::cancelAllBackgroundFetching();
}

ServerInfoPtr StreamHttpServerService::serverInfo() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->serverInfo;
}

std::optional<KvMetadata> StreamHttpServerService::metadata() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->metadata;
}

std::size_t StreamHttpServerService::responseCount() const {
    std::lock_guard lock(impl_->mutex);
    std::erase_if(impl_->responseList, [](const auto& w) { return w.expired(); });
    return impl_->responseList.size();
}

void StreamHttpServerService::setLogHandler(std::function<void(const std::string&)> handler) {
    std::lock_guard lock(impl_->mutex);
    impl_->logHandler = std::move(handler);
}

void installStreaming() {
    static std::once_flag once;
    std::call_once(once, [] {
        StreamingSupport::install(
            [](const ServerInfoPtr& server, const KvMetadata& file, std::uint64_t offset,
               std::uint64_t length, bool forThumbnail, const std::function<bool()>& stop) {
                return CachedDataReader::sharedWithServerInfo(server, file)
                    ->readData(length, offset, forThumbnail, stop);
            },
            [](const ServerInfoPtr& server, const KvMetadata& file) -> std::optional<int> {
                auto& service = StreamHttpServerService::sharedHttpServerService();
                service.setServerInfo(server);
                service.setMetadata(file);
                if (!startPlaybackServer()) return std::nullopt;
                return service.listeningPort();
            });
    });
}

Status startPlaybackServer() {
    installStreaming();
    auto& service = StreamHttpServerService::sharedHttpServerService();
    if (service.isOnline()) return {};
    if (service.startServer()) return {};
    service.setPort(0);
    return service.startServer();
}

}  // namespace quillon
