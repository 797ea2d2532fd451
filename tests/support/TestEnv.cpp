#include "support/TestEnv.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "core/AppPreference.h"
#include "core/DBManager.h"
#include "core/MainQueue.h"
#include "support/ChildProcess.h"
#include "transfer/FileTransferTaskManager.h"

namespace fs = std::filesystem;

namespace quillon::test {

ScratchDir::ScratchDir(const std::string& tag) {
    std::string tmpl = (fs::temp_directory_path() / ("quillon-" + tag + "-XXXXXX")).string();
    if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

ScratchDir::~ScratchDir() {
    std::error_code ec;
    // Make read-only leftovers of permission tests removable.
    for (auto it = fs::recursive_directory_iterator(path_, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec))
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
    }
    fs::remove_all(path_, ec);
}

IsolatedHome::IsolatedHome() : dir_("home") {
    if (const char* p = std::getenv("QUILLON_HOME")) {
        previous_ = p;
        hadPrevious_ = true;
    }
    ::setenv("QUILLON_HOME", dir_.path().c_str(), 1);
}

IsolatedHome::~IsolatedHome() {
    if (hadPrevious_)
        ::setenv("QUILLON_HOME", previous_.c_str(), 1);
    else
        ::unsetenv("QUILLON_HOME");
}

IsolatedHome& programHome() {
    // Never destroyed: the shared stores may still write there while the program exits.
    static IsolatedHome* home = new IsolatedHome();
    return *home;
}

void FreshHome::SetUp() {
    auto& home = programHome();
    auto& db = DBManager::sharedDBManager();
    db.closeDB();
    std::error_code ec;
    for (fs::directory_iterator it(home.path(), ec), end; !ec && it != end; it.increment(ec))
        fs::remove_all(it->path(), ec);
    ASSERT_TRUE(AppPreference::sharedAppPreference().load());
    if (openDatabase_) {
        ASSERT_TRUE(db.openDB());
    }
}

void FreshHome::TearDown() {
    DBManager::sharedDBManager().closeDB();
}

ScopedTimeZone::ScopedTimeZone(const std::string& zone) {
    if (const char* p = std::getenv("TZ")) previous_ = p;
    ::setenv("TZ", zone.c_str(), 1);
    ::tzset();
}

ScopedTimeZone::~ScopedTimeZone() {
    if (previous_)
        ::setenv("TZ", previous_->c_str(), 1);
    else
        ::unsetenv("TZ");
    ::tzset();
}

CommandResult runProgram(const std::vector<std::string>& argv, const std::string& input) {
    ChildProcess p(argv, input);
    int status = p.wait(std::chrono::hours(1));
    return {status, p.out(), p.err()};
}

CommandResult runQuillon(const std::vector<std::string>& args, const std::string& input) {
    std::vector<std::string> argv{QUILLON_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv, input);
}

::testing::AssertionResult quillonExits(int status, const std::vector<std::string>& args,
                                        std::string_view says, const std::string& input) {
    auto r = runQuillon(args, input);
    if (r.exitCode == status && (contains(r.out, says) || contains(r.err, says)))
        return ::testing::AssertionSuccess();
    auto failure = ::testing::AssertionFailure() << "quillon";
    for (auto& a : args) failure << " '" << a << "'";
    return failure << " exited " << r.exitCode << ", not " << status << " with \"" << says
                   << "\"\nout: " << r.out << "\nerr: " << r.err;
}

CommandResult curl(const std::vector<std::string>& args) {
    std::vector<std::string> argv{"curl", "-q", "-s", "-S", "--max-time", "60"};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv);
}

bool waitUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool pumpUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
    auto& queue = MainQueue::shared();
    auto deadline = std::chrono::steady_clock::now() + limit;
    // A repeating timer wakes runUntil up when nothing else is queued.
    auto tick = queue.scheduleRepeating(std::chrono::milliseconds(5), [] {});
    queue.runUntil([&] { return done() || std::chrono::steady_clock::now() > deadline; });
    queue.cancel(tick);
    return done();
}

void writeFile(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary);
    out << content;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

::testing::AssertionResult fileHolds(const std::string& path, const std::string& content) {
    std::error_code ec;
    if (!fs::exists(path, ec)) return ::testing::AssertionFailure() << path << " is missing";
    auto got = readFile(path);
    if (got == content) return ::testing::AssertionSuccess();
    auto at = std::mismatch(got.begin(), got.end(), content.begin(), content.end());
    return ::testing::AssertionFailure()
           << path << " holds " << got.size() << " bytes (" << got.substr(0, 40) << "...), not "
           << content.size() << "; first difference at byte " << (at.first - got.begin());
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
        names.push_back(it->path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

double mtimeOf(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return -1;
    return static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9;
}

void setMtime(const std::string& path, double secondsSince1970) {
    struct timespec times[2];
    times[0].tv_sec = times[1].tv_sec = static_cast<time_t>(secondsSince1970);
    times[0].tv_nsec = times[1].tv_nsec =
        static_cast<long>((secondsSince1970 - std::floor(secondsSince1970)) * 1e9);
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

unsigned modeOf(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
}

std::string randomBytes(std::size_t size, unsigned variant) {
    std::mt19937_64 gen(variant);
    std::string out(size, '\0');
    for (std::size_t i = 0; i < size; i += 8) {
        auto v = gen();
        std::memcpy(out.data() + i, &v, std::min<std::size_t>(8, size - i));
    }
    return out;
}

}  // namespace quillon::test
