// `quillon serve ftp`: the real binary shares a folder, prints where to connect, logs sessions on
// standard error and stops cleanly on SIGINT and SIGTERM.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "support/TestEnv.h"

extern char** environ;

namespace quillon {
namespace {

using test::ScratchDir;

// The quillon binary running in the background with its output collected.
class ServeProcess {
  public:
    ServeProcess(const std::vector<std::string>& args, const std::string& input) {
        int in[2], out[2], err[2];
        if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC))
            throw std::runtime_error("pipe failed");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        std::vector<std::string> argv{QUILLON_BINARY};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> cargs;
        for (auto& a : argv) cargs.push_back(a.data());
        cargs.push_back(nullptr);
        if (::posix_spawn(&pid_, cargs[0], &actions, nullptr, cargs.data(), environ) != 0)
            throw std::runtime_error("cannot start quillon");
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        ::close(err[1]);
        if (!input.empty() && ::write(in[1], input.data(), input.size()) < 0) {
        }
        ::close(in[1]);
        out_ = out[0];
        err_ = err[0];
    }
    ~ServeProcess() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        ::close(out_);
        ::close(err_);
    }
    // Reads standard output until `pattern` matches it (or 20 seconds pass); the match or empty.
    std::smatch waitForOutput(const std::regex& pattern) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        std::smatch m;
        while (!std::regex_search(stdout_, m, pattern)) {
            if (std::chrono::steady_clock::now() > deadline || !readSome(500)) break;
        }
        return m;
    }
    // Sends the signal and waits for the exit; the exit status (128 + signal when killed).
    int stop(int signal) {
        ::kill(pid_, signal);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        for (int fd : {out_, err_}) {
            char buf[4096];
            ssize_t n;
            while ((n = ::read(fd, buf, sizeof buf)) > 0)
                (fd == out_ ? stdout_ : stderr_).append(buf, static_cast<std::size_t>(n));
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    const std::string& out() const { return stdout_; }
    const std::string& err() const { return stderr_; }

  private:
    // Reads what is there on either pipe within the time-out; false once both are at their end.
    bool readSome(int timeoutMs) {
        pollfd fds[2] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
        if (::poll(fds, 2, timeoutMs) <= 0) return true;
        bool open = false;
        char buf[4096];
        for (int i = 0; i < 2; ++i) {
            if (!(fds[i].revents & (POLLIN | POLLHUP))) {
                open = true;
                continue;
            }
            auto n = ::read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                (i == 0 ? stdout_ : stderr_).append(buf, static_cast<std::size_t>(n));
                open = true;
            }
        }
        return open;
    }
    pid_t pid_ = -1;
    int out_ = -1, err_ = -1;
    std::string stdout_, stderr_;
};

test::CommandResult curl(const std::vector<std::string>& args) {
    std::vector<std::string> argv{"curl", "-q", "-s", "-S", "--max-time", "20"};
    argv.insert(argv.end(), args.begin(), args.end());
    return test::runProgram(argv);
}

