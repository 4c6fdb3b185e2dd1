#include "headend/firmware/socket_table.h"

#include <algorithm>

namespace headend {

void SocketTable::expose(std::uint16_t port, const std::string& address, std::uint16_t hostPort) {
  exposed_[port] = std::make_shared<UdpSocket>(network_, port);
  exposed_[port]->openToHost(address, hostPort);
}

std::string SocketTable::hostAddress(std::uint16_t port) const {
  const auto found = exposed_.find(port);
  return found == exposed_.end() ? "off" : found->second->hostAddress();
}

int SocketTable::open() {
  sockets_[++last_] = nullptr;
  return last_;
}

int SocketTable::bind(int socket, std::uint16_t port) {
  const auto found = sockets_.find(socket);
  const bool isTaken = std::ranges::any_of(
      sockets_, [&](const auto& entry) { return entry.second != nullptr && entry.second->port() == port; });
  if (found == sockets_.end() || found->second != nullptr || isTaken) return os::ERROR;
  const auto exposed = exposed_.find(port);
  found->second = exposed != exposed_.end() ? exposed->second : std::make_shared<UdpSocket>(network_, port);
  return os::OK;
}

UdpSocket* SocketTable::find(int socket) const {
  const auto found = sockets_.find(socket);
  return found == sockets_.end() ? nullptr : found->second.get();
}

}  // namespace headend
