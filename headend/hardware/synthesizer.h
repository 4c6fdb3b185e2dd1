// Synthesizer ADF4113 with its loop: latches behind a 24-bit shift register, and the frequency at which the
// oscillator locks. Chip enable is tied high.
#pragma once

#include <optional>
#include <string>

#include "headend/hardware/three_wire.h"

namespace headend {

class Synthesizer {
 public:
  // The loop locks only with that polarity of the phase detector: the sign of its filter and oscillator.
  Synthesizer(std::string name, double reference_hz, bool positivePolarityLocks, Violations& violations);

  void data(bool level, Nanos now) { lines_.data(level, now); }
  void clock(bool level, Nanos now) { lines_.clock(level, now); }
  void latchEnable(bool level, Nanos now);

  void disconnectLatchEnable() { lines_.disconnectLatchEnable(); }
  void removeReference() { reference_hz_ = 0; }

  struct Output {
    std::optional<double> hz;  // nullopt: the loop does not lock
    std::string why;           // the reason if `hz` is nullopt
  };
  Output output() const;

 private:
  enum class Method { kNotBegun, kReset, kReferenceLoaded, kCountersLoaded, kFollowed };

  void follow(u32 word);
  std::string fault() const;
  std::string counterFault() const;

  unsigned r() const { return referenceLatch_ >> 2 & 0x3FFF; }
  unsigned a() const { return counterLatch_ >> 2 & 0x3F; }
  unsigned b() const { return counterLatch_ >> 8 & 0x1FFF; }
  unsigned prescaler() const { return 8U << (functionLatch_ >> 22 & 3); }
  double frequency_hz() const;

  ThreeWire lines_;
  double reference_hz_;
  bool positivePolarityLocks_;
  u32 referenceLatch_ = 0;
  u32 counterLatch_ = 0;
  u32 functionLatch_ = 0;
  Method method_ = Method::kNotBegun;
};

}  // namespace headend
