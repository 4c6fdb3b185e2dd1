// The state of a card: names in the status and texts on the panels. The names are part of docs/report.md.
#pragma once

#include <optional>
#include <string_view>

namespace protocol {

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

}  // namespace protocol
