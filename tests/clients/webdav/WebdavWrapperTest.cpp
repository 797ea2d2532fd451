// The WebDAV client: the conformance suite against Apache's mod_dav (Digest) and
// `rclone serve webdav` (Basic), then what only a scripted fake server can make happen: hostile
// PROPFIND replies, a refusal of "Depth: infinity" and a download whose connection breaks.

#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "clients/WrapperConformance.h"
#include "clients/webdav/WebdavWrapper.h"
#include "support/ServerKit.h"
#include "support/WebdavServers.h"

namespace quillon::test {
namespace {

ConformanceTarget webdavTarget(const std::string& name, WebdavServerKind kind) {
    return sharedKindTarget<WebdavServer>(name, kind);
}

ConformanceTarget apacheTarget() {
    return webdavTarget("Apache_mod_dav", WebdavServerKind::Apache);
}

ConformanceTarget rcloneTarget() {
    auto t = webdavTarget("rclone_serve_webdav", WebdavServerKind::Rclone);
    t.knownFailures["RefusedPermissionFails"] =
        "rclone runs here as root, and file permissions do not stop root";
    return t;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Webdav, WrapperConformance,
                         ::testing::Values(apacheTarget(), rcloneTarget()), conformanceTargetName);

namespace {

// A scripted fake HTTP server on 127.0.0.1: each request (headers and body) goes to the script,
// which returns the bytes to send; the connection is closed after each reply.
class ScriptedHttpServer {
  public:
    using Script = std::function<std::string(const std::string& request)>;
    explicit ScriptedHttpServer(Script script) : script_(std::move(script)) {
        fd_ = listenOn("127.0.0.1", 0);
        if (fd_ < 0) ADD_FAILURE() << "the scripted server cannot listen";
        port_ = boundPort(fd_);
        thread_ = std::thread([this] { run(); });
    }
    ~ScriptedHttpServer() {
        stop_ = true;
        ::shutdown(fd_, SHUT_RDWR);
        thread_.join();
        ::close(fd_);
    }
    int port() const { return port_; }
    std::vector<std::string> requests() {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    ServerInfoPtr serverInfo() const { return loopbackRecord(ProtocolType::WebDAV, port_, "", ""); }

  private:
    void run() {
        while (!stop_) {
            int c = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) break;
            std::string request;
            char buf[65536];
            std::size_t need = std::string::npos;
            while (request.size() < need) {
                ssize_t n = ::read(c, buf, sizeof buf);
                if (n <= 0) break;
                request.append(buf, static_cast<std::size_t>(n));
                auto end = request.find("\r\n\r\n");
                if (end != std::string::npos && need == std::string::npos) {
                    std::size_t length = 0;
                    auto at = request.find("Content-Length: ");
                    if (at != std::string::npos && at < end)
                        length = std::stoul(request.substr(at + 16));
                    need = end + 4 + length;
                }
            }
            {
                std::lock_guard lock(mutex_);
                requests_.push_back(request);
            }
            sendAll(c, script_(request));
            ::close(c);
        }
    }
    Script script_;
    int fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<std::string> requests_;
    std::thread thread_;
};

std::string multistatus(const std::string& body) {
    return "HTTP/1.1 207 Multi-Status\r\nContent-Type: application/xml\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

class WebdavClient : public ClientTest {};

}  // namespace

TEST_F(WebdavClient, HostilePropfindRepliesLeakNothingAndNameNothingOutside) {
    ScratchDir secretDir("secret");
    writeFile(secretDir / "secret.txt", "TOPSECRET");
    const std::string listing =
        "<?xml version=\"1.0\"?>\n<!DOCTYPE m [<!ENTITY leak SYSTEM \"file://" + secretDir.path() +
        "/secret.txt\">]>\n"
        "<D:multistatus xmlns:D=\"DAV:\">"
        "<D:response><D:href>/dir/</D:href><D:propstat><D:prop><D:resourcetype><D:collection/>"
        "</D:resourcetype></D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>"
        "<D:response><D:href>/dir/..</D:href><D:propstat><D:prop><D:resourcetype/></D:prop>"
        "<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>"
        "<D:response><D:href>/elsewhere/a%2F..%2F..%2Fetc</D:href><D:propstat><D:prop>"
        "<D:resourcetype/><D:getcontentlength>12</D:getcontentlength></D:prop>"
        "<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>"
        "<D:response><D:href>/dir/&leak;x</D:href><D:propstat><D:prop><D:resourcetype/></D:prop>"
        "<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>"
        "<D:response><D:href>/dir/nul%00name</D:href><D:propstat><D:prop><D:resourcetype/>"
        "</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>"
        "<D:response><D:href>http://127.0.0.1/dir/caf%C3%A9%20%25%23.txt</D:href><D:propstat>"
        "<D:prop><D:resourcetype/><D:getcontentlength>99999999999999999999999</D:getcontentlength>"
        "<D:getlastmodified>Tue, 24 Nov 2026 01:50:57 GMT</D:getlastmodified></D:prop>"
        "<D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>"
        "<D:response><D:href>/dir/forbidden</D:href><D:propstat><D:prop><D:resourcetype/>"
        "</D:prop><D:status>HTTP/1.1 404 Not Found</D:status></D:propstat></D:response>"
        "</D:multistatus>";
    ScriptedHttpServer fake([&](const std::string& request) -> std::string {
        // Like servers that refuse to walk a whole tree at once.
        if (request.find("Depth: infinity") != std::string::npos ||
            request.find("Depth:") == std::string::npos)
            return "HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
        if (request.starts_with("PROPFIND /broken")) return multistatus("<not-closed>");
        if (request.starts_with("PROPFIND /html"))
            return multistatus("<html xmlns=\"DAV:\"><body/></html>");
        return multistatus(listing);
    });
    auto client = std::make_shared<WebdavWrapper>(fake.serverInfo());
    client->setForceIncludesHiddenFiles(true);
    KvMetadata dir("/dir");
    dir.isDir = true;
    auto items = client->contentsOfDirectoryAtPathSync(dir);
    ASSERT_TRUE(items) << items.error().describe();
    std::vector<std::string> names, paths;
    for (auto& m : *items) {
        names.push_back(m.nameIgnoreLinkResolve().value_or(""));
        paths.push_back(m.pathOrEmpty());
        EXPECT_TRUE(m.pathOrEmpty().starts_with("/dir/")) << m.pathOrEmpty();
        EXPECT_EQ(m.pathOrEmpty().find("/../"), std::string::npos) << m.pathOrEmpty();
        EXPECT_EQ(m.nameIgnoreLinkResolve()->find("TOPSECRET"), std::string::npos)
            << "an external entity was read";
    }
    EXPECT_EQ(names, (std::vector<std::string>{"x", "caf\u00e9 %#.txt"}));
    auto& cafe = items->back();
    EXPECT_FALSE(cafe.fileSizeInBytes.has_value()) << "an impossible size was taken";
    ASSERT_TRUE(cafe.timestamp.has_value());
    EXPECT_EQ(std::chrono::system_clock::to_time_t(*cafe.timestamp), 1795485057);
    for (auto& request : fake.requests()) EXPECT_NE(request.find("Depth: 1"), std::string::npos);

    // Replies that are no listing fail clearly.
    for (auto path : {"/broken", "/html"}) {
        KvMetadata folder(path);
        folder.isDir = true;
        auto bad = client->contentsOfDirectoryAtPathSync(folder);
        ASSERT_FALSE(bad) << path;
        EXPECT_EQ(bad.error().domain, "WEBDAV");
    }
    EXPECT_EQ(WebdavWrapper::escapePath("/a b/#%\u00fc?"), "/a%20b/%23%25%C3%BC%3F");
    EXPECT_EQ(WebdavWrapper::unescape("/a%20b/%23%25%C3%BC%3F%2"), "/a b/#%\u00fc?%2");
}

TEST_F(WebdavClient, BrokenDownloadContinuesWithRangeAndStreamsReadRanges) {
    const std::string content = randomBytes(300000, 21);
    std::atomic<int> gets{0};
    ScriptedHttpServer fake([&](const std::string& request) -> std::string {
        auto range = request.find("Range: bytes=");
        if (request.starts_with("GET") && range == std::string::npos) {
            // The first reply promises the whole file and breaks off after a third of it.
            ++gets;
            return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(content.size()) +
                   "\r\n\r\n" + content.substr(0, 100000);
        }
        if (request.starts_with("GET")) {
            ++gets;
            std::size_t from = std::stoul(request.substr(range + 13));
            std::size_t to = content.size() - 1;
            auto dash = request.find('-', range);
            if (dash + 1 < request.size() &&
                std::isdigit(static_cast<unsigned char>(request[dash + 1])))
                to = std::stoul(request.substr(dash + 1));
            std::string part = content.substr(from, to - from + 1);
            return "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(from) +
                   "-" + std::to_string(to) + "/" + std::to_string(content.size()) +
                   "\r\nContent-Length: " + std::to_string(part.size()) + "\r\n\r\n" + part;
        }
        return "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
    });
    auto client = std::make_shared<WebdavWrapper>(fake.serverInfo());
    client->setRetries(3, std::chrono::milliseconds(10));
    ScratchDir local("dav");
    KvMetadata file("/f.bin");
    auto got = client->downloadSync(file, local / "f.bin", {});
    ASSERT_TRUE(got) << got.error().describe();
    EXPECT_TRUE(fileHolds(local / "f.bin", content));
    EXPECT_EQ(gets.load(), 2);
    auto requests = fake.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_NE(requests[1].find("Range: bytes=100000-"), std::string::npos) << requests[1];
}

}  // namespace quillon::test
