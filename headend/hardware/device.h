// What the device models share: registers on the main board's bus, clocks, and the counts of violations of a
// device's rules by a driver.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "base/interface.h"
#include "headend/kernel/kernel.h"
#include "platform/types.h"

namespace headend {

// By name. The devices count, the report reads.
class Violations {
 public:
  void count(const std::string& kind) { ++counts_[kind]; }
  const std::map<std::string, std::uint64_t>& counts() const { return counts_; }

 private:
  std::map<std::string, std::uint64_t> counts_;
};

// A device with a name, which checks its driver.
class Device : public base::Interface {
 protected:
  Device(std::string name, Violations& violations) : name_(std::move(name)), violations_(violations) {}

  // Counts a violation "<name>_<kind>".
  void violation(const char* kind) { violations_.count(name_ + "_" + kind); }
  // The same, if less than `least` has passed since `since`.
  void checkTime(Nanos since, Nanos now, Nanos least, const char* kind) {
    if (now - since < least) violation(kind);
  }

 private:
  std::string name_;
  Violations& violations_;
};

// A device on the main board's bus: a block of 16-bit registers at byte offsets.
class BusDevice : public base::Interface {
 public:
  virtual u16 read(u32 offset, Nanos now) = 0;
  virtual void write(u32 offset, u16 value, Nanos now) = 0;
  virtual std::string_view registerName(u32 offset) const = 0;
};

inline constexpr double kMHz = 1e6;  // in Hz

// The frequency of a clock or oscillator.
struct ClockOutput {
  std::optional<double> hz = {};  // nullopt: no clock, or no reliable one
  std::string why = {};           // the reason if `hz` is nullopt
};

}  // namespace headend
