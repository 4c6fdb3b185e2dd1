// The states of a card and the chassis's alarms for clients, with their words; and the pages that transfer
// alarms: the active ones, and the events of the log. docs/management-datagram.md describes the records.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/bytes.h"

namespace protocol {

using base::Bytes;

// Names in the status and texts on the panels. The names are part of docs/report.md.
enum class CardState { kStarting, kRunning, kConfigError, kNoBitstream, kHung, kNotRegistered, kNoRecord };

// A text in the languages of the front panel; the Chinese in characters of GB 2312.
struct Words {
  std::string_view english, chinese;
};

struct CardStateName {
  CardState state;
  std::string_view name;
  Words words;
};
inline constexpr CardStateName kCardStates[] = {
    {CardState::kStarting, "starting", {"starting", "正在启动"}},
    {CardState::kRunning, "running", {"running", "运行"}},
    {CardState::kConfigError, "config_error", {"config error", "配置错误"}},
    {CardState::kNoBitstream, "no_bitstream", {"no bitstream", "没有逻辑文件"}},
    {CardState::kHung, "hung", {"hangs", "无响应"}},
    {CardState::kNotRegistered, "not_registered", {"not registered", "未注册"}},
    {CardState::kNoRecord, "no_record", {"no record", "没有参数"}},
};

constexpr const CardStateName& nameOf(CardState state) {
  return kCardStates[static_cast<std::size_t>(state)];
}

// Texts are UTF-8. Slots and ports count from 0.
struct Alarm {
  u8 slot = 0;
  u8 port = 0;
  u16 type = 0;
  u32 happened = 0;                                      // seconds since 1970-01-01 UTC
  std::string zhTitle{}, zhText{}, enTitle{}, enText{};  // shown on the panel
  std::string zhTrap{}, enTrap{};                        // for logs and traps
};

struct AlarmEvent {
  enum class Kind : u8 { kRaised = 0, kRecovered = 1, kRecoveredWithoutAlarm = 2, kSlotAbsent = 3 };
  std::uint64_t number = 0;  // increases by one per event, also across restarts
  u32 at = 0;                // seconds since 1970-01-01 UTC
  Kind kind = Kind::kRaised;
  Alarm alarm;  // for a recovery: its own trap texts, and the titles of the alarm that it ended
};

// The name of a kind in JSON and in the languages of the front panel.
struct AlarmEventKind {
  const char* name;
  const char* english;
  const char* chinese;
};
const AlarmEventKind& kindOf(const AlarmEvent& event);

// A page of alarms or events: starts with the number of the next event; entries are added while there is room
// (false: no room); and it can be read.
Bytes alarmPage(std::uint64_t next);
bool addToPage(Bytes& page, const AlarmEvent& event);
struct AlarmPage {
  std::uint64_t next = 0;
  std::vector<AlarmEvent> events;
};
std::optional<AlarmPage> decodeAlarmPage(std::span<const u8> data);
// The data of a request: the number of the first event wanted.
std::optional<std::uint64_t> pageFrom(std::span<const u8> request);

}  // namespace protocol
