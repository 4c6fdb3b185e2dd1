// An input of a source card: a transport stream whose packets arrive one by one in virtual time. The router
// reads the packets; the inputs do not depend on their destination.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/interface.h"
#include "headend/kernel/kernel.h"
#include "mpeg/packet.h"

namespace headend {

// Both a tick of 27 MHz and a nanosecond are whole numbers of a unit, so that nothing is rounded before the
// end.
inline constexpr int kUnitsPerTick = 1'000;
inline constexpr int kUnitsPerNano = 27;

// PCRs farther apart than this are no clock: the standard requires ten per second.
inline constexpr u64 kLongestInterval_ticks = mpeg::kPcrHz;

class TsInput : public base::Interface {
 public:
  // When the next packet arrives; kNever if none is known. Never earlier than the previous packet.
  virtual Nanos nextArrival() const = 0;
  // Removes that packet, which must be known; valid until the next call.
  virtual mpeg::PacketView take() = 0;

  // The name for users: the file's path or the address.
  virtual const std::string& name() const = 0;
  // What was lost or restarted, by name in reports; empty for an input that can lose nothing.
  virtual std::vector<std::pair<const char*, std::uint64_t>> disturbances() const { return {}; }
};

}  // namespace headend
