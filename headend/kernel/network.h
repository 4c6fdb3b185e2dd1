// UDP in the kernel: a task waits on a socket for datagrams, from this machine's network or from another
// internal socket. Internal sockets send to each other by port without virtual time, so a run that uses only
// them is always the same.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/address.h"
#include "headend/kernel/kernel.h"

namespace headend {

// The sender: an address of the host's network, or an internal socket (address 0).
struct Endpoint {
  std::uint32_t address = 0;  // host byte order; of an IPv6 sender a number from 240.0.0.0 on, see PeerTable
  std::uint16_t port = 0;
  auto operator<=>(const Endpoint&) const = default;
};

struct Datagram {
  Endpoint from;
  std::vector<u8> bytes;
  Nanos arrived = 0;
};

// A non-blocking datagram socket of the host, at the first address of `host` (a name or an address) that it
// can use. Port 0 selects a free port. Throws std::runtime_error with host, port and reason.
int openHostSocket(const std::string& host, std::uint16_t port);
std::string hostAddress(int fd);  // "127.0.0.1:49160", "[::1]:49160"

// The card's sockets know addresses of 32 bits: IPv6 addresses have numbers of 240.0.0.0/4, which no IPv4
// sender uses. The latest kMost are kept.
class PeerTable {
 public:
  Endpoint endpointOf(const base::SocketAddress& sender);
  std::optional<base::SocketAddress> addressOf(const Endpoint& to) const;  // nullopt: forgotten

  static constexpr std::size_t kMost = 4096;

 private:
  std::vector<base::SocketAddress> peers_;
  std::size_t next_ = 0;
};

class Network;

class UdpSocket : boost::noncopyable {
 public:
  UdpSocket(Network& network, std::uint16_t port);
  ~UdpSocket();

  // Also opens a socket of the host, so that this socket is reachable from its network. See openHostSocket.
  void openToHost(const std::string& address, std::uint16_t port) { fd_ = openHostSocket(address, port); }
  std::string hostAddress() const { return fd_ < 0 ? "off" : headend::hostAddress(fd_); }

  // Blocks the calling task for at most `timeout` ticks. A datagram is lost if kWaitingMost are waiting.
  std::optional<Datagram> receive(int timeout);
  void send(const Endpoint& to, const std::vector<u8>& bytes);

  std::uint16_t port() const { return port_; }
  const std::deque<Datagram>& waiting() const { return waiting_; }

  static constexpr std::size_t kWaitingMost = 64;

 private:
  friend class Network;
  void deliver(Datagram datagram);
  void drainHost();

  Network& network_;
  std::uint16_t port_;
  int fd_ = -1;
  std::deque<Datagram> waiting_;
  std::vector<Task*> waiters_;
};

class Network {
 public:
  explicit Network(Kernel& kernel) : kernel_(kernel) {}

  // Called for each datagram that a socket receives. True: the hook keeps it, and the socket does not.
  void onArrival(std::function<bool(const UdpSocket&, const Datagram&)> hook) {
    onArrival_ = std::move(hook);
  }

  // Calls `readable` from pollHost while data is available on `fd`, until unwatch. `readable` reads without
  // blocking, and must not call watch or unwatch.
  void watch(int fd, std::function<void()> readable) { watched_[fd] = {std::move(readable), false}; }
  // The same, but only once: `readable` may leave the reading to a task.
  void watchOnce(int fd, std::function<void()> readable) { watched_[fd] = {std::move(readable), true}; }
  void unwatch(int fd) { watched_.erase(fd); }

  Nanos now() const { return kernel_.now(); }

  // Receives data from the host. Waits for it at most that long, and less if a signal arrives. Returns
  // whether data arrived.
  bool pollHost(Nanos atMost);

 private:
  friend class UdpSocket;
  struct Watch {
    std::function<void()> readable;
    bool once = false;
  };
  Kernel& kernel_;
  std::map<std::uint16_t, UdpSocket*> sockets_;
  PeerTable peers_;
  std::map<int, Watch> watched_;
  std::function<bool(const UdpSocket&, const Datagram&)> onArrival_;
};

// The pace of a run in real time: sleeps until the wall clock reaches virtual time, and receives datagrams
// and signals meanwhile.
class RealTimePace final : public Pace {
 public:
  RealTimePace(Network& network, const std::atomic<bool>& interrupted)
      : network_(network), interrupted_(interrupted), start_(Clock::now()) {}

  void waitUntil(Nanos virtualTime) override {
    while (left(virtualTime) > 0 && !interrupted_) network_.pollHost(left(virtualTime));
    network_.pollHost(0);
  }

  Nanos idleUntil(Nanos virtualTime) override {
    while (left(virtualTime) > 0 && !interrupted_) {
      if (network_.pollHost(left(virtualTime))) return virtualTime - left(virtualTime);
    }
    return virtualTime;
  }

 private:
  using Clock = std::chrono::steady_clock;

  Nanos left(Nanos virtualTime) const {
    const Clock::duration wait = start_ + std::chrono::nanoseconds(virtualTime) - Clock::now();
    return std::max<Nanos>(0, std::chrono::nanoseconds(wait).count());
  }

  Network& network_;
  const std::atomic<bool>& interrupted_;
  Clock::time_point start_;
};

}  // namespace headend
