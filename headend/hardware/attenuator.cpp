#include "headend/hardware/attenuator.h"

namespace headend {
namespace {

constexpr unsigned kBits = 6;
// The slowest of the usual six-bit parts.
constexpr ThreeWire::Timing kTiming{
    .dataSetup = 10, .dataHold = 10, .clockHigh = 30, .clockLow = 30, .clockToLatch = 10, .latchWidth = 30};

}  // namespace

Attenuator::Attenuator(std::string name, Violations& violations)
    : lines_(std::move(name), kBits, kTiming, violations) {}

void Attenuator::latchEnable(bool level, Nanos now) {
  if (const auto word = lines_.latchEnable(level, now)) steps_ = *word;
}

}  // namespace headend
