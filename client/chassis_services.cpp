#include "client/chassis_services.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "protocol/records.h"

namespace client {
namespace {

Request chassisRequest(Operation operation, const Channel& place, Bytes data = {}) {
  return makeRequest(operation, 0, place.slot, place.port, std::move(data));
}

std::string placeName(const SourcePort& place) {
  return channelName({.slot = place.slot, .port = place.port});
}

// For replies whose bytes are taken as they are.
constexpr auto kUndecoded = [](Bytes data) { return std::optional(std::move(data)); };

}  // namespace

std::vector<Section> sourceSections(Link& link, const SourcePort& source, u16 pid, u8 tableId) {
  const std::string what = fmt::format("read {} of {}", nameOfTableId(tableId), inputName(source));
  std::vector<Section> sections;
  u32 total = 0;
  // Appends the sections of a page; false if it is malformed.
  const auto takePage = [&](std::span<const u8> page) {
    constexpr std::size_t kHead = 8;
    if (page.size() < kHead) return false;
    total = wire::get32(page.data());
    for (page = page.subspan(kHead); page.size() >= 2;) {
      const std::size_t size = wire::get16(page.data());
      page = page.subspan(2);
      if (size < kSectionHeaderSize + kCrcSize || size > std::min(page.size(), kMaxSectionSize)) return false;
      const auto bytes = page.first(size);
      sections.push_back({.pid = pid, .bytes = Bytes(bytes.begin(), bytes.end())});
      page = page.subspan(size);
    }
    return true;
  };
  std::size_t before = 0;
  do {
    before = sections.size();
    Bytes data;
    base::append16(data, pid);
    data.insert(data.end(), {tableId, 0});
    base::append32(data, static_cast<u32>(before));
    ask(link, chassisRequest(Operation::kSourceSections, {source.slot, source.port}, std::move(data)), what,
        kUndecoded, takePage);
    // A page without sections: the table has become shorter meanwhile.
  } while (sections.size() < total && sections.size() > before);
  return sections;
}

std::vector<chassis::RouterWords> routerMap(Link& link, const Channel& channel) {
  std::vector<chassis::RouterWords> map(kPidMapSize);
  const Bytes data = ask(link, chassisRequest(Operation::kRouterMap, channel),
                         fmt::format("read the router's map of channel {}", channelName(channel)), kUndecoded,
                         [&](const Bytes& d) { return d.size() == map.size() * sizeof map[0]; });
  const u8* at = data.data();
  for (auto& words : map) {
    for (u16& word : words) word = wire::get16(std::exchange(at, at + 2));
  }
  return map;
}

void search(Link& link, const Channel& channel, u16 pid, u8 tableId, bool on) {
  ts_data_set request{.pid = {}, .tableid = tableId, .status = on ? u8{1} : u8{0}};
  request.pid = pid;
  ask(link, chassisRequest(Operation::kSearch, channel, base::bytesOf(request)),
      fmt::format("search channel {}", channelName(channel)));
}

std::vector<Packet> searched(Link& link, const Channel& channel) {
  constexpr std::size_t kHead = 4;
  const Bytes data =
      ask(link, chassisRequest(Operation::kSearched, channel),
          fmt::format("read what the search of channel {} found", channelName(channel)), kUndecoded,
          [](const Bytes& d) { return d.size() >= kHead && d.size() == kHead + d[3] * kTsPacketSize; });
  std::vector<Packet> packets(data[3]);
  auto from = data.begin() + kHead;
  for (Packet& packet : packets) from = std::ranges::copy_n(from, kTsPacketSize, packet.begin()).in;
  return packets;
}

u32 beginCall(Link& link, u16 slot, const std::string& routine, std::span<const u32> arguments) {
  Bytes request(routine.begin(), routine.end());
  request.push_back(0);
  for (const u32 argument : arguments) base::append32(request, argument);
  return ask(link, chassisRequest(Operation::kCall, {.slot = slot}, std::move(request)),
             fmt::format("call {} of card {}", routine, slot + 1), decodeNumber);
}

CallState callState(Link& link, u16 slot, u32 number) {
  const Bytes data = ask(link, chassisRequest(Operation::kCallResult, {.slot = slot}, encodeNumber(number)),
                         fmt::format("ask for call {} of card {}", number, slot + 1), kUndecoded,
                         [](const Bytes& d) { return d.size() >= 4; });
  return {.finished = data[0] != 0, .printed = std::string(data.begin() + 4, data.end())};
}

// ---- The variables of a card ----

namespace {

Request variableRequest(Operation operation, int slot, u32 id, Bytes data = {}) {
  return makeRequest(operation, static_cast<u16>(id), static_cast<u16>(slot), 0, std::move(data));
}

std::string variableName(int slot, u32 id) {
  const CardVariable* variable = findCardVariable(id);
  return fmt::format("{} of the card in slot {}", variable == nullptr ? fmt::to_string(id) : variable->name,
                     slot + 1);
}

}  // namespace

VariableValue getVariable(Link& link, int slot, u32 id) {
  const CardVariable* variable = findCardVariable(id);
  const bool isText = variable != nullptr && variable->kind == VariableKind::kText;
  return ask(link, variableRequest(Operation::kGetVariable, slot, id), "read " + variableName(slot, id),
             decodeValue,
             [&](const VariableValue& v) { return std::holds_alternative<std::string>(v) == isText; });
}

void setVariable(Link& link, int slot, u32 id, u32 value) {
  ask(link, variableRequest(Operation::kSetVariable, slot, id, encodeNumber(value)),
      "set " + variableName(slot, id));
}

// ---- Alarms ----

namespace {

AlarmPage readPage(Link& link, Operation operation, std::uint64_t from) {
  return ask(link, chassisRequest(operation, {}, alarmPage(from)),
             operation == Operation::kAlarms ? "read the alarms" : "read the alarms' history",
             decodeAlarmPage, [&](const AlarmPage& page) {
               return std::ranges::none_of(page.events, [&](const auto& e) { return e.number < from; });
             });
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
  return ask(link, chassisRequest(Operation::kLcd, {}), "read the LCD", decodeLcd);
}

void pressKey(Link& link, chassis::PanelKey key) {
  ask(link, chassisRequest(Operation::kKey, {}, {static_cast<u8>(key)}), "press a key");
}

// ---- What is measured of streams ----

GroupStarts readGroupStarts(Link& link, const Channel& channel, u64 from) {
  std::optional<GroupStarts> all;
  for (;;) {
    Bytes data;
    base::append32(data, static_cast<u32>(from >> 32));
    base::append32(data, static_cast<u32>(from));
    GroupStarts page = ask(link, chassisRequest(Operation::kGroupStarts, channel, std::move(data)),
                           fmt::format("read the groups of channel {}", channelName(channel)),
                           decodeGroupStarts, [from](const GroupStarts& starts) {
                             return std::ranges::none_of(starts.groups, [from](const GroupStart& group) {
                               return group.number < from;
                             });
                           });
    std::vector<GroupStart> before = all ? std::move(all->groups) : std::vector<GroupStart>();
    before.insert(before.end(), page.groups.begin(), page.groups.end());
    const bool isLast = page.groups.empty() || page.groups.back().number + 1 == page.next;
    all = std::move(page);
    all->groups = std::move(before);
    if (isLast) return *std::move(all);
    from = all->groups.back().number + 1;
  }
}

PidCounts readPidCounts(Link& link, const SourcePort& place) {
  std::optional<PidCounts> all;
  for (u16 first = 0;;) {
    Bytes data;
    base::append16(data, first);
    PidCounts page =
        ask(link, makeRequest(Operation::kPids, kReadPids, place.slot, place.port, std::move(data)),
            fmt::format("count the PIDs of {}", placeName(place)), decodePidCounts,
            [first](const PidCounts& counts) {
              return std::ranges::none_of(counts.counts,
                                          [first](const PidCount& count) { return count.pid < first; });
            });
    const bool isLast = page.counts.empty() || page.counts.back().pid >= kNullPid;
    if (!all) all = PidCounts{.counted_ms = page.counted_ms, .pids = page.pids};
    all->counts.insert(all->counts.end(), page.counts.begin(), page.counts.end());
    if (isLast || all->counts.size() >= page.pids) return *std::move(all);
    first = static_cast<u16>(all->counts.back().pid + 1);
  }
}

void resetPidCounts(Link& link, const SourcePort& place) {
  ask(link, makeRequest(Operation::kPids, kResetPids, place.slot, place.port, {}),
      fmt::format("reset the counters of {}", placeName(place)));
}

// ---- Faults ----

namespace {

void changeFault(Link& link, u16 variable, const std::string& fault, u32 duration_ms) {
  Bytes data;
  base::append32(data, duration_ms);
  data.insert(data.end(), fault.begin(), fault.end());
  ask(link, makeRequest(Operation::kFault, variable, 0, 0, std::move(data)),
      fmt::format("{} {}", variable == kAddFault ? "add" : "clear", fault.empty() ? "the faults" : fault));
}

}  // namespace

void addFault(Link& link, const std::string& fault, std::chrono::milliseconds duration) {
  changeFault(link, kAddFault, fault, static_cast<u32>(duration.count()));
}

void clearFault(Link& link, const std::string& fault) {
  changeFault(link, kClearFault, fault, 0);
}

namespace {

std::string textOfFaults(Link& link, u16 variable) {
  const Bytes text = ask(link, makeRequest(Operation::kFault, variable, 0, 0, {}), "list the faults");
  return {text.begin(), text.end()};
}

}  // namespace

std::string listFaults(Link& link) {
  return textOfFaults(link, kListFaults);
}

std::string nameFaults(Link& link) {
  return textOfFaults(link, kNameFaults);
}

}  // namespace client
