#include "commands/mib_module.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <stdexcept>

#include "platform/numbers.h"
#include "protocol/mib_rows.h"
#include "protocol/variables.h"

namespace commands {
namespace {

using namespace protocol;  // NOLINT(google-build-using-namespace)

constexpr std::string_view kDate = "202611250000Z";
constexpr std::string_view kTextSize = "DisplayString (SIZE (0..15))";  // large enough for the card's texts

// Nodes that a base may stand below, the longest first: the last three have every base below them.
struct Anchor {
  std::vector<u32> name;
  std::string_view descriptor;
  std::string_view module;  // empty: needs no import
};

const Anchor& anchorOf(std::span<const u32> base) {
  static const Anchor kAnchors[] = {
      {{1, 3, 6, 1, 4, 1, 8072, 9999, 9999}, "netSnmpPlaypen", "NET-SNMP-MIB"},
      {{1, 3, 6, 1, 4, 1}, "enterprises", "SNMPv2-SMI"},
      {{1, 3, 6, 1}, "internet", "SNMPv2-SMI"},
      {{0}, "ccitt", ""},
      {{1}, "iso", ""},
      {{2}, "joint-iso-ccitt", ""},
  };
  return *std::find_if(std::begin(kAnchors), std::end(kAnchors), [base](const Anchor& anchor) {
    return std::equal(anchor.name.begin(), anchor.name.end(), base.begin());
  });
}

// What the syntax of objects refers to by name; a variable of the table stands for all of its kind.
struct Convention {
  std::string_view name;
  u32 variable;
  std::string_view description;
};

constexpr Convention kConventions[] = {
    {"QamConstellation", 33, "A constellation, as the card numbers them."},
    {"QamRfSwitch", 34, "Whether a channel is modulated. Without modulation nothing goes out."},
    {"QamPowerSwitch", 35, "Whether the output has its supplies."},
    {"QamTenthDBuV", 31, "A level in tenths of 1 dBuV: 1000 is 100.0 dBuV."},
};

const CardVariable& variableOf(u32 id) {
  const CardVariable* variable = findCardVariable(id);
  if (variable == nullptr) throw std::logic_error(fmt::format("there is no variable {}", id));
  return *variable;
}

bool isChoice(const CardVariable& variable) {
  return !variable.names[0].name.empty();
}

bool inTenths(const CardVariable& variable) {
  return variable.unit.starts_with(kTenths);
}

std::string_view units(const CardVariable& variable) {
  return inTenths(variable) ? variable.unit.substr(kTenths.size()) : variable.unit;
}

// Broken between words, as the continuation of a line that is indented so far.
std::string wrapped(std::string_view text, std::size_t indent) {
  constexpr std::size_t kWidth = 78;
  std::string all;
  std::size_t column = indent;
  while (!text.empty()) {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(text.size(), word.size() + 1));
    if (column > indent && column + 1 + word.size() > kWidth) {
      all += '\n' + std::string(indent, ' ');
      column = indent;
    } else if (column > indent) {
      all += ' ';
      ++column;
    }
    all += word;
    column += word.size();
  }
  return all;
}

std::string description(std::string_view text) {
  return fmt::format("    DESCRIPTION\n        \"{}\"\n", wrapped(text, 9));
}

// ---- Textual conventions ----

// A label begins with a lower-case letter: "64-QAM" is qam64.
std::string label(const CardVariable::NamedValue& choice) {
  constexpr std::string_view kQam = "-QAM";
  if (!choice.name.ends_with(kQam)) return fmt::format("{}({})", choice.name, choice.value);
  return fmt::format("qam{}({})", choice.name.substr(0, choice.name.size() - kQam.size()), choice.value);
}

std::string convention(const Convention& convention) {
  const CardVariable& variable = variableOf(convention.variable);
  std::vector<std::string> labels;
  for (const auto& choice : variable.names) {
    if (!choice.name.empty()) labels.push_back(label(choice));
  }
  return fmt::format("{} ::= TEXTUAL-CONVENTION\n{}    STATUS      current\n{}    SYNTAX      {}\n\n",
                     convention.name, inTenths(variable) ? "    DISPLAY-HINT \"d-1\"\n" : "",
                     description(convention.description),
                     labels.empty() ? "Integer32" : fmt::format("INTEGER {{ {} }}", fmt::join(labels, ", ")));
}

std::string_view conventionOf(const CardVariable& variable) {
  if (!isChoice(variable) && !inTenths(variable)) return "Integer32";
  const auto* found =
      std::find_if(std::begin(kConventions), std::end(kConventions), [&](const Convention& c) {
        const CardVariable& other = variableOf(c.variable);
        return other.names == variable.names && other.unit == variable.unit;
      });
  if (found == std::end(kConventions))
    throw std::logic_error(fmt::format("{} has no convention", variable.name));
  return found->name;
}

// ---- Objects ----

struct Object {
  std::string name;
  std::string syntax;
  std::string_view units;
  std::string_view access;
  std::string description;
  std::string at;
};

std::string objectType(const Object& object) {
  return fmt::format(
      "{} OBJECT-TYPE\n    SYNTAX      {}\n{}    MAX-ACCESS  {}\n    STATUS      current\n{}    ::= {{ {} "
      "}}\n\n",
      object.name, object.syntax,
      object.units.empty() ? "" : fmt::format("    UNITS       \"{}\"\n", object.units), object.access,
      description(object.description), object.at);
}

std::string syntaxOf(const CardVariable& variable) {
  if (variable.kind == VariableKind::kText) return std::string(kTextSize);
  if (isChoice(variable)) return std::string(conventionOf(variable));
  return fmt::format("{} ({}..{})", conventionOf(variable), variable.least, variable.most);
}

std::string descriptionOf(const MibRow& row, const CardVariable& variable) {
  std::string text(row.description);
  if (!isChoice(variable) && variable.step > 1) {
    text += inTenths(variable) ? fmt::format(" In steps of {}.{} {}.", variable.step / 10, variable.step % 10,
                                             units(variable))
                               : fmt::format(" In steps of {} {}.", variable.step, variable.unit);
  }
  if (variable.warnStep > 0) {
    text += fmt::format(
        " The default clock table has rows in steps of {0} {1} from {2} {1} only. Without a row in the "
        "card's own "
        "table the clock stays as it is and disagrees with the modulator.",
        variable.warnStep, variable.unit, variable.least);
  }
  return text;
}

// A node and those above it, up to a known one: each needs a name of its own.
std::string nodes(std::string_view above, std::span<const u32> suffix, std::span<const std::string> names) {
  std::string text;
  for (std::size_t i = 0; i < suffix.size(); ++i) {
    text += fmt::format("{} OBJECT IDENTIFIER ::= {{ {} {} }}\n", names[i],
                        i == 0 ? above : std::string_view(names[i - 1]), suffix[i]);
  }
  return text;
}

// The stems of the nodes that rows stand below, by the first number of their suffix.
std::string_view familyOf(const MibRow& row) {
  static constexpr std::string_view kFamilies[] = {"Versions", "Settings", "Ch2"};
  return kFamilies[row.suffix[0] - 1];
}

std::string slotName(int slot) {
  return fmt::format("slot{}", slot + 1);
}

std::string slotObjects(int slot) {
  const std::string name = slotName(slot);
  std::string text = fmt::format("-- Slot {}\n\n{} OBJECT IDENTIFIER ::= {{ qamHeadendMIB {} }}\n\n",
                                 slot + 1, name, kMibFirstSlot + static_cast<u32>(slot));
  std::string family;
  for (const MibRow& row : mibRows()) {
    const CardVariable& variable = variableOf(row.variable);
    const std::span above(row.suffix.data(), row.suffix.size() - 1);
    if (const auto next = fmt::format("{}{}", name, familyOf(row)); next != family) {
      family = next;
      text += nodes(name, above, std::array{family, family + "Class", family + "Objects"}) + '\n';
    }
    text += objectType({.name = fmt::format("{}{}", name, row.stem),
                        .syntax = syntaxOf(variable),
                        .units = units(variable),
                        .access = row.writable ? "read-write" : "read-only",
                        .description = descriptionOf(row, variable),
                        .at = fmt::format("{}Objects {}", family, row.suffix.back())});
  }
  return text;
}

// ---- Notifications ----

struct AlarmObject {
  std::string_view name;
  std::string syntax;
  std::string_view description;
  u32 at;
};

const std::vector<AlarmObject>& alarmObjects() {
  static const std::vector<AlarmObject> kObjects = {
      {"qamAlarmSlot", fmt::format("Integer32 (1..{})", MAX_BOARD_NUM), "Slot of the card.", kMibAlarmSlot},
      {"qamAlarmPort", fmt::format("Integer32 (1..{})", MAX_QAM_OUT_NUM), "Channel of the card.",
       kMibAlarmPort},
      {"qamAlarmType", "Unsigned32 (0..65535)", "Kind of the alarm, as the card numbers them.",
       kMibAlarmType},
      {"qamAlarmEnglishText", "SnmpAdminString (SIZE (0..255))", "What happened, in English.",
       kMibAlarmEnglish},
      {"qamAlarmChineseText", "SnmpAdminString (SIZE (0..255))", "What happened, in Chinese.",
       kMibAlarmChinese}};
  return kObjects;
}

std::string alarmObjectNames() {
  std::vector<std::string_view> names;
  for (const AlarmObject& object : alarmObjects()) names.push_back(object.name);
  return fmt::format("{{ {} }}", wrapped(fmt::format("{}", fmt::join(names, ", ")), 18));
}

std::string notification(std::string_view name, std::string_view what, u32 at) {
  return fmt::format(
      "{} NOTIFICATION-TYPE\n    OBJECTS     {}\n    STATUS      current\n{}    ::= {{ qamNotifications {} "
      "}}\n\n",
      name, alarmObjectNames(), description(what), at);
}

std::string notifications() {
  std::string text = fmt::format(
      "-- Notifications\n\n"
      "qamNotifications OBJECT IDENTIFIER ::= {{ qamHeadendMIB {} }}\n\n",
      kMibNotifications);
  text += notification("qamAlarmRaised", "An alarm of a channel was raised.", kMibAlarmRaised);
  text += notification("qamAlarmCleared", "The condition of an alarm has ended.", kMibAlarmCleared);
  text += fmt::format("qamNotificationObjects OBJECT IDENTIFIER ::= {{ qamHeadendMIB {} }}\n\n",
                      kMibNotificationObjects);
  for (const AlarmObject& object : alarmObjects()) {
    text += objectType({.name = std::string(object.name),
                        .syntax = object.syntax,
                        .units = {},
                        .access = "accessible-for-notify",
                        .description = std::string(object.description),
                        .at = fmt::format("qamNotificationObjects {}", object.at)});
  }
  return text;
}

// ---- Conformance ----

std::string slotGroup(int slot) {
  std::vector<std::string> names;
  for (const MibRow& row : mibRows()) names.push_back(slotName(slot) + std::string(row.stem));
  return fmt::format(
      "{}Group OBJECT-GROUP\n    OBJECTS     {{ {} }}\n    STATUS      current\n{}    ::= {{ qamGroups {} "
      "}}\n\n",
      slotName(slot), wrapped(fmt::format("{}", fmt::join(names, ", ")), 18),
      description(fmt::format("The objects of the card in slot {}.", slot + 1)), slot + 3);
}

std::string conformance() {
  std::string text = fmt::format(R"(-- Conformance

qamConformance OBJECT IDENTIFIER ::= {{ qamHeadendMIB {} }}
qamCompliances OBJECT IDENTIFIER ::= {{ qamConformance 1 }}
qamGroups      OBJECT IDENTIFIER ::= {{ qamConformance 2 }}

qamCompliance MODULE-COMPLIANCE
    STATUS      current
    DESCRIPTION
        "What a chassis with such cards has."
    MODULE
    MANDATORY-GROUPS {{ qamAlarmNotificationGroup, qamAlarmObjectGroup }}
)",
                                 kMibConformance);
  for (int slot = 0; slot < MAX_BOARD_NUM; ++slot) {
    text += fmt::format("    GROUP       {}Group\n", slotName(slot));
    text += description(fmt::format("Mandatory where slot {} has a card.", slot + 1));
  }
  text += "    ::= { qamCompliances 1 }\n\n";
  text += fmt::format(R"(qamAlarmNotificationGroup NOTIFICATION-GROUP
    NOTIFICATIONS {{ qamAlarmRaised, qamAlarmCleared }}
    STATUS      current
    DESCRIPTION
        "The notifications of alarms."
    ::= {{ qamGroups 1 }}

qamAlarmObjectGroup OBJECT-GROUP
    OBJECTS     {}
    STATUS      current
    DESCRIPTION
        "What a notification of an alarm tells."
    ::= {{ qamGroups 2 }}

)",
                      alarmObjectNames());
  for (int slot = 0; slot < MAX_BOARD_NUM; ++slot) text += slotGroup(slot);
  return text;
}

