// The chassis's front panel: LCD, keys and menu, and their operations for the management socket. The menu
// shows the trees of items that cards have registered. It uses only items, their flags and card descriptors.
// The top level has the cards and the language.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "headend/firmware/back_end.h"
#include "headend/firmware/panel/lcd.h"
#include "platform/panel.h"
#include "protocol/words.h"

namespace headend {

// A queue between the code that presses keys and the menu's task, which reads them.
class Keypad {
 public:
  static constexpr std::size_t kWaiting = 64;  // keys not read yet

  // After `timeout` without a key, `scan` gives kKeyLeave once; 0: never.
  Keypad(Kernel& kernel, Nanos timeout) : kernel_(kernel), timeout_(timeout) {}

  // False if kWaiting keys are in the queue.
  bool press(chassis::PanelKey key);
  // The next key, at once. If the queue is empty, waits one tick of the calling task and returns kKeyNone.
  chassis::PanelKey scan();
  // Whether no key was pressed since kKeyLeave was given.
  bool left() const { return left_; }

 private:
  Kernel& kernel_;
  Nanos timeout_;
  std::deque<chassis::PanelKey> keys_;
  Nanos lastKey_ = 0;
  bool left_ = true;  // no kKeyLeave before the first key
};

class Panel {
 public:
  static constexpr int kPriority = 230;     // below all tasks that keep a channel on the air
  static constexpr int kLongestTable = 64;  // items; a longer table has no end mark

  using Words = protocol::Words;

  // Functions of the rest of the firmware that the menu uses.
  struct Firmware {
    std::function<chassis::card*(int slot)> card;
    std::function<std::optional<Words>(int slot)> fault;  // why a card cannot be used; nullopt if it runs
    std::function<std::string(int slot, u32 id)> text;    // reads a text variable
    std::function<void(const std::string& text)> stop;    // ends the run: a tree is broken
  };

  // `timeout` is that of the keys.
  Panel(Kernel& kernel, Nanos timeout, Firmware firmware)
      : keys(kernel, timeout), kernel_(kernel), firmware_(std::move(firmware)) {}

  void provide(BackEnd& backEnd);  // the operations kLcd and kKey
  void start();                    // spawns the menu's task

  // For the services of platform/panel.h.
  void registerRoot(const chassis::item_t& root) { roots_[root.val] = root; }
  void showHeading(const chassis::item_t& item) { showHeading(labelOf(item)); }

  Lcd lcd;
  Keypad keys;

 private:
  struct Row {
    std::string left, right;
    bool operator==(const Row&) const = default;
  };
  using Items = std::vector<const chassis::item_t*>;

  void walkTop();
  void walkTable(const chassis::item_t& parent, int slot);
  void open(const chassis::item_t& item, int slot);
  void chooseOption(const chassis::item_t& item, int slot);
  void showFault(const chassis::item_t& item, int slot);

  // Shows rows below a heading, with the chosen row inverted. Returns the number of the opened row, or -1 to
  // go back, also when `stays` returns false. With -1 chosen, no row can be opened.
  int browse(
      const std::string& heading, const std::function<std::vector<Row>()>& rows, int chosen,
      const std::function<bool()>& stays = [] { return true; });
  void showHeading(const std::string& text);
  void draw(const std::string& heading, const std::vector<Row>& rows, int chosen);

  Items itemsOf(const chassis::item_t& parent);
  Row rowOf(const chassis::item_t& item, int slot);
  u32 valueOf(const chassis::item_t& item, int slot) const {
    return firmware_.card(slot)->getVar(static_cast<u8>(slot), 0, item.id, nullptr);
  }
  std::string labelOf(const chassis::item_t& item) const;
  std::string own(const Words& words) const;

  Kernel& kernel_;
  Firmware firmware_;
  std::map<int, chassis::item_t> roots_;  // by slot: cards of one kind share one record
  chassis::Language language_ = chassis::Language::kEnglish;
  bool leaving_ = false;  // back to the top level
};

}  // namespace headend
