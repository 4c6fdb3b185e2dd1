// The front panel's editors told a second time and otherwise than by the module: with numbers, where the
// module turns characters. Lines are those of the fake chassis's log.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "platform/types.h"

namespace test {

class EditorModel {
 public:
  enum Kind { kSymbolRate, kFrequency, kLevel };

  EditorModel(Kind kind, u32 stored) : kind_(kind), value_(inRange(stored)) { cursor_ = weights().begin(); }

  u32 value() const { return value_; }

  std::string unit() const {
    return kind_ == kSymbolRate  ? "lcd 2 70 0 0 Mbps"
           : kind_ == kFrequency ? "lcd 2 82 0 0 MHz"
                                 : "lcd 2 70 0 0 dBuV";
  }

  // As it stands without an operator's cursor, and with it.
  std::vector<std::string> shown() const { return drawn(0, 1, 0); }
  std::vector<std::string> edited() const {
    const u32 here = 0x80000000U >> cursor_->first;
    return cursor_->first == 0 ? drawn(here, 1, here) : drawn(1, 0xE0000000, here);
  }

  void press(u8 key) {
    if (key == 3 || key == 4) step(key == 3);
    if (key == 5) {
      if (cursor_ == weights().begin()) cursor_ = weights().end();
      --cursor_;
    }
    if (key == 6 && ++cursor_ == weights().end()) cursor_ = weights().begin();
  }

 private:
  // What one more is worth, by the place in the text.
  using Weights = std::map<int, u32>;
  const Weights& weights() const {
    static const Weights symbolRate{{0, 1000}, {2, 125}};
    static const Weights frequency{{0, 1000000}, {1, 100000}, {2, 10000}, {3, 1000},
                                   {5, 100},     {6, 10},     {7, 1}};
    static const Weights level{{0, 1000}, {1, 100}, {2, 10}, {4, 5}};
    return kind_ == kSymbolRate ? symbolRate : kind_ == kFrequency ? frequency : level;
  }

  u32 inRange(u32 value) const {
    return kind_ == kSymbolRate  ? std::clamp(value, 5000U, 7000U)
           : kind_ == kFrequency ? std::clamp(value, 52000U, 1000000U)
                                 : std::clamp(value, 950U, 1150U);
  }

  std::vector<std::string> drawn(u32 integerMask, u32 fractionMask, u32 mask) const {
    if (kind_ == kSymbolRate) {
      return {fmt::format("lcd 2 16 10000000 {:x} {}.", integerMask, value_ / 1000),
              fmt::format("lcd 2 32 10000000 {:x} {:03}", fractionMask, value_ % 1000)};
    }
    const u32 units = kind_ == kFrequency ? 1000 : 10;
    return {fmt::format("lcd 2 16 10000000 {:x} {:0{}}.{:0{}}", mask, value_ / units,
                        kind_ == kFrequency ? 4 : 3, value_ % units, kind_ == kFrequency ? 3 : 1)};
  }

  void step(bool up) {
    const auto [place, weight] = *cursor_;
    if (kind_ == kSymbolRate && place == 2) {
      // A counter of sixteen bits from 0 to 875 in steps of 125; of what else it holds three digits count.
      const u32 counter = value_ % 1000;
      const u32 next = up             ? (counter == 875 ? 0 : counter + 125)
                       : counter == 0 ? 875
                                      : (counter - 125) % 65536;
      value_ = inRange(value_ - counter + next % 1000);
      return;
    }
    const bool half = kind_ == kLevel && place == 4;
    const u32 digit = half ? value_ % 10 : value_ / weight % 10;
    const u32 top = half ? 5 : 9;
    const u32 fullTurn = half ? 5 : 9 * weight;
    if (up) {
      value_ += digit == top ? 0 - fullTurn : weight;
    } else if (digit != 0) {
      value_ -= weight;
    } else {
      value_ += kind_ == kLevel ? weight : fullTurn;
    }
    value_ = inRange(value_);
  }

  Kind kind_;
  u32 value_;
  Weights::const_iterator cursor_;
};

}  // namespace test
