#include "headend/hardware/ad9775.h"

#include <algorithm>

namespace headend {
namespace {

// The least times in nanoseconds.
constexpr Nanos kSetup = 25;  // of data and of the chip select, before the rising clock edge
constexpr Nanos kDacClockHigh = 30;
constexpr Nanos kDacClockLow = 30;
constexpr Nanos kClockPeriod = 67;  // 15 MHz
constexpr Nanos kResetWidth = 2;

constexpr unsigned kByteBits = 8;
constexpr unsigned kAddresses = 32;

// The instruction byte.
constexpr u8 kRead = 0x80;

// Register 0x00.
constexpr u8 kAsleep = 0x10;
constexpr u8 kDacPowerDown = 0x08;

// After a reset: real mix mode, the rest 0.
constexpr std::array<u8, 13> kDefaults = {0x00, 0x04};

}  // namespace

Dac::Dac(std::string name, Violations& violations) : Device(std::move(name), violations) {
  powerUp();
}

// The registers are undefined before the first reset: here they have the values of a reset.
void Dac::powerUp() {
  registers_ = kDefaults;
  written_ = 0;
  wasReset_ = reads_ = false;
  address_ = bytesLeft_ = 0;
  shift_ = sent_ = 0;
  beginFrame();
}

void Dac::reset(bool level, Nanos now) {
  if (level == reset_) return;
  reset_ = level;
  if (!level) {
    checkTime(resetAt_, now, kResetWidth, "reset_short");
    return;
  }
  resetAt_ = now;
  if (frameBegun() && !frameComplete()) violation("reset_in_frame");
  powerUp();
  wasReset_ = true;
}

void Dac::chipSelect(bool level, Nanos now) {
  if (level == deselected_) return;
  deselected_ = level;
  if (!level) selectedAt_ = now;
  if (frameBegun() && !frameComplete()) violation("frame_cut_short");
  beginFrame();
}

void Dac::beginFrame() {
  instructed_ = false;
  bits_ = 0;
  out_ = false;
}

void Dac::dataIn(bool level, Nanos now) {
  if (level == data_) return;
  data_ = level;
  dataAt_ = now;
}

void Dac::clock(bool level, Nanos now) {
  if (level == clock_) return;
  clock_ = level;
  if (level) {
    if (!deselected_ && reset_) violation("clock_in_reset");
    if (listens()) checkRise(now), takeBit();
    roseAt_ = now;
  } else {
    if (listens()) checkTime(roseAt_, now, kDacClockHigh, "clock_high_short"), sendBit();
    fellAt_ = now;
  }
}

void Dac::checkRise(Nanos now) {
  checkTime(fellAt_, now, kDacClockLow, "clock_low_short");
  checkTime(roseAt_, now, kClockPeriod, "clock_period_short");
  checkTime(selectedAt_, now, kSetup, "select_setup_short");
  if (!sends()) checkTime(dataAt_, now, kSetup, "data_setup_short");
}

// After a transfer the part takes the next eight bits as another instruction; on this card that is an error.
void Dac::takeBit() {
  if (frameComplete()) {
    violation("second_instruction");
    beginFrame();
  }
  shift_ = static_cast<u8>(shift_ << 1 | (data_ ? 1 : 0));
  if (++bits_ < kByteBits) return;
  bits_ = 0;
  instructed_ ? endDataByte() : instruct(shift_);
}

void Dac::instruct(u8 instruction) {
  instructed_ = true;
  reads_ = (instruction & kRead) != 0;
  bytesLeft_ = 1U + (instruction >> 5 & 3);
  address_ = instruction % kAddresses;
}

// With the most significant bit first, a transfer of several bytes goes down from the address it names.
void Dac::endDataByte() {
  if (!reads_) {
    checkAddress();
    if (!wasReset_) violation("write_before_reset");
    if (address_ < kRegisters) registers_[address_] = shift_, written_ |= 1U << address_;
  }
  --bytesLeft_;
  address_ = (address_ + kAddresses - 1) % kAddresses;
}

// The falls of the clock after those of the instruction bring the bits out; the last one lets go of the line.
void Dac::sendBit() {
  out_ = false;
  if (!sends()) return;
  if (bits_ == 0) {
    checkAddress();
    sent_ = reg(static_cast<u8>(address_));
  }
  out_ = (sent_ >> (kByteBits - 1 - bits_) & 1) != 0;
}

std::string Dac::fault() const {
  if (!wasReset_) return "the DAC was never reset";
  if (reset_) return "the DAC is held in reset";
  if (std::ranges::count(registers_, 0xFF) == kRegisters)
    return "the DAC is asleep: the EEPROM is blank or does not answer";
  if ((registers_[0] & kAsleep) != 0) return "the DAC is asleep (bit 4 of register 0x00)";
  if ((registers_[0] & kDacPowerDown) != 0) return "the DAC is powered down (bit 3 of register 0x00)";
  return {};
}

void Dac::takeIntoUse() {
  if (written_ != (1U << kRegisters) - 1) violation("not_loaded");
}

// The part has one register more, which can only be read: its version. Here it reads as 0.
void Dac::checkAddress() {
  if (address_ >= kRegisters + (reads_ ? 1U : 0U)) violation("no_such_register");
}

}  // namespace headend
