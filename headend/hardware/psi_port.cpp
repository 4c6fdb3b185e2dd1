#include "headend/hardware/psi_port.h"

namespace headend {
namespace {

constexpr std::size_t kWritesAPacket = 204;
constexpr u16 kFiller = 0xFFFF;

}  // namespace

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
