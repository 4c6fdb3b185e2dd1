#define NCURSES_WIDECHAR 1
#define NCURSES_NOMACROS 1
#include "tools/panel/panel.h"

#include <curses.h>
#include <fmt/format.h>
#include <langinfo.h>
#include <poll.h>
#include <term.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cwctype>
#include <map>
#include <optional>
#include <stdexcept>

#include "client/chassis_services.h"
#include "client/udp_link.h"
#include "commands/json_fields.h"
#include "commands/status.h"
#include "tools/panel/panel_view.h"

namespace tools {
namespace {

// --- The terminal

using Colour = Look::Colour;

constexpr int kEscapeWait_ms = 50;  // for the rest of an arrow key's sequence, which a network may split
constexpr wint_t kEscape = 0x1B, kControlC = 0x03, kControlL = 0x0C;

std::string kindOfTerminal() {
  const char* kind = std::getenv("TERM");
  return kind == nullptr ? "" : kind;
}

void useUtf8() {
  const char* taken = std::setlocale(LC_ALL, "");
  if (taken != nullptr && std::string_view(nl_langinfo(CODESET)) == "UTF-8") return;
  if (std::setlocale(LC_CTYPE, "C.UTF-8") == nullptr)
    throw std::runtime_error("the panel needs a locale of UTF-8, and there is none: set LC_ALL to one");
}

attr_t attributesOf(const Look& look) {
  return (look.inverse ? A_REVERSE : A_NORMAL) | (look.bold ? A_BOLD : A_NORMAL);
}

void startColours() {
  if (!has_colors()) return;
  start_color();
  use_default_colors();
  init_pair(static_cast<short>(Colour::kGood), COLOR_GREEN, -1);
  init_pair(static_cast<short>(Colour::kWarning), COLOR_YELLOW, -1);
  init_pair(static_cast<short>(Colour::kBad), COLOR_RED, -1);
}

// What the terminal gives for a key: a small letter, a character below it, or a code of ncurses.
constexpr wint_t kLanguage = L'l', kPixels = L'p', kQuit = L'q';
const std::map<wint_t, chassis::PanelKey> kKeys = {
    {KEY_UP, chassis::kKeyUp},       {KEY_DOWN, chassis::kKeyDown},     {KEY_LEFT, chassis::kKeyLeft},
    {KEY_RIGHT, chassis::kKeyRight}, {KEY_ENTER, chassis::kKeyConfirm}, {L'\r', chassis::kKeyConfirm},
    {L'\n', chassis::kKeyConfirm},   {kEscape, chassis::kKeyCancel}};

// Throws std::runtime_error if stdin and stdout are not a terminal with a positionable cursor.
void requirePanelTerminal() {
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0)
    throw std::runtime_error("the panel needs a terminal: stdin and stdout must be one");
  const std::string kind = kindOfTerminal();
  int error = 0;
  const bool known = !kind.empty() && setupterm(kind.c_str(), STDOUT_FILENO, &error) == OK;
  if (!known || tigetstr("cup") == nullptr) {
    throw std::runtime_error(fmt::format(
        "the panel cannot draw on a terminal of kind '{}': set TERM to what it is, such as xterm", kind));
  }
  del_curterm(cur_term);
}

// The terminal, by ncurses: initialised by the constructor, restored by the destructor. Only one at a time.
class PanelTerminal {
 public:
  // Uses the environment's locale, or a UTF-8 locale if that has another encoding. Throws std::runtime_error.
  PanelTerminal() {
    useUtf8();
    terminal_ = newterm(nullptr, stdout, stdin);
    if (terminal_ == nullptr)
      throw std::runtime_error(fmt::format("the panel cannot use a terminal of kind '{}'", kindOfTerminal()));
    raw();  // Ctrl-C is a normal key, Ctrl-S does not stop the screen
    noecho();
    nonl();
    curs_set(0);
    set_escdelay(kEscapeWait_ms);
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    startColours();
  }
  ~PanelTerminal() {
    endwin();
    delscreen(terminal_);
  }
  PanelTerminal(const PanelTerminal&) = delete;
  PanelTerminal& operator=(const PanelTerminal&) = delete;

  static int width() { return getmaxx(stdscr); }
  static int height() { return getmaxy(stdscr); }
  void beep() { beep_sp(terminal_); }

  // Sends only what has changed.
  void show(const Screen& screen) {
    if (shown_ == screen) return;
    for (int y = 0; y < screen.height(); ++y) {
      for (int x = 0; x < screen.width(); ++x) {
        const Screen::Cell& cell = screen.at(x, y);
        if (cell.character == Screen::kCovered) continue;
        const std::array<wchar_t, 2> text = {cell.character, L'\0'};
        cchar_t drawn{};
        setcchar(&drawn, text.data(), attributesOf(cell.look), static_cast<short>(cell.look.colour), nullptr);
        mvadd_wch(y, x, &drawn);
      }
    }
    refresh();
    shown_ = screen;
  }

