// Makes transport streams for tests, section by section and packet by packet.
#pragma once

#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <vector>

#include "mpeg/section.h"
#include "tests/headend/scratch.h"

namespace test {

using base::Bytes;

inline Bytes bytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

inline Bytes word(u32 value) {
  return {static_cast<u8>(value >> 8), static_cast<u8>(value)};
}

struct Head {
  u16 pid = 0x11;
  u8 tableId = 0x42;
  u16 extension = 1;
  u8 number = 0;
  u8 last = 0;
  u8 version = 0;
  bool current = true;
};

inline mpeg::Section makeSection(const Head& head, const Bytes& body) {
  const auto length = static_cast<u32>(5 + body.size() + mpeg::kCrcSize);
  const auto version = static_cast<u8>(0xC0 | head.version << 1 | (head.current ? 1 : 0));
  Bytes bytes = Bytes{head.tableId} + word((head.tableId == 0x42 ? 0xF000 : 0xB000) | length) +
                word(head.extension) + Bytes{version, head.number, head.last} + body;
  const u32 crc = mpeg::crc32(bytes);
  return {.pid = head.pid, .bytes = bytes + word(crc >> 16) + word(crc)};
}

inline mpeg::Section makeSection(const Head& head, std::size_t bodySize) {
  return makeSection(head, Bytes(bodySize, 0xAA));
}

inline std::vector<mpeg::Section> onePacketSections(u8 tableId, u16 pid, u16 count) {
  std::vector<mpeg::Section> sections;
  for (u16 i = 0; i < count; ++i)
    sections.push_back(makeSection({.pid = pid, .tableId = tableId, .extension = i}, 100));
  return sections;
}

// A PAT of programme numbers and PIDs.
inline mpeg::Section makePat(const std::vector<std::pair<u16, u16>>& programmes, u16 extension = 1,
                             u8 version = 0) {
  Bytes body;
  for (const auto& [number, pid] : programmes) body = body + word(number) + word(0xE000u | pid);
  return makeSection({.pid = 0, .tableId = 0, .extension = extension, .version = version}, body);
}

class Stream {
 public:
  explicit Stream(const std::vector<mpeg::Section>& sections = {}) {
    for (const mpeg::Section& section : sections) add(section);
  }

  Stream& add(const mpeg::Section& section) {
    std::vector<mpeg::Packet> packets;
    mpeg::packSection(section, continuity_[section.pid], packets);
    for (const auto& p : packets) bytes.insert(bytes.end(), p.begin(), p.end());
    return *this;
  }
  u8& at(std::size_t packetNumber, std::size_t offset) { return bytes[packetNumber * 188 + offset]; }
  // Replaces `count` bytes with other bytes.
  void replace(std::ptrdiff_t from, std::ptrdiff_t count, const Bytes& by) {
    const auto end = bytes.erase(bytes.begin() + from, bytes.begin() + from + count);
    bytes.insert(end, by.begin(), by.end());
  }

  Bytes bytes;

 private:
  std::array<u8, 8192> continuity_{};
};

}  // namespace test
