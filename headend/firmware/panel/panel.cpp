#include "headend/firmware/panel/panel.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "base/text.h"
#include "platform/address_word.h"

namespace headend {
namespace {

using chassis::item_t;

constexpr int kRowsBelowHeading = protocol::kLcdRows - 1;
constexpr Nanos kRefresh = kSecond;  // of the displayed values, because they can change

bool has(const item_t& item, u16 flag) {
  return (item.flag & flag) != 0;
}

}  // namespace

// ---- The keys ----

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
    left_ = false;
    return key;
  }
  kernel_.delay(1);
  if (timeout_ == 0 || left_ || !keys_.empty() || kernel_.now() - lastKey_ < timeout_)
    return chassis::kKeyNone;
  left_ = true;
  return chassis::kKeyLeave;
}

// ---- The services ----

void Panel::provide(BackEnd& backEnd) {
  using enum protocol::Operation;
  using protocol::Request;
  backEnd.provide(kLcd, BackEnd::Target::kChassis, {}, [this](const Request&, base::Bytes& reply) {
    reply = protocol::encode(lcd.shown());
    return protocol::kDone;
  });
  backEnd.provide(kKey, BackEnd::Target::kChassis, 1, [this](const Request& request, base::Bytes&) -> u32 {
    const u8 key = request.data[0];
    if (key < chassis::kKeyConfirm || key > chassis::kKeyRight) return protocol::kUnknownKey;
    return keys.press(static_cast<chassis::PanelKey>(key)) ? u32{protocol::kDone} : protocol::kTooManyKeys;
  });
}

void Panel::start() {
  kernel_.spawn("tMen", kPriority, [this] {
    for (;;) walkTop();
  });
}

std::string Panel::own(const Words& words) const {
  return base::gbkOfUtf8(words.in(language_));
}

std::string Panel::labelOf(const item_t& item) const {
  const chassis::Label& label = item.label(language_);
  return {label.text, strnlen(label.text, sizeof label.text)};
}

// ---- The levels ----

void Panel::walkTop() {
  leaving_ = false;
  const auto rows = [this] {
    std::vector<Row> all;
    for (const auto& [slot, root] : roots_) all.push_back({labelOf(root), firmware_.fault(slot) ? "!" : ""});
    all.push_back({own(protocol::words::kLanguage), own(protocol::words::kLanguageName)});
    return all;
  };
  int chosen = 0;
  while (!leaving_) {
    const int confirmed = browse(own(protocol::words::kHeadend), rows, chosen);
    if (leaving_) return;
    if (confirmed < 0) continue;  // this is the top level
    chosen = confirmed;
    if (chosen < static_cast<int>(roots_.size())) {
      const item_t& root = std::next(roots_.begin(), chosen)->second;
      walkTable(root, root.val);
    } else {
      language_ = protocol::next(language_);
    }
  }
}

// Shows why a card does not run, until the operator goes back or the card runs.
void Panel::showFault(const item_t& item, int slot) {
  const auto rows = [&] {
    const std::optional<Words> fault = firmware_.fault(slot);
    return std::vector<Row>{{fault ? own(*fault) : "", {}}};
  };
  browse(labelOf(item), rows, -1, [&] { return firmware_.fault(slot).has_value(); });
}

void Panel::walkTable(const item_t& parent, int slot) {
  const Items items = itemsOf(parent);
  const auto rows = [&] {
    std::vector<Row> all;
    for (const item_t* item : items) all.push_back(rowOf(*item, slot));
    return all;
  };
  int chosen = 0;
  while (!leaving_) {
    chosen = browse(labelOf(parent), rows, chosen, [&] { return !firmware_.fault(slot); });
    if (chosen < 0) {
      if (!leaving_) showFault(parent, slot);
      return;
    }
    open(*items[static_cast<std::size_t>(chosen)], slot);
  }
}

