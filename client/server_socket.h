// A UDP socket towards one server, with errors that an operator can act on. What the links over UDP are made
// of: management (client/udp_link.h) and calibration (client/calibration.h).
#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>

#include "client/link.h"
#include "platform/types.h"

namespace client {

// Whether the text is an "ADDR:PORT", with an IPv6 address in brackets. Asks no name server.
bool isServer(const std::string& text);

// What an error says about the service that was looked for.
struct UdpService {
  u16 defaultPort;
  const char* advice;  // what to do when it does not answer
};

class ServerSocket {
 public:
  using Clock = std::chrono::steady_clock;

  // Throws Error when `server` is none (see isServer), is not known, or cannot be sent to. `service` must
  // outlive the socket.
  ServerSocket(std::string server, const UdpService& service);
  ~ServerSocket();
  ServerSocket(const ServerSocket&) = delete;
  ServerSocket& operator=(const ServerSocket&) = delete;

  // Throws Error, also when nothing listens where an earlier datagram went.
  void send(std::span<const u8> datagram);

  // The server's next datagram, or nothing by the deadline. Throws Error when nothing listens there.
  std::optional<Bytes> receive(Clock::time_point deadline);

  // Throws Error: the server, what happened, and the service's advice.
  [[noreturn]] void fail(const std::string& what) const;

 private:
  std::string server_;
  const UdpService& service_;
  int socket_ = -1;
};

}  // namespace client
