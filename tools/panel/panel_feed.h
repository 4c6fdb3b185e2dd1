// Reads the panel's content from the headend over the management socket.
#pragma once

#include <chrono>

#include "client/link.h"
#include "tools/panel/panel_view.h"

namespace tools {

class PanelFeed {
 public:
  using Clock = std::chrono::steady_clock;

  explicit PanelFeed(client::Link& link) : link_(link) {}

  // Updates the state: the LCD each time, the rest twice a second. Throws client::Error; the values read
  // until then are in the state.
  void refresh(PanelState& state);

 private:
  void readStatus(PanelState& state);

  client::Link& link_;
  Clock::time_point next_;  // for the other values
};

}  // namespace tools
