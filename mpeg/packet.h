// A packet of a transport stream and the fields of its header (ISO/IEC 13818-1). All functions take a whole
// packet that starts with its sync byte.
#pragma once

#include <algorithm>
#include <array>
#include <span>

#include "platform/numbers.h"

namespace mpeg {

inline constexpr u8 kSyncByte = 0x47;
inline constexpr std::size_t kPacketHeaderSize = 4;
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

}  // namespace mpeg
