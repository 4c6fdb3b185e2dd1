// The texts of the front panel and of its image on a terminal, in the languages of the panel; the states of a
// card with theirs.
#pragma once

#include <algorithm>
#include <iterator>
#include <string_view>

#include "platform/panel.h"

namespace protocol {

// A text in the languages of the panels, UTF-8; the Chinese in characters of GB 2312.
struct Words {
  std::string_view english, chinese;

  std::string_view in(chassis::Language language) const {
    return language == chassis::Language::kChinese ? chinese : english;
  }
};

// "en" or "zh", in files and options.
constexpr std::string_view codeOf(chassis::Language language) {
  return language == chassis::Language::kChinese ? "zh" : "en";
}

constexpr chassis::Language next(chassis::Language language) {
  return chassis::kLanguages[(static_cast<std::size_t>(language) + 1) % std::size(chassis::kLanguages)];
}

// Names in JSON, which are part of docs/report.md, and words for operators: the same on the LCD, on terminals
// and in messages. The English words are the name with blanks.
enum class CardState { kStarting, kRunning, kConfigError, kNoBitstream, kHung, kNotRegistered, kNoRecord };

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
    {CardState::kHung, "hung", {"hung", "无响应"}},
    {CardState::kNotRegistered, "not_registered", {"not registered", "未注册"}},
    {CardState::kNoRecord, "no_record", {"no record", "没有参数"}},
};

constexpr const CardStateName& nameOf(CardState state) {
  return kCardStates[static_cast<std::size_t>(state)];
}

// Null for a name that is not in the table, as of a newer chassis.
constexpr const CardStateName* findCardState(std::string_view name) {
  const auto* found = std::ranges::find(kCardStates, name, &CardStateName::name);
  return found == std::end(kCardStates) ? nullptr : found;
}

static_assert(std::ranges::all_of(kCardStates, [](const CardStateName& state) {
  return std::ranges::equal(state.name, state.words.english,
                            [](char name, char word) { return name == (word == ' ' ? '_' : word); });
}));

namespace words {

// The front panel's own lines.
inline constexpr Words kHeadend = {"Headend", "前端"};
inline constexpr Words kLanguage = {"Language", "语言"};
inline constexpr Words kLanguageName = {"English", "中文"};
inline constexpr Words kRecordNotKept = {"record not kept", "参数未保存"};
inline constexpr Words kRecordKept = {"record kept", "参数已保存"};
inline constexpr Words kAlarmList = {"Alarms", "告警"};
inline constexpr Words kDate = {"Date", "日期"};
inline constexpr Words kPanelSlot = {"Slot", "槽位"};
inline constexpr Words kType = {"Type", "类型"};
inline constexpr Words kNoAlarm = {"none", "无"};  // also on a terminal

// The image on a terminal.
inline constexpr Words kTitle = {"Front panel", "前面板"};
inline constexpr Words kNoAnswer = {"no answer for {} s", "{} 秒无应答"};
inline constexpr Words kAlarm = {"alarm", "告警"};
inline constexpr Words kAlarms = {"Alarms (UTC)", "告警 (UTC)"};
inline constexpr Words kSlot = {"slot", "槽位"};
inline constexpr Words kNoCard = {"no card", "无卡"};
inline constexpr Words kMore = {"... {} more", "... 还有 {} 条"};
inline constexpr Words kKeyHelp = {"l 中文   p pixels   q quit", "l English   p 点阵   q 退出"};
inline constexpr Words kNoRoom = {"(too small for pixels)", "(终端太小,无法显示点阵)"};
inline constexpr Words kTooSmall = {"Terminal too small: {}x{}, needs {}x{}. q quits",
                                    "终端太小: {}x{}, 至少需要 {}x{}. q 退出"};

}  // namespace words
}  // namespace protocol
