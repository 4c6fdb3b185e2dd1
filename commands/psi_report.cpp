#include "commands/psi_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <span>
#include <stdexcept>

#include "base/text.h"
#include "client/psi_capture.h"
#include "platform/wire.h"

namespace commands {
namespace {

using client::StoredTable;
using mpeg::Section;

// --- The content of a section

constexpr u8 kLanguageTag = 0x0A;
constexpr u8 kPrivateData = 0x06;  // a stream_type
constexpr u8 kNetworkNameTag = 0x40;
constexpr u8 kBouquetNameTag = 0x47;

using Bytes = std::span<const u8>;
using Descriptors = std::vector<std::pair<u8, Bytes>>;  // tag and content

// Reads the fields of a section's body one after the other. Throws std::out_of_range where there is no room
// for a field.
class Fields {
 public:
  explicit Fields(Bytes bytes) : rest_(bytes) {}

  bool atEnd() const { return rest_.empty(); }
  std::size_t size() const { return rest_.size(); }
  Bytes bytes(std::size_t size) {
    if (size > rest_.size()) throw std::out_of_range("a length is larger than the rest of the section");
    const Bytes taken = rest_.first(size);
    rest_ = rest_.subspan(size);
    return taken;
  }
  u8 number8() { return bytes(1)[0]; }
  u16 number16() { return wire::get16(bytes(2).data()); }
  u16 pid() { return number16() & 0x1FFF; }
  std::string text(std::size_t size) { return base::dvbText(bytes(size)); }
  Fields loop() { return Fields(bytes(number16() & 0x0FFFu)); }  // after its 12-bit length
  Descriptors descriptors() {                                    // up to the end
    Descriptors all;
    while (!atEnd()) {
      const u8 tag = number8();
      all.emplace_back(tag, bytes(number8()));
    }
    return all;
  }

