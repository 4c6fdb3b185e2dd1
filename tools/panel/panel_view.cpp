#include "tools/panel/panel_view.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>

#include "protocol/alarms.h"
#include "protocol/words.h"

namespace tools {
namespace {

using Colour = Look::Colour;

Colour colourOf(protocol::CardState state) {
  if (state == protocol::CardState::kRunning) return Colour::kGood;
  return state == protocol::CardState::kStarting ? Colour::kWarning : Colour::kBad;
}

constexpr std::pair<chassis::PanelKey, const char*> kKeypad[] = {
    {chassis::kKeyUp, "↑"},    {chassis::kKeyDown, "↓"},        {chassis::kKeyLeft, "←"},
    {chassis::kKeyRight, "→"}, {chassis::kKeyConfirm, "Enter"}, {chassis::kKeyCancel, "Esc"},
};

// How the LCD is drawn: a character of the terminal for each cell of pixels.
struct LcdStyle {
  int cellWidth;
  int cellHeight;
  // For the pixels of a cell as bits, line by line, the upper left one lowest; null: the LCD's own text.
  wchar_t (*character)(unsigned pixels);

  int width() const { return protocol::kLcdWidth / cellWidth; }
  int height() const { return protocol::kLcdHeight / cellHeight; }
};
constexpr LcdStyle kText = {8, protocol::kLcdHeight / protocol::kLcdRows, nullptr};
constexpr LcdStyle kHalfBlocks = {1, 2, [](unsigned pixels) { return L" ▀▄█"[pixels]; }};
constexpr LcdStyle kBraille = {2, 4, [](unsigned pixels) {
                                 constexpr int kDots[] = {0x01, 0x08, 0x02, 0x10, 0x04, 0x20, 0x40, 0x80};
                                 int dots = 0;
                                 for (int n = 0; n < 8; ++n) dots |= (pixels >> n & 1) != 0 ? kDots[n] : 0;
                                 return static_cast<wchar_t>(L'\u2800' + dots);
                               }};

constexpr int kLampWidth = 22;   // next to the LCD
constexpr int kAlarmsShown = 3;  // at least, for any length of the RF readout

class PanelPainter {
 public:
  PanelPainter(const PanelState& state, int width, int height) : state_(state), screen_(width, height) {}

  Screen paint() {
    if (screen_.width() < kPanelMinWidth || screen_.height() < kPanelMinHeight) {
      screen_.text(0, 0,
                   fmt::format(fmt::runtime(word(protocol::words::kTooSmall)), screen_.width(),
                               screen_.height(), kPanelMinWidth, kPanelMinHeight));
      return std::move(screen_);
    }
    const LcdStyle style = lcdStyle();
    title();
    lcd(style);
    lamps(style.width() + 4);
    keypad(style.height() + 3);
    readings(style.height() + 5);
    footer(style);
    return std::move(screen_);
  }

 private:
  std::string_view word(const protocol::Words& words) const { return words.in(state_.language); }

  bool hasRoom(const LcdStyle& style) const {
    return screen_.width() >= style.width() + 4 + kLampWidth &&
           screen_.height() >= style.height() - kText.height() + kPanelMinHeight;
  }

  LcdStyle lcdStyle() const {
    if (!state_.pixels) return kText;
    return hasRoom(kHalfBlocks) ? kHalfBlocks : hasRoom(kBraille) ? kBraille : kText;
  }

  void title() {
    const int x = screen_.text(0, 0, word(protocol::words::kTitle), {.bold = true});
    const int end = screen_.text(x + 2, 0, state_.server);
    const std::string trouble =
        state_.silentSeconds
            ? fmt::format(fmt::runtime(word(protocol::words::kNoAnswer)), *state_.silentSeconds)
            : state_.refusal;
    if (!trouble.empty())
      screen_.text(end + 2, 0, " " + trouble + " ", {.colour = Colour::kBad, .inverse = true});
  }

  void lcd(const LcdStyle& style) {
    std::string edge;
    for (int i = 0; i < style.width(); ++i) edge += "─";
    screen_.text(0, 1, "┌" + edge + "┐");
    for (int y = 0; y < style.height(); ++y) {
      screen_.text(0, 2 + y, "│");
      screen_.text(style.width() + 1, 2 + y, "│");
    }
    screen_.text(0, 2 + style.height(), "└" + edge + "┘");
    if (!state_.lcd) return;
    if (style.character == nullptr) {
      for (const protocol::LcdCharacter& c : state_.lcd->characters) character(c);
      return;
    }
    for (int y = 0; y < style.height(); ++y) {
      for (int x = 0; x < style.width(); ++x)
        screen_.put(1 + x, 2 + y, style.character(pixels(style, x, y)), {}, screen_.width());
    }
  }

