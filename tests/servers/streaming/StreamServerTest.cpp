// The playback server against real servers (ours, vsftpd, sshd, smbd) and local files: the ranges a
// player sends, reads at random offsets, a repeated range served from the disk cache (no second
// RETR in the server's log) also after its files vanished, a new file ending the answers in
// progress, a port in use, mpv seeking in a real media file and ffprobe reading its duration, and
// `quillon stream` serving until interrupted.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>

#include "StreamTestKit.h"
#include "clients/Clients.h"
#include "core/KvConnectionPool.h"
#include "core/PathUtils.h"
#include "core/StreamingSupport.h"
#include "core/WrapperProxy.h"
#include "servers/FtpServerFixture.h"
#include "servers/streaming/CachedDataReader.h"
#include "servers/streaming/DiskDataCache.h"
#include "servers/streaming/StreamHttpServerService.h"
#include "support/FtpServers.h"
#include "support/SftpServers.h"
#include "support/SmbServers.h"

namespace quillon {
namespace {

namespace fs = std::filesystem;
using namespace test;
using test::FtpServer;

constexpr std::uint64_t kMiB = 1048576;

// The shared playback server on a free port, its request lines, and files offered the way a
// client offers them.
class StreamRig {
  public:
    StreamRig() {
        registerBuiltinClients();
        service().setPort(0);
        service().setLogHandler([this](const std::string& line) {
            std::lock_guard lock(mutex_);
            requests_.push_back(line);
            logged_.notify_all();
        });
    }
    ~StreamRig() {
        service().stopServer();
        service().setLogHandler(nullptr);
        CachedDataReader::cancelAllBackgroundFetching();
        CachedDataReader::fetchingQueue().waitUntilAllOperationsAreFinished();
        KvConnectionPool::clearConnectionPool();
    }
    static StreamHttpServerService& service() {
        return StreamHttpServerService::sharedHttpServerService();
    }
    // The URL of the file at `path` on the server, served from now on.
    std::string offer(const ServerInfoPtr& info, const std::string& path, std::uint64_t size) {
        KvMetadata file(path);
        file.protocolType = info->protocolType;
        file.fileSizeInBytes = size;
        if (info->protocolType == ProtocolType::Local)
            return StreamingSupport::streamableURL(info, file, path.substr(1)).value_or("");
        return WrapperProxy::wrapperWithServerInfo(info)
            ->loadStreamableURLForFileSync(file)
            .value_or("");
    }
    std::vector<std::string> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    // Waits (at most a minute) until `count` requests have been answered.
    bool waitForRequests(std::size_t count) {
        std::unique_lock lock(mutex_);
        return logged_.wait_for(lock, std::chrono::minutes(1),
                                [&] { return requests_.size() >= count; });
    }

