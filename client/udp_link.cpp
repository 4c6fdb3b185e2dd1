#include "client/udp_link.h"

#include <fmt/format.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <random>

namespace client {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxDatagram = 65536;

struct HostPort {
  std::string host;
  std::string port;
};

std::optional<HostPort> split(const std::string& server) {
  const auto colon = server.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  HostPort result{.host = server.substr(0, colon), .port = server.substr(colon + 1)};
  if (result.host.size() > 2 && result.host.front() == '[' && result.host.back() == ']') {
    result.host = result.host.substr(1, result.host.size() - 2);
  }
  const std::string& port = result.port;
  const bool digits = std::ranges::all_of(port, [](char c) { return c >= '0' && c <= '9'; });
  if (result.host.empty() || port.empty() || port.size() > 5 || !digits) return std::nullopt;
  if (std::stoi(port) < 1 || std::stoi(port) > 0xFFFF) return std::nullopt;
  return result;
}

// A connected socket gets datagrams of this server only, and hears when nothing listens there.
int connectTo(const std::string& server) {
  const auto to = split(server);
  if (!to) {
    throw LinkError(fmt::format("'{}' is no server: ADDR:PORT is, for example 127.0.0.1:{}", server,
                                kDefaultManagementPort));
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (const int error = getaddrinfo(to->host.c_str(), to->port.c_str(), &hints, &found); error != 0) {
    throw LinkError(fmt::format("{}: {}; name another server with --server", server, gai_strerror(error)));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  int error = 0;
  for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
    const int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd >= 0 && connect(fd, a->ai_addr, a->ai_addrlen) == 0) return fd;
    error = errno;
    if (fd >= 0) close(fd);
  }
  throw LinkError(fmt::format("{}: no socket to it: {}", server, std::strerror(error)));
}

bool answers(const Reply& reply, const Request& request) {
  return reply.sequence == request.sequence && reply.operation == static_cast<u8>(request.operation) &&
         reply.variable == request.variable && reply.slot == request.slot && reply.port == request.port;
}

}  // namespace

bool isServer(const std::string& text) {
  return split(text).has_value();
}

// A new process may get the port of an old one; the random start keeps it from being answered with what the
// server stored for that one.
UdpLink::UdpLink(const std::string& server, const UdpLinkOptions& options)
    : server_(server), options_(options), socket_(connectTo(server)), sequence_(std::random_device{}()) {}

UdpLink::~UdpLink() {
  close(socket_);
}

void UdpLink::fail(const std::string& what) const {
  throw LinkError(
      fmt::format("{}: {}; see that 'headend' runs and serves this address, or name another with --server",
                  server_, what));
}

Reply UdpLink::call(Request request) {
  request.sequence = ++sequence_;
  const Bytes datagram = encode(request);
  const Clock::time_point start = Clock::now();
  const bool limited = options_.total > std::chrono::milliseconds(0);
  const Clock::time_point end = limited ? start + options_.total : Clock::time_point::max();
  for (int attempt = 0; attempt < options_.tries && Clock::now() < end; ++attempt) {
    if (send(socket_, datagram.data(), datagram.size(), MSG_NOSIGNAL) < 0) {
      if (errno == ECONNREFUSED) fail("nothing listens there");
      fail(fmt::format("cannot send: {}", std::strerror(errno)));
    }
    auto reply = await(request, std::min(Clock::now() + options_.timeout, end));
    if (reply) return *std::move(reply);
  }
  const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  fail(fmt::format("no reply within {} ms", waited.count()));
}

std::optional<Reply> UdpLink::await(const Request& request, Clock::time_point deadline) {
  std::vector<u8> buffer(kMaxDatagram);
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd poller{.fd = socket_, .events = POLLIN, .revents = 0};
    if (left.count() <= 0 || poll(&poller, 1, static_cast<int>(left.count())) == 0) return std::nullopt;
    const ssize_t size = recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size < 0) {
      if (errno == ECONNREFUSED) fail("nothing listens there");
      if (errno == EAGAIN || errno == EINTR) continue;
      fail(fmt::format("cannot receive: {}", std::strerror(errno)));
    }
    auto reply = decodeReply(std::span(buffer).first(static_cast<std::size_t>(size)));
    if (reply && answers(*reply, request)) return reply;
  }
}

}  // namespace client
