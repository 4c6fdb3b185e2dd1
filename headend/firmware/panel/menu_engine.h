// The menu of the front panel: walks the trees of items that cards have registered, and the chassis's own
// screens. It uses only items, their flags and card descriptors. The top level has the cards, the language
// and the alarms.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "headend/firmware/alarm_list.h"
#include "headend/firmware/panel/keypad.h"
#include "headend/firmware/panel/menu_screen.h"
#include "headend/firmware/panel/panel_language.h"
#include "platform/chassis.h"
#include "platform/panel.h"
#include "protocol/words.h"

namespace headend {

class MenuEngine {
 public:
  static constexpr int kLongestTable = 64;  // items; a longer table has no end mark

  // Functions of the rest of the firmware that the menu uses.
  struct Firmware {
    std::function<chassis::card*(int slot)> card;
    // Why a card cannot be used; nullopt if it runs.
    std::function<std::optional<protocol::Words>(int slot)> fault;
    std::function<bool(int slot)> recordKept;           // false: the last save of the card's record failed
    std::function<std::string(int slot, u32 id)> text;  // reads a text variable
    std::function<const std::vector<AlarmRecord>&()> alarms;  // active, oldest first
    std::function<void(const std::string& text)> stop;        // ends the run: a tree is broken
  };

  MenuEngine(Kernel& kernel, Lcd& lcd, Keypad& keys, PanelLanguage& language, Firmware firmware)
      : kernel_(kernel), lcd_(lcd), keys_(keys), language_(language), firmware_(std::move(firmware)) {}

  // The next card of the same kind may reuse the record.
  void registerRoot(const chassis::item_t& root) { roots_[root.val] = root; }
  void run();  // in the menu's task; does not return

  std::string labelOf(const chassis::item_t& item) const;

 private:
  enum class Ending {
    kOpened,    // the operator opened the chosen row
    kBack,      // the operator went back
    kClosed,    // the screen has nothing to show any more: its card does not run, its alarm has ended
    kTimedOut,  // no key for a long time
  };
  using Items = std::vector<const chassis::item_t*>;
  using Condition = std::function<bool()>;

  void walkTop();
  MenuScreen top() const;
  Ending openAtTop(int row);
  Ending walkCard(const chassis::item_t& root);
  Ending walkTable(const chassis::item_t& parent, int slot);
  Ending open(const chassis::item_t& item, int slot);
  Ending chooseOption(const chassis::item_t& item, int slot);
  Ending walkAlarms();
  Ending showAlarm(const AlarmRecord& raised);

  // Shows a screen, with the row `chosen` inverse, until it ends; the keys change `chosen`. Returns kClosed
  // as soon as `stays` returns false.
  Ending browse(const std::function<MenuScreen()>& contents, int& chosen, const Condition& stays);

  MenuScreen cardScreen(const chassis::item_t& parent, int slot) const;  // without rows
  Items itemsOf(const chassis::item_t& parent) const;
  MenuRow rowOf(const chassis::item_t& item, int slot) const;
  u32 valueOf(const chassis::item_t& item, int slot) const {
    return firmware_.card(slot)->getVar(static_cast<u8>(slot), 0, item.id, nullptr);
  }
  Condition runs(int slot) const {
    return [this, slot] { return !firmware_.fault(slot); };
  }
  std::string own(const protocol::Words& words) const;

  Kernel& kernel_;
  Lcd& lcd_;
  Keypad& keys_;
  PanelLanguage& language_;
  Firmware firmware_;
  std::map<int, chassis::item_t> roots_;  // by slot: cards of one kind share one record
};

}  // namespace headend
