// The source cards of the chassis: receivers of transport streams. Each has a descriptor in the chassis's
// list, from which modulator cards read its number of inputs. Its inputs are connected to the PID router.
#pragma once

#include <bitset>
#include <functional>
#include <map>
#include <memory>
#include <tuple>
#include <vector>

#include "headend/firmware/back_end.h"
#include "headend/hardware/pid_router.h"
#include "mpeg/packet.h"
#include "mpeg/section.h"
#include "protocol/channel.h"

namespace headend {

// The tables on one input: the latest PAT, CAT, NIT, SDT and BAT sections, and the PMTs that the PAT names.
// The router passes every packet to it; management software reads the tables.
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

class SourceCards {
 public:
  struct Card {
    chassis::card descriptor{};
    std::vector<std::unique_ptr<TsInput>> inputs;
    std::vector<SourceTables> tables;  // one per input
  };

  // Provides the operations kSourceSections, of a table on an input, and kRouterMap.
  SourceCards(const Kernel& kernel, PidRouter& router, BackEnd& backEnd);

  // A card in the slot, with one to sixteen inputs.
  void plugIn(int slot, std::vector<std::unique_ptr<TsInput>> inputs);
  std::map<int, Card>& cards() { return cards_; }  // by slot

  bool hasInput(const protocol::SourcePort& input) const;
  // Calls the function with every packet of an existing input that is delivered from now on; an empty
  // function ends that.
  void watch(const protocol::SourcePort& input, const std::function<void(mpeg::PacketView)>& watcher);
  void deliverUntil(Nanos now) { router_.deliverUntil(now); }

 private:
  u32 sections(const protocol::Request& request, base::Bytes& reply) const;
  u32 routerMap(const protocol::Request& request, base::Bytes& reply);

  const Kernel& kernel_;
  PidRouter& router_;
  std::map<int, Card> cards_;
};

}  // namespace headend
