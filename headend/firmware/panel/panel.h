// The chassis's front panel: LCD, keys and the menu on them, and how the management socket reaches it.
#pragma once

#include "client/datagram.h"
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

  // Operations of the management socket.
  u32 show(client::Bytes& reply) const {
    reply = client::encode(lcd_.shown());
    return client::kDone;
  }
  u32 press(const client::Request& request) {
    if (request.data.size() != 1) return client::kBadLength;
    const u8 key = request.data[0];
    if (key < chassis::kKeyConfirm || key > chassis::kKeyRight) return client::kUnknownKey;
    return keys_.press(static_cast<chassis::PanelKey>(key)) ? client::kDone : client::kTooManyKeys;
  }

 private:
  Lcd lcd_;
  Keypad keys_;
  MenuEngine menu_;
};

}  // namespace headend
