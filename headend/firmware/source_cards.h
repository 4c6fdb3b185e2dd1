// The source cards of the chassis: receivers of transport streams. Each has a descriptor in the chassis's
// list, from which modulator cards read its number of inputs. Its inputs are connected to the PID router.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "headend/firmware/back_end.h"
#include "headend/firmware/source_tables.h"
#include "headend/hardware/pid_router.h"

namespace headend {

class SourceCards {
 public:
  SourceCards(const Kernel& kernel, PidRouter& router) : kernel_(kernel), router_(router) {}

  // A card in the slot, with one to sixteen inputs.
  void plugIn(int slot, std::vector<std::unique_ptr<TsInput>> inputs);

  // Slots with a source card, and the descriptors for the chassis.
  std::vector<int> slots() const;
  chassis::card& descriptor(int slot) { return cards_.at(slot).descriptor; }

  std::size_t inputs(int slot) const { return cards_.at(slot).inputs.size(); }
  const std::string& nameOf(int slot, std::size_t input) const {
    return cards_.at(slot).inputs[input]->name();
  }

  // The operations kSourceSections, of a table on an input, and kRouterMap.
  void provide(BackEnd& backEnd);

 private:
  u32 sections(const protocol::Request& request, base::Bytes& reply) const;
  u32 routerMap(const protocol::Request& request, base::Bytes& reply);
  struct Card {
    chassis::card descriptor{};
    std::vector<std::unique_ptr<TsInput>> inputs;
    std::vector<SourceTables> tables;  // one per input
  };

  const Kernel& kernel_;
  PidRouter& router_;
  std::map<int, Card> cards_;  // by slot
};

}  // namespace headend
