#include "headend/firmware/pid_meter.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace headend {
namespace {

// A packet with payload may be sent twice in a row. All bytes are the same then, except those of a PCR.
bool isRepetition(mpeg::PacketView packet, mpeg::PacketView last) {
  constexpr std::size_t kPcrAt = 6, kPcrSize = 6;
  const std::size_t rest = kPcrAt + (mpeg::hasPcr(packet) && mpeg::hasPcr(last) ? kPcrSize : 0);
  return std::memcmp(packet.data(), last.data(), kPcrAt) == 0 &&
         std::memcmp(&packet[rest], &last[rest], kTsPacketSize - rest) == 0;
}

}  // namespace

PidMeter::Pid& PidMeter::of(u16 pid) {
  auto& place = pids_[pid];
  if (!place) {
    place = std::make_unique<Pid>();
    place->count.pid = pid;
    place->isWhole = isFirstSecond_;
  }
  return *place;
}

void PidMeter::packet(mpeg::PacketView packet) {
  Pid& pid = of(mpeg::pidOf(packet));
  ++pid.count.packets;
  if (mpeg::hasTransportError(packet)) return;  // no field of it is sure
  pid.count.hasPcr |= mpeg::hasPcr(packet);
  pid.count.isScrambled |= mpeg::isScrambled(packet);
  if (pid.count.pid != kNullPid) checkContinuity(pid, packet);
}

// The counter increases with each packet that has payload, unless the packet says that it does not continue.
void PidMeter::checkContinuity(Pid& pid, mpeg::PacketView packet) {
  if (!mpeg::hasPayload(packet) && !mpeg::hasAdaptation(packet)) return;  // reserved: a decoder ignores it
  if (pid.isKnown && !mpeg::announcesDiscontinuity(packet)) {
    if (mpeg::hasPayload(packet) && !pid.isRepeated && isRepetition(packet, pid.last)) {
      pid.isRepeated = true;
      return;
    }
    const int due = mpeg::continuityOf(pid.last) + (mpeg::hasPayload(packet) ? 1 : 0);
    if (mpeg::continuityOf(packet) != (due & 0x0F)) ++pid.count.continuityErrors;
  }
  pid.isKnown = true;
  pid.isRepeated = false;
  std::memcpy(pid.last.data(), packet.data(), kTsPacketSize);
}

void PidMeter::second(Nanos took) {
  isFirstSecond_ = false;
  for (const auto& pid : pids_) {
    if (!pid) continue;
    protocol::PidCount& count = pid->count;
    const std::uint64_t packets = count.packets - std::exchange(pid->before, count.packets);
    if (!std::exchange(pid->isWhole, true)) continue;
    const double rate = static_cast<double>(packets) * mpeg::kPacketBits * 1e9 / static_cast<double>(took);
    const auto now = static_cast<u32>(std::llround(rate));
    count.rates = {.now = now,
                   .lowest = count.rates ? std::min(count.rates->lowest, now) : now,
                   .highest = count.rates ? std::max(count.rates->highest, now) : now};
  }
}

void PidMeter::reset() {
  isFirstSecond_ = true;
  for (const auto& pid : pids_) {
    if (!pid) continue;
    pid->count = {.pid = pid->count.pid};
    pid->before = 0;
    pid->isWhole = true;
  }
}

std::vector<protocol::PidCount> PidMeter::counts() const {
  std::vector<protocol::PidCount> all;
  for (const auto& pid : pids_) {
    if (pid && pid->count.packets > 0) all.push_back(pid->count);
  }
  return all;
}

}  // namespace headend
