// Converts the sections of a capture into the packets that a card stores, in chunks of one PID and one table.
// Data that a card cannot store is refused here, before anything is erased.
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

// A PID whose low nine bits are all ones marks a free place in the card's store: the next packet would
// overwrite a packet on that PID.
constexpr bool marksFreePlace(u16 pid) {
  return (pid & 0x1FF) == 0x1FF;
}

// The packets that a card stores of one table on one PID, in sending order.
struct StoredTable {
  PsiType type{};
  u16 pid = 0;
  std::size_t sections = 0;
  std::vector<Packet> packets;
};

// Packets are sent unchanged and in the order of the tables here, which must be that of PsiType. Throws
// Error.
UploadPlan planStored(const std::vector<StoredTable>& tables);

// Sections are sent in ascending order of table (as PsiType), PID, extension and number, whatever their order
// here. Throws Error.
UploadPlan planUpload(std::vector<Section> sections);

}  // namespace client