  private:
    IsolatedHome home_;
    mutable std::mutex mutex_;
    std::condition_variable logged_;
    std::vector<std::string> requests_;
};

// RETR commands the server received (not its lines about finished transfers).
int retrCount(const RunningFtpServer& ftp) {
    int n = 0;
    for (auto& line : ftp.log())
        if (line.find("] RETR ") != std::string::npos &&
            line.find(" bytes): ") == std::string::npos)
            ++n;
    return n;
}

TEST(StreamServer, RangesAndRandomReadsFromServersOfEveryKindAndLocalFiles) {
    StreamRig rig;
    RunningFtpServer ours;
    std::string why;
    auto vsftpd = FtpServer::start(FtpServerKind::Vsftpd, {}, &why);
    ASSERT_TRUE(vsftpd) << why;
    auto sshd = SftpServer::start(SftpServerKind::OpenSSH, &why);
    ASSERT_TRUE(sshd) << why;
    std::filesystem::create_directories(PathUtils::getHomeFolderPath() + "/.ssh");
    writeFile(PathUtils::getHomeFolderPath() + "/.ssh/known_hosts", sshd->knownHostsLine() + "\n");
    auto smbd = SmbServer::start(&why);
    ASSERT_TRUE(smbd) << why;
    ScratchDir local("local");
    auto localInfo = std::make_shared<ServerInfo>();
    localInfo->protocolType = ProtocolType::Local;

    struct Target {
        std::string name;
        ServerInfoPtr info;
        std::function<std::string(const std::string&, const std::string&)> put;  // its path
    };
    std::vector<Target> targets{
        {"our server", ours.serverInfo(),
         [&](const std::string& name, const std::string& content) {
             writeFile(ours / name, content);
             return "/" + name;
         }},
        {"vsftpd", vsftpd->serverInfo(),
         [&](const std::string& name, const std::string& content) {
             vsftpd->writeFile("/" + name, content);
             return vsftpd->remotePath("/" + name);
         }},
        {"sshd", sshd->serverInfo(),
         [&](const std::string& name, const std::string& content) {
             writeFile(sshd->hostPath(name), content);
             return sshd->remotePath(name);
         }},
        {"smbd", smbd->serverInfo(),
         [&](const std::string& name, const std::string& content) {
             writeFile(smbd->shareDir() + "/" + name, content);
             return "/" + std::string(SmbServer::share()) + "/" + name;
         }},
        {"local disk", localInfo, [&](const std::string& name, const std::string& content) {
             writeFile(local / name, content);
             return local / name;
         }}};

    struct Case {
        std::string range;  // the Range header, if any
        int status;
        std::string contentRange;
        std::uint64_t start, length;
    };
    // The suffix range is read from the start of the file, on purpose.
    const std::vector<Case> cases{{"", 200, "", 0, 1000},
                                  {"bytes=100-", 206, "bytes 100-999/1000", 100, 900},
                                  {"bytes=-500", 206, "bytes 0-499/1000", 0, 500},
                                  {"bytes=10-19", 206, "bytes 10-19/1000", 10, 10},
                                  {"bytes=990-5000", 206, "bytes 990-999/1000", 990, 10},
                                  {"bytes=1000-", 416, "bytes */1000", 0, 0},
                                  {"bytes=5-2", 200, "", 0, 1000}};
    const std::uint64_t clipSize = 6 * kMiB + 123;
    std::mt19937_64 random(20240613);
    for (auto& target : targets) {
        SCOPED_TRACE(target.name);
        auto url = rig.offer(target.info, target.put("pattern.bin", patternString(0, 1000)), 1000);
        ASSERT_TRUE(url.starts_with("http://127.0.0.1:")) << url;
        for (auto& c : cases) {
            SCOPED_TRACE(c.range);
            auto reply =
                httpGet(url, c.range.empty() ? std::vector<std::string>{}
                                             : std::vector<std::string>{"-H", "Range: " + c.range});
            EXPECT_EQ(reply.status, c.status);
            EXPECT_EQ(reply.headers["accept-ranges"], "bytes");
            EXPECT_EQ(reply.headers["content-range"], c.contentRange);
            if (c.status < 300) {
                EXPECT_EQ(reply.headers["content-type"], "application/octet-stream");
                EXPECT_EQ(reply.body, patternString(c.start, c.length));
            }
        }
        // Byte for byte at random offsets, as curl --range asks.
        url = rig.offer(target.info, target.put("clip.MP4", patternString(0, clipSize)), clipSize);
        for (int i = 0; i < 6; ++i) {
            std::uint64_t from = random() % clipSize;
            std::uint64_t to = std::min(clipSize - 1, from + random() % (2 * kMiB));
            auto reply = httpGet(url, {"--range", fmt::format("{}-{}", from, to)});
            EXPECT_EQ(reply.status, 206);
            EXPECT_EQ(reply.headers["content-type"], "video/mp4");
            EXPECT_TRUE(reply.body == patternString(from, to - from + 1)) << from << "-" << to;
        }
        // A remote file's bytes went through the disk cache.
        std::error_code ec;
        if (target.info->protocolType != ProtocolType::Local) {
            EXPECT_FALSE(std::filesystem::is_empty(DiskDataCache::cacheFolder(), ec));
        }
    }
}

TEST(StreamServer, RepeatedRangeComesFromTheCacheAlsoAfterItsFilesVanish) {
    StreamRig rig;
    LogCapture log;
    RunningFtpServer ours;
    const std::uint64_t size = 4 * kMiB;
    writeFile(ours / "big.bin", patternString(0, size));
    auto url = rig.offer(ours.serverInfo(), "/big.bin", size);
    const std::vector<std::string> range{"--range", "1000000-1999999"};
    const std::string expected = patternString(1000000, 1000000);

    auto first = httpGet(url, range);
    EXPECT_EQ(first.status, 206);
    EXPECT_TRUE(first.body == expected);
    int retrs = retrCount(ours);
    EXPECT_GE(retrs, 1);
    // The fetch reads on to the end of the file, then stops.
    CachedDataReader::fetchingQueue().waitUntilAllOperationsAreFinished();

    auto again = httpGet(url, range);
    EXPECT_TRUE(again.body == expected);
    EXPECT_EQ(retrCount(ours), retrs);

    std::error_code ec;
    for (auto& entry : fs::directory_iterator(DiskDataCache::cacheFolder(), ec))
        fs::remove(entry.path(), ec);
    auto afterLoss = httpGet(url, range);
    EXPECT_EQ(afterLoss.status, 206);
    EXPECT_TRUE(afterLoss.body == expected);
    EXPECT_TRUE(log.has("[DEBUG]cache item corrupted, maybe the system clean up temp file."));
    EXPECT_GT(retrCount(ours), retrs);
}

TEST(StreamServer, ANewFileEndsAnswersInProgressAndATakenPortIsNamed) {
    StreamRig rig;
    RunningFtpServer ours;
    const std::uint64_t size = 32 * kMiB;
    writeFile(ours / "long.bin", patternString(0, size));
    writeFile(ours / "next.bin", patternString(0, 10));
    auto url = rig.offer(ours.serverInfo(), "/long.bin", size);
    HttpReply slow;
    std::thread reader([&] { slow = httpGet(url, {"--limit-rate", "200K"}); });
    EXPECT_TRUE(rig.waitForRequests(1));
    rig.offer(ours.serverInfo(), "/next.bin", 10);
    reader.join();
    EXPECT_NE(slow.curlExit, 0);  // the body ended before its announced length
    EXPECT_LT(slow.body.size(), size);
    EXPECT_TRUE(slow.body == patternString(0, slow.body.size()));
    EXPECT_EQ(httpGet(url).body, patternString(0, 10));

    asio::io_context io;
    asio::ip::tcp::acceptor taken(io, {asio::ip::make_address("127.0.0.1"), 0});
    StreamHttpServerService other(false);
    other.setPort(taken.local_endpoint().port());
    auto started = other.startServer();
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error().reason, fmt::format("Port {} on 127.0.0.1 is already in use.",
                                                  taken.local_endpoint().port()));
    EXPECT_FALSE(other.isOnline());
}

TEST(StreamServer, MpvSeeksThreeTimesAndFfprobeReadsTheDuration) {
    StreamRig rig;
    RunningFtpServer ours;
    // Two minutes of plain PCM (23 MB): the seeks land megabytes apart, beyond what a player
    // reads ahead.
    auto made = runProgram({"ffmpeg", "-nostdin", "-v", "error", "-f", "lavfi", "-i",
                            "sine=frequency=440:duration=120", "-ac", "2", "-ar", "48000", "-c:a",
                            "pcm_s16le", ours / "tone.wav"});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    auto url = rig.offer(ours.serverInfo(), "/tone.wav", fs::file_size(ours / "tone.wav"));

    ScratchDir dir("mpv");
    writeFile(dir / "seeks.lua", R"(
local targets = {100, 20, 60}
local done = 0
mp.register_event("playback-restart", function()
    done = done + 1
    if done <= #targets then
        mp.msg.info("seek to " .. targets[done])
        mp.commandv("seek", targets[done], "absolute")
    else
        mp.msg.info("at " .. math.floor(mp.get_property_number("time-pos") + 0.5))
        mp.commandv("quit", "0")
    end
end)
)");
    // Without its own cache the player asks the server again after each seek, however fast the
    // first answer filled the cache it would otherwise keep (a seek back would come from there).
    auto mpv =
        runProgram({"timeout", "120", "mpv", "--no-config", "--vo=null", "--ao=null", "--cache=no",
                    "--demuxer-max-back-bytes=0", "--msg-level=all=error,seeks=info",
                    "--script=" + (dir / "seeks.lua"), url});
    EXPECT_EQ(mpv.exitCode, 0) << mpv.out << mpv.err;
    std::string said = mpv.out + mpv.err;
    EXPECT_NE(said.find("seek to 60"), std::string::npos) << said;
    EXPECT_NE(said.find("at 60"), std::string::npos) << said;
    int ranged = 0;
    std::string lines;
    for (auto& line : rig.requests()) {
        lines += line + "\n";
        if (line.find(" bytes=") != std::string::npos && line.find(" 206 ") != std::string::npos)
            ++ranged;
    }
    EXPECT_GE(ranged, 4) << lines;  // the start and each seek

    auto probe = runProgram({"timeout", "60", "ffprobe", "-v", "error", "-show_entries",
                             "format=duration", "-of", "csv=p=0", url});
    ASSERT_EQ(probe.exitCode, 0) << probe.err;
    EXPECT_NEAR(std::stod(probe.out), 120.0, 0.01);
}

TEST(StreamCli, StreamsUntilInterrupted) {
    IsolatedHome home;
    RunningFtpServer ours;
    writeFile(ours / "song.bin", patternString(0, 200000));
    ScratchDir dir("cli");
    // The URL is the first line quillon prints; a pipe read waits for it.
    const std::string script = R"(
mkfifo "$1/out" || exit 2
"$2" stream "$3" --port 0 > "$1/out" 2> "$1/err" &
pid=$!
exec 3< "$1/out"
read -r url <&3 || exit 3
curl -s --max-time 60 --range 1000-1999 -o "$1/body" "$url" || exit 4
kill -INT $pid
wait $pid
echo "exit=$?"
)";
    auto location = fmt::format("ftp://127.0.0.1:{}/song.bin", ours.port());
    auto run = runProgram(
        {"timeout", "120", "sh", "-c", script, "sh", dir.path(), QUILLON_BINARY, location});
    EXPECT_EQ(run.out, "exit=0\n") << run.err << readFile(dir / "err");
    EXPECT_TRUE(readFile(dir / "body") == patternString(1000, 1000));
    EXPECT_NE(readFile(dir / "err").find("GET /song.bin bytes=1000-1999 206"), std::string::npos)
        << readFile(dir / "err");
}

}  // namespace
}  // namespace quillon
