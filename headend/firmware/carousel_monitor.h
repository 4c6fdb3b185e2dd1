// Monitors the packets that the cards' tick routines post to their send queues: the number of packets of each
// table, and the starts of its last groups. A group starts with a packet that starts a section; the PMT
// packets of a channel are one group.
#pragma once

#include <array>
#include <boost/circular_buffer.hpp>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "card/QamCardPara.h"
#include "mpeg/section.h"
#include "platform/kernel.h"
#include "protocol/stream_records.h"

namespace headend {

class CarouselMonitor {
 public:
  static constexpr std::size_t kStarts = 64;  // stored for each table

  struct Table {
    std::uint64_t posted = 0;
    std::uint64_t intervals = 0;  // between group starts so far
    std::uint64_t sum_ticks = 0;
    std::uint64_t min_ticks = 0;
    std::uint64_t max_ticks = 0;
    std::optional<std::uint64_t> lastStart;
    std::uint64_t lastPosted = 0;  // tick of the last packet
    u32 lastIndex = 0;             // its index in the store
    u32 packetsOfGroup = 0;
    u32 interval = 0;  // the last group's, which applies up to the next one
    boost::circular_buffer<protocol::GroupStart> starts;
  };
  using Tables = std::array<Table, PSINUM>;

  // A slot's start-up creates one queue per channel, in the order of the channels.
  void queueCreated(const os::MsgQ* queue, int slot);
  void posted(const os::MsgQ* queue, std::span<const char> message, std::uint64_t tick);
  // The channel's tables are being replaced: the next packet does not continue a group.
  void restart(int slot, int port);
  // An interval of the channel was set: the pause of a stopped table is no interval between groups.
  void intervalSet(int slot, int port);

  const Tables& tables(int slot, int port) const {
    return channels_[static_cast<std::size_t>(slot)][static_cast<std::size_t>(port)].tables;
  }
  // The stored starts from a number on, as many as fit a reply.
  protocol::GroupStarts starts(int slot, int port, std::uint64_t from, std::uint64_t now) const;

 private:
  struct Channel {
    const os::MsgQ* queue = nullptr;
    Tables tables;
    std::uint64_t nextStart = 1;
  };
  Channel& channel(int slot, int port) {
    return channels_[static_cast<std::size_t>(slot)][static_cast<std::size_t>(port)];
  }
  static void begin(Channel& channel, PsiType type, std::uint64_t tick);

  std::array<std::array<Channel, MAX_QAM_OUT_NUM>, MAX_BOARD_NUM> channels_;
};

}  // namespace headend
