// What the benchmarks need of a chassis: a card in slot 1 whose record holds the PSI of a capture on both
// channels, and the services behind it (services.cpp), which do as little as they may.
#pragma once

#include <filesystem>
#include <memory>

#include "card/QamCardPara.h"
#include "card/QamFpga.h"
#include "platform/chassis.h"
#include "platform/kernel.h"

namespace os {

// A send queue as the kernel gives it to the card. Who plays the send task empties it.
struct MsgQ {
  static constexpr std::size_t kLength = 256;
  u32 messages[kLength];
  std::size_t count;
};

}  // namespace os

namespace bench {

// The card, in the chassis's list while it lives. One at a time.
class Card {
 public:
  // Throws client::Error for a capture that a card cannot store.
  explicit Card(const std::filesystem::path& capture);
  Card(const Card&) = delete;
  Card& operator=(const Card&) = delete;
  ~Card();

  QamCardPara& record() { return *record_; }
  std::size_t packets() const { return packets_; }  // on each channel
  os::MsgQ& queue(int port) { return queues_[port]; }
  Qam_fpga_if& window() { return window_; }

 private:
  std::unique_ptr<QamCardPara> record_ = std::make_unique<QamCardPara>();
  std::size_t packets_ = 0;
  os::MsgQ queues_[MAX_QAM_OUT_NUM]{};
  Qam_fpga_if window_{};
  chassis::card descriptor_{};
};

}  // namespace bench
