#include "tools/panel/panel.h"

#include <fmt/format.h>

#include <atomic>
#include <csignal>
#include <stdexcept>

#include "client/chassis_services.h"
#include "client/udp_link.h"
#include "commands/json_fields.h"
#include "commands/status_report.h"
#include "tools/panel/panel_terminal.h"
#include "tools/panel/panel_view.h"

namespace tools {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kBetweenLooks{100};
constexpr milliseconds kAfterKey{30};  // time for the menu to draw the effect of the key

// A reply takes a few milliseconds; a headend that is away must not keep the keys from being read.
constexpr client::UdpLinkOptions kQuickLink = {.timeout = milliseconds(400), .tries = 2};

std::atomic<bool> asked{false};  // a signal asked for the end
static_assert(std::atomic<bool>::is_always_lock_free);

class Panel {
 public:
  explicit Panel(const PanelOptions& options)
      : options_(options), link_(options.server, kQuickLink), heard_(Clock::now()) {
    state_.server = options.server;
    client::UdpLink patient(options.server);
    refresh(patient);
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
    commands::Json readouts = commands::Json::array();
    for (const commands::Json& card : commands::member(status, "cards")) {
      const auto slot = commands::number(card, "slot");
      if (!slot || *slot < 1 || *slot > MAX_BOARD_NUM) continue;
      state_.cards[static_cast<std::size_t>(*slot) - 1] = commands::oneLine(commands::member(card, "state"));
      for (const commands::Json& readout : commands::rfOfCard(card)) readouts.push_back(readout);
    }
    state_.rf = commands::rfLines(readouts);
  }

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
    state_.pressed = static_cast<chassis::PanelKey>(input);
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
  Clock::time_point nextStatus_;
  Clock::time_point heard_;
  bool answers_ = true;
  milliseconds wait_ = kBetweenLooks;
};

}  // namespace

void runPanel(const PanelOptions& options) {
  requirePanelTerminal();
  Panel panel(options);
  for (const int each : {SIGINT, SIGTERM, SIGHUP}) std::signal(each, [](int) { asked = true; });
  PanelTerminal terminal;
  panel.run(terminal);
}

}  // namespace tools
