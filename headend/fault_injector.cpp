#include "headend/fault_injector.h"

#include <fmt/format.h>

#include <algorithm>

#include "headend/hardware/faults.h"

namespace headend {
namespace {

// Without a slot all cards are meant.
bool isMeant(const protocol::FaultPlace& named, const protocol::FaultPlace& place) {
  return named.name == place.name && named.input == place.input &&
         named.slot.value_or(*place.slot) == *place.slot;
}

}  // namespace

FaultInjector::FaultInjector(Kernel& kernel, Cards& cards, PidRouter& router, BackEnd& backEnd,
                             const Say& say)
    : kernel_(kernel), cards_(cards), router_(router), say_(say) {
  backEnd.provide(protocol::Operation::kFault, BackEnd::Target::kMachine, {},
                  std::bind_front(&FaultInjector::carryOut, this));
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

nlohmann::ordered_json FaultInjector::report() const {
  auto all = nlohmann::ordered_json::array();
  const auto seconds = [](const std::optional<Nanos>& time) {
    return time ? nlohmann::ordered_json(static_cast<double>(*time) / 1e9) : nullptr;
  };
  for (const auto& [number, fault] : faults_) {
    all.push_back({{"fault", protocol::faultName(fault.place)},
                   {"from_seconds", seconds(fault.at)},
                   {"until_seconds", seconds(fault.until)},
                   {"period_seconds", seconds(fault.period)},
                   {"present", fault.isPresent}});
  }
  return all;
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

nlohmann::ordered_json FaultInjector::names() {
  auto all = nlohmann::ordered_json::array();
  for (const FaultKind& kind : faultKinds())
    all.push_back({{"name", kind.name}, {"of", "card"}, {"text", kind.text}, {"ends", kind.ends}});
  all.push_back({{"name", kInputLost}, {"of", "input"}, {"text", kInputLostText}, {"ends", true}});
  return all;
}

// ---- Requests of clients ----

// The data: the duration in milliseconds, 0 for no end, and the fault.
u32 FaultInjector::carryOut(const protocol::Request& request, base::Bytes& reply) {
  if (request.variable == protocol::kListFaults || request.variable == protocol::kNameFaults) {
    const std::string text = (request.variable == protocol::kListFaults ? report() : names()).dump();
    reply.assign(text.begin(), text.end());
    return protocol::kDone;
  }
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
  std::erase_if(faults_, [&](const auto& each) {  // the new end replaces that of one that is present
    return each.second.isPresent && !each.second.period && isMeant(*place, each.second.place);
  });
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
  const auto next = [&] {
    return std::ranges::find_if(
        faults_, [&](const auto& each) { return !place || isMeant(*place, each.second.place); });
  };
  if (next() == faults_.end()) return place ? protocol::kNoFault : protocol::kDone;
  for (auto fault = next(); fault != faults_.end(); fault = next()) {
    const auto cleared = faults_.extract(fault);
    const Fault& ended = cleared.mapped();
    if (ended.isPresent && !isPresent(ended.place)) apply(ended.place, false);
  }
  return protocol::kDone;
}

}  // namespace headend
