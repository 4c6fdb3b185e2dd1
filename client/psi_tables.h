// The PSI/SI tables that a card carries: their names, numbers and PIDs, and the sections and packets they
// travel in (ISO/IEC 13818-1, EN 300 468). Used by everything here that handles captures, uploads and
// read-backs.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/datagram.h"
#include "platform/types.h"

namespace client {

// Numbered as the card numbers them; also the order in which they are uploaded.
enum class TableType : u8 { kPat, kPmt, kSdtC, kSdtO, kNitC, kNitO, kBat, kCat };

inline constexpr std::array kAllTables = {TableType::kPat,  TableType::kPmt,  TableType::kSdtC,
                                          TableType::kSdtO, TableType::kNitC, TableType::kNitO,
                                          TableType::kBat,  TableType::kCat};
inline constexpr std::size_t kTableCount = kAllTables.size();

constexpr std::size_t indexOf(TableType type) {
  return static_cast<std::size_t>(type);
}

// "PAT", "PMT", "SDT_C", "SDT_O", "NIT_C", "NIT_O", "BAT", "CAT": C is the actual stream or network, O
// another.
const char* tableName(TableType type);
u8 tableId(TableType type);

// The PID on which the table belongs; nothing for the PMT, whose PIDs the PAT names.
std::optional<u16> tablePid(TableType type);

// Nothing for a name (in capitals, as above) or a table_id that is none of the eight.
std::optional<TableType> tableOfName(std::string_view name);
std::optional<TableType> tableOfId(u8 tableId);

// A name for any table_id: one of the eight above, "EIT", "TDT", ..., or "table 0x80" where nobody agreed on
// one.
std::string nameOfTableId(u8 tableId);

inline constexpr std::size_t kPacketSize = 188;
inline constexpr std::size_t kPacketHeaderSize = 4;
inline constexpr u8 kSyncByte = 0x47;
using Packet = std::array<u8, kPacketSize>;

// A section of one of the eight tables, whole (table_id to CRC), of valid length and CRC.
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

// CRC_32 of MPEG-2 sections; 0 over a section that ends with its own.
u32 crc32(std::span<const u8> bytes);

// The PIDs of programme map sections that a PAT section names; not the one of the network (programme number
// 0).
std::vector<u16> programmeMapPids(const Section& pat);

// Appends the section to `packets` in packets of its own: the first with a start indicator and pointer_field
// 0, the last one stuffed with 0xFF. `continuity` is the PID's counter, used and moved on.
void packSection(const Section& section, u8& continuity, std::vector<Packet>& packets);

}  // namespace client
