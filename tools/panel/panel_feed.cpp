#include "tools/panel/panel_feed.h"

#include "client/chassis_services.h"
#include "commands/json_fields.h"
#include "commands/rf_report.h"
#include "commands/status_report.h"

namespace tools {

using commands::Json;
using commands::member;


void PanelFeed::refresh(PanelState& state) {
  state.lcd = client::readLcd(link_);
  const Clock::time_point now = Clock::now();
  if (now < next_) return;
  state.alarms = client::readAlarms(link_);
  readStatus(state);
  next_ = now + std::chrono::milliseconds(500);
}

void PanelFeed::readStatus(PanelState& state) {
  const auto status = commands::statusOf(link_);
  if (!status) return;
  state.cards = {};
  Json readouts = Json::array();
  for (const Json& card : member(*status, "cards")) {
    const auto slot = commands::number(card, "slot");
    if (!slot || *slot < 1 || *slot > MAX_BOARD_NUM) continue;
    state.cards[static_cast<std::size_t>(*slot) - 1] = commands::oneLine(member(card, "state"));
    for (const Json& readout : commands::rfOfCard(card)) readouts.push_back(readout);
  }
  state.rf = commands::rfLines(readouts);
}

}  // namespace tools