 private:
  Bytes rest_;
};

// Calls `take` with the content of each descriptor of a tag; content that is too short for it is left out.
template <typename Take>
void forEach(const Descriptors& descriptors, u8 tag, const Take& take) {
  for (const auto& [each, content] : descriptors) {
    try {
      if (each == tag) take(Fields(content));
    } catch (const std::out_of_range&) {
      continue;
    }
  }
}

Json caSystems(const Descriptors& descriptors) {
  Json systems = Json::array();
  forEach(descriptors, mpeg::kCaTag, [&](Fields ca) {
    systems.push_back({{"system_id", ca.number16()}, {"pid", ca.pid()}});
  });
  return systems;
}

Json patContent(u16 extension, Fields body) {
  Json content = {{"transport_stream_id", extension}};
  Json programmes = Json::array();
  while (!body.atEnd()) {
    const u16 number = body.number16();
    const u16 pid = body.pid();
    if (number == 0)
      content["network_pid"] = pid;
    else
      programmes.push_back({{"number", number}, {"pid", pid}});
  }
  content["programmes"] = std::move(programmes);
  return content;
}

Json catContent(u16 /*extension*/, Fields body) {
  Json content;
  content["ca_systems"] = caSystems(body.descriptors());
  return content;
}

const char* streamKind(u8 type) {
  static const std::map<u8, const char*> kKinds = {
      {0x01, "MPEG-2 video"}, {0x02, "MPEG-2 video"},     {0x03, "MPEG audio"},  {0x04, "MPEG audio"},
      {0x06, "private data"}, {0x05, "private sections"}, {0x0B, "DSM-CC"},      {0x0F, "AAC audio"},
      {0x11, "AAC audio"},    {0x10, "MPEG-4 video"},     {0x1B, "H.264 video"}, {0x24, "H.265 video"},
      {0x42, "AVS video"},    {0x81, "AC-3 audio"}};
  const auto found = kKinds.find(type);
  return found == kKinds.end() ? "other" : found->second;
}

// What a stream of private data carries, and the size of each language's entry in that descriptor; 0 if it
// has no languages (EN 300 468).
struct PrivateKind {
  u8 tag;
  const char* name;
  std::size_t entrySize;
};
constexpr PrivateKind kPrivateKinds[] = {
    {0x56, "teletext", 5},     {0x46, "VBI teletext", 5}, {0x59, "subtitles", 8}, {0x6A, "AC-3 audio", 0},
    {0x7A, "E-AC-3 audio", 0}, {0x7B, "DTS audio", 0},    {0x7C, "AAC audio", 0}};

void addLanguage(Json& stream, const std::string& language) {
  const std::string before = stream.value("language", "");
  if ((',' + before + ',').find(',' + language + ',') != std::string::npos) return;
  stream["language"] = before.empty() ? language : before + ',' + language;
}

// Kind and languages of a stream, by its descriptors.
void nameStream(Json& stream, u8 type, const Descriptors& descriptors) {
  forEach(descriptors, kLanguageTag, [&](Fields languages) { addLanguage(stream, languages.text(3)); });
  if (type != kPrivateData) return;
  for (const PrivateKind& kind : kPrivateKinds) {
    forEach(descriptors, kind.tag, [&](Fields entries) {
      stream["kind"] = kind.name;
      while (kind.entrySize > 0 && !entries.atEnd()) {
        Fields entry(entries.bytes(kind.entrySize));
        addLanguage(stream, entry.text(3));
      }
    });
  }
}

Json pmtContent(u16 extension, Fields body) {
  Json content = {{"programme", extension},
                  {"pcr_pid", body.pid()},
                  {"ca_systems", caSystems(body.loop().descriptors())},
                  {"streams", Json::array()}};
  while (!body.atEnd()) {
    const u8 type = body.number8();
    Json stream = {{"pid", body.pid()}, {"type", type}, {"kind", streamKind(type)}};
    nameStream(stream, type, body.loop().descriptors());
    content["streams"].push_back(std::move(stream));
  }
  return content;
}

Json sdtContent(u16 extension, Fields body) {
  Json content = {{"transport_stream_id", extension},
                  {"original_network_id", body.number16()},
                  {"services", Json::array()}};
  body.number8();  // reserved
  while (!body.atEnd()) {
    Json service = {{"service_id", body.number16()}, {"name", ""}, {"provider", ""}};
    body.number8();  // EIT flags
    forEach(body.loop().descriptors(), mpeg::kServiceTag, [&](Fields names) {
      names.number8();  // the service's type
      service["provider"] = names.text(names.number8());
      service["name"] = names.text(names.number8());
    });
    content["services"].push_back(std::move(service));
  }
  return content;
}

// Of a NIT or BAT, whose number and name have these key and tag.
Json networkContent(const char* key, u8 nameTag, u16 extension, Fields body) {
  Json content = {{key, extension}, {"name", ""}, {"transport_streams", Json::array()}};
  forEach(body.loop().descriptors(), nameTag, [&](Fields name) { content["name"] = name.text(name.size()); });
  Fields streams = body.loop();
  if (!body.atEnd()) throw std::out_of_range("bytes behind the list of streams");
  while (!streams.atEnd()) {
    content["transport_streams"].push_back(
        {{"transport_stream_id", streams.number16()}, {"original_network_id", streams.number16()}});
    streams.loop().descriptors();
  }
  return content;
}

Json nitContent(u16 extension, Fields body) {
  return networkContent("network_id", kNetworkNameTag, extension, body);
}
Json batContent(u16 extension, Fields body) {
  return networkContent("bouquet_id", kBouquetNameTag, extension, body);
}

// How the content of a table is decoded and shown: a title, and a line for each object of its lists.
struct TableForm {
  Json (*contentOf)(u16 extension, Fields body);
  const char* title;
  std::vector<std::pair<const char*, const char*>> lines;  // the key of a list, and a text for filled()
};

const TableForm& formOf(PsiType type) {
  constexpr auto kStream = "transport stream {transport_stream_id} of network {original_network_id}";
  static const TableForm kSdt = {
      sdtContent, kStream, {{"services", "service {service_id}: \"{name}\" ({provider})"}}};
  static const TableForm kNit = {
      nitContent, "network {network_id} \"{name}\"", {{"transport_streams", kStream}}};
  static const std::map<PsiType, TableForm> kForms = {
      {PAT,
       {patContent,
        "transport stream {transport_stream_id}",
        {{"programmes", "programme {number}: PMT on PID {pid:#06x}"}}}},
      {PMT,
       {pmtContent,
        "programme {programme}, PCR on PID {pcr_pid:#06x}",
        {{"ca_systems", "CA system {system_id:#06x}: ECM on PID {pid:#06x}"},
         {"streams", "PID {pid:#06x}: {kind} (type {type:#04x})"}}}},
      {SDT_C, kSdt},
      {SDT_O, kSdt},
      {NIT_C, kNit},
      {NIT_O, kNit},
      {BAT, {batContent, "bouquet {bouquet_id} \"{name}\"", {{"transport_streams", kStream}}}},
      {CAT,
       {catContent,
        "conditional access",
        {{"ca_systems", "CA system {system_id:#06x}: EMM on PID {pid:#06x}"}}}}};
  return kForms.at(type);
}

// --- The report

// Ticks from the first section of the table to the end of its last group's interval, if no other table delays
// it on its PID. Each section is a group and takes the interval, or its packets' ticks if those are more; the
// PMT list is one group. A packet before the first start is a group of its own, as on the card. nullopt for a
// table that is stopped (interval 0) or empty.
std::optional<std::size_t> wholeTableTicks(PsiType type, const StoredTable& table) {
  const std::size_t interval = table.interval_ticks;
  if (interval == 0 || table.stored == 0) return std::nullopt;
  if (type == PMT) return std::max(interval, table.stored);
  std::size_t ticks = 0, packets = 0;  // up to the last group, and of that group
  bool opened = false;
  for (const auto& pid : table.pids) {
    for (const mpeg::Packet& packet : pid.packets) {
      opened = opened || mpeg::startsUnit(packet);
      if (packets > 0 && (mpeg::startsUnit(packet) || !opened))
        ticks += std::max(interval, std::exchange(packets, 0));
      ++packets;
    }
  }
  return packets == 0 ? ticks : ticks + std::max(interval, packets);
}

Json sectionsOf(const StoredTable& table) {
  constexpr std::size_t kPayload = kTsPacketSize - mpeg::kPacketHeaderSize;
  Json sections = Json::array();
  for (const auto& pid : table.pids) {
    for (const Section& section : client::gatherSections(pid.packets)) {
      sections.push_back(
          {{"pid", pid.pid},
           {"extension", section.extension()},
           {"version", section.version()},
           {"section", section.number()},
           {"last_section", section.lastNumber()},
           {"packets", section.bytes.size() / kPayload + 1},  // a pointer field comes before it
           {"content", decodeSection(section)}});
    }
  }
  return sections;
}

Json tableReport(PsiType type, const StoredTable& table, std::optional<double> auxHz) {
  Json report = {{"table", mpeg::tableName(type)},
                 {"packets", table.stored},
                 {"packets_out_of_reach", table.outOfReach()}};
  const auto addTime = [&](const std::string& what, std::optional<std::size_t> ticks) {
    report[what + "_ticks"] = ticks ? Json(*ticks) : Json();
    if (auxHz) report[what + "_ms"] = ticks ? Json(static_cast<double>(*ticks) * 1000 / *auxHz) : Json();
  };
  addTime("interval", table.interval_ticks);
  addTime("whole_table", wholeTableTicks(type, table));
  report["sections"] = sectionsOf(table);
  return report;
}

// --- As text

std::string time(const Json& table, const std::string& what) {
  const Json& ticks = table[what + "_ticks"];
  if (ticks.is_null()) return "never";
  std::string text = fmt::format("{} ticks", ticks.get<std::size_t>());
  if (table.contains(what + "_ms")) text += fmt::format(" ({:.0f} ms)", table[what + "_ms"].get<double>());
  return text;
}

std::string plural(std::size_t count, const char* noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string overview(const Json& tables) {
  constexpr auto kRow = "{:<6} {:>8} {:>8}  {:<24} {}\n";
  std::string text = fmt::format(kRow, "TABLE", "SECTIONS", "PACKETS", "INTERVAL", "WHOLE TABLE WITHIN");
  for (const Json& t : tables) {
    const std::string atLeast = t["packets_out_of_reach"] > 0 ? "more than " : "";
    text += fmt::format(kRow, t["table"].get<std::string>(), t["sections"].size(),
                        t["packets"].get<std::size_t>(),
                        t["interval_ticks"] == 0 ? "0 (stopped)" : time(t, "interval"),
                        t["packets"] == 0 ? "-" : atLeast + time(t, "whole_table"));
  }
  return text;
}

// The lines of one table; its title again only where another PID, extension or version begins.
std::string details(const Json& table) {
  const std::string name = table["table"];
  std::string text;
  std::string lastTitle;
  for (const Json& section : table["sections"]) {
    const Json& content = section["content"];
    const std::string title = name + filled(" on PID {pid:#06x}, version {version}: ", section) +
                              (content.is_null() ? filled("extension {extension}: cannot be decoded", section)
                                                 : contentTitle(name, content)) +
                              "\n";
    if (title != lastTitle) text += title;
    lastTitle = title;
    if (!content.is_null()) text += contentLines(name, content);
  }
  return text;
}

}  // namespace

Json decodeSection(const Section& section) {
  const auto size = section.bytes.size() - mpeg::kSectionHeaderSize - mpeg::kCrcSize;
  const Fields body(Bytes(section.bytes).subspan(mpeg::kSectionHeaderSize, size));
  try {
    return formOf(mpeg::tableOfId(section.tableId()).value()).contentOf(section.extension(), body);
  } catch (const std::out_of_range&) {
    return {};
  }
}

std::string contentTitle(const std::string& table, const Json& content) {
  return filled(formOf(mpeg::tableOfName(table).value()).title, content);
}

std::string contentLines(const std::string& table, const Json& content) {
  std::string text;
  for (const auto& [key, line] : formOf(mpeg::tableOfName(table).value()).lines) {
    for (const Json& item : content[key])
      text += "  " + filled(line, item) + (item.contains("language") ? filled(", {language}\n", item) : "\n");
  }
  return text;
}

Json psiReport(const client::PsiStore& tables, const protocol::Channel& channel,
               std::optional<double> auxHz) {
  Json list = Json::array();
  std::size_t stored = 0;
  for (const PsiType type : mpeg::kAllTables) {
    stored += tables.tables[type].stored;
    list.push_back(tableReport(type, tables.tables[type], auxHz));
  }
  return {{"channel", protocol::channelName(channel)},
          {"locked", tables.locked},
          {"packets", stored},
          {"packets_out_of_reach", tables.outOfReach()},
          {"tables", std::move(list)}};
}

std::string psiText(const Json& report) {
  std::string text = fmt::format("Channel {}: {} stored\n", report["channel"].get<std::string>(),
                                 plural(report["packets"], "packet"));
  if (report["locked"].get<bool>()) {
    text +=
        "LOCKED: an upload is under way, or broke off; the channel sends no PSI, and its tables may be "
        "incomplete\n";
  }
  text += overview(report["tables"]);
  for (const Json& table : report["tables"]) {
    if (const std::size_t beyond = table["packets_out_of_reach"]; beyond > 0) {
      text +=
          fmt::format("{}: {} beyond what a card can be asked for ({} positions a table and PID)\n",
                      table["table"].get<std::string>(), plural(beyond, "packet"), client::kReachablePackets);
    }
  }
  for (const Json& table : report["tables"]) text += details(table);
  return text;
}

}  // namespace commands
