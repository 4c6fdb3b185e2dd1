// A transport stream from a file, played between its own PCRs, over and over. The whole file is kept in
// memory, so that a packet costs one copy of 188 bytes at play time, and none in the first pass. Made by
// whoever plugs in a source card; the router takes the packets.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "headend/hardware/ts_input.h"
#include "mpeg/pcr.h"

namespace headend {

// The first pass is the file's bytes. In each further one PCR, PTS and DTS move by the time of one pass, and
// each PID's continuity goes on where it ended. The PID with the first usable PCRs sets the pace: a packet
// with a PCR arrives at that PCR's time, those between at even distances. Where PCRs go back or jump by more
// than a second, the pace of the interval before goes on.
class FileInput final : public TsInput {
 public:
  struct Damage {  // what in the file is not packets
    std::size_t syncLosses = 0;
    std::uint64_t leadingBytes = 0;
    std::uint64_t trailingBytes = 0;
  };

  // Plays from `start` on. With a rate, in bits a second of 188-byte packets, that is the pace; without one
  // the PCRs are. Throws std::runtime_error that says what the file lacks.
  explicit FileInput(std::string path, std::optional<std::uint64_t> bitRate = std::nullopt, Nanos start = 0);

  Nanos nextArrival() const override { return next_; }
  mpeg::PacketView take() override;
  const std::string& name() const override { return path_; }

  std::size_t packets() const { return packets_.size(); }       // in one pass
  std::uint64_t period_ticks() const { return period_ticks_; }  // of one pass; 27 MHz, a multiple of 300
  const Damage& damage() const { return damage_; }

  static constexpr std::uint64_t kSlowest = 1'000;  // bits a second
  static constexpr std::uint64_t kFastest = 1'000'000'000;

 private:
  using Packet = std::array<u8, kTsPacketSize>;

  // A PTS or DTS, or a part of one where a PES header is torn between packets.
  struct Stamp {
    std::uint32_t packet;
    u8 at;     // in the packet
    u8 first;  // of the field's bytes
    u8 count;
    std::array<u8, mpeg::kPesTimeSize> field;  // the whole field, as it is in the file
  };

  void read();
  void pace(std::optional<std::uint64_t> bitRate);
  void markPackets();
  void findStamps();
  void moveStamps();
  void schedule();

  std::string path_;
  Damage damage_;
  std::vector<Packet> packets_;
  std::vector<std::uint64_t> offsets_;  // of each packet from the start of a pass, in units of 1/27 ns
  std::vector<u8> marks_;
  std::vector<Stamp> stamps_;  // by packet
  std::uint64_t period_ticks_ = 0;

  Nanos start_;
  std::uint64_t pass_ = 0;
  std::uint64_t passBegin_ = 0;    // in units of 1/27 ns from `start_`
  std::uint64_t shift_ticks_ = 0;  // by which this pass has moved, below mpeg::kPcrWrap
  std::size_t index_ = 0;
  std::size_t stamp_ = 0;  // the next one
  Nanos next_ = 0;
  Packet moved_{};
};

}  // namespace headend
