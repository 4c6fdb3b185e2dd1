// One output of the card's FPGA: a transport stream of constant bit rate in which PSI packets go first, then
// the packets that the chassis's router brings, in order of arrival; null packets fill the rest. Packets
// leave at the times that the bit rate gives; nothing is computed before it is asked.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>

#include "headend/hardware/packet_ring.h"
#include "headend/hardware/packet_sink.h"
#include "headend/hardware/ts_input.h"
#include "headend/kernel/kernel.h"
#include "mpeg/pcr.h"

namespace headend {

// Bits a second as a fraction, for 188 of 204 bytes of each packet are the transport stream's.
struct BitRate {
  std::uint64_t numerator = 0;
  std::uint64_t denominator = 1;

  static BitRate ofModulation(std::uint32_t symbolRate_kBd, unsigned bitsPerSymbol) {
    return {.numerator = std::uint64_t{symbolRate_kBd} * 1000 * bitsPerSymbol * 188, .denominator = 204};
  }
  double perSecond() const { return static_cast<double>(numerator) / static_cast<double>(denominator); }
  bool operator==(const BitRate&) const = default;
};

// Who brings an output its packets.
class PacketFeed {
 public:
  PacketFeed() = default;
  PacketFeed(const PacketFeed&) = delete;
  PacketFeed& operator=(const PacketFeed&) = delete;
  virtual ~PacketFeed() = default;

  // Offers every packet that has arrived by `now` to the outputs that it goes to.
  virtual void deliverUntil(Nanos now) = 0;
};

class Multiplexer {
 public:
  // All in packets. What waits when the output stops is in `offered` only.
  struct Counts {
    std::uint64_t psi = 0;
    std::uint64_t routed = 0;  // have left
    std::uint64_t null = 0;
    std::uint64_t offered = 0;   // by the router while the output ran, before filter and buffer
    std::uint64_t filtered = 0;  // stopped by the PID filter
    std::uint64_t dropped = 0;   // found the buffer full
    std::uint64_t total() const { return psi + routed + null; }
  };

  void setSink(PacketSink* sink) { sink_ = sink; }
  void setFeed(PacketFeed* feed) { feed_ = feed; }
  // Shown every packet but null packets as it leaves; an empty function ends it.
  void setTap(std::function<void(mpeg::PacketView)> tap) { tap_ = std::move(tap); }

  void start(Nanos now, BitRate rate);  // the first packet leaves at once
  void stop(Nanos now);
  void setRate(Nanos now, BitRate rate);
  const BitRate& rate() const { return rate_; }

  bool psiHasRoom(Nanos now);
  // False when the FIFO was full: the packet is lost.
  bool insertPsi(Nanos now, std::span<const u8> packet);

  // A packet for this output, which shall carry `pid`. For the feed alone, with no arrival before the one
  // before. Ignored, and not counted, while the output stands still.
  void offer(Nanos arrival, mpeg::PacketView packet, u16 pid);

  // Whether routed packets of a PID of this output pass; all do after `start`. PSI always passes.
  void setPass(Nanos now, u16 pid, bool pass);

  // Lets every packet leave that is due by `now`, after the feed has brought what has arrived until then.
  void advance(Nanos now);
  const Counts& counts() const { return counts_; }
  std::size_t buffered() const { return buffer_.size(); }  // routed packets that wait
  std::optional<Nanos> lastDrop() const { return lastDrop_; }

  static constexpr std::size_t kPsiFifo = 8;
  static constexpr Nanos kBuffer = kSecond / 10;  // what it holds of routed packets at the output's rate

 private:
  void drop(Nanos when, std::size_t packets);
  void leave(Nanos until);
  void leavePsi();
  void leaveRouted();
  void leaveNulls(Nanos until);
  void show(mpeg::PacketView packet);
  std::uint64_t ticksSince(Nanos arrival) const;
  void skip(std::uint64_t packets);

  PacketSink* sink_ = nullptr;
  PacketFeed* feed_ = nullptr;
  std::function<void(mpeg::PacketView)> tap_;
  bool running_ = false;
  BitRate rate_;
  Nanos next_ = 0;            // when the next packet leaves
  std::uint64_t period_ = 0;  // whole nanoseconds between packets, and the rest over `divisor_`
  std::uint64_t periodRest_ = 0;
  std::uint64_t divisor_ = 1;
  std::uint64_t rest_ = 0;
  std::deque<std::array<u8, kTsPacketSize>> psi_;
  PacketRing buffer_;
  std::size_t bufferLimit_ = 1;
  std::bitset<kPids> blocked_;
  std::optional<Nanos> lastDrop_;
  bool advancing_ = false;
  Counts counts_;
};

}  // namespace headend
