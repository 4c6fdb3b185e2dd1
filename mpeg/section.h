// Sections of the tables that a card carries (ISO/IEC 13818-1, 2.4.4), and their packets.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "base/bytes.h"
#include "mpeg/packet.h"
#include "mpeg/tables.h"

namespace mpeg {

using base::Bytes;

// A complete section of one of the eight tables (table_id to CRC), with valid length and CRC.
struct Section {
  u16 pid = 0;
  Bytes bytes;

  u8 tableId() const { return bytes[0]; }
  u16 extension() const { return static_cast<u16>(bytes[3] << 8 | bytes[4]); }
  u8 version() const { return bytes[5] >> 1 & 0x1F; }
  bool current() const { return (bytes[5] & 1) != 0; }
  u8 number() const { return bytes[6]; }
  u8 lastNumber() const { return bytes[7]; }

  bool operator==(const Section&) const = default;
};

inline constexpr std::size_t kSectionHeaderSize = 8;  // table_id to last_section_number
inline constexpr std::size_t kCrcSize = 4;
inline constexpr std::size_t kMaxSectionSize = 1024;  // of the eight tables; others may have 4096

// CRC_32 of MPEG-2 sections; 0 over a section including its own CRC.
u32 crc32(std::span<const u8> bytes);

// The PIDs of programme map sections that a PAT section names, without the network PID (programme number 0).
std::vector<u16> programmeMapPids(const Section& pat);

// Appends the section to `packets` in its own packets: the first with a start indicator and pointer_field 0,
// the last one stuffed with 0xFF. `continuity` is the PID's counter; it is updated.
void packSection(const Section& section, u8& continuity, std::vector<Packet>& packets);

}  // namespace mpeg
