// The chassis's sockets for its firmware: numbers from `open`, ports from `bind`. A port can be exposed to
// this machine's network, so that external tools can reach the firmware's service on it.
#pragma once

#include <map>
#include <memory>
#include <span>
#include <vector>

#include "headend/kernel/network.h"

namespace headend {

class SocketTable {
 public:
  explicit SocketTable(Network& network) : network_(network) {}

  // A socket bound to `port` is reachable at that address of this machine. Throws std::runtime_error.
  void expose(std::uint16_t port, const std::string& address, std::uint16_t hostPort);
  std::string hostAddress(std::uint16_t port) const;  // "off" if it is not exposed

  // The services of platform/sockets.h; os::ERROR for a socket that does not exist.
  int open();
  int bind(int socket, std::uint16_t port);
  int close(int socket) { return sockets_.erase(socket) != 0 ? os::OK : os::ERROR; }
  UdpSocket* find(int socket) const;  // null until it is bound

 private:
  Network& network_;
  std::map<std::uint16_t, std::shared_ptr<UdpSocket>> exposed_;
  std::map<int, std::shared_ptr<UdpSocket>> sockets_;  // null until bound
  int last_ = 2;                                       // a shell uses the first three
};

}  // namespace headend
