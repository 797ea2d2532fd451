#include "archives/SevenZipTool.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <vector>

extern char** environ;

namespace quillon::SevenZipTool {

namespace {

struct Outcome {
    int exitCode = -1;
    bool cancelled = false;
    std::string err;
};

// Runs argv with `input` on its standard input (a socket, so that a program that never reads it
// cannot raise SIGPIPE here), hands each piece of its standard output to `onOutput`, keeps its
// standard error, and kills it when `cancelled` turns true.
std::expected<Outcome, std::string> run(const std::vector<std::string>& argv,
                                        const std::string& input,
                                        const std::function<void(std::string_view)>& onOutput,
                                        const std::atomic<bool>& cancelled) {
    int in[2], out[2], err[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in) != 0)
        return std::unexpected(std::strerror(errno));
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
        for (int fd : {in[0], in[1]}) ::close(fd);
        return std::unexpected(std::strerror(errno));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[1], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    // Names in UTF-8, whatever this process's locale.
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "LC_ALL=", 7) != 0 && std::strncmp(*e, "LANG=", 5) != 0)
            env.emplace_back(*e);
    env.emplace_back("LC_ALL=C.UTF-8");
    std::vector<char*> envp, args;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    for (auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    int rc = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    for (int fd : {in[1], out[1], err[1]}) ::close(fd);
    if (rc != 0) {
        for (int fd : {in[0], out[0], err[0]}) ::close(fd);
        return std::unexpected(std::strerror(rc));
    }
    if (!input.empty()) (void)::send(in[0], input.data(), input.size(), MSG_NOSIGNAL);
    ::shutdown(in[0], SHUT_WR);

    Outcome outcome;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int open = 2;
    char buf[4096];
    while (open > 0) {
        if (cancelled.load() && !outcome.cancelled) {
            outcome.cancelled = true;
            ::kill(pid, SIGKILL);
        }
        if (::poll(fds, 2, 100) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            } else if (i == 0) {
                if (onOutput) onOutput(std::string_view(buf, static_cast<std::size_t>(n)));
            } else {
                outcome.err.append(buf, static_cast<std::size_t>(n));
            }
        }
    }
    for (auto& f : fds)
        if (f.fd >= 0) ::close(f.fd);
    ::close(in[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}

ExtractError programFailure(const Outcome& outcome) {
    if (outcome.cancelled) return ExtractError{ExtractFailure::Cancelled, {}};
    std::string text = outcome.err;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    if (text.find("Wrong password") != std::string::npos)
        return ExtractError{ExtractFailure::WrongPassword, text};
    return ExtractError{ExtractFailure::Damaged, text};
}

// The last "NN%" in a piece of 7zz's progress output (percentages overwrite each other with
// backspaces).
std::optional<int> lastPercentage(std::string_view text) {
    std::optional<int> found;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') continue;
        std::size_t j = i;
        while (j > 0 && text[j - 1] >= '0' && text[j - 1] <= '9') --j;
        if (j < i) found = std::atoi(std::string(text.substr(j, i - j)).c_str());
    }
    return found;
}

}  // namespace

std::optional<std::string> locate(const std::string& program) {
    auto runnable = [](const std::string& p) { return ::access(p.c_str(), X_OK) == 0; };
    if (program.find('/') != std::string::npos)
        return runnable(program) ? std::optional(program) : std::nullopt;
    const char* path = std::getenv("PATH");
    std::stringstream dirs(path ? path : "/usr/bin:/bin");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (dir.empty()) continue;
        std::string candidate = dir + "/" + program;
        if (runnable(candidate)) return candidate;
    }
    return std::nullopt;
}

ExtractStatus extract(const std::string& program, const std::string& archivePath,
                      const std::string& folder, const std::string& password,
                      ExtractMonitor& monitor) {
    std::atomic<bool> never{false};
    std::string listing;
    auto listed = run(
        {program, "l", "-slt", "-ba", "--", archivePath}, password + "\n",
        [&](std::string_view s) { listing += s; }, never);
    if (!listed) return std::unexpected(ExtractError{ExtractFailure::Damaged, listed.error()});
    if (listed->exitCode != 0) return std::unexpected(programFailure(*listed));
    std::uint64_t bytes = 0, entries = 0;
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("Path = ")) ++entries;
        if (line.starts_with("Size = ")) bytes += std::strtoull(line.c_str() + 7, nullptr, 10);
    }
    struct stat st {};
    std::uint64_t archiveSize = ::stat(archivePath.c_str(), &st) == 0 ? st.st_size : 0;
    if (auto s = monitor.precheck(bytes, entries, archiveSize); !s) return s;

    auto total = static_cast<std::int64_t>(bytes);
    auto extracted = run(
        {program, "x", "-y", "-bso0", "-bsp1", "-bb0", "-o" + folder, "--", archivePath},
        password + "\n",
        [&](std::string_view s) {
            if (auto pct = lastPercentage(s)) monitor.progress(total * *pct / 100, total);
        },
        monitor.cancelFlag());
    if (!extracted)
        return std::unexpected(ExtractError{ExtractFailure::Damaged, extracted.error()});
    if (extracted->cancelled || extracted->exitCode != 0)
        return std::unexpected(programFailure(*extracted));
    return checkTreeLinks(folder);
}

}  // namespace quillon::SevenZipTool
