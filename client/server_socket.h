// A UDP socket to one server, with error messages that help an operator. Used by the links over UDP:
// management (client/udp_link.h) and calibration (client/calibration.h).
#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>

#include "client/link.h"
#include "platform/types.h"

namespace client {

// Whether the text is an "ADDR:PORT", with an IPv6 address in brackets. Does no name lookup.
bool isServer(const std::string& text);

// The service's name and advice for error messages.
struct UdpService {
  u16 defaultPort;
  const char* advice;  // what to do if it does not answer
};

class ServerSocket {
 public:
  using Clock = std::chrono::steady_clock;

  // Throws Error if `server` is not valid (see isServer), is unknown, or cannot be sent to. `service` must
  // outlive the socket.
  ServerSocket(std::string server, const UdpService& service);
  ~ServerSocket();
  ServerSocket(const ServerSocket&) = delete;
  ServerSocket& operator=(const ServerSocket&) = delete;

  // Throws Error, also if no program listens at the destination of an earlier datagram.
  void send(std::span<const u8> datagram);

  // The server's next datagram, or nullopt at the deadline. Throws Error if no program listens there.
  std::optional<Bytes> receive(Clock::time_point deadline);

  // Names the server, the problem, and the service's advice.
  Error failure(const std::string& what) const;

 private:
  std::string server_;
  const UdpService& service_;
  int socket_ = -1;
};

}  // namespace client
