// The built-in FTP server (`quillon serve ftp`) side by side with vsftpd, both on loopback ports
// serving the same folder:
//   - RETR of one large file to curl (1 GiB; QUILLON_BENCH_RETR_MIB changes it): throughput;
//   - 100 concurrent curl clients, each listing a folder and downloading ten 64 KiB files over
//     one session: total time and failed transfers.
// Prints the ratios (ours / vsftpd) at the end. vsftpd is looked for in $QUILLON_VSFTPD,
// $QUILLON_FTPD_ROOT/vsftpd/usr/sbin/vsftpd (default root /opt/quillon-ftpd) and /usr/sbin.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kClients = 100;
constexpr int kFilesPerClient = 10;
constexpr std::size_t kSmallFileBytes = 64 * 1024;

struct Child {
    pid_t pid = -1;
    int out = -1;
    int err = -1;
};

Child spawn(const std::vector<std::string>& argv, bool keepOutput = true) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC)) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    if (keepOutput)
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    else
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    Child c;
    if (::posix_spawnp(&c.pid, args[0], &actions, nullptr, args.data(), environ) != 0) c.pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    c.out = out[0];
    c.err = err[0];
    if (!keepOutput) {
        ::close(c.err);
        c.err = -1;
    }
    return c;
}

std::string readAll(int fd) {
    std::string s;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) s.append(buf, static_cast<std::size_t>(n));
    return s;
}

int finish(Child& c, std::string* out = nullptr) {
    std::string o = readAll(c.out);
    if (out) *out = std::move(o);
    ::close(c.out);
    if (c.err >= 0) {
        readAll(c.err);
        ::close(c.err);
    }
    int status = 0;
    ::waitpid(c.pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int freePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    ::close(fd);
    return ntohs(a.sin_port);
}

bool portOpen(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<unsigned short>(port));
    bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    ::close(fd);
    return ok;
}

std::optional<std::string> findVsftpd() {
    std::vector<std::string> candidates;
    if (const char* v = std::getenv("QUILLON_VSFTPD")) candidates.push_back(v);
    const char* root = std::getenv("QUILLON_FTPD_ROOT");
    candidates.push_back(std::string(root ? root : "/opt/quillon-ftpd") +
                         "/vsftpd/usr/sbin/vsftpd");
    candidates.push_back("/usr/sbin/vsftpd");
    for (auto& c : candidates)
        if (::access(c.c_str(), X_OK) == 0) return c;
    return std::nullopt;
}

// The shared folder: one large file and a folder of small ones, made once per run.
class Fixture {
  public:
    static Fixture& shared() {
        static Fixture f;
        return f;
    }
    const std::string& dir() const { return dir_; }
    std::uint64_t bigBytes() const { return bigBytes_; }
    int ourPort() const { return ourPort_; }
    int vsftpdPort() const { return vsftpdPort_; }
    bool haveVsftpd() const { return vsftpd_.pid > 0; }

    ~Fixture() {
        for (Child* c : {&ours_, &vsftpd_}) {
            if (c->pid <= 0) continue;
            ::kill(c->pid, SIGINT);
            finish(*c);
        }
        std::error_code ec;
        fs::remove_all(base_, ec);
    }

  private:
    Fixture() {
        std::string tmpl = (fs::temp_directory_path() / "quillon-ftpbench-XXXXXX").string();
        if (!::mkdtemp(tmpl.data())) std::abort();
        base_ = tmpl;
        dir_ = base_ + "/share";
        fs::create_directories(dir_ + "/many");
        fs::create_directories(base_ + "/empty");
        std::uint64_t mib = 1024;
        if (const char* m = std::getenv("QUILLON_BENCH_RETR_MIB"))
            mib = std::strtoull(m, nullptr, 10);
        bigBytes_ = mib * 1024 * 1024;
        writePattern(dir_ + "/big.bin", bigBytes_, 1);
        for (int i = 0; i < kFilesPerClient; ++i)
            writePattern(fmt::format("{}/many/file{}.bin", dir_, i), kSmallFileBytes,
                         static_cast<unsigned>(i + 2));
        startOurs();
        startVsftpd();
    }

    static void writePattern(const std::string& path, std::uint64_t bytes, unsigned variant) {
        std::ofstream out(path, std::ios::binary);
        std::vector<std::uint64_t> block(1 << 17);
        std::uint64_t x = variant * 0x9E3779B97F4A7C15ull;
        for (std::uint64_t done = 0; done < bytes;) {
            for (auto& w : block) w = (x = x * 6364136223846793005ull + 1442695040888963407ull);
            auto n = std::min<std::uint64_t>(bytes - done, block.size() * sizeof(std::uint64_t));
            out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(n));
            done += n;
        }
    }

    void startOurs() {
        ours_ = spawn({QUILLON_BINARY, "serve", "ftp", dir_, "--port", "0", "--bind", "127.0.0.1",
                       "--max-sessions", "500"},
                      false);
        // Standard output names the port once the server listens.
        std::string out;
        std::regex re(R"(ftp://127\.0\.0\.1:(\d+)/)");
        std::smatch m;
        auto deadline = Clock::now() + std::chrono::seconds(20);
        char buf[1024];
        while (!std::regex_search(out, m, re) && Clock::now() < deadline) {
            pollfd p{ours_.out, POLLIN, 0};
            if (::poll(&p, 1, 1000) <= 0) continue;
            auto n = ::read(ours_.out, buf, sizeof buf);
            if (n <= 0) break;
            out.append(buf, static_cast<std::size_t>(n));
        }
        if (m.empty()) {
            fmt::print(stderr, "quillon serve ftp did not start: {}\n", out);
            std::abort();
        }
        ourPort_ = std::stoi(m[1]);
    }

    void startVsftpd() {
        auto binary = findVsftpd();
        if (!binary) {
            fmt::print(stderr, "vsftpd not found; only our server is measured\n");
            return;
        }
        vsftpdPort_ = freePort();
        std::string conf = base_ + "/vsftpd.conf";
        std::ofstream c(conf);
        c << "listen=YES\nlisten_ipv6=NO\nlisten_address=127.0.0.1\nlisten_port=" << vsftpdPort_
          << "\nbackground=NO\nanonymous_enable=YES\nanon_root=" << dir_
          << "\nno_anon_password=YES\nlocal_enable=NO\nwrite_enable=NO\n"
             "anon_world_readable_only=NO\nrun_as_launching_user=YES\nseccomp_sandbox=NO\n"
             "pasv_enable=YES\nmax_clients=0\nmax_per_ip=0\nxferlog_enable=NO\n"
             "dirmessage_enable=NO\nsecure_chroot_dir="
          << base_ << "/empty\n";
        c.close();
        vsftpd_ = spawn({*binary, conf}, false);
        auto deadline = Clock::now() + std::chrono::seconds(10);
        while (!portOpen(vsftpdPort_) && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }

    std::string base_, dir_;
    std::uint64_t bigBytes_ = 0;
    Child ours_, vsftpd_;
    int ourPort_ = 0, vsftpdPort_ = 0;
};

