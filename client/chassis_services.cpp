#include "client/chassis_services.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "protocol/records.h"

namespace client {
namespace {

Bytes askChassis(Link& link, Operation operation, const Channel& place, Bytes data, const std::string& what) {
  return ask(link, makeRequest(operation, 0, place.slot, place.port, std::move(data)), what);
}

}  // namespace

std::vector<Section> sourceSections(Link& link, const SourcePort& source, u16 pid, u8 tableId) {
  const std::string what = fmt::format("read {} of {}", nameOfTableId(tableId), inputName(source));
  constexpr std::size_t kReplyHead = 8;
  std::vector<Section> sections;
  u32 total = 0;
  do {
    Bytes request;
    base::append16(request, pid);
    request.insert(request.end(), {tableId, 0});
    base::append32(request, static_cast<u32>(sections.size()));
    const Bytes reply = askChassis(link, Operation::kSourceSections,
                                   {.slot = source.slot, .port = source.port}, request, what);
    if (reply.size() < kReplyHead) failOnReply(what);
    total = wire::get32(reply.data());
    const std::size_t before = sections.size();
    for (std::size_t at = kReplyHead; at + 2 <= reply.size();) {
      const std::size_t size = wire::get16(&reply[at]);
      at += 2;
      if (size < kSectionHeaderSize + kCrcSize || size > reply.size() - at) failOnReply(what);
      const auto first = reply.begin() + static_cast<std::ptrdiff_t>(at);
      sections.push_back({.pid = pid, .bytes = Bytes(first, first + static_cast<std::ptrdiff_t>(size))});
      at += size;
    }
    if (sections.size() == before) break;  // the table has become shorter meanwhile
  } while (sections.size() < total);
  return sections;
}

std::vector<chassis::RouterWords> routerMap(Link& link, const Channel& channel) {
  constexpr std::size_t kPositionSize = 6;
  const std::string what = fmt::format("read the router's map of channel {}", channelName(channel));
  const Bytes reply = askChassis(link, Operation::kRouterMap, channel, {}, what);
  if (reply.size() != kPidMapSize * kPositionSize) failOnReply(what);
  std::vector<chassis::RouterWords> map(kPidMapSize);
  for (std::size_t i = 0; i < kPidMapSize; ++i) {
    for (std::size_t word = 0; word < map[i].size(); ++word) {
      map[i][word] = wire::get16(&reply[i * kPositionSize + word * 2]);
    }
  }
  return map;
}

void search(Link& link, const Channel& channel, u16 pid, u8 tableId, bool on) {
  ts_data_set request{.pid = {}, .tableid = tableId, .status = on ? u8{1} : u8{0}};
  request.pid = pid;
  askChassis(link, Operation::kSearch, channel, base::bytesOf(request),
             fmt::format("search channel {}", channelName(channel)));
}

std::vector<Packet> searched(Link& link, const Channel& channel) {
  constexpr std::size_t kHead = 4;
  const std::string what = fmt::format("read what the search of channel {} found", channelName(channel));
  const Bytes reply = askChassis(link, Operation::kSearched, channel, {}, what);
  if (reply.size() < kHead || reply.size() != kHead + reply[3] * kTsPacketSize) failOnReply(what);
  std::vector<Packet> packets(reply[3]);
  for (std::size_t i = 0; i < packets.size(); ++i) {
    std::copy_n(&reply[kHead + i * kTsPacketSize], kTsPacketSize, packets[i].begin());
  }
  return packets;
}

u32 beginCall(Link& link, u16 slot, const std::string& routine, std::span<const u32> arguments) {
  Bytes request(routine.begin(), routine.end());
  request.push_back(0);
  for (const u32 argument : arguments) {
    base::append32(request, argument);
  }
  const std::string what = fmt::format("call {} of card {}", routine, slot + 1);
  const Bytes reply = askChassis(link, Operation::kCall, {.slot = slot, .port = 0}, std::move(request), what);
  const auto number = decodeNumber(reply);
  if (!number) failOnReply(what);
  return *number;
}

CallState callState(Link& link, u16 slot, u32 number) {
  const std::string what = fmt::format("ask for call {} of card {}", number, slot + 1);
  const Bytes reply =
      askChassis(link, Operation::kCallResult, {.slot = slot, .port = 0}, encodeNumber(number), what);
  if (reply.size() < 4) failOnReply(what);
  return {.finished = reply[0] != 0, .printed = std::string(reply.begin() + 4, reply.end())};
}

// ---- The variables of a card ----

namespace {

Bytes askCard(Link& link, Operation operation, int slot, u32 id, Bytes data, const std::string& what) {
  return ask(link, makeRequest(operation, static_cast<u16>(id), static_cast<u16>(slot), 0, std::move(data)),
             what);
}

std::string variableName(int slot, u32 id) {
  const CardVariable* variable = findCardVariable(id);
  return fmt::format("{} of the card in slot {}", variable == nullptr ? fmt::to_string(id) : variable->name,
                     slot + 1);
}

}  // namespace

VariableValue getVariable(Link& link, int slot, u32 id) {
  const std::string what = "read " + variableName(slot, id);
  const auto value = decodeValue(askCard(link, Operation::kGetVariable, slot, id, {}, what));
  const CardVariable* variable = findCardVariable(id);
  const bool isText = variable != nullptr && variable->kind == VariableKind::kText;
  if (!value || std::holds_alternative<std::string>(*value) != isText) failOnReply(what);
  return *value;
}

void setVariable(Link& link, int slot, u32 id, u32 value) {
  askCard(link, Operation::kSetVariable, slot, id, encodeNumber(value), "set " + variableName(slot, id));
}

// ---- Alarms ----

namespace {

AlarmPage readPage(Link& link, Operation operation, std::uint64_t from) {
  const std::string what = operation == Operation::kAlarms ? "read the alarms" : "read the alarms' history";
  auto page = decodeAlarmPage(askChassis(link, operation, {}, alarmPage(from), what));
  const auto isEarlier = [&](const AlarmEvent& event) { return event.number < from; };
  if (!page || std::ranges::any_of(page->events, isEarlier)) failOnReply(what);
  return *std::move(page);
}

std::vector<AlarmEvent> readAll(Link& link, Operation operation, std::uint64_t from) {
  std::vector<AlarmEvent> all;
  for (;;) {
    const AlarmPage page = readPage(link, operation, from);
    if (page.events.empty()) return all;
    all.insert(all.end(), page.events.begin(), page.events.end());
    from = all.back().number + 1;
  }
}

}  // namespace

std::vector<Alarm> readAlarms(Link& link) {
  std::vector<Alarm> alarms;
  for (AlarmEvent& raised : readAll(link, Operation::kAlarms, 0)) alarms.push_back(std::move(raised.alarm));
  return alarms;
}

std::vector<AlarmEvent> readAlarmEvents(Link& link, std::uint64_t from) {
  return readAll(link, Operation::kAlarmEvents, from);
}

std::uint64_t nextAlarmEvent(Link& link) {
  return readPage(link, Operation::kAlarmEvents, std::numeric_limits<std::uint64_t>::max()).next;
}

// ---- The front panel ----

LcdImage readLcd(Link& link) {
  const std::string what = "read the LCD";
  auto lcd = decodeLcd(askChassis(link, Operation::kLcd, {}, {}, what));
  if (!lcd) failOnReply(what);
  return *std::move(lcd);
}

void pressKey(Link& link, chassis::PanelKey key) {
  askChassis(link, Operation::kKey, {}, {key}, "press a key");
}

}  // namespace client
