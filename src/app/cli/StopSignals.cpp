#include "app/cli/StopSignals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

#include "core/MainQueue.h"
#include "core/Wrapper.h"

namespace quillon::cli {

namespace {

constexpr std::array<int, 3> kSignals{SIGINT, SIGTERM, SIGHUP};

std::atomic<int> gCount{0};
std::atomic<int> gFirst{0};
std::atomic<bool> gExitOnSecond{false};
// The handler tells the watcher through this pipe: a handler may not take the main queue's lock.
int gPipe[2] = {-1, -1};
std::array<struct sigaction, kSignals.size()> gPrevious{};

void onSignal(int sig) {
    int saved = errno;
    if (gCount.fetch_add(1) >= 1) {
        if (gExitOnSecond.load()) ::_exit(128 + (gFirst.load() ? gFirst.load() : sig));
    } else {
        gFirst = sig;
        unsigned char byte = static_cast<unsigned char>(sig);
        [[maybe_unused]] auto n = ::write(gPipe[1], &byte, 1);
    }
    errno = saved;
}

}  // namespace

StopSignals::StopSignals(Second second, std::function<void(int)> onStop)
    : state_(std::make_shared<State>()) {
    state_->onStop = std::move(onStop);
    gCount = 0;
    gFirst = 0;
    gExitOnSecond = second == Second::Exit;
    if (::pipe2(gPipe, O_CLOEXEC) != 0) gPipe[0] = gPipe[1] = -1;
    watcher_ = std::thread([fd = gPipe[0], state = state_] {
        unsigned char byte = 0;
        while (true) {
            ssize_t n = ::read(fd, &byte, 1);
            if (n < 0 && errno == EINTR) continue;
            // 0 is the destructor's word to end; a closed or broken pipe ends the wait too.
            if (n <= 0 || byte == 0) return;
            int sig = byte;
            // Clients blocked in a connect or a read on any thread give up now, not when the
            // main queue gets round to the command's own stop.
            Wrapper::cancelEveryOperation();
            // A stop that arrives after the command's end finds the state inactive.
            MainQueue::shared().post([state, sig] {
                if (state->active && state->onStop) state->onStop(sig);
            });
        }
    });
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: a pending terminal question returns at once
    for (std::size_t i = 0; i < kSignals.size(); ++i) ::sigaction(kSignals[i], &sa, &gPrevious[i]);
}

StopSignals::~StopSignals() {
    state_->active = false;
    for (std::size_t i = 0; i < kSignals.size(); ++i)
        ::sigaction(kSignals[i], &gPrevious[i], nullptr);
    unsigned char end = 0;
    if (gPipe[1] >= 0) {
        [[maybe_unused]] auto n = ::write(gPipe[1], &end, 1);
    }
    if (watcher_.joinable()) watcher_.join();
    for (int& fd : gPipe) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
}

bool StopSignals::stopRequested() {
    return gCount.load() > 0;
}

int StopSignals::signal() {
    return gFirst.load();
}

std::string StopSignals::name(int signal) {
    switch (signal) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        case SIGHUP:
            return "SIGHUP";
        default:
            return "signal " + std::to_string(signal);
    }
}

}  // namespace quillon::cli