  unsigned pixels(const LcdStyle& style, int x, int y) const {
    unsigned bits = 0;
    for (int n = 0; n < style.cellWidth * style.cellHeight; ++n) {
      const bool isSet = state_.lcd->pixel(x * style.cellWidth + n % style.cellWidth,
                                           y * style.cellHeight + n / style.cellWidth);
      bits |= (isSet ? 1U : 0U) << n;
    }
    return bits;
  }

  // A character of two LCD cells takes two columns, even if the terminal's character is narrow.
  void character(const protocol::LcdCharacter& c) {
    const int cells = c.character < 0x80 ? 1 : 2;
    const int x = 1 + (c.x + 7) / 8;
    const int y = 2 + c.row;
    const int end = 1 + kText.width();
    if (c.row >= protocol::kLcdRows || x + cells > end) return;
    const Look look = {.inverse = c.inverse};
    for (int i = 0; i < cells; ++i) screen_.put(x + i, y, L' ', look, end);
    if (screen_.put(x, y, static_cast<wchar_t>(c.character), look, x + cells) == 0)
      screen_.put(x, y, L'?', look, end);
  }

  void lamps(int x) {
    for (int slot = 0; slot < MAX_BOARD_NUM; ++slot) {
      const std::string& state = state_.cards[static_cast<std::size_t>(slot)];
      const protocol::CardStateName* known = protocol::findCardState(state);
      const std::string_view text = state.empty()      ? word(protocol::words::kNoCard)
                                    : known != nullptr ? word(known->words)
                                                       : state;
      lamp(x, 1 + slot, !state.empty(), known != nullptr ? colourOf(known->state) : Colour::kBad,
           fmt::format("{} {}", slot + 1, text));
    }
    const std::size_t alarms = state_.alarms.size();
    lamp(x, 1 + MAX_BOARD_NUM, alarms > 0, Colour::kBad,
         fmt::format(fmt::runtime(alarms > 0 ? "{} {}" : "{}"), word(protocol::words::kAlarm), alarms));
  }

  void lamp(int x, int y, bool on, Colour colour, const std::string& text) {
    screen_.text(x, y, on ? "●" : "○", {.colour = on ? colour : Colour::kPlain});
    screen_.text(x + 2, y, text, {}, x + kLampWidth);
  }

  void keypad(int y) {
    int x = 0;
    for (const auto& [key, cap] : kKeypad)
      x = 1 + screen_.text(x, y, cap, {.inverse = key == state_.pressed});
  }

  // The RF readout, and the alarms, latest first, in the remaining lines.
  void readings(int y) {
    const int end = screen_.height() - 1;
    const int alarms = 1 + std::clamp(static_cast<int>(state_.alarms.size()), 1, kAlarmsShown);
    const int rfEnd = std::min(y + static_cast<int>(state_.rf.size()), end - alarms);
    list(y, rfEnd, state_.rf);
    screen_.text(0, rfEnd, word(protocol::words::kAlarms), {.bold = true});
    std::vector<std::string> lines;
    for (const protocol::Alarm& alarm : state_.alarms) lines.insert(lines.begin(), alarmLine(alarm));
    if (lines.empty()) lines.emplace_back(word(protocol::words::kNoAlarm));
    list(rfEnd + 1, end, lines);
  }

  void list(int y, int end, const std::vector<std::string>& lines) {
    const auto room = static_cast<std::size_t>(end - y);
    const std::size_t shown = lines.size() <= room ? lines.size() : room - 1;
    for (std::size_t i = 0; i < shown; ++i) screen_.text(0, y + static_cast<int>(i), lines[i]);
    if (shown < lines.size())
      screen_.text(0, end - 1, fmt::format(fmt::runtime(word(protocol::words::kMore)), lines.size() - shown));
  }

  std::string alarmLine(const protocol::Alarm& alarm) const {
    return fmt::format("{} {}  {:%Y-%m-%d %H:%M:%S}  {}  {}", word(protocol::words::kSlot), alarm.slot + 1,
                       fmt::gmtime(static_cast<std::time_t>(alarm.happened)),
                       word({alarm.enTitle, alarm.zhTitle}), word({alarm.enText, alarm.zhText}));
  }

  void footer(const LcdStyle& style) {
    const int y = screen_.height() - 1;
    const int x = screen_.text(0, y, word(protocol::words::kKeyHelp));
    if (state_.pixels && style.character == nullptr) screen_.text(x + 2, y, word(protocol::words::kNoRoom));
  }

  const PanelState& state_;
  Screen screen_;
};

}  // namespace

Screen drawPanel(const PanelState& state, int width, int height) {
  return PanelPainter(state, width, height).paint();
}

}  // namespace tools
