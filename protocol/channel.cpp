#include "protocol/channel.h"

#include <fmt/format.h>

#include <cstdint>
#include <stdexcept>
#include <utility>

#include "base/numbers.h"

namespace protocol {
namespace {

// "N.P" with P from 1 to `ports`.
template <typename Place>
std::optional<Place> parsePlace(std::string_view text, u32 ports) {
  const auto slot = parseSlot(text.substr(0, text.find('.')));
  const auto port = text.size() > 2 ? base::parseDecimal(text.substr(2), ports) : std::nullopt;
  if (!slot || !port || *port == 0 || text[2] == '0') return std::nullopt;
  return Place{static_cast<u16>(*slot), *port - 1};
}

template <typename... Args>
[[noreturn]] void refuse(fmt::format_string<Args...> text, Args&&... args) {
  throw std::invalid_argument(fmt::format(text, std::forward<Args>(args)...));
}

}  // namespace

std::optional<int> parseSlot(std::string_view text) {
  if (text.size() != 1 || text[0] < '1' || text[0] >= '1' + MAX_BOARD_NUM) return std::nullopt;
  return text[0] - '1';
}

std::optional<Channel> parseChannel(std::string_view text) {
  return parsePlace<Channel>(text, MAX_QAM_OUT_NUM);
}

std::optional<SourcePort> parseSourcePort(std::string_view text) {
  return parsePlace<SourcePort>(text, kInputsPerCard);
}

std::optional<FaultPlace> parseFault(std::string_view text) {
  const std::size_t dot = text.rfind('.');
  if (dot == std::string_view::npos)
    return text.empty() || text == kInputLost ? std::nullopt
                                              : std::optional(FaultPlace{{}, {}, std::string(text)});
  const std::string name(text.substr(dot + 1));
  text = text.substr(0, dot);
  if (name != kInputLost) {
    const auto slot = parseSlot(text);
    return slot ? std::optional(FaultPlace{static_cast<u16>(*slot), {}, name}) : std::nullopt;
  }
  const auto input = parseSourcePort(text);
  return input ? std::optional(FaultPlace{input->slot, input->port, name}) : std::nullopt;
}

std::string faultName(const FaultPlace& place) {
  const std::string slot = place.slot ? fmt::format("{}.", *place.slot + 1) : "";
  return slot + (place.input ? fmt::format("{}.", *place.input + 1) : "") + place.name;
}

std::string channelName(const Channel& channel) {
  return fmt::format("{}.{}", channel.slot + 1, channel.port + 1);
}

std::string inputName(const SourcePort& source) {
  return fmt::format("input {}.{}", source.slot + 1, source.port + 1);
}

std::pair<PsiType, u32> parseInterval(std::string_view text) {
  const auto equals = text.find('=');
  if (equals == std::string_view::npos) refuse("'{}' is no TABLE=TICKS", text);
  const auto type = mpeg::tableOfName(text.substr(0, equals));
  if (!type) refuse("'{}' is no table: {} are", text.substr(0, equals), mpeg::tableNames("and"));
  const std::string_view digits = text.substr(equals + 1);
  const auto ticks = base::parseDecimal<std::uint64_t>(digits);
  if (!ticks) refuse("'{}' is no number of ticks", digits);
  if (*ticks > kMaxInterval) refuse("an interval of {} ticks is more than {}", digits, kMaxInterval);
  return {*type, static_cast<u32>(*ticks)};
}

}  // namespace protocol