std::map<std::string, double> results;  // name -> seconds per iteration (mean)
std::map<std::string, long> failures;

int portOf(bool ours) {
    auto& f = Fixture::shared();
    return ours ? f.ourPort() : f.vsftpdPort();
}

void retrLargeFile(benchmark::State& state, bool ours) {
    auto& f = Fixture::shared();
    if (!ours && !f.haveVsftpd()) {
        state.SkipWithError("vsftpd not found");
        return;
    }
    std::string url = fmt::format("ftp://127.0.0.1:{}/big.bin", portOf(ours));
    double total = 0;
    long failed = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        auto c = spawn({"curl", "-q", "-s", "-o", "/dev/null", "-w", "%{size_download}", url});
        std::string out;
        int rc = finish(c, &out);
        double secs = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(secs);
        total += secs;
        if (rc != 0 || out != std::to_string(f.bigBytes())) ++failed;
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * f.bigBytes()));
    state.counters["failed"] = static_cast<double>(failed);
    results[ours ? "retr/ours" : "retr/vsftpd"] = total / static_cast<double>(state.iterations());
    failures[ours ? "retr/ours" : "retr/vsftpd"] += failed;
}

void manyClients(benchmark::State& state, bool ours) {
    auto& f = Fixture::shared();
    if (!ours && !f.haveVsftpd()) {
        state.SkipWithError("vsftpd not found");
        return;
    }
    std::string base = fmt::format("ftp://127.0.0.1:{}/many/", portOf(ours));
    // One curl per client: the listing and ten files over one reused session.
    std::vector<std::string> argv{
        "curl", "-q", "-s",       "--max-time", "120", "-w", "%{response_code} %{size_download}\\n",
        base,   "-o", "/dev/null"};
    for (int i = 0; i < kFilesPerClient; ++i) {
        argv.push_back(fmt::format("{}file{}.bin", base, i));
        argv.push_back("-o");
        argv.push_back("/dev/null");
    }
    double total = 0;
    long failed = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        std::vector<Child> clients;
        for (int i = 0; i < kClients; ++i) clients.push_back(spawn(argv));
        for (auto& c : clients) {
            std::string out;
            int rc = finish(c, &out);
            std::istringstream lines(out);
            std::string code;
            std::uint64_t size = 0;
            int files = 0;
            bool listed = false;
            while (lines >> code >> size) {
                if (!listed) {
                    listed = true;
                    if (code != "226") ++failed;
                    continue;
                }
                ++files;
                if (code != "226" || size != kSmallFileBytes) ++failed;
            }
            if (!listed) ++failed;
            failed += kFilesPerClient - files;
            if (rc != 0 && listed && files == kFilesPerClient) ++failed;
        }
        double secs = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(secs);
        total += secs;
    }
    state.counters["failed"] = static_cast<double>(failed);
    results[ours ? "many/ours" : "many/vsftpd"] = total / static_cast<double>(state.iterations());
    failures[ours ? "many/ours" : "many/vsftpd"] += failed;
}

}  // namespace

BENCHMARK_CAPTURE(retrLargeFile, ours, true)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(retrLargeFile, vsftpd, false)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(manyClients, ours, true)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(manyClients, vsftpd, false)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Fixture::shared();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    auto& f = Fixture::shared();
    auto have = [](const char* k) { return results.count(k) > 0 && results[k] > 0; };
    fmt::print("\nFTP server side by side (ours / vsftpd):\n");
    if (have("retr/ours") && have("retr/vsftpd")) {
        double mib = static_cast<double>(f.bigBytes()) / (1024.0 * 1024.0);
        double ours = mib / results["retr/ours"], theirs = mib / results["retr/vsftpd"];
        fmt::print(
            "  RETR {:.0f} MiB to curl: {:.0f} MiB/s vs {:.0f} MiB/s, throughput ratio {:.2f}\n",
            mib, ours, theirs, ours / theirs);
    }
    if (have("many/ours") && have("many/vsftpd")) {
        fmt::print("  {} clients x (LIST + {} x 64 KiB): {:.2f} s vs {:.2f} s, time ratio {:.2f}\n",
                   kClients, kFilesPerClient, results["many/ours"], results["many/vsftpd"],
                   results["many/ours"] / results["many/vsftpd"]);
    }
    for (auto& [name, n] : failures) fmt::print("  failed transfers {}: {}\n", name, n);
    return 0;
}
