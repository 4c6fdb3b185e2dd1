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
  std::optional<Datagram> receive(int socket);  // waits
  int send(int socket, const Endpoint& to, const std::vector<u8>& bytes);
  int close(int socket);

 private:
  UdpSocket* find(int socket);

  Network& network_;
  std::map<std::uint16_t, std::unique_ptr<UdpSocket>> exposed_;  // not bound yet
  std::map<std::uint16_t, std::string> hostAddresses_;
  std::map<int, std::unique_ptr<UdpSocket>> sockets_;  // null until bound
  int last_ = 2;                                       // a shell uses the first three
};

}  // namespace headend
