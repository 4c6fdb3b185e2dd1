// backup, restore: all that a channel stores (intervals, packets of the tables, PID map) as one JSON file.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "client/channel_backup.h"
#include "client/pid_map.h"
#include "commands/command.h"
#include "commands/json_fields.h"

namespace commands {
namespace {

using client::ChannelContent;

constexpr auto kBackupKey = "channel_backup";
constexpr int kBackupVersion = 1;

// ---- The file

Json mapJson(const std::vector<protocol::MapEntry>& map) {
  Json list = Json::array();
  for (const protocol::MapEntry& entry : map) {
    const client::MapValues values = client::valuesOf(entry);
    Json& object = list.emplace_back(Json::object());
    for (std::size_t i = 0; i < values.size(); ++i) object[client::kMapColumns.at(i).name] = values.at(i);
  }
  return list;
}

Json backupJson(const ChannelContent& content) {
  Json json = {{kBackupKey, kBackupVersion},
               {"channel", protocol::channelName(content.channel)},
               {"intervals", Json::object()},
               {"packets", Json::array()},
               {"map", mapJson(content.map)}};
  for (const auto& [type, ticks] : content.intervals) json["intervals"][mpeg::tableName(type)] = ticks;
  for (const client::TablePackets& table : content.tables) {
    Json data = Json::array();
    for (const mpeg::Packet& packet : table.packets)
      data.push_back(fmt::format("{:02x}", fmt::join(packet, "")));
    json["packets"].push_back(
        {{"table", mpeg::tableName(table.type)}, {"pid", table.pid}, {"data", std::move(data)}});
  }
  return json;
}

template <typename... Args>
[[noreturn]] void refuseItem(fmt::format_string<Args...> text, Args&&... args) {
  throw std::runtime_error(fmt::format(text, std::forward<Args>(args)...));
}

u32 wholeIn(const Json& value, u32 lowest, u32 highest, const std::string& item) {
  if (!value.is_number_unsigned()) refuseItem("{} is missing or is no whole number", item);
  const u64 number = value.get<u64>();
  if (number < lowest || number > highest)
    refuseItem("{} {} is not from {} to {}", item, number, lowest, highest);
  return static_cast<u32>(number);
}

Json listOf(const Json& object, const char* key, const std::string& item) {
  Json list = member(object, key);
  if (!list.is_array()) refuseItem("{} is missing or is no list", item);
  return list;
}

PsiType tableIn(const Json& name, const std::string& item) {
  const auto type = name.is_string() ? mpeg::tableOfName(name.get<std::string>()) : std::nullopt;
  if (!type) refuseItem("{}: {} is not {}", item, name.dump(), mpeg::tableNames("or"));
  return *type;
}

protocol::Intervals parseIntervals(const Json& json) {
  if (!json.is_object()) refuseItem("intervals is missing or is no object");
  protocol::Intervals intervals;
  for (const auto& [name, ticks] : json.items())
    intervals[tableIn(name, "intervals")] =
        wholeIn(ticks, 0, protocol::kMaxInterval, fmt::format("intervals: {}", name));
  for (const PsiType type : mpeg::kAllTables) {
    if (!intervals.contains(type)) refuseItem("intervals: {} is missing", mpeg::tableName(type));
  }
  return intervals;
}

mpeg::Packet parsePacket(const Json& json, u16 pid, const std::string& item) {
  const std::string hex = json.is_string() ? json.get<std::string>() : "";
  mpeg::Packet packet{};
  bool isRight = hex.size() == 2 * packet.size();
  for (std::size_t i = 0; isRight && i < packet.size(); ++i) {
    const auto byte = base::parseDigits<u8>(std::string_view(hex).substr(2 * i, 2), 16, 0xFF);
    isRight = byte.has_value();
    packet.at(i) = byte.value_or(0);
  }
  if (!isRight) refuseItem("{} is not {} bytes in hex", item, packet.size());
  if (packet[0] != mpeg::kSyncByte || mpeg::pidOf(packet) != pid)
    refuseItem("{} is no packet on PID {:#06x}", item, pid);
  return packet;
}

client::TablePackets parseTable(const Json& json, const std::string& item) {
  client::TablePackets table;
  table.type = tableIn(member(json, "table"), item + ": table");
  table.pid = static_cast<u16>(wholeIn(member(json, "pid"), 0, kNullPid, item + ": pid"));
  if (table.pid != mpeg::tablePid(table.type).value_or(table.pid))
    refuseItem("{}: pid {:#06x} is not that of {}", item, table.pid, mpeg::tableName(table.type));
  for (const Json& packet : listOf(json, "data", item + ": data")) {
    table.packets.push_back(
        parsePacket(packet, table.pid, fmt::format("{}: packet {}", item, table.packets.size() + 1)));
  }
  if (table.packets.empty()) refuseItem("{} has no packet", item);
  return table;
}

client::Tables parseTables(const Json& list) {
  client::Tables tables;
  for (const Json& json : list) {
    const std::string item = fmt::format("packets: entry {}", tables.size() + 1);
    client::TablePackets table = parseTable(json, item);
    const auto key = [](const client::TablePackets& t) { return std::pair(t.type, t.pid); };
    if (!tables.empty() && key(tables.back()) >= key(table))
      refuseItem("{} is out of order: tables and PIDs ascend, each once", item);
    tables.push_back(std::move(table));
  }
  return tables;
}

std::string mapItem(std::size_t i) {
  return fmt::format("map: entry {}", i + 1);
}

std::vector<protocol::MapEntry> parseMap(const Json& list) {
  std::vector<protocol::MapEntry> map;
  for (const Json& json : list) {
    client::MapValues values{};
    for (std::size_t i = 0; i < values.size(); ++i) {
      const auto& [name, lowest, highest] = client::kMapColumns.at(i);
      values.at(i) =
          wholeIn(member(json, name), lowest, highest, fmt::format("{}: {}", mapItem(map.size()), name));
    }
    map.push_back(client::mapEntryOf(values));
  }
  return map;
}

ChannelContent parseBackup(const Json& json) {
  if (member(json, kBackupKey) != kBackupVersion)
    refuseItem("is no backup of a channel: \"{}\": {} is missing", kBackupKey, kBackupVersion);
  const Json channel = member(json, "channel");
  return {.channel = channelOf(channel.is_string() ? channel.get<std::string>() : channel.dump()),
          .intervals = parseIntervals(member(json, "intervals")),
          .tables = parseTables(listOf(json, "packets", "packets")),
          .map = parseMap(listOf(json, "map", "map"))};
}

// ---- The commands

std::string sizesOf(const ChannelContent& content) {
  return fmt::format("{} packets and {} map entries", client::packetsIn(content.tables), content.map.size());
}

struct Backup final : Command {
  void describe(Form& form) override {
    takeChannel(form);
    takeFile(form, Option("file", "FILE.json", "the file to write; without one the backup is printed"), file_,
             true);
    form.flag("--json", "print the backup also if it is written to a file", json);
    form.footer(
        "Nothing is written when the channel is locked, or when packets cannot be read back from the card.\n"
        "\nExample: qamctl backup 1.1 channel.json");
  }

