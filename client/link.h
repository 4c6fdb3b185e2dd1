// The way from a client to the back end, whatever carries the datagrams: UDP for qamctl, the chassis's own
// network in virtual time for the headend's operator. Procedures such as an upload are written once, on this.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

#include "mpeg/section.h"
#include "protocol/channel.h"
#include "protocol/datagram.h"

namespace client {

// A client is written in the words of streams and of the protocol.
using namespace mpeg;      // NOLINT(google-build-using-namespace)
using namespace protocol;  // NOLINT(google-build-using-namespace)
using base::Bytes;

// Something was refused or could not be carried out; what() says why, and how to go on.
class Error : public std::runtime_error {
 public:
  enum class Kind {
    kFailed,
    kNoReply,  // none came, or none that fits the request: it may have been carried out
    kLocked,   // another client has the lock, and nothing was changed
    kUnseen,   // a new PID map was sent whole; it or the one that was there is on the air
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

  // Lets that much of the time pass in which the server lives: for a procedure that waits for something
  // there.
  virtual void wait(std::chrono::milliseconds time) = 0;
};

// Has a request carried out; the data of its reply. `what` stands in errors: "lock the tables of 1.1". Throws
// Error.
Bytes ask(Link& link, const Request& request, const std::string& what);
// Throws Error: the reply has not the form of an answer to this.
[[noreturn]] void failOnReply(const std::string& what);

}  // namespace client
