#include "protocol/variables.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <vector>

#include "base/numbers.h"
#include "card/QamCardPara.h"
#include "protocol/records.h"

namespace protocol {
namespace {

using enum VariableKind;
using Names = std::array<CardVariable::NamedValue, 3>;

constexpr Names kConstellations = {{{5, "64-QAM"}, {6, "128-QAM"}, {7, "256-QAM"}}};
constexpr Names kOnOff = {{{0, "on"}, {1, "off"}}};
constexpr Names kPower = {{{0, "off"}, {15, "on"}}};

constexpr QamBounds kFrequency2Bounds = {kFrequencyBounds.least + kChannelSpacing_kHz,
                                         kFrequencyBounds.most + kChannelSpacing_kHz};

// clang-format off
constexpr CardVariable kVariables[] = {
    {.id = kVarFrequency, .writable = true, .name = "rfreq", .unit = "kHz",
     .meaning = "carrier of channel 1; channel 2 is 8000 kHz above",
     .bounds = kFrequencyBounds},
    {.id = kVarLevel, .writable = true, .name = "rflevel", .unit = "0.1 dBuV",
     .meaning = "output level of both channels", .bounds = kLevelBounds, .step = 5},
    {.id = kVarSymbolRate, .writable = true, .name = "symbolrate", .unit = "kBd",
     .meaning = "symbol rate of both channels", .bounds = kSymbolRateBounds, .warnStep = 125},
    {.id = kVarConstellation, .writable = true, .name = "qammode", .names = kConstellations,
     .meaning = "constellation of both channels", .bounds = {5, 7}},
    {.id = kVarQamSwitch, .writable = true, .name = "rfswitch", .names = kOnOff,
     .meaning = "modulation of both channels", .bounds = {0, 1}},
    {.id = kVarPower, .writable = true, .name = "power", .names = kPower,
     .meaning = "supplies of the output", .bounds = {0, 15}, .step = 15},
    {.id = kVarTotalRate1, .kind = kText, .name = "total_rate1", .meaning = "bit rate of channel 1"},
    {.id = kVarPayloadRate1, .kind = kText, .name = "valid_rate1", .meaning = "bit rate of channel 1 without null packets"},
    {.id = kVarFrequency2, .name = "rfreq2", .unit = "kHz", .meaning = "carrier of channel 2",
     .bounds = kFrequency2Bounds},
    {.id = kVarLevel2, .name = "rflevel2", .unit = "0.1 dBuV", .meaning = "as rflevel", .bounds = kLevelBounds,
     .step = 5},
    {.id = kVarSymbolRate2, .name = "symbolrate2", .unit = "kBd", .meaning = "as symbolrate", .bounds = kSymbolRateBounds},
    {.id = kVarConstellation2, .name = "qammode2", .names = kConstellations, .meaning = "as qammode", .bounds = {5, 7}},
    {.id = kVarQamSwitch2, .name = "rfswitch2", .names = kOnOff, .meaning = "as rfswitch", .bounds = {0, 1}},
    {.id = kVarPower2, .name = "power2", .names = kPower, .meaning = "as power", .bounds = {0, 15}, .step = 15},
    {.id = kVarTotalRate2, .kind = kText, .name = "total_rate2", .meaning = "bit rate of channel 2"},
    {.id = kVarPayloadRate2, .kind = kText, .name = "valid_rate2", .meaning = "bit rate of channel 2 without null packets"},
    {.id = kVarTemperature1, .kind = kSignedDegrees, .name = "temperature1", .unit = "deg C", .meaning = "sensor on the card"},
    {.id = kVarTemperature2, .kind = kSignedDegrees, .name = "temperature2", .unit = "deg C", .meaning = "sensor outside"},
    {.id = kVarSoftwareVersion, .kind = kText, .name = "software_version", .meaning = "of the card's software"},
    {.id = kVarFpgaVersion, .kind = kText, .name = "fpga_version", .meaning = "of the card's FPGA"},
    {.id = kVarHardwareVersion, .kind = kText, .name = "hardware_version", .meaning = "of the board"},
};
// clang-format on

bool isStep(const CardVariable& variable, std::int64_t value, u32 step) {
  return value >= variable.bounds.least && value <= variable.bounds.most &&
         (value - variable.bounds.least) % step == 0;
}

std::string named(const CardVariable::NamedValue& choice) {
  return fmt::format("{} ({})", choice.value, choice.name);
}

const CardVariable::NamedValue* choiceOf(const CardVariable& variable, u32 value) {
  const auto isMeant = [&](const auto& choice) { return choice.value == value && !choice.name.empty(); };
  const auto* found = std::ranges::find_if(variable.names, isMeant);
  return found == variable.names.end() ? nullptr : found;
}

// "A, B or C", of `last` "or".
std::string enumeration(std::span<const std::string> parts, std::string_view last) {
  std::string text;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) text += i + 1 < parts.size() ? ", " : fmt::format(" {} ", last);
    text += parts[i];
  }
  return text;
}

