// A transport stream from the host's network: packets in UDP datagrams, plain or in RTP, that play out on
// their PCRs behind a de-jitter buffer. Made by whoever plugs in a source card; the router takes the packets.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "headend/hardware/ts_input.h"
#include "headend/kernel/network.h"
#include "mpeg/pcr.h"

namespace headend {

// The packet with the first PCR plays at its arrival and the buffer's delay; later ones when their PCRs say,
// those between at even distances. Sender and host may disagree a little on how long a second is: what that
// does to the buffer is followed slowly. Where PCRs and buffer no longer fit, the next PCR begins anew.
// Without PCRs each packet plays at its arrival and the delay. Times never go back nor lie in the past.
class UdpInput final : public TsInput {
 public:
  struct Counts {
    std::uint64_t datagrams = 0;
    std::uint64_t packets = 0;
    std::uint64_t foreign = 0;  // datagrams that are neither packets nor RTP with packets; dropped
    std::uint64_t rtpLost = 0;  // datagrams that the sequence numbers miss
    std::uint64_t full = 0;     // packets that found no room; dropped
    // Why the clock began anew.
    std::uint64_t discontinuities = 0;
    std::uint64_t underruns = 0;  // packets came too late to play in time
    std::uint64_t overruns = 0;   // twice the delay was waiting
    std::uint64_t pauses = 0;
  };

  // `deJitter` from kShortest to kLongest. Port 0 takes a free one. Throws std::runtime_error that names
  // what is wrong.
  UdpInput(Network& network, const std::string& address, std::uint16_t port, Nanos deJitter = kDefault);
  ~UdpInput() override;

  Nanos nextArrival() const override { return size_ == 0 ? kNever : ring_[head_].when; }
  mpeg::PacketView take() override;
  const std::string& name() const override { return name_; }  // "udp://127.0.0.1:49160"

  const Counts& counts() const { return counts_; }

  static constexpr Nanos kDefault = 200'000'000;
  static constexpr Nanos kShortest = 1'000'000;
  static constexpr Nanos kLongest = 5 * kSecond;

 private:
  struct Entry {
    Nanos when;
    std::array<u8, kTsPacketSize> packet;
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
  Entry& entry(std::uint64_t number) { return ring_[(head_ + (number - taken_)) % ring_.size()]; }

  Network& network_;
  Nanos deJitter_;
  int fd_ = -1;
  std::string name_;
  Counts counts_;
  std::vector<u8> datagram_;
  std::optional<u16> sequence_;  // of RTP, that is to come next
  Nanos lastArrival_ = 0;

  // A ring with one place kept free: the packet taken last stays where it is until the next is taken.
  std::vector<Entry> ring_;
  std::size_t head_ = 0;
  std::size_t size_ = 0;
  std::uint64_t taken_ = 0;  // packets, ever: the number of the one at `head_`
  std::uint64_t pushed_ = 0;
  Nanos lastTaken_ = 0;
  Nanos lastWhen_ = 0;  // of the packet pushed last

  // The clock of the PCRs, as of the last one.
  std::optional<u16> pcrPid_;
  bool running_ = false;
  Nanos pcrArrival_ = 0;
  std::uint64_t pcrNumber_ = 0;  // of its packet
  u64 pcr_ticks_ = 0;
  std::int64_t play_ = 0;  // when it plays, in units of 1/27 ns
  double excess_ = 0;      // by how many ns the buffer is longer than it should be, smoothed
};

}  // namespace headend
