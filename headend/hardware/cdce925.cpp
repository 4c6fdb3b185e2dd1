#include "headend/hardware/cdce925.h"

#include <fmt/format.h>

namespace headend {
namespace {

constexpr u8 kAddress = 0x64;
constexpr u8 kByteAccess = 0x80;  // in the command byte; without it, a block access
constexpr Nanos kSettling = 5'000'000;

constexpr double kVcoMin_hz = 80 * kMHz;
constexpr double kVcoMax_hz = 230 * kMHz;

enum Register : u8 {
  kIdentity = 0x00,
  kGeneral = 0x01,
  kY1 = 0x02,
  kPdiv1 = 0x03,
  kY1Select = 0x04,
  kByteCount = 0x06,
  kSpread = 0x12,  // the last of three: the selections for S0 low and high
  kFrequencySelect = 0x13,
  kY2Y3 = 0x14,
  kPdiv2 = 0x16,
  kPdiv3 = 0x17,
  kPll1Set0 = 0x18,
  kPll1Set0End = 0x1B,
  kPll1Set1 = 0x1C,
  kY4Y5 = 0x24,
};

constexpr u8 kEepromBusy = 0x40;  // of kGeneral
constexpr u8 kEepromLock = 0x20;
constexpr u8 kPowerDown = 0x10;
constexpr u8 kInput = 0x0C;
constexpr u8 kInputIsClock = 0x08;  // otherwise a crystal of 8 to 32 MHz
constexpr u8 kY1FromPll = 0x80;     // of kY1
constexpr u8 kPinsAreControl = 0x40;
constexpr u8 kEepromWrite = 0x01;  // of kByteCount
constexpr u8 kPllBypass = 0x80;    // of kY2Y3

constexpr unsigned kLeastQ = 16;
constexpr unsigned kMostP = 4;
constexpr unsigned kMostR = 51;

// The output states of a state field.
constexpr unsigned kStatePowerDown = 0;
constexpr unsigned kStateEnabled = 3;

// As the part comes from the factory: the input, undivided, at each output when S0 is high.
constexpr std::array<u8, 0x30> kPowerUp = {
    0x81, 0x00, 0xB4, 0x01, 0x02, 0x50, 0x60, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  //
    0x00, 0x00, 0x00, 0x00, 0xED, 0x02, 0x01, 0x01, 0x00, 0x40, 0x02, 0x08, 0x00, 0x40, 0x02, 0x08,  //
    0x00, 0x00, 0x00, 0x00, 0xED, 0x02, 0x01, 0x01, 0x00, 0x40, 0x02, 0x08, 0x00, 0x40, 0x02, 0x08,
};

// Bits that must be written as 0.
constexpr u8 reservedBits(u8 index) {
  switch (index) {
    case kGeneral:
    case 0x17:
    case 0x27:
      return 0x80;
    case 0x05:
      return 0x07;
    default:
      return index >= 0x07 && index <= 0x0F ? 0xFF : 0x00;
  }
}

// The range bits name the interval from one of these to the next.
constexpr std::array kVcoRanges_hz = {0.0, 125 * kMHz, 150 * kMHz, 175 * kMHz, 1e12};

}  // namespace

struct ClockGenerator::PllWord {
  unsigned n, r, q, p, range;
  bool operator==(const PllWord&) const = default;

