// The keys of the front panel: a queue between the code that presses keys and the menu's task, which reads
// them.
#pragma once

#include <deque>

#include "headend/kernel/kernel.h"
#include "platform/panel.h"

namespace headend {

class Keypad {
 public:
  static constexpr std::size_t kWaiting = 64;  // keys not read yet

  // After `timeout` without a key, `scan` gives kKeyLeave once; 0: never.
  Keypad(Kernel& kernel, Nanos timeout) : kernel_(kernel), timeout_(timeout) {}

  // False if kWaiting keys are in the queue.
  bool press(chassis::PanelKey key);
  // The next key, at once. If the queue is empty, waits one tick of the calling task and returns kKeyNone.
  chassis::PanelKey scan();
  // Whether no key was read since kKeyLeave was given.
  bool timedOut() const { return timedOut_; }

 private:
  Kernel& kernel_;
  Nanos timeout_;
  std::deque<chassis::PanelKey> keys_;
  Nanos lastKey_ = 0;
  bool timedOut_ = true;  // no kKeyLeave before the first key
};

}  // namespace headend
