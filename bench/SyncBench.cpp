// Two-way folder sync against the usual tools, side by side in one run, on copies of one tree
// (SYNCBENCH_FILES files in SYNCBENCH_FOLDERS folders, a few kB each):
//   - a local folder as the remote side: `quillon sync run` against `rclone bisync` and `unison`
//   - a real pure-ftpd on loopback:      `quillon sync run` against `rclone bisync`
// For each: the first sync (everything on the remote side, the local folder empty) and a second
// run with nothing changed. Every run is the tool's own command-line program, start-up included.
// A sync run of quillon waits a fixed 1.0 s after its ability check; the ratios printed at the
// end take that pause off ("net"): target, our net no-change run no slower than the faster of
// the other two (ratio <= 1.0).
//
//   SYNCBENCH_FILES     number of files (default 10000)
//   SYNCBENCH_FOLDERS   number of folders (default 500)
//   SYNCBENCH_VERBOSE   set: show the timed programs' output
//   QUILLON_BINARY      the quillon program to time (default: the one built with this)

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include "BenchKit.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#if __has_include("support/FtpServers.h")
#include "support/FtpServers.h"
#define SYNCBENCH_HAS_FTP 1
#endif

namespace {

namespace fs = std::filesystem;
using namespace quillon::bench;

constexpr double kPause = 1.0;  // quillon's pause after the ability check

std::string gQuillon;
std::string gBase;
std::map<std::string, double> gSeconds;  // "<case>/<tool>/<first|again>" -> wall seconds

// Runs a program; its output goes away unless SYNCBENCH_VERBOSE is set. Returns the exit status
// and the wall time in `seconds`.
int run(const std::vector<std::string>& argv, double* seconds = nullptr,
        const std::string& input = {}) {
    std::string quiet = std::getenv("SYNCBENCH_VERBOSE") ? "" : "/dev/null";
    std::string inFile = gBase + "/stdin.txt";
    std::ofstream(inFile) << input;
    auto start = std::chrono::steady_clock::now();
    int rc = spawnAndWait(argv, inFile, quiet, quiet);
    if (seconds)
        *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return rc;
}

// The output of a program (standard output only).
std::string capture(const std::vector<std::string>& argv, const std::string& input = {}) {
    std::string out = gBase + "/capture.txt";
    std::string in = gBase + "/stdin.txt";
    std::ofstream(in) << input;
    spawnAndWait(argv, in, out, "");
    std::ifstream f(out);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

bool have(const std::string& program) {
    return run({"sh", "-c", "command -v " + program + " >/dev/null"}) == 0;
}

std::size_t countFiles(const std::string& root) {
    std::size_t n = 0;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        auto name = it->path().filename().string();
        if (name.front() == '.') {
            if (it->is_directory()) it.disable_recursion_pending();
            continue;
        }
        n += it->is_regular_file();
    }
    return n;
}

// The tree every tool starts from: files of 1 to 4 kB spread over the folders, with times a
// day in the past on whole seconds.
void makeTree(const std::string& root, long files, long folders) {
    std::mt19937 rng(7);
    std::vector<std::string> dirs;
    for (long d = 0; d < folders; ++d) {
        std::string dir = root + "/d" + std::to_string(d / 25) + "/s" + std::to_string(d);
        fs::create_directories(dir);
        dirs.push_back(dir);
    }
    auto when = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()) -
                std::chrono::hours(24);
    std::string block(4096, 'x');
    for (auto& c : block) c = static_cast<char>('a' + rng() % 26);
    for (long i = 0; i < files; ++i) {
        std::string path =
            dirs[static_cast<std::size_t>(i % folders)] + "/f" + std::to_string(i) + ".txt";
        std::ofstream(path, std::ios::binary)
            .write(block.data(), static_cast<std::streamsize>(1000 + rng() % 3000));
        fs::last_write_time(
            path, fs::file_time_type::clock::now() - (std::chrono::system_clock::now() - when));
    }
}

void copyTree(const std::string& from, const std::string& to) {
    fs::create_directories(fs::path(to).parent_path());
    if (run({"cp", "-a", from, to}) != 0) std::fprintf(stderr, "cp -a %s failed\n", from.c_str());
}

