#include "headend/hardware/adf4113.h"

#include <fmt/format.h>

#include <algorithm>

namespace headend {
namespace {

constexpr unsigned kBits = 24;

enum Latch : u32 { kReference = 0, kCounters = 1, kFunction = 2, kInitialization = 3 };

// Function latch.
constexpr u32 kCounterReset = 1U << 2;
constexpr u32 kPowerDown1 = 1U << 3;   // PD1
constexpr u32 kPowerDown2 = 1U << 21;  // PD2: with PD1, a synchronous power-down; alone, none
constexpr unsigned kMuxoutBit = 4;     // of three
constexpr u32 kMuxoutLockDetect = 1;   // the digital one
constexpr u32 kMuxoutSupply = 3;
constexpr u32 kPositivePolarity = 1U << 7;
constexpr u32 kThreeState = 1U << 8;

constexpr u32 kTestModes = 3U << 18;  // of the reference counter latch

constexpr unsigned kLeastB = 3;
constexpr double kReferenceMin_hz = 5 * kMHz;
constexpr double kReferenceMax_hz = 104 * kMHz;
constexpr double kDetectorMax_hz = 55 * kMHz;
constexpr double kRfMin_hz = 200 * kMHz;
constexpr double kRfMax_hz = 3700 * kMHz;
constexpr double kPrescaledMax_hz = 200 * kMHz;

}  // namespace

Synthesizer::Synthesizer(std::string name, double reference_hz, bool positivePolarityLocks,
                         Violations& violations)
    : ThreeWire(std::move(name), kBits,
                {.dataSetup = 10,
                 .dataHold = 10,
                 .clockHigh = 25,
                 .clockLow = 25,
                 .clockToLatch = 10,
                 .latchWidth = 20},
                violations),
      oscillator_hz_(reference_hz),
      reference_hz_(reference_hz),
      positivePolarityLocks_(positivePolarityLocks) {
  powerUp();
}

void Synthesizer::powerUp() {
  latches_ = {};
  method_ = Method::kNotBegun;
  lockedAt_ = kLongAgo;
}

void Synthesizer::latched(u32 word, Nanos now) {
  const double before_hz = target_hz();
  if ((word & 3) == kReference && (word & kTestModes) != 0) violation("test_mode");
  latches_[std::min<u32>(word & 3, kFunction)] = word;  // the initialization word is also a function word
  follow(word);
  if (target_hz() != before_hz) lockedAt_ = now + lockTime_;
}

// The counter-reset method: function with reset, reference counter, A and B counters, function without reset.
// Counters loaded after that count at once. A reset by the function word begins anew, and so does the
// initialization word.
void Synthesizer::follow(u32 word) {
  const bool reset = (latches_[kFunction] & kCounterReset) != 0;
  switch (word & 3) {
    case kReference:
      if (method_ == Method::kReset) method_ = Method::kReferenceLoaded;
      return;
    case kCounters:
      if (method_ == Method::kReferenceLoaded) method_ = Method::kCountersLoaded;
      return;
    case kFunction:
      if (reset) {
        method_ = Method::kReset;
      } else if (method_ == Method::kCountersLoaded) {
        method_ = Method::kFollowed;
      } else if (method_ != Method::kFollowed) {
        method_ = Method::kNotBegun;
      }
      return;
    default:
      method_ = Method::kNotBegun;
      return;
  }
}

ClockOutput Synthesizer::output(Nanos now) const {
  if (std::string why = fault(); !why.empty()) return {.why = std::move(why)};
  if (now < lockedAt_) return {.why = "not locked yet"};
  return {.hz = frequency_hz()};
}

// Low also for the pulses of the counters, which are too short to be read, and for an output in three-state.
bool Synthesizer::muxout(Nanos now) const {
  const u32 selected = latches_[kFunction] >> kMuxoutBit & 7;
  return selected == kMuxoutSupply || (selected == kMuxoutLockDetect && output(now).hz.has_value());
}

double Synthesizer::frequency_hz() const {
  return (b() * prescaler() + a()) * (reference_hz_ / r());
}

std::string Synthesizer::fault() const {
  if (reference_hz_ < kReferenceMin_hz || reference_hz_ > kReferenceMax_hz) {
    return reference_hz_ > 0 ? fmt::format("a reference of {} MHz, outside of 5 to 104", reference_hz_ / kMHz)
                             : "no reference";
  }
  if ((latches_[kFunction] & kCounterReset) != 0) return "the counters are held in reset";
  if (method_ != Method::kFollowed) return "not programmed by the counter-reset method";
  if ((latches_[kFunction] & kPowerDown1) != 0) {
    return (latches_[kFunction] & kPowerDown2) != 0 ? "powered down, synchronously" : "powered down";
  }
  if ((latches_[kFunction] & kThreeState) != 0) return "the charge pump is in three-state";
  if (((latches_[kFunction] & kPositivePolarity) != 0) != positivePolarityLocks_) {
    return "the loop runs away: wrong polarity of the phase detector";
  }
  return counterFault();
}

std::string Synthesizer::counterFault() const {
  if (r() == 0) return "the reference counter divides by 0";
  if (b() < kLeastB) return fmt::format("B is {}, less than {}", b(), kLeastB);
  if (a() > b()) return fmt::format("A is {}, more than B, which is {}", a(), b());
  if (reference_hz_ / r() > kDetectorMax_hz) return "the phase detector runs above 55 MHz";
  const double hz = frequency_hz();
  if (hz < kRfMin_hz || hz > kRfMax_hz) return fmt::format("{:.3f} MHz, outside of 200 to 3700", hz / kMHz);
  if (hz / prescaler() > kPrescaledMax_hz) {
    return fmt::format("the prescaler puts out {:.1f} MHz, more than 200", hz / prescaler() / kMHz);
  }
  return {};
}

}  // namespace headend
