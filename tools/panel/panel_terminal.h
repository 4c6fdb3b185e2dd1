// The terminal of the panel, by ncurses: initialised by the constructor, restored by the destructor. Only one
// at a time.
#pragma once

#include <chrono>
#include <optional>

#include "platform/panel.h"
#include "tools/panel/screen.h"

// Types of ncurses.
struct screen;
struct _win_st;

namespace tools {

// A key of the panel, or a command of its own.
enum class PanelInput : u8 {
  kUp = chassis::kKeyUp,
  kDown = chassis::kKeyDown,
  kLeft = chassis::kKeyLeft,
  kRight = chassis::kKeyRight,
  kConfirm = chassis::kKeyConfirm,
  kCancel = chassis::kKeyCancel,
  kLanguage = 0x80,
  kPixels,
  kQuit
};

// Throws std::runtime_error if stdin and stdout are not a terminal with a positionable cursor.
void requirePanelTerminal();

class PanelTerminal {
 public:
  // Uses the environment's locale, or a UTF-8 locale if that has another encoding. Throws std::runtime_error.
  PanelTerminal();
  ~PanelTerminal();
  PanelTerminal(const PanelTerminal&) = delete;
  PanelTerminal& operator=(const PanelTerminal&) = delete;

  int width() const;
  int height() const;
  void show(const Screen& screen);  // sends only what has changed
  void beep();

  // The next key; nullopt after a timeout, a signal, or a change of the terminal's size. A closed terminal
  // gives kQuit.
  std::optional<PanelInput> wait(std::chrono::milliseconds time);

 private:
  screen* terminal_;
  _win_st* window_;
  std::optional<Screen> shown_;
};

}  // namespace tools
