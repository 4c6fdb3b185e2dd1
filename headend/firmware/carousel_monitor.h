// Monitors the packets that the cards' tick routines post to their send queues: the number of packets of each
// table, and the ticks between the starts of successive groups. A group starts with a packet that starts a
// section; the PMT packets of a channel are one group.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "card/QamCardPara.h"
#include "mpeg/section.h"
#include "platform/kernel.h"

namespace headend {

class CarouselMonitor {
 public:
  struct Table {
    std::uint64_t posted = 0;
    std::uint64_t intervals = 0;  // between group starts so far
    std::uint64_t sum_ticks = 0;
    std::uint64_t min_ticks = 0;
    std::uint64_t max_ticks = 0;
    std::optional<std::uint64_t> lastStart;
  };
  using Tables = std::array<Table, PSINUM>;

  // A slot's start-up creates one queue per channel, in the order of the channels.
  void queueCreated(const os::MsgQ* queue, int slot);
  void posted(const os::MsgQ* queue, std::span<const char> message, std::uint64_t tick);
  // The channel's tables are being replaced: the next packet does not continue a group.
  void restart(int slot, int port);

  const Tables& tables(int slot, int port) const {
    return channels_[static_cast<std::size_t>(slot)][static_cast<std::size_t>(port)].tables;
  }

 private:
  struct Channel {
    const os::MsgQ* queue = nullptr;
    Tables tables;
  };
  std::array<std::array<Channel, MAX_QAM_OUT_NUM>, MAX_BOARD_NUM> channels_;
};

}  // namespace headend
