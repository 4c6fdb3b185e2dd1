#include "mpeg/packet.h"

#include <algorithm>

namespace mpeg {
namespace {

constexpr std::size_t kPcrAt = 6;

// Streams that carry no header behind the length: maps, padding, directories, and others' private formats.
bool hasPesHeader(u8 streamId) {
  constexpr u8 kBare[] = {0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF};
  return streamId >= 0xBC && std::ranges::find(kBare, streamId) == std::end(kBare);
}

}  // namespace

u64 pcrIn(std::span<const u8> packet) {
  const u8* p = &packet[kPcrAt];
  const u64 base = u64{p[0]} << 25 | u64{p[1]} << 17 | u64{p[2]} << 9 | u64{p[3]} << 1 | u64{p[4]} >> 7;
  const u64 extension = (u64{p[4]} & 1) << 8 | p[5];
  return base * kPcrPerPts + extension;
}

void setPcr(std::span<u8> packet, u64 ticks) {
  ticks %= kPcrWrap;
  const u64 base = ticks / kPcrPerPts;
  const u64 extension = ticks % kPcrPerPts;
  u8* p = &packet[kPcrAt];
  p[0] = static_cast<u8>(base >> 25);
  p[1] = static_cast<u8>(base >> 17);
  p[2] = static_cast<u8>(base >> 9);
  p[3] = static_cast<u8>(base >> 1);
  p[4] = static_cast<u8>((base & 1) << 7 | (p[4] & 0x7E) | extension >> 8);
  p[5] = static_cast<u8>(extension);
}

std::optional<u64> pesTimeOf(ConstPesTime field) {
  if ((field[0] & field[2] & field[4] & 1) == 0) return std::nullopt;
  return (u64{field[0]} >> 1 & 7) << 30 | u64{field[1]} << 22 | u64{field[2]} >> 1 << 15 |
         u64{field[3]} << 7 | u64{field[4]} >> 1;
}

void setPesTime(PesTime field, u64 ticks) {
  field[0] = static_cast<u8>((field[0] & 0xF1) | (ticks >> 30 & 7) << 1);
  field[1] = static_cast<u8>(ticks >> 22);
  field[2] = static_cast<u8>((ticks >> 15 & 0x7F) << 1 | (field[2] & 1));
  field[3] = static_cast<u8>(ticks >> 7);
  field[4] = static_cast<u8>((ticks & 0x7F) << 1 | (field[4] & 1));
}

unsigned pesTimesIn(std::span<const u8> header) {
  const bool starts = header[0] == 0 && header[1] == 0 && header[2] == 1 && hasPesHeader(header[3]);
  if (!starts || (header[6] & 0xC0) != 0x80) return 0;
  const unsigned flags = header[7] >> 6;
  if (flags == 3 && header[8] >= 2 * kPesTimeSize) return 2;
  return flags == 2 && header[8] >= kPesTimeSize ? 1 : 0;
}

std::optional<PesTimes> pesTimesOf(PacketView packet) {
  const std::size_t start = payloadStart(packet);
  if (start + kPesTimesAt > kTsPacketSize) return std::nullopt;
  const PesTimes times{.at = start + kPesTimesAt, .count = pesTimesIn(packet.subspan(start))};
  if (times.at + times.count * kPesTimeSize > kTsPacketSize) return std::nullopt;
  return times;
}

}  // namespace mpeg
