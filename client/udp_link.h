// The links over UDP for programs outside the headend: to the management service and to the calibration
// service. One request at a time, from one thread.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>

#include "client/calibration.h"
#include "client/link.h"

namespace client {

// Whether the text is an "ADDR:PORT", with an IPv6 address in brackets. Does no name lookup.
bool isServer(const std::string& text);

// The service's port and advice for error messages.
struct UdpService {
  u16 defaultPort;
  const char* advice;  // what to do if it does not answer
};

// A UDP socket to one server, with error messages that help an operator.
class ServerSocket : boost::noncopyable {
 public:
  using Clock = std::chrono::steady_clock;

  // Throws Error if `server` is not valid (see isServer), is unknown, or cannot be sent to. `service` must
  // outlive the socket.
  ServerSocket(std::string server, const UdpService& service);
  ~ServerSocket();

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

struct UdpLinkOptions {
  std::chrono::milliseconds timeout{1000};  // for one reply, before the request is repeated
  int tries = 4;  // all with one sequence number: the back end carries out one of them
};

class UdpLink : public Link {
 public:
  // Throws Error as ServerSocket does.
  explicit UdpLink(const std::string& server, const UdpLinkOptions& options = {});

  void wait(std::chrono::milliseconds time) override { std::this_thread::sleep_for(time); }

 private:
  // Throws Error if no reply arrived within the tries, or no program listens there.
  Reply exchange(Request request) override;

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
  std::optional<Bytes> receive(std::chrono::nanoseconds time) override {
    return socket_->receive(ServerSocket::Clock::now() + time);
  }
  void wait(std::chrono::milliseconds time) override { std::this_thread::sleep_for(time); }
  std::chrono::nanoseconds now() const override { return ServerSocket::Clock::now().time_since_epoch(); }
  Error failure(const std::string& what) const override { return socket_->failure(what); }

 private:
  std::string server_;
  std::optional<ServerSocket> socket_;
};

}  // namespace client
