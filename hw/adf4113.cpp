#include "hw/adf4113.h"

#include "card/QamFpga.h"

namespace {

constexpr i32 p2scale[] = {8, 16, 32, 64};

constexpr u32 kStep_Hz = 12500;
constexpr u32 kFirstLo_Hz = 1090000000;
constexpr u32 kOffset_Hz = 4000000;
constexpr u32 kBandLimit_Hz = 2600000000;
constexpr u32 kPrescaler32 = 2;

enum Synthesizer : u32 { kFirst = 0, kSecond = 1 };

// Latch words (ADF4113 data sheet, tables of the latches).
constexpr i32 kLatchBits = 24;
constexpr u32 kReferenceLatch = 1040 << 2;  // 13 MHz divided by 1040 is one step
constexpr u32 kNCounterLatch = 1;
// Function latch: both charge-pump currents at maximum, digital lock detect on the multiplexer output.
constexpr u32 kFunctionLatch = 0x1F8012;
constexpr u32 kCounterReset = 1 << 2;
constexpr u32 kPolarityBit = 7;
constexpr u32 kPrescalerBit = 22;

// The lines of a synthesizer. Those of the window for a second oscillator of channel 2 are not driven.
struct Lines {
  Reg16& data;
  Reg16& clock;
  Reg16& latch;
};

void shiftOut(const Lines& lines, u32 dat, i32 len) {
  if (len < 1 || len > 32) return;
  for (u32 mask = 1U << (len - 1); mask != 0; mask >>= 1) {
    lines.clock = 0;
    lines.data = (dat & mask) != 0 ? 1 : 0;
    lines.clock = 1;
  }
  lines.latch = 0;
  lines.latch = 1;
  lines.latch = 0;
}

}  // namespace

void SetFreq(u8 slotNo, u32 rf) {
  const u32 freq = rf * 1000 + kFirstLo_Hz + kOffset_Hz;
  QamFpgaIf[slotNo]->q1_12v_ctrl = freq > kBandLimit_Hz ? 0 : 1;
  set_pll(kSecond, kPrescaler32, 0, freq, slotNo);
}

// The record's lo1freq is ignored: the first oscillator has one frequency.
void SetLO1Freq(u8 slotNo) {
  set_pll(kFirst, kPrescaler32, 1, kFirstLo_Hz, slotNo);
}

// R and N are loaded while the counters are held in reset; the last write releases them.
void set_pll(u32 addr, u32 pre, u32 pdp, u32 freq, u8 slotNo) {
  const u32 n = (freq + kStep_Hz / 2) / kStep_Hz;
  const auto modulus = static_cast<u32>(p2scale[pre & 3]);
  const u32 a = n % modulus;
  const u32 b = n / modulus;
  const u32 function = (pre << kPrescalerBit) + (pdp << kPolarityBit) + kFunctionLatch;

  latch_write(slotNo, addr, function + kCounterReset, kLatchBits);
  latch_write(slotNo, addr, kReferenceLatch, kLatchBits);
  latch_write(slotNo, addr, (b << 8) + (a << 2) + kNCounterLatch, kLatchBits);
  latch_write(slotNo, addr, function, kLatchBits);
}

void latch_write(u8 slotNo, u32 addr, u32 dat, i32 len) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  if (addr == kFirst) {
    shiftOut({window->lo1_dat, window->lo1_clk, window->lo1_le}, dat, len);
  } else if (addr == kSecond) {
    shiftOut({window->lo2_q1_dat, window->lo2_q1_clk, window->lo2_q1_le}, dat, len);
  }
}
