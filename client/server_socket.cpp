#include "client/server_socket.h"

#include <fmt/format.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "base/numbers.h"

namespace client {
namespace {

constexpr std::size_t kMaxDatagram = 65536;

// A connected socket gets datagrams of this server only, and hears when nothing listens there.
int connectTo(const std::string& server, u16 defaultPort) {
  const auto to = base::parseAddress(server);
  if (!to || to->port == 0) {
    throw Error(fmt::format("'{}' is no server: ADDR:PORT is, for example 127.0.0.1:{}", server, defaultPort),
                Error::Kind::kNoReply);
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (const int error = getaddrinfo(to->host.c_str(), fmt::to_string(to->port).c_str(), &hints, &found);
      error != 0) {
    throw Error(fmt::format("{}: {}; name another server with --server", server, gai_strerror(error)),
                Error::Kind::kNoReply);
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  int error = 0;
  for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
    const int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd >= 0 && connect(fd, a->ai_addr, a->ai_addrlen) == 0) return fd;
    error = errno;
    if (fd >= 0) close(fd);
  }
  throw Error(fmt::format("{}: no socket to it: {}", server, std::strerror(error)), Error::Kind::kNoReply);
}

}  // namespace

bool isServer(const std::string& text) {
  const auto address = base::parseAddress(text);
  return address && address->port != 0;
}

ServerSocket::ServerSocket(std::string server, const UdpService& service)
    : server_(std::move(server)), service_(service), socket_(connectTo(server_, service.defaultPort)) {}

ServerSocket::~ServerSocket() {
  close(socket_);
}

Error ServerSocket::failure(const std::string& what) const {
  return Error(fmt::format("{}: {}; {}", server_, what, service_.advice), Error::Kind::kNoReply);
}

void ServerSocket::send(std::span<const u8> datagram) {
  if (::send(socket_, datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0) return;
  if (errno == ECONNREFUSED) throw failure("nothing listens there");
  throw failure(fmt::format("cannot send: {}", std::strerror(errno)));
}

std::optional<Bytes> ServerSocket::receive(Clock::time_point deadline) {
  Bytes buffer(kMaxDatagram);
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd poller{.fd = socket_, .events = POLLIN, .revents = 0};
    if (left.count() <= 0 || poll(&poller, 1, static_cast<int>(left.count())) == 0) return std::nullopt;
    const ssize_t size = recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size >= 0) {
      buffer.resize(static_cast<std::size_t>(size));
      return buffer;
    }
    if (errno == ECONNREFUSED) throw failure("nothing listens there");
    if (errno == EAGAIN || errno == EINTR) continue;
    throw failure(fmt::format("cannot receive: {}", std::strerror(errno)));
  }
}

}  // namespace client
