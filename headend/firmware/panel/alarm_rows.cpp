#include "headend/firmware/panel/alarm_rows.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "base/text.h"

namespace headend {
namespace {

using chassis::Language;

template <std::size_t N>
std::string textOf(Language language, const char (&english)[N], const auto& chinese) {
  return language == Language::kChinese ? std::string(chinese, strnlen(chinese, sizeof chinese))
                                        : std::string(english, strnlen(english, N));
}

std::string contentOf(const AlarmRecord& raised, Language language) {
  return textOf(language, raised.alarm.StrEnCont, raised.alarm.StrZhCont);
}

// "1.2", or "1" where the alarm is of the whole card.
std::string placeOf(const AlarmRecord& raised) {
  return fmt::format("{}{}", raised.alarm.Slot + 1,
                     raised.channel > 0 ? fmt::format(".{}", raised.channel) : "");
}

// Lines end at blanks where that is possible.
void addWrapped(std::vector<MenuRow>& rows, std::string_view gbk) {
  while (!gbk.empty()) {
    std::string_view line = cutToFit(gbk, protocol::kLcdWidth);
    const std::size_t blank = gbk.substr(0, line.size() + 1).rfind(' ');
    if (line.size() < gbk.size() && blank != std::string_view::npos && blank > 0) line = gbk.substr(0, blank);
    rows.push_back({std::string(line)});
    gbk.remove_prefix(line.size());
    gbk.remove_prefix(std::min(gbk.find_first_not_of(' '), gbk.size()));
  }
}

}  // namespace

std::string titleOf(const AlarmRecord& raised, Language language) {
  return textOf(language, raised.alarm.StrEnTitle, raised.alarm.StrZhTitle);
}

MenuRow summaryOf(const AlarmRecord& raised, Language language) {
  return {.left = fmt::format("{} {}", placeOf(raised), titleOf(raised, language)),
          .below = contentOf(raised, language),
          .id = raised.number};
}

std::vector<MenuRow> detailsOf(const AlarmRecord& raised, Language language) {
  const auto label = [&](const protocol::Words& words) { return base::gbkOfUtf8(words.in(language)); };
  const std::string content = contentOf(raised, language);
  const std::string trap = textOf(language, raised.alarm.StrEnTrap, raised.alarm.StrZhTrap);
  const std::tm time = fmt::gmtime(static_cast<std::time_t>(raised.at));
  std::vector<MenuRow> rows;
  addWrapped(rows, content);
  rows.push_back({label(protocol::words::kDate), fmt::format("{:%Y-%m-%d}", time)});
  rows.push_back({"UTC", fmt::format("{:%H:%M:%S}", time)});
  rows.push_back({label(protocol::words::kPanelSlot), placeOf(raised)});
  rows.push_back({label(protocol::words::kType), fmt::to_string(raised.alarm.Type)});
  if (trap != content) addWrapped(rows, trap);
  return rows;
}

}  // namespace headend
