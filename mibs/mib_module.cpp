#include "mibs/mib_module.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cctype>
#include <numeric>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/numbers.h"
#include "protocol/alarms.h"
#include "protocol/mib_rows.h"
#include "protocol/variables.h"
#include "ui/qamMibRows.h"

namespace mibs {
namespace {

using namespace protocol;  // NOLINT(google-build-using-namespace)

constexpr const char* kTemplate =
#include "template.inc"
    ;

// ---- The template ----

using Values = std::vector<std::pair<std::string, std::string>>;

// The text with the value for each @name@.
std::string fill(std::string text, const Values& values) {
  for (const auto& [name, value] : values) {
    const std::string mark = '@' + name + '@';
    for (std::size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += value.size())
      text.replace(at, mark.size(), value);
  }
  return text;
}

// The text with each block between the lines "@each NAME@" and "@end NAME@" repeated for all items.
template <typename Items>
std::string repeat(std::string text, const std::string& name, const Items& items, auto textOf) {
  const std::string begin = "@each " + name + "@\n";
  const std::string end = "@end " + name + "@\n";
  for (std::size_t at = 0; (at = text.find(begin)) != std::string::npos;) {
    const std::size_t last = text.find(end, at);
    const std::string block = text.substr(at + begin.size(), last - at - begin.size());
    std::string all;
    for (const auto& item : items) all += textOf(block, item);
    text.replace(at, last + end.size() - at, all);
  }
  return text;
}

// Broken between words, as the continuation of a line that is indented so far.
std::string wrapped(std::string_view text, std::size_t indent) {
  constexpr std::size_t kWidth = 78;
  std::string all;
  for (std::size_t room = kWidth - indent; text.size() > room; room = kWidth - indent) {
    const std::size_t blank = text.rfind(' ', room);
    all.append(text.substr(0, blank)).append("\n").append(indent, ' ');
    text.remove_prefix(blank + 1);
  }
  return all.append(text);
}

// ---- The rows of a slot ----

bool isChoice(const CardVariable& variable) {
  return !variable.names[0].name.empty();
}

// A label begins with a lower-case letter: "64-QAM" is qam64.
std::string labels(const CardVariable& variable) {
  std::vector<std::string> all;
  for (const auto& [value, name] : variable.names) {
    const std::size_t qam = name.find("-QAM");
    if (!name.empty())
      all.push_back(
          fmt::format("{}{}({})", qam == std::string_view::npos ? "" : "qam", name.substr(0, qam), value));
  }
  return fmt::format("{}", fmt::join(all, ", "));
}

// "no_record" is noRecord.
std::string stateLabels() {
  std::vector<std::string> all;
  for (const CardStateName& state : kCardStates) {
    std::string label(state.name);
    for (std::size_t at = 0; (at = label.find('_')) != std::string::npos;)
      label.replace(at, 2, 1, static_cast<char>(std::toupper(static_cast<unsigned char>(label[at + 1]))));
    all.push_back(fmt::format("{}({})", label, mibNumber(state.state)));
  }
  return wrapped(fmt::format("{}", fmt::join(all, ", ")), 20);
}

std::string severityLabels() {
  std::vector<std::string> all;
  for (int number = static_cast<int>(Severity::kIndeterminate);
       number <= static_cast<int>(Severity::kWarning); ++number)
    all.push_back(fmt::format("{}({})", nameOf(static_cast<Severity>(number)), number));
  return wrapped(fmt::format("{}", fmt::join(all, ", ")), 20);
}

std::string description(const MibText& row, const CardVariable& variable, std::string_view unit) {
  std::string text(row.description);
  if (!isChoice(variable) && variable.step > 1) {
    text += unit == variable.unit
                ? fmt::format(" In steps of {} {}.", variable.step, unit)
                : fmt::format(" In steps of {}.{} {}.", variable.step / 10, variable.step % 10, unit);
  }
  if (variable.warnStep > 0) {
    text += fmt::format(
        " The default clock table has rows in steps of {0} {1} from {2} {1} only. Without a row in the "
        "card's own table the clock stays as it is and disagrees with the modulator.",
        variable.warnStep, unit, variable.bounds.least);
  }
  return text;
}

constexpr u32 kGroupOfFirstSlot = 3;  // after those of the alarms

struct Row {
  const QamMibRow& at;
  const MibText& text;
};

std::string rowText(const std::string& block, const Row& row) {
  const CardVariable& variable = *findCardVariable(row.text.variable);
  std::string_view unit = variable.unit;
  if (unit.starts_with(kTenths)) unit.remove_prefix(kTenths.size());
  std::string syntax(row.text.syntax);
  if (variable.bounds.most > 0 && !isChoice(variable))
    syntax += fmt::format(" ({}..{})", variable.bounds.least, variable.bounds.most);
  return fill(block, {{"stem", std::string(row.text.stem)},
                      {"syntax", syntax},
                      {"units", unit.empty() ? "" : fmt::format("    UNITS       \"{}\"\n", unit)},
                      {"access", row.at.writable ? "read-write" : "read-only"},
                      {"description", wrapped(description(row.text, variable, unit), 9)},
                      {"suffix 3", std::to_string(row.at.suffix[3])}});
}

// The rows with one first number of their suffix.
std::string familyText(const std::string& block, const std::pair<u32, std::string>& family) {
  std::vector<Row> rows;
  for (std::size_t i = 0; i < std::size(kMibRows); ++i)
    if (kMibRows[i].suffix[0] == family.first) rows.push_back({kMibRows[i], mibTexts()[i]});
  return fill(repeat(block, "row", rows, rowText), {{"family", family.second},
                                                    {"suffix 0", std::to_string(family.first)},
                                                    {"suffix 1", std::to_string(rows[0].at.suffix[1])},
                                                    {"suffix 2", std::to_string(rows[0].at.suffix[2])}});
}

std::string slotText(const std::string& block, u32 slot) {
  static const std::vector<std::pair<u32, std::string>> kFamilies = {
      {1, "Versions"}, {2, "Settings"}, {3, "Ch2"}};
  std::vector<std::string> objects;
  for (const MibText& text : mibTexts()) objects.push_back(fmt::format("slot{}{}", slot + 1, text.stem));
  return fill(repeat(block, "family", kFamilies, familyText),
              {{"slot", std::to_string(slot + 1)},
               {"node", std::to_string(kMibFirstSlot + slot)},
               {"group", std::to_string(kGroupOfFirstSlot + slot)},
               {"objects", wrapped(fmt::format("{}", fmt::join(objects, ", ")), 18)}});
}

// ---- The base ----

// Nodes that a base may be below, the longest first: every base is below one of the last three.
struct Anchor {
  std::vector<u32> name;
  std::string descriptor;
  std::string import{};  // from SNMPv2-SMI
};

const Anchor& anchorOf(std::span<const u32> base) {
  static const Anchor kAnchors[] = {
      {{1, 3, 6, 1, 4, 1}, "enterprises", ",\n    enterprises"},
      {{1, 3, 6, 1}, "internet", ",\n    internet"},
      {{0}, "ccitt"},
      {{1}, "iso"},
      {{2}, "joint-iso-ccitt"},
  };
  return *std::ranges::find_if(kAnchors, [base](const Anchor& anchor) {
    return std::ranges::equal(anchor.name, base.first(anchor.name.size()));
  });
}

// The nodes between anchor and module, each with a name of its own.
Values baseValues(std::span<const u32> base) {
  const Anchor& anchor = anchorOf(base);
  std::string above = anchor.descriptor, nodes;
  for (std::size_t i = anchor.name.size(); i < base.size() - 1; ++i) {
    const std::string name = fmt::format("qamBase{}", i - anchor.name.size() + 1);
    nodes += fmt::format("{} OBJECT IDENTIFIER ::= {{ {} {} }}\n", name, above, base[i]);
    above = name;
  }
  return {{"base", mibBaseText(base)},
          {"anchor", anchor.import},
          {"above", above},
          {"last", std::to_string(base.back())},
          {"nodes above", nodes.empty() ? "" : nodes + '\n'}};
}

}  // namespace

std::string mibModule(std::span<const u32> base) {
  static constexpr std::pair<const char*, u32> kNumbers[] = {
      {"slots", MAX_BOARD_NUM},
      {"channels", MAX_QAM_OUT_NUM},
      {"notifications", kMibNotifications},
      {"notification objects", kMibNotificationObjects},
      {"raised", kMibAlarmRaised},
      {"cleared", kMibAlarmCleared},
      {"alarm slot", kMibAlarmSlot},
      {"alarm port", kMibAlarmPort},
      {"alarm type", kMibAlarmType},
      {"alarm english", kMibAlarmEnglish},
      {"alarm chinese", kMibAlarmChinese},
      {"alarm number", kMibAlarmNumber},
      {"alarm time", kMibAlarmTime},
      {"alarm severity", kMibAlarmSeverity},
      {"alarm state", kMibAlarmState},
      {"alarm english title", kMibAlarmEnglishTitle},
      {"alarm english content", kMibAlarmEnglishContent},
      {"alarm chinese title", kMibAlarmChineseTitle},
      {"alarm chinese content", kMibAlarmChineseContent},
      {"chassis", kMibChassis},
      {"alarm table", kMibAlarmTable},
      {"card table", kMibCardTable},
      {"sensor table", kMibSensorTable},
      {"channel table", kMibChannelTable},
      {"chassis group", kGroupOfFirstSlot + MAX_BOARD_NUM},
  };
  Values values = baseValues(base);
  for (const auto& [name, number] : kNumbers) values.emplace_back(name, std::to_string(number));
  for (const CardVariable& variable : cardVariables()) values.emplace_back(variable.name, labels(variable));
  values.emplace_back("card states", stateLabels());
  values.emplace_back("severities", severityLabels());
  std::vector<u32> slots(MAX_BOARD_NUM);
  std::iota(slots.begin(), slots.end(), 0);
  return fill(repeat(kTemplate, "slot", slots, slotText), values);
}

}  // namespace mibs
