// UDP in the kernel: a task waits on a socket for datagrams, whether they come from this machine's network or
// from another socket inside. Sockets inside reach each other by port, in no virtual time at all, so a run
// that uses only them is the same each time.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "headend/kernel/kernel.h"

namespace headend {

// Who sends: an address of the host's network, or a socket inside (address 0).
struct Endpoint {
  std::uint32_t address = 0;  // host byte order
  std::uint16_t port = 0;
  auto operator<=>(const Endpoint&) const = default;
};

struct Datagram {
  Endpoint from;
  std::vector<u8> bytes;
  Nanos arrived = 0;
};

// A datagram socket of the host that does not block. Port 0 takes a free one. Throws std::runtime_error that
// names the address.
int openHostSocket(const std::string& address, std::uint16_t port);
std::string hostAddress(int fd);  // "127.0.0.1:49160"

class Network;

class UdpSocket {
 public:
  UdpSocket(Network& network, std::uint16_t port);
  UdpSocket(const UdpSocket&) = delete;
  UdpSocket& operator=(const UdpSocket&) = delete;
  ~UdpSocket();

  // Opens a socket of the host too, so that its network reaches this one. As openHostSocket.
  void openToHost(const std::string& address, std::uint16_t port) { fd_ = openHostSocket(address, port); }
  std::string hostAddress() const { return fd_ < 0 ? "off" : headend::hostAddress(fd_); }

  // Blocks the calling task for at most `timeout` ticks. A datagram that finds kWaitingMost waiting is lost.
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

  // Called for each datagram that a socket has taken.
  void onArrival(std::function<void(const UdpSocket&, const Datagram&)> hook) {
    onArrival_ = std::move(hook);
  }

  // Calls `readable` from pollHost while the host has something to read on `fd`, until unwatch. It reads
  // without blocking, and may not call watch or unwatch.
  void watch(int fd, std::function<void()> readable) { watched_[fd] = {std::move(readable), false}; }
  // The same for the next time only: `readable` may leave the reading to a task.
  void watchOnce(int fd, std::function<void()> readable) { watched_[fd] = {std::move(readable), true}; }
  void unwatch(int fd) { watched_.erase(fd); }

  Nanos now() const { return kernel_.now(); }

  // Takes what has come from the host; waits for it that long at most, and less when a signal comes. Whether
  // something came.
  bool pollHost(Nanos atMost);

 private:
  friend class UdpSocket;
  struct Watch {
    std::function<void()> readable;
    bool once = false;
  };
  Kernel& kernel_;
  std::map<std::uint16_t, UdpSocket*> sockets_;
  std::map<int, Watch> watched_;
  std::function<void(const UdpSocket&, const Datagram&)> onArrival_;
};

}  // namespace headend
