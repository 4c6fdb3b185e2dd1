// A UDP socket of the host on loopback. Nothing here waits: a datagram to loopback has arrived when the send
// returns.
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "platform/types.h"

namespace test {

class Loopback {
 public:
  Loopback() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_in any = at(0);
    if (::bind(fd_, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) std::abort();
  }
  Loopback(const Loopback&) = delete;
  Loopback& operator=(const Loopback&) = delete;
  ~Loopback() { ::close(fd_); }

  std::uint16_t port() const {
    sockaddr_in form{};
    socklen_t size = sizeof form;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&form), &size);
    return ntohs(form.sin_port);
  }
  void send(const std::string& address, const std::vector<u8>& bytes) const {  // "127.0.0.1:PORT"
    const sockaddr_in form = at(static_cast<std::uint16_t>(std::stoi(address.substr(address.find(':') + 1))));
    ::sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&form), sizeof form);
  }
  std::optional<std::vector<u8>> receive() const {
    std::vector<u8> buffer(65536);
    const ssize_t n = ::recv(fd_, buffer.data(), buffer.size(), 0);
    if (n < 0) return std::nullopt;
    buffer.resize(static_cast<std::size_t>(n));
    return buffer;
  }

 private:
  static sockaddr_in at(std::uint16_t port) {
    sockaddr_in form{};
    form.sin_family = AF_INET;
    form.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    form.sin_port = htons(port);
    return form;
  }
  int fd_;
};

}  // namespace test
