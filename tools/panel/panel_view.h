// The front panel as it stands on a terminal's screen: LCD, lamps, keys, RF readout and alarms. Pure drawing:
// what the panel knows goes in, a screen comes out.
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
  enum class Language { kEnglish, kChinese };

  std::string server;
  std::optional<protocol::LcdImage> lcd;
  std::array<std::string, MAX_BOARD_NUM> cards;  // the card's state as the status names it; empty: no card
  std::vector<std::string> rf;                   // lines, the first a heading
  std::vector<protocol::Alarm> alarms;           // oldest first
  std::optional<long> silentSeconds;             // since the headend has answered; nothing while it does
  std::string refusal;                           // what else the headend said instead of an answer

  Language language = Language::kEnglish;
  bool pixels = false;  // the LCD by its pixels, where there is room
  chassis::PanelKey pressed = chassis::kKeyNone;
};

inline constexpr int kPanelMinWidth = 68;
inline constexpr int kPanelMinHeight = 18;

// Too small a screen says so, and what it would take.
Screen drawPanel(const PanelState& state, int width, int height);

}  // namespace tools
