// The chassis's sockets for its firmware, which uses them for the calibration service only: numbers from
// `open`, ports from `bind`. A port can be exposed to this machine's network, so that external tools can
// reach the firmware's service on it.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <map>
#include <memory>
#include <string>

#include "headend/firmware/log.h"
#include "headend/kernel/network.h"

namespace headend {

class SocketTable {
 public:
  // A datagram that has waited for longer than `mostAge` is dropped, and `say` is called at the first,
  // second, fourth, eighth ... time; 0: none is dropped.
  SocketTable(Network& network, Nanos mostAge, Say say)
      : network_(network), mostAge_(mostAge), say_(std::move(say)) {}

  // A socket bound to `port` is reachable at that address of this machine. Throws std::runtime_error.
  void expose(std::uint16_t port, const std::string& address, std::uint16_t hostPort) {
    exposed_[port] = std::make_shared<UdpSocket>(network_, port);
    exposed_[port]->openToHost(address, hostPort);
  }
  std::string hostAddress(std::uint16_t port) const { return exposed_.at(port)->hostAddress(); }

  // The services of platform/sockets.h; os::ERROR for a socket that does not exist.
  int open() {
    sockets_[++last_] = nullptr;
    return last_;
  }
  int bind(int socket, std::uint16_t port) {
    const auto found = sockets_.find(socket);
    const bool isTaken = std::ranges::any_of(
        sockets_, [&](const auto& entry) { return entry.second != nullptr && entry.second->port() == port; });
    if (found == sockets_.end() || found->second != nullptr || isTaken) return os::ERROR;
    const auto exposed = exposed_.find(port);
    found->second = exposed != exposed_.end() ? exposed->second : std::make_shared<UdpSocket>(network_, port);
    return os::OK;
  }
  int close(int socket) { return sockets_.erase(socket) != 0 ? os::OK : os::ERROR; }
  // Waits for the next datagram; nullopt for a socket that does not exist.
  std::optional<Datagram> receive(int socket) {
    UdpSocket* const from = find(socket);
    for (;;) {
      auto datagram = from == nullptr ? std::nullopt : from->receive(os::WAIT_FOREVER);
      if (!datagram || mostAge_ == 0 || network_.now() - datagram->arrived <= mostAge_) return datagram;
      if (std::has_single_bit(++dropped_))
        say_(fmt::format("{} calibration requests were dropped so far: each had waited for more than {} s",
                         dropped_, static_cast<double>(mostAge_) / kSecond));
    }
  }
  std::uint64_t dropped() const { return dropped_; }
  // Null until it is bound.
  UdpSocket* find(int socket) const {
    const auto found = sockets_.find(socket);
    return found == sockets_.end() ? nullptr : found->second.get();
  }

 private:
  Network& network_;
  Nanos mostAge_;
  Say say_;
  std::uint64_t dropped_ = 0;
  std::map<std::uint16_t, std::shared_ptr<UdpSocket>> exposed_;
  std::map<int, std::shared_ptr<UdpSocket>> sockets_;  // null until bound
  int last_ = 2;                                       // a shell uses the first three
};

}  // namespace headend
