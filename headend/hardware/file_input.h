// A transport stream from a file, played between its own PCRs in a loop. The whole file is kept in memory: a
// packet costs one copy of 188 bytes when played, and none in the first pass. Created by the code that adds a
// source card; read by the router.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "headend/hardware/ts_input.h"
#include "mpeg/packet.h"

namespace headend {

// The first pass plays the file's bytes. In each later pass, PCR, PTS and DTS are shifted by the duration of
// a pass, and each PID's continuity counter continues. The PID with the first usable PCRs sets the pace: a
// packet with a PCR arrives at that PCR's time, the packets between at equal intervals. Where PCRs decrease
// or jump by more than a second, the pace of the previous interval continues.
class FileInput final : public TsInput {
 public:
  struct Damage {  // parts of the file that are not packets
    std::size_t syncLosses = 0;
    std::uint64_t leadingBytes = 0;
    std::uint64_t trailingBytes = 0;
  };

  // Plays from `start` on, at the given rate in bits per second of 188-byte packets, from kSlowest to
  // kFastest, or by the PCRs if there is no rate. Throws std::runtime_error with the missing item if the file
  // cannot be used.
  explicit FileInput(std::string path, std::optional<std::uint64_t> bitRate = std::nullopt, Nanos start = 0);

  Nanos nextArrival() const override { return next_; }
  mpeg::PacketView take() override;
  const std::string& name() const override { return path_; }

  std::size_t packets() const { return packets_.size(); }       // in one pass
  std::uint64_t period_ticks() const { return period_ticks_; }  // of one pass; 27 MHz, a multiple of 300
  const Damage& damage() const { return damage_; }

  static constexpr std::uint64_t kSlowest = 1'000;  // bits per second
  static constexpr std::uint64_t kFastest = 1'000'000'000;

 private:
  // A PTS or DTS, or a part of one if a PES header is split between packets.
  struct Stamp {
    std::uint32_t packet;
    u8 at;     // position in the packet
    u8 first;  // of the field's bytes
    u8 count;
    std::array<u8, mpeg::kPesTimeSize> field;  // the whole field, as it is in the file
  };

  [[noreturn]] void fail(const std::string& why) const;
  void read();
  void pace(std::optional<std::uint64_t> bitRate);
  void markPackets();
  void findStamps();
  void moveStamps();
  void schedule();

  std::string path_;
  Damage damage_;
  std::vector<mpeg::Packet> packets_;
  std::vector<std::uint64_t> offsets_;  // of each packet from the start of a pass, in units of 1/27 ns
  std::vector<u8> marks_;
  std::vector<Stamp> stamps_;  // by packet
  std::uint64_t period_ticks_ = 0;

  Nanos start_;
  std::uint64_t pass_ = 0;
  std::uint64_t passBegin_ = 0;    // in units of 1/27 ns from `start_`
  std::uint64_t shift_ticks_ = 0;  // offset of this pass, below mpeg::kPcrWrap
  std::size_t index_ = 0;
  std::size_t stamp_ = 0;  // the next one
  Nanos next_ = 0;
  mpeg::Packet moved_{};
};

}  // namespace headend
