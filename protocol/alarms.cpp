#include "protocol/alarms.h"

#include <algorithm>
#include <array>
#include <limits>

namespace protocol {
namespace {

constexpr std::size_t kPageHead = 8;  // the number of the next event
constexpr std::size_t kRecordHead = 24;

void put64(u8* at, std::uint64_t value) {
  wire::put32(at, static_cast<u32>(value >> 32));
  wire::put32(at + 4, static_cast<u32>(value));
}
std::uint64_t get64(const u8* at) {
  return std::uint64_t{wire::get32(at)} << 32 | wire::get32(at + 4);
}

template <typename AlarmType>  // const or not
auto textsOf(AlarmType& alarm) {
  return std::array{&alarm.zhTitle, &alarm.zhText, &alarm.enTitle,
                    &alarm.enText,  &alarm.zhTrap, &alarm.enTrap};
}

Bytes encode(const AlarmEvent& event) {
  Bytes record(kRecordHead);
  put64(record.data(), event.number);
  wire::put32(&record[8], event.at);
  wire::put32(&record[12], event.alarm.happened);
  wire::put16(&record[16], event.alarm.type);
  record[18] = static_cast<u8>(event.kind);
  record[19] = event.alarm.slot;
  record[20] = event.alarm.port;
  for (const std::string* text : textsOf(event.alarm)) {
    const std::size_t size = std::min<std::size_t>(text->size(), std::numeric_limits<u8>::max());
    record.push_back(static_cast<u8>(size));
    record.insert(record.end(), text->begin(), text->begin() + static_cast<std::ptrdiff_t>(size));
  }
  return record;
}

// Takes a record off the front; nothing when it is none.
std::optional<AlarmEvent> decode(std::span<const u8>& bytes) {
  if (bytes.size() < kRecordHead || bytes[18] > static_cast<u8>(AlarmEvent::Kind::kSlotAbsent)) return {};
  AlarmEvent event{.number = get64(bytes.data()),
                   .at = wire::get32(&bytes[8]),
                   .kind = static_cast<AlarmEvent::Kind>(bytes[18]),
                   .alarm = {}};
  event.alarm.happened = wire::get32(&bytes[12]);
  event.alarm.type = wire::get16(&bytes[16]);
  event.alarm.slot = bytes[19];
  event.alarm.port = bytes[20];
  bytes = bytes.subspan(kRecordHead);
  for (std::string* text : textsOf(event.alarm)) {
    if (bytes.empty() || bytes.size() - 1 < bytes[0]) return {};
    text->assign(bytes.begin() + 1, bytes.begin() + 1 + bytes[0]);
    bytes = bytes.subspan(std::size_t{1} + bytes[0]);
  }
  return event;
}

}  // namespace

Bytes alarmPage(std::uint64_t next) {
  Bytes page(kPageHead);
  put64(page.data(), next);
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
  return get64(request.data());
}

std::optional<AlarmPage> decodeAlarmPage(std::span<const u8> data) {
  if (data.size() < kPageHead) return {};
  AlarmPage page{.next = get64(data.data()), .events = {}};
  for (data = data.subspan(kPageHead); !data.empty();) {
    auto event = decode(data);
    if (!event) return {};
    page.events.push_back(*std::move(event));
  }
  return page;
}

const AlarmEventKind& kindOf(const AlarmEvent& event) {
  static constexpr AlarmEventKind kKinds[] = {
      {"raised", "alarm", "告警"},
      {"recovered", "recovered", "恢复"},
      {"recovered_without_alarm", "recovered, no alarm stood", "恢复(无告警)"},
      {"slot_absent", "ended, no card in the slot", "结束(无卡)"}};
  return kKinds[static_cast<std::size_t>(event.kind)];
}

}  // namespace protocol