  void carryOut(Session& session) override {
    const ChannelContent content = client::readContent(session.link(), channel());
    const std::string text = jsonText(backupJson(content));
    if (!file_.empty()) saveFile(file_, {reinterpret_cast<const u8*>(text.data()), text.size()});
    session.print(file_.empty() || json
                      ? text
                      : fmt::format("Channel {}: {} in {}\n", protocol::channelName(channel()),
                                    sizesOf(content), file_));
  }

  std::string file_;
};

struct Restore final : ChangeCommand {
  void describeMore(Form& form) override {
    takeFile(
        form,
        Option("file", "FILE.json", "a file that backup wrote, of this channel or another one").required(),
        file_, false);
    form.flag("--force", "also a locked channel: what another client left half loaded is gone", force);
    takeJson(form);
    form.footer(
        "Tables, PID map and all intervals are replaced in one change. The map is checked as by 'pidmap "
        "load'.\n"
        "\nExample: qamctl restore 1.1 channel.json --dry-run");
  }

  void prepare(Surroundings& surroundings) override {
    client::ChangeOptions options;
    options.sources = surroundings.inputs;
    options.nameOf = mapItem;
    content_ = fromJsonFile(file_, [&](const Json& backup) {
      ChannelContent content = parseBackup(backup);
      client::checkContent(content, options);
      return content;
    });
    if (content_.channel == channel()) return;
    surroundings.notes.push_back(
        fmt::format("{} is a backup of channel {}", file_, protocol::channelName(content_.channel)));
  }

  void carryOut(Session& session) override {
    client::ChangeOptions options = optionsFor(session);
    options.sources = session.inputs();
    options.nameOf = [this](std::size_t i) { return fmt::format("{}: {}", file_, mapItem(i)); };
    if (!apply(session, client::planRestore(session.link(), channel(), content_, options))) return;
    const std::string name = protocol::channelName(channel());
    session.print(json ? jsonText({{"channel", name},
                                   {"packets", client::packetsIn(content_.tables)},
                                   {"map_entries", content_.map.size()}})
                       : fmt::format("Channel {}: {} restored\n", name, sizesOf(content_)));
  }

  std::string file_;
  ChannelContent content_;
};

}  // namespace

Group backupCommands() {
  return {.commands = {{"backup", "Save all that a channel stores as one file", make<Backup>},
                       {"restore", "Put back what a backup holds", make<Restore>}}};
}

}  // namespace commands
