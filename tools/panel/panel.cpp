#include "tools/panel/panel.h"

#include <fmt/format.h>

#include <atomic>
#include <csignal>
#include <stdexcept>

#include "client/chassis_services.h"
#include "client/udp_link.h"
#include "tools/panel/panel_feed.h"
#include "tools/panel/panel_terminal.h"

namespace tools {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kBetweenLooks{100};
constexpr milliseconds kAfterKey{30};  // time for the menu to draw the effect of the key

// A reply takes a few milliseconds; a headend that is away must not keep the keys from being read.
constexpr client::UdpLinkOptions kQuickLink = {.timeout = milliseconds(400), .tries = 2};

std::atomic<bool> asked{false};
static_assert(std::atomic<bool>::is_always_lock_free);

// Signals that ask for the end do so while it lives.
class EndBySignal {
 public:
  EndBySignal() {
    asked = false;
    struct sigaction action {};
    action.sa_handler = [](int) { asked = true; };
    for (std::size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &action, &old_[i]);
  }
  ~EndBySignal() {
    for (std::size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &old_[i], nullptr);
  }
  EndBySignal(const EndBySignal&) = delete;
  EndBySignal& operator=(const EndBySignal&) = delete;

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
  struct sigaction old_[std::size(kSignals)] = {};
};

chassis::PanelKey keyOfInput(PanelInput input) {
  switch (input) {
    case PanelInput::kUp:
      return chassis::kKeyUp;
    case PanelInput::kDown:
      return chassis::kKeyDown;
    case PanelInput::kLeft:
      return chassis::kKeyLeft;
    case PanelInput::kRight:
      return chassis::kKeyRight;
    case PanelInput::kConfirm:
      return chassis::kKeyConfirm;
    case PanelInput::kCancel:
      return chassis::kKeyCancel;
    default:
      return chassis::kKeyNone;
  }
}

class Panel {
 public:
  explicit Panel(const PanelOptions& options)
      : options_(options), link_(options.server, kQuickLink), heard_(Clock::now()) {
    state_.server = options.server;
    client::UdpLink patient(options.server);
    PanelFeed(patient).refresh(state_);
  }

  void run(PanelTerminal& terminal) {
    while (!asked) {
      terminal.show(drawPanel(state_, terminal.width(), terminal.height()));
      if (wait_ != kAfterKey) state_.pressed = chassis::kKeyNone;
      auto input = terminal.wait(wait_);
      wait_ = kBetweenLooks;
      for (; input; input = terminal.wait(milliseconds(0))) {
        if (input == PanelInput::kQuit) return;
        if (!take(*input)) terminal.beep();
      }
      talk([this] { feed_.refresh(state_); });
    }
  }

 private:
  // Returns false if the key has no effect.
  bool take(PanelInput input) {
    using Language = PanelState::Language;
    if (input == PanelInput::kLanguage) {
      state_.language = state_.language == Language::kEnglish ? Language::kChinese : Language::kEnglish;
      return true;
    }
    if (input == PanelInput::kPixels) {
      state_.pixels = !state_.pixels;
      return true;
    }
    if (!answers_) return false;  // each key would wait for its own reply without success
    state_.pressed = keyOfInput(input);
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
      if (silent >= options_.patience)
        throw std::runtime_error(
            fmt::format("the headend has not answered for {} s: {}", silent.count(), e.what()));
      state_.silentSeconds = silent.count();
    }
    return false;
  }

  PanelOptions options_;
  PanelState state_;
  client::UdpLink link_;
  PanelFeed feed_{link_};
  Clock::time_point heard_;
  bool answers_ = true;
  milliseconds wait_ = kBetweenLooks;
};

}  // namespace

void runPanel(const PanelOptions& options) {
  requirePanelTerminal();
  Panel panel(options);
  const EndBySignal endBySignal;
  PanelTerminal terminal;
  panel.run(terminal);
}

}  // namespace tools
