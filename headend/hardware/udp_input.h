// A transport stream from the host's network: packets in UDP datagrams, plain or in RTP, played by their PCRs
// after a de-jitter buffer. Created by the code that adds a source card; read by the router.
#pragma once

#include <boost/circular_buffer.hpp>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "headend/hardware/source_clock.h"
#include "headend/hardware/ts_input.h"
#include "headend/kernel/network.h"
#include "mpeg/packet.h"

namespace headend {

// The packet with the first PCR plays at its arrival time plus the buffer's delay; later ones at the times of
// their PCRs, and those between at equal intervals. The clock starts at the nominal rate and follows that of
// the sender, see SourceClock. If PCRs and buffer no longer match, the next PCR restarts it. Without PCRs
// each packet plays at its arrival plus the delay. Times never decrease and are not in the past.
class UdpInput final : public TsInput {
 public:
  struct Counts {
    std::uint64_t datagrams = 0;
    std::uint64_t packets = 0;
    std::uint64_t foreign = 0;  // datagrams that are neither packets nor RTP with packets; dropped
    std::uint64_t rtpLost = 0;  // datagrams missing in the sequence numbers
    std::uint64_t full = 0;     // packets dropped because the buffer was full
    // Why the clock was restarted.
    std::uint64_t discontinuities = 0;
    std::uint64_t underruns = 0;  // packets arrived too late to play in time
    std::uint64_t overruns = 0;   // twice the delay was in the buffer
    std::uint64_t pauses = 0;
  };

  // `deJitter` from 1 ms to 5 s. Port 0 selects a free port. Throws std::runtime_error with the address.
  UdpInput(Network& network, const std::string& address, std::uint16_t port, Nanos deJitter);
  ~UdpInput() override;

  Nanos nextArrival() const override { return buffer_.empty() ? kNever : buffer_.front().when; }
  mpeg::PacketView take() override;
  const std::string& name() const override { return name_; }  // "udp://127.0.0.1:49160"

  std::vector<std::pair<const char*, std::uint64_t>> disturbances() const override;
  const Counts& counts() const { return counts_; }

 private:
  struct Entry {
    Nanos when = 0;
    mpeg::Packet packet{};
  };

  void receive();
  void accept(std::span<const u8> datagram);
  std::optional<std::span<const u8>> payloadOf(std::span<const u8> datagram);
  void noteSequence(u16 sequence);
  void push(std::span<const u8> packet);
  void onPcr(u64 ticks);
  void beginClock(u64 ticks);
  void follow(u64 elapsed_ticks);
  void spread(Nanos begin, Nanos play);
  void hurry(Nanos latest);
  std::uint64_t pushed() const { return taken_ + buffer_.size(); }  // packets in total

  Network& network_;
  Nanos deJitter_;
  int fd_ = -1;
  std::string name_;
  Counts counts_;
  std::vector<u8> datagram_;
  std::optional<u16> sequence_;  // next expected RTP sequence number
  Nanos lastArrival_ = 0;

  boost::circular_buffer<Entry> buffer_;
  std::uint64_t taken_ = 0;  // packets in total: the number of the first in the buffer
  Entry lastTaken_;
  Nanos lastWhen_ = 0;  // of the last packet pushed

  // The clock of the PCRs, as of the last one.
  std::optional<u16> pcrPid_;
  bool running_ = false;
  Nanos pcrArrival_ = 0;
  std::uint64_t pcrNumber_ = 0;  // number of its packet
  u64 pcr_ticks_ = 0;
  std::int64_t play_ = 0;  // its play time, in units of 1/27 ns
  SourceClock sender_;
  Nanos begin_ = 0;           // arrival of the PCR that started or restarted the clock
  u64 sinceBegin_ticks_ = 0;  // PCR time since then
};

}  // namespace headend
