#include "headend/flag_values.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <ctime>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "commands/form.h"
#include "headend/hardware/faults.h"
#include "headend/hardware/file_input.h"
#include "headend/hardware/packet_sink.h"
#include "headend/hardware/pid_router.h"
#include "protocol/mib_rows.h"

namespace headend {
namespace {

std::optional<Nanos> secondsOf(const std::string& text) {
  const auto seconds = base::parseReal(text);
  if (!seconds || *seconds < 0 || *seconds > 1e9) return {};
  return std::llround(*seconds * 1e9);
}

// As takeTime, but what follows an @ must be a time.
Nanos takeOnlyTime(std::string& text) {
  const std::size_t at = text.rfind('@');
  if (at == std::string::npos) return 0;
  const Nanos time = parseSeconds(text.substr(at + 1));
  text.resize(at);
  return time;
}

// Takes "N." off the front of a text: a slot, from 0. Nothing, and the text as it was, where there is none.
std::optional<int> takeSlot(std::string& text) {
  const std::size_t dot = text.find('.');
  const auto slot = dot == std::string::npos ? std::nullopt : protocol::parseSlot(text.substr(0, dot));
  if (slot) text.erase(0, 2);
  return slot;
}

// As "srt://...", and no path: a scheme is letters and digits.
bool isUrl(const std::string& target) {
  const std::size_t end = target.find("://");
  return end != std::string::npos && end > 1 &&
         std::ranges::all_of(target.substr(0, end), [](unsigned char c) { return std::isalnum(c) != 0; });
}

// `flag` is the whole text, for messages.
Options::Input parseInput(const std::string& flag, const std::string& input) {
  constexpr std::string_view kUdp = "udp://";
  if (input.starts_with(kUdp))
    return {.file{}, .bitRate{}, .address = parseAddress(input.substr(kUdp.size()))};
  if (isUrl(input)) {
    refuse(
        flag,
        "an input from the network is udp://ADDRESS:PORT, with or without RTP; another program can receive "
        "other protocols and send their packets there");
  }
  const std::size_t at = input.rfind('@');
  const auto rate = at == std::string::npos ? std::nullopt : base::parseDecimal<u64>(input.substr(at + 1));
  if (!rate) return {.file = input, .bitRate{}, .address{}};  // an @ is part of the file's name
  if (*rate < FileInput::kSlowest || *rate > FileInput::kFastest)
    refuse(flag, "a rate is in bits a second, from 1000 to 1000000000");
  return {.file = input.substr(0, at), .bitRate = rate, .address{}};
}

// "N=MILLISECONDS" of a part of slot N.
void parseSlotTime(const std::string& text, int most_ms, std::map<int, Nanos>& times) {
  const std::string want = fmt::format("want N=MILLISECONDS with N from 1 to 6 and up to {} ms", most_ms);
  const auto [name, value] = splitAssignment(text, want);
  const auto slot = protocol::parseSlot(name);
  const auto duration = secondsOf(value);  // parsed as milliseconds
  if (!slot || !duration || *duration > most_ms * kSecond) refuse(text, want);
  times[*slot] = *duration / 1000;
}

std::string faultList() {
  std::string list;
  for (const FaultKind& kind : faultKinds()) list += kind.name + ": " + kind.text + '\n';
  return list + fmt::format("{0}: {1} (as 6.1.{0}@10/4)\n", kInputLost, kInputLostText);
}

}  // namespace

void refuse(const std::string& text, const std::string& want) {
  throw std::invalid_argument("'" + text + "': " + want);
}

std::pair<std::string, std::string> splitAssignment(const std::string& text, const std::string& want) {
  const std::size_t at = text.find('=');
  if (at == std::string::npos || at == 0 || at + 1 == text.size()) refuse(text, want);
  return {text.substr(0, at), text.substr(at + 1)};
}

base::Address parseAddress(const std::string& text) {
  const auto address = base::parseAddress(text);
  if (!address) refuse(text, fmt::format("want {}", base::kAddressForm));
  return *address;
}

Nanos parseSeconds(const std::string& text) {
  const auto time = secondsOf(text);
  if (!time) refuse(text, "want a number of seconds, 1e9 at most");
  return *time;
}

std::vector<std::string> partsOf(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream stream(text + ',');
  for (std::string part; std::getline(stream, part, ',');) parts.push_back(part);
  return parts;
}

Nanos takeTime(std::string& text) {
  const std::size_t at = text.rfind('@');
  const auto time = at == std::string::npos ? std::nullopt : secondsOf(text.substr(at + 1));
  if (time) text.resize(at);
  return time.value_or(0);
}

Assignment parseAssignment(const std::string& text, const std::string& want) {
  auto [name, value] = splitAssignment(text, want);
  const Nanos at = takeTime(value);
  if (value.empty()) refuse(text, want);
  return {name, value, at};
}

void parseOutput(const std::string& text, Options& options) {
  const auto [name, target] = splitAssignment(text, fmt::format("want {}", kOutputForms));
  if (!isNetworkTarget(target) && isUrl(target)) {
    refuse(text,
           "an output to the network is udp://ADDRESS:PORT, seven packets a datagram, without RTP; another "
           "program can receive it there and send it by other protocols");
  }
  if (isNetworkTarget(target)) {
    const auto address = base::parseAddress(std::string_view(target).substr(kUdpScheme.size()));
    if (!address || address->port == 0) refuse(text, fmt::format("want udp://{}", base::kAddressForm));
  }
  if (!options.outputs.emplace(commands::channelOf(name), target).second)
    refuse(text, "this channel has an output already");
}

void parseSource(const std::string& text, Options& options) {
  const char* want =
      "want N=FILE.ts[,FILE.ts...] with N from 1 to 6; FILE.ts@RATE in bits a second for a file without "
      "PCRs; udp://ADDRESS:PORT instead of a file";
  const auto [name, files] = splitAssignment(text, want);
  const auto slot = protocol::parseSlot(name);
  if (!slot) refuse(text, want);
  std::vector<Options::Input>& inputs = options.sources[*slot];
  if (!inputs.empty()) refuse(text, "this slot has a source card already: name all its inputs at once");
  for (const std::string& file : partsOf(files)) {
    if (file.empty()) refuse(text, want);
    inputs.push_back(parseInput(text, file));
  }
  if (inputs.size() > kInputsPerCard) refuse(text, "a source card has at most 16 inputs");
}

void parseEeprom(const std::string& text, Options& options) {
  const char* want = "want N=blank with N from 1 to 6";
  const auto [name, value] = splitAssignment(text, want);
  const auto slot = protocol::parseSlot(name);
  if (!slot || value != "blank") refuse(text, want);
  options.blankEeproms.insert(*slot);
}

void parseEepromCycle(const std::string& text, Options& options) {
  parseSlotTime(text, 1000, options.eepromCycles);
}

void parseLockTime(const std::string& text, Options& options) {
  parseSlotTime(text, 60'000, options.lockTimes);
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
  const auto slot = protocol::parseSlot(name);
  const bool isTime = value.front() == '@';
  const Nanos at = isTime ? parseSeconds(value.substr(1)) : 0;
  const u64 edge = isTime ? 0 : base::parseDecimal<u64>(value).value_or(0);
  if (!slot || (edge == 0 && !isTime)) refuse(text, want);
  options.powerCut = {*slot, edge, at};
}

void parseFault(const std::string& text, Options& options) {
  if (text == "help") throw commands::Help{faultList()};
  constexpr auto kWant =
      "want [N.]NAME[@SECONDS[..SECONDS]] with a NAME that --fault help lists, as 1.clock-no-ack@5..8, or "
      "N.P.input-lost[@SECONDS[..SECONDS][/PERIOD]] with an input of a source card, as 6.1.input-lost@10/4";
  const std::size_t at = text.find('@');
  const auto place = protocol::parseFault(text.substr(0, at));
  const FaultKind* kind = place ? findFault(place->name) : nullptr;
  if (!place || (kind == nullptr && !place->input)) refuse(text, kWant);
  Options::Fault fault{.place = *place};
  std::string times = at == std::string::npos ? "0" : text.substr(at + 1);
  if (const std::size_t slash = times.rfind('/'); slash != std::string::npos) {
    fault.period = secondsOf(times.substr(slash + 1));
    if (fault.period.value_or(0) < kSecond / 1000 || !place->input)
      refuse(text, std::string(kWant) + "; PERIOD is 0.001 s or more");
    times.resize(slash);
  }
  if (const std::size_t dots = times.find(".."); dots != std::string::npos) {
    fault.until = secondsOf(times.substr(dots + 2));
    times.resize(dots);
    if (kind != nullptr && !kind->ends) refuse(text, "this fault has no end");
    if (!fault.until) refuse(text, kWant);
  }
  const auto from = secondsOf(times);
  if (!from) refuse(text, kWant);
  fault.at = *from;
  if (kind != nullptr && !kind->ends && fault.at == 0)
    refuse(text, "want a time at which the card runs, as 1.config-lost@5");
  if (fault.until && *fault.until <= fault.at) refuse(text, "the fault must end after it begins");
  options.faults.push_back(fault);
}

bool parseTemperature(const std::string& text, Options& options) {
  auto [name, value] = splitAssignment(text, kWantSetting);
  const auto slot = takeSlot(name);
  if (!slot || (name != "temperature1" && name != "temperature2")) return false;
  const Nanos at = takeOnlyTime(value);
  const auto celsius = base::parseReal(value);
  if (!celsius || *celsius < -55 || *celsius > 127) refuse(text, "a sensor measures -55 to 127 degrees");
  options.temperatures.push_back({*slot, name.back() - '0', *celsius, at});
  return true;
}

std::vector<u32> parseSnmpBase(const std::string& text) {
  constexpr std::array<u32, 4> kInternet = {1, 3, 6, 1};
  std::vector<u32> base = protocol::parseMibBase(text);
  const u32 below =
      base[kInternet.size()];  // 2 and 6: mib-2 and snmpV2, where the agent has objects of its own
  if (std::ranges::equal(kInternet, std::span(base).first(kInternet.size())) && (below == 2 || below == 6))
    refuse(text, "is among the standards' objects: want one of your own, below 1.3.6.1.4.1");
  return base;
}

}  // namespace headend
