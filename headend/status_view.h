// The plain view for a person who watches: a table of the cards, drawn over itself on a terminal once a
// second; where output is no terminal, a line whenever a card's state or what it has on the air changes. With
// --fast, how far the run has come.
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
