#include "protocol/alarms.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>

namespace protocol {
namespace {

constexpr std::size_t kPageHead = 8;  // the number of the next event

// The texts follow, each after its size in a byte.
struct RecordHead {
  wire::U32 numberHigh, number, at, happened;
  wire::U16 type;
  u8 kind, slot, port, channel, reserved[2];
};
static_assert(sizeof(RecordHead) == 24);

std::uint64_t join(u32 high, u32 low) {
  return std::uint64_t{high} << 32 | low;
}

template <typename AlarmType>  // const or not
auto textsOf(AlarmType& alarm) {
  return std::array{&alarm.zhTitle, &alarm.zhText, &alarm.enTitle,
                    &alarm.enText,  &alarm.zhTrap, &alarm.enTrap};
}

Bytes encode(const AlarmEvent& event) {
  RecordHead head{};
  head.numberHigh = static_cast<u32>(event.number >> 32);
  head.number = static_cast<u32>(event.number);
  head.at = event.at;
  head.happened = event.alarm.happened;
  head.type = event.alarm.type;
  head.kind = static_cast<u8>(event.kind);
  head.slot = event.alarm.slot;
  head.port = event.alarm.port;
  head.channel = event.alarm.channel;
  Bytes record = base::bytesOf(head);
  for (const std::string* text : textsOf(event.alarm)) {
    const std::string cut = text->substr(0, std::numeric_limits<u8>::max());
    record.push_back(static_cast<u8>(cut.size()));
    record.insert(record.end(), cut.begin(), cut.end());
  }
  return record;
}

// Takes a record off the front; nothing when it is none.
std::optional<AlarmEvent> decode(std::span<const u8>& bytes) {
  const auto head = base::recordOf<RecordHead>(bytes);
  if (bytes.size() < sizeof head || head.kind > static_cast<u8>(AlarmEvent::Kind::kEndedWhileOff)) return {};
  AlarmEvent event{.number = join(head.numberHigh, head.number),
                   .at = head.at,
                   .kind = static_cast<AlarmEvent::Kind>(head.kind),
                   .alarm = {.slot = head.slot,
                             .port = head.port,
                             .channel = head.channel,
                             .type = head.type,
                             .happened = head.happened}};
  bytes = bytes.subspan(sizeof head);
  for (std::string* text : textsOf(event.alarm)) {
    if (bytes.empty() || bytes.size() - 1 < bytes[0]) return {};
    text->assign(bytes.begin() + 1, bytes.begin() + 1 + bytes[0]);
    bytes = bytes.subspan(std::size_t{1} + bytes[0]);
  }
  return event;
}

struct TypeSeverity {
  u16 type;
  Severity severity;
};
constexpr TypeSeverity kSeverities[] = {
    {kAlarmCardDown, Severity::kCritical},  {kAlarmRecordNotKept, Severity::kMajor},
    {kAlarmInputLost, Severity::kCritical}, {kAlarmTooHot, Severity::kMajor},
    {kAlarmRateOverflow, Severity::kMajor},
};

}  // namespace

Severity severityOf(u16 type) {
  const auto* found = std::ranges::find(kSeverities, type, &TypeSeverity::type);
  return found == std::end(kSeverities) ? Severity::kIndeterminate : found->severity;
}

const char* nameOf(Severity severity) {
  constexpr const char* kNames[] = {"indeterminate", "critical", "major", "minor", "warning"};
  return kNames[static_cast<u8>(severity) - static_cast<u8>(Severity::kIndeterminate)];
}

Bytes alarmPage(std::uint64_t next) {
  Bytes page;
  base::append32(page, static_cast<u32>(next >> 32));
  base::append32(page, static_cast<u32>(next));
  return page;
}

bool addToPage(Bytes& page, const AlarmEvent& event) {
  constexpr std::size_t kMostData = 1400;  // with all headers it fits into an Ethernet frame
  const Bytes record = encode(event);
  if (page.size() + record.size() > kMostData) return false;
  base::append(page, record);
  return true;
}

std::optional<std::uint64_t> pageFrom(std::span<const u8> request) {
  if (request.size() != kPageHead) return {};
  return join(wire::get32(request.data()), wire::get32(&request[4]));
}

std::optional<AlarmPage> decodeAlarmPage(std::span<const u8> data) {
  if (data.size() < kPageHead) return {};
  AlarmPage page{.next = *pageFrom(data.first(kPageHead)), .events = {}};
  for (data = data.subspan(kPageHead); !data.empty();) {
    auto event = decode(data);
    if (!event) return {};
    page.events.push_back(*std::move(event));
  }
  return page;
}

const AlarmEventKind& kindOf(const AlarmEvent& event) {
  static constexpr AlarmEventKind kKinds[] = {
      {"raised", {"alarm", "告警"}},
      {"recovered", {"recovered", "恢复"}},
      {"recovered_without_alarm", {"recovered, no alarm was active", "恢复(无告警)"}},
      {"slot_absent", {"ended, no card in the slot", "结束(无卡)"}},
      {"ended_while_off", {"ended while the power was off", "结束(断电期间)"}}};
  return kKinds[static_cast<std::size_t>(event.kind)];
}

}  // namespace protocol
