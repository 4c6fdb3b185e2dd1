// pids: the packets of an input or a channel by PID, and the services that use them.
#include <fmt/format.h>

#include <algorithm>

#include "client/channel_state.h"
#include "client/chassis_services.h"
#include "commands/command.h"
#include "commands/status.h"
#include "commands/stream_counts.h"

namespace commands {
namespace {

// The tables that name PIDs.
std::vector<mpeg::Section> sectionsOfInput(client::Link& link, const protocol::SourcePort& input) {
  std::vector<mpeg::Section> all;
  const auto add = [&](PsiType type, u16 pid) {
    std::ranges::move(client::sourceSections(link, input, pid, mpeg::tableId(type)), std::back_inserter(all));
  };
  for (const PsiType type : {PAT, CAT, SDT_C}) add(type, mpeg::tablePid(type).value());
  std::set<u16> programmes;
  for (const mpeg::Section& section : all) {
    if (section.tableId() == mpeg::tableId(PAT)) programmes.merge(mpeg::programmeMapPids(section));
  }
  for (const u16 pid : programmes) add(PMT, pid);
  return all;
}

std::vector<mpeg::Section> sectionsOfChannel(client::Link& link, const protocol::Channel& channel) {
  std::vector<mpeg::Section> all;
  const client::Tables tables = client::readPsiOnce(link, channel).readable();
  for (const PsiType type : {PAT, CAT, SDT_C, PMT})
    std::ranges::move(client::sectionsOf(tables, type), std::back_inserter(all));
  return all;
}

struct Pids final : Command {
  void describe(Form& form) override {
    form.value(
        Option("place", "N.P", "an input, as 6.1, or a channel, as 1.2: the slot's card decides").required(),
        place_, inputOf);
    form.flag("--reset", "set the counters to 0 instead", reset_);
    form.number(
        Option("--seconds", "S", "count for so long before, if counting began later; 0: show what there is")
            .byDefault("1.5"),
        seconds_, 0, 3600);
    takeJson(form);
    form.footer(
        "The chassis counts from the first call for an input or channel on, until ten seconds after the last "
        "one. "
        "Lowest and highest are rates over a second.\n"
        "The uses of a PID are those that the tables of the input, or of the channel's store, name.\n"
        "\nExample: qamctl pids 6.1 --seconds 10");
  }

  void carryOut(Session& session) override {
    const auto inputs = session.inputs();
    isInput_ = inputs && inputs->contains(place_.slot);
    if (reset_) {
      client::resetPidCounts(session.link(), place_);
      return session.print(json ? jsonText({{"place", name()}, {"reset", true}})
                                : fmt::format("{} {}: counters reset\n", kind(), name()));
    }
    protocol::PidCounts counts = client::readPidCounts(session.link(), place_);
    const std::chrono::milliseconds missing =
        milliseconds(seconds_) - std::chrono::milliseconds(counts.counted_ms);
    if (missing.count() > 0) {
      session.pause(missing);
      counts = client::readPidCounts(session.link(), place_);
    }
    const Json report = pidsReport(counts, name(), kind(), usesOf(session));
    session.print(json ? report.dump(2) + "\n" : pidsText(report));
  }

  // Counts are shown without them, too: a channel may be locked, a card may not answer.
  std::optional<PidUses> usesOf(Session& session) const {
    try {
      client::Link& link = session.link();
      return PidUses(isInput_ ? sectionsOfInput(link, place_)
                              : sectionsOfChannel(link, {.slot = place_.slot, .port = place_.port}));
    } catch (const client::Error& e) {
      if (e.gotNoReply()) throw;
      session.note(fmt::format("the services of {} {} are not known: {}", kind(), name(), e.what()));
      return std::nullopt;
    }
  }

  const char* kind() const { return isInput_ ? "input" : "channel"; }
  std::string name() const { return protocol::channelName({.slot = place_.slot, .port = place_.port}); }

  protocol::SourcePort place_;
  bool reset_ = false;
  double seconds_ = 1.5;
  bool isInput_ = false;
};

}  // namespace

Group pidCommands() {
  return {.commands = {
              {"pids", "Show the packets of an input or channel by PID, with rates and errors", make<Pids>}}};
}

}  // namespace commands
