// The connection from a client to the back end, independent of the transport: UDP for qamctl, the chassis's
// own network in virtual time for the headend's operator. Procedures such as an upload use it.
#pragma once

#include <fmt/format.h>

#include <chrono>
#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "base/interface.h"
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

  bool gotNoReply() const { return kind_ == Kind::kNoReply; }

 private:
  Kind kind_;
};

// Throws Error with a text formatted by fmt.
template <typename... Args>
[[noreturn]] void fail(fmt::format_string<Args...> text, Args&&... args) {
  throw Error(fmt::format(text, std::forward<Args>(args)...));
}

struct Link : base::Interface {
  static constexpr std::chrono::milliseconds kStartPatience{10'000}, kStartPoll{100};

  // Called when the wait for a card's start-up begins and ends.
  std::function<void(u16 slot, bool begins)> onStart = [](u16 /*slot*/, bool /*begins*/) {};

  // Sends the request with a new sequence number and waits for its reply. While the card starts, the request
  // is repeated, for up to kStartPatience. Throws Error (kNoReply).
  Reply call(const Request& request) {
    Reply reply = exchange(request);
    const bool waits = reply.result == kNotStarted;
    if (waits) onStart(request.slot, true);
    for (auto left = kStartPatience; reply.result == kNotStarted && left.count() > 0; left -= kStartPoll) {
      wait(kStartPoll);
      reply = exchange(request);
    }
    if (waits) onStart(request.slot, false);
    if (reply.recordNotKept) notKept_.insert(request.slot);
    if (!reply.recordNotKept && isForCard(request.operation)) notKept_.erase(request.slot);
    return reply;
  }
  // The slots whose record was not kept, by the last reply for each.
  const std::set<u16>& notKept() const { return notKept_; }

  // Waits for that much of the server's time: for a procedure that waits for an event there.
  virtual void wait(std::chrono::milliseconds time) = 0;

 private:
  virtual Reply exchange(Request request) = 0;

  std::set<u16> notKept_;
};

// Sends a request and returns the data of its reply. `what` is for error messages: "lock the tables of 1.1".
// Throws Error.
inline Bytes ask(Link& link, const Request& request, const std::string& what) {
  Reply reply = link.call(request);
  if (reply.result != kDone) fail("cannot {}: {}", what, resultText(reply.result, request.variable));
  return std::move(reply.data);
}
// The same for data that is decoded. Throws Error also if `decode` returns nullopt, or the value is not
// right.
struct Always {
  bool operator()(const auto& /*value*/) const { return true; }
};
template <typename Decode, typename IsRight = Always>
auto ask(Link& link, const Request& request, const std::string& what, const Decode& decode,
         const IsRight& isRight = {}) {
  auto value = decode(ask(link, request, what));
  if (!value || !isRight(*value))
    fail("cannot {}: the reply is not what was asked for; is this server a chassis?", what);
  return *std::move(value);
}

}  // namespace client
