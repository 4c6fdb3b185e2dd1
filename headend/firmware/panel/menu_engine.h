// The chassis's menu: shows the trees of items that cards have registered, on the LCD and with keys. It uses
// only items, their flags and card descriptors. The top level has the cards and the language.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "headend/firmware/panel/keypad.h"
#include "headend/firmware/panel/lcd.h"
#include "platform/chassis.h"
#include "protocol/card_state.h"

namespace headend {

class MenuEngine {
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

  MenuEngine(Kernel& kernel, Lcd& lcd, Keypad& keys, Firmware firmware);

  void start();  // spawns the task

  // For the services of platform/panel.h.
  void registerRoot(const chassis::item_t& root) { roots_[root.val] = root; }
  void showHeading(const chassis::item_t& item);

 private:
  enum class Language { kEnglish, kChinese };
  struct Row {
    std::string left, right;
    bool operator==(const Row&) const = default;
  };
  using Rows = std::function<std::vector<Row>()>;

  void walkTop();
  void walkTable(const chassis::item_t& parent, int slot);
  void open(const chassis::item_t& item, int slot);
  void chooseOption(const chassis::item_t& item, int slot);
  void showFault(const chassis::item_t& heading, int slot);

  // Shows rows below a heading, with the chosen row inverted. Returns the number of the opened row, or -1 to
  // go back, also when `stays` returns false. With -1 chosen, no row can be opened.
  int browse(
      const std::function<void()>& heading, const Rows& rows, int chosen,
      const std::function<bool()>& stays = [] { return true; });
  void draw(const std::function<void()>& heading, const std::vector<Row>& rows, int chosen);

  std::vector<const chassis::item_t*> itemsOf(const chassis::item_t& parent);
  Row rowOf(const chassis::item_t& item, int slot);
  std::string labelOf(const chassis::item_t& item) const;
  std::string own(const Words& words) const;

  Kernel& kernel_;
  Lcd& lcd_;
  Keypad& keys_;
  Firmware firmware_;
  std::map<int, chassis::item_t> roots_;  // by slot: cards of one kind share one record
  Language language_ = Language::kEnglish;
  bool leaving_ = false;  // back to the top level
};

}  // namespace headend
