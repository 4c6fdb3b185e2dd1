#include "mpeg/section.h"

#include <algorithm>
#include <boost/crc.hpp>

namespace mpeg {

u32 crc32(std::span<const u8> bytes) {
  boost::crc_optimal<32, 0x04C11DB7, 0xFFFFFFFF> crc;
  crc.process_bytes(bytes.data(), bytes.size());
  return crc.checksum();
}

std::vector<u16> programmeMapPids(const Section& pat) {
  constexpr std::size_t kEntrySize = 4;
  std::vector<u16> pids;
  const auto& b = pat.bytes;
  for (std::size_t i = kSectionHeaderSize; i + kEntrySize + kCrcSize <= b.size(); i += kEntrySize) {
    const int programme = b[i] << 8 | b[i + 1];
    if (programme != 0) pids.push_back(static_cast<u16>((b[i + 2] & 0x1F) << 8 | b[i + 3]));
  }
  return pids;
}

void packSection(const Section& section, u8& continuity, std::vector<Packet>& packets) {
  auto rest = std::span(section.bytes);
  for (bool isFirst = true; !rest.empty(); isFirst = false) {
    Packet& packet = packets.emplace_back(makePacket(section.pid, isFirst, continuity++));
    std::size_t at = kPacketHeaderSize;
    if (isFirst) packet[at++] = 0;  // pointer_field: the section starts directly after it
    const auto part = rest.first(std::min(rest.size(), kTsPacketSize - at));
    std::ranges::copy(part, packet.begin() + static_cast<std::ptrdiff_t>(at));
    rest = rest.subspan(part.size());
  }
}

}  // namespace mpeg
