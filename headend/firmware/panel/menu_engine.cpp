#include "headend/firmware/panel/menu_engine.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "base/text.h"
#include "headend/firmware/panel/alarm_rows.h"
#include "platform/address_word.h"

namespace headend {
namespace {

using chassis::item_t;

constexpr Nanos kRefresh = kSecond;  // of the displayed values, because they can change

const auto kAlways = [] { return true; };

bool has(const item_t& item, u16 flag) {
  return (item.flag & flag) != 0;
}

// Where the chosen row is in a newer version of the screen.
int movedRow(const MenuScreen& before, int chosen, const MenuScreen& now) {
  const auto last = static_cast<int>(now.rows.size()) - 1;
  const auto place = static_cast<std::size_t>(chosen);
  if (place >= before.rows.size() || before.rows[place].id == 0) return std::min(chosen, last);
  const auto same = std::ranges::find(now.rows, before.rows[place].id, &MenuRow::id);
  return same == now.rows.end() ? std::min(chosen, last) : static_cast<int>(same - now.rows.begin());
}

}  // namespace

void MenuEngine::run() {
  for (;;) walkTop();
}

std::string MenuEngine::own(const protocol::Words& words) const {
  return base::gbkOfUtf8(words.in(language_.now()));
}

std::string MenuEngine::labelOf(const item_t& item) const {
  const chassis::Label& text = chassis::label(item, language_.now());
  return {text.text, strnlen(text.text, sizeof text.text)};
}

// ---- The top level ----

// Until no key was pressed for a long time.
void MenuEngine::walkTop() {
  int chosen = 0;
  for (Ending ending = Ending::kBack; ending != Ending::kTimedOut;) {
    ending = browse([this] { return top(); }, chosen, kAlways);
    if (ending == Ending::kOpened) ending = openAtTop(chosen);
  }
}

MenuScreen MenuEngine::top() const {
  MenuScreen screen{.heading = own(protocol::words::kHeadend), .rows = {}};
  for (const auto& [slot, root] : roots_) {
    const char* mark = firmware_.fault(slot) ? "!" : firmware_.recordKept(slot) ? "" : "*";
    screen.rows.push_back({labelOf(root), mark});
  }
  const std::size_t alarms = firmware_.alarms().size();
  screen.rows.push_back({own(protocol::words::kLanguage), own(protocol::words::kLanguageName)});
  screen.rows.push_back({own(protocol::words::kAlarmList),
                         alarms == 0 ? own(protocol::words::kNoAlarm) : fmt::to_string(alarms)});
  return screen;
}

MenuEngine::Ending MenuEngine::openAtTop(int row) {
  const auto cards = static_cast<int>(roots_.size());
  if (row < cards) return walkCard(std::next(roots_.begin(), row)->second);
  if (row > cards) return walkAlarms();
  language_.change();
  return Ending::kBack;
}

// ---- Alarms ----

// The latest first.
MenuEngine::Ending MenuEngine::walkAlarms() {
  std::vector<AlarmRecord> shown;
  const auto contents = [&] {
    MenuScreen screen{.heading = own(protocol::words::kAlarmList), .rows = {}};
    shown.assign(firmware_.alarms().rbegin(), firmware_.alarms().rend());
    for (const AlarmRecord& raised : shown) screen.rows.push_back(summaryOf(raised, language_.now()));
    screen.hasCursor = !shown.empty();
    if (shown.empty()) screen.rows.push_back({own(protocol::words::kNoAlarm)});
    return screen;
  };
  int chosen = 0;
  for (;;) {
    const Ending ending = browse(contents, chosen, kAlways);
    if (ending != Ending::kOpened) return ending;
    if (showAlarm(shown[static_cast<std::size_t>(chosen)]) == Ending::kTimedOut) return Ending::kTimedOut;
  }
}

// Until the operator goes back or the alarm ends.
MenuEngine::Ending MenuEngine::showAlarm(const AlarmRecord& raised) {
  const auto contents = [&] {
    return MenuScreen{.heading = titleOf(raised, language_.now()),
                      .rows = detailsOf(raised, language_.now())};
  };
  const auto stays = [&] {
    return std::ranges::count(firmware_.alarms(), raised.number, &AlarmRecord::number) > 0;
  };
  int chosen = 0;
  for (;;) {
    const Ending ending = browse(contents, chosen, stays);
    if (ending != Ending::kOpened) return ending;
  }
}

// ---- A card ----

// If the card does not run, shows why until the operator goes back or the card runs.
MenuEngine::Ending MenuEngine::walkCard(const item_t& root) {
  const int slot = root.val;
  const Ending ending = walkTable(root, slot);
  if (ending != Ending::kClosed) return ending;
  const auto contents = [&] {
    const std::optional<protocol::Words> fault = firmware_.fault(slot);
    return MenuScreen{.heading = labelOf(root), .rows = {{fault ? own(*fault) : ""}}, .hasCursor = false};
  };
  int chosen = 0;
  return browse(contents, chosen, [&] { return firmware_.fault(slot).has_value(); });
}

MenuEngine::Ending MenuEngine::walkTable(const item_t& parent, int slot) {
  const Items items = itemsOf(parent);
  const auto contents = [&] {
    MenuScreen screen = cardScreen(parent, slot);
    for (const item_t* item : items) screen.rows.push_back(rowOf(*item, slot));
    return screen;
  };
  int chosen = 0;
  for (;;) {
    Ending ending = browse(contents, chosen, runs(slot));
    if (ending != Ending::kOpened) return ending;
    ending = open(*items[static_cast<std::size_t>(chosen)], slot);
    if (ending != Ending::kBack) return ending;
  }
}

MenuEngine::Ending MenuEngine::open(const item_t& item, int slot) {
  if (has(item, chassis::kItemHandler)) {
    auto* handler = os::wordAddress<chassis::ItemHandler>(item.minVal);
    if (handler == nullptr) {
      firmware_.stop(fmt::format("menu of slot {}: item '{}' names no handler", slot + 1, item.en.text));
      return Ending::kBack;
    }
    handler(&item, static_cast<u8>(slot), 0);
    return keys_.timedOut() ? Ending::kTimedOut : Ending::kBack;
  }
  if (has(item, chassis::kItemOptions))
    return has(item, chassis::kItemSettable) ? chooseOption(item, slot) : Ending::kBack;
  return item.submenu != nullptr ? walkTable(item, slot) : Ending::kBack;
}

// The option that is set has a mark; the cursor begins there.
MenuEngine::Ending MenuEngine::chooseOption(const item_t& item, int slot) {
  const Items options = itemsOf(item);
  const auto contents = [&] {
    MenuScreen screen = cardScreen(item, slot);
    const u32 now = valueOf(item, slot);
    for (const item_t* option : options)
      screen.rows.push_back({labelOf(*option), option->val == now ? base::gbkOfUtf8("√") : ""});
    return screen;
  };
  const auto set = std::ranges::find(options, valueOf(item, slot), &item_t::val);
  int chosen = set == options.end() ? 0 : static_cast<int>(set - options.begin());
  const Ending ending = browse(contents, chosen, runs(slot));
  if (ending != Ending::kOpened) return ending;
  const u32 value = options[static_cast<std::size_t>(chosen)]->val;
  firmware_.card(slot)->setVar(static_cast<u8>(slot), 0, item.id, value);
  return Ending::kBack;
}

// ---- A screen ----

MenuEngine::Ending MenuEngine::browse(const std::function<MenuScreen()>& contents, int& chosen,
                                      const Condition& stays) {
  MenuScreen shown;
  Nanos next = 0;
  for (bool moved = true;;) {
    if (!stays()) return Ending::kClosed;
    if (moved || kernel_.now() >= next) {
      next = kernel_.now() + kRefresh;
      MenuScreen wanted = contents();
      chosen = movedRow(shown, chosen, wanted);
      if (moved || wanted != shown) draw(lcd_, wanted, chosen);
      shown = std::move(wanted);
    }
    moved = true;
    const int count = shown.hasCursor ? static_cast<int>(shown.rows.size()) : 0;
    switch (keys_.scan()) {
      case chassis::kKeyNone:
        moved = false;
        break;
      case chassis::kKeyUp:
        if (count > 0) chosen = (chosen + count - 1) % count;
        break;
      case chassis::kKeyDown:
        if (count > 0) chosen = (chosen + 1) % count;
        break;
      case chassis::kKeyConfirm:
      case chassis::kKeyRight:
        if (count > 0) return Ending::kOpened;
        break;
      case chassis::kKeyLeave:
        return Ending::kTimedOut;
      default:
        return Ending::kBack;
    }
  }
}

MenuScreen MenuEngine::cardScreen(const item_t& parent, int slot) const {
  return {.heading = labelOf(parent), .mark = firmware_.recordKept(slot) ? "" : "*", .rows = {}};
}

// ---- Items ----

MenuEngine::Items MenuEngine::itemsOf(const item_t& parent) const {
  Items items;
  for (const item_t* item = parent.submenu; item != nullptr; ++item) {
    items.push_back(item);
    if (has(*item, chassis::kItemLast)) return items;
    if (items.size() < kLongestTable) continue;
    firmware_.stop(
        fmt::format("menu: the table below '{}' has no end mark in {} items", parent.en.text, kLongestTable));
    return {};
  }
  return items;
}

MenuRow MenuEngine::rowOf(const item_t& item, int slot) const {
  MenuRow row{labelOf(item)};
  if (has(item, chassis::kItemText)) {
    row.right = firmware_.text(slot, item.id);
  } else if (has(item, chassis::kItemOptions)) {
    const u32 value = valueOf(item, slot);
    row.right = '?';
    for (const item_t* option : itemsOf(item)) {
      if (option->val == value) row.right = labelOf(*option);
    }
  }
  return row;
}

}  // namespace headend
