// Time in a transport stream: PCRs, and the PTS and DTS of a PES header (ISO/IEC 13818-1). Used by the
// inputs, which move them from pass to pass, and by the multiplexer, which restamps PCRs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "mpeg/packet.h"

namespace mpeg {

inline constexpr u64 kPcrHz = 27'000'000;               // ticks of a PCR a second
inline constexpr u64 kPtsWrap = u64{1} << 33;           // PTS and DTS count 90 kHz and begin again here
inline constexpr u64 kPcrPerPts = 300;                  // ticks of a PCR in one of PTS and DTS
inline constexpr u64 kPcrWrap = kPtsWrap * kPcrPerPts;  // a PCR begins again here

// All below take a whole packet of 188 bytes that starts with its sync byte.

// Whether the packet has a PCR: an adaptation field long enough for it that says so.
inline bool hasPcr(std::span<const u8> packet) {
  return hasAdaptation(packet) && packet[4] >= 7 && (packet[5] & 0x10) != 0;
}
// In ticks of 27 MHz: 300 times the base, and the extension. Below kPcrWrap unless the extension is broken.
std::optional<u64> pcrOf(std::span<const u8> packet);
// Only for a packet that has one. Any number of ticks: what is above kPcrWrap begins again at 0.
void setPcr(std::span<u8> packet, u64 ticks);

// From one PCR to a later one, in ticks, over at most one wrap; nearly kPcrWrap where the second is earlier.
inline u64 pcrDistance(u64 from, u64 to) {
  return (to % kPcrWrap + kPcrWrap - from % kPcrWrap) % kPcrWrap;
}

// A PTS or DTS as its five bytes lie in a PES header: four bits that say which, then 33 bits and markers.
inline constexpr std::size_t kPesTimeSize = 5;
using PesTime = std::span<u8, kPesTimeSize>;
using ConstPesTime = std::span<const u8, kPesTimeSize>;

// In ticks of 90 kHz; nothing when a marker bit is not 1.
std::optional<u64> pesTimeOf(ConstPesTime field);
// Leaves all bits alone that are not the time's. Any number of ticks: above kPtsWrap begins again at 0.
void setPesTime(PesTime field, u64 ticks);

// The start of a PES packet as it tells of PTS and DTS: how many there are (0, 1 or 2), one after the other
// from kPesTimesAt on. `header` is the first kPesTimesAt bytes or more.
inline constexpr std::size_t kPesTimesAt = 9;
unsigned pesTimesIn(std::span<const u8> header);

}  // namespace mpeg
