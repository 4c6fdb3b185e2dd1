// Sections of the tables that a card carries (ISO/IEC 13818-1, 2.4.4): their fields, and their packets in
// both directions.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <span>
#include <vector>

#include "base/bytes.h"
#include "mpeg/packet.h"
#include "mpeg/tables.h"

namespace mpeg {

// Tags of descriptors (ISO/IEC 13818-1, EN 300 468).
inline constexpr u8 kCaTag = 0x09;
inline constexpr u8 kServiceTag = 0x48;

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

// Whether a whole section has the header and the CRC of the eight tables, and a size that they may have.
bool hasLongForm(std::span<const u8> section);

// CRC_32 of MPEG-2 sections; 0 over a section including its own CRC.
u32 crc32(std::span<const u8> bytes);

// The PIDs of programme map sections that a PAT section names, without the network PID (programme number 0).
std::set<u16> programmeMapPids(const Section& pat);

// Appends the section to `packets` in its own packets: the first with a start indicator and pointer_field 0,
// the last one stuffed with 0xFF. `continuity` is the PID's counter; it is updated.
void packSection(const Section& section, u8& continuity, std::vector<Packet>& packets);

// Why packets or sections of a stream are left out. SectionGatherer finds the first group; the second is for
// receivers of its sections.
enum class Loss {
  kTransportError,  // the packet is marked as damaged
  kScrambled,
  kContinuityError,  // packets are missing before this one
  kBadPacket,        // no room for the announced adaptation field or pointer
  kNotSections,      // the packet starts an elementary stream's unit
  kCutSection,       // the rest of a section is missing; with its table_id

  kBadSection,
  kCrcError,
  kNotCurrent,
  kOlderVersion,
  kWrongPid,
  kOtherTable,
};

// Assembles the sections of one PID from its packets, and reports errors. Does not depend on tables, CRCs or
// versions.
class SectionGatherer {
 public:
  using OnSection = std::function<void(std::span<const u8> section)>;
  using OnLoss = std::function<void(Loss loss, std::optional<u8> tableId)>;

  explicit SectionGatherer(
      OnSection onSection, OnLoss onLoss = [](Loss, std::optional<u8>) {});

  // A packet of the PID, kTsPacketSize bytes from its sync byte on.
  void push(std::span<const u8> packet);

  // There are no more packets.
  void finish() { cut(); }

 private:
  void start(std::span<const u8> payload);
  void append(std::span<const u8>& payload);
  void drop(Loss loss);
  void cut();

  OnSection onSection_;
  OnLoss onLoss_;
  Bytes open_;                      // received part of a section; empty if none is open
  std::optional<Packet> previous_;  // the last packet with payload
  bool repeated_ = false;           // it was received twice
};

// The sections, in order, from successive packets of one PID. Continuity counters are ignored, because a card
// sets its own. Sections with errors are skipped.
std::vector<Section> gatherSections(const std::vector<Packet>& packets);

}  // namespace mpeg
