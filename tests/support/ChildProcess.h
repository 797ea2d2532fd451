#pragma once
// A program running in the background for a test, its output collected; killed by the
// destructor if it is still running.

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace quillon::test {

class ChildProcess {
  public:
    // Starts argv (argv[0] looked up on PATH) with `input` on its standard input, then its end.
    explicit ChildProcess(const std::vector<std::string>& argv, const std::string& input = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Reads standard output until `pattern` matches it; the first group of the match (the whole
    // match without groups), or nothing when the program ends or `timeout` passes first.
    std::optional<std::string> waitForOutput(
        const std::regex& pattern, std::chrono::seconds timeout = std::chrono::seconds(60));
    // Waits for the exit and returns its status (128 + signal when killed); kills the program
    // and returns -1 when `timeout` passes first.
    int wait(std::chrono::seconds timeout = std::chrono::seconds(120));
    // Sends the signal, then waits as above.
    int stop(int signal);
    // Whether it still runs, after collecting output for up to `ms`.
    bool running(int ms = 0);
    pid_t pid() const { return pid_; }
    const std::string& out() const { return out_; }
    const std::string& err() const { return err_; }

  private:
    // Reads what arrives within `ms`; false once both pipes are at their end.
    bool readSome(int ms);
    pid_t pid_ = -1;
    std::optional<int> status_;
    int outFd_ = -1, errFd_ = -1;
    std::string out_, err_;
};

}  // namespace quillon::test
