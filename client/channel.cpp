#include "client/channel.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>

namespace client {

std::optional<Channel> parseChannel(std::string_view text) {
  if (text.size() != 3 || text[1] != '.') return std::nullopt;
  const int slot = text[0] - '1';
  const int port = text[2] - '1';
  if (slot < 0 || slot >= int{kSlots} || port < 0 || port >= static_cast<int>(kPortsPerCard)) {
    return std::nullopt;
  }
  return Channel{.slot = static_cast<u16>(slot), .port = static_cast<u32>(port)};
}

std::string channelName(const Channel& channel) {
  return fmt::format("{}.{}", channel.slot + 1, channel.port + 1);
}

std::pair<TableType, u32> parseInterval(std::string_view text) {
  const auto equals = text.find('=');
  if (equals == std::string_view::npos) {
    throw std::invalid_argument(fmt::format("'{}' is no TABLE=TICKS", text));
  }
  const auto type = tableOfName(text.substr(0, equals));
  if (!type) {
    throw std::invalid_argument(fmt::format(
        "'{}' is no table: PAT, PMT, SDT_C, SDT_O, NIT_C, NIT_O, BAT and CAT are", text.substr(0, equals)));
  }
  const std::string_view digits = text.substr(equals + 1);
  u32 ticks = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), ticks);
  if (error == std::errc::invalid_argument || end != digits.data() + digits.size()) {
    throw std::invalid_argument(fmt::format("'{}' is no number of ticks", digits));
  }
  if (error == std::errc::result_out_of_range || ticks > kMaxInterval) {
    throw std::invalid_argument(fmt::format("an interval of {} ticks is more than {}", digits, kMaxInterval));
  }
  return {*type, ticks};
}

}  // namespace client
