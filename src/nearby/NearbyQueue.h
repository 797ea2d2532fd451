#pragma once
// NearbyQueue: the serial callback queue of one nearby socket, a strand of the nearby I/O
// context. That context runs on threads of its own, so a receiver busy writing a file never holds
// up another socket.

#include <asio.hpp>

#include <functional>
#include <string>

namespace quillon {

class NearbyQueue {
  public:
    using Strand = asio::strand<asio::io_context::executor_type>;

    explicit NearbyQueue(std::string name);

    // "sender_delegate_queue" or "receiver_delegate_queue".
    const std::string& name() const { return name_; }
    // The shared context, for sockets and timers; run their handlers through strand().
    asio::io_context& context();
    Strand& strand() { return strand_; }
    // Runs `fn` on the queue after everything queued before it.
    void post(std::function<void()> fn) const;
    // True on a thread that runs the queue's work now.
    bool isCurrent() const { return strand_.running_in_this_thread(); }

  private:
    std::string name_;
    Strand strand_;
};

}  // namespace quillon
