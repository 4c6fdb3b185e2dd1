#include "headend/hardware/psi_port.h"

namespace headend {
namespace {

constexpr std::size_t kWritesAPacket = 204;
constexpr u16 kFiller = 0xFFFF;
constexpr u8 kSync = 0x47;

}  // namespace

void PsiPort::reset() {
  position_ = 0;
  lost_ = false;
}

void PsiPort::write(u16 word, Nanos now) {
  const bool isData = word <= 0xFF;
  if (lost_ && !isData) return;
  lost_ = false;

  const bool wantsData = position_ < kTsPacket;
  if (isData != wantsData || (!isData && word != kFiller)) {
    violations_.count("psi_packet_misframed");
    position_ = 0;
    lost_ = !isData;
    if (lost_) return;
  }
  if (position_ < kTsPacket) packet_[position_] = static_cast<u8>(word);
  if (++position_ == kWritesAPacket) complete(now);
}

void PsiPort::complete(Nanos now) {
  position_ = 0;
  if (packet_[0] != kSync) violations_.count("psi_packet_without_sync");
  if (!output_.insertPsi(now, packet_)) violations_.count("psi_fifo_overflow");
}

}  // namespace headend
