// The front panel on a terminal's screen: LCD, lamps, keys, RF readout and alarms. Only drawing: converts the
// panel's state into a screen.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "protocol/alarms.h"
#include "protocol/channel.h"
#include "protocol/panel.h"
#include "tools/panel/screen.h"

namespace tools {

struct PanelState {
  std::string server;
  std::optional<protocol::LcdImage> lcd;
  std::array<std::string, MAX_BOARD_NUM> cards;  // state names from the status; empty: no card
  std::vector<std::string> rf;                   // lines, the first is a heading
  std::vector<protocol::Alarm> alarms;           // oldest first
  std::optional<long> silentSeconds;             // since the last answer; nullopt while it answers
  std::string refusal;                           // an error reply of the headend

  chassis::Language language = chassis::Language::kEnglish;
  bool pixels = false;  // the LCD by its pixels, if there is room
  chassis::PanelKey pressed = chassis::kKeyNone;
};

inline constexpr int kPanelMinWidth = 68;
inline constexpr int kPanelMinHeight = 18;

// A screen that is too small shows a message with the required size.
Screen drawPanel(const PanelState& state, int width, int height);

}  // namespace tools
