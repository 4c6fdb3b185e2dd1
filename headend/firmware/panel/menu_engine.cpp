#include "headend/firmware/panel/menu_engine.h"

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

MenuEngine::MenuEngine(Kernel& kernel, Lcd& lcd, Keypad& keys, Firmware firmware)
    : kernel_(kernel), lcd_(lcd), keys_(keys), firmware_(std::move(firmware)) {}

void MenuEngine::start() {
  kernel_.spawn("tMen", kPriority, [this] {
    for (;;) walkTop();
  });
}

void MenuEngine::showHeading(const item_t& item) {
  lcd_.clear();
  lcd_.printRow(0, labelOf(item));
}

std::string MenuEngine::own(const Words& words) const {
  return base::gbkOfUtf8(language_ == Language::kEnglish ? words.english : words.chinese);
}

std::string MenuEngine::labelOf(const item_t& item) const {
  const chassis::Label& label = language_ == Language::kEnglish ? item.en : item.zh;
  return {label.text, strnlen(label.text, sizeof label.text)};
}

// ---- The levels ----

void MenuEngine::walkTop() {
  leaving_ = false;
  const auto heading = [this] {
    lcd_.clear();
    lcd_.printRow(0, own({"Headend", "前端"}));
  };
  const Rows rows = [this] {
    std::vector<Row> all;
    for (const auto& [slot, root] : roots_) all.push_back({labelOf(root), firmware_.fault(slot) ? "!" : ""});
    all.push_back({own({"Language", "语言"}), own({"English", "中文"})});
    return all;
  };
  int chosen = 0;
  while (!leaving_) {
    const int confirmed = browse(heading, rows, chosen);
    if (leaving_) return;
    if (confirmed < 0) continue;  // this is the top level
    chosen = confirmed;
    if (chosen < static_cast<int>(roots_.size())) {
      const item_t& root = std::next(roots_.begin(), chosen)->second;
      walkTable(root, root.val);
    } else {
      language_ = language_ == Language::kEnglish ? Language::kChinese : Language::kEnglish;
    }
  }
}

// Shows why a card does not run, until the operator goes back or the card runs.
void MenuEngine::showFault(const item_t& heading, int slot) {
  browse([&] { showHeading(heading); },
         [&] {
           const std::optional<Words> fault = firmware_.fault(slot);
           return std::vector<Row>{{fault ? own(*fault) : "", {}}};
         },
         -1, [&] { return firmware_.fault(slot).has_value(); });
}

void MenuEngine::walkTable(const item_t& parent, int slot) {
  const std::vector<const item_t*> items = itemsOf(parent);
  const Rows rows = [&] {
    std::vector<Row> all;
    all.reserve(items.size());
    for (const item_t* item : items) all.push_back(rowOf(*item, slot));
    return all;
  };
  int chosen = 0;
  while (!leaving_) {
    chosen = browse([&] { showHeading(parent); }, rows, chosen, [&] { return !firmware_.fault(slot); });
    if (chosen < 0) {
      if (!leaving_) showFault(parent, slot);
      return;
    }
    open(*items[static_cast<std::size_t>(chosen)], slot);
  }
}

void MenuEngine::open(const item_t& item, int slot) {
  if (has(item, item_t::kHandler)) {
    auto* handler = os::wordAddress<chassis::ItemHandler>(item.minVal);
    if (handler == nullptr) {
      firmware_.stop(fmt::format("menu of slot {}: item '{}' names no handler", slot + 1, item.en.text));
      return;
    }
    handler(&item, static_cast<u8>(slot), 0);
    leaving_ = keys_.left();
  } else if (has(item, item_t::kOptions)) {
    if (has(item, item_t::kSettable)) chooseOption(item, slot);
  } else if (item.submenu != nullptr) {
    walkTable(item, slot);
  }
}

void MenuEngine::chooseOption(const item_t& item, int slot) {
  const std::vector<const item_t*> options = itemsOf(item);
  chassis::card& card = *firmware_.card(slot);
  const u32 value = card.getVar(static_cast<u8>(slot), 0, item.id, nullptr);
  const auto now =
      std::find_if(options.begin(), options.end(), [&](const item_t* o) { return o->val == value; });
  std::vector<Row> rows;
  rows.reserve(options.size());
  for (const item_t* option : options) rows.push_back({labelOf(*option), {}});
  const int chosen = browse([&] { showHeading(item); }, [&] { return rows; },
                            now == options.end() ? 0 : static_cast<int>(now - options.begin()),
                            [&] { return !firmware_.fault(slot); });
  if (chosen < 0) return;
  card.setVar(static_cast<u8>(slot), 0, item.id, options[static_cast<std::size_t>(chosen)]->val);
}

// ---- A screen ----

int MenuEngine::browse(const std::function<void()>& heading, const Rows& rows, int chosen,
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
    const int last = static_cast<int>(shown.size()) - 1;
    switch (keys_.scan()) {
      case chassis::kKeyNone:
        moved = false;
        break;
      case chassis::kKeyUp:
        if (chosen >= 0) chosen = chosen == 0 ? last : chosen - 1;
        break;
      case chassis::kKeyDown:
        if (chosen >= 0) chosen = chosen == last ? 0 : chosen + 1;
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

// The heading stays, and of the rows as many as fit, with the chosen one among them.
void MenuEngine::draw(const std::function<void()>& heading, const std::vector<Row>& rows, int chosen) {
  heading();
  int number = std::max(0, chosen - (kRowsBelowHeading - 1));
  for (int line = 1; line <= kRowsBelowHeading && number < static_cast<int>(rows.size()); ++line, ++number) {
    const Row& row = rows[static_cast<std::size_t>(number)];
    lcd_.printRow(line, row.left, row.right, number == chosen);
  }
}

// ---- Items ----

std::vector<const item_t*> MenuEngine::itemsOf(const item_t& parent) {
  std::vector<const item_t*> items;
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

MenuEngine::Row MenuEngine::rowOf(const item_t& item, int slot) {
  Row row{labelOf(item), {}};
  chassis::card& card = *firmware_.card(slot);
  if (has(item, item_t::kText)) {
    row.right = firmware_.text(slot, item.id);
  } else if (has(item, item_t::kOptions)) {
    const u32 value = card.getVar(static_cast<u8>(slot), 0, item.id, nullptr);
    row.right = '?';
    for (const item_t* option : itemsOf(item)) {
      if (option->val == value) row.right = labelOf(*option);
    }
  }
  return row;
}

}  // namespace headend