  // The next key, 0 for one without use here; nullopt after a timeout, a signal, or a change of the
  // terminal's size. A closed terminal gives kQuit.
  std::optional<wint_t> wait(std::chrono::milliseconds time) {
    pollfd input = {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    const int ready = poll(&input, 1, static_cast<int>(time.count()));
    if (ready > 0 && (input.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) return kQuit;
    wint_t key = 0;
    const int kind = get_wch(&key);
    if (kind == ERR) return std::nullopt;
    if (kind == OK && key != kControlL) return key == kControlC ? kQuit : key < KEY_MIN ? towlower(key) : 0;
    if (kind == KEY_CODE_YES && key != KEY_RESIZE) return key == KEY_F(10) ? kQuit : key;
    clearok(curscr, TRUE);
    shown_.reset();
    return std::nullopt;
  }

 private:
  SCREEN* terminal_;
  std::optional<Screen> shown_;
};

// --- The panel on it

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kBetweenLooks{100};
constexpr milliseconds kAfterKey{30};  // time for the menu to draw the effect of the key

// A reply takes a few milliseconds; a headend that is away must not keep the keys from being read.
constexpr client::UdpLinkOptions kQuickLink = {.timeout = milliseconds(400), .tries = 2};

std::atomic<bool> asked{false};  // a signal asked for the end

class Panel {
 public:
  Panel(const std::string& server, std::chrono::seconds patience)
      : patience_(patience), link_(server, kQuickLink), heard_(Clock::now()) {
    state_.server = server;
    client::UdpLink patient(server);
    refresh(patient);
  }

  void run(PanelTerminal& terminal) {
    while (!asked) {
      terminal.show(drawPanel(state_, PanelTerminal::width(), PanelTerminal::height()));
      if (wait_ != kAfterKey) state_.pressed = chassis::kKeyNone;
      auto input = terminal.wait(wait_);
      wait_ = kBetweenLooks;
      for (; input; input = terminal.wait(milliseconds(0))) {
        if (input == kQuit) return;
        if (!take(*input)) terminal.beep();
      }
      talk([this] { refresh(link_); });
    }
  }

 private:
  // Reads the LCD each time, the rest twice a second. Throws client::Error; the values read until then are in
  // the state.
  void refresh(client::Link& link) {
    state_.lcd = client::readLcd(link);
    const Clock::time_point now = Clock::now();
    if (now < nextStatus_) return;
    state_.alarms = client::readAlarms(link);
    if (const auto status = commands::statusOf(link)) take(*status);
    nextStatus_ = now + milliseconds(500);
  }

  void take(const commands::Json& status) {
    state_.cards = {};
    for (const commands::Json& card : commands::member(status, "cards")) {
      const auto slot = commands::number(card, "slot");
      if (!slot || *slot < 1 || *slot > MAX_BOARD_NUM) continue;
      state_.cards[static_cast<std::size_t>(*slot) - 1] = commands::oneLine(commands::member(card, "state"));
    }
    state_.rf = commands::rfLines(commands::rfOf(status));
  }

  // Returns false if the key has no effect.
  bool take(wint_t input) {
    const auto key = kKeys.find(input);
    if (input == kLanguage) state_.language = protocol::next(state_.language);
    if (input == kPixels) state_.pixels = !state_.pixels;
    if (key == kKeys.end()) return true;
    if (!answers_) return false;  // each key would wait for its own reply without success
    state_.pressed = key->second;
    wait_ = kAfterKey;
    return talk([this] { client::pressKey(link_, state_.pressed); });
  }

  // Throws std::runtime_error if the headend has not answered for too long.
  template <typename Exchange>
  bool talk(const Exchange& exchange) {
    try {
      exchange();
      answers_ = true;
      heard_ = Clock::now();
      state_.silentSeconds.reset();
      state_.refusal.clear();
      return true;
    } catch (const client::Error& e) {
      if (!e.gotNoReply()) {
        state_.refusal = e.what();
        return false;
      }
      answers_ = false;
      const auto silent = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - heard_);
      if (silent >= patience_)
        throw std::runtime_error(
            fmt::format("the headend has not answered for {} s: {}", silent.count(), e.what()));
      state_.silentSeconds = silent.count();
    }
    return false;
  }

  std::chrono::seconds patience_;
  PanelState state_;
  client::UdpLink link_;
  Clock::time_point nextStatus_;
  Clock::time_point heard_;
  bool answers_ = true;
  milliseconds wait_ = kBetweenLooks;
};

}  // namespace

void runPanel(const std::string& server, std::chrono::seconds patience) {
  requirePanelTerminal();
  Panel panel(server, patience);
  for (const int each : {SIGINT, SIGTERM, SIGHUP}) std::signal(each, [](int) { asked = true; });
  PanelTerminal terminal;
  panel.run(terminal);
}

}  // namespace tools
