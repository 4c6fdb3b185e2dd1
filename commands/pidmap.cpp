// pidmap: loads, shows and clears the PID map of a channel, and ends a lock that was left behind.
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <vector>

#include "client/chassis_services.h"
#include "client/pid_map.h"
#include "commands/command.h"
#include "commands/json_fields.h"

namespace commands {
namespace {

using client::ReleaseBy;
using protocol::Channel;
using protocol::MapEntry;

// ---- The report of a map

Json sourceAndPid(const MapEntry& e) {
  return {{"src_slot", e.sourceSlot + 1},
          {"src_port", e.sourcePort + 1},
          {"src_pid", e.sourcePid},
          {"dst_pid", e.pid}};
}

Json entryOf(const MapEntry& e) {
  Json entry = sourceAndPid(e);
  entry.update({{"src_programme", e.sourceProgramme}, {"dst_programme", e.programme}, {"type", e.type}});
  return entry;
}

std::size_t repeatedIn(const std::vector<MapEntry>& entries) {
  std::set<u32> sources;
  for (const MapEntry& e : entries) sources.insert(protocol::sourceKey(e));
  return entries.size() - sources.size();
}

std::string linesOf(const char* title, const Json& entries) {
  std::string text =
      fmt::format("{}: {} {}\n", title, entries.size(), entries.size() == 1 ? "entry" : "entries");
  for (const Json& entry : entries) {
    text += filled("  {src_slot}.{src_port}  {src_pid:#06x} -> {dst_pid:#06x}", entry);
    if (entry.contains("type"))
      text += filled("  programme {src_programme} -> {dst_programme}, type {type}", entry);
    text += '\n';
  }
  return text;
}

// An object with channel, locked, announced_only (entries announced but never received), record (a list of
// objects with the members of a map file), router (the same without programme numbers and type; null if the
// chassis gives none), repeated (positions of the router whose source has an earlier position, which takes
// effect) and router_holds_record (null as router).
Json pidMapReport(const client::PidMap& map, const protocol::Channel& channel,
                  const std::optional<std::vector<chassis::RouterWords>>& router) {
  Json report = {{"channel", protocol::channelName(channel)},
                 {"locked", map.locked},
                 {"announced_only", std::ranges::count_if(map.entries, protocol::isBlank)},
                 {"record", Json::array()},
                 {"router", nullptr},
                 {"repeated", nullptr},
                 {"router_holds_record", nullptr}};
  for (const MapEntry& e : map.entries) {
    if (!protocol::isBlank(e)) report["record"].push_back(entryOf(e));
  }
  if (!router) return report;
  const auto routed = protocol::entriesOf(*router);
  report["router"] = Json::array();
  for (const MapEntry& e : routed) report["router"].push_back(sourceAndPid(e));
  report["repeated"] = repeatedIn(routed);
  report["router_holds_record"] = protocol::holds(*router, map.entries);
  return report;
}

// The report of pidMapReport as text lines.
std::string pidMapText(const Json& report) {
  std::string text = filled("Channel {channel}\n", report);
  if (report["locked"].get<bool>()) {
    text += filled(
        "LOCKED: a load is under way, or broke off; on the air is what the router holds. Once no load "
        "is under way, 'qamctl pidmap release {channel}' ends the lock\n",
        report);
  }
  if (report["announced_only"] > 0)
    text += filled("{announced_only} more entries of the record were announced and never received\n", report);
  text += linesOf("record", report["record"]);
  if (report["router"].is_null()) return text + "router: the chassis does not report it\n";
  text += report["router_holds_record"].get<bool>()
              ? "router: holds the record\n"
              : linesOf("router, ANOTHER MAP than the record", report["router"]);
  if (report["repeated"] > 0)
    text += filled("{repeated} of the router's positions repeat a source: it takes the first\n", report);
  return text;
}

// ---- The commands

std::optional<std::vector<chassis::RouterWords>> routerOf(Session& session, const Channel& channel) {
  try {
    return client::routerMap(session.link(), channel);
  } catch (const client::Error& e) {
    if (e.gotNoReply()) throw;
    session.note(e.what());
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

// Clear, and the base of load: replaces the map by an empty one, or by that of a file.
struct MapReplace : ChangeCommand {
  void carryOut(Session& session) override {
    client::ChangeOptions options = optionsFor(session);
    options.sources = session.inputs();
    options.nameOf = nameOf();
    if (!apply(session, client::planMap(session.link(), channel(), map_.entries, options))) return;
    session.print(fmt::format("Channel {}: {} entries loaded, on the air\n", protocol::channelName(channel()),
                              map_.entries.size()));
  }

  std::function<std::string(std::size_t)> nameOf() const {
    return [this](std::size_t entry) { return fmt::format("{} line {}", file_, map_.lines.at(entry)); };
  }

  std::string file_;
  client::MapFile map_;
};

struct MapLoad final : MapReplace {
  void describeMore(Form& form) override {
    takeFile(form, Option("file", "FILE.csv", "the map, as CSV").required(), file_, false);
    form.footer(
        "The file begins with the line src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type; "
        "then an entry a line, up to 256. Slots (1 to 6) and inputs (1 to 16) count from 1; numbers are "
        "decimal or 0x; lines that begin with # are left out. Each source goes onto a PID of its own, and "
        "the type and the programme numbers are only stored.\n"
        "The map that was there is kept, until the new one is on the air, in "
        "$XDG_STATE_HOME/qamctl/ADDR:PORT/pidmap-N.P.rescue.csv, else below ~/.local/state; an error puts it "
        "back.\n"
        "\nExample: qamctl pidmap load 1.1 map.csv --dry-run");
  }

  void prepare(Surroundings& surroundings) override {
    map_ = client::readMapFile(file_);
    if (!surroundings.inputs) return;  // checked with the chassis's inputs
    client::ChangeOptions options;
    options.sources = surroundings.inputs;
    options.nameOf = nameOf();
    client::checkMap(map_.entries, options);
  }
};

struct MapShow final : Command {
  void describe(Form& form) override {
    takeChannel(form);
    takeJson(form);
    form.flag("--csv",
              "as a file for load; of a locked channel the map on the air, without programme numbers", csv_);
    form.excludes("--csv", "--json");
  }

  void carryOut(Session& session) override {
    const client::PidMap map = client::readMap(session.link(), channel());
    const auto router = routerOf(session, channel());
    if (csv_) return session.print(csvOf(map, router));
    const Json report = pidMapReport(map, channel(), router);
    session.print(json ? jsonText(report) : pidMapText(report));
  }

  bool csv_ = false;
};

struct MapRelease final : ChangeCommand {
  void describeMore(Form& form) override {
    takeFile(form,
             Option("--restore", "FILE.csv", "that map: a rescue file, which is then removed, or another"),
             file_, false);
    form.flag("--empty", "no map: what the record holds goes on the air, often nothing", empty_);
    form.excludes("--empty", "--restore");
    form.footer(
        "Without --restore and --empty the map is sent that is on the air, which has lost its programme "
        "numbers and types. First make sure that no client is loading the channel.\n"
        "\nExample: qamctl pidmap release 1.1 --restore pidmap-1.1.rescue.csv");
  }

  void prepare(Surroundings& /*surroundings*/) override {
    if (!file_.empty()) entries_ = client::readMapFile(file_).entries;
  }

  void carryOut(Session& session) override {
    const ReleaseBy by = !file_.empty() ? ReleaseBy::kMap : empty_ ? ReleaseBy::kRecord : ReleaseBy::kRouter;
    const client::ChangeOptions options = optionsFor(session);
    const client::ChannelChange change =
        client::planRelease(session.link(), channel(), by, entries_, options);
    if (!apply(session, change)) return;
    dropServed(session, options.mapFile);
    session.print(fmt::format("Channel {}: released, {} entries on the air\n",
                              protocol::channelName(channel()), change.map->size()));
  }

  // The rescue file has served once its map, whole, is on the air again.
  void dropServed(Session& session, const std::filesystem::path& rescue) const {
    std::error_code none;
    if (!std::filesystem::exists(rescue, none)) return;
    if (!file_.empty() && std::filesystem::equivalent(file_, rescue, none)) {
      std::filesystem::remove(rescue, none);
      return;
    }
    session.note(fmt::format(
        "{} still holds the map from before a load that broke off: move it away, or the next load is refused",
        rescue.string()));
  }

  std::string file_;
  bool empty_ = false;
  std::vector<MapEntry> entries_;
};

}  // namespace

Group pidMapCommands() {
  return {
      .name = "pidmap",
      .text = "Which packets of which inputs a channel carries",
      .commands = {
          {"load", "Replace the map by that of a file", make<MapLoad>},
          {"show", "Read the map back from the card, and from the chassis's router", make<MapShow>},
          {"clear", "Replace the map by an empty one", make<MapReplace>},
          {"release", "End a lock that was left behind, by sending a whole map under it", make<MapRelease>}}};
}

}  // namespace commands
