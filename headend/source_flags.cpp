#include "headend/source_flags.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "base/numbers.h"
#include "headend/flag_values.h"
#include "headend/hardware/file_input.h"
#include "headend/hardware/pid_router.h"

namespace headend {
namespace {

constexpr const char* kInputLost = ".input-lost";

Options::Input parseInput(const std::string& whole, const std::string& text) {
  constexpr std::string_view kUdp = "udp://";
  Options::Input input;
  if (text.starts_with(kUdp)) {
    input.address = parseAddress("--source", text.substr(kUdp.size()), "want udp://ADDRESS:PORT");
    return input;
  }
  input.file = text;
  const std::size_t at = text.rfind('@');
  if (at == std::string::npos) return input;
  const auto rate = base::parseDecimal<u64>(text.substr(at + 1));
  if (!rate) return input;  // the @ is part of the file's name
  if (*rate < FileInput::kSlowest || *rate > FileInput::kFastest) {
    refuse("--source", whole, "a rate is in bits a second, from 1000 to 1000000000");
  }
  input.file = text.substr(0, at);
  input.bitRate = rate;
  return input;
}

}  // namespace

void parseSource(const std::string& text, Options& options) {
  const char* want =
      "want N=FILE.ts[,FILE.ts...] with N from 1 to 6; FILE.ts@RATE in bits a second for a file without "
      "PCRs; "
      "udp://ADDRESS:PORT instead of a file";
  const auto slot = protocol::parseSlot(text.substr(0, text.find('=')));
  if (!slot || text.size() < 3) refuse("--source", text, want);
  std::vector<Options::Input>& inputs = options.sources[*slot];
  if (!inputs.empty())
    refuse("--source", text, "this slot has a source card already: name all its inputs at once");
  for (std::size_t from = 2; from <= text.size();) {
    const std::size_t comma = std::min(text.find(',', from), text.size());
    if (comma == from) refuse("--source", text, want);
    inputs.push_back(parseInput(text, text.substr(from, comma - from)));
    from = comma + 1;
  }
  if (inputs.size() > kInputsPerCard) refuse("--source", text, "a source card has at most 16 inputs");
}

void parsePidMap(const std::string& text, Options& options) {
  const char* want = "want N.P=FILE.csv or N.P=FILE.csv@SECONDS";
  auto [name, file] = splitAssignment("--pidmap", text, want);
  const protocol::Channel channel = channelOf("--pidmap", text, name);
  const Nanos at = takeTimeIfAny(file);
  if (file.empty()) refuse("--pidmap", text, want);
  options.pidMaps.push_back({.channel = channel, .file = file, .at = at});
}

void parseProgramme(const std::string& text, Options& options) {
  const char* want = "want N.P=SLOT.INPUT:SERVICE or N.P=SLOT.INPUT:SERVICE@SECONDS, as 1.1=6.1:Four";
  auto [name, rest] = splitAssignment("--programme", text, want);
  const protocol::Channel channel = channelOf("--programme", text, name);
  const Nanos at = takeTimeIfAny(rest);
  const std::size_t colon = rest.find(':');
  const auto source =
      colon == std::string::npos ? std::nullopt : protocol::parseSourcePort(rest.substr(0, colon));
  if (!source || colon + 1 == rest.size()) refuse("--programme", text, want);
  options.programmes.push_back(
      {.channel = channel, .source = *source, .service = rest.substr(colon + 1), .at = at});
}

bool parseInputLoss(const std::string& text, Options& options) {
  const std::size_t name = text.find(kInputLost);
  if (name == std::string::npos) return false;
  const char* want =
      "want N.P.input-lost[@SECONDS[/PERIOD]] with slot and input of a source card, as 6.1.input-lost@10/4";
  const auto source = protocol::parseSourcePort(text.substr(0, name));
  if (!source) refuse("--fault", text, want);
  Options::InputLoss loss{.source = *source, .at = 0, .period = {}};
  std::string rest = text.substr(name + std::string_view(kInputLost).size());
  if (!rest.empty()) {
    if (rest[0] != '@') refuse("--fault", text, want);
    const std::size_t slash = rest.find('/');
    const auto at = parseSeconds(rest.substr(1, slash == std::string::npos ? slash : slash - 1));
    if (!at) refuse("--fault", text, want);
    loss.at = *at;
    if (slash != std::string::npos) {
      loss.period = parseSeconds(rest.substr(slash + 1));
      if (!loss.period || *loss.period < 2) refuse("--fault", text, want);
    }
  }
  const auto same = [&](const Options::InputLoss& other) { return other.source == loss.source; };
  if (std::any_of(options.inputLosses.begin(), options.inputLosses.end(), same)) {
    refuse("--fault", text, "this input has been given a loss already");
  }
  options.inputLosses.push_back(loss);
  return true;
}

void checkSources(const Options& options) {
  const auto slotName = [](int slot) { return std::to_string(slot + 1); };
  for (const auto& [slot, inputs] : options.sources) {
    const bool fromNetwork =
        std::any_of(inputs.begin(), inputs.end(), [](const auto& i) { return i.address.has_value(); });
    if (options.fast && fromNetwork) {
      refuse("--source", slotName(slot), "a udp:// input comes in real time: leave --fast away");
    }
    if (std::find(options.slots.begin(), options.slots.end(), slot) != options.slots.end()) {
      refuse("--source", slotName(slot), "there is a modulator card in that slot");
    }
  }
  const auto demand = [&](const std::string& flag, const protocol::SourcePort& source) {
    const auto card = options.sources.find(source.slot);
    const std::string what = slotName(source.slot) + "." + std::to_string(source.port + 1);
    if (card == options.sources.end() || source.port >= card->second.size()) {
      refuse(flag, what, "no such input: add --source " + slotName(source.slot) + "=FILE.ts");
    }
  };
  for (const auto& loss : options.inputLosses) demand("--fault", loss.source);
  for (const auto& programme : options.programmes) demand("--programme", programme.source);
}

}  // namespace headend
