#include "headend/hardware/multiplexer.h"

#include <algorithm>

namespace headend {
namespace {

constexpr std::uint64_t kPacketBits = kTsPacket * 8;

}  // namespace

void Multiplexer::start(Nanos now, BitRate rate) {
  rate_ = {};
  setRate(now, rate);
  running_ = true;
  next_ = now;
  psi_.clear();
}

void Multiplexer::stop(Nanos now) {
  advance(now);
  running_ = false;
  psi_.clear();
}

void Multiplexer::setRate(Nanos now, BitRate rate) {
  if (rate == rate_) return;
  advance(now);
  rate_ = rate;
  divisor_ = rate.numerator;
  const std::uint64_t scaled = kPacketBits * rate.denominator * static_cast<std::uint64_t>(kSecond);
  period_ = scaled / divisor_;
  periodRest_ = scaled % divisor_;
  rest_ = 0;
}

bool Multiplexer::psiHasRoom(Nanos now) {
  advance(now);
  return psi_.size() < kPsiFifo;
}

bool Multiplexer::insertPsi(Nanos now, std::span<const u8> packet) {
  if (!psiHasRoom(now)) return false;
  std::copy(packet.begin(), packet.end(), psi_.emplace_back().begin());
  return true;
}

void Multiplexer::advance(Nanos now) {
  if (!running_) return;
  while (next_ <= now) {
    if (psi_.empty()) return advanceNulls(now);
    if (sink_ != nullptr) sink_->packet(psi_.front());
    psi_.pop_front();
    ++counts_.psi;
    skip(1);
  }
}

void Multiplexer::advanceNulls(Nanos now) {
  const std::uint64_t before = counts_.null;
  while (next_ <= now) {
    // As many as leave by now for certain; the last few one by one.
    const std::uint64_t atLeast = static_cast<std::uint64_t>(now - next_) / (period_ + 1);
    const std::uint64_t packets = std::clamp<std::uint64_t>(atLeast, 1, 100'000'000);
    counts_.null += packets;
    skip(packets);
  }
  if (sink_ != nullptr) sink_->nullPackets(counts_.null - before);
}

void Multiplexer::skip(std::uint64_t packets) {
  rest_ += periodRest_ * packets;
  next_ += static_cast<Nanos>(period_ * packets + rest_ / divisor_);
  rest_ %= divisor_;
}

}  // namespace headend
