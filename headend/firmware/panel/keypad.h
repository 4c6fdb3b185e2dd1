// The front panel's keys: a queue between the code that presses keys and the menu's task, which reads them.
#pragma once

#include <deque>

#include "headend/kernel/kernel.h"
#include "platform/panel.h"

namespace headend {

class Keypad {
 public:
  static constexpr std::size_t kWaiting = 64;  // keys not read yet

  explicit Keypad(Kernel& kernel) : kernel_(kernel) {}

  // After this time without a key, `scan` gives kKeyLeave once; 0: never.
  void timeout(Nanos time) { timeout_ = time; }

  // False if kWaiting keys are in the queue.
  bool press(chassis::PanelKey key) {
    if (keys_.size() == kWaiting) return false;
    keys_.push_back(key);
    return true;
  }

  // The next key, at once. If the queue is empty, waits one tick of the calling task and returns kKeyNone.
  chassis::PanelKey scan() {
    if (!keys_.empty()) {
      const chassis::PanelKey key = keys_.front();
      keys_.pop_front();
      lastKey_ = kernel_.now();
      left_ = false;
      return key;
    }
    kernel_.delay(1);
    if (timeout_ == 0 || left_ || !keys_.empty() || kernel_.now() - lastKey_ < timeout_)
      return chassis::kKeyNone;
    left_ = true;
    return chassis::kKeyLeave;
  }

  // Whether no key was pressed since kKeyLeave was given.
  bool left() const { return left_; }

 private:
  Kernel& kernel_;
  std::deque<chassis::PanelKey> keys_;
  Nanos timeout_ = 0;
  Nanos lastKey_ = 0;
  bool left_ = true;  // no kKeyLeave before the first key
};

}  // namespace headend