  // The data sheet's formula: 4 less the whole part of the binary logarithm of N / M, at least 0.
  unsigned wantedP(unsigned m) const {
    unsigned wanted = kMostP;
    for (unsigned ratio = n / m; wanted > 0 && ratio > 1; ratio /= 2) --wanted;
    return wanted;
  }
};

ClockGenerator::ClockGenerator(double input_hz, Violations& violations)
    : I2cSlave("clock_generator", violations), input_hz_(input_hz) {
  powerUp();
}

void ClockGenerator::powerUp() {
  registers_ = kPowerUp;
  disturbedAt_ = kLongAgo;
  expects_ = Expects::kCommand;
  block_ = reading_ = countSent_ = false;
  index_ = 0;
  left_ = 0;
}

void ClockGenerator::selectS0(bool level, Nanos now) {
  change(now, [&] { s0_ = level; });
}

// A PLL that begins to run, or whose word changes, has to settle again.
template <typename Change>
void ClockGenerator::change(Nanos now, const Change& apply) {
  const bool ran = pllRuns();
  const PllWord before = pllWord();
  apply();
  if (!pllRuns()) return;
  if (!ran || pllWord() != before) disturbedAt_ = now;
}

void ClockGenerator::write(u8 index, u8 value, Nanos now) {
  if (index >= registers_.size()) {
    violation("no_such_register");
    return;
  }
  if (index == kIdentity) {
    violation("write_to_read_only");
    return;
  }
  if ((value & reservedBits(index)) != 0) violation("reserved_bits");
  const u8 readOnly = index == kGeneral ? kEepromBusy : u8{0};
  if (index == kByteCount && (value & kEepromWrite) != 0) violation("eeprom_write_under_clock");
  if (index == kGeneral && (value & kEepromLock) != 0) violation("eeprom_locked");
  if (index == kY1 && (value & kPinsAreControl) != 0) violation("bus_given_up");
  change(now, [&] { registers_[index] = static_cast<u8>(value & ~reservedBits(index) & ~readOnly); });
  // The registers of PLL1 and its outputs are valid only together, but they are written one by one.
  if (index >= kY2Y3 && index <= kPll1Set0End) disturbedAt_ = now;
}

// --- On the bus -----------------------------------------------------------------------------------------

bool ClockGenerator::addressed(u8 addressByte, Nanos /*now*/) {
  if (addressByte >> 1 != (kAddress | (registers_[kGeneral] & 3))) return false;
  if ((registers_[kY1] & kPinsAreControl) != 0) return false;  // SDA and SCL are control pins now
  reading_ = (addressByte & 1) != 0;
  if (reading_) {
    if (expects_ == Expects::kCommand) violation("read_without_command");
    left_ = block_ ? registers_[kByteCount] >> 1 : 1;
    countSent_ = false;
  } else {
    expects_ = Expects::kCommand;
  }
  return true;
}

bool ClockGenerator::received(u8 byte, Nanos now) {
  switch (expects_) {
    case Expects::kCommand:
      block_ = (byte & kByteAccess) == 0;
      index_ = static_cast<u8>(byte & ~kByteAccess);
      expects_ = block_ ? Expects::kCount : Expects::kData;
      left_ = 1;
      return true;
    case Expects::kCount:
      left_ = byte;
      expects_ = Expects::kData;
      return true;
    default:
      break;
  }
  if (left_ == 0) {
    violation("write_past_end");
    return false;
  }
  --left_;
  write(index_++, byte, now);
  return true;
}

u8 ClockGenerator::next(Nanos /*now*/) {
  if (block_ && !countSent_) {
    countSent_ = true;
    return static_cast<u8>(left_);
  }
  if (left_ == 0) {
    violation("read_past_end");
    return 0xFF;
  }
  --left_;
  if (index_ >= registers_.size()) violation("no_such_register");
  return reg(index_++);
}

// A block read must take as many bytes as the count that was sent.
void ClockGenerator::accessEnded(bool byStop, Nanos /*now*/) {
  if (reading_ && block_ && left_ != 0) violation("block_read_unfinished");
  reading_ = false;
  if (byStop) expects_ = Expects::kCommand;
}

// --- What comes out -------------------------------------------------------------------------------------

// The bit of a selection register that the control pins pick. On the bus, the part has one control pin.
bool ClockGenerator::pin(u8 value) const {
  return (value >> (s0_ ? 1 : 0) & 1) != 0;
}

bool ClockGenerator::poweredDown() const {
  return (registers_[kGeneral] & kPowerDown) != 0 || y1State() == kStatePowerDown;  // of the whole device
}

unsigned ClockGenerator::y1State() const {
  return registers_[kY1] >> (pin(registers_[kY1Select]) ? 4 : 2) & 3;
}

// Of two outputs, which share a field. Its selection register is the next one.
unsigned ClockGenerator::pairState(u8 field) const {
  return registers_[field] >> (pin(registers_[field + 1U]) ? 2 : 0) & 3;
}

void ClockGenerator::takeIntoUse() {
  if ((registers_[kGeneral] & kInput) != kInputIsClock) violation("input_not_as_clock");
  if (poweredDown()) return;
  if (y1State() == kStateEnabled) violation("y1_on");
  if (pairState(kY4Y5) == kStateEnabled) violation("y4_y5_on");
}

bool ClockGenerator::pllRuns() const {
  return !poweredDown() && (registers_[kY2Y3] & kPllBypass) == 0 && pairState(kY2Y3) != kStatePowerDown;
}

// S0 selects a degree of spreading; 0 is none.
bool ClockGenerator::isSpread() const {
  return (registers_[kSpread] >> (s0_ ? 3 : 0) & 7) != 0;
}

ClockGenerator::PllWord ClockGenerator::pllWord() const {
  const u8* w = &registers_[pin(registers_[kFrequencySelect]) ? kPll1Set1 : kPll1Set0];
  return {.n = static_cast<unsigned>(w[0] << 4 | w[1] >> 4),
          .r = static_cast<unsigned>((w[1] & 0x0F) << 5 | w[2] >> 3),
          .q = static_cast<unsigned>((w[2] & 0x07) << 3 | w[3] >> 5),
          .p = static_cast<unsigned>(w[3] >> 2 & 0x07),
          .range = static_cast<unsigned>(w[3] & 0x03)};
}

// The clock in the PLL's place. M is not stored: R = N * 2^P - M * Q, with Q the whole part of N * 2^P / M.
ClockOutput ClockGenerator::pll() const {
  if ((registers_[kY2Y3] & kPllBypass) != 0) return {.hz = input_hz_};
  const auto wrong = [](std::string why) { return ClockOutput{.why = std::move(why)}; };
  const PllWord word = pllWord();
  if (word.n == 0) return wrong("N of PLL1 is 0");
  if (word.p > kMostP) return wrong(fmt::format("P of PLL1 is {}, outside of 0 to 4", word.p));
  if (word.q < kLeastQ) return wrong(fmt::format("Q of PLL1 is {}, outside of 16 to 63", word.q));
  const unsigned scaledN = word.n << word.p;
  if (word.r >= scaledN || (scaledN - word.r) % word.q != 0) {
    return wrong(fmt::format("M of PLL1 is not whole: ({} - {}) / {}", scaledN, word.r, word.q));
  }
  const unsigned m = (scaledN - word.r) / word.q;
  if (m > 511) return wrong(fmt::format("M of PLL1 is {}, more than 511", m));
  if (word.r >= m) return wrong(fmt::format("R of PLL1 is {}, not less than M, which is {}", word.r, m));
  if (word.r > kMostR) return wrong(fmt::format("R of PLL1 is {}, outside of 0 to 51", word.r));
  if (const unsigned p = word.wantedP(m); p != word.p)
    return wrong(fmt::format("P of PLL1 is {}; for its N and M it has to be {}", word.p, p));
  if (isSpread()) return wrong("the spread spectrum of PLL1 is on");
  const double vco_hz = input_hz_ * word.n / m;
  const auto vco = [&] { return fmt::format("VCO at {:.1f} MHz", vco_hz / kMHz); };
  if (vco_hz < kVcoMin_hz || vco_hz > kVcoMax_hz) return wrong(vco() + ", outside of 80 to 230");
  if (vco_hz < kVcoRanges_hz[word.range] || vco_hz >= kVcoRanges_hz[word.range + 1]) {
    return wrong(vco() + fmt::format(", outside of the range that its bits {:02b} name", word.range));
  }
  return {.hz = vco_hz};
}

// Y3's multiplexer and the divider that it picks.
ClockOutput ClockGenerator::divided() const {
  const unsigned source = registers_[kY2Y3] >> 4 & 3;
  if (source == 3) return {.why = "Y3's multiplexer is set to no divider"};
  const unsigned pdiv1 = (registers_[kY1] & 3U) << 8 | registers_[kPdiv1];
  const unsigned divider = source == 0 ? pdiv1 : registers_[source == 1 ? kPdiv2 : kPdiv3] & 0x7FU;
  if (divider == 0) return {.why = fmt::format("Pdiv{} is 0: it does not count", source + 1)};
  const bool fromInput = source == 0 && (registers_[kY1] & kY1FromPll) == 0;
  ClockOutput clock = fromInput ? ClockOutput{.hz = input_hz_} : pll();
  if (clock.hz) *clock.hz /= divider;
  return clock;
}

ClockOutput ClockGenerator::y3(Nanos now) const {
  if (poweredDown()) return {.why = "the clock generator is powered down"};
  if (now - disturbedAt_ < kSettling) return {.why = "the PLL is settling"};
  if (pairState(kY2Y3) != kStateEnabled) return {.why = "Y3 is disabled by its state bits"};
  return divided();
}

}  // namespace headend
