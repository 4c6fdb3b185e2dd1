#include "headend/kernel/network.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace headend {
namespace {

sockaddr_in hostForm(std::uint32_t address, std::uint16_t port) {
  sockaddr_in form{};
  form.sin_family = AF_INET;
  form.sin_addr.s_addr = htonl(address);
  form.sin_port = htons(port);
  return form;
}

sockaddr* generic(sockaddr_in& form) {
  return reinterpret_cast<sockaddr*>(&form);
}

}  // namespace

int openHostSocket(const std::string& address, std::uint16_t port) {
  const auto failed = [&](const std::string& why) {
    throw std::runtime_error(fmt::format("cannot listen on {}:{}: {}", address, port, why));
  };
  in_addr parsed{};
  if (inet_pton(AF_INET, address.c_str(), &parsed) != 1) failed("not an IPv4 address");
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) failed(std::strerror(errno));
  sockaddr_in form = hostForm(ntohl(parsed.s_addr), port);
  if (::bind(fd, generic(form), sizeof form) != 0) {
    const int error = errno;
    ::close(fd);
    failed(std::strerror(error));
  }
  return fd;
}

std::string hostAddress(int fd) {
  sockaddr_in form{};
  socklen_t size = sizeof form;
  if (::getsockname(fd, generic(form), &size) != 0) return "off";
  std::array<char, INET_ADDRSTRLEN> text{};
  inet_ntop(AF_INET, &form.sin_addr, text.data(), text.size());
  return fmt::format("{}:{}", text.data(), ntohs(form.sin_port));
}

UdpSocket::UdpSocket(Network& network, std::uint16_t port) : network_(network), port_(port) {
  network_.sockets_[port_] = this;
}

UdpSocket::~UdpSocket() {
  if (fd_ >= 0) ::close(fd_);
  network_.sockets_.erase(port_);
}

std::optional<Datagram> UdpSocket::receive(int timeout) {
  Kernel& kernel = network_.kernel_;
  kernel.charge("recvfrom", kernel.settings().costs.kernelCall);
  if (timeout != os::NO_WAIT) kernel.readyForWork();
  while (waiting_.empty()) {
    if (timeout == os::NO_WAIT || !kernel.waitOn(waiters_, timeout)) return std::nullopt;
  }
  Datagram first = std::move(waiting_.front());
  waiting_.pop_front();
  return first;
}

void UdpSocket::send(const Endpoint& to, const std::vector<u8>& bytes) {
  Kernel& kernel = network_.kernel_;
  kernel.requireTask("sendto");
  kernel.notePollingEnds();
  if (to.address == 0) {
    const auto socket = network_.sockets_.find(to.port);
    if (socket != network_.sockets_.end()) {
      socket->second->deliver(
          {.from = {.address = 0, .port = port_}, .bytes = bytes, .arrived = kernel.now()});
    }
  } else if (fd_ >= 0) {
    sockaddr_in form = hostForm(to.address, to.port);
    // A client that has closed, or whose buffer is full, gets no reply: it repeats the request.
    [[maybe_unused]] const ssize_t sent =
        ::sendto(fd_, bytes.data(), bytes.size(), 0, generic(form), sizeof form);
  }
  kernel.spend(kernel.settings().costs.kernelCall);
  kernel.reschedule();  // the receiver may have a higher priority
}

void UdpSocket::deliver(Datagram datagram) {
  if (waiting_.size() >= kWaitingMost) return;
  if (network_.onArrival_ && network_.onArrival_(*this, datagram)) return;
  waiting_.push_back(std::move(datagram));
  network_.kernel_.wakeFirst(waiters_);
}

void UdpSocket::drainHost() {
  std::array<u8, 65536> buffer;
  for (std::size_t i = 0; i < kWaitingMost; ++i) {
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t n = ::recvfrom(fd_, buffer.data(), buffer.size(), 0, generic(from), &size);
    if (n < 0) return;
    deliver({.from = {.address = ntohl(from.sin_addr.s_addr), .port = ntohs(from.sin_port)},
             .bytes = std::vector<u8>(buffer.begin(), buffer.begin() + n),
             .arrived = network_.kernel_.now()});
  }
}

bool Network::pollHost(Nanos atMost) {
  std::vector<pollfd> fds;
  std::vector<std::function<void()>> readable;
  for (const auto& [port, socket] : sockets_) {
    if (socket->fd_ < 0) continue;
    fds.push_back({.fd = socket->fd_, .events = POLLIN, .revents = 0});
    readable.emplace_back([socket = socket] { socket->drainHost(); });
  }
  for (const auto& [fd, watch] : watched_) {
    fds.push_back({.fd = fd, .events = POLLIN, .revents = 0});
    readable.emplace_back(std::cref(watch.readable));
  }
  const timespec wait{.tv_sec = atMost / kSecond, .tv_nsec = atMost % kSecond};
  if (::ppoll(fds.data(), fds.size(), &wait, nullptr) <= 0) return false;
  bool came = false;
  for (std::size_t i = 0; i < fds.size(); ++i) {
    if ((fds[i].revents & POLLIN) == 0) continue;
    came = true;
    readable[i]();
    if (const auto watch = watched_.find(fds[i].fd); watch != watched_.end() && watch->second.once)
      watched_.erase(watch);
  }
  return came;
}

}  // namespace headend
