// The front panel's keys: who presses them puts them into a queue, and the menu's task takes them.
#pragma once

#include <deque>

#include "headend/kernel/kernel.h"
#include "platform/panel.h"

namespace headend {

class Keypad {
 public:
  static constexpr std::size_t kWaiting = 64;  // keys that nobody has taken

  explicit Keypad(Kernel& kernel) : kernel_(kernel) {}

  // After this time without a key `scan` gives kKeyLeave, once; 0: never.
  void timeout(Nanos time) { timeout_ = time; }

  // False when kWaiting keys wait.
  bool press(chassis::PanelKey key) {
    if (keys_.size() == kWaiting) return false;
    keys_.push_back(key);
    return true;
  }

  // The next key, at once; with none waiting it takes one tick of the calling task, for kKeyNone.
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

  // Whether nobody has pressed a key since kKeyLeave was given.
  bool left() const { return left_; }

 private:
  Kernel& kernel_;
  std::deque<chassis::PanelKey> keys_;
  Nanos timeout_ = 0;
  Nanos lastKey_ = 0;
  bool left_ = true;  // nothing to leave before the first key
};

}  // namespace headend
