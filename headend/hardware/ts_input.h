// One input of a source card: a transport stream whose packets arrive one by one in virtual time. The router
// takes them; who plays a file or listens to the network knows nothing of where they go.
#pragma once

#include <span>
#include <string>

#include "headend/hardware/packet_sink.h"
#include "headend/kernel/kernel.h"

namespace headend {

class TsInput {
 public:
  TsInput() = default;
  TsInput(const TsInput&) = delete;
  TsInput& operator=(const TsInput&) = delete;
  virtual ~TsInput() = default;

  // When the next packet arrives; kNever while none is known to come. Never earlier than the packet before.
  virtual Nanos nextArrival() const = 0;
  // Takes that packet, which must be known; valid until the next call.
  virtual mpeg::PacketView take() = 0;

  // What a person would call it: the file's path or the address.
  virtual const std::string& name() const = 0;
};

}  // namespace headend
