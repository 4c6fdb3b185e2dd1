// The plain status view: on a terminal, the report as text, drawn anew once a second; if output is not a
// terminal, a line when a card's state or output changes. With --fast, the progress of the run.
#pragma once

#include <chrono>
#include <map>

#include "base/progress.h"
#include "headend/headend.h"

namespace headend {

class StatusView {
 public:
  explicit StatusView(Headend& headend);
  void update();  // cheap; call it at each tick

 private:
  using Clock = std::chrono::steady_clock;
  void draw();
  void announceChanges();
  void announceOutput(protocol::Channel channel);

  Headend& headend_;
  bool terminal_;
  Clock::time_point next_;
  unsigned calls_ = 0;
  base::ProgressLine progress_;
  std::size_t linesDrawn_ = 0;
  std::uint64_t linesThen_ = 0;
  std::map<int, std::optional<protocol::CardState>> announced_;
  struct Shown {
    std::optional<RfOutput> now;
    Nanos since = 0;
    bool isNew = false;  // since it was announced last
    std::string announced;
  };
  std::map<protocol::Channel, Shown> outputs_;
};

}  // namespace headend
