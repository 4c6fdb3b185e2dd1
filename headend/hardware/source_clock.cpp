#include "headend/hardware/source_clock.h"

#include <algorithm>
#include <cmath>

namespace headend {
namespace {

constexpr double kMemory_s = 600;

// How wrong the line may be after a time: correlated jitter hardly shows in how well the line fits.
constexpr double kDoubt = 14e-6;
constexpr double kDoubt_s = 120;

// Of the wait in the buffer.
constexpr double kCentringBegin_s = 300;
constexpr double kCentring_s = 10'000;
constexpr double kFastestCentring = 2e-6;

}  // namespace

void SourceClock::note(double elapsed_s, double delay_s, double excess_s) {
  elapsed_s_ += elapsed_s;
  delays_s_ += delay_s;
  excesses_s_ += excess_s;
  ++pcrs_;
  if (elapsed_s_ < 1) return;
  addSecond(delays_s_ / pcrs_, excesses_s_ / pcrs_);
  elapsed_s_ = delays_s_ = excesses_s_ = 0;
  pcrs_ = 0;
}

void SourceClock::restart() {
  const SourceClock before = *this;
  *this = SourceClock();
  followed_ = before.followed_;
  slowness_ = before.followed_;
}

void SourceClock::addSecond(double delay_s, double excess_s) {
  xx_ += elapsed_s_ * (elapsed_s_ * weight_ - 2 * x_);
  x_ -= elapsed_s_ * weight_;
  xy_ -= elapsed_s_ * y_;
  const double fading = std::exp(-elapsed_s_ / kMemory_s);
  for (double* sum : {&weight_, &x_, &xx_, &y_, &xy_, &yy_}) *sum *= fading;
  weight_ += 1;
  y_ += delay_s;
  yy_ += delay_s * delay_s;
  seconds_ += elapsed_s_;
  if (weight_ < 3) return;
  const auto [slope, doubt] = line();
  followed_ = std::clamp(followed_, slope - doubt, slope + doubt);
  const double centring = seconds_ < kCentringBegin_s
                              ? 0
                              : std::clamp(excess_s / kCentring_s, -kFastestCentring, kFastestCentring);
  slowness_ = std::clamp(followed_ - centring, -kFarthest, kFarthest);
}

SourceClock::Line SourceClock::line() const {
  const double spread = xx_ - x_ * x_ / weight_;
  const double slope = (xy_ - x_ * y_ / weight_) / spread;
  const double rest = yy_ - y_ * y_ / weight_ - slope * slope * spread;
  const double deviation = std::sqrt(std::max(0.0, rest) / (weight_ - 2) / spread);
  const double doubt = kDoubt * std::pow(kDoubt_s / std::min(seconds_, kMemory_s), 2.5);
  return {.slope = slope, .doubt = std::max(doubt, 2 * deviation)};
}

}  // namespace headend
