// The registers of the main board's FPGA for the state of the outputs. The chassis reads them over the bus.
#pragma once

#include <array>

#include "headend/hardware/bus_device.h"
#include "headend/hardware/multiplexer.h"

namespace headend {

class MainBoard final : public BusDevice {
 public:
  // Byte offset in the main board's block. Two bits per slot, the first output in the lower bit. A bit is set
  // when a packet finds the output's buffer full, and cleared after kOverflowHold without another.
  static constexpr u32 kRateOverflow = 376;
  static constexpr Nanos kOverflowHold = 2 * kSecond;

  // The output's bit in the register.
  static constexpr std::size_t outputNumber(int slot, int port) {
    return static_cast<std::size_t>(slot) * MAX_QAM_OUT_NUM + static_cast<std::size_t>(port);
  }

  void watch(int slot, int port, Multiplexer& output);

  // Whether the output's bit is set; false if no output is monitored there.
  bool overflows(int slot, int port, Nanos now);

  u16 read(u32 offset, Nanos now) override;
  void write(u32 /*offset*/, u16 /*value*/, Nanos /*now*/) override {}  // only the board writes it
  const char* registerName(u32 /*offset*/) const override { return "rate_overflow"; }

 private:
  std::array<Multiplexer*, std::size_t{MAX_BOARD_NUM} * MAX_QAM_OUT_NUM> outputs_{};
};

}  // namespace headend