void record(benchmark::State& state, const std::string& key, double seconds, bool ok,
            std::size_t files, std::size_t expected) {
    if (!ok || files != expected) {
        state.SkipWithError((key + " failed (" + std::to_string(files) + " of " +
                             std::to_string(expected) + " files)")
                                .c_str());
        return;
    }
    gSeconds[key] = seconds;
}

// One measured step: `body` returns its wall time, or a negative number on failure.
void addStep(const std::string& name, std::function<void(benchmark::State&)> body) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [body](benchmark::State& state) {
                                     for (auto _ : state) body(state);
                                 })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

struct Setup {
    long files = 10000;
    long folders = 500;
    std::string tree;
    std::string home;
    bool rclone = false;
    bool unison = false;
    std::string localID;
    std::string ftpID;
    std::string ftpRemote;  // rclone's connection string of the FTP server
#ifdef SYNCBENCH_HAS_FTP
    std::unique_ptr<quillon::test::FtpServer> ftp;
#endif
};

Setup gSetup;

std::string quillonPairID(const std::string& addOutput) {
    std::string prefix = "Added sync pair ";
    if (addOutput.rfind(prefix, 0) != 0) return {};
    auto rest = addOutput.substr(prefix.size());
    return rest.substr(0, rest.find(':'));
}

void timeQuillon(benchmark::State& state, const std::string& key, const std::string& id,
                 const std::string& localFolder) {
    double secs = 0;
    int rc = run({gQuillon, "sync", "run", id}, &secs);
    state.SetIterationTime(secs);
    record(state, key, secs, rc == 0, countFiles(localFolder), gSetup.files);
}

// The first run (--resync) and the no-change run of rclone bisync between `local` and
// `remote`, timed as "<where>/rclone-bisync/...".
void addRcloneSteps(const std::string& where, const std::string& local, const std::string& remote,
                    const std::string& workdir) {
    for (bool first : {true, false})
        addStep(where + "/rclone-bisync/" + (first ? "first" : "again"), [=](benchmark::State& st) {
            std::vector<std::string> argv{
                "rclone",    "bisync", local,      remote,
                "--workdir", workdir,  "--config", gBase + "/rclone.conf"};
            if (first) argv.push_back("--resync");
            double secs = 0;
            int rc = run(argv, &secs);
            st.SetIterationTime(secs);
            record(st, where + "/rclone/" + (first ? "first" : "again"), secs, rc == 0,
                   countFiles(local), gSetup.files);
        });
}

void registerLocal() {
    auto& s = gSetup;
    std::string remoteA = gBase + "/local/quillon-remote";
    std::string localA = s.home + "/home/Synced/bench-local";
    std::string remoteB = gBase + "/local/rclone-remote", localB = gBase + "/local/rclone-local";
    std::string remoteC = gBase + "/local/unison-remote", localC = gBase + "/local/unison-local";
    copyTree(s.tree, remoteA);
    s.localID = quillonPairID(capture({gQuillon, "sync", "add", remoteA, "bench-local"}));
    for (auto when : {"first", "again"})
        addStep(std::string("local/quillon/") + when, [=](benchmark::State& st) {
            timeQuillon(st, std::string("local/quillon/") + when, gSetup.localID, localA);
        });
    if (s.rclone) {
        copyTree(s.tree, remoteB);
        fs::create_directories(localB);
        addRcloneSteps("local", localB, remoteB, gBase + "/rclone-work");
    }
    if (s.unison) {
        copyTree(s.tree, remoteC);
        fs::create_directories(localC);
        for (auto when : {"first", "again"})
            addStep(std::string("local/unison/") + when, [=](benchmark::State& st) {
                double secs = 0;
                int rc = run({"unison", localC, remoteC, "-batch", "-times", "-perms", "0", "-ui",
                              "text", "-silent"},
                             &secs);
                st.SetIterationTime(secs);
                record(st, std::string("local/unison/") + when, secs, rc == 0, countFiles(localC),
                       gSetup.files);
            });
    }
}

