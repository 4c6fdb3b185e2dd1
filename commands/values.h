// Converts the texts of a command line into values. All throw std::invalid_argument with the text and what is
// wanted.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <string>

#include "base/numbers.h"
#include "protocol/channel.h"

namespace commands {

inline int slotOf(const std::string& text) {
  const auto slot = protocol::parseSlot(text);
  if (!slot) throw std::invalid_argument(fmt::format("'{}' is no slot from 1 to {}", text, MAX_BOARD_NUM));
  return *slot;
}

inline protocol::Channel channelOf(const std::string& text) {
  const auto channel = protocol::parseChannel(text);
  if (!channel) {
    throw std::invalid_argument(
        fmt::format("'{}' is no SLOT.CHANNEL from 1.1 to {}.{}", text, MAX_BOARD_NUM, MAX_QAM_OUT_NUM));
  }
  return *channel;
}

inline protocol::SourcePort inputOf(const std::string& text) {
  const auto input = protocol::parseSourcePort(text);
  if (!input) throw std::invalid_argument(fmt::format("'{}' is no SLOT.INPUT such as 2.1", text));
  return *input;
}

inline u16 pidOf(const std::string& text) {
  const auto pid = base::parseNumber<u16>(text, kNullPid);
  if (!pid) throw std::invalid_argument(fmt::format("'{}' is no PID from 0 to 0x1FFF", text));
  return *pid;
}

}  // namespace commands
