// Makes transport streams for tests, section by section and packet by packet.
#pragma once

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "client/psi_tables.h"

namespace test {

using client::Bytes;

struct Head {
  u16 pid = 0x11;
  u8 tableId = 0x42;
  u16 extension = 1;
  u8 number = 0;
  u8 last = 0;
  u8 version = 0;
  bool current = true;
};

inline client::Section makeSection(const Head& head, const Bytes& body) {
  const std::size_t length = 5 + body.size() + 4;
  client::Section s{.pid = head.pid, .bytes = {}};
  s.bytes = {head.tableId,
             static_cast<u8>(0xB0 | length >> 8),
             static_cast<u8>(length),
             static_cast<u8>(head.extension >> 8),
             static_cast<u8>(head.extension),
             static_cast<u8>(0xC0 | head.version << 1 | (head.current ? 1 : 0)),
             head.number,
             head.last};
  s.bytes.resize(client::kSectionHeaderSize + body.size());
  std::copy(body.begin(), body.end(), s.bytes.begin() + client::kSectionHeaderSize);
  const u32 crc = client::crc32(s.bytes);
  for (int shift = 24; shift >= 0; shift -= 8) s.bytes.push_back(static_cast<u8>(crc >> shift));
  return s;
}

inline client::Section makeSection(const Head& head, std::size_t bodySize) {
  return makeSection(head, Bytes(bodySize, 0xAA));
}

// A PAT of the given programmes: number, PID, number, PID, ...
inline client::Section makePat(const std::vector<u16>& programmes, u16 extension = 1) {
  Bytes body;
  for (std::size_t i = 0; i < programmes.size(); ++i) {
    const int bits = i % 2 == 1 ? 0xE000 : 0;
    body.push_back(static_cast<u8>((programmes[i] | bits) >> 8));
    body.push_back(static_cast<u8>(programmes[i]));
  }
  return makeSection({.pid = 0, .tableId = 0, .extension = extension}, body);
}

class Stream {
 public:
  Stream& add(const client::Section& section) {
    std::vector<client::Packet> packets;
    client::packSection(section, continuity_[section.pid], packets);
    for (const auto& p : packets) bytes.insert(bytes.end(), p.begin(), p.end());
    return *this;
  }
  // One packet whose payload starts with the bytes given and is stuffed.
  Stream& packet(u16 pid, bool start, const Bytes& payload) {
    Bytes p(188, 0xFF);
    p[0] = 0x47;
    p[1] = static_cast<u8>((start ? 0x40 : 0) | pid >> 8);
    p[2] = static_cast<u8>(pid);
    p[3] = static_cast<u8>(0x10 | (continuity_[pid]++ & 15));
    std::copy(payload.begin(), payload.end(), p.begin() + 4);
    bytes.insert(bytes.end(), p.begin(), p.end());
    return *this;
  }
  u8& at(std::size_t packetNumber, std::size_t offset) { return bytes[packetNumber * 188 + offset]; }
  Stream& erase(std::size_t from, std::size_t count) {
    bytes.erase(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                bytes.begin() + static_cast<std::ptrdiff_t>(from + count));
    return *this;
  }
  Stream& insert(std::size_t at, const Bytes& what) {
    bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(at), what.begin(), what.end());
    return *this;
  }
  Stream& repeatPacket(std::size_t number) {
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(number * 188);
    return insert(number * 188, Bytes(first, first + 188));
  }

  Bytes bytes;

 private:
  std::array<u8, 8192> continuity_{};
};

inline std::string sample(const std::string& name) {
  return std::string(QAM_SAMPLES) + "/" + name;
}

inline Bytes readBytes(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace test
