#define NCURSES_WIDECHAR 1
#define NCURSES_NOMACROS 1
#include "tools/panel/panel_terminal.h"

#include <curses.h>
#include <fmt/format.h>
#include <langinfo.h>
#include <poll.h>
#include <term.h>
#include <unistd.h>

#include <array>
#include <clocale>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

namespace tools {
namespace {

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

using Keys = std::map<wint_t, PanelInput>;
const Keys kFunctionKeys = {{KEY_UP, PanelInput::kUp},         {KEY_DOWN, PanelInput::kDown},
                            {KEY_LEFT, PanelInput::kLeft},     {KEY_RIGHT, PanelInput::kRight},
                            {KEY_ENTER, PanelInput::kConfirm}, {KEY_F(10), PanelInput::kQuit}};
const Keys kCharacterKeys = {{L'\r', PanelInput::kConfirm},  {L'\n', PanelInput::kConfirm},
                             {kEscape, PanelInput::kCancel}, {L'l', PanelInput::kLanguage},
                             {L'L', PanelInput::kLanguage},  {L'p', PanelInput::kPixels},
                             {L'P', PanelInput::kPixels},    {L'q', PanelInput::kQuit},
                             {L'Q', PanelInput::kQuit},      {kControlC, PanelInput::kQuit}};

std::optional<PanelInput> find(const Keys& keys, wint_t key) {
  const auto found = keys.find(key);
  return found == keys.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace

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

PanelTerminal::PanelTerminal() {
  useUtf8();
  terminal_ = newterm(nullptr, stdout, stdin);
  if (terminal_ == nullptr)
    throw std::runtime_error(fmt::format("the panel cannot use a terminal of kind '{}'", kindOfTerminal()));
  window_ = stdscr;
  raw();  // Ctrl-C is a normal key, Ctrl-S does not stop the screen
  noecho();
  nonl();
  curs_set(0);
  set_escdelay(kEscapeWait_ms);
  keypad(window_, TRUE);
  nodelay(window_, TRUE);
  startColours();
}

PanelTerminal::~PanelTerminal() {
  endwin();
  delscreen(terminal_);
}

int PanelTerminal::width() const {
  return getmaxx(window_);
}

int PanelTerminal::height() const {
  return getmaxy(window_);
}

void PanelTerminal::show(const Screen& screen) {
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

void PanelTerminal::beep() {
  beep_sp(terminal_);
}

std::optional<PanelInput> PanelTerminal::wait(std::chrono::milliseconds time) {
  pollfd input = {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
  const int ready = poll(&input, 1, static_cast<int>(time.count()));
  if (ready > 0 && (input.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0) return PanelInput::kQuit;
  wint_t key = 0;
  const int kind = get_wch(&key);
  if (kind == ERR) return std::nullopt;
  if (kind == OK && key != kControlL) return find(kCharacterKeys, key);
  if (kind == KEY_CODE_YES && key != KEY_RESIZE) return find(kFunctionKeys, key);
  clearok(curscr, TRUE);
  shown_.reset();
  return std::nullopt;
}

}  // namespace tools
