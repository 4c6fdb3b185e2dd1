#include "headend/hardware/fpga_configuration.h"

#include <array>
#include <utility>

namespace headend {
namespace {

enum PortRegister : u32 { kRequest = 0, kClockIn = 2, kDataIn = 4, kStatus = 6, kDone = 8, kGuard = 10 };

constexpr u16 kOpen = 0xC0DE;

constexpr unsigned kClosingClocks = 10;
constexpr Nanos kReadyAfterMin = 20'000;  // from release to status high
constexpr Nanos kReadyAfterSpread = 40'000;

}  // namespace

// ---- The port ----

FpgaConfiguration::FpgaConfiguration(const Settings& settings, Violations& violations)
    : settings_(settings), violations_(violations), spread_(settings.seed) {}

u16 FpgaConfiguration::read(u32 offset, Nanos now) {
  switch (offset) {
    case kRequest:
      return code_;
    case kStatus:
      return status(now) ? 1 : 0;
    case kDone:
      return done_ ? 1 : 0;
    default:
      return 0;
  }
}

void FpgaConfiguration::write(u32 offset, u16 value, Nanos now) {
  const bool level = (value & 1) != 0;
  if (offset == kGuard) {
    open_ = value == kOpen;
  } else if (!open_) {
    if (offset == kClockIn && value != 0) violations_.count("config_data_while_not_ready");
  } else if (offset == kRequest) {
    request(value, now);
  } else if (offset == kClockIn) {
    if (!std::exchange(clock_, level) && level) clockRise(now);
  } else if (offset == kDataIn) {
    data(level);
  }
}

std::string_view FpgaConfiguration::registerName(u32 offset) const {
  constexpr std::array<std::string_view, kSize / 2> kNames = {"fpga_ncfg", "fpga_dclk", "fpga_data",
                                                              "fpga_stat", "fpga_done", "config_protect",
                                                              "reserved",  "reserved"};
  return kNames[offset / 2];
}

void FpgaConfiguration::loaderLeft() {
  if (open_) violations_.count("config_guard_left_open");
}

// ---- The part ----

// Only two codes have an effect.
void FpgaConfiguration::request(u16 code, Nanos now) {
  if (code == kStart) {
    ++attempts_;
    lose(now);
  } else if (code != kRelease) {
    return;
  } else if (code_ != kRelease) {
    readyAt_ = now + kReadyAfterMin + static_cast<Nanos>(spread_() % kReadyAfterSpread);
  }
  code_ = code;
}

void FpgaConfiguration::lose(Nanos now) {
  done_ = false;
  receiver_ = {};
  clocks_ = clocksAfterStream_ = clocksSinceData_ = 0;
  if (onChange_) onChange_(false, now);
}

void FpgaConfiguration::data(bool level) {
  if (receiver_.accepted()) receiver_.refuse();  // more data than the stream's length: not a valid stream
  data_ = level;
  clocksSinceData_ = 0;
}

void FpgaConfiguration::clockRise(Nanos now) {
  if (!status(now)) {
    violations_.count("config_data_while_not_ready");
    return;
  }
  if (done_) return;
  if (receiver_.accepted()) ++clocksAfterStream_;
  receiver_.bit(data_);
  ++clocks_;
  ++clocksSinceData_;
  if (streamComplete()) {
    done_ = true;
    if (onChange_) onChange_(true, now);
  }
}

// The end of a stream of any kind is known only from the closing clocks: as many as belong to none of its
// bits, with the data line no longer driven.
bool FpgaConfiguration::streamComplete() const {
  if (!settings_.anyBitstream) return clocksAfterStream_ >= kClosingClocks;
  return clocks_ > kClosingClocks && clocksSinceData_ > kClosingClocks && (clocks_ - kClosingClocks) % 8 == 0;
}

}  // namespace headend