TEST(ServeCommand, SharesAFolderWithAUserLogsSessionsAndStopsOnSigint) {
    test::IsolatedHome home;
    ScratchDir root("serve");
    ScratchDir local("servelocal");
    test::writeFile(root / "hello world.txt", "hi there");
    test::writeFile(local / "up.bin", "uploaded bytes");
    ServeProcess p({"serve", "ftp", root.path(), "--port", "0", "--bind", "127.0.0.1", "--user",
                    "ann", "--password-stdin"},
                   "open sesame\n");
    auto m = p.waitForOutput(std::regex(R"(Connect to ftp://ann@127\.0\.0\.1:(\d+)/)"));
    ASSERT_FALSE(m.empty()) << p.out() << p.err();
    std::string url = "ftp://127.0.0.1:" + m[1].str() + "/";
    EXPECT_NE(p.out().find("Sharing " + root.path() + " over FTP"), std::string::npos) << p.out();

    auto get = curl({"--user", "ann:open sesame", url + "hello%20world.txt"});
    EXPECT_EQ(get.exitCode, 0) << get.err;
    EXPECT_EQ(get.out, "hi there");
    auto put = curl({"--user", "ann:open sesame", "-T", local / "up.bin", url + "up.bin"});
    EXPECT_EQ(put.exitCode, 0) << put.err;
    EXPECT_EQ(test::readFile(root / "up.bin"), "uploaded bytes");
    EXPECT_NE(curl({"--user", "ann:wrong", url}).exitCode, 0);

    EXPECT_EQ(p.stop(SIGINT), 0) << p.err();
    EXPECT_NE(p.err().find("connected"), std::string::npos) << p.err();
    EXPECT_NE(p.err().find("user 'ann' logged in"), std::string::npos) << p.err();
    EXPECT_NE(p.err().find("STOR up.bin (14 bytes): 226"), std::string::npos) << p.err();
    EXPECT_NE(p.err().find("login failed"), std::string::npos) << p.err();
    EXPECT_NE(p.err().find("received SIGINT, stopping"), std::string::npos) << p.err();
    EXPECT_EQ(p.err().find("open sesame"), std::string::npos);  // the password is never logged
    EXPECT_NE(curl({url}).exitCode, 0);                         // and nothing listens any more
}

TEST(ServeCommand, AnonymousShareIsReadOnlyAndStopsOnSigterm) {
    test::IsolatedHome home;
    ScratchDir root("serveanon");
    ScratchDir local("serveanonlocal");
    test::writeFile(root / "pub.txt", "public");
    test::writeFile(local / "x.txt", "x");
    ServeProcess p({"serve", "ftp", root.path(), "--port", "0", "--bind", "127.0.0.1"}, "");
    auto m = p.waitForOutput(std::regex(R"(Connect to ftp://127\.0\.0\.1:(\d+)/)"));
    ASSERT_FALSE(m.empty()) << p.out() << p.err();
    p.waitForOutput(std::regex("press Ctrl-C to stop"));
    EXPECT_NE(p.out().find("Anyone may log in (read-only)"), std::string::npos) << p.out();
    std::string url = "ftp://127.0.0.1:" + m[1].str() + "/";
    EXPECT_EQ(curl({url + "pub.txt"}).out, "public");
    EXPECT_NE(curl({"-T", local / "x.txt", url + "x.txt"}).exitCode, 0);
    EXPECT_FALSE(std::filesystem::exists(root / "x.txt"));
    EXPECT_EQ(p.stop(SIGTERM), 0) << p.err();
}

TEST(ServeCommand, RefusesAMissingFolderABusyPortAndTwoPasswordSources) {
    test::IsolatedHome home;
    ScratchDir root("servebad");
    auto missing = test::runQuillon({"serve", "ftp", root / "missing", "--port", "0"});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_NE(missing.err.find("no such folder"), std::string::npos) << missing.err;

    auto both = test::runQuillon(
        {"serve", "ftp", root.path(), "--password", "a", "--password-stdin"}, "b\n");
    EXPECT_EQ(both.exitCode, 2);

    ServeProcess first({"serve", "ftp", root.path(), "--port", "0", "--bind", "127.0.0.1"}, "");
    auto m = first.waitForOutput(std::regex(R"(Connect to ftp://127\.0\.0\.1:(\d+)/)"));
    ASSERT_FALSE(m.empty()) << first.err();
    auto busy = test::runQuillon(
        {"serve", "ftp", root.path(), "--port", m[1].str(), "--bind", "127.0.0.1"});
    EXPECT_EQ(busy.exitCode, 1);
    EXPECT_NE(busy.err.find("Cannot listen on 127.0.0.1 port " + m[1].str()), std::string::npos)
        << busy.err;
    EXPECT_EQ(first.stop(SIGINT), 0);
}

}  // namespace
}  // namespace quillon
