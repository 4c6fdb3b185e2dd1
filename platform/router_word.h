// How the chassis reads the three words that `set_one_map` sets for a position of its PID router, lowest
// first: bits 0-12 PID on the input, 13-16 input port, 17-20 slot, 21 in use, 22-34 PID on the output.
#pragma once

#include <array>

#include "platform/types.h"

namespace chassis {

using RouterWords = std::array<u16, 3>;
inline constexpr RouterWords kUnusedPosition = {0xFFFF, 0x001F, 0x0000};

constexpr bool isUsed(const RouterWords& words) {
  return (words[1] & 0x20) != 0;
}
// What the router compares with an arriving packet: slot, port and PID, 4, 4 and 13 bits.
constexpr u32 sourceOf(const RouterWords& words) {
  return (words[0] | u32{words[1]} << 16) & 0x1FFFFF;
}
constexpr u16 sourcePid(const RouterWords& words) {
  return words[0] & 0x1FFF;
}
constexpr u8 sourcePort(const RouterWords& words) {
  return static_cast<u8>(sourceOf(words) >> 13 & 0x0F);
}
constexpr u8 sourceSlot(const RouterWords& words) {
  return static_cast<u8>(sourceOf(words) >> 17);
}
constexpr u16 outputPid(const RouterWords& words) {
  return static_cast<u16>(words[1] >> 6 | (words[2] & 7) << 10);
}

}  // namespace chassis
