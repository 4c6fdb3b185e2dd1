// The connection from a client to the back end, independent of the transport: UDP for qamctl, the chassis's
// own network in virtual time for the headend's operator. Procedures such as an upload use it.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "mpeg/section.h"
#include "protocol/channel.h"
#include "protocol/datagram.h"

namespace client {

// Clients use the names of streams and of the protocol.
using namespace mpeg;      // NOLINT(google-build-using-namespace)
using namespace protocol;  // NOLINT(google-build-using-namespace)
using base::Bytes;

// A request was refused or could not be carried out; what() gives the reason and how to continue.
class Error : public std::runtime_error {
 public:
  enum class Kind {
    kFailed,
    kNoReply,  // no matching reply arrived: the request may have been carried out
  };
  explicit Error(const std::string& text, Kind kind = Kind::kFailed)
      : std::runtime_error(text), kind_(kind) {}

  Kind kind() const { return kind_; }
  bool gotNoReply() const { return kind_ == Kind::kNoReply; }

 private:
  Kind kind_;
};

class Link {
 public:
  Link() = default;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  virtual ~Link() = default;

  // Sends the request with a new sequence number and waits for its reply. Throws Error (kNoReply).
  virtual Reply call(Request request) = 0;

  // Waits for that much of the server's time: for a procedure that waits for an event there.
  virtual void wait(std::chrono::milliseconds time) = 0;
};

// Sends a request and returns the data of its reply. `what` is for error messages: "lock the tables of 1.1".
// Throws Error.
Bytes ask(Link& link, const Request& request, const std::string& what);
// Throws Error: the reply has not the form of an answer to this request.
[[noreturn]] void failOnReply(const std::string& what);

}  // namespace client
