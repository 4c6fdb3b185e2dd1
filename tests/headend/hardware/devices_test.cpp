// What the card's devices do with what is written to them. Where a driver breaks a rule:
// driver_faults_test.cpp.
#include <gtest/gtest.h>

#include "headend/hardware/attenuator.h"
#include "headend/hardware/clock_generator.h"
#include "headend/hardware/synthesizer.h"
#include "headend/hardware/temperature_sensor.h"
#include "tests/headend/hardware/drivers.h"

namespace test {
namespace {

using headend::Synthesizer;

// 0 MHz: nothing comes out, and the device says why.
template <typename Output>
void expectOutput(const Output& output, double MHz, const std::string& why, const char* row) {
  EXPECT_NEAR(output.hz.value_or(0), MHz * 1e6, 1e-3) << row;
  EXPECT_EQ(output.why.substr(0, why.size()), why) << row;
  EXPECT_EQ(output.why.empty(), output.hz.has_value()) << row;
}

// The other faults of a bus stand in the modulator's table of faults.
TEST(Devices, ASlaveHoldsTheClockFor100MicrosecondsAfterAByte) {
  Violations violations;
  Slave slave(violations);
  I2cLines master(slave);
  master.waits = true;
  master.bus.inject(headend::OpenDrainBus::Fault::kStretch, master.now);
  EXPECT_TRUE(master.send(0x50, 0x12, 0x34));
  EXPECT_EQ(slave.bytes, (Bytes{0x12, 0x34}));
  master.begin(0x50, true);
  EXPECT_FALSE(master.bus.clock(master.now));
  master.bus.driveClock(true, master.now + 1300);
  EXPECT_FALSE(master.bus.clock(master.now + 99'999));
  master.bus.driveClock(false, master.now + 100'600);  // unseen, the clock has been high since 100'000
  EXPECT_EQ(kinds(violations), "");
}

// ---- Clock generator ----

constexpr Nanos kSettling = 5'000'000;

enum Register { kY1 = 0x02, kPdiv1 = 0x03, kY2Y3 = 0x14, kPdiv2 = 0x16, kPdiv3 = 0x17, kPll = 0x18 };

struct Clock {
  Violations violations;
  headend::ClockGenerator part;
  I2cLines master{part};

  explicit Clock(double input_hz = 55e6) : part(input_hz, violations) {}
  void write(int index, int value) { master.send(0x64, 0x80 | index, value); }
  void selectS0(bool level) { part.selectS0(level, master.now); }
  void runPll() {  // at 220 MHz where S0 is high; where it is low the PLL is powered down
    write(kPll + 3, 0x0B), write(kY2Y3, 0x6C);
    master.now += kSettling;
  }
  headend::ClockGenerator::Output after(Nanos time) { return part.y3(master.now + time); }
};
// At 55 MHz: N 16, M 5, P 3, so Q = 128 / 5 = 25 and R = 3: 176 MHz. At 27 MHz, the data sheet's examples.
TEST(Devices, TheClockFollowsFromTheRegisters) {
  using Registers = std::vector<std::pair<int, int>>;
  const Registers run = {{kY2Y3, 0x6D}, {kPdiv3, 4},      {kPll, 0x01},
                         {kPll + 1, 0}, {kPll + 2, 0x1B}, {kPll + 3, 0x2F}};
  const auto pll = [](int pdiv3, int a, int b, int c, int d) {
    return Registers{{kPdiv3, pdiv3}, {kPll, a}, {kPll + 1, b}, {kPll + 2, c}, {kPll + 3, d}};
  };
  struct Row {
    const char* name;
    Registers registers;  // after those of `run`
    double MHz;
    const char* why = "";
    bool s0 = true;
    double input_MHz = 55;
  };
  const Row rows[] = {
      {"hand-made", {}, 44},
      {"N 4, M 1", pll(2, 0, 0x40, 2, 8), 54, "", true, 27},
      {"N 11, M 2", pll(2, 0, 0xB0, 2, 0xC9), 74.25, "", true, 27},
      {"N 355, M 100, R 40", pll(5, 0x16, 0x31, 0x43, 0x8F), 39.05},
      {"set 1", {{0x13, 2}, {0x1C, 0x16}, {0x1D, 0x31}, {0x1E, 0x43}, {0x1F, 0x8F}}, 48.8125},
      {"Pdiv1 from the PLL", {{kY1, 0xB5}, {kPdiv1, 0x60}, {kY2Y3, 0x4D}}, 0.5},
      {"Pdiv1 from the input", {{kY1, 0x34}, {kPdiv1, 5}, {kY2Y3, 0x4D}}, 11},
      {"Pdiv2", {{kPdiv2, 0x80 | 22}, {kY2Y3, 0x5D}}, 8},
      {"no divider", {{kY2Y3, 0x7D}}, 0, "Y3's multiplexer"},
      {"bypass", {{kY2Y3, 0xED}}, 13.75},
      {"divider 0", {{kPdiv3, 0}}, 0, "Pdiv3 is 0"},
      {"M not whole", {{kPll + 2, 0x23}}, 0, "M of PLL1 is not whole: (128 - 4) / 25"},
      {"range bits", {{kPll + 3, 0x2E}}, 0, "VCO at 176.0 MHz, outside of the range that its bits 10 name"},
      {"fast", pll(4, 6, 0x40, 5, 0x0F), 0, "VCO at 275.0 MHz, outside of 80"},
      {"slow: M 12, P 4", {{kPll + 2, 0x22}, {kPll + 3, 0xB0}}, 0, "VCO at 73.3 MHz, outside of 80"},
      {"R not less than M", {{kPll + 2, 0x43}, {kPll + 3, 0x0F}}, 0, "R of PLL1 is 8"},
      {"Q too small", {{kPll + 2, 0x19}}, 0, "Q of PLL1 is 9"},
      {"state 1 off", {{kY2Y3, 0x6B}}, 0, "Y3 is disabled"},
      {"S0 low, state 0 off", {}, 0, "Y3 is disabled", false},
      {"S0 low, state 0 on", {{kY2Y3, 0x67}}, 44, "", false},
      {"S0 low, told state 1", {{0x15, 0x01}}, 44, "", false},
      {"powered down", {{0x01, 0x10}}, 0, "the clock generator is powered down"},
      {"powered down by Y1's state", {{kY1, 0x84}}, 0, "the clock generator is powered down"},
  };
  for (const Row& row : rows) {
    Clock clock(row.input_MHz * 1e6);
    clock.selectS0(row.s0);
    for (const auto& [index, value] : run) clock.write(index, value);
    for (const auto& [index, value] : row.registers) clock.write(index, value);
    expectOutput(clock.after(kSettling), row.MHz, row.why, row.name);
    EXPECT_EQ(kinds(clock.violations), "") << row.name;
  }
}

TEST(Devices, TheClockSettlesAfterAChangeOfThePll) {
  const std::tuple<const char*, bool, void (*)(Clock&)> rows[] = {
      {"power-up", false, [](Clock&) {}},
      {"the value it had, but a write", true, [](Clock& c) { c.write(kY2Y3, 0xED); }},
      {"the last of the PLL's registers", true, [](Clock& c) { c.write(kPll + 3, 0x0B); }},
      {"not of the PLL", false, [](Clock& c) { c.write(0x10, 0); }},
      {"power down and up with the PLL running", true,
       [](Clock& c) { c.runPll(), c.write(0x01, 0x10), c.write(0x01, 0x00); }},
      {"power down and up without the PLL", false,
       [](Clock& c) { c.write(0x01, 0x10), c.write(0x01, 0x00); }},
      {"S0 low, where state 0 powers the PLL down", true,
       [](Clock& c) { c.runPll(), c.selectS0(false), c.selectS0(true); }},
  };
  for (const auto& [name, settles, change] : rows) {
    Clock clock;
    change(clock);
    EXPECT_EQ(clock.after(kSettling - 100'000).hz.has_value(), !settles) << name;
    EXPECT_TRUE(clock.after(kSettling).hz) << name;
  }
}

TEST(Devices, TheClocksRegistersAreReadAndWrittenByByteAndBlock) {
  Clock clock;
  I2cLines& master = clock.master;
  EXPECT_EQ(master.fetch(0x64, 1, 0x80 | kY2Y3), Bytes{0xED});
  Bytes all = {48};
  for (u8 i = 0; i < 48; ++i) all.push_back(clock.part.reg(i));
  EXPECT_EQ(master.fetch(0x64, 49, 0x00), all);
  EXPECT_TRUE(master.send(0x64, kPdiv2, 2, 0x07, 0x09));
  EXPECT_EQ(clock.part.reg(kPdiv2) << 8 | clock.part.reg(kPdiv3), 0x0709);
  clock.write(0x00, 0);
  EXPECT_EQ(clock.part.reg(0x00), 0x81);
  clock.write(0x01, 0x01);  // another address
  EXPECT_FALSE(master.send(0x64, 0x81, 0));
  EXPECT_TRUE(master.send(0x65, 0x81, 0));
  master.send(0x65, 0x80 | kY1, 0xF4);  // the bus's lines become control pins
  EXPECT_FALSE(master.send(0x65, 0x81, 0));
}

// ---- Temperature sensor ----

struct Sensor {
  Violations violations;
  headend::TemperatureSensor part{0x4A, "sensor", violations};
  I2cLines master{part};

  int temperature() {
    const Bytes bytes = master.fetch(0x4A, 2, 0);
    return bytes[0] << 8 | bytes[1];
  }
  void surroundings(double celsius) { part.temperature(celsius, master.now); }
  ~Sensor() { EXPECT_EQ(kinds(violations), ""); }
};

TEST(Devices, TheSensorReportsTenBitsAndFlags) {
  const std::pair<double, int> rows[] = {{25, 0x1900},     {-5, 0xFB00},    {0.25, 0x0040}, {-0.3, 0xFFC0},
                                         {30, 0x1E00},     {30.25, 0x1E70}, {127, 0x7F30},  {-10, 0xF600},
                                         {-10.25, 0xF5E8}, {-60, 0xC928}};
  for (const auto& [celsius, value] : rows) {  // the limits: 30 and -10 degrees
    Sensor sensor;
    EXPECT_TRUE(sensor.master.send(0x4A, 2, 30) && sensor.master.send(0x4A, 3, 0xF6));
    sensor.surroundings(celsius);
    sensor.master.now += headend::kSecond;
    EXPECT_EQ(sensor.temperature(), value) << celsius;
  }
}

TEST(Devices, TheSensorConvertsEvery800MillisecondsOrOnDemand) {
  Sensor sensor;
  I2cLines& master = sensor.master;
  EXPECT_EQ(master.fetch(0x4A, 1, 1), Bytes{0x40});
  sensor.surroundings(30);
  master.now += 599'000'000;
  EXPECT_EQ(sensor.temperature(), 0x1900);  // conversions end at 0.8 s and 1.6 s
  master.now += 2'000'000;
  EXPECT_EQ(sensor.temperature(), 0x1E00);

  master.send(0x4A, 1, 0xC0);
  sensor.surroundings(-5);
  master.now += 2 * headend::kSecond;
  EXPECT_EQ(sensor.temperature(), 0x1E00);  // powered down
  master.send(0x4A, 1, 0xC4);
  EXPECT_EQ(sensor.temperature(), 0x1E00);  // the conversion ended in this transfer, and is lost
  master.send(0x4A, 1, 0xC4);
  const Nanos done = master.now - master.busFree + 29'000;  // 4 us to wake up, 25 to convert
  sensor.part.temperature(40, done - 1);
  sensor.part.temperature(50, done);
  master.now += 29'000;
  EXPECT_EQ(sensor.temperature(), 0x2800);
  EXPECT_EQ(master.fetch(0x4A, 1, 1), Bytes{0xC0});

  sensor.surroundings(10);
  master.send(0x4A, 1, 0x40);
  master.now += 30'000;
  EXPECT_EQ(sensor.temperature(), 0x0A00);
}

// ---- Synthesizer and attenuator ----

// 13 MHz / 52 = 250 kHz; B 317, A 8 behind a prescaler of 16: 5080 * 250 kHz = 1270 MHz.
constexpr u32 kReset = 0x400086, kR = 0x0000D0, kN = 0x013D21, kRun = 0x400082;

TEST(Devices, TheSynthesizerLocksWhereItsLatchesSay) {
  struct Row {
    const char* name;
    std::vector<u32> words;
    double MHz;
    const char* why = "";
  };
  const Row rows[] = {
      {"the method", {kReset, kR, kN, kRun}, 1270},
      {"pump currents, lock detect on the output", {0x5F8096, kR, kN, 0x5F8092}, 1270},
      {"counters alone, afterwards", {kReset, kR, kN, kRun, 0x013D25}, 1270.25},
      {"prescaler 8", {0x000086, kR, kN, 0x000082}, 636},
      {"prescaler 64, A 40", {0xC00086, 0x000104, 0x00FAA1, 0xC00082}, 3208},
      {"prescaler 32, R 8320, B 8000", {0x800086, 0x008200, 0x1F4001, 0x800082}, 400},
      {"nothing", {}, 0, "not programmed"},
      {"no reset", {kR, kN, kRun}, 0, "not programmed"},
      {"no counters", {kReset, kR, kRun}, 0, "not programmed"},
      {"no reference counter", {kReset, kN, kRun}, 0, "not programmed"},
      {"another order", {kReset, kN, kR, kRun}, 0, "not programmed"},
      {"initialization", {kReset, kR, kN, kRun, kRun | 1}, 0, "not programmed"},
      {"again, halfway", {kReset, kR, kN, kRun, kReset, kN, kRun}, 0, "not programmed"},
      {"still reset", {kReset, kR, kN, kReset}, 0, "the counters are held in reset"},
      {"powered down", {kReset, kR, kN, kRun | 8}, 0, "powered down"},
      {"three-state", {kReset, kR, kN, kRun | 0x100}, 0, "the charge pump is in three-state"},
      {"polarity", {kReset, kR, kN, kRun & ~0x80U}, 0, "the loop runs away: wrong polarity"},
      {"R 0", {kReset, 0, kN, kRun}, 0, "the reference counter divides by 0"},
      {"B 2", {kReset, kR, 0x000201, kRun}, 0, "B is 2"},
      {"A 8, B 7", {kReset, 0x000004, 0x000721, kRun}, 0, "A is 8"},
      {"A 8, B 8", {kReset, 0x000004, 0x000821, kRun}, 1768},
      {"RF too high", {kReset, kR, 0x03E801, kRun}, 0, "4000.000 MHz, outside"},
      {"RF too low", {kReset, kR, 0x003121, kRun}, 0, "198.000 MHz, outside"},
      {"prescaler too fast", {0x000086, kR, 0x051401, 0x000082}, 0, "the prescaler puts out 325.0 MHz"},
  };
  for (const Row& row : rows) {
    Violations violations;
    Synthesizer part("lo", 13e6, true, violations);
    ThreeLines<Synthesizer> lines{part};
    for (const u32 word : row.words) lines.send(word);
    expectOutput(part.output(), row.MHz, row.why, row.name);
    EXPECT_EQ(kinds(violations), "") << row.name;
  }
}

TEST(Devices, TheAttenuatorTakesSixBitsAtTheLatch) {
  Violations violations;
  headend::Attenuator part("attenuator", violations);
  ThreeLines<headend::Attenuator> lines{.part = part, .high = 30, .low = 30, .width = 30};
  EXPECT_EQ(part.dB(), 31.5);
  for (const u32 steps : {0b000101U, 0b100000U, 0U, 63U}) {
    lines.send(steps, 6);
    EXPECT_EQ(part.dB(), steps * 0.5);
  }
  EXPECT_EQ(kinds(violations), "");
  lines.send(0b1010011, 7);
  EXPECT_EQ(part.dB(), 9.5);
  EXPECT_EQ(kinds(violations), "attenuator_wrong_number_of_clocks");
}

// ---- Converter ----

TEST(Devices, TheConverterHoldsThirteenPlainBytes) {
  Violations violations;
  headend::Dac part("dac", violations);
  DacLines lines{part};
  for (unsigned i = 0; i < 13; ++i) lines.returns(0, i, 0xFF - i * 0x13);
  for (unsigned i = 0; i < 13; ++i) lines.returns(0xFF - i * 0x13, 0x80 | i, 0);
  for (const unsigned mode : {0x1FU, 0x20U, 0x40U, 0x80U}) {
    lines.frame(0, mode);
    EXPECT_EQ(part.portAtRisk(), mode != 0x1F);
  }
  EXPECT_EQ(kinds(violations), "");
}

}  // namespace
}  // namespace test
