// The chassis's front panel: LCD, keys and menu, and their operations for the management socket.
#pragma once

#include <deque>

#include "headend/firmware/back_end.h"
#include "headend/firmware/panel/menu_engine.h"

namespace headend {

class Panel {
 public:
  static constexpr int kPriority = 230;  // below all tasks that keep a channel on the air
  // A message of another task, as of a failed start-up, is shown instead of the menu for this time, or until
  // a key is pressed.
  static constexpr Nanos kMessageTime = 5 * kSecond;

  using Firmware = MenuEngine::Firmware;

  // `timeout` is that of the keys. `say` reports errors of the file with the language.
  Panel(Kernel& kernel, Flash& flash, Nanos timeout, Firmware firmware, Say say)
      : keys(kernel, timeout),
        kernel_(kernel),
        language_(flash, std::move(say)),
        menu_(kernel, menuLcd_, keys, language_, std::move(firmware)) {}

  void provide(BackEnd& backEnd);  // the operations kLcd and kKey
  void start();                    // spawns the menu's task

  // For the services of platform/panel.h.
  void registerRoot(const chassis::item_t& root) { menu_.registerRoot(root); }
  void showHeading(const chassis::item_t& item);
  // What the calling task draws on: the menu's screen, or for any other task a message of its own.
  Lcd& layer();

  const protocol::LcdImage& shown();

  Keypad keys;

 private:
  struct Message {
    int task;
    Nanos until;
    Lcd lcd;
  };
  void dropOldMessages();

  Kernel& kernel_;
  Lcd menuLcd_;
  std::deque<Message> messages_;  // shown one after the other
  PanelLanguage language_;
  MenuEngine menu_;
  int task_ = -1;  // the menu's
};

}  // namespace headend
