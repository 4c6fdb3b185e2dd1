// Synthesizer ADF4113 with its loop: latches behind a 24-bit shift register, and the frequency at which the
// oscillator locks. Chip enable is tied high.
#pragma once

#include <array>

#include "headend/hardware/three_wire.h"

namespace headend {

class Synthesizer final : public ThreeWire {
 public:
  // The loop locks only with that polarity of the phase detector: the sign of its filter and oscillator.
  Synthesizer(std::string name, double reference_hz, bool positivePolarityLocks, Violations& violations);

  void removeReference() { reference_hz_ = 0; }
  ClockOutput output() const;

 private:
  enum class Method { kNotBegun, kReset, kReferenceLoaded, kCountersLoaded, kFollowed };

  void latched(u32 word) override;
  void follow(u32 word);
  std::string fault() const;
  std::string counterFault() const;

  unsigned r() const { return latches_[0] >> 2 & 0x3FFF; }
  unsigned a() const { return latches_[1] >> 2 & 0x3F; }
  unsigned b() const { return latches_[1] >> 8 & 0x1FFF; }
  unsigned prescaler() const { return 8U << (latches_[2] >> 22 & 3); }
  double frequency_hz() const;

  double reference_hz_;
  bool positivePolarityLocks_;
  std::array<u32, 3> latches_{};  // reference counter, A and B counters, function
  Method method_ = Method::kNotBegun;
};

}  // namespace headend
