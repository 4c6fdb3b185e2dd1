#include "headend/fault_injector.h"

#include <fmt/format.h>

#include <algorithm>

#include "headend/hardware/faults.h"

namespace headend {

FaultInjector::FaultInjector(Kernel& kernel, Cards& cards, PidRouter& router, BackEnd& backEnd,
                             const Say& say)
    : kernel_(kernel), cards_(cards), router_(router), say_(say) {
  backEnd.provide(protocol::Operation::kFault, BackEnd::Target::kChassis, {},
                  [this](const protocol::Request& request, base::Bytes&) { return carryOut(request); });
}

void FaultInjector::add(const Options::Fault& fault) {
  for (u16 slot = 0; slot < MAX_BOARD_NUM; ++slot) {
    if (fault.place.slot ? *fault.place.slot != slot : cards_[slot] == nullptr) continue;
    Fault& added = faults_[next_] = {fault};
    added.place.slot = slot;
    kernel_.at(fault.at, [this, number = next_++] { step(number); });
  }
}

// It begins or ends, now.
void FaultInjector::step(u64 number) {
  const auto found = faults_.find(number);
  if (found == faults_.end()) return;  // cleared
  Fault& fault = found->second;
  const bool begins = !fault.isPresent;
  if (begins && !isPresent(fault.place)) apply(fault.place, true);
  fault.isPresent = begins;
  if (!begins && !isPresent(fault.place)) apply(fault.place, false);
  const Nanos end = fault.until.value_or(kNever);
  const Nanos lost = fault.period.value_or(0) / 2;  // in the first half of each period
  const Nanos next = fault.period ? kernel_.now() + (begins ? lost : *fault.period - lost) : end;
  const FaultKind* kind = findFault(fault.place.name);
  if ((kind != nullptr && !kind->ends) || (!begins && next >= end)) {
    faults_.erase(found);
  } else if (std::min(next, end) != kNever) {
    kernel_.at(std::min(next, end), [this, number] { step(number); });
  }
}

bool FaultInjector::isPresent(const protocol::FaultPlace& place) const {
  return std::ranges::any_of(
      faults_, [&](const auto& each) { return each.second.isPresent && each.second.place == place; });
}

void FaultInjector::apply(const protocol::FaultPlace& place, bool isPresent) {
  const int slot = *place.slot;
  if (place.input) {
    router_.cut(kernel_.now(), slot, static_cast<int>(*place.input), isPresent);
    return;
  }
  const FaultKind& kind = *findFault(place.name);
  say_(fmt::format("fault on card {}{}: {}", slot + 1, isPresent ? "" : " ends", kind.text));
  kind.set(*cards_[static_cast<std::size_t>(slot)], isPresent, kernel_.now());
}

// ---- Requests of clients ----

// The data: the duration in milliseconds, 0 for no end, and the fault.
u32 FaultInjector::carryOut(const protocol::Request& request) {
  if (request.data.size() < 4) return protocol::kBadLength;
  const std::string text(request.data.begin() + 4, request.data.end());
  const auto place = protocol::parseFault(text);
  if (!place && !text.empty()) return protocol::kUnknownFault;
  if (request.variable == protocol::kClearFault) return clear(place);
  if (request.variable != protocol::kAddFault) return protocol::kUnknownVariable;
  if (!place) return protocol::kUnknownFault;
  if (const u32 refused = refuse(*place); refused != protocol::kDone) return refused;
  const Nanos duration = Nanos{wire::get32(request.data.data())} * (kSecond / 1000);
  const bool ends = duration != 0;
  if (ends && !place->input && !findFault(place->name)->ends) return protocol::kUnknownFault;
  add({.place = *place,
       .at = kernel_.now(),
       .until = ends ? std::optional(kernel_.now() + duration) : std::nullopt});
  return protocol::kDone;
}

u32 FaultInjector::refuse(const protocol::FaultPlace& place) const {
  if (place.input) {
    const bool exists = router_.input(*place.slot, static_cast<int>(*place.input)) != nullptr;
    return exists ? protocol::kDone : protocol::kNoInput;
  }
  if (findFault(place.name) == nullptr) return protocol::kUnknownFault;
  return !place.slot || cards_[*place.slot] != nullptr ? protocol::kDone : protocol::kNoCard;
}

u32 FaultInjector::clear(const std::optional<protocol::FaultPlace>& place) {
  const auto isMeant = [&](const auto& each) {
    const protocol::FaultPlace& its = each.second.place;
    return !place || (place->name == its.name && place->input == its.input &&
                      place->slot.value_or(*its.slot) == *its.slot);
  };
  const auto first = std::ranges::find_if(faults_, isMeant);
  if (first == faults_.end()) return place ? protocol::kUnknownFault : protocol::kDone;
  for (auto fault = first; fault != faults_.end(); fault = std::ranges::find_if(faults_, isMeant)) {
    const auto cleared = faults_.extract(fault);
    const Fault& ended = cleared.mapped();
    if (ended.isPresent && !isPresent(ended.place)) apply(ended.place, false);
  }
  return protocol::kDone;
}

}  // namespace headend
