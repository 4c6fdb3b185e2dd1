// One slot's configuration port of the main board's FPGA: a write guard, and five registers that drive and
// read the pins of the card's FPGA.
#pragma once

#include "headend/hardware/bus_device.h"
#include "headend/hardware/fpga_configuration.h"

namespace headend {

class ConfigPort final : public BusDevice {
 public:
  static constexpr u32 kSize = 16;

  ConfigPort(FpgaConfiguration& part, Violations& violations) : part_(part), violations_(violations) {}

  u16 read(u32 offset, Nanos now) override;
  void write(u32 offset, u16 value, Nanos now) override;
  const char* registerName(u32 offset) const override;

  // The slot's start-up has ended: a guard that is still open then stays open permanently.
  void loaderLeft();

 private:
  FpgaConfiguration& part_;
  Violations& violations_;
  bool open_ = false;
  u16 code_ = 0;
  bool clock_ = false;
};

}  // namespace headend