void registerFtp() {
#ifdef SYNCBENCH_HAS_FTP
    auto& s = gSetup;
    std::string why;
    s.ftp = quillon::test::FtpServer::start(quillon::test::FtpServerKind::PureFtpd, {}, &why);
    if (!s.ftp) {
        std::fprintf(stderr, "pure-ftpd cannot run (%s): the FTP case is left out\n", why.c_str());
        return;
    }
    copyTree(s.tree, s.ftp->hostPath("quillon"));
    copyTree(s.tree, s.ftp->hostPath("rclone"));
    s.ftp->chownTree();
    if (run({gQuillon, "server", "add", "benchftp", "--type", "ftp", "--addr", "127.0.0.1",
             "--port", std::to_string(s.ftp->port()), "--user", s.ftp->user(), "--password-stdin"},
            nullptr, s.ftp->password() + "\n") != 0)
        std::fprintf(stderr, "quillon server add failed\n");
    s.ftpID = quillonPairID(capture({gQuillon, "sync", "add", "benchftp:/quillon", "bench-ftp"}));
    std::string localA = s.home + "/home/Synced/bench-ftp";
    for (auto when : {"first", "again"})
        addStep(std::string("ftp/quillon/") + when, [=](benchmark::State& st) {
            timeQuillon(st, std::string("ftp/quillon/") + when, gSetup.ftpID, localA);
        });
    if (s.rclone) {
        std::string obscured = capture({"rclone", "obscure", s.ftp->password()});
        while (!obscured.empty() && (obscured.back() == '\n' || obscured.back() == '\r'))
            obscured.pop_back();
        s.ftpRemote = ":ftp,host=127.0.0.1,port=" + std::to_string(s.ftp->port()) +
                      ",user=" + s.ftp->user() + ",pass=" + obscured + ":/rclone";
        std::string localB = gBase + "/ftp/rclone-local";
        fs::create_directories(localB);
        addRcloneSteps("ftp", localB, gSetup.ftpRemote, gBase + "/rclone-work-ftp");
    }
#endif
}

void printRatios() {
    auto get = [](const std::string& key) -> double {
        auto it = gSeconds.find(key);
        return it == gSeconds.end() ? -1 : it->second;
    };
    std::printf(
        "\nSync of %ld files in %ld folders (wall seconds; quillon net = less its %.1f s "
        "pause)\n",
        gSetup.files, gSetup.folders, kPause);
    for (std::string c : {"local", "ftp"}) {
        for (std::string when : {"first", "again"}) {
            double ours = get(c + "/quillon/" + when);
            if (ours < 0) continue;
            double net = ours - kPause;
            double rclone = get(c + "/rclone/" + when), unison = get(c + "/unison/" + when);
            std::printf("%-5s %-6s quillon %.2f s (net %.2f s)", c.c_str(),
                        when == "first" ? "first" : "no-chg", ours, net);
            if (rclone > 0) std::printf("  rclone bisync %.2f s", rclone);
            if (unison > 0) std::printf("  unison %.2f s", unison);
            double best = -1;
            for (double t : {rclone, unison})
                if (t > 0 && (best < 0 || t < best)) best = t;
            if (best > 0)
                std::printf(
                    "  ratio net/fastest %.2f%s", net / best,
                    when == "again" ? (net <= best ? "  (target met)" : "  (target missed)") : "");
            std::printf("\n");
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    gQuillon = std::getenv("QUILLON_BINARY") ? std::getenv("QUILLON_BINARY") : QUILLON_BINARY;
    char tmpl[] = "/tmp/syncbench-XXXXXX";
    if (!::mkdtemp(tmpl)) return 1;
    gBase = tmpl;
    auto& s = gSetup;
    s.files = envNumber("SYNCBENCH_FILES", 10000);
    s.folders = std::max(1L, envNumber("SYNCBENCH_FOLDERS", 500));
    s.home = gBase + "/home";
    // Every tool keeps its state in the scratch folder.
    ::setenv("QUILLON_HOME", s.home.c_str(), 1);
    ::setenv("UNISON", (gBase + "/unison").c_str(), 1);
    ::setenv("XDG_CACHE_HOME", (gBase + "/cache").c_str(), 1);
    std::ofstream(gBase + "/rclone.conf");
    s.rclone = have("rclone");
    s.unison = have("unison");
    if (!s.rclone) std::fprintf(stderr, "rclone not found: left out\n");
    if (!s.unison) std::fprintf(stderr, "unison not found: left out\n");

    s.tree = gBase + "/tree";
    makeTree(s.tree, s.files, s.folders);
    registerLocal();
    registerFtp();

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printRatios();
#ifdef SYNCBENCH_HAS_FTP
    s.ftp.reset();
#endif
    fs::remove_all(gBase);
    return 0;
}
