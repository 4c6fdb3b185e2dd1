// Synthesizer ADF4113 with its loop: latches behind a 24-bit shift register, and the frequency at which the
// oscillator locks, some time after its latches are set. Chip enable is tied high.
#pragma once

#include <array>

#include "headend/hardware/three_wire.h"

namespace headend {

class Synthesizer final : public ThreeWire {
 public:
  // The loop locks only with that polarity of the phase detector: the sign of its filter and oscillator.
  Synthesizer(std::string name, double reference_hz, bool positivePolarityLocks, Violations& violations);

  void powerUp();

  void connectReference(bool isConnected, Nanos now) {
    reference_hz_ = isConnected ? oscillator_hz_ : 0;
    lockedAt_ = now + lockTime_;
  }
  // From the latch of a new frequency until the loop has locked, for each later latch; default 10 us.
  void lockTime(Nanos duration) { lockTime_ = duration; }

  // None before the loop has locked.
  ClockOutput output(Nanos now) const;
  // The multiplexer output: the lock detect only if the function latch selects it.
  bool muxout(Nanos now) const;

 private:
  enum class Method { kNotBegun, kReset, kReferenceLoaded, kCountersLoaded, kFollowed };

  void latched(u32 word, Nanos now) override;
  void follow(u32 word);
  std::string fault() const;
  std::string counterFault() const;

  unsigned r() const { return latches_[0] >> 2 & 0x3FFF; }
  unsigned a() const { return latches_[1] >> 2 & 0x3F; }
  unsigned b() const { return latches_[1] >> 8 & 0x1FFF; }
  unsigned prescaler() const { return 8U << (latches_[2] >> 22 & 3); }
  double frequency_hz() const;
  double target_hz() const { return fault().empty() ? frequency_hz() : 0; }

  double oscillator_hz_;  // of the reference
  double reference_hz_;   // at the pin; 0: none
  bool positivePolarityLocks_;
  Nanos lockTime_ = 10'000;
  std::array<u32, 3> latches_;  // reference counter, A and B counters, function
  Method method_;
  Nanos lockedAt_;
};

}  // namespace headend