// ---- The head ----

std::string imports(const Anchor& anchor) {
  const auto anchorFrom = [&](std::string_view module, const char* form) {
    return anchor.module == module ? fmt::format(fmt::runtime(form), anchor.descriptor) : "";
  };
  return fmt::format(R"(IMPORTS
    MODULE-IDENTITY, OBJECT-TYPE, NOTIFICATION-TYPE, Integer32, Unsigned32{}
        FROM SNMPv2-SMI
    TEXTUAL-CONVENTION, DisplayString
        FROM SNMPv2-TC
    MODULE-COMPLIANCE, OBJECT-GROUP, NOTIFICATION-GROUP
        FROM SNMPv2-CONF
    SnmpAdminString
        FROM SNMP-FRAMEWORK-MIB{};

)",
                     anchorFrom("SNMPv2-SMI", ",\n    {}"),
                     anchorFrom("NET-SNMP-MIB", "\n    {}\n        FROM NET-SNMP-MIB"));
}

// The identity comes first, then the nodes between it and the anchor.
std::string identity(std::span<const u32> base, const Anchor& anchor) {
  const auto below = base.subspan(anchor.name.size());
  const auto between = below.first(below.size() - 1);
  std::vector<std::string> names;
  while (names.size() < between.size()) names.push_back(fmt::format("qamBase{}", names.size() + 1));
  const std::string text = fmt::format(
      R"(qamHeadendMIB MODULE-IDENTITY
    LAST-UPDATED "{0}"
    ORGANIZATION "Headend developers"
    CONTACT-INFO
        "Headend developers"
{1}    REVISION    "{0}"
    DESCRIPTION
        "First version."
    ::= {{ {2} {3} }}

)",
      kDate,
      description(
          "The two-channel QAM modulator cards of a headend chassis: settings and versions of the card in "
          "each slot, and notifications of alarms. Slots count from 1."),
      names.empty() ? anchor.descriptor : std::string_view(names.back()), base.back());
  return names.empty() ? text : text + nodes(anchor.descriptor, between, names) + '\n';
}

}  // namespace

std::string mibModule(std::span<const u32> base) {
  const Anchor& anchor = anchorOf(base);
  std::string text = fmt::format(
      "QAM-HEADEND-MIB DEFINITIONS ::= BEGIN\n\n"
      "-- Modulator cards of a headend chassis, below {}.\n"
      "-- Made by qamctl mib, which also makes it for another base.\n\n",
      mibBaseText(base));
  text += imports(anchor) + identity(base, anchor);
  text += "-- Textual conventions\n\n";
  for (const Convention& each : kConventions) text += convention(each);
  text += notifications();
  for (int slot = 0; slot < MAX_BOARD_NUM; ++slot) text += slotObjects(slot);
  return text + conformance() + "END\n";
}

}  // namespace commands
