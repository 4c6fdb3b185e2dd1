// What the panel shows, asked of the headend over the management socket.
#pragma once

#include <chrono>

#include "client/link.h"
#include "tools/panel/panel_view.h"

namespace tools {

class PanelFeed {
 public:
  using Clock = std::chrono::steady_clock;

  explicit PanelFeed(client::Link& link) : link_(link) {}

  // Brings the state up to date: the LCD each time, the rest twice a second. Throws client::Error; what has
  // been read by then stands in the state.
  void refresh(PanelState& state);

 private:
  void readStatus(PanelState& state);

  client::Link& link_;
  Clock::time_point next_;  // for the rest
};

}  // namespace tools
