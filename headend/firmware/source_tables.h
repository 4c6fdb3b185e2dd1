// The tables on one input of a source card: the latest PAT, CAT, NIT, SDT and BAT sections, and the PMTs that
// the PAT names. The router passes every packet to it; management software reads the tables.
#pragma once

#include <bitset>
#include <map>
#include <tuple>
#include <vector>

#include "headend/hardware/ts_input.h"
#include "mpeg/packet.h"
#include "mpeg/section.h"

namespace headend {

class SourceTables {
 public:
  SourceTables();

  void packet(mpeg::PacketView packet) {
    const u16 pid = mpeg::pidOf(packet);
    if (wanted_[pid]) gather(pid, packet);
  }

  // By extension and number. Valid until the next packet.
  std::vector<const base::Bytes*> sections(u16 pid, u8 tableId) const;

 private:
  using Key = std::tuple<u16, u8, u16, u8>;  // PID, table_id, extension, number

  void gather(u16 pid, mpeg::PacketView packet);
  void take(const mpeg::Section& section);
  void follow(const mpeg::Section& pat);

  std::bitset<kPids> wanted_;
  std::map<u16, mpeg::SectionGatherer> gatherers_;
  std::map<Key, base::Bytes> sections_;
};

}  // namespace headend
