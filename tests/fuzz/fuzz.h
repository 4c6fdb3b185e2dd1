// A target of the fuzzer: a function that takes any input.
#pragma once

#include <algorithm>
#include <span>
#include <vector>

#include "base/bytes.h"
#include "headend/headend.h"

namespace fuzz {

using base::Bytes;
using Input = std::span<const u8>;

// Ends the process, which is a finding, unless the property holds.
void require(bool holds, const char* property);

// The fields of an input, in their order. Behind its end they are 0 or empty.
class Fields {
 public:
  explicit Fields(Input input) : rest_(input) {}
  bool more() const { return !rest_.empty(); }
  u8 byte() { return more() ? bytes(1)[0] : u8{0}; }
  u16 word() {
    const unsigned high = byte();
    return static_cast<u16>(high << 8U | byte());
  }
  Input bytes(std::size_t most) {
    const Input taken = rest_.first(std::min(most, rest_.size()));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }

 private:
  Input rest_;
};

// Takes input after input in one process.
struct InputTarget {
  const char* name;
  void (*take)(Input input);
};
extern const std::vector<InputTarget> kInputTargets;

// Takes an input in a task of a headend whose card in slot 1 runs; every input gets a headend of its own.
struct CardTarget {
  const char* name;
  void (*take)(headend::Headend& headend, Input input);
  // Starts of violations and failed checks that an input may cause, as the documents say.
  std::vector<const char*> mayCause{};
  bool beforeCard = false;  // the task begins before the card's start
};
extern const std::vector<CardTarget> kCardTargets;

}  // namespace fuzz
