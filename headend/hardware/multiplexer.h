// One output of the card's FPGA: a transport stream of constant bit rate. PSI packets are sent first, then
// packets from the chassis's router in order of arrival; null packets fill the rest. Packets leave at the
// times given by the bit rate. Packets are computed only when they are needed.
#pragma once

#include <array>
#include <bitset>
#include <boost/circular_buffer.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>

#include "headend/hardware/device.h"
#include "headend/hardware/packet_sink.h"
#include "mpeg/packet.h"

namespace headend {

// Bits per second as a fraction, because only 188 of 204 bytes of each packet are transport stream.
struct BitRate {
  std::uint64_t numerator = 0;
  std::uint64_t denominator = 1;

  static BitRate ofModulation(std::uint32_t symbolRate_kBd, unsigned bitsPerSymbol) {
    return {.numerator = std::uint64_t{symbolRate_kBd} * 1000 * bitsPerSymbol * 188, .denominator = 204};
  }
  double perSecond() const { return static_cast<double>(numerator) / static_cast<double>(denominator); }
  bool operator==(const BitRate&) const = default;
};

// The source of an output's packets.
class PacketFeed : public base::Interface {
 public:
  // Offers every packet that has arrived by `now` to its outputs.
  virtual void deliverUntil(Nanos now) = 0;
};

class Multiplexer {
 public:
  // All in packets. Packets waiting when the output stops are counted in `offered` only.
  struct Counts {
    std::uint64_t psi = 0;
    std::uint64_t routed = 0;  // sent
    std::uint64_t null = 0;
    std::uint64_t offered = 0;   // from the router while the output ran, before filter and buffer
    std::uint64_t filtered = 0;  // discarded by the PID filter
    std::uint64_t dropped = 0;   // discarded because the buffer was full
    std::uint64_t total() const { return psi + routed + null; }
  };

  // It receives each packet once that is counted.
  void setSink(PacketSink* sink) { sink_ = sink; }
  void setFeed(PacketFeed* feed) { feed_ = feed; }
  // Called with every packet sent, except inserted null packets; an empty function removes it.
  enum class Tap : u8 { kSearch, kCounters };
  void setTap(Tap tap, std::function<void(mpeg::PacketView)> receiver);

  void start(Nanos now, BitRate rate);  // the first packet leaves at once
  void stop(Nanos now);
  void setRate(Nanos now, BitRate rate);
  const BitRate& rate() const { return rate_; }

  bool psiHasRoom(Nanos now);
  // False if the FIFO was full: the packet is lost.
  bool insertPsi(Nanos now, std::span<const u8> packet);

  // A packet for this output, to be sent with `pid`. Only for the feed; arrival times must not decrease.
  // Ignored and not counted while the output is stopped.
  void offer(Nanos arrival, mpeg::PacketView packet, u16 pid);

  // Whether routed packets of a PID of this output pass; all do after `start`. PSI always passes.
  void setPass(Nanos now, u16 pid, bool pass);

  // Sends every packet due by `now`, after the feed has delivered the packets that arrived until then.
  void advance(Nanos now);
  const Counts& counts() const { return counts_; }
  std::size_t buffered() const { return buffer_.size(); }  // waiting routed packets
  std::optional<Nanos> lastDrop() const { return lastDrop_; }

  static constexpr std::size_t kPsiFifo = 8;
  static constexpr Nanos kBuffer = kSecond / 10;  // buffer for routed packets, as time at the output's rate

 private:
  struct Waiting {
    Nanos arrival;
    mpeg::Packet packet;
  };

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
  std::array<std::function<void(mpeg::PacketView)>, 2> taps_;
  bool isTapped_ = false;
  bool running_ = false;
  BitRate rate_;
  Nanos next_ = 0;            // when the next packet leaves
  std::uint64_t period_ = 0;  // whole nanoseconds between packets, and the rest over `divisor_`
  std::uint64_t periodRest_ = 0;
  std::uint64_t divisor_ = 1;
  std::uint64_t rest_ = 0;
  std::deque<mpeg::Packet> psi_;
  boost::circular_buffer<Waiting> buffer_;
  std::bitset<kPids> blocked_;
  std::optional<Nanos> lastDrop_;
  bool advancing_ = false;
  Counts counts_;
};

// An output's PSI data port: 204 writes per packet. The first 188 have a byte each in their low half; the
// rest are 0xFFFF. Any other sequence is a misframed packet, which is lost and counted.
class PsiPort {
 public:
  PsiPort(Multiplexer& output, Violations& violations) : output_(output), violations_(violations) {}

  void reset();
  void write(u16 word, Nanos now);

 private:
  // A misframed packet is discarded to its end, so that it is counted once.
  enum class Lost { kNo, kUntilFiller, kUntilData };

  void misframed(Lost lost);
  void complete(Nanos now);

  Multiplexer& output_;
  Violations& violations_;
  mpeg::Packet packet_{};
  std::size_t position_ = 0;
  Lost lost_ = Lost::kNo;
};

}  // namespace headend
