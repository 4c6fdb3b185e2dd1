#include "headend/firmware/status_checks.h"

#include <fmt/format.h>

#include <algorithm>

#include "card/qamVar.h"
#include "hw/ad7414.h"
#include "protocol/variables.h"

namespace headend {

using protocol::CardState;

void StatusChecks::start(const std::vector<int>& slots, Nanos period, bool readsSensors) {
  readsSensors_ = readsSensors;
  if (period == 0) return;
  const int ticks = std::max(1, static_cast<int>(period * kernel_.settings().tickHz / kSecond));
  for (const int slot : slots) {
    kernel_.spawn(
        fmt::format("tStatus{}", slot + 1), kPriority, [this, slot, ticks] { check(slot, ticks); }, slot);
  }
  kernel_.spawn("tCardStates", kPriority, [this, slots, ticks] {
    for (;;) {
      kernel_.delay(ticks);
      for (const int slot : slots) reportState(slot);
    }
  });
}

void StatusChecks::check(int slot, int ticks) {
  kernel_.delay(slot * ticks / MAX_BOARD_NUM);  // slots are spread over the period
  for (bool isFirst = true;;) {
    kernel_.delay(ticks);
    const chassis::card* card = chassis_.slot(slot).descriptor;
    if (state_(slot) != CardState::kRunning || card->statusCheck == nullptr) continue;
    card->statusCheck(static_cast<u8>(slot));
    const Pass pass = passOf(slot);
    passes_[static_cast<std::size_t>(slot)] = pass;
    if (std::exchange(isFirst, false)) alarms_.matchInputs(slot, pass.lostInputs);
  }
}

// Reads the sensors directly: a read of the card's variables holds semQamVar, and would hold it permanently
// if the sensor's line is stuck.
StatusChecks::Pass StatusChecks::passOf(int slot) const {
  const auto number = static_cast<u8>(slot);
  Pass pass{.lostInputs = GetQamCardParaFromList(number)->qam_para.status};
  if (readsSensors_) {
    pass.temperatures = {protocol::signedDegrees(get_temper(number, 1)),
                         protocol::signedDegrees(get_temper(number, 2))};
  }
  pass.at = kernel_.now();
  return pass;
}

void StatusChecks::reportState(int slot) {
  const CardState state = state_(slot);
  if (state == CardState::kStarting) return;
  alarms_.setOwn(slot, protocol::kAlarmCardDown, state != CardState::kRunning, nameOf(state).words);
}

}  // namespace headend
