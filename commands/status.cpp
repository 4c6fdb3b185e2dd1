// Also the commands status, rates and rf.
#include "commands/status.h"

#include <fmt/format.h>

#include "base/text.h"
#include "commands/command.h"
#include "protocol/words.h"

namespace commands {
namespace {

constexpr const char* kRates[] = {"input", "routed", "psi", "null", "total"};

// "-" where nothing is measured.
std::string measured(const Json& entry, const char* key, double unit, int decimals) {
  const auto value = number(entry, key);
  return value ? fmt::format("{:.{}f}", *value / unit, decimals) : "-";
}

constexpr double kLongLock_s = 10;  // an upload takes much less

std::string tablesOf(const Json& channel) {
  std::string text;
  const Json tables = member(channel, "tables");
  for (const auto& [name, table] : tables.items()) {
    const auto posted = number(table, "posted");
    if (!posted || *posted <= 0) continue;
    text += fmt::format(" {} {:.0f}/{}", base::printable(name), *posted, whole(table, "set_ticks"));
  }
  return text.empty() ? " none" : text;
}

constexpr auto kChannelRow = "    {:<4} {:>12} {:>12} {:>12} {:>12} {:>12}\n";

std::string channelText(const std::string& name, const Json& channel) {
  const Json packets = member(channel, "packets");
  std::string text = fmt::format(kChannelRow, name, whole(channel, "bit_rate"), whole(packets, "total"),
                                 whole(packets, "psi"), whole(packets, "routed"), whole(packets, "null"));
  text += fmt::format("         tables (posted/interval):{}\n", tablesOf(channel));
  for (const std::string& note : channelNotes(name, channel)) text += fmt::format("         {}\n", note);
  return text;
}

std::string cardText(const Json& card) {
  std::string text = cardLine(card) + '\n';
  const Json channels = member(card, "channels");
  if (!channels.is_array() || channels.empty()) return text;
  text += fmt::format(kChannelRow, "", "bit/s", "packets", "PSI", "routed", "null");
  for (std::size_t i = 0; i < channels.size(); ++i) {
    text += channelText(fmt::format("{}.{}", whole(card, "slot"), i + 1), channels[i]);
  }
  return text;
}

// Kinds and their counts, or the number of entries of a list.
std::string faultsText(const Json& status, const char* key, const char* title) {
  const Json faults = member(status, key);
  if (faults.empty()) return "";
  if (!faults.is_object()) return fmt::format("{}: {}\n", title, faults.size());
  std::string text;
  for (const auto& [kind, count] : faults.items()) {
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", base::printable(kind), oneLine(count));
  }
  return fmt::format("{}: {}\n", title, text);
}

}  // namespace

std::string cardLine(const Json& card) {
  const std::string state = oneLine(member(card, "state"));
  const protocol::CardStateName* known = protocol::findCardState(state);
  std::string text =
      fmt::format("slot {}: {}", whole(card, "slot"), known != nullptr ? known->words.english : state);
  if (const auto ms = number(card, "startup_ms")) text += fmt::format(", started in {:.0f} ms", *ms);
  if (const std::string lcd = oneLine(member(card, "lcd")); !lcd.empty())
    text += fmt::format(", LCD: {}", lcd);
  if (member(card, "record_kept") == false)
    text += fmt::format(", {}", protocol::words::kRecordNotKept.english);
  return text;
}

std::vector<std::string> channelNotes(const std::string& name, const Json& channel) {
  std::vector<std::string> notes;
  const auto locked = number(channel, "locked_seconds");
  if (locked && *locked > kLongLock_s) {
    notes.push_back(
        fmt::format("LOCKED for {:.0f} s and silent: its upload broke off. 'qamctl psi load {} FILE --force' "
                    "loads it anew, 'qamctl psi clear {} --force' leaves it empty",
                    *locked, name, name));
  } else if (locked) {
    notes.push_back(fmt::format("locked for {:.0f} s: an upload is under way", *locked));
  }
  const Json map = member(channel, "map");
  const auto mapLocked = number(map, "locked_seconds");
  if (mapLocked && *mapLocked > kLongLock_s)
    notes.push_back(fmt::format("PID map LOCKED for {:.0f} s: its load broke off", *mapLocked));
  if (member(map, "input_lost") == true) notes.emplace_back("input lost");
  return notes;
}

std::string faultsText(const Json& status) {
  return faultsText(status, "assertion_failures", "failed checks") +
         faultsText(status, "protocol_violations", "protocol violations");
}

std::optional<Json> statusOf(client::Link& link) {
  const protocol::Reply reply = link.call(protocol::makeRequest(protocol::Operation::kStatus, 0, 0, 0, {}));
  if (reply.result != protocol::kDone) return std::nullopt;
  constexpr int kMaxDepth = 16;  // more than any status has; deeper levels are not shown
  const auto shallow = [](int depth, Json::parse_event_t, Json&) { return depth < kMaxDepth; };
  Json status = Json::parse(reply.data.begin(), reply.data.end(), shallow, false);
  return status.is_object() ? std::optional(std::move(status)) : std::nullopt;
}

std::optional<client::InputCounts> inputsOf(const Json& status) {
  const Json cards = member(status, "sources");
  if (!cards.is_array()) return std::nullopt;
  client::InputCounts counts;
  for (const Json& card : cards) {
    const auto slot = number(card, "slot");
    const Json inputs = member(card, "inputs");
    if (!slot || *slot < 1 || *slot > MAX_BOARD_NUM || !inputs.is_array()) return std::nullopt;
    counts[static_cast<u16>(*slot - 1)] = static_cast<u32>(inputs.size());
  }
  return counts;
}

std::optional<double> auxHzOf(const Json& status) {
  const auto hz = number(status, "aux_hz");
  return hz && *hz > 0 ? hz : std::nullopt;
}

std::string statusText(const Json& status) {
  std::string text;
  if (const auto seconds = number(status, "virtual_seconds"))
    text += fmt::format("running for {:.1f} s", *seconds);
  if (const auto hz = auxHzOf(status))
    text += fmt::format("{}{:.0f} ticks a second", text.empty() ? "" : ", ", *hz);
  if (!text.empty()) text += '\n';
  for (const Json& card : member(status, "cards")) {
    if (card.is_object()) text += cardText(card);
  }
  text += faultsText(status);
  return text.empty() ? "the chassis reports nothing\n" : text;
}

Json rfOf(const Json& status, std::optional<int> slot) {
  Json readouts = Json::array();
  for (const Json& card : member(status, "cards")) {
    const auto place = number(card, "slot");
    const Json channels = member(card, "channels");
    if (!place || (slot && *place != *slot + 1) || !channels.is_array()) continue;
    for (std::size_t i = 0; i < channels.size(); ++i) {
      const Json rf = member(channels[i], "rf");
      if (!rf.is_object()) continue;
      readouts.push_back({{"slot", member(card, "slot")}, {"channel", i + 1}});
      readouts.back().update(rf);
    }
  }
  return readouts;
}

std::string rfLine(const Json& readout) {
  const std::string frequency = measured(readout, "frequency_khz", 1000, 3);
  const std::string constellation = oneLine(member(readout, "constellation"));
  const std::string clock = measured(readout, "clock_kbd", 1, 3);
  const std::string why = oneLine(member(readout, "why"));
  return fmt::format(
      "{}  {} dBuV  {}  {} kBd (clock {})  {}{}{}", frequency == "-" ? "no carrier" : frequency + " MHz",
      measured(readout, "level_dbuv", 1, 1), constellation.empty() ? "no constellation" : constellation,
      measured(readout, "symbol_rate_kbd", 1, 0), clock == "-" ? "none" : clock,
      oneLine(member(readout, "verdict")), why.empty() ? "" : ": ", why);
}

std::vector<std::string> rfLines(const Json& readouts) {
  constexpr auto kRow = "{:<4} {:<8} {:>9} {:>6} {:>8} {:>5} {:>10} {:>9}";
  std::vector<std::string> lines = {
      fmt::format(kRow, "", "", "MHz", "dBuV", "", "kBd", "clock kBd", "bit/s")};
  for (const Json& entry : readouts) {
    const std::string constellation = oneLine(member(entry, "constellation"));
    lines.push_back(fmt::format(kRow, fmt::format("{}.{}", whole(entry, "slot"), whole(entry, "channel")),
                                oneLine(member(entry, "verdict")), measured(entry, "frequency_khz", 1000, 4),
                                measured(entry, "level_dbuv", 1, 1),
                                constellation.empty() ? "-" : constellation,
                                measured(entry, "symbol_rate_kbd", 1, 0), measured(entry, "clock_kbd", 1, 3),
                                measured(entry, "bit_rate", 1, 0)));
    const std::string why = oneLine(member(entry, "why"));
    if (!why.empty()) lines.push_back("     " + why);
  }
  return lines;
}

Json ratesReport(const Json& status) {
  Json list = Json::array();
  for (const Json& card : member(status, "cards")) {
    const Json channels = member(card, "channels");
    if (!channels.is_array()) continue;
    for (std::size_t i = 0; i < channels.size(); ++i) {
      const Json rates = member(channels[i], "rates");
      Json row = {{"channel", fmt::format("{}.{}", whole(card, "slot"), i + 1)}};
      for (const char* rate : kRates) row[rate] = member(rates, rate);
      row["dropped"] = member(member(channels[i], "packets"), "dropped");
      list.push_back(std::move(row));
    }
  }
  return list;
}

std::string ratesText(const Json& report) {
  std::string text = fmt::format("{:<4}", "");
  for (const char* rate : kRates) text += fmt::format(" {:>11}", rate);
  text += fmt::format(" {:>11}\n", "dropped");
  for (const Json& row : report) {
    text += fmt::format("{:<4}", oneLine(row["channel"]));
    for (const char* rate : kRates) text += fmt::format(" {:>11}", whole(row, rate));
    text += fmt::format(" {:>11}\n", whole(row, "dropped"));
  }
  return text + "Rates in bit/s, of packets of 188 bytes; dropped in packets since the start.\n";
}

Json alarmJson(const protocol::Alarm& alarm) {
  return {{"slot", alarm.slot + 1},
          {"port", alarm.port + 1},
          {"channel", alarm.channel > 0 ? Json(alarm.channel) : Json()},
          {"type", alarm.type},
          {"severity", nameOf(protocol::severityOf(alarm.type))},
          {"happened", alarm.happened},
          {"en", {{"title", alarm.enTitle}, {"text", alarm.enText}, {"trap", alarm.enTrap}}},
          {"zh", {{"title", alarm.zhTitle}, {"text", alarm.zhText}, {"trap", alarm.zhTrap}}}};
}

// --- The commands

namespace {

std::string noCard(std::optional<int> slot) {
  return slot ? fmt::format("no card in slot {}", *slot + 1) : "the chassis has no card";
}

std::string startupText(const Json& cards) {
  constexpr auto kRow = "  {:<24} {:>10} {:>10} {:>9}\n";
  std::string text;
  for (const Json& card : cards) {
    text += cardLine(card) + '\n' + fmt::format(kRow, "phase", "from ms", "ms", "accesses");
    for (const Json& phase : member(card, "startup")) {
      text += fmt::format(kRow, oneLine(member(phase, "phase")), measured(phase, "from_ms", 1, 3),
                          measured(phase, "ms", 1, 3), whole(phase, "bus_accesses"));
    }
  }
  return text;
}

Json requiredStatus(Session& session) {
  auto status = statusOf(session.link());
  if (!status) throw std::runtime_error(fmt::format("{}: the server reports no status", session.chassis()));
  return *std::move(status);
}

struct Status final : Command {
  void describe(Form& form) override { takeJson(form); }
  void carryOut(Session& session) override {
    const Json status = requiredStatus(session);
    session.print(json ? jsonText(status) : statusText(status));
  }
};

struct Startup final : Command {
  void describe(Form& form) override {
    takeSlot(form, false);
    takeJson(form);
    form.footer(
        "Times are in ms since power-up. Cards start at the same time and share the processor.\n"
        "\nExample: qamctl startup 1");
  }
  void carryOut(Session& session) override {
    Json cards = Json::array();
    const Json status = requiredStatus(session);
    for (const Json& card : member(status, "cards")) {
      if (target.slot && number(card, "slot") != *target.slot + 1) continue;
      cards.push_back({{"slot", member(card, "slot")},
                       {"state", member(card, "state")},
                       {"startup_ms", member(card, "startup_ms")},
                       {"startup", member(card, "startup")}});
    }
    if (cards.empty())
      throw std::runtime_error(fmt::format("{}: {}", session.chassis(), noCard(target.slot)));
    session.print(json ? jsonText(cards) : startupText(cards));
  }
};

// For scripts: also waits for a headend that does not answer yet.
struct Wait final : Command {
  void describe(Form& form) override {
    takeSlot(form, false);
    form.integer(Option("--patience", "S", "seconds after which it fails"), patience_s_, 0, 86'400);
    form.footer(
        "Ends when the card runs, or all cards do; fails as soon as one cannot. Waits too for a headend that "
        "does not answer yet.\n"
        "\nExample: qamctl wait 1 && qamctl rf 1");
  }

  void carryOut(Session& session) override {
    constexpr std::chrono::milliseconds kPoll{200};
    for (std::chrono::milliseconds left = std::chrono::seconds(patience_s_);; left -= kPoll) {
      std::string missing;
      try {
        missing = notRunning(session);
        if (missing.empty()) return;
      } catch (const client::Error& e) {
        if (!e.gotNoReply()) throw;
        missing = e.what();
      }
      if (left.count() <= 0) throw std::runtime_error(missing);
      session.pause(kPoll);
    }
  }

  // The card that starts; empty: there is none.
  std::string notRunning(Session& session) const {
    std::string starting;
    bool isThere = false;
    const Json status = requiredStatus(session);
    for (const Json& card : member(status, "cards")) {
      if (target.slot && number(card, "slot") != *target.slot + 1) continue;
      isThere = true;
      const std::string state = oneLine(member(card, "state"));
      if (state == nameOf(protocol::CardState::kStarting).name)
        starting = cardLine(card);
      else if (state != nameOf(protocol::CardState::kRunning).name)
        throw std::runtime_error(cardLine(card));
    }
    if (!isThere) throw std::runtime_error(fmt::format("{}: no card to wait for", session.chassis()));
    return starting;
  }

  unsigned patience_s_ = 60;
};

struct Rates final : Command {
  void describe(Form& form) override {
    takeJson(form);
    form.footer(
        "Input is what comes in from the inputs that the channel's PID map names, routed what of it is sent. "
        "A channel that drops packets has more routed to it than its symbol rate and constellation carry.\n"
        "\nExample: qamctl rates --json");
  }
  void carryOut(Session& session) override {
    const Json report = ratesReport(requiredStatus(session));
    session.print(json ? jsonText(report) : ratesText(report));
  }
};

struct Rf final : Command {
  void describe(Form& form) override {
    takeSlot(form, false);
    takeJson(form);
    form.footer(
        "kBd is the symbol rate that the modulator was set to, clock kBd the one that the clock generator "
        "gives. A channel\n"
        "is on air, off, or faulty; the line below says why. '-' is for a value that cannot be measured.\n"
        "\nExample: qamctl rf 1");
  }

  void carryOut(Session& session) override {
    const Json status = requiredStatus(session);
    const Json all = rfOf(status, target.slot);
    if (all.empty()) throw std::runtime_error(fmt::format("{}: {}", session.chassis(), whyNone(status)));
    if (json) return session.print(jsonText(all));
    for (const std::string& line : rfLines(all)) session.print(line + "\n");
  }

  std::string whyNone(const Json& status) const {
    for (const Json& card : member(status, "cards")) {
      const auto place = number(card, "slot");
      if (place && (!target.slot || *place == *target.slot + 1)) return "the server reports no RF output";
    }
    return noCard(target.slot);
  }
};

}  // namespace

Group statusCommands() {
  return {.commands = {
              {"status", "Show the cards of the chassis and what they send", make<Status>},
              {"startup", "Show the phases of the cards' start-up", make<Startup>},
              {"wait", "Wait until a card runs, or all", make<Wait>},
              {"rates", "Show the rates of each channel: input, routed, PSI, null and total", make<Rates>},
              {"rf", "Show what goes out at the RF connectors", make<Rf>}}};
}

}  // namespace commands
