#include "headend/kernel/network.h"

#include <fmt/format.h>
#include <netinet/in.h>
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

constexpr std::uint32_t kFirstPeer = 0xF0000000;

}  // namespace

int openHostSocket(const std::string& host, std::uint16_t port) {
  const auto failed = [&](const std::string& why) {
    const bool isV6 = host.find(':') != std::string::npos;
    throw std::runtime_error(
        fmt::format("cannot listen on {}{}{}:{}: {}", isV6 ? "[" : "", host, isV6 ? "]" : "", port, why));
  };
  std::vector<base::SocketAddress> addresses;
  try {
    addresses = base::resolve({.host = host, .port = port});
  } catch (const std::runtime_error& e) {
    failed(e.what());
  }
  const int fd = base::openDatagramSocket(addresses, base::SocketUse::kBind, SOCK_NONBLOCK);
  if (fd < 0) failed(std::strerror(errno));
  return fd;
}

std::string hostAddress(int fd) {
  base::SocketAddress own;
  if (::getsockname(fd, own.generic(), &own.size) != 0) return "off";
  return own.text();
}

Endpoint PeerTable::endpointOf(const base::SocketAddress& sender) {
  if (!sender.isV6()) {
    sockaddr_in form{};
    std::memcpy(&form, sender.bytes.data(), sizeof form);
    return {.address = ntohl(form.sin_addr.s_addr), .port = sender.port()};
  }
  base::SocketAddress peer = sender;
  peer.setPort(0);
  auto known = std::ranges::find(peers_, peer.bytes, &base::SocketAddress::bytes);
  if (known == peers_.end()) {
    if (peers_.size() < kMost) peers_.emplace_back();
    known = peers_.begin() + static_cast<std::ptrdiff_t>(next_);
    *known = peer;
    next_ = (next_ + 1) % kMost;
  }
  return {.address = kFirstPeer + static_cast<std::uint32_t>(known - peers_.begin()), .port = sender.port()};
}

std::optional<base::SocketAddress> PeerTable::addressOf(const Endpoint& to) const {
  base::SocketAddress address;
  if (to.address >= kFirstPeer) {
    if (to.address - kFirstPeer >= peers_.size()) return std::nullopt;
    address = peers_[to.address - kFirstPeer];
  } else {
    sockaddr_in form{};
    form.sin_family = AF_INET;
    form.sin_addr.s_addr = htonl(to.address);
    std::memcpy(address.bytes.data(), &form, address.size = sizeof form);
  }
  address.setPort(to.port);
  return address;
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
  } else if (const auto address = network_.peers_.addressOf(to); fd_ >= 0 && address) {
    // A client that has closed, or whose buffer is full, gets no reply: it repeats the request.
    [[maybe_unused]] const ssize_t sent =
        ::sendto(fd_, bytes.data(), bytes.size(), 0, address->generic(), address->size);
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
    base::SocketAddress from;
    const ssize_t n = ::recvfrom(fd_, buffer.data(), buffer.size(), 0, from.generic(), &from.size);
    if (n < 0) return;
    deliver({.from = network_.peers_.endpointOf(from),
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
