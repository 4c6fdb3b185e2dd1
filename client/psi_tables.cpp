#include "client/psi_tables.h"

#include <fmt/format.h>

#include <algorithm>

namespace client {
namespace {

constexpr u16 kNoPid = 0xFFFF;

struct TableRow {
  const char* name;
  u8 tableId;
  u16 pid;
};
constexpr std::array<TableRow, kTableCount> kTables = {{
    {"PAT", 0x00, 0x0000},
    {"PMT", 0x02, kNoPid},
    {"SDT_C", 0x42, 0x0011},
    {"SDT_O", 0x46, 0x0011},
    {"NIT_C", 0x40, 0x0010},
    {"NIT_O", 0x41, 0x0010},
    {"BAT", 0x4A, 0x0011},
    {"CAT", 0x01, 0x0001},
}};

struct OtherTable {
  u8 first;
  u8 last;
  const char* name;
};
constexpr OtherTable kOtherTables[] = {
    {0x03, 0x03, "TSDT"},        {0x38, 0x3F, "DSM-CC"},
    {0x4B, 0x4D, "UNT/INT/SAT"}, {0x4E, 0x6F, "EIT"},
    {0x70, 0x70, "TDT"},         {0x71, 0x71, "RST"},
    {0x72, 0x72, "stuffing"},    {0x73, 0x73, "TOT"},
    {0x74, 0x74, "AIT"},         {0x7E, 0x7E, "DIT"},
    {0x7F, 0x7F, "SIT"},         {0x80, 0x81, "ECM"},
    {0x82, 0x8F, "EMM"},         {0xFC, 0xFC, "splice information"},
};

constexpr std::array<u32, 256> makeCrcTable() {
  std::array<u32, 256> table{};
  for (u32 byte = 0; byte < 256; ++byte) {
    u32 crc = byte << 24;
    for (int bit = 0; bit < 8; ++bit) crc = crc << 1 ^ ((crc >> 31) != 0 ? 0x04C11DB7u : 0u);
    table[byte] = crc;
  }
  return table;
}
constexpr std::array<u32, 256> kCrcTable = makeCrcTable();

}  // namespace

const char* tableName(TableType type) {
  return kTables[indexOf(type)].name;
}

u8 tableId(TableType type) {
  return kTables[indexOf(type)].tableId;
}

std::optional<u16> tablePid(TableType type) {
  const u16 pid = kTables[indexOf(type)].pid;
  return pid == kNoPid ? std::nullopt : std::optional(pid);
}

std::optional<TableType> tableOfName(std::string_view name) {
  for (const TableType type : kAllTables) {
    if (name == tableName(type)) return type;
  }
  return std::nullopt;
}

std::optional<TableType> tableOfId(u8 id) {
  for (const TableType type : kAllTables) {
    if (id == tableId(type)) return type;
  }
  return std::nullopt;
}

std::string nameOfTableId(u8 id) {
  if (const auto type = tableOfId(id)) return tableName(*type);
  for (const OtherTable& other : kOtherTables) {
    if (id >= other.first && id <= other.last) return other.name;
  }
  return fmt::format("table {:#04x}", id);
}

u32 crc32(std::span<const u8> bytes) {
  u32 crc = 0xFFFFFFFF;
  for (const u8 byte : bytes) crc = crc << 8 ^ kCrcTable[crc >> 24 ^ byte];
  return crc;
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
  bool first = true;
  while (!rest.empty()) {
    Packet packet;
    packet.fill(0xFF);
    packet[0] = kSyncByte;
    packet[1] = static_cast<u8>((first ? 0x40 : 0) | (section.pid >> 8 & 0x1F));
    packet[2] = static_cast<u8>(section.pid);
    packet[3] = static_cast<u8>(0x10 | (continuity++ & 0x0F));
    std::size_t at = kPacketHeaderSize;
    if (first) packet[at++] = 0;  // pointer_field: the section starts right behind it
    const auto part = rest.first(std::min(rest.size(), kPacketSize - at));
    std::copy(part.begin(), part.end(), packet.begin() + static_cast<std::ptrdiff_t>(at));
    packets.push_back(packet);
    rest = rest.subspan(part.size());
    first = false;
  }
}

}  // namespace client
