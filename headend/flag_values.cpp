#include "headend/flag_values.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <ctime>
#include <limits>

#include "base/numbers.h"

#include "headend/hardware/faults.h"
#include "protocol/panel.h"
#include "protocol/variables.h"

namespace headend {
namespace {

// Takes "@SECONDS" off the end of a text; 0 where there is none.
Nanos takeTime(const std::string& flag, std::string& text) {
  const std::size_t at = text.rfind('@');
  if (at == std::string::npos) return 0;
  const std::optional<Nanos> time = parseSeconds(text.substr(at + 1));
  if (!time) refuse(flag, text, "what follows the @ must be a number of seconds");
  text.resize(at);
  return *time;
}

// Takes "N." off the front of a text: a slot, from 0. Nothing, and the text as it was, where there is none.
std::optional<int> takeSlot(std::string& text) {
  const std::size_t dot = text.find('.');
  const auto slot = dot == std::string::npos ? std::nullopt : protocol::parseSlot(text.substr(0, dot));
  if (slot) text.erase(0, 2);
  return slot;
}

// "temperature1" and "temperature2" are what the sensors measure.
std::optional<int> sensorOf(const std::string& name) {
  if (name == "temperature1") return 1;
  if (name == "temperature2") return 2;
  return {};
}

void setTemperature(const std::string& text, Options::Temperature temperature, const std::string& value,
                    Options& options) {
  const auto celsius = base::parseReal(value);
  if (!celsius || *celsius < -55 || *celsius > 127) {
    refuse("--set", text, "a sensor measures -55 to 127 degrees");
  }
  temperature.celsius = *celsius;
  options.temperatures.push_back(temperature);
}

std::string settableNames() {
  std::string names;
  for (const protocol::CardVariable& variable : protocol::cardVariables()) {
    if (variable.writable) names += std::string(variable.name) + ", ";
  }
  return names + "temperature1 or temperature2";
}

}  // namespace

void refuse(const std::string& flag, const std::string& text, const std::string& want) {
  throw CLI::ValidationError(flag, "'" + text + "': " + want);
}

std::pair<std::string, std::uint16_t> parseAddress(const std::string& flag, const std::string& text,
                                                   const std::string& want) {
  const auto address = base::parseAddress(text);
  if (!address) refuse(flag, text, want);
  return {address->host, address->port};
}

std::pair<std::string, std::string> splitAssignment(const std::string& flag, const std::string& text,
                                                    const std::string& want) {
  const std::size_t at = text.find('=');
  if (at == std::string::npos || at == 0 || at + 1 == text.size()) refuse(flag, text, want);
  return {text.substr(0, at), text.substr(at + 1)};
}

protocol::Channel channelOf(const std::string& flag, const std::string& text, const std::string& name) {
  const auto channel = protocol::parseChannel(name);
  if (!channel) refuse(flag, text, "the channel must be N.P with N from 1 to 6 and P 1 or 2");
  return *channel;
}

std::optional<Nanos> parseSeconds(const std::string& text) {
  const auto seconds = base::parseReal(text);
  if (!seconds || *seconds < 0 || *seconds > 1e9) return {};
  return std::llround(*seconds * 1e9);
}

Nanos takeTimeIfAny(std::string& text) {
  const std::size_t at = text.rfind('@');
  const auto seconds = at == std::string::npos ? std::nullopt : parseSeconds(text.substr(at + 1));
  if (seconds) text.resize(at);
  return seconds.value_or(0);
}

void parsePsi(const std::string& text, Options& options) {
  const char* want = "want N.P=FILE.ts, or N.P=FILE.ts@SECONDS";
  auto [name, file] = splitAssignment("--psi", text, want);
  Options::Psi psi{.channel = channelOf("--psi", text, name), .file = {}, .at = 0};
  psi.at = takeTimeIfAny(file);
  if (file.empty()) refuse("--psi", text, want);
  psi.file = file;
  options.psi.push_back(std::move(psi));
}

void parseInterval(const std::string& text, Options& options) {
  const char* want = "want N.P.TABLE=TICKS, as 1.2.PAT=100";
  const std::size_t dot = text.find('.', text.find('.') == std::string::npos ? 0 : text.find('.') + 1);
  if (dot == std::string::npos) refuse("--interval", text, want);
  const protocol::Channel channel = channelOf("--interval", text, text.substr(0, dot));
  try {
    const auto [table, ticks] = protocol::parseInterval(text.substr(dot + 1));
    options.intervals[channel][table] = ticks;
  } catch (const std::invalid_argument& e) {
    throw CLI::ValidationError("--interval", "'" + text + "': " + e.what());
  }
}

void parseOutput(const std::string& text, Options& options) {
  const auto [name, target] = splitAssignment("--out", text, "want N.P=FILE or N.P=udp://ADDRESS:PORT");
  const protocol::Channel channel = channelOf("--out", text, name);
  if (!options.outputs.emplace(channel, target).second)
    refuse("--out", text, "this channel has an output already");
}

void parseManage(const std::string& text, Options& options) {
  options.manage.reset();
  if (text != "off")
    options.manage = parseAddress("--manage", text, "want ADDRESS:PORT with a port up to 65535, or off");
}

void parseCalibration(const std::string& text, Options& options) {
  options.calibration = parseAddress("--calibration", text, "want ADDRESS:PORT with a port up to 65535");
}

void parseEepromCycle(const std::string& text, Options& options) {
  const char* want = "want N=MILLISECONDS with N from 1 to 6 and up to 1000 ms";
  const auto [name, value] = splitAssignment("--eeprom-cycle", text, want);
  std::string slot = name + ".";
  const std::optional<int> number = takeSlot(slot);
  const std::optional<Nanos> duration = parseSeconds(value);  // parsed as milliseconds
  if (!number || !slot.empty() || !duration || *duration > 1000 * kSecond)
    refuse("--eeprom-cycle", text, want);
  options.eepromCycles[*number] = *duration / 1000;
}

void parseEpoch(const std::string& text, Options& options) {
  constexpr u32 kYear2000 = 946'684'800;
  if (text.empty()) {
    options.epoch = options.fast ? kYear2000 : static_cast<u32>(std::time(nullptr));
    return;
  }
  std::tm time{};
  const char* end = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &time);
  if (end == nullptr) {
    time = {};
    end = ::strptime(text.c_str(), "%Y-%m-%d", &time);
  }
  const std::time_t seconds = end != nullptr && *end == '\0' ? ::timegm(&time) : -1;
  if (seconds < 0 || seconds > std::numeric_limits<u32>::max())
    refuse("--epoch", text, "want a time in UTC from 1970 to 2105, as 2024-05-01 or 2024-05-01T12:00:00Z");
  options.epoch = static_cast<u32>(seconds);
}

