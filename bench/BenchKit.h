#pragma once
// What the side-by-side benchmarks share: running the peer programs quietly, test data, and a
// reporter that keeps each benchmark's mean time to print speed ratios at the end.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

extern char** environ;

namespace quillon::bench {

// Runs a program with its standard input, output and error opened on the given files (an empty
// name leaves the stream as it is) and waits for it: its exit status, or -1 when it cannot start.
inline int spawnAndWait(const std::vector<std::string>& argv, const std::string& in,
                        const std::string& out, const std::string& err) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!in.empty()) posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
    if (!out.empty())
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
    if (!err.empty())
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    int rc = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return -1;
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs a program with its output thrown away; returns its exit status. BENCH_VERBOSE keeps its
// error messages, to see why one fails.
inline int runQuiet(const std::vector<std::string>& argv) {
    return spawnAndWait(argv, "/dev/null", "/dev/null",
                        std::getenv("BENCH_VERBOSE") ? "" : "/dev/null");
}

inline long envNumber(const char* name, long fallback) {
    const char* v = std::getenv(name);
    return v && *v ? std::atol(v) : fallback;
}

// Incompressible bytes, so that no layer can cheat on zeros.
inline std::vector<char> randomBlock(std::size_t size, unsigned variant) {
    std::vector<char> block(size);
    std::mt19937_64 rng(variant);
    for (std::size_t i = 0; i + 8 <= size; i += 8) {
        auto v = rng();
        std::memcpy(block.data() + i, &v, 8);
    }
    return block;
}

inline bool writeBytes(const std::string& path, const char* data, std::size_t size) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    std::size_t done = 0;
    while (done < size) {
        ssize_t n = ::write(fd, data + done, size - done);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    ::close(fd);
    return done == size;
}

inline bool makeBigFile(const std::string& path, long mib) {
    auto block = randomBlock(1 << 20, 1);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = true;
    for (long i = 0; i < mib && ok; ++i) {
        block[0] = static_cast<char>(i);
        ok = ::write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size());
    }
    ::close(fd);
    return ok;
}

inline void removeFile(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove(path, ec);
}

// Empty files named like a photo library's, for the listing benchmarks.
inline bool makeManyEntries(const std::string& folder, long count) {
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    for (long i = 0; i < count; ++i) {
        char name[64];
        std::snprintf(name, sizeof name, "/IMG_%06ld %s.jpg", i, i % 2 ? "copy" : "edit");
        int fd = ::open((folder + name).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return false;
        ::close(fd);
    }
    return true;
}

// A folder made empty, for a copy to land in.
inline void emptyFolder(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
    std::filesystem::create_directories(path, ec);
}

// Empties both target folders (untimed, before each run of either side).
inline std::function<void()> emptyBoth(const std::string& a, const std::string& b) {
    return [a, b] {
        emptyFolder(a);
        emptyFolder(b);
    };
}

// Prints as usual and keeps the mean real time of each benchmark for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (auto& run : runs)
            if (!run.error_occurred && run.iterations > 0)
                seconds[run.run_name.function_name] =
                    run.real_accumulated_time / static_cast<double>(run.iterations);
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> seconds;
};

inline void printRatio(const RatioReporter& r, const std::string& quillon, const std::string& other,
                       const char* target) {
    auto q = r.seconds.find(quillon);
    auto o = r.seconds.find(other);
    if (q == r.seconds.end() || o == r.seconds.end() || q->second <= 0) {
        std::printf("speed ratio %s : %s: not measured\n", quillon.c_str(), other.c_str());
        return;
    }
    std::printf("speed ratio of '%s' to '%s': %.2f (%s)\n", quillon.c_str(), other.c_str(),
                o->second / q->second, target);
}

// Mean seconds of quillon and of its peer, by the name of the pair.
inline std::map<std::string, std::pair<double, double>>& pairTimes() {
    static std::map<std::string, std::pair<double, double>> times;
    return times;
}

// One benchmark for quillon and a peer tool doing the same work: every iteration runs both, in
// turns of who goes first, each after `reset` and a sync, so that drifts of the machine (page
// cache, write-back) fall on both sides alike. The time shown is quillon's; the peer's mean is
// the counter "<peer>_ms". Each side returns false when it failed.
inline void registerPair(const std::string& name, const std::string& peer, std::int64_t bytes,
                         std::function<bool()> quillon, std::function<bool()> other,
                         std::function<void()> reset, int iterations = 4) {
    benchmark::RegisterBenchmark(
        ("quillon vs " + peer + ": " + name).c_str(),
        [=](benchmark::State& s) {
            double q = 0;
            double o = 0;
            long n = 0;
            auto timed = [&](const std::function<bool()>& run, double& total) {
                reset();
                ::sync();
                auto start = std::chrono::steady_clock::now();
                bool ok = run();
                std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
                total += took.count();
                return ok ? took.count() : -1.0;
            };
            for (auto _ : s) {
                bool otherFirst = n % 2 == 1;
                if (otherFirst && timed(other, o) < 0) {
                    s.SkipWithError((peer + " failed").c_str());
                    break;
                }
                double mine = timed(quillon, q);
                if (mine < 0) {
                    s.SkipWithError("quillon failed");
                    break;
                }
                if (!otherFirst && timed(other, o) < 0) {
                    s.SkipWithError((peer + " failed").c_str());
                    break;
                }
                s.SetIterationTime(mine);
                ++n;
            }
            reset();
            if (n == 0) return;
            if (bytes > 0) s.SetBytesProcessed(static_cast<std::int64_t>(n) * bytes);
            s.counters[peer + "_ms"] = 1000 * o / static_cast<double>(n);
            pairTimes()[name] = {q / static_cast<double>(n), o / static_cast<double>(n)};
        })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(iterations);
}

// "speed ratio of quillon to PEER, NAME: R (TARGET)", R being the peer's time over quillon's.
inline void printPairRatio(const std::string& name, const std::string& peer, const char* target) {
    auto it = pairTimes().find(name);
    if (it == pairTimes().end() || it->second.first <= 0) {
        std::printf("speed ratio of quillon to %s, %s: not measured\n", peer.c_str(), name.c_str());
        return;
    }
    std::printf("speed ratio of quillon to %s, %s: %.2f (%s)\n", peer.c_str(), name.c_str(),
                it->second.second / it->second.first, target);
}

}  // namespace quillon::bench
