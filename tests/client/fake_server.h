// A UDP server on a free port of the loopback interface, answering from a thread of its own.
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

class FakeServer {
 public:
  // Gives the datagrams to send back for a request, in order.
  using Answer = std::function<std::vector<client::Bytes>(const client::Request&)>;

  explicit FakeServer(Answer answer) : answer_(std::move(answer)) {
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
  ~FakeServer() {
    stop_ = true;
    thread_.join();
    close(socket_);
  }
  FakeServer(const FakeServer&) = delete;
  FakeServer& operator=(const FakeServer&) = delete;

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
      const auto request = client::decodeRequest(std::span(buffer).first(static_cast<std::size_t>(length)));
      if (!request) continue;
      for (const auto& datagram : answer_(*request)) {
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

}  // namespace test
