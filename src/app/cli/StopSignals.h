#pragma once
// StopSignals: Ctrl-C, SIGTERM and SIGHUP, handled the same way by every command while one is
// held. The first signal asks the command to stop: every client operation of the process is
// cancelled at once (Wrapper::cancelEveryOperation), `onStop` runs on the main queue (which
// wakes up for it), and stopRequested() turns true. A second one ends the process at once with 128
// + the first signal when the command asks for that (a stop that hangs can still be cut short). A
// blocking read on the main thread returns EINTR when a signal arrives, so a pending question on
// the terminal gives way.

#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace quillon::cli {

class StopSignals {
  public:
    enum class Second { Exit, Ignore };
    // `onStop(signal)` runs once, on the main queue, after the first signal.
    explicit StopSignals(Second second = Second::Exit, std::function<void(int)> onStop = {});
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // Whether a stop signal arrived while one was held.
    static bool stopRequested();
    // The first signal that arrived (0: none).
    static int signal();
    // "SIGINT", "SIGTERM" or "SIGHUP".
    static std::string name(int signal);

  private:
    struct State {
        bool active = true;  // read and written on the main thread only
        std::function<void(int)> onStop;
    };
    std::shared_ptr<State> state_;
    std::thread watcher_;
};

}  // namespace quillon::cli
