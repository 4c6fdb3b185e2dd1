#include "client/udp_link.h"

#include <fmt/format.h>

#include <algorithm>
#include <random>
#include <thread>

namespace client {
namespace {

using Clock = ServerSocket::Clock;

constexpr UdpService kManagement = {
    .defaultPort = kDefaultManagementPort,
    .advice =
        "see that 'headend' runs and serves this address, or name another with --server; a back end that "
        "hangs with a card's bus answers nobody"};

constexpr UdpService kCalibration = {
    .defaultPort = kDefaultCalibrationPort,
    .advice =
        "see that the chassis serves calibration there ('headend --calibration') and has a card in this "
        "slot, or name another address with --server"};

bool answers(const Reply& reply, const Request& request) {
  return reply.sequence == request.sequence && reply.operation == static_cast<u8>(request.operation) &&
         reply.variable == request.variable && reply.slot == request.slot && reply.port == request.port;
}

}  // namespace

// A new process may get the port of an old one; the random start keeps it from being answered with what the
// server stored for that one.
UdpLink::UdpLink(const std::string& server, const UdpLinkOptions& options)
    : socket_(server, kManagement), options_(options), sequence_(std::random_device{}()) {}

Reply UdpLink::call(Request request) {
  request.sequence = ++sequence_;
  const Bytes datagram = encode(request);
  const Clock::time_point start = Clock::now();
  const bool limited = options_.total > std::chrono::milliseconds(0);
  const Clock::time_point end = limited ? start + options_.total : Clock::time_point::max();
  for (int attempt = 0; attempt < options_.tries && Clock::now() < end; ++attempt) {
    socket_.send(datagram);
    auto reply = await(request, std::min(Clock::now() + options_.timeout, end));
    if (reply) return *std::move(reply);
  }
  const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  throw socket_.failure(fmt::format("no reply within {} ms", waited.count()));
}

void UdpLink::wait(std::chrono::milliseconds time) {
  std::this_thread::sleep_for(time);
}

std::optional<Reply> UdpLink::await(const Request& request, Clock::time_point deadline) {
  while (const auto datagram = socket_.receive(deadline)) {
    auto reply = decodeReply(*datagram);
    if (reply && answers(*reply, request)) return reply;
  }
  return std::nullopt;
}

void UdpCalibrationLink::begin() {
  socket_.emplace(server_, kCalibration);
}

std::optional<Bytes> UdpCalibrationLink::receive(std::chrono::nanoseconds time) {
  return socket_->receive(Clock::now() + time);
}

void UdpCalibrationLink::wait(std::chrono::milliseconds time) {
  std::this_thread::sleep_for(time);
}

}  // namespace client
