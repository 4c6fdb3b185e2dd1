#include "headend/hardware/at24c16.h"

namespace headend {
namespace {

constexpr u8 kDeviceType = 0xA;  // the upper half of the address byte
constexpr unsigned kBlockSize = 256;

}  // namespace

Eeprom::Eeprom(Violations& violations, unsigned seed) : I2cSlave("eeprom", violations), random_(seed) {
  image_.fill(0xFF);
  powerUp();
}

void Eeprom::powerUp() {
  block_ = place_ = pageStart_ = 0;
  placeKnown_ = wordAddressNext_ = false;
  forgetPage();
}

void Eeprom::load(const Image& image) {
  forgetPage();
  image_ = image;
}

const Eeprom::Image& Eeprom::image(Nanos now) {
  finishCycle(now);
  return image_;
}

// --- On the bus -----------------------------------------------------------------------------------------

// The block comes with every address, yet the counter has high bits too. Where they disagree, makers' data
// sheets leave open which block is read; here it is the one that is addressed.
bool Eeprom::addressed(u8 addressByte, Nanos now) {
  if (addressByte >> 4 != kDeviceType || busy(now)) return false;
  finishCycle(now);
  block_ = addressByte >> 1 & 7;
  wordAddressNext_ = (addressByte & 1) == 0;
  if (wordAddressNext_) return true;
  if (placeKnown_ && place_ / kBlockSize != block_) violation("read_in_another_block");
  place_ = block_ * kBlockSize + place_ % kBlockSize;
  placeKnown_ = true;
  return true;
}

bool Eeprom::received(u8 byte, Nanos /*now*/) {
  if (!wordAddressNext_) {
    buffer(byte);
    return true;
  }
  wordAddressNext_ = false;
  place_ = block_ * kBlockSize + byte;
  placeKnown_ = true;
  pageStart_ = place_ - place_ % kPageSize;
  return true;
}

// Only the low bits of the counter move while it writes, so what passes the end of a page lands at its start:
// legal, and hardly ever meant.
void Eeprom::buffer(u8 byte) {
  const unsigned slot = place_ % kPageSize;
  if (buffered_ != 0 && slot == 0) violation("page_wrapped");
  page_[slot] = byte;
  place_ = pageStart_ + (slot + 1) % kPageSize;
  ++buffered_;
}

u8 Eeprom::next(Nanos /*now*/) {
  const u8 byte = image_[place_];
  place_ = (place_ + 1) % static_cast<unsigned>(image_.size());
  return byte;
}

void Eeprom::accessEnded(bool byStop, Nanos now) {
  if (buffered_ == 0) return;
  if (!byStop) violation("write_abandoned");
  if (!byStop || inByte()) return forgetPage();
  buffered_ = 0;
  cycleEndsAt_ = now + cycle_;
}

// --- The write cycle ------------------------------------------------------------------------------------

void Eeprom::finishCycle(Nanos now) {
  if (buffered_ != 0 || busy(now)) return;
  for (unsigned i = 0; i < kPageSize; ++i) image_[pageStart_ + i] = page_[i].value_or(image_[pageStart_ + i]);
  page_.fill(std::nullopt);
}

void Eeprom::powerCut(Nanos now) {
  finishCycle(now);
  for (unsigned i = 0; busy(now) && i < kPageSize; ++i) {
    if (page_[i]) image_[pageStart_ + i] = leftBehind(image_[pageStart_ + i], *page_[i]);
  }
  powerUp();
}

u8 Eeprom::leftBehind(u8 before, u8 after) {
  const auto kind = random_() % 3;
  return kind == 0 ? before : kind == 1 ? after : static_cast<u8>(random_());
}

void Eeprom::forgetPage() {
  page_.fill(std::nullopt);
  buffered_ = 0;
  cycleEndsAt_ = kLongAgo;
}

}  // namespace headend
