// The three words that `set_one_map` sets for a position of the chassis's PID router, lowest first: bits 0-12
// PID on the input, 13-16 input port, 17-20 slot, 21 in use, 22-34 PID on the output. Included by the card,
// the chassis and clients.
#pragma once

#include <array>

#include "platform/types.h"

namespace chassis {

using RouterWords = std::array<u16, 3>;
inline constexpr RouterWords kUnusedPosition = {0xFFFF, 0x001F, 0x0000};

// Slot, port and PID of a source as one number, by which a card sorts its map. Only the PID is cut to its
// bits.
constexpr u32 sourceKey(u32 slot, u32 port, u16 pid) {
  return (pid & 0x1FFFU) | port << 13 | slot << 17;
}

// The words of a used position. All values are cut to their bits.
constexpr RouterWords routerWords(u32 slot, u32 port, u16 pid, u16 outputPid) {
  const u32 output = outputPid & 0x1FFFU;
  const u32 low = sourceKey(slot & 0x0F, port & 0x0F, pid) | 1U << 21 | output << 22;
  return {static_cast<u16>(low), static_cast<u16>(low >> 16), static_cast<u16>(output >> 10)};
}

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
  return static_cast<u8>((sourceOf(words) >> 13) & 0x0F);
}
constexpr u8 sourceSlot(const RouterWords& words) {
  return static_cast<u8>(sourceOf(words) >> 17);
}
constexpr u16 outputPid(const RouterWords& words) {
  return static_cast<u16>(words[1] >> 6 | (words[2] & 7) << 10);
}

}  // namespace chassis
