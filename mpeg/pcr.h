// Time in a transport stream: PCRs, and the PTS and DTS of a PES header (ISO/IEC 13818-1). Used by the
// inputs, which shift them in each pass, and by the multiplexer, which restamps PCRs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "mpeg/packet.h"

namespace mpeg {

inline constexpr u64 kPcrHz = 27'000'000;               // ticks of a PCR per second
inline constexpr u64 kPtsWrap = u64{1} << 33;           // PTS and DTS count at 90 kHz and wrap here
inline constexpr u64 kPcrPerPts = 300;                  // ticks of a PCR per tick of PTS and DTS
inline constexpr u64 kPcrWrap = kPtsWrap * kPcrPerPts;  // a PCR wraps here

// All below take a whole packet of 188 bytes that starts with its sync byte.

// Whether the packet has a PCR: the flag is set in an adaptation field that is long enough.
inline bool hasPcr(std::span<const u8> packet) {
  return hasAdaptation(packet) && packet[4] >= 7 && (packet[5] & 0x10) != 0;
}
// In ticks of 27 MHz: 300 times the base, and the extension. Below kPcrWrap unless the extension is broken.
std::optional<u64> pcrOf(std::span<const u8> packet);
// Only for a packet that has one. Any number of ticks: values from kPcrWrap on wrap to 0.
void setPcr(std::span<u8> packet, u64 ticks);

// From one PCR to a later one, in ticks, over at most one wrap; nearly kPcrWrap if the second is earlier.
inline u64 pcrDistance(u64 from, u64 to) {
  return (to % kPcrWrap + kPcrWrap - from % kPcrWrap) % kPcrWrap;
}

// A PTS or DTS as its five bytes in a PES header: four prefix bits, then 33 bits and markers.
inline constexpr std::size_t kPesTimeSize = 5;
using PesTime = std::span<u8, kPesTimeSize>;
using ConstPesTime = std::span<const u8, kPesTimeSize>;

// In ticks of 90 kHz; nullopt if a marker bit is not 1.
std::optional<u64> pesTimeOf(ConstPesTime field);
// Changes only the bits of the time. Any number of ticks: values from kPtsWrap on wrap to 0.
void setPesTime(PesTime field, u64 ticks);

// The number of PTS and DTS (0, 1 or 2) at the start of a PES packet, one after the other from kPesTimesAt
// on. `header` is the first kPesTimesAt bytes or more.
inline constexpr std::size_t kPesTimesAt = 9;
unsigned pesTimesIn(std::span<const u8> header);

}  // namespace mpeg