void parsePowerCut(const std::string& text, Options& options) {
  const char* want = "want N=EDGE with an edge from 1 on, or N=@SECONDS";
  const auto [name, value] = splitAssignment("--power-cut", text, want);
  std::string slot = name + ".";
  const std::optional<int> number = takeSlot(slot);
  if (!number || !slot.empty()) refuse("--power-cut", text, want);
  Options::PowerCut cut{.slot = *number, .edge = 0, .at = 0};
  if (value.front() == '@') {
    std::string time = value;
    cut.at = takeTime("--power-cut", time);
    if (!time.empty()) refuse("--power-cut", text, want);
  } else {
    cut.edge = base::parseDecimal<u64>(value).value_or(0);
    if (cut.edge == 0) refuse("--power-cut", text, want);
  }
  options.powerCut = cut;
}

void parseSet(const std::string& text, Options& options) {
  const char* want = "want N.NAME=VALUE or N.NAME=VALUE@SECONDS, as 1.rfreq=474000@5";
  auto [name, value] = splitAssignment("--set", text, want);
  const std::optional<int> slot = takeSlot(name);
  if (!slot) refuse("--set", text, want);
  const Nanos at = takeTime("--set", value);
  if (const std::optional<int> sensor = sensorOf(name)) {
    return setTemperature(text, {.slot = *slot, .sensor = *sensor, .celsius = 0, .at = at}, value, options);
  }
  const protocol::CardVariable* variable = protocol::findCardVariable(std::string_view(name));
  if (variable == nullptr || !variable->writable) {
    refuse("--set", text, "there is nothing to set of that name; want " + settableNames());
  }
  try {
    const u32 number = protocol::parseValue(*variable, value);
    options.settings.push_back({.slot = *slot,
                                .id = variable->id,
                                .name = name + "=" + value,
                                .value = number,
                                .warning = protocol::valueWarning(*variable, number),
                                .at = at});
  } catch (const std::invalid_argument& e) {
    throw CLI::ValidationError("--set", "'" + text + "': " + e.what());
  }
}

void parseKeys(const std::string& text, Options& options) {
  Options::Keys keys{.names = text, .keys = {}, .at = 0};
  keys.at = takeTime("--key", keys.names);
  for (std::size_t from = 0; from <= keys.names.size();) {
    const std::size_t end = std::min(keys.names.find(',', from), keys.names.size());
    const std::string name = keys.names.substr(from, end - from);
    const auto key = protocol::keyOf(name);
    if (!key) refuse("--key", text, "'" + name + "' is no key: up, down, left, right, ok or cancel");
    keys.keys.push_back(*key);
    from = end + 1;
  }
  options.keys.push_back(std::move(keys));
}

void parseFault(const std::string& text, Options& options) {
  std::string rest = text;
  Options::Fault fault;
  fault.at = takeTime("--fault", rest);
  fault.slot = takeSlot(rest);
  if (findFault(rest) == nullptr) {
    refuse("--fault", text, "want [N.]NAME[@SECONDS], with a NAME that --fault help lists");
  }
  fault.name = rest;
  options.faults.push_back(std::move(fault));
}

}  // namespace headend
