#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

extern char** environ;

namespace quillon::test {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& input) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC))
        throw std::runtime_error("pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    int rc = ::posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    // Small inputs (a password) fit the pipe's buffer.
    if (rc == 0 && !input.empty()) (void)!::write(in[1], input.data(), input.size());
    ::close(in[1]);
    ::close(out[1]);
    ::close(err[1]);
    outFd_ = out[0];
    errFd_ = err[0];
    if (rc != 0) {
        pid_ = -1;
        err_ = "cannot start " + argv[0];
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    if (outFd_ >= 0) ::close(outFd_);
    if (errFd_ >= 0) ::close(errFd_);
}

bool ChildProcess::readSome(int ms) {
    pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
    if (outFd_ < 0 && errFd_ < 0) return false;
    if (::poll(fds, 2, ms) <= 0) return true;
    char buf[65536];
    for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        auto got = ::read(fds[i].fd, buf, sizeof buf);
        if (got > 0) {
            (i == 0 ? out_ : err_).append(buf, static_cast<std::size_t>(got));
        } else {
            ::close(fds[i].fd);
            (i == 0 ? outFd_ : errFd_) = -1;
        }
    }
    return outFd_ >= 0 || errFd_ >= 0;
}

std::optional<std::string> ChildProcess::waitForOutput(const std::regex& pattern,
                                                       std::chrono::seconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    std::smatch m;
    while (!std::regex_search(out_, m, pattern)) {
        if (std::chrono::steady_clock::now() > deadline || !readSome(200)) return std::nullopt;
    }
    return m.size() > 1 ? m[1].str() : m[0].str();
}

bool ChildProcess::running(int ms) {
    if (pid_ <= 0) return false;
    readSome(ms);
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return true;
    pid_ = -1;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
}

int ChildProcess::wait(std::chrono::seconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (running(100)) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
            return -1;
        }
    }
    // What the program wrote before it ended; a helper it left running keeps its pipe open.
    for (int i = 0; i < 50 && readSome(100);) {
        pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
        if (::poll(fds, 2, 0) <= 0) ++i;
    }
    return status_.value_or(-1);
}

int ChildProcess::stop(int signal) {
    if (pid_ > 0) ::kill(pid_, signal);
    return wait();
}

}  // namespace quillon::test
