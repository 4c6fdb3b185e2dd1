// qamctl programme: adds a programme of an input to a channel, lists the programmes there, removes one.
#include <fmt/format.h>

#include <memory>
#include <optional>
#include <vector>

#include "base/numbers.h"
#include "client/carry_out.h"
#include "client/programme.h"
#include "client/udp_link.h"
#include "tools/commands.h"
#include "tools/map_options.h"
#include "tools/programme_report.h"

namespace tools {
namespace {

using protocol::Channel;

struct Options {
  const std::string& server;
  std::string channel{};
  std::string from{};
  std::string service{};
  std::string base{};
  std::vector<std::string> pass{};
  std::string transportStreamId{};
  double seconds = 5;
  bool json = false;
};

std::string checkInput(const std::string& text) {
  return protocol::parseSourcePort(text) ? "" : fmt::format("'{}' is no SLOT.INPUT such as 2.1", text);
}

std::string checkPid(const std::string& text) {
  const auto pid = base::parseNumber<u16>(text, kNullPid);
  return pid ? "" : fmt::format("'{}' is no PID from 0 to 0x1FFF", text);
}

std::string checkBase(const std::string& text) {
  const auto pid = base::parseNumber<u16>(text, kNullPid);
  return pid && !mpeg::isReservedPid(*pid)
             ? ""
             : fmt::format("'{}' is no PID from 0x20 to 0x1FFE, which programmes may have", text);
}

std::string checkStreamId(const std::string& text) {
  return base::parseNumber<u16>(text) ? "" : fmt::format("'{}' is no transport_stream_id", text);
}

client::ChangeOptions careFor(client::Link& link, const Options& options, const Channel& channel) {
  client::ChangeOptions care = mapOptions(link, options.server, channel);
  care.tablesFile =
      care.mapFile.parent_path() / fmt::format("psi-{}.rescue.ts", protocol::channelName(channel));
  return care;
}

void tell(const Options& options, const Channel& channel, const client::ProgrammePlan& plan,
          const char* done) {
  for (const std::string& note : plan.notes) fmt::print(stderr, "note: {}\n", note);
  if (options.json) {
    printJson({{"channel", protocol::channelName(channel)},
               {"number", plan.number},
               {"name", plan.name},
               {"pmt_pid", plan.pmtPid},
               {"map_entries", plan.map.size()},
               {"notes", plan.notes}});
    return;
  }
  fmt::print("Channel {}: programme {} '{}' {} (PMT PID {:#06x}); the PID map has {} entries\n",
             protocol::channelName(channel), plan.number, plan.name, done, plan.pmtPid, plan.map.size());
}

void add(const Options& options) {
  const Channel channel = protocol::parseChannel(options.channel).value();
  client::UdpLink link(options.server);
  const client::ChangeOptions care = careFor(link, options, channel);
  client::AddOptions how;
  if (!options.base.empty()) how.base = base::parseNumber<u16>(options.base, kNullPid);
  if (!options.transportStreamId.empty())
    how.transportStreamId = base::parseNumber<u16>(options.transportStreamId);
  for (const std::string& pid : options.pass)
    how.pass.push_back(base::parseNumber<u16>(pid, kNullPid).value());
  const auto patience = std::chrono::milliseconds(static_cast<int>(options.seconds * 1000));
  const auto source = protocol::parseSourcePort(options.from).value();
  const client::ProgrammeChange programme =
      client::planAddProgramme(link, channel, source, options.service, how, care, patience);
  client::carryOut(link, programme.change);
  tell(options, channel, programme.plan, "added");
}

void remove(const Options& options) {
  const Channel channel = protocol::parseChannel(options.channel).value();
  client::UdpLink link(options.server);
  const client::ProgrammeChange programme =
      client::planRemoveProgramme(link, channel, options.service, careFor(link, options, channel));
  client::carryOut(link, programme.change);
  tell(options, channel, programme.plan, "removed");
}

void list(const Options& options) {
  const Channel channel = protocol::parseChannel(options.channel).value();
  client::UdpLink link(options.server);
  const Json report = programmeReport(channel, client::programmesOf(client::readOutput(link, channel)));
  if (options.json)
    printJson(report);
  else
    fmt::print("{}", programmeText(report));
}

void addAdd(CLI::App& add, Options& options) {
  addChannel(&add, options.channel);
  add.add_option("--from", options.from, "the input that carries the programme")
      ->required()
      ->check(checkInput)
      ->type_name("SLOT.INPUT");
  add.add_option("--service", options.service,
                 "a programme number, or the service's name, in capitals or not")
      ->required()
      ->type_name("NAME|NUMBER");
  add.add_option("--pid", options.base, "take free PIDs from here on; else the lowest free block from 0x100")
      ->check(checkBase)
      ->type_name("BASE");
  add.add_option(
         "--pass", options.pass,
         "route a PID of the input as it is, repeatable: 0x12 for the EIT (the SDT's EIT flags follow), "
         "0x14 for TDT and TOT, or one from 0x20 on")
      ->check(checkPid)
      ->allow_extra_args(false)
      ->type_name("PID");
  add.add_option("--ts-id", options.transportStreamId,
                 "the transport_stream_id of a channel that has neither PAT nor SDT")
      ->check(checkStreamId)
      ->type_name("NUMBER");
  add.add_option("--seconds", options.seconds, "how long to wait for each table of the input")
      ->check(CLI::Range(0.0, 600.0))
      ->capture_default_str();
  add.footer(
      "The PIDs of the programme are mapped to free ones of the channel, and PAT, PMT, SDT and (for a "
      "scrambled one) CAT are made to match; transport_stream_id and original_network_id stay the channel's. "
      "A "
      "programme that is there already is brought up to date.\n"
      "What the channel had is kept, until all of the new is on the air, in pidmap-N.P.rescue.csv and "
      "psi-N.P.rescue.ts where 'pidmap load' keeps its map; an error puts it back.\n"
      "\nExamples:\n"
      "  qamctl programme add 1.1 --from 2.1 --service News --pass 0x12 --pass 0x14\n"
      "  qamctl programme add 1.2 --from 2.2 --service 101 --pid 0x400");
}

}  // namespace

void addProgrammeCommands(CLI::App& app, const std::string& server) {
  const auto shared = std::make_shared<Options>(Options{.server = server});
  CLI::App* programme = app.add_subcommand("programme", "The programmes that a channel carries");
  programme->require_subcommand(1);
  programme->fallthrough();
  const auto command = [&](const char* name, const char* text, void (*run)(const Options&)) {
    CLI::App* made = addCommand(*programme, name, text, [shared, run] { run(*shared); });
    addJson(made, shared->json);
    return made;
  };

  addAdd(*command("add", "Take a programme of an input into the channel", add), *shared);

  CLI::App* shown = command("list", "Show the programmes, their PIDs and where these come from", list);
  addChannel(shown, shared->channel);

  CLI::App* removed =
      command("remove", "Take a programme out, with every PID whose last user it was", remove);
  addChannel(removed, shared->channel);
  removed->add_option("service", shared->service, "its number on the channel, or its name")
      ->required()
      ->type_name("NAME|NUMBER");
  removed->footer("Example: qamctl programme remove 1.1 News");
}

}  // namespace tools
