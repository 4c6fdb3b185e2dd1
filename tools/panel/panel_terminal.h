// The terminal that the panel stands on, by ncurses: its own from construction to destruction, which leaves
// it as it was found. One at a time.
#pragma once

#include <chrono>
#include <optional>

#include "tools/panel/screen.h"

// Of ncurses.
struct screen;
struct _win_st;

namespace tools {

enum class PanelInput { kUp, kDown, kLeft, kRight, kConfirm, kCancel, kLanguage, kPixels, kQuit };

// Throws std::runtime_error where stdin and stdout are no terminal on which a cursor can be placed.
void requirePanelTerminal();

class PanelTerminal {
 public:
  // Takes the environment's locale, or one of UTF-8 where that has another coding. Throws std::runtime_error.
  PanelTerminal();
  ~PanelTerminal();
  PanelTerminal(const PanelTerminal&) = delete;
  PanelTerminal& operator=(const PanelTerminal&) = delete;

  int width() const;
  int height() const;
  void show(const Screen& screen);  // sends only what has changed
  void beep();

  // The next key; nothing when none came in that time, or a signal did, or the terminal has another size now.
  // A terminal that is gone is as good as kQuit.
  std::optional<PanelInput> wait(std::chrono::milliseconds time);

 private:
  screen* terminal_;
  _win_st* window_;
  std::optional<Screen> shown_;
};

}  // namespace tools
