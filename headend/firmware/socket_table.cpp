#include "headend/firmware/socket_table.h"

#include <algorithm>

namespace headend {

void SocketTable::expose(std::uint16_t port, const std::string& address, std::uint16_t hostPort) {
  auto socket = std::make_unique<UdpSocket>(network_, port);
  socket->openToHost(address, hostPort);
  hostAddresses_[port] = socket->hostAddress();
  exposed_[port] = std::move(socket);
}

std::string SocketTable::hostAddress(std::uint16_t port) const {
  const auto found = hostAddresses_.find(port);
  return found == hostAddresses_.end() ? "off" : found->second;
}

int SocketTable::open() {
  sockets_[++last_] = nullptr;
  return last_;
}

int SocketTable::bind(int socket, std::uint16_t port) {
  const auto found = sockets_.find(socket);
  const bool isTaken = std::any_of(sockets_.begin(), sockets_.end(), [&](const auto& entry) {
    return entry.second != nullptr && entry.second->port() == port;
  });
  if (found == sockets_.end() || found->second != nullptr || isTaken) return os::ERROR;
  if (auto node = exposed_.extract(port)) {
    found->second = std::move(node.mapped());
  } else {
    found->second = std::make_unique<UdpSocket>(network_, port);
  }
  return os::OK;
}

UdpSocket* SocketTable::find(int socket) {
  const auto found = sockets_.find(socket);
  return found == sockets_.end() ? nullptr : found->second.get();
}

std::optional<Datagram> SocketTable::receive(int socket) {
  UdpSocket* found = find(socket);
  if (found == nullptr) return std::nullopt;
  return found->receive(os::WAIT_FOREVER);
}

int SocketTable::send(int socket, const Endpoint& to, const std::vector<u8>& bytes) {
  UdpSocket* found = find(socket);
  if (found == nullptr) return os::ERROR;
  found->send(to, bytes);
  return static_cast<int>(bytes.size());
}

int SocketTable::close(int socket) {
  return sockets_.erase(socket) != 0 ? os::OK : os::ERROR;
}

}  // namespace headend
