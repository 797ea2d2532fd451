// Media against the usual tools, side by side in one run:
//   - thumbnails of many 12-megapixel JPEG photos at 128 pixels: `quillon thumb` against
//     `vipsthumbnail -s 128` (target >= 0.8) and, for reference, ImageMagick's
//     `convert -thumbnail 128x128`. Each run starts with an empty thumbnail cache.
//   - time from play to the first audio sample of a WAV file on pyftpdlib: our player (libmpv
//     reading the streaming URL, the player made anew each time) against the mpv program
//     opening the plain FTP URL; both with null audio output; the time until the first
//     playback position is reported.
//
//   MEDIABENCH_PHOTOS   number of photos (default 1000)
//   MEDIABENCH_PLAYS    plays per side (default 5)
//   BENCH_VERBOSE       set: show the timed programs' error messages

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <filesystem>

#include "BenchKit.h"
#include "clients/Clients.h"
#include "core/KvConnectionPool.h"
#include "core/MainQueue.h"
#include "media/MusicPlayerService.h"
#include "servers/streaming/CachedDataReader.h"
#include "servers/streaming/DiskDataCache.h"
#include "servers/streaming/StreamHttpServerService.h"
#include "support/FtpServers.h"
#include "support/TestEnv.h"

namespace {

namespace fs = std::filesystem;
using namespace quillon;
using namespace quillon::bench;

std::vector<std::string> photoSet(const std::string& folder, long count) {
    fs::create_directories(folder);
    std::string first = folder + "/p0.jpg";
    // Noise over a gradient: about as hard to decode as a real photo.
    if (runQuiet({"convert", "-size", "4000x3000", "gradient:orange-navy", "-attenuate", "0.4",
                  "+noise", "Gaussian", "-quality", "90", first}) != 0)
        return {};
    std::vector<std::string> files{first};
    for (long i = 1; i < count; ++i) {
        std::string p = folder + "/p" + std::to_string(i) + ".jpg";
        std::error_code ec;
        fs::copy_file(first, p, fs::copy_options::overwrite_existing, ec);
        if (ec) return {};
        files.push_back(p);
    }
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    long photos = envNumber("MEDIABENCH_PHOTOS", 1000);
    long plays = envNumber("MEDIABENCH_PLAYS", 5);
    test::IsolatedHome home;
    test::ScratchDir scratch("mediabench");
    auto files = photoSet(scratch / "photos", photos);
    if (files.empty()) {
        std::printf("not measured: the photos could not be made\n");
        return 1;
    }
    std::string out = scratch / "out";
    std::string cache = home.path() + "/cache/thumbnails";
    auto reset = [out, cache] {
        emptyFolder(out);
        emptyFolder(cache);
    };
    std::vector<std::string> quillonArgs{QUILLON_BINARY, "thumb"};
    std::vector<std::string> vipsArgs{"vipsthumbnail", "-s", "128", "-o", out + "/%s.png"};
    std::vector<std::string> convertArgs{"mogrify", "-path",      out,      "-format",
                                         "png",     "-thumbnail", "128x128"};
    for (auto& f : files) {
        quillonArgs.push_back(f);
        vipsArgs.push_back(f);
        convertArgs.push_back(f);
    }
    std::string name = fmt::format("thumbnails of {} photos", photos);
    registerPair(
        name, "vipsthumbnail", 0, [&] { return runQuiet(quillonArgs) == 0; },
        [&] { return runQuiet(vipsArgs) == 0; }, reset, 2);
    registerPair(
        name + " ", "convert -thumbnail", 0, [&] { return runQuiet(quillonArgs) == 0; },
        [&] { return runQuiet(convertArgs) == 0; }, reset, 1);

    // Playback start.
    registerBuiltinClients();
    installStreaming();
    std::string why;
    auto server = test::FtpServer::start(test::FtpServerKind::Pyftpdlib, {}, &why);
    bool toneMade =
        server && runQuiet({"sox", "-n", "-r", "44100", "-c", "2", server->hostPath("/tone.wav"),
                            "synth", "30", "sine", "440"}) == 0;
    if (toneMade) {
        auto info = server->serverInfo();
        KvMetadata file(server->remotePath("/tone.wav"));
        file.protocolType = ProtocolType::FTP;
        file.fileSizeInBytes = fs::file_size(server->hostPath("/tone.wav"));
        std::string ftpUrl = server->url("/tone.wav");
        StreamHttpServerService::sharedHttpServerService().setPort(0);
        auto emptyCache = [] {
            CachedDataReader::cancelAllBackgroundFetching();
            CachedDataReader::fetchingQueue().waitUntilAllOperationsAreFinished();
            DiskDataCache::shared().clearCache();
        };
        registerPair(
            "play to first sample (FTP)", "mpv", 0,
            [info, file] {
                MusicPlayerService player(std::map<std::string, std::string>{{"ao", "null"}});
                bool started = false;
                player.setTimeObserver([&](double) { started = true; });
                player.playItems({PlayListItem(file, info)}, info, 0, [](auto e) {
                    if (e) std::printf("player: %s\n", e->describe().c_str());
                });
                bool ok = test::pumpUntil([&] { return started || !player.isActive(); },
                                          std::chrono::seconds(60)) &&
                          started;
                if (!ok && player.lastError())
                    std::printf("player: %s\n", player.lastError()->describe().c_str());
                player.close();
                return ok;
            },
            [ftpUrl] {
                // --end stops right after the first samples are out; mpv exits at once.
                return runQuiet({"mpv", "--no-config", "--ao=null", "--vo=null", "--end=0.01",
                                 ftpUrl}) == 0;
            },
            emptyCache, static_cast<int>(plays));
    } else {
        std::printf("play to first sample not measured: %s\n", why.c_str());
    }

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printPairRatio(name, "vipsthumbnail", "target >= 0.8");
    printPairRatio(name + " ", "convert -thumbnail", "reference");
    printPairRatio("play to first sample (FTP)", "mpv", "reference");
    StreamHttpServerService::sharedHttpServerService().stopServer();
    KvConnectionPool::clearConnectionPool();
    return 0;
}
