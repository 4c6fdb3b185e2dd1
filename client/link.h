// The way from a client to the back end, whatever carries the datagrams: UDP for qamctl, the chassis's own
// network in virtual time for the headend's operator. Procedures such as an upload are written once, on this.
#pragma once

#include <chrono>
#include <stdexcept>

#include "client/datagram.h"

namespace client {

// No reply came, or none that fits the request.
class LinkError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Link {
 public:
  Link() = default;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  virtual ~Link() = default;

  // Sends the request with a new sequence number and waits for its reply. Throws LinkError.
  virtual Reply call(Request request) = 0;

  // Lets that much of the time pass in which the server lives: for a procedure that waits for something
  // there.
  virtual void wait(std::chrono::milliseconds time) = 0;
};

}  // namespace client
