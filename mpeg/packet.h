// A packet of a transport stream: the fields of its header, its PCR, and the times of a PES header (ISO/IEC
// 13818-1). All functions for packets take a whole one that starts with its sync byte.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/numbers.h"

namespace mpeg {

inline constexpr u8 kSyncByte = 0x47;
inline constexpr std::size_t kPacketHeaderSize = 4;
inline constexpr std::uint64_t kPacketBits = kTsPacketSize * 8;
using Packet = std::array<u8, kTsPacketSize>;
using PacketView = std::span<const u8, kTsPacketSize>;

// Without a payload yet: all bytes after the header are stuffing.
constexpr Packet makePacket(u16 pid, bool startsUnit, u8 continuity) {
  Packet packet{};
  packet.fill(0xFF);
  packet[0] = kSyncByte;
  packet[1] = static_cast<u8>((startsUnit ? 0x40 : 0) | (pid >> 8 & 0x1F));
  packet[2] = static_cast<u8>(pid);
  packet[3] = static_cast<u8>(0x10 | (continuity & 0x0F));
  return packet;
}

inline bool hasTransportError(std::span<const u8> packet) {
  return (packet[1] & 0x80) != 0;
}
inline bool startsUnit(std::span<const u8> packet) {
  return (packet[1] & 0x40) != 0;
}
inline u16 pidOf(std::span<const u8> packet) {
  return static_cast<u16>((packet[1] & 0x1F) << 8 | packet[2]);
}
inline void setPid(std::span<u8> packet, u16 pid) {
  packet[1] = static_cast<u8>((packet[1] & 0xE0) | pid >> 8);
  packet[2] = static_cast<u8>(pid);
}
inline bool isScrambled(std::span<const u8> packet) {
  return (packet[3] & 0xC0) != 0;
}
inline bool hasAdaptation(std::span<const u8> packet) {
  return (packet[3] & 0x20) != 0;
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
inline bool announcesDiscontinuity(std::span<const u8> packet) {
  return hasAdaptation(packet) && packet[4] > 0 && (packet[5] & 0x80) != 0;
}

// Start of the payload; kTsPacketSize if there is none, or no room for the announced one.
inline std::size_t payloadStart(std::span<const u8> packet) {
  if (!hasPayload(packet)) return kTsPacketSize;
  if (!hasAdaptation(packet)) return kPacketHeaderSize;
  return std::min<std::size_t>(kPacketHeaderSize + 1U + packet[4], kTsPacketSize);
}

// ---- Time: the inputs shift it in each pass, and the multiplexer restamps PCRs

inline constexpr u64 kPcrHz = 27'000'000;               // ticks of a PCR per second
inline constexpr u64 kPtsWrap = u64{1} << 33;           // PTS and DTS count at 90 kHz and wrap here
inline constexpr u64 kPcrPerPts = 300;                  // ticks of a PCR per tick of PTS and DTS
inline constexpr u64 kPcrWrap = kPtsWrap * kPcrPerPts;  // a PCR wraps here

// Whether the packet has a PCR: the flag is set in an adaptation field that is long enough.
inline bool hasPcr(std::span<const u8> packet) {
  return hasAdaptation(packet) && packet[4] >= 7 && (packet[5] & 0x10) != 0;
}
// In ticks of 27 MHz: 300 times the base, and the extension. Below kPcrWrap unless the extension is broken.
u64 pcrIn(std::span<const u8> packet);  // only for a packet that has one
inline std::optional<u64> pcrOf(std::span<const u8> packet) {
  return hasPcr(packet) ? std::optional(pcrIn(packet)) : std::nullopt;
}
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

// For a packet that starts a PES packet: where its PTS and DTS are, and how many. Nullopt if the packet ends
// before them, or before they are known.
struct PesTimes {
  std::size_t at = 0;
  unsigned count = 0;
};
std::optional<PesTimes> pesTimesOf(PacketView packet);

}  // namespace mpeg
