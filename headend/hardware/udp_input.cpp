#include "headend/hardware/udp_input.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

namespace headend {
namespace {

constexpr std::size_t kLargestDatagram = 65536;
constexpr int kDatagramsAtOnce = 4096;
constexpr int kHostBuffer = 4 * 1024 * 1024;  // bytes; the host may give less

// Twice the delay at 100 Mb/s, and some.
constexpr Nanos kPacketsPerSecond = 66'500;
constexpr std::size_t kPacketsAtLeast = 1024;

constexpr Nanos kPcrPidGone = kSecond;         // after this time another PID's PCRs may be used
constexpr Nanos kShortestPause = 100'000'000;  // the standard requires a PCR every 100 ms

// RTP (RFC 3550); MPEG-2 transport streams are type 33.
constexpr std::size_t kRtpHeader = 12;
constexpr u8 kRtpTransportStream = 33;
constexpr int kReordered = 100;  // a datagram at most this far back is late; farther, the sender restarted

bool isPackets(std::span<const u8> bytes) {
  if (bytes.empty() || bytes.size() % kTsPacketSize != 0) return false;
  for (std::size_t at = 0; at < bytes.size(); at += kTsPacketSize) {
    if (bytes[at] != mpeg::kSyncByte) return false;
  }
  return true;
}

// The bytes between header and padding; empty if they do not fit the datagram.
std::span<const u8> rtpPayload(std::span<const u8> datagram) {
  std::size_t begin = kRtpHeader + std::size_t{4} * (datagram[0] & 0x0F);
  if ((datagram[0] & 0x10) != 0) {
    if (begin + 4 > datagram.size()) return {};
    begin += 4 + std::size_t{4} * static_cast<std::size_t>(datagram[begin + 2] << 8 | datagram[begin + 3]);
  }
  const std::size_t padding = (datagram[0] & 0x20) != 0 ? datagram.back() : 0;
  if (begin + padding > datagram.size()) return {};
  return datagram.subspan(begin, datagram.size() - begin - padding);
}

}  // namespace

UdpInput::UdpInput(Network& network, const std::string& address, std::uint16_t port, Nanos deJitter)
    : network_(network),
      deJitter_(deJitter),
      fd_(openHostSocket(address, port)),
      datagram_(kLargestDatagram),
      buffer_(kPacketsAtLeast + static_cast<std::size_t>(2 * deJitter * kPacketsPerSecond / kSecond)) {
  ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &kHostBuffer, sizeof kHostBuffer);
  name_ = "udp://" + hostAddress(fd_);
  network_.watch(fd_, [this] { receive(); });
}

UdpInput::~UdpInput() {
  network_.unwatch(fd_);
  ::close(fd_);
}

std::vector<std::pair<const char*, std::uint64_t>> UdpInput::disturbances() const {
  return {{"foreign_datagrams", counts_.foreign},
          {"rtp_lost", counts_.rtpLost},
          {"buffer_full", counts_.full},
          {"discontinuities", counts_.discontinuities},
          {"underruns", counts_.underruns},
          {"overruns", counts_.overruns},
          {"pauses", counts_.pauses}};
}

// ---- Datagrams ----

void UdpInput::receive() {
  for (int i = 0; i < kDatagramsAtOnce; ++i) {
    const ssize_t n = ::recv(fd_, datagram_.data(), datagram_.size(), 0);
    if (n < 0) return;
    accept(std::span(datagram_).first(static_cast<std::size_t>(n)));
  }
}

void UdpInput::accept(std::span<const u8> datagram) {
  ++counts_.datagrams;
  const auto packets = payloadOf(datagram);
  if (!packets) {
    ++counts_.foreign;
    return;
  }
  const Nanos now = network_.now();
  if (running_ && now - lastArrival_ > std::max(deJitter_, kShortestPause)) {
    ++counts_.pauses;
    running_ = false;
  }
  lastArrival_ = now;
  for (std::size_t at = 0; at < packets->size(); at += kTsPacketSize)
    push(packets->subspan(at, kTsPacketSize));
}

std::optional<std::span<const u8>> UdpInput::payloadOf(std::span<const u8> datagram) {
  if (isPackets(datagram)) return datagram;
  const bool rtp =
      datagram.size() >= kRtpHeader && datagram[0] >> 6 == 2 && (datagram[1] & 0x7F) == kRtpTransportStream;
  if (!rtp) return std::nullopt;
  const auto payload = rtpPayload(datagram);
  if (!isPackets(payload)) return std::nullopt;
  noteSequence(static_cast<u16>(datagram[2] << 8 | datagram[3]));
  return payload;
}

