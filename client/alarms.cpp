#include "client/alarms.h"

#include <algorithm>
#include <array>
#include <limits>

#include "client/chassis_services.h"
#include "platform/wire.h"

namespace client {
namespace {

constexpr std::size_t kPageHead = 8;  // the number that the next event will have
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

Bytes askFrom(Link& link, Operation operation, std::uint64_t from, const std::string& what) {
  Bytes request(kPageHead);
  put64(request.data(), from);
  Bytes reply = ask(link, operation, {}, request, what);
  if (reply.size() < kPageHead) misshapen(what);
  return reply;
}

std::vector<AlarmEvent> readAll(Link& link, Operation operation, std::uint64_t from,
                                const std::string& what) {
  std::vector<AlarmEvent> events;
  for (;;) {
    const Bytes reply = askFrom(link, operation, from, what);
    std::span<const u8> rest = std::span(reply).subspan(kPageHead);
    if (rest.empty()) return events;
    while (!rest.empty()) {
      const auto event = decode(rest);
      if (!event || event->number < from) misshapen(what);
      from = event->number + 1;
      events.push_back(*event);
    }
  }
}

constexpr const char* kReadEvents = "read the alarms' history";

}  // namespace

Bytes alarmPage(std::uint64_t next) {
  Bytes page(kPageHead);
  put64(page.data(), next);
  return page;
}

bool addToPage(Bytes& page, const AlarmEvent& event) {
  constexpr std::size_t kMostData = 1400;  // with all headers it fits a frame of Ethernet
  const Bytes record = encode(event);
  if (page.size() + record.size() > kMostData) return false;
  page.insert(page.end(), record.begin(), record.end());
  return true;
}

std::optional<std::uint64_t> pageFrom(std::span<const u8> request) {
  if (request.size() != kPageHead) return {};
  return get64(request.data());
}

std::vector<Alarm> readAlarms(Link& link) {
  std::vector<Alarm> alarms;
  for (AlarmEvent& raised : readAll(link, Operation::kAlarms, 0, "read the alarms")) {
    alarms.push_back(std::move(raised.alarm));
  }
  return alarms;
}

std::vector<AlarmEvent> readAlarmEvents(Link& link, std::uint64_t from) {
  return readAll(link, Operation::kAlarmEvents, from, kReadEvents);
}

std::uint64_t nextAlarmEvent(Link& link) {
  const std::uint64_t never = std::numeric_limits<std::uint64_t>::max();
  return get64(askFrom(link, Operation::kAlarmEvents, never, kReadEvents).data());
}

}  // namespace client
