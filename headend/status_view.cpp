#include "headend/status_view.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "commands/json_fields.h"
#include "commands/status.h"
#include "headend/report.h"

namespace headend {
namespace {

using commands::Json;
using commands::oneLine;
using commands::whole;

bool isTerminal(int stream) {
  const char* kind = std::getenv("TERM");
  return ::isatty(stream) == 1 && kind != nullptr && std::string_view(kind) != "dumb";
}

// As `qamctl status`, `rates` and `rf` show them.
std::string cardsText(const Json& report) {
  std::string cards;
  std::string notes;
  for (const Json& card : report["cards"]) {
    cards += commands::cardLine(card) + '\n';
    for (std::size_t i = 0; i < card["channels"].size(); ++i) {
      const std::string name = fmt::format("{}.{}", whole(card, "slot"), i + 1);
      for (const std::string& note : commands::channelNotes(name, card["channels"][i]))
        notes += fmt::format("{}: {}\n", name, note);
    }
  }
  std::string text = cards + commands::ratesText(commands::ratesReport(report));
  for (const std::string& line : commands::rfLines(commands::rfOf(report))) text += line + '\n';
  return text + notes;
}

std::string sourcesText(const Json& report) {
  std::string text;
  for (const Json& card : report["sources"]) {
    for (const Json& input : card["inputs"]) {
      text += fmt::format("input {}.{}: {} bit/s  {}\n", whole(card, "slot"), whole(input, "input"),
                          whole(input, "bit_rate"), oneLine(input["name"]));
    }
  }
  return text;
}

// "alarms: Card1 Ch.1 Error; Card1 Ch.2 Error", as many as a line has room for.
std::string alarmLine(const Json& report) {
  constexpr std::size_t kShown = 3;
  const Json& standing = report["alarms"]["standing"];
  std::string text;
  for (std::size_t i = 0; i < standing.size() && i < kShown; ++i) {
    const Json& words = standing[i]["en"];
    text +=
        fmt::format("{} {} {}", i == 0 ? "alarms:" : ";", oneLine(words["title"]), oneLine(words["text"]));
  }
  if (standing.size() > kShown) text += fmt::format("; and {} more", standing.size() - kShown);
  return text.empty() ? "" : text + '\n';
}

}  // namespace

StatusView::StatusView(Headend& headend)
    : headend_(headend),
      terminal_(isTerminal(headend.options.fast ? STDERR_FILENO : STDOUT_FILENO)),
      next_(Clock::now()) {}

void StatusView::update() {
  const bool fast = headend_.options.fast;
  if (!terminal_ && !fast) return announceChanges();
  if (!terminal_ || (fast && ++calls_ % 256 != 0) || Clock::now() < next_) return;
  next_ = Clock::now() + std::chrono::milliseconds(fast ? 500 : 1000);
  if (!fast) return draw();
  progress_.show(fmt::format("{} of {} virtual seconds", headend_.kernel.now() / kSecond,
                             *headend_.options.duration / kSecond));
}

void StatusView::announceChanges() {
  for (const int slot : headend_.options.slots) {
    const protocol::CardState state = headend_.state(slot);
    for (u32 port = 0; port < MAX_QAM_OUT_NUM; ++port) announceOutput({static_cast<u16>(slot), port});
    if (std::exchange(announced_[slot], state) == state) continue;
    fmt::print("{:.3f} s: card {} {}\n", static_cast<double>(headend_.kernel.now()) / 1e9, slot + 1,
               protocol::nameOf(state).words.english);
    std::fflush(stdout);
  }
}

// Announces an output once it has been the same for a second, because a setting includes a reset. The text is
// made only then.
void StatusView::announceOutput(protocol::Channel channel) {
  const Nanos now = headend_.kernel.now();
  Shown& shown = outputs_[channel];
  const RfOutput output = headend_.card(channel.slot).rf(channel.port, now);
  if (output != shown.now) {
    shown.now = output;
    shown.since = now;
    shown.isNew = true;
  } else if (shown.isNew && now - shown.since >= kSecond) {
    shown.isNew = false;
    const std::string line = commands::rfLine(rfReport(output));
    if (line == shown.announced) return;
    shown.announced = line;
    fmt::print("{:.3f} s: {}  {}\n", static_cast<double>(shown.since) / 1e9, protocol::channelName(channel),
               line);
    std::fflush(stdout);
  }
}

void StatusView::draw() {
  const Json status = report(headend_);
  const std::string text =
      fmt::format("virtual time {:.1f} s, management {}\n", static_cast<double>(headend_.kernel.now()) / 1e9,
                  headend_.managementAddress()) +
      cardsText(status) + sourcesText(status) + alarmLine(status) + commands::faultsText(status) +
      "Ctrl-C ends it.\n";
  // Other lines on the same terminal have moved the old text up: draw a new one below.
  const std::uint64_t lines =
      headend_.automaticOperator.linesPrinted() + (headend_.log.onStderr() ? headend_.log.lines() : 0);
  const bool undisturbed = lines == linesThen_;
  if (linesDrawn_ > 0 && undisturbed) fmt::print("\033[{}A\033[J", linesDrawn_);
  fmt::print("\033[?7l{}\033[?7h", text);  // lines are cut at the edge, so that their number stays
  std::fflush(stdout);
  linesDrawn_ = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  linesThen_ = lines;
}

}  // namespace headend
