// call: runs a routine of a card that is meant for a debug shell, and shows what it prints.
#include <fmt/format.h>

#include <stdexcept>
#include <vector>

#include "base/text.h"
#include "client/chassis_services.h"
#include "commands/families.h"
#include "commands/values.h"

namespace commands {
namespace {

constexpr std::chrono::milliseconds kPoll{100};

// Decimal, negative too as a debug shell takes them, or 0x.
u32 argumentOf(const std::string& text) {
  const bool isNegative = text.starts_with('-');
  const auto value = base::parseNumber(std::string_view(text).substr(isNegative ? 1 : 0));
  if (!value) throw std::invalid_argument(fmt::format("'{}' is no number of 32 bits, decimal or 0x", text));
  return isNegative ? 0u - *value : *value;
}

// The lines of a text, safe on a terminal; what is new since `shown` bytes.
std::string newText(const std::string& printed, std::size_t& shown) {
  std::string text;
  std::string line;
  for (; shown < printed.size(); ++shown) {
    if (printed[shown] != '\n') {
      line += printed[shown];
      continue;
    }
    text += base::printable(line) + '\n';
    line.clear();
  }
  return text + base::printable(line);
}

class CallRoutine final : public Command {
 public:
  void describe(Form& form) override {
    takeSlot(form);
    form.text(Option("routine", "ROUTINE", "its name").required(), routine_);
    form.values(Option("arguments", "ARGS", "numbers, decimal or 0x").count(1, kAny), arguments_, argumentOf);
    form.number(Option("--seconds", "S", "how long to wait for its end"), seconds_, 0.001, 1e6);
    form.footer("The routine runs in a task of its own; what it prints is shown as it comes.");
  }

  void carryOut(Session& session) override {
    const u16 card = static_cast<u16>(slot());
    const u32 number = client::beginCall(session.link(), card, routine_, arguments_);
    std::size_t shown = 0;
    for (double waited_s = 0;; waited_s += std::chrono::duration<double>(kPoll).count()) {
      const client::CallState state = client::callState(session.link(), card, number);
      session.print(newText(state.printed, shown));
      if (state.finished) return;
      if (waited_s >= seconds_) {
        throw std::runtime_error(
            fmt::format("{} of card {} has not returned within {:g} s; it goes on (--seconds waits longer)",
                        routine_, slot() + 1, seconds_));
      }
      session.pause(kPoll);
    }
  }

 private:
  std::string routine_;
  std::vector<u32> arguments_;
  double seconds_ = 10;
};

}  // namespace

Group callCommands() {
  return {.commands = {{"call", "Run a routine of a card that is meant for a debug shell", Needs::kChassis,
                        make<CallRoutine>}}};
}

}  // namespace commands
