#include "headend/hardware/config_port.h"

namespace headend {
namespace {

enum Register : u32 { kRequest = 0, kClock = 2, kData = 4, kStatus = 6, kDone = 8, kGuard = 10 };

constexpr u16 kStart = 0x3C5A;
constexpr u16 kRelease = 0xC3A5;
constexpr u16 kOpen = 0xC0DE;

}  // namespace

u16 ConfigPort::read(u32 offset, Nanos now) {
  switch (offset) {
    case kRequest:
      return code_;
    case kStatus:
      return part_.status(now) ? 1 : 0;
    case kDone:
      return part_.done() ? 1 : 0;
    default:
      return 0;
  }
}

void ConfigPort::write(u32 offset, u16 value, Nanos now) {
  if (offset == kGuard) {
    open_ = value == kOpen;
    return;
  }
  if (!open_) {
    if (offset == kClock && value != 0) violations_.count("config_data_while_not_ready");
    return;
  }
  switch (offset) {
    case kRequest:
      if (value == kStart) {
        part_.request(now);
      } else if (value == kRelease) {
        part_.release(now);
      } else {
        return;  // only two codes have an effect
      }
      code_ = value;
      return;
    case kClock: {
      const bool level = (value & 1) != 0;
      if (level && !clock_) part_.clockRise(now);
      clock_ = level;
      return;
    }
    case kData:
      part_.data((value & 1) != 0);
      return;
    default:
      return;
  }
}

const char* ConfigPort::registerName(u32 offset) const {
  switch (offset) {
    case kRequest:
      return "fpga_ncfg";
    case kClock:
      return "fpga_dclk";
    case kData:
      return "fpga_data";
    case kStatus:
      return "fpga_stat";
    case kDone:
      return "fpga_done";
    case kGuard:
      return "config_protect";
    default:
      return "reserved";
  }
}

void ConfigPort::loaderLeft() {
  if (open_) violations_.count("config_guard_left_open");
}

}  // namespace headend
