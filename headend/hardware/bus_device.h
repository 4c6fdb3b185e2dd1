// A device on the main board's bus: a block of 16-bit registers at byte offsets.
#pragma once

#include "headend/kernel/kernel.h"
#include "platform/types.h"

namespace headend {

class BusDevice {
 public:
  BusDevice() = default;
  BusDevice(const BusDevice&) = delete;
  BusDevice& operator=(const BusDevice&) = delete;
  virtual ~BusDevice() = default;

  virtual u16 read(u32 offset, Nanos now) = 0;
  virtual void write(u32 offset, u16 value, Nanos now) = 0;
  virtual const char* registerName(u32 offset) const = 0;
};

}  // namespace headend
