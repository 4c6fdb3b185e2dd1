// One output of the card's FPGA: a transport stream of constant bit rate in which PSI packets go first and
// null packets fill the rest. Packets leave at the times that the bit rate gives; nothing is computed before
// it is asked.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <span>

#include "headend/hardware/packet_sink.h"
#include "headend/kernel/kernel.h"

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

class Multiplexer {
 public:
  struct Counts {
    std::uint64_t psi = 0;
    std::uint64_t routed = 0;
    std::uint64_t null = 0;
    std::uint64_t total() const { return psi + routed + null; }
  };

  void setSink(PacketSink* sink) { sink_ = sink; }

  void start(Nanos now, BitRate rate);  // the first packet leaves at once
  void stop(Nanos now);
  void setRate(Nanos now, BitRate rate);
  const BitRate& rate() const { return rate_; }

  bool psiHasRoom(Nanos now);
  // False when the FIFO was full: the packet is lost.
  bool insertPsi(Nanos now, std::span<const u8> packet);

  // Lets every packet leave that is due by `now`.
  void advance(Nanos now);
  const Counts& counts() const { return counts_; }

  static constexpr std::size_t kPsiFifo = 8;

 private:
  void advanceNulls(Nanos now);
  void skip(std::uint64_t packets);

  PacketSink* sink_ = nullptr;
  bool running_ = false;
  BitRate rate_;
  Nanos next_ = 0;            // when the next packet leaves
  std::uint64_t period_ = 0;  // whole nanoseconds between packets, and the rest over `divisor_`
  std::uint64_t periodRest_ = 0;
  std::uint64_t divisor_ = 1;
  std::uint64_t rest_ = 0;
  std::deque<std::array<u8, kTsPacket>> psi_;
  Counts counts_;
};

}  // namespace headend
