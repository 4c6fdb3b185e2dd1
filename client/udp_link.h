// The links over UDP for programs outside the headend: to the management service and to the calibration
// service. One request at a time, from one thread.
#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "client/calibration.h"
#include "client/link.h"
#include "client/server_socket.h"

namespace client {

struct UdpLinkOptions {
  std::chrono::milliseconds timeout{1000};  // for one reply, before the request is repeated
  int tries = 4;                       // all with one sequence number: the back end carries out one of them
  std::chrono::milliseconds total{0};  // for one call with all its tries; 0: no limit of its own
};

class UdpLink : public Link {
 public:
  // Throws Error if `server` is not valid (see isServer), is unknown, or cannot be sent to.
  explicit UdpLink(const std::string& server, const UdpLinkOptions& options = {});

  // Throws Error if no reply arrived within the tries, or no program listens there.
  Reply call(Request request) override;
  void wait(std::chrono::milliseconds time) override;

 private:
  std::optional<Reply> await(const Request& request, ServerSocket::Clock::time_point deadline);

  ServerSocket socket_;
  UdpLinkOptions options_;
  u32 sequence_ = 0;
};

// Each request has a socket of its own, and so a port at which only its own replies arrive.
class UdpCalibrationLink : public CalibrationLink {
 public:
  explicit UdpCalibrationLink(std::string server) : server_(std::move(server)) {}

  void begin() override;
  void send(std::span<const u8> datagram) override { socket_->send(datagram); }
  std::optional<Bytes> receive(std::chrono::nanoseconds time) override;
  void wait(std::chrono::milliseconds time) override;
  std::chrono::nanoseconds now() const override { return ServerSocket::Clock::now().time_since_epoch(); }
  Error failure(const std::string& what) const override { return socket_->failure(what); }

 private:
  std::string server_;
  std::optional<ServerSocket> socket_;
};

}  // namespace client
