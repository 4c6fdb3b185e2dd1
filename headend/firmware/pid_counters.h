// Counts the packets of inputs and channels by PID for management software. An input or a channel is counted
// from the first request for it on, until kKept after the last one: counting takes processor time for each
// packet.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>

#include "headend/firmware/pid_meter.h"
#include "headend/firmware/source_cards.h"
#include "headend/hardware/multiplexer.h"
#include "protocol/channel.h"

namespace headend {

class PidCounters {
 public:
  static constexpr Nanos kKept = 10 * kSecond;  // of virtual time, and of the host's

  // Provides the operation kPids. `output` gives the multiplexer of a card's channel, null if there is none.
  PidCounters(Kernel& kernel, SourceCards& sources, BackEnd& backEnd,
              std::function<Multiplexer*(int slot, int port)> output);

  // Call it often.
  void update(Nanos now);

 private:
  using Clock = std::chrono::steady_clock;
  using Place = protocol::SourcePort;  // an input, or a channel: the slot's card decides

  struct Stream {
    PidMeter meter;
    Multiplexer* output = nullptr;  // of a channel
    std::uint64_t nulls = 0;        // packets that it has inserted so far
    Nanos since = 0;                // start or reset
    Nanos second = 0;               // start of this second
    Nanos asked = 0;
    Clock::time_point askedAt;  // by the host's clock
  };

  u32 serve(const protocol::Request& request, base::Bytes& reply);
  // Null: there is no such input or channel.
  Stream* stream(const Place& place);
  u32 refusal(const Place& place) const;
  void start(const Place& place, Stream& stream);
  void stop(const Place& place, const Stream& stream);
  void catchUp(Stream& stream, Nanos now);

  Kernel& kernel_;
  SourceCards& sources_;
  std::function<Multiplexer*(int, int)> output_;
  std::map<Place, Stream> streams_;
};

}  // namespace headend
