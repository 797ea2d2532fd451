// Choosing clients by server kind, and the downloaded-file cache rule.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <filesystem>

#include "core/FileService.h"
#include "core/WrapperProxy.h"
#include "support/TestEnv.h"

using namespace quillon;
using namespace std::chrono_literals;

TEST(WrapperProxy, ReservedAndUnknownKindsYieldNoClientWithAClearError) {
    for (int kind : {8, 11, 13, -1}) {
        auto info = std::make_shared<ServerInfo>();
        info->protocolType = kind;
        EXPECT_EQ(WrapperProxy::wrapperWithServerInfo(info), nullptr) << kind;
        auto r = WrapperProxy::clientForServerInfo(info);
        ASSERT_FALSE(r);
        EXPECT_NE(r.error().reason.find("cannot be browsed"), std::string::npos);
    }
    // Both WebDAV kinds are served by the same class.
    EXPECT_EQ(WrapperProxy::classNameForProtocolType(6), WrapperProxy::classNameForProtocolType(9));
    EXPECT_EQ(WrapperProxy::classNameForProtocolType(6), "WebdavWrapper");
    // A kind whose client is not built in says so instead of failing silently.
    auto box = std::make_shared<ServerInfo>();
    box->protocolType = ProtocolType::Box;
    auto r = WrapperProxy::clientForServerInfo(box);
    ASSERT_FALSE(r);
    EXPECT_NE(r.error().reason.find("Box"), std::string::npos);
}

TEST(WrapperProxy, NeedDownloadFileUsesACacheWithinTwoSecondsAndSameSize) {
    test::IsolatedHome home;
    ServerInfo server;
    server.protocolType = ProtocolType::FTP;
    KvMetadata file("/music/song.mp3");
    file.protocolType = ProtocolType::FTP;
    file.fileSizeInBytes = 5;
    auto cached = FileService::sharedService().cachePathForMetadata(file, server);
    EXPECT_TRUE(cached.starts_with(home.path()));
    // One stable path per server and remote path.
    EXPECT_EQ(cached, FileService::sharedService().cachePathForMetadata(file, server));
    ServerInfo other;
    EXPECT_NE(cached, FileService::sharedService().cachePathForMetadata(file, other));

    auto mtime = std::chrono::system_clock::from_time_t(1700000000);
    auto writeCache = [&] {
        test::writeFile(cached, "12345");
        timespec times[2] = {{1700000000, 0}, {1700000000, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, cached.c_str(), times, 0), 0);
    };
    writeCache();
    file.timestamp = mtime + 1900ms;
    EXPECT_FALSE(WrapperProxy::needDownloadFile(file, server));
    EXPECT_TRUE(std::filesystem::exists(cached));
    file.timestamp = mtime - 1900ms;
    EXPECT_FALSE(WrapperProxy::needDownloadFile(file, server));

    file.timestamp = mtime + 2000ms;
    EXPECT_TRUE(WrapperProxy::needDownloadFile(file, server));
    EXPECT_FALSE(std::filesystem::exists(cached));  // the stale copy is gone

    writeCache();
    file.timestamp = mtime;
    file.fileSizeInBytes = 6;
    EXPECT_TRUE(WrapperProxy::needDownloadFile(file, server));
    EXPECT_FALSE(std::filesystem::exists(cached));

    // Folders, local items and records without a date or size are always fetched.
    KvMetadata local("/x");
    EXPECT_TRUE(WrapperProxy::needDownloadFile(local, server));
    file.timestamp.reset();
    EXPECT_TRUE(WrapperProxy::needDownloadFile(file, server));
}

TEST(FileService, HostileRemoteNamesStayInsideTheCacheFolder) {
    test::IsolatedHome home;
    ServerInfo server;
    auto root = FileService::sharedService().cacheRootFolder();
    for (std::string path : {"/../../etc/passwd", "/a/./../b", "..", "/a//b", "/%2e%2e/x"}) {
        KvMetadata m(path);
        auto cached = FileService::sharedService().cachePathForMetadata(m, server);
        auto normal = std::filesystem::path(cached).lexically_normal().string();
        EXPECT_TRUE(normal.starts_with(root + "/" + server.serverID)) << path << " -> " << cached;
    }
}
