// A UDP server on a free port of the loopback interface.
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "client/datagram.h"
#include "headend/kernel/network.h"

namespace test {

class LoopbackServer {
 public:
  // Gives the datagrams to send back for one that came, in order.
  using Answer = std::function<std::vector<client::Bytes>(const client::Bytes&)>;

  explicit LoopbackServer(Answer answer) : answer_(std::move(answer)) {}
  ~LoopbackServer() { close(socket_); }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  std::string address() const { return headend::hostAddress(socket_); }

  // Answers while `client` runs in a thread of its own: whatever the answers touch needs no lock.
  void serve(const std::function<void()>& client) {
    std::atomic<bool> done = false;
    std::thread thread([&] {
      client();
      done = true;
    });
    client::Bytes buffer(65536);
    while (!done) {
      pollfd poller{.fd = socket_, .events = POLLIN, .revents = 0};
      if (poll(&poller, 1, 2) <= 0) continue;
      sockaddr_storage from{};
      socklen_t size = sizeof from;
      auto* generic = reinterpret_cast<sockaddr*>(&from);
      const ssize_t length = recvfrom(socket_, buffer.data(), buffer.size(), 0, generic, &size);
      if (length < 0) continue;
      for (const auto& datagram : answer_({buffer.begin(), buffer.begin() + length})) {
        sendto(socket_, datagram.data(), datagram.size(), 0, generic, size);
      }
    }
    thread.join();
  }

 private:
  Answer answer_;
  int socket_ = headend::openHostSocket("127.0.0.1", 0);
};

}  // namespace test
