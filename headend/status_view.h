// The plain status view: on a terminal, a table of the cards, redrawn once a second; if output is not a
// terminal, a line when a card's state or output changes. With --fast, the progress of the run.
#pragma once

#include <chrono>
#include <map>

#include "headend/headend.h"

namespace headend {

class StatusView {
 public:
  explicit StatusView(Headend& headend);
  void update();  // cheap; call it often

 private:
  using Clock = std::chrono::steady_clock;
  void draw();
  void announceChanges();
  void announceOutput(protocol::Channel channel);
  void showProgress();
  std::string table();
  std::string alarmLine() const;
  std::string lockNote(int slot, int port) const;

  Headend& headend_;
  bool terminal_;
  Clock::time_point next_;
  unsigned calls_ = 0;
  std::size_t linesDrawn_ = 0;
  std::uint64_t logLinesThen_ = 0;
  std::map<int, Headend::CardState> announced_;
  struct Shown {
    std::string announced;
    std::string now;
    Nanos since = 0;
  };
  std::map<protocol::Channel, Shown> outputs_;
};

}  // namespace headend
