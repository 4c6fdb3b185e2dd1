// UDP servers on a free port of the loopback interface, answering from a thread of their own.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/datagram.h"

namespace test {

class FakeUdpServer {
 public:
  // Gives the datagrams to send back for one that came, in order.
  using Answer = std::function<std::vector<client::Bytes>(const client::Bytes&)>;

  explicit FakeUdpServer(Answer answer) : answer_(std::move(answer)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(socket_, generic, size), 0);
    EXPECT_EQ(getsockname(socket_, generic, &size), 0);
    address_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeUdpServer() {
    stop_ = true;
    thread_.join();
    close(socket_);
  }
  FakeUdpServer(const FakeUdpServer&) = delete;
  FakeUdpServer& operator=(const FakeUdpServer&) = delete;

  const std::string& address() const { return address_; }

 private:
  void serve() {
    std::vector<u8> buffer(65536);
    while (!stop_) {
      pollfd poller{.fd = socket_, .events = POLLIN, .revents = 0};
      if (poll(&poller, 1, 20) <= 0) continue;
      sockaddr_in from{};
      socklen_t size = sizeof from;
      auto* generic = reinterpret_cast<sockaddr*>(&from);
      const ssize_t length = recvfrom(socket_, buffer.data(), buffer.size(), 0, generic, &size);
      if (length < 0) continue;
      for (const auto& datagram : answer_(client::Bytes(buffer.begin(), buffer.begin() + length))) {
        sendto(socket_, datagram.data(), datagram.size(), 0, generic, size);
      }
    }
  }

  Answer answer_;
  int socket_ = -1;
  std::string address_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Of the management socket.
class FakeServer : public FakeUdpServer {
 public:
  using Answer = std::function<std::vector<client::Bytes>(const client::Request&)>;

  explicit FakeServer(Answer answer)
      : FakeUdpServer([answer = std::move(answer)](const client::Bytes& datagram) {
          const auto request = client::decodeRequest(datagram);
          return request ? answer(*request) : std::vector<client::Bytes>{};
        }) {}
};

}  // namespace test
