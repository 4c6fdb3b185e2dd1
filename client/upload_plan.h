// Turns the sections of a capture into what a card stores: packets, in chunks of one PID and one table. What
// a card cannot hold is refused here, before anything is erased.
#pragma once

#include <array>
#include <vector>

#include "client/link.h"
#include "protocol/records.h"

namespace client {

inline constexpr std::size_t kMaxPmtPackets =
    255;  // the PMT list is one group, and positions in a group have 8 bits

struct Chunk {
  u16 pid = 0;
  u8 tableId = 0;
  std::vector<Packet> packets;  // 1 to kPacketsPerChunk

  bool operator==(const Chunk&) const = default;
};

struct UploadPlan {
  struct Table {
    std::size_t sections = 0;
    std::size_t packets = 0;
  };

  std::vector<Chunk> chunks;
  std::array<Table, PSINUM> tables;  // by PsiType
  std::size_t packets = 0;
};

// A PID whose low nine bits are all ones marks a free place in the card's store: a packet on it would be
// overwritten by the next one.
constexpr bool marksFreePlace(u16 pid) {
  return (pid & 0x1FF) == 0x1FF;
}

// What a card stores of one table on one PID, in the order in which it sends it.
struct StoredTable {
  PsiType type{};
  u16 pid = 0;
  std::size_t sections = 0;
  std::vector<Packet> packets;
};

// Packets are sent as they are and in the order of the tables here, which must be that of PsiType. Throws
// Error.
UploadPlan planStored(const std::vector<StoredTable>& tables);

// Sections are sent in ascending order of table (as PsiType), PID, extension and number, whatever their
// order here. Throws Error.
UploadPlan planUpload(std::vector<Section> sections);

}  // namespace client
