// qamctl pidmap: loads, shows and clears the PID map of a channel, and ends a lock that was left behind.
#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "client/carry_out.h"
#include "client/chassis_services.h"
#include "client/pid_map_change.h"
#include "client/pid_map_file.h"
#include "client/udp_link.h"
#include "protocol/channel.h"
#include "tools/commands.h"
#include "tools/map_options.h"
#include "tools/pid_map_report.h"

namespace tools {
namespace {

using client::ReleaseBy;
using protocol::Channel;
using protocol::MapEntry;

struct Options {
  const std::string& server;
  std::string channel{};
  std::string file{};
  bool json = false;
  bool csv = false;
  bool empty = false;
};

Channel channelOf(const Options& options) {
  return protocol::parseChannel(options.channel).value();
}

void replace(const Options& options, const client::MapFile& map) {
  const Channel channel = channelOf(options);
  client::UdpLink link(options.server);
  client::ChangeOptions care = mapOptions(link, options.server, channel);
  care.nameOf = [&](std::size_t index) {
    return fmt::format("{} line {}", options.file, map.lines.at(index));
  };
  client::carryOut(link, client::planMap(link, channel, map.entries, care));
  fmt::print("Channel {}: {} entries loaded, on the air\n", protocol::channelName(channel),
             map.entries.size());
}

void loadMap(const Options& options) {
  replace(options, client::readMapFile(options.file));
}

void clearMap(const Options& options) {
  replace(options, {});
}

std::optional<std::vector<chassis::RouterWords>> routerOf(client::Link& link, const Channel& channel) {
  try {
    return client::routerMap(link, channel);
  } catch (const client::Error& e) {
    if (e.gotNoReply()) throw;
    fmt::print(stderr, "note: {}\n", e.what());
    return std::nullopt;
  }
}

// Of a locked channel the map that is on the air: its record may be empty or half a map.
std::string csvOf(const client::PidMap& map, const std::optional<std::vector<chassis::RouterWords>>& router) {
  std::vector<MapEntry> entries = map.entries;
  if (map.locked) {
    if (!router) throw client::Error("the channel is locked, so its record may be incomplete");
    entries = protocol::entriesOf(*router);
  }
  std::erase_if(entries, protocol::isBlank);
  const char* remark =
      map.locked ? "# the channel is locked: this is on the air, programme numbers and types unknown\n" : "";
  return remark + client::mapFileText(entries);
}

void showMap(const Options& options) {
  const Channel channel = channelOf(options);
  client::UdpLink link(options.server);
  const client::PidMap map = client::readMap(link, channel);
  const auto router = routerOf(link, channel);
  if (options.csv) {
    fmt::print("{}", csvOf(map, router));
    return;
  }
  const Json report = pidMapReport(map, channel, router);
  if (options.json)
    printJson(report);
  else
    fmt::print("{}", pidMapText(report));
}

// The rescue file has served once its map, whole, is on the air again.
void dropServed(const std::filesystem::path& file, const std::filesystem::path& rescue) {
  std::error_code none;
  if (!std::filesystem::exists(rescue, none)) return;
  if (!file.empty() && std::filesystem::equivalent(file, rescue, none)) {
    std::filesystem::remove(rescue, none);
  } else {
    fmt::print(
        stderr,
        "note: {} still holds the map from before a load that broke off: move it away, or the next load "
        "is refused\n",
        rescue.string());
  }
}

void releaseMap(const Options& options) {
  const Channel channel = channelOf(options);
  std::vector<MapEntry> entries;
  ReleaseBy by = options.empty ? ReleaseBy::kRecord : ReleaseBy::kRouter;
  if (!options.file.empty()) {
    entries = client::readMapFile(options.file).entries;
    by = ReleaseBy::kMap;
  }
  client::UdpLink link(options.server);
  const client::ChangeOptions care = mapOptions(link, options.server, channel);
  const client::ChannelChange change = client::planRelease(link, channel, by, entries, care);
  client::carryOut(link, change);
  dropServed(options.file, care.mapFile);
  fmt::print("Channel {}: released, {} entries on the air\n", protocol::channelName(channel),
             change.map->size());
}

}  // namespace

void addPidMapCommands(CLI::App& app, const std::string& server) {
  const auto shared = std::make_shared<Options>(Options{.server = server});
  Options& options = *shared;
  CLI::App* pidmap = app.add_subcommand("pidmap", "Which packets of which inputs a channel carries");
  pidmap->require_subcommand(1);
  pidmap->fallthrough();
  const auto command = [&](const char* name, const char* text, void (*run)(const Options&)) {
    CLI::App* sub = addCommand(*pidmap, name, text, [shared, run] { run(*shared); });
    addChannel(sub, options.channel);
    return sub;
  };

  CLI::App* load = command("load", "Replace the map by that of a file", loadMap);
  load->add_option("file", options.file, "the map, as CSV")->required()->type_name("FILE.csv");
  load->footer(
      "The file begins with the line src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type; "
      "then "
      "an entry a line, up to 256. Slots (1 to 6) and inputs (1 to 16) count from 1; numbers are decimal or "
      "0x; lines that begin with # are left out. Each source goes onto a PID of its own, and the type and "
      "the "
      "programme numbers are only stored.\n"
      "The map that was there is kept, until the new one is on the air, in "
      "$XDG_STATE_HOME/qamctl/ADDR:PORT/pidmap-N.P.rescue.csv, else below ~/.local/state; an error puts it "
      "back.");

  CLI::App* show = command("show", "Read the map back from the card, and from the chassis's router", showMap);
  addJson(show, options.json);
  show->add_flag("--csv", options.csv,
                 "as a file for load; of a locked channel the map on the air, without programme numbers")
      ->excludes("--json");

  command("clear", "Replace the map by an empty one", clearMap);

  CLI::App* release =
      command("release", "End a lock that was left behind, by sending a whole map under it", releaseMap);
  auto* restore = release
                      ->add_option("--restore", options.file,
                                   "that map: a rescue file, which is then removed, or another")
                      ->type_name("FILE.csv");
  release
      ->add_flag("--empty", options.empty, "no map: what stands in the record goes on the air, often nothing")
      ->excludes(restore);
  release->footer(
      "Without --restore and --empty the map is sent that is on the air, which has lost its programme "
      "numbers "
      "and types. First make sure that nobody is loading the channel.");
}

}  // namespace tools
