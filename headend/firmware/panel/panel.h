// The chassis's front panel: LCD, keys and menu, and their operations for the management socket.
#pragma once

#include "headend/firmware/back_end.h"
#include "headend/firmware/panel/keypad.h"
#include "headend/firmware/panel/lcd.h"
#include "headend/firmware/panel/menu_engine.h"

namespace headend {

class Panel {
 public:
  Panel(Kernel& kernel, Nanos timeout, MenuEngine::Firmware firmware)
      : keys_(kernel), menu_(kernel, lcd_, keys_, std::move(firmware)) {
    keys_.timeout(timeout);
  }

  Lcd& lcd() { return lcd_; }
  Keypad& keys() { return keys_; }
  MenuEngine& menu() { return menu_; }

  void provide(BackEnd& backEnd) {
    using enum protocol::Operation;
    backEnd.provide(kLcd, BackEnd::Target::kChassis, std::bind_front(&Panel::show, this));
    backEnd.provide(kKey, BackEnd::Target::kChassis, std::bind_front(&Panel::press, this));
  }

 private:
  u32 show(const protocol::Request& /*request*/, base::Bytes& reply) const {
    reply = protocol::encode(lcd_.shown());
    return protocol::kDone;
  }
  u32 press(const protocol::Request& request, base::Bytes& /*reply*/) {
    if (request.data.size() != 1) return protocol::kBadLength;
    const u8 key = request.data[0];
    if (key < chassis::kKeyConfirm || key > chassis::kKeyRight) return protocol::kUnknownKey;
    return keys_.press(static_cast<chassis::PanelKey>(key)) ? protocol::kDone : protocol::kTooManyKeys;
  }

  Lcd lcd_;
  Keypad keys_;
  MenuEngine menu_;
};

}  // namespace headend
