// `quillon ls --json DIR` against `ls -la DIR` on one folder of 100,000 entries, side by side in
// one run, and their ratio (target: at most 1.5).
//
//   LSBENCH_ENTRIES   number of entries (default 100000)
//   QUILLON_BINARY    the quillon program to time (default: the one built with this benchmark)

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include "BenchKit.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace quillon::bench;

std::string gFolder;
std::string gQuillon;

// A folder of `count` entries: mostly files of assorted sizes, some folders and links.
bool makeFolder(const std::string& folder, long count) {
    for (long i = 0; i < count; ++i) {
        char name[64];
        if (i % 100 == 0) {
            std::snprintf(name, sizeof name, "%s/folder %06ld", folder.c_str(), i);
            if (::mkdir(name, 0755) != 0) return false;
        } else if (i % 100 == 1) {
            std::snprintf(name, sizeof name, "%s/link-%06ld", folder.c_str(), i);
            if (::symlink("folder 000000", name) != 0) return false;
        } else {
            std::snprintf(name, sizeof name, "%s/file-%06ld.%s", folder.c_str(), i,
                          i % 3 == 0 ? "txt" : (i % 3 == 1 ? "jpg" : "tar.gz"));
            int fd = ::open(name, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd < 0) return false;
            // Sparse sizes: the listing reads them, nothing has to be written.
            bool ok = ::ftruncate(fd, (i * 7919) % 1000000) == 0;
            ::close(fd);
            if (!ok) return false;
        }
    }
    return true;
}

void timeCommand(benchmark::State& state, const std::vector<std::string>& argv) {
    for (auto _ : state) {
        if (runQuiet(argv) != 0) {
            state.SkipWithError(("failed: " + argv[0] + " " + argv[1]).c_str());
            break;
        }
    }
}

void BM_QuillonLsJson(benchmark::State& state) {
    timeCommand(state, {gQuillon, "ls", "--json", gFolder});
}
void BM_LsLa(benchmark::State& state) {
    timeCommand(state, {"ls", "-la", gFolder});
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    long entries = 100000;
    if (const char* e = std::getenv("LSBENCH_ENTRIES")) entries = std::atol(e);
    const char* bin = std::getenv("QUILLON_BINARY");
    gQuillon = bin && *bin ? bin : QUILLON_BINARY;

    std::string base = (fs::temp_directory_path() / "quillon-lsbench-XXXXXX").string();
    if (!::mkdtemp(base.data())) {
        std::perror("mkdtemp");
        return 1;
    }
    // Everything quillon keeps (preferences, database) goes to a scratch home.
    ::setenv("QUILLON_HOME", (base + "/home").c_str(), 1);
    gFolder = base + "/listing";
    if (::mkdir(gFolder.c_str(), 0755) != 0 || !makeFolder(gFolder, entries)) {
        std::perror("creating the folder");
        fs::remove_all(base);
        return 1;
    }
    std::printf("folder: %s (%ld entries)\n", gFolder.c_str(), entries);
    // A first run sets up quillon's home, so the timed runs measure listing only.
    if (runQuiet({gQuillon, "ls", "--json", gFolder}) != 0)
        std::printf("note: %s ls --json fails; its benchmark will report the error\n",
                    gQuillon.c_str());

    benchmark::RegisterBenchmark("quillon ls --json", BM_QuillonLsJson)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MinTime(3.0);
    benchmark::RegisterBenchmark("ls -la", BM_LsLa)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MinTime(3.0);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    auto q = reporter.seconds.find("quillon ls --json");
    auto l = reporter.seconds.find("ls -la");
    if (q != reporter.seconds.end() && l != reporter.seconds.end() && l->second > 0)
        std::printf("ratio quillon ls --json / ls -la: %.2f (target <= 1.5)\n",
                    q->second / l->second);
    else
        std::printf("ratio: not measured\n");
    std::error_code ec;
    fs::remove_all(base, ec);
    benchmark::Shutdown();
    return 0;
}
