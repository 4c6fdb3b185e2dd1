// The fields of a transport packet that tell of time and order: PCR, continuity counter, and the PTS and DTS
// of a PES header (ISO/IEC 13818-1). Used by the inputs, which move them from pass to pass, and by the
// multiplexer, which restamps PCRs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/types.h"

namespace headend {

using u64 = std::uint64_t;

inline constexpr u64 kPcrHz = 27'000'000;               // ticks of a PCR a second
inline constexpr u64 kPtsWrap = u64{1} << 33;           // PTS and DTS count 90 kHz and begin again here
inline constexpr u64 kPcrPerPts = 300;                  // ticks of a PCR in one of PTS and DTS
inline constexpr u64 kPcrWrap = kPtsWrap * kPcrPerPts;  // a PCR begins again here
inline constexpr u16 kNullPid = 0x1FFF;                 // its packets have no continuity
inline constexpr std::size_t kPids = 0x2000;

// All below take a whole packet of 188 bytes that starts with its sync byte.

inline u16 pidOf(std::span<const u8> packet) {
  return static_cast<u16>((packet[1] & 0x1F) << 8 | packet[2]);
}
inline bool startsUnit(std::span<const u8> packet) {
  return (packet[1] & 0x40) != 0;
}
inline bool isScrambled(std::span<const u8> packet) {
  return (packet[3] & 0xC0) != 0;
}
inline bool hasPayload(std::span<const u8> packet) {
  return (packet[3] & 0x10) != 0;
}
inline u8 continuityOf(std::span<const u8> packet) {
  return packet[3] & 0x0F;
}
inline void setContinuity(std::span<u8> packet, unsigned counter) {
  packet[3] = static_cast<u8>((packet[3] & 0xF0) | (counter & 0x0F));
}

// Whether the packet has a PCR: an adaptation field long enough for it that says so.
inline bool hasPcr(std::span<const u8> packet) {
  return (packet[3] & 0x20) != 0 && packet[4] >= 7 && (packet[5] & 0x10) != 0;
}
// In ticks of 27 MHz: 300 times the base, and the extension. Below kPcrWrap unless the extension is broken.
std::optional<u64> pcrOf(std::span<const u8> packet);
// Only for a packet that has one. Any number of ticks: what is above kPcrWrap begins again at 0.
void setPcr(std::span<u8> packet, u64 ticks);

// From one PCR to a later one, in ticks, over at most one wrap; nearly kPcrWrap where the second is earlier.
inline u64 pcrDistance(u64 from, u64 to) {
  return (to % kPcrWrap + kPcrWrap - from % kPcrWrap) % kPcrWrap;
}

// Where the payload starts; 188 when there is none.
std::size_t payloadStart(std::span<const u8> packet);

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

}  // namespace headend
