#include "headend/flag_values.h"

#include <algorithm>
#include <ctime>
#include <limits>

#include "commands/form.h"
#include "headend/hardware/faults.h"
#include "headend/hardware/file_input.h"
#include "headend/hardware/pid_router.h"
#include "protocol/mib_rows.h"

namespace headend {
namespace {

// Takes "@SECONDS" off the end of a text; 0 where there is none.
Nanos takeTime(std::string& text) {
  const std::size_t at = text.rfind('@');
  if (at == std::string::npos) return 0;
  const std::optional<Nanos> time = parseSeconds(text.substr(at + 1));
  if (!time) refuse(text, "what follows the @ must be a number of seconds");
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

constexpr const char* kInputLost = ".input-lost";

Options::Input parseInput(const std::string& whole, const std::string& text) {
  constexpr std::string_view kUdp = "udp://";
  Options::Input input;
  if (text.starts_with(kUdp)) {
    input.address = parseAddress(text.substr(kUdp.size()));
    return input;
  }
  input.file = text;
  const std::size_t at = text.rfind('@');
  if (at == std::string::npos) return input;
  const auto rate = base::parseDecimal<u64>(text.substr(at + 1));
  if (!rate) return input;  // the @ is part of the file's name
  if (*rate < FileInput::kSlowest || *rate > FileInput::kFastest) {
    refuse(whole, "a rate is in bits a second, from 1000 to 1000000000");
  }
  input.file = text.substr(0, at);
  input.bitRate = rate;
  return input;
}

// "N.P.input-lost"; false for another fault.
bool parseInputLoss(const std::string& text, Options& options) {
  const std::size_t name = text.find(kInputLost);
  if (name == std::string::npos) return false;
  const char* want =
      "want N.P.input-lost[@SECONDS[/PERIOD]] with slot and input of a source card, as 6.1.input-lost@10/4";
  const auto source = protocol::parseSourcePort(text.substr(0, name));
  if (!source) refuse(text, want);
  Options::InputLoss loss{.source = *source, .at = 0, .period = {}};
  std::string rest = text.substr(name + std::string_view(kInputLost).size());
  if (!rest.empty()) {
    if (rest[0] != '@') refuse(text, want);
    const std::size_t slash = rest.find('/');
    const auto at = parseSeconds(rest.substr(1, slash == std::string::npos ? slash : slash - 1));
    if (!at) refuse(text, want);
    loss.at = *at;
    if (slash != std::string::npos) {
      loss.period = parseSeconds(rest.substr(slash + 1));
      if (!loss.period || *loss.period < 2) refuse(text, want);
    }
  }
  const auto same = [&](const Options::InputLoss& other) { return other.source == loss.source; };
  if (std::any_of(options.inputLosses.begin(), options.inputLosses.end(), same)) {
    refuse(text, "this input has been given a loss already");
  }
  options.inputLosses.push_back(loss);
  return true;
}

}  // namespace

base::Address parseAddress(const std::string& text) {
  const auto address = base::parseAddress(text);
  if (!address) refuse(text, "want ADDRESS:PORT with a port up to 65535");
  return *address;
}

void parseOutput(const std::string& text, Options& options) {
  const auto [name, target] = splitAssignment(text, "want N.P=FILE or N.P=udp://ADDRESS:PORT");
  const protocol::Channel channel = commands::channelOf(name);
  if (!options.outputs.emplace(channel, target).second) refuse(text, "this channel has an output already");
}

void parseSource(const std::string& text, Options& options) {
  const char* want =
      "want N=FILE.ts[,FILE.ts...] with N from 1 to 6; FILE.ts@RATE in bits a second for a file without "
      "PCRs; udp://ADDRESS:PORT instead of a file";
  const auto slot = protocol::parseSlot(text.substr(0, text.find('=')));
  if (!slot || text.size() < 3) refuse(text, want);
  std::vector<Options::Input>& inputs = options.sources[*slot];
  if (!inputs.empty()) refuse(text, "this slot has a source card already: name all its inputs at once");
  for (std::size_t from = 2; from <= text.size();) {
    const std::size_t comma = std::min(text.find(',', from), text.size());
    if (comma == from) refuse(text, want);
    inputs.push_back(parseInput(text, text.substr(from, comma - from)));
    from = comma + 1;
  }
  if (inputs.size() > kInputsPerCard) refuse(text, "a source card has at most 16 inputs");
}

void parseEepromCycle(const std::string& text, Options& options) {
  const char* want = "want N=MILLISECONDS with N from 1 to 6 and up to 1000 ms";
  const auto [name, value] = splitAssignment(text, want);
  std::string slot = name + ".";
  const std::optional<int> number = takeSlot(slot);
  const std::optional<Nanos> duration = parseSeconds(value);  // parsed as milliseconds
  if (!number || !slot.empty() || !duration || *duration > 1000 * kSecond) refuse(text, want);
  options.eepromCycles[*number] = *duration / 1000;
}

u32 parseEpoch(const std::string& text) {
  std::tm time{};
  const char* end = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &time);
  if (end == nullptr) {
    time = {};
    end = ::strptime(text.c_str(), "%Y-%m-%d", &time);
  }
  const std::time_t seconds = end != nullptr && *end == '\0' ? ::timegm(&time) : -1;
  if (seconds < 0 || seconds > std::numeric_limits<u32>::max())
    refuse(text, "want a time in UTC from 1970 to 2105, as 2024-05-01 or 2024-05-01T12:00:00Z");
  return static_cast<u32>(seconds);
}

void parsePowerCut(const std::string& text, Options& options) {
  const char* want = "want N=EDGE with an edge from 1 on, or N=@SECONDS";
  const auto [name, value] = splitAssignment(text, want);
  std::string slot = name + ".";
  const std::optional<int> number = takeSlot(slot);
  if (!number || !slot.empty()) refuse(text, want);
  Options::PowerCut cut{.slot = *number, .edge = 0, .at = 0};
  if (value.front() == '@') {
    std::string time = value;
    cut.at = takeTime(time);
    if (!time.empty()) refuse(text, want);
  } else {
    cut.edge = base::parseDecimal<u64>(value).value_or(0);
    if (cut.edge == 0) refuse(text, want);
  }
  options.powerCut = cut;
}

void parseFault(const std::string& text, Options& options) {
  if (parseInputLoss(text, options)) return;
  std::string rest = text;
  Options::Fault fault;
  fault.at = takeTime(rest);
  fault.slot = takeSlot(rest);
  if (findFault(rest) == nullptr) {
    refuse(text, "want [N.]NAME[@SECONDS], with a NAME that --fault help lists");
  }
  fault.name = rest;
  options.faults.push_back(std::move(fault));
}

bool parseTemperature(const std::string& text, Options& options) {
  auto [name, value] = splitAssignment(text, kWantSetting);
  const std::optional<int> slot = takeSlot(name);
  const std::optional<int> sensor = sensorOf(name);
  if (!slot || !sensor) return false;
  const Nanos at = takeTime(value);
  const auto celsius = base::parseReal(value);
  if (!celsius || *celsius < -55 || *celsius > 127) refuse(text, "a sensor measures -55 to 127 degrees");
  options.temperatures.push_back({.slot = *slot, .sensor = *sensor, .celsius = *celsius, .at = at});
  return true;
}

void parseSnmpBase(const std::string& text, Options::Snmp& snmp) {
  constexpr u32 kInternet[] = {1, 3, 6, 1};
  constexpr u32 kStandards[] = {2, 6};  // mib-2 and snmpV2, where the agent has objects of its own
  snmp.base = protocol::parseMibBase(text);
  if (std::equal(std::begin(kInternet), std::end(kInternet), snmp.base.begin()) &&
      std::ranges::find(kStandards, snmp.base[std::size(kInternet)]) != std::end(kStandards)) {
    refuse(text, "lies among the standards' objects: want one of your own, below 1.3.6.1.4.1");
  }
}

}  // namespace headend
