#include "headend/hardware/multiplexer.h"

#include <algorithm>

namespace headend {
namespace {

constexpr std::size_t kWritesAPacket = 204;  // to the PSI data port
constexpr u16 kFiller = 0xFFFF;

}  // namespace

void Multiplexer::start(Nanos now, BitRate rate) {
  rate_ = {};
  setRate(now, rate);  // here the feed delivers earlier packets: they are not for this stream
  running_ = true;
  next_ = now;
  psi_.clear();
  buffer_.clear();
  blocked_.reset();
}

void Multiplexer::stop(Nanos now) {
  advance(now);
  running_ = false;
  psi_.clear();
  buffer_.clear();
}

void Multiplexer::setRate(Nanos now, BitRate rate) {
  if (rate == rate_) return;
  advance(now);
  rate_ = rate;
  divisor_ = rate.numerator;
  const std::uint64_t scaled = mpeg::kPacketBits * rate.denominator * static_cast<std::uint64_t>(kSecond);
  period_ = scaled / divisor_;
  periodRest_ = scaled % divisor_;
  rest_ = 0;
  const std::size_t waiting = buffer_.size();
  buffer_.set_capacity(static_cast<std::uint64_t>(kBuffer) * divisor_ / scaled);  // removes the newest
  if (waiting > buffer_.size()) drop(now, waiting - buffer_.size());
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

void Multiplexer::offer(Nanos arrival, mpeg::PacketView packet, u16 pid) {
  if (!running_) return;
  leave(arrival - 1);
  ++counts_.offered;
  if (blocked_[pid]) {
    ++counts_.filtered;
  } else if (buffer_.full()) {
    drop(arrival, 1);
  } else {
    Waiting waiting;  // all of it is written below
    waiting.arrival = arrival;
    std::copy(packet.begin(), packet.end(), waiting.packet.begin());
    mpeg::setPid(waiting.packet, pid);
    buffer_.push_back(waiting);
  }
}

void Multiplexer::drop(Nanos when, std::size_t packets) {
  counts_.dropped += packets;
  lastDrop_ = when;
}

void Multiplexer::setPass(Nanos now, u16 pid, bool pass) {
  advance(now);
  blocked_[pid] = !pass;
}

void Multiplexer::advance(Nanos now) {
  if (advancing_) return;  // called by a sink or a tap
  advancing_ = true;
  if (feed_ != nullptr) feed_->deliverUntil(now);
  leave(now);
  advancing_ = false;
}

void Multiplexer::leave(Nanos until) {
  if (!running_) return;
  while (next_ <= until) {
    if (!psi_.empty()) {
      leavePsi();
    } else if (!buffer_.empty()) {
      leaveRouted();
    } else {
      return leaveNulls(until);
    }
  }
}

void Multiplexer::leavePsi() {
  ++counts_.psi;
  show(psi_.front());
  psi_.pop_front();
  skip(1);
}

void Multiplexer::leaveRouted() {
  Waiting& waiting = buffer_.front();
  if (const std::optional<u64> pcr = mpeg::pcrOf(waiting.packet)) {
    mpeg::setPcr(waiting.packet, *pcr + ticksSince(waiting.arrival));
  }
  ++counts_.routed;
  show(waiting.packet);
  buffer_.pop_front();
  skip(1);
}

void Multiplexer::show(mpeg::PacketView packet) {
  if (sink_ != nullptr) sink_->packet(packet);
  if (!isTapped_) return;
  for (const auto& tap : taps_) {
    if (tap) tap(packet);
  }
}

void Multiplexer::setTap(Tap tap, std::function<void(mpeg::PacketView)> receiver) {
  taps_[static_cast<std::size_t>(tap)] = std::move(receiver);
  isTapped_ = std::ranges::any_of(taps_, [](const auto& each) { return static_cast<bool>(each); });
}

// Ticks of 27 MHz from then to the departure that is due, rounded to the nearest. The departure is a part of
// a nanosecond after `next_`.
std::uint64_t Multiplexer::ticksSince(Nanos arrival) const {
  const std::uint64_t thousandths = static_cast<std::uint64_t>(next_ - arrival) * 27;
  const std::uint64_t aTick = 1000 * divisor_;
  const std::uint64_t rest = thousandths % 1000 * divisor_ + rest_ * 27;
  return thousandths / 1000 + (rest + aTick / 2) / aTick;
}

void Multiplexer::leaveNulls(Nanos until) {
  const std::uint64_t before = counts_.null;
  while (next_ <= until) {
    // All packets that certainly leave by now; the last few one by one.
    const std::uint64_t atLeast = static_cast<std::uint64_t>(until - next_) / (period_ + 1);
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

// ---- The PSI data port ----

void PsiPort::reset() {
  position_ = 0;
  lost_ = Lost::kNo;
}

void PsiPort::write(u16 word, Nanos now) {
  const bool isData = word <= 0xFF;
  const bool isFiller = word == kFiller;
  if (lost_ == Lost::kUntilFiller && isFiller) lost_ = Lost::kUntilData;
  if (lost_ == Lost::kUntilData && isData) lost_ = Lost::kNo;
  if (lost_ != Lost::kNo) return;

  if (position_ < kTsPacketSize && !isData)
    return misframed(isFiller ? Lost::kUntilData : Lost::kUntilFiller);
  if (position_ >= kTsPacketSize && !isFiller) {
    if (isData && word != mpeg::kSyncByte) return misframed(Lost::kUntilFiller);  // too long
    misframed(isData ? Lost::kNo : Lost::kUntilData);
    if (!isData) return;  // else the next packet begins before the filler of this one was complete
  }
  if (position_ < kTsPacketSize) packet_[position_] = static_cast<u8>(word);
  if (++position_ == kWritesAPacket) complete(now);
}

void PsiPort::misframed(Lost lost) {
  violations_.count("psi_packet_misframed");
  position_ = 0;
  lost_ = lost;
}

void PsiPort::complete(Nanos now) {
  position_ = 0;
  if (packet_[0] != mpeg::kSyncByte) violations_.count("psi_packet_without_sync");
  if (!output_.insertPsi(now, packet_)) violations_.count("psi_fifo_overflow");
}

}  // namespace headend
