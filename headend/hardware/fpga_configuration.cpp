#include "headend/hardware/fpga_configuration.h"

namespace headend {
namespace {

constexpr unsigned kClosingClocks = 10;
constexpr Nanos kReadyAfterMin = 20'000;  // from release to status high
constexpr Nanos kReadyAfterSpread = 40'000;

}  // namespace

FpgaConfiguration::FpgaConfiguration(const Settings& settings, Violations& violations)
    : settings_(settings), violations_(violations), spread_(settings.seed) {}

void FpgaConfiguration::request(Nanos now) {
  ++attempts_;
  released_ = false;
  done_ = false;
  receiver_.restart();
  clocks_ = 0;
  clocksAfterStream_ = 0;
  clocksSinceData_ = 0;
  if (onChange_) onChange_(false, now);
}

void FpgaConfiguration::release(Nanos now) {
  if (released_) return;
  released_ = true;
  readyAt_ = now + kReadyAfterMin + static_cast<Nanos>(spread_() % kReadyAfterSpread);
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

// A part that takes any stream cannot know its end but by the closing clocks: as many as belong to none of
// its bits, the data line not driven any more.
bool FpgaConfiguration::streamComplete() const {
  if (!settings_.anyBitstream) return clocksAfterStream_ >= kClosingClocks;
  return clocks_ > kClosingClocks && clocksSinceData_ > kClosingClocks && (clocks_ - kClosingClocks) % 8 == 0;
}

}  // namespace headend