void UdpInput::noteSequence(u16 sequence) {
  const int ahead = sequence_ ? static_cast<std::int16_t>(sequence - *sequence_) : 0;
  if (ahead < 0 && ahead >= -kReordered) return;
  counts_.rtpLost += static_cast<std::uint64_t>(std::max(ahead, 0));
  sequence_ = static_cast<u16>(sequence + 1);
}

// ---- The buffer ----

// A packet's time is known only with the next PCR; until then it is that of its arrival.
void UdpInput::push(std::span<const u8> packet) {
  if (buffer_.full()) {
    ++counts_.full;
    return;
  }
  ++counts_.packets;
  lastWhen_ = std::max(lastWhen_, network_.now() + deJitter_);
  buffer_.push_back({.when = lastWhen_, .packet = {}});
  std::ranges::copy(packet, buffer_.back().packet.begin());

  const auto ticks = mpeg::pcrOf(packet);
  if (!ticks) return;
  const u16 pid = mpeg::pidOf(packet);
  if (pcrPid_ != pid) {
    if (pcrPid_ && network_.now() - pcrArrival_ < kPcrPidGone) return;
    if (running_) ++counts_.discontinuities;
    pcrPid_ = pid;
    running_ = false;
  }
  onPcr(*ticks);
}

mpeg::PacketView UdpInput::take() {
  lastTaken_ = buffer_.front();
  buffer_.pop_front();
  ++taken_;
  return lastTaken_.packet;
}

// ---- The clock ----

// `ticks` is the PCR of the packet pushed last.
void UdpInput::onPcr(u64 ticks) {
  const Nanos now = network_.now();
  const u64 elapsed_ticks = mpeg::pcrDistance(pcr_ticks_, ticks);
  if (!running_) {
    sender_ = {};
    beginClock(ticks);
  } else if (elapsed_ticks == 0 || elapsed_ticks > kLongestInterval_ticks) {
    ++counts_.discontinuities;
    beginClock(ticks);
  } else {
    const Nanos before = play_ / kUnitsPerNano;
    follow(elapsed_ticks);
    const Nanos play = play_ / kUnitsPerNano;
    if (play < now) {
      ++counts_.underruns;
      sender_ = {};
      beginClock(ticks);
    } else if (play > now + 2 * deJitter_) {
      ++counts_.overruns;
      hurry(now + deJitter_);
      sender_ = {};
      beginClock(ticks);
    } else {
      spread(before, play);
    }
  }
  pcr_ticks_ = ticks;
  pcrNumber_ = pushed() - 1;
  pcrArrival_ = now;
}

void UdpInput::beginClock(u64 ticks) {
  running_ = true;
  pcr_ticks_ = ticks;
  play_ = lastWhen_ * kUnitsPerNano;
  begin_ = network_.now();
  sinceBegin_ticks_ = 0;
  sender_.restart();
}

// Moves the clock to a PCR that is later by this time.
void UdpInput::follow(u64 elapsed_ticks) {
  const double elapsed_s = static_cast<double>(elapsed_ticks) / static_cast<double>(mpeg::kPcrHz);
  const auto straight = static_cast<std::int64_t>(elapsed_ticks) * kUnitsPerTick;
  play_ += straight + std::llround(sender_.slowness() * static_cast<double>(straight));
  sinceBegin_ticks_ += elapsed_ticks;
  const Nanos now = network_.now();
  const auto sent = static_cast<Nanos>(sinceBegin_ticks_ * kUnitsPerTick / kUnitsPerNano);
  const Nanos excess = play_ / kUnitsPerNano - now - deJitter_;
  sender_.note(elapsed_s, static_cast<double>(now - begin_ - sent) / 1e9, static_cast<double>(excess) / 1e9);
}

// Sets the times of the waiting packets since the last PCR, up to that of the packet with the new PCR.
void UdpInput::spread(Nanos begin, Nanos play) {
  const Nanos earliest = std::max(network_.now(), lastTaken_.when);
  const auto packets = static_cast<Nanos>(pushed() - 1 - pcrNumber_);
  for (std::uint64_t number = std::max(pcrNumber_ + 1, taken_); number < pushed(); ++number) {
    const Nanos even = begin + (play - begin) * static_cast<Nanos>(number - pcrNumber_) / packets;
    buffer_[number - taken_].when = std::max(even, earliest);
  }
  lastWhen_ = std::max(play, earliest);
}

// After an overrun: the waiting packets play by then, so that the buffer is no longer than it should be.
void UdpInput::hurry(Nanos latest) {
  latest = std::max(latest, lastTaken_.when);
  for (Entry& entry : buffer_) entry.when = std::min(entry.when, latest);
  lastWhen_ = std::min(lastWhen_, latest);
}

}  // namespace headend
