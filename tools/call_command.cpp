// qamctl call: runs a routine of a card that is meant for a debug shell, and shows what it prints.
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "base/numbers.h"
#include "base/text.h"
#include "client/chassis_services.h"
#include "client/udp_link.h"
#include "tools/commands.h"

namespace tools {
namespace {

constexpr std::chrono::milliseconds kPoll{100};

struct Options {
  const std::string& server;
  std::string slot{};
  std::string routine{};
  std::vector<std::string> arguments{};
  double seconds = 10;
};

// Decimal, negative too as a debug shell takes them, or 0x.
std::optional<u32> argumentOf(std::string_view text) {
  if (!text.starts_with('-')) return base::parseNumber(text);
  const auto value = base::parseNumber(text.substr(1));
  return value ? std::optional(0u - *value) : std::nullopt;
}

std::string checkArgument(const std::string& text) {
  return argumentOf(text) ? "" : fmt::format("'{}' is no number of 32 bits, decimal or 0x", text);
}

// The lines of a text, safe on a terminal; what is new since `shown` bytes.
void printNew(const std::string& printed, std::size_t& shown) {
  std::string line;
  for (; shown < printed.size(); ++shown) {
    if (printed[shown] != '\n') {
      line += printed[shown];
      continue;
    }
    fmt::print("{}\n", base::printable(line));
    line.clear();
  }
  fmt::print("{}", base::printable(line));
  std::fflush(stdout);
}

void run(const Options& options) {
  std::vector<u32> arguments;
  for (const std::string& text : options.arguments) arguments.push_back(argumentOf(text).value());
  client::UdpLink link(options.server);
  const u16 slot = static_cast<u16>(slotOf(options.slot));
  const u32 number = client::beginCall(link, slot, options.routine, arguments);
  std::size_t shown = 0;
  for (double waited_s = 0;; waited_s += std::chrono::duration<double>(kPoll).count()) {
    const client::CallState state = client::callState(link, slot, number);
    printNew(state.printed, shown);
    if (state.finished) break;
    if (waited_s >= options.seconds) {
      throw std::runtime_error(
          fmt::format("{} of card {} has not returned within {:g} s; it goes on (--seconds waits longer)",
                      options.routine, options.slot, options.seconds));
    }
    link.wait(kPoll);
  }
}

}  // namespace

void addCallCommand(CLI::App& app, const std::string& server) {
  const auto options = std::make_shared<Options>(Options{.server = server});
  CLI::App* call = addCommand(app, "call", "Run a routine of a card that is meant for a debug shell",
                              [options] { run(*options); });
  addSlot(call, options->slot)->required();
  call->add_option("routine", options->routine, "its name")->required()->type_name("ROUTINE");
  call->add_option("arguments", options->arguments, "numbers, decimal or 0x")
      ->check(checkArgument)
      ->type_name("ARGS");
  call->add_option("--seconds", options->seconds, "how long to wait for its end")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  call->footer("The routine runs in a task of its own; what it prints is shown as it comes.");
}

}  // namespace tools
