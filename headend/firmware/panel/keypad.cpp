#include "headend/firmware/panel/keypad.h"

namespace headend {

bool Keypad::press(chassis::PanelKey key) {
  if (keys_.size() == kWaiting) return false;
  keys_.push_back(key);
  return true;
}

chassis::PanelKey Keypad::scan() {
  if (!keys_.empty()) {
    const chassis::PanelKey key = keys_.front();
    keys_.pop_front();
    lastKey_ = kernel_.now();
    timedOut_ = false;
    return key;
  }
  kernel_.delay(1);
  if (timeout_ == 0 || timedOut_ || !keys_.empty() || kernel_.now() - lastKey_ < timeout_)
    return chassis::kKeyNone;
  timedOut_ = true;
  return chassis::kKeyLeave;
}

}  // namespace headend
