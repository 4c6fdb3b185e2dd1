#include "headend/hardware/pcr_pace.h"

#include <algorithm>

namespace headend {
namespace {

bool isInterval(const PcrPace::Pcr& from, const PcrPace::Pcr& to) {
  const u64 ticks = mpeg::pcrDistance(from.ticks, to.ticks);
  return ticks > 0 && ticks <= kLongestInterval_ticks;
}

}  // namespace

std::optional<PacedRun> PcrPace::push(const Pcr& pcr) {
  if (!kept_) {
    kept_ = pcr;
    return PacedRun{.packets = pcr.packet, .pace = pace_};
  }
  std::optional<PacedRun> run;
  if (undecided_) {
    const bool isStray =
        isInterval(*kept_, pcr) && !(isInterval(*kept_, *undecided_) && isInterval(*undecided_, pcr));
    if (!isStray) run = advanceTo(*undecided_);
  }
  undecided_ = pcr;
  return run;
}

std::optional<PacedRun> PcrPace::finish() {
  if (!undecided_) return std::nullopt;
  const Pcr last = *undecided_;
  undecided_.reset();
  return advanceTo(last);
}

PacedRun PcrPace::advanceTo(const Pcr& pcr) {
  const u64 packets = pcr.packet - kept_->packet;
  if (isInterval(*kept_, pcr)) {
    const u64 ticks = mpeg::pcrDistance(kept_->ticks, pcr.ticks);
    longest_ticks_ = std::max(longest_ticks_, ticks);
    pace_ = {.packets = packets, .units = ticks * kUnitsPerTick};
  }
  kept_ = pcr;
  return {.packets = packets, .pace = pace_};
}

}  // namespace headend
