// A card's FPGA with its configuration port, and a loader that can make mistakes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "headend/hardware/card_fpga.h"
#include "headend/hardware/config_port.h"

namespace test {

using headend::Nanos;
using Bytes = std::vector<u8>;
using u64 = std::uint64_t;

enum Port : u32 { kRequest = 0, kClock = 2, kData = 4, kStatus = 6, kDone = 8, kGuard = 10 };

constexpr u16 kOpen = 0xC0DE, kStart = 0x3C5A, kRelease = 0xC3A5;

struct Card {
  headend::Violations violations;
  headend::CardFpga fpga;
  headend::ConfigPort port;
  Nanos now = 0;

  explicit Card(bool anyBitstream = true)
      : fpga({.anyBitstream = anyBitstream, .seed = 1}, violations), port(fpga.configuration(), violations) {}

  void set(u32 offset, u16 value) { port.write(offset, value, now); }
  void request(u16 guard = kOpen) {
    set(kGuard, guard);
    set(kClock, 0);
    set(kRequest, kStart);
    set(kRequest, kRelease);
    now += 1'000'000;
  }
  void clocks(int count) {
    for (int i = 0; i < count; ++i) set(kClock, 1), set(kClock, 0);
  }
  void clockIn(const Bytes& stream) {
    for (const u8 byte : stream) {
      for (int bit = 7; bit >= 0; --bit) set(kData, byte >> bit & 1), clocks(1);
    }
  }
  void load(const Bytes& stream = {0x55}, int closingClocks = 10) {
    request();
    clockIn(stream);
    clocks(closingClocks);
    set(kGuard, 0);
  }
  bool done() { return port.read(kDone, now) != 0; }

  u16 read(u32 offset) { return fpga.read(offset, now); }
  void write(u32 offset, u16 value) { fpga.write(offset, value, now); }

  u64 count(const std::string& kind) const {
    const auto found = violations.counts().find(kind);
    return found == violations.counts().end() ? 0 : found->second;
  }
};

}  // namespace test
