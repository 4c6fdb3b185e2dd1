// qamctl alarms: the alarms that stand in the chassis's list, the events of its log, and those to come.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <memory>

#include "client/chassis_services.h"
#include "client/udp_link.h"
#include "tools/commands.h"
#include "tools/json_fields.h"

namespace tools {
namespace {

using protocol::AlarmEvent;

constexpr std::chrono::milliseconds kPoll{500};

struct Options {
  const std::string& server;
  bool history = false;
  bool follow = false;
  std::string language = "en";
  bool json = false;
};

std::string utc(u32 seconds) {
  return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::time_t{seconds}));
}

// One line of JSON; `kind` is null for an alarm that stands.
Json jsonOf(const protocol::Alarm& alarm) {
  return {{"slot", alarm.slot + 1},
          {"port", alarm.port + 1},
          {"type", alarm.type},
          {"happened", utc(alarm.happened)},
          {"en", {{"title", alarm.enTitle}, {"text", alarm.enText}, {"trap", alarm.enTrap}}},
          {"zh", {{"title", alarm.zhTitle}, {"text", alarm.zhText}, {"trap", alarm.zhTrap}}}};
}

void printLine(const Json& json) {
  fmt::print("{}\n", json.dump(-1, ' ', true, Json::error_handler_t::replace));
}

// "1.1  Card1: Ch.1 Error (No Input)"
std::string textOf(const protocol::Alarm& alarm, bool zh) {
  return fmt::format("{}.{}  {}: {} ({})", alarm.slot + 1, alarm.port + 1,
                     oneLine(zh ? alarm.zhTitle : alarm.enTitle), oneLine(zh ? alarm.zhText : alarm.enText),
                     oneLine(zh ? alarm.zhTrap : alarm.enTrap));
}

void show(const Options& options, const protocol::Alarm& alarm) {
  if (options.json) return printLine(jsonOf(alarm));
  fmt::print("{}  {}\n", utc(alarm.happened), textOf(alarm, options.language == "zh"));
}

void show(const Options& options, const AlarmEvent& event) {
  const protocol::AlarmEventKind& kind = protocol::kindOf(event);
  if (options.json) {
    Json line = {{"number", event.number}, {"at", utc(event.at)}, {"event", kind.name}};
    line.update(jsonOf(event.alarm));
    return printLine(line);
  }
  const bool zh = options.language == "zh";
  fmt::print("{}  {}: {}\n", utc(event.at), zh ? kind.chinese : kind.english, textOf(event.alarm, zh));
}

void run(const Options& options) {
  client::UdpLink link(options.server);
  std::uint64_t next = options.follow ? client::nextAlarmEvent(link) : 0;
  if (options.history) {
    for (const AlarmEvent& event : client::readAlarmEvents(link, 0)) {
      show(options, event);
      next = event.number + 1;
    }
  } else {
    const std::vector<protocol::Alarm> alarms = client::readAlarms(link);
    for (const protocol::Alarm& alarm : alarms) show(options, alarm);
    if (alarms.empty() && !options.json) fmt::print("no alarm stands\n");
  }
  while (options.follow && std::fflush(stdout) == 0) {
    link.wait(kPoll);
    for (const AlarmEvent& event : client::readAlarmEvents(link, next)) {
      show(options, event);
      next = event.number + 1;
    }
  }
}

}  // namespace

void addAlarmsCommand(CLI::App& app, const std::string& server) {
  const auto options = std::make_shared<Options>(Options{.server = server});
  CLI::App* command = addCommand(app, "alarms", "Show the alarms that stand, or what the log keeps of them",
                                 [options] { run(*options); });
  command->add_flag("--history", options->history, "the events of the log, oldest first");
  command->add_flag("--follow", options->follow, "then go on with each event as it comes, until interrupted");
  command->add_option("--lang", options->language, "language of the texts: zh or en")
      ->check(CLI::IsMember({"zh", "en"}))
      ->capture_default_str();
  command->add_flag("--json", options->json, "one line of JSON an alarm or event, with both languages");
  command->footer(
      "A line has the time (UTC), slot and port, title, text, and in brackets the text for logs.\n"
      "\nExample: qamctl alarms --history --follow --lang zh");
}

}  // namespace tools
