#include "client/udp_link.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>
#include <vector>

#include "base/address.h"

namespace client {
namespace {

constexpr std::size_t kMaxDatagram = 65536;

constexpr UdpService kManagement = {
    .defaultPort = kDefaultManagementPort,
    .advice =
        "see that 'headend' runs and serves this address, or name another with --server; a back end that "
        "hangs with a card's bus does not answer"};

constexpr UdpService kCalibration = {
    .defaultPort = kDefaultCalibrationPort,
    .advice =
        "see that the chassis serves calibration there ('headend --calibration') and has a card in this "
        "slot, or name another address with --server"};

template <typename... Args>
[[noreturn]] void failToReach(fmt::format_string<Args...> text, Args&&... args) {
  throw Error(fmt::format(text, std::forward<Args>(args)...), Error::Kind::kNoReply);
}

// A connected socket receives only datagrams of this server, and an error when no program listens there.
int connectTo(const std::string& server, u16 defaultPort) {
  if (!isServer(server))
    failToReach("'{}' is no server: ADDR:PORT is, for example 127.0.0.1:{} or [::1]:{}", server, defaultPort,
                defaultPort);
  std::vector<base::SocketAddress> addresses;
  try {
    addresses = base::resolve(*base::parseAddress(server));
  } catch (const std::runtime_error& e) {
    failToReach("{}: {}; name another server with --server", server, e.what());
  }
  const int fd = base::openDatagramSocket(addresses, base::SocketUse::kConnect);
  if (fd < 0) failToReach("{}: no socket to it: {}", server, std::strerror(errno));
  return fd;
}

std::string problemWith(const char* action) {
  return errno == ECONNREFUSED ? "nothing listens there"
                               : fmt::format("cannot {}: {}", action, std::strerror(errno));
}

bool answers(const Reply& reply, const Request& request) {
  return reply.sequence == request.sequence && reply.operation == static_cast<u8>(request.operation) &&
         reply.variable == request.variable && reply.slot == request.slot && reply.port == request.port;
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
  throw failure(problemWith("send"));
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
    if (errno != EAGAIN && errno != EINTR) throw failure(problemWith("receive"));
  }
}

// A new process may get the port of an old one; the random start keeps it from being answered with what the
// server stored for that one.
UdpLink::UdpLink(const std::string& server, const UdpLinkOptions& options)
    : socket_(server, kManagement), options_(options), sequence_(std::random_device{}()) {}

Reply UdpLink::exchange(Request request) {
  using Clock = ServerSocket::Clock;
  request.sequence = ++sequence_;
  const Bytes datagram = encode(request);
  const auto start = Clock::now();
  for (int attempt = 0; attempt < options_.tries; ++attempt) {
    socket_.send(datagram);
    const auto deadline = Clock::now() + options_.timeout;
    while (const auto received = socket_.receive(deadline)) {
      auto reply = decodeReply(*received);
      if (reply && answers(*reply, request)) return *std::move(reply);
    }
  }
  const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  throw socket_.failure(fmt::format("no reply within {} ms", waited.count()));
}

void UdpCalibrationLink::begin() {
  socket_.emplace(server_, kCalibration);
}

}  // namespace client
