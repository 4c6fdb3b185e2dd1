// The chassis's part of the PID search: captures packets from a channel's output, puts them into the card's
// queue, and serves management software. One search per card, because the card supports only one.
#pragma once

#include <array>
#include <cstdint>
#include <functional>

#include "headend/firmware/back_end.h"
#include "headend/hardware/multiplexer.h"

namespace headend {

class PidSearch {
 public:
  static constexpr std::size_t kCaptured = 64;  // waiting packets per card; more are lost

  // Provides the operations kSearch and kSearched. `output` gives the multiplexer of a card's channel.
  PidSearch(Kernel& kernel, BackEnd& backEnd, std::function<Multiplexer&(int slot, int port)> output);

 private:
  struct Capture {
    Multiplexer* output = nullptr;  // the multiplexer that the tap is on
    bool inTable = false;           // the next packets continue a section of the table
    std::uint64_t written = 0;      // packets since the start of the search
    std::uint64_t queued = 0;
    std::uint64_t taken = 0;
  };

  // Starts or stops a search (`ts_data_set`); reads the captured packets (`ts_data_rt`).
  u32 search(const protocol::Request& request, base::Bytes& reply);
  u32 searched(const protocol::Request& request, base::Bytes& reply);
  void look(std::size_t slot, mpeg::PacketView packet);
  void post(std::size_t slot);

  Kernel& kernel_;
  std::function<Multiplexer&(int, int)> output_;
  std::array<Capture, MAX_BOARD_NUM> captures_;
};

}  // namespace headend