void Panel::open(const item_t& item, int slot) {
  if (has(item, item_t::kHandler)) {
    auto* handler = os::wordAddress<chassis::ItemHandler>(item.minVal);
    if (handler == nullptr) {
      firmware_.stop(fmt::format("menu of slot {}: item '{}' names no handler", slot + 1, item.en.text));
      return;
    }
    handler(&item, static_cast<u8>(slot), 0);
    leaving_ = keys.left();
  } else if (has(item, item_t::kOptions)) {
    if (has(item, item_t::kSettable)) chooseOption(item, slot);
  } else if (item.submenu != nullptr) {
    walkTable(item, slot);
  }
}

void Panel::chooseOption(const item_t& item, int slot) {
  const Items options = itemsOf(item);
  const auto now = std::ranges::find(options, valueOf(item, slot), &item_t::val);
  const auto rows = [&] {
    std::vector<Row> all;
    for (const item_t* option : options) all.push_back({labelOf(*option), {}});
    return all;
  };
  const int chosen =
      browse(labelOf(item), rows, now == options.end() ? 0 : static_cast<int>(now - options.begin()),
             [&] { return !firmware_.fault(slot); });
  if (chosen < 0) return;
  const u32 value = options[static_cast<std::size_t>(chosen)]->val;
  firmware_.card(slot)->setVar(static_cast<u8>(slot), 0, item.id, value);
}

// ---- A screen ----

int Panel::browse(const std::string& heading, const std::function<std::vector<Row>()>& rows, int chosen,
                  const std::function<bool()>& stays) {
  std::vector<Row> shown;
  Nanos next = 0;
  for (bool moved = true;;) {
    if (!stays()) return -1;
    if (moved || kernel_.now() >= next) {
      next = kernel_.now() + kRefresh;
      std::vector<Row> wanted = rows();
      chosen = std::min(chosen, static_cast<int>(wanted.size()) - 1);
      if (moved || wanted != shown) draw(heading, wanted, chosen);
      shown = std::move(wanted);
    }
    moved = true;
    const int count = static_cast<int>(shown.size());
    switch (keys.scan()) {
      case chassis::kKeyNone:
        moved = false;
        break;
      case chassis::kKeyUp:
        if (chosen >= 0) chosen = (chosen + count - 1) % count;
        break;
      case chassis::kKeyDown:
        if (chosen >= 0) chosen = (chosen + 1) % count;
        break;
      case chassis::kKeyConfirm:
      case chassis::kKeyRight:
        if (chosen >= 0) return chosen;
        break;
      case chassis::kKeyLeave:
        leaving_ = true;
        return -1;
      default:
        return -1;
    }
  }
}

void Panel::showHeading(const std::string& text) {
  lcd.clear();
  lcd.printRow(0, text);
}

// The heading stays, and of the rows as many as fit, with the chosen one among them.
void Panel::draw(const std::string& heading, const std::vector<Row>& rows, int chosen) {
  showHeading(heading);
  int number = std::max(0, chosen - (kRowsBelowHeading - 1));
  for (int line = 1; line <= kRowsBelowHeading && number < static_cast<int>(rows.size()); ++line, ++number) {
    const Row& row = rows[static_cast<std::size_t>(number)];
    lcd.printRow(line, row.left, row.right, number == chosen);
  }
}

// ---- Items ----

Panel::Items Panel::itemsOf(const item_t& parent) {
  Items items;
  for (const item_t* item = parent.submenu; item != nullptr; ++item) {
    items.push_back(item);
    if (has(*item, item_t::kLast)) return items;
    if (items.size() < kLongestTable) continue;
    firmware_.stop(
        fmt::format("menu: the table below '{}' has no end mark in {} items", parent.en.text, kLongestTable));
    return {};
  }
  return items;
}

Panel::Row Panel::rowOf(const item_t& item, int slot) {
  Row row{labelOf(item), {}};
  if (has(item, item_t::kText)) {
    row.right = firmware_.text(slot, item.id);
  } else if (has(item, item_t::kOptions)) {
    const u32 value = valueOf(item, slot);
    row.right = '?';
    for (const item_t* option : itemsOf(item)) {
      if (option->val == value) row.right = labelOf(*option);
    }
  }
  return row;
}

}  // namespace headend