constexpr u8 kNumberFollows = 0;
constexpr u8 kTextFollows = 1;

}  // namespace

std::span<const CardVariable> cardVariables() {
  return kVariables;
}

const CardVariable* findCardVariable(u32 id) {
  const auto* found = std::ranges::find(kVariables, id, &CardVariable::id);
  return found == std::end(kVariables) ? nullptr : found;
}

const CardVariable* findCardVariable(std::string_view idOrName) {
  if (const auto id = base::parseDecimal(idOrName)) return findCardVariable(*id);
  const auto* found = std::ranges::find(kVariables, idOrName, &CardVariable::name);
  return found == std::end(kVariables) ? nullptr : found;
}

const CardVariable* findCardVariable(u8 cardType, u32 id) {
  return cardType == QAM_CARD_TYPE ? findCardVariable(id) : nullptr;
}

bool isPossible(const CardVariable& variable, std::int64_t value) {
  return variable.bounds.most > 0 && isStep(variable, value, variable.step);
}

std::string writableValues(const CardVariable& variable) {
  if (!variable.writable) return "";
  std::vector<std::string> choices;
  for (const auto& choice : variable.names) {
    if (!choice.name.empty()) choices.push_back(named(choice));
  }
  if (!choices.empty()) return enumeration(choices, "or");
  return fmt::format("{} to {}{}", variable.bounds.least, variable.bounds.most,
                     variable.step > 1 ? fmt::format(" in steps of {}", variable.step) : "");
}

std::string valueWarning(const CardVariable& variable, u32 value) {
  if (variable.warnStep == 0 || isStep(variable, value, variable.warnStep)) return "";
  return fmt::format(
      "{} {}: the default clock table has rows from {} to {} in steps of {} only. Without a row in the "
      "card's own table the clock stays as it is and disagrees with the modulator",
      variable.name, value, variable.bounds.least, variable.bounds.most, variable.warnStep);
}

u32 parseValue(const CardVariable& variable, std::string_view text) {
  if (!variable.writable) {
    std::vector<std::string> writable;
    for (const CardVariable& other : kVariables) {
      if (other.writable) writable.emplace_back(other.name);
    }
    throw std::invalid_argument(
        fmt::format("{} cannot be set: {} can", variable.name, enumeration(writable, "and")));
  }
  const auto value = base::parseDecimal(text);
  if (value && isPossible(variable, *value)) return *value;
  const std::string given = value ? fmt::format("{}", *value) : fmt::format("'{}'", text);
  throw std::invalid_argument(fmt::format("{} cannot be {}: possible are {}{}", variable.name, given,
                                          writableValues(variable),
                                          variable.unit.empty() ? "" : fmt::format(" ({})", variable.unit)));
}

Bytes encodeValue(const VariableValue& value) {
  const auto* text = std::get_if<std::string>(&value);
  Bytes data{text != nullptr ? kTextFollows : kNumberFollows};
  base::append(data,
               text != nullptr ? Bytes(text->begin(), text->end()) : encodeNumber(std::get<u32>(value)));
  return data;
}

std::optional<VariableValue> decodeValue(std::span<const u8> data) {
  if (data.empty()) return std::nullopt;
  const auto content = data.subspan(1);
  if (data[0] == kTextFollows) return std::string(content.begin(), content.end());
  if (data[0] != kNumberFollows) return std::nullopt;
  return decodeNumber(content);
}

i32 signedDegrees(u32 value) {
  return static_cast<std::int8_t>(value & 0xFF);
}

std::string valueText(const CardVariable& variable, const VariableValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  const u32 v = std::get<u32>(value);
  if (variable.kind == kSignedDegrees) return fmt::format("{} {}", signedDegrees(v), variable.unit);
  if (const auto* choice = choiceOf(variable, v)) return named(*choice);
  if (variable.unit.starts_with(kTenths)) {
    return fmt::format("{} ({}.{} {})", v, v / 10, v % 10, variable.unit.substr(kTenths.size()));
  }
  return variable.unit.empty() ? fmt::format("{}", v) : fmt::format("{} {}", v, variable.unit);
}

}  // namespace protocol
