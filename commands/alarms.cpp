// alarms: the alarms that are raised, the events of the chassis's log, and those to come.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "client/chassis_services.h"
#include "commands/command.h"
#include "commands/status.h"

namespace commands {
namespace {

using protocol::AlarmEvent;

constexpr std::chrono::milliseconds kFollowPoll{500};

std::string utc(u32 seconds) {
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::time_t{seconds}));
}

// One line of JSON, with the time as a text.
std::string lineOf(Json alarm) {
  const auto happened = alarm["happened"].get<u32>();
  alarm["happened"] = happened > 0 ? Json(utc(happened)) : Json();  // 0: it was not raised
  return alarm.dump(-1, ' ', true, Json::error_handler_t::replace) + "\n";
}

// "1.1  critical  Card1: Ch.1 Error (No Input)"; "1" where the alarm is of the whole card
std::string textOf(const protocol::Alarm& alarm, chassis::Language language) {
  const auto text = [&](const protocol::Words& words) { return oneLine(std::string(words.in(language))); };
  const std::string channel = alarm.channel > 0 ? fmt::format(".{}", alarm.channel) : "";
  const std::string trap = text({alarm.enTrap, alarm.zhTrap});
  const std::string texts = alarm.enTitle.empty()  // a recovery without an alarm
                                ? trap
                                : fmt::format("{}: {} ({})", text({alarm.enTitle, alarm.zhTitle}),
                                              text({alarm.enText, alarm.zhText}), trap);
  return fmt::format("{}{}  {}  {}", alarm.slot + 1, channel, nameOf(protocol::severityOf(alarm.type)),
                     texts);
}

struct Alarms final : Command {
  void describe(Form& form) override {
    form.flag("--history", "the events of the log, oldest first", history_);
    form.flag("--follow", "then go on with each event as it comes, until interrupted", follow_);
    form.take(Option("--lang", "LANG", "language of the texts: zh or en").byDefault("en"),
              [this](const std::string& text) {
                const auto* found = std::ranges::find(chassis::kLanguages, text, protocol::codeOf);
                if (found == std::end(chassis::kLanguages))
                  throw std::invalid_argument("'" + text + "' is not zh or en");
                language_ = *found;
              });
    form.flag("--json", "one line of JSON an alarm or event, with both languages", json);
    form.footer(
        "A line has the time (UTC), slot and port, title, text, and in brackets the text for logs.\n"
        "\nExample: qamctl alarms --history --follow --lang zh");
  }

  void prepare(Surroundings& surroundings) override {
    if (follow_ && !surroundings.attended) throw WrongCall("--follow goes on until a user interrupts it");
  }

  void carryOut(Session& session) override {
    client::Link& link = session.link();
    std::uint64_t next = follow_ ? client::nextAlarmEvent(link) : 0;
    if (history_) {
      next = showEvents(session, 0, next);
    } else {
      const std::vector<protocol::Alarm> alarms = client::readAlarms(link);
      for (const protocol::Alarm& alarm : alarms) session.print(textOf(alarm));
      if (alarms.empty() && !json) session.print("no alarm is raised\n");
    }
    if (!follow_) return;
    session.holdSignals(true);
    while (session.pause(kFollowPoll)) next = showEvents(session, next, next);
  }

  // The events from a number on. Returns the number of the next one, `none` where there are none.
  std::uint64_t showEvents(Session& session, std::uint64_t from, std::uint64_t none) const {
    for (const AlarmEvent& event : client::readAlarmEvents(session.link(), from)) {
      session.print(textOf(event));
      none = event.number + 1;
    }
    return none;
  }

  std::string textOf(const protocol::Alarm& alarm) const {
    if (json) return lineOf(alarmJson(alarm));
    return fmt::format("{}  {}\n", utc(alarm.happened), commands::textOf(alarm, language_));
  }

  std::string textOf(const AlarmEvent& event) const {
    const protocol::AlarmEventKind& kind = protocol::kindOf(event);
    if (json) {
      Json line = {{"number", event.number}, {"at", utc(event.at)}, {"event", kind.name}};
      line.update(alarmJson(event.alarm));
      return lineOf(line);
    }
    return fmt::format("{}  {}: {}\n", utc(event.at), kind.words.in(language_),
                       commands::textOf(event.alarm, language_));
  }

  bool history_ = false;
  bool follow_ = false;
  chassis::Language language_ = chassis::Language::kEnglish;
};

}  // namespace

Group alarmCommands() {
  return {.commands = {
              {"alarms", "Show the alarms that are raised, or what the log keeps of them", make<Alarms>}}};
}

}  // namespace commands
