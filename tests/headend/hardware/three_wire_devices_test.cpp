#include <gtest/gtest.h>

#include "headend/hardware/attenuator.h"
#include "headend/hardware/synthesizer.h"
#include "tests/headend/hardware/i2c_lines.h"

namespace test {
namespace {

// Drives a device at the least times of the synthesizer, unless told to miss one. Data moves under the high
// clock, as it may once it has been held.
template <typename Device>
struct ThreeLines {
  Device& device;
  Nanos now = 0;
  Nanos setup = 10, hold = 10, high = 25, low = 25, toLatch = 10, width = 20;

  void send(u32 word, int bits) {
    for (int i = bits - 1; i >= 0; --i) {
      const bool level = (word >> i & 1) != 0;
      device.data(level, now);
      now += setup;
      device.clock(true, now);
      if (i == 0) break;
      now += hold;
      device.data(!level, now);
      now += high - hold;
      device.clock(false, now);
      now += low - setup;
    }
    now += toLatch;
    device.latchEnable(true, now);
    now += width;
    device.latchEnable(false, now);
    now += high;
    device.clock(false, now);
    now += low;
  }
};

// 13 MHz / 52 = 250 kHz; B 317, A 8 behind a prescaler of 16: 5080 * 250 kHz = 1270 MHz.
constexpr u32 kReset = 0x400086, kR = 0x0000D0, kN = 0x013D21, kRun = 0x400082;

TEST(Synthesizer, LocksWhereItsLatchesSay) {
  struct Row {
    const char* name;
    std::vector<u32> words;
    double MHz;  // 0: not locked
    const char* why;
  };
  const Row rows[] = {
      {"the method", {kReset, kR, kN, kRun}, 1270, ""},
      {"pump currents, lock detect on the output", {0x5F8096, kR, kN, 0x5F8092}, 1270, ""},
      {"counters alone, afterwards", {kReset, kR, kN, kRun, 0x013D25}, 1270.25, ""},
      {"prescaler 8", {0x000086, kR, kN, 0x000082}, 636, ""},
      {"prescaler 64, A 40", {0xC00086, 0x000104, 0x00FAA1, 0xC00082}, 3208, ""},
      {"prescaler 32, R 8320, B 8000", {0x800086, 0x008200, 0x1F4001, 0x800082}, 400, ""},
      {"nothing", {}, 0, "not programmed"},
      {"no reset", {kR, kN, kRun}, 0, "not programmed"},
      {"no counters", {kReset, kR, kRun}, 0, "not programmed"},
      {"no reference counter", {kReset, kN, kRun}, 0, "not programmed"},
      {"another order", {kReset, kN, kR, kRun}, 0, "not programmed"},
      {"initialization", {kReset, kR, kN, kRun, kRun | 1}, 0, "not programmed"},
      {"again, halfway", {kReset, kR, kN, kRun, kReset, kN, kRun}, 0, "not programmed"},
      {"still reset", {kReset, kR, kN, kReset}, 0, "held in reset"},
      {"powered down", {kReset, kR, kN, kRun | 8}, 0, "powered down"},
      {"three-state", {kReset, kR, kN, kRun | 0x100}, 0, "three-state"},
      {"polarity", {kReset, kR, kN, kRun & ~0x80U}, 0, "polarity"},
      {"R 0", {kReset, 0, kN, kRun}, 0, "divides by 0"},
      {"B 2", {kReset, kR, 0x000201, kRun}, 0, "B is 2"},
      {"A 8, B 7", {kReset, 0x000004, 0x000721, kRun}, 0, "A is 8"},
      {"A 8, B 8", {kReset, 0x000004, 0x000821, kRun}, 1768, ""},
      {"RF too high", {kReset, kR, 0x03E801, kRun}, 0, "4000.000 MHz, outside"},
      {"RF too low", {kReset, kR, 0x003121, kRun}, 0, "198.000 MHz, outside"},
      {"prescaler too fast", {0x000086, kR, 0x051401, 0x000082}, 0, "325.0 MHz"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    headend::Violations violations;
    headend::Synthesizer part("lo", 13e6, true, violations);
    ThreeLines<headend::Synthesizer> lines{part};
    for (const u32 word : row.words) lines.send(word, 24);
    const auto output = part.output();
    EXPECT_DOUBLE_EQ(output.hz.value_or(0), row.MHz * 1e6);
    EXPECT_NE(output.why.find(row.why), std::string::npos) << output.why;
    EXPECT_EQ(output.why.empty(), output.hz.has_value());
    EXPECT_EQ(kinds(violations), "");
  }
}

TEST(Synthesizer, FaultsOfTheBoard) {
  headend::Violations violations;
  headend::Synthesizer negative("lo1", 13e6, false, violations);
  headend::Synthesizer deaf("lo2", 13e6, true, violations);
  deaf.disconnectLatchEnable();
  ThreeLines<headend::Synthesizer> one{negative}, two{deaf};
  for (const u32 word : {kReset, kR, kN, kRun})
    one.send((word & 2) != 0 ? word & ~0x80U : word, 24), two.send(word, 24);
  EXPECT_EQ(negative.output().hz, 1270e6);
  EXPECT_EQ(deaf.output().why, "not programmed by the counter-reset method");
  negative.removeReference();
  EXPECT_EQ(negative.output().why, "no reference");
}

TEST(ThreeWire, TellsWhatADriverDoesWrong) {
  using Lines = ThreeLines<headend::Synthesizer>;
  struct Row {
    const char* kinds;
    Nanos Lines::*time;
    int bits;
  };
  for (const Row& row : {Row{"", nullptr, 24},
                         {"lo_data_setup_short", &Lines::setup, 24},
                         {"lo_data_hold_short", &Lines::hold, 24},
                         {"lo_clock_high_short", &Lines::high, 24},
                         {"lo_clock_low_short", &Lines::low, 24},
                         {"lo_latch_setup_short", &Lines::toLatch, 24},
                         {"lo_latch_short", &Lines::width, 24},
                         {"lo_wrong_number_of_clocks", nullptr, 23},
                         {"lo_wrong_number_of_clocks", nullptr, 25}}) {
    headend::Violations violations;
    headend::Synthesizer part("lo", 13e6, true, violations);
    Lines lines{part};
    if (row.time != nullptr) --(lines.*row.time);
    lines.send(kR, row.bits);
    lines.send(kN, row.bits);
    EXPECT_EQ(kinds(violations), row.kinds);
  }
  headend::Violations violations;
  headend::Synthesizer part("lo", 13e6, true, violations);
  part.latchEnable(true, 0), part.clock(true, 100);
  part.latchEnable(false, 200), ThreeLines<headend::Synthesizer>{part, 300}.send(0x040000, 23);
  EXPECT_EQ(kinds(violations), "lo_clock_under_latch lo_test_mode lo_wrong_number_of_clocks");
}

TEST(Attenuator, TakesSixBitsAtTheLatch) {
  headend::Violations violations;
  headend::Attenuator part("attenuator", violations);
  ThreeLines<headend::Attenuator> lines{.device = part, .high = 30, .low = 30, .width = 30};
  EXPECT_EQ(part.dB(), 31.5);
  for (const u32 steps : {0b000101U, 0b100000U, 0U, 63U}) {
    lines.send(steps, 6);
    EXPECT_EQ(part.dB(), steps * 0.5);
  }
  EXPECT_EQ(kinds(violations), "");
  lines.send(0b1010011, 7);
  EXPECT_EQ(part.dB(), 9.5);
  EXPECT_EQ(kinds(violations), "attenuator_wrong_number_of_clocks");
  part.disconnectLatchEnable();
  lines.send(0, 6);
  EXPECT_EQ(part.dB(), 9.5);
}

}  // namespace
}  // namespace test
