#include "nearby/NearbyQueue.h"

#include <pthread.h>

#include <thread>
#include <vector>

namespace quillon {

namespace {
// Started on first use, stopped when the program ends.
struct NearbyIoContext {
    asio::io_context io;
    asio::executor_work_guard<asio::io_context::executor_type> work{io.get_executor()};
    std::vector<std::thread> threads;

    NearbyIoContext() {
        for (int i = 0; i < 2; ++i)
            threads.emplace_back([this] {
                ::pthread_setname_np(::pthread_self(), "quillon-nearby");
                io.run();
            });
    }
    ~NearbyIoContext() {
        work.reset();
        io.stop();
        for (auto& t : threads) t.join();
    }
};

NearbyIoContext& shared() {
    static NearbyIoContext context;
    return context;
}
}  // namespace

NearbyQueue::NearbyQueue(std::string name)
    : name_(std::move(name)), strand_(asio::make_strand(shared().io)) {}

asio::io_context& NearbyQueue::context() {
    return shared().io;
}

void NearbyQueue::post(std::function<void()> fn) const {
    asio::post(strand_, std::move(fn));
}

}  // namespace quillon
