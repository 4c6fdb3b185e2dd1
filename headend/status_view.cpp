#include "headend/status_view.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace headend {
namespace {

bool movesItsCursor() {
  const char* kind = std::getenv("TERM");
  return kind != nullptr && std::string_view(kind) != "dumb";
}

// "554.000 MHz  100.0 dBuV  64-QAM  6875 kBd (clock 6875.000)  on air"
std::string rfLine(const RfOutput& output) {
  const std::string frequency =
      output.frequency_kHz ? fmt::format("{:.3f} MHz", *output.frequency_kHz / 1e3) : "no carrier";
  const std::string clock = output.clock_kBd ? fmt::format("{:.3f}", *output.clock_kBd) : "none";
  return fmt::format("{}  {:.1f} dBuV  {}  {} kBd (clock {})  {}{}{}", frequency, output.level_dBuV,
                     constellationName(output).value_or("no constellation"), output.symbolRate_kBd, clock,
                     verdictName(output.verdict), output.why.empty() ? "" : ": ", output.why);
}

}  // namespace

StatusView::StatusView(Headend& headend)
    : headend_(headend),
      terminal_(::isatty(headend.options().fast ? STDERR_FILENO : STDOUT_FILENO) == 1 && movesItsCursor()),
      next_(Clock::now()) {}

void StatusView::update() {
  if (!headend_.options().fast) {
    if (!terminal_) return announceChanges();
    if (Clock::now() < next_) return;
    next_ = Clock::now() + std::chrono::seconds(1);
    return draw();
  }
  if (!terminal_ || ++calls_ % 256 != 0 || Clock::now() < next_) return;
  next_ = Clock::now() + std::chrono::milliseconds(500);
  showProgress();
}

void StatusView::showProgress() {
  fmt::print(stderr, "\r{} of {} virtual seconds ", headend_.kernel().now() / kSecond,
             *headend_.options().duration / kSecond);
  std::fflush(stderr);
}

void StatusView::announceChanges() {
  for (const int slot : headend_.options().slots) {
    const Headend::CardState state = headend_.state(slot);
    for (u32 port = 0; port < MAX_QAM_OUT_NUM; ++port) announceOutput({static_cast<u16>(slot), port});
    const auto [entry, isNew] = announced_.emplace(slot, state);
    if (!isNew && entry->second == state) continue;
    entry->second = state;
    fmt::print("{:.3f} s: card {} {}\n", static_cast<double>(headend_.kernel().now()) / 1e9, slot + 1,
               protocol::nameOf(state).name);
    std::fflush(stdout);
  }
}

// Once it has lasted for a second: a setting goes through a reset, and a start-up through everything.
void StatusView::announceOutput(protocol::Channel channel) {
  const Nanos now = headend_.kernel().now();
  Shown& shown = outputs_[channel];
  const std::string line = rfLine(headend_.card(channel.slot).rf(channel.port, now));
  if (line != shown.now) {
    shown.now = line;
    shown.since = now;
  } else if (line != shown.announced && now - shown.since >= kSecond) {
    shown.announced = line;
    fmt::print("{:.3f} s: {}  {}\n", static_cast<double>(shown.since) / 1e9, protocol::channelName(channel),
               line);
    std::fflush(stdout);
  }
}

// Of a channel that has been locked for long, which a client that went away does.
std::string StatusView::lockNote(int slot, int port) const {
  std::string text;
  const auto note = [&](BackEnd::Lock lock, const char* what) {
    const auto since = headend_.backEnd().lockedSince(lock, slot, port);
    const Nanos locked = since ? headend_.kernel().now() - *since : 0;
    if (locked > 10 * kSecond) text += fmt::format("  {} locked for {} s", what, locked / kSecond);
  };
  note(BackEnd::Lock::kPsi, "silent, PSI");
  note(BackEnd::Lock::kPidMap, "PID map");
  return text;
}

// "alarms: Card1 Ch.1 Error; Card1 Ch.2 Error", as many as a line has room for.
std::string StatusView::alarmLine() const {
  constexpr std::size_t kShown = 3;
  const std::vector<AlarmRecord>& standing = headend_.alarms().standing();
  if (standing.empty()) return {};
  std::string text = "alarms: ";
  for (std::size_t i = 0; i < standing.size() && i < kShown; ++i) {
    const chassis::alarm_t& alarm = standing[i].alarm;
    text += fmt::format("{}{} {}", i == 0 ? "" : "; ", alarm.StrEnTitle, alarm.StrEnCont);
  }
  if (standing.size() > kShown) text += fmt::format("; and {} more", standing.size() - kShown);
  return text + '\n';
}

std::string StatusView::table() {
  std::string text =
      fmt::format("virtual time {:.1f} s, management {}\n",
                  static_cast<double>(headend_.kernel().now()) / 1e9, headend_.managementAddress());
  for (const int slot : headend_.options().slots) {
    text += fmt::format("card {}: {}\n", slot + 1, protocol::nameOf(headend_.state(slot)).name);
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      const Multiplexer& output = headend_.card(slot).output(static_cast<std::size_t>(port));
      const RateMeter::Rates& rates = headend_.rates().output(slot, port);
      text += fmt::format(
          "  {}.{}  input {:>10.0f}  routed {:>10.0f}  PSI {:>8.0f}  null {:>10.0f}  total {:>10.0f} bit/s",
          slot + 1, port + 1, rates.input, rates.routed, rates.psi, rates.null, output.rate().perSecond());
      if (output.counts().dropped > 0) text += fmt::format("  dropped {}", output.counts().dropped);
      if (headend_.router().inputLost(slot, port, headend_.kernel().now())) text += "  input lost";
      text += lockNote(slot, port);
      text += '\n';
      text += fmt::format("       {}\n", rfLine(headend_.card(slot).rf(static_cast<std::size_t>(port),
                                                                       headend_.kernel().now())));
    }
  }
  for (const int slot : headend_.sources().slots()) {
    text += fmt::format("source card {}:\n", slot + 1);
    for (std::size_t input = 0; input < headend_.sources().inputs(slot); ++input) {
      text += fmt::format("  {}.{}  {:10.0f} bit/s  {}\n", slot + 1, input + 1,
                          headend_.rates().input(slot, static_cast<int>(input)),
                          headend_.sources().nameOf(slot, input));
    }
  }
  text += alarmLine();
  if (!headend_.assertionFailures().empty()) {
    text += fmt::format("failed checks: {}\n", headend_.assertionFailures().size());
  }
  for (const auto& [kind, count] : headend_.violations().counts())
    text += fmt::format("violation {}: {}\n", kind, count);
  return text + "Ctrl-C ends it.\n";
}

void StatusView::draw() {
  for (const int slot : headend_.options().slots) headend_.card(slot).advanceOutputs(headend_.kernel().now());
  const std::string text = table();
  // Debug lines on the same terminal have moved the old table up: draw a new table below.
  const bool undisturbed = !headend_.log().onStderr() || headend_.log().lines() == logLinesThen_;
  if (linesDrawn_ > 0 && undisturbed) fmt::print("\033[{}A\033[J", linesDrawn_);
  fmt::print("{}", text);
  std::fflush(stdout);
  linesDrawn_ = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  logLinesThen_ = headend_.log().lines();
}

}  // namespace headend
