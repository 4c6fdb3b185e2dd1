// What the card's devices do with what is written to them. Where a driver breaks a rule:
// driver_faults_test.cpp.
#include <gtest/gtest.h>

#include "headend/hardware/ad7414.h"
#include "headend/hardware/adf4113.h"
#include "headend/hardware/cdce925.h"
#include "tests/headend/hardware/drivers.h"

namespace test {
namespace {

// 0 MHz: nothing comes out, and the device says why.
template <typename Output>
void expectOutput(const Output& output, double MHz, const std::string& why, const Violations& violations) {
  EXPECT_NEAR(output.hz.value_or(0), MHz * 1e6, 1e-3);
  EXPECT_EQ(output.why.substr(0, why.size()), why);
  EXPECT_EQ(output.why.empty(), output.hz.has_value());
  EXPECT_EQ(kinds(violations), "");
}

// ---- Clock generator ----

enum Register { kS0 = -1, kGeneral = 1, kY1, kPdiv1, kY2Y3 = 0x14, kPdiv2 = 0x16, kPdiv3, kPll };

TEST(Devices, TheClockFollowsFromTheRegistersAndSettlesAfterAChangeOfThePll) {
  using RegisterWrites = std::vector<std::pair<int, int>>;
  // N 16, M 5, P 3, so Q = 128 / 5 = 25 and R = 3: 176 MHz. S0 is a line, not a register.
  const RegisterWrites run = {{kS0, 1},         {kY2Y3, 0x6D},    {kPdiv3, 4},     {kPll, 1},
                              {kPll + 1, 0x00}, {kPll + 2, 0x1B}, {kPll + 3, 0x2F}};
  constexpr Nanos kSettling = 5'000'000;
  struct Row {
    const char* name;
    RegisterWrites registers;  // after those of `run`
    double MHz;
    const char* why = "";
    RegisterWrites then = {};  // once it has settled
  };
  const Row rows[] = {
      {"N 355, M 100, R 40", {{0x13, 2}, {0x1C, 0x16}, {0x1D, 0x31}, {0x1E, 0x43}, {0x1F, 0x8F}}, 48.8125},
      {"Pdiv1 from the PLL", {{kY1, 0xB5}, {kPdiv1, 0x60}, {kY2Y3, 0x4D}}, 0.5},
      {"Pdiv1 from the input", {{kY1, 0x34}, {kPdiv1, 5}, {kY2Y3, 0x4D}}, 11},
      {"Pdiv2", {{kPdiv2, 0x80 | 22}, {kY2Y3, 0x5D}}, 8},
      {"bypass, down and up", {{kY2Y3, 0xED}}, 13.75, "", {{kGeneral, 0x10}, {kGeneral, 0}}},
      {"S0 low, state 0 on", {{kS0, 0}, {kY2Y3, 0x67}}, 44},
      {"S0 low, state 1 selected", {{kS0, 0}, {0x15, 0x01}}, 44},
      {"powered down by Y1's state", {{kY1, 0x84}}, 0, "the clock generator is powered down"},
      {"the value it had, but a write", {}, 0, "the PLL is settling", {{kY2Y3, 0x6D}}},
      {"the last of the PLL's registers", {}, 0, "the PLL is settling", {{kPll + 3, 0x2F}}},
      {"not of the PLL", {}, 44, "", {{0x10, 0}}},
      {"power down and up", {}, 0, "the PLL is settling", {{kGeneral, 0x10}, {kGeneral, 0}}},
      {"the PLL down and up by S0", {{kY2Y3, 0x6C}}, 0, "the PLL is settling", {{kS0, 0}, {kS0, 1}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Violations violations;
    headend::ClockGenerator part(55e6, violations);
    I2cLines master(part);
    for (const RegisterWrites& registers : {run, row.registers, row.then}) {
      for (const auto& [index, value] : registers) {
        index == kS0 ? part.selectS0(value != 0, master.now) : void(master.send(0x64, 0x80 | index, value));
      }
      master.now += kSettling - 100'000;
    }
    expectOutput(part.y3(master.now), row.MHz, row.why, violations);
  }
}

// ---- Temperature sensor ----

TEST(Devices, TheSensorConvertsEvery800MicrosecondsOrOnDemandAndReportsTenBitsAndFlags) {
  Violations violations;
  headend::TemperatureSensor sensor(0x4A, "sensor", violations);
  I2cLines master(sensor);
  const auto after = [&](Nanos time) {
    master.now += time;
    const Bytes bytes = master.fetch(0x4A, 2, 0);
    return bytes[0] << 8 | bytes[1];
  };
  EXPECT_EQ(master.fetch(0x4A, 1, 1), Bytes{0x40});
  sensor.temperature(30, master.now);
  EXPECT_EQ(after(0), 0x1E00);  // a conversion ended 25 us after the stop; the next ends 800 us later
  sensor.temperature(31, master.now + 100'000);
  EXPECT_EQ(after(700'000), 0x1E00);
  sensor.temperature(32, master.now + 100'000);
  EXPECT_EQ(after(800'000), 0x2000);

  master.send(0x4A, 1, 0xC0);
  sensor.temperature(-5, master.now);
  EXPECT_EQ(after(2 * headend::kSecond), 0x2000);  // powered down
  master.send(0x4A, 1, 0xC4);
  const Nanos done = master.now - master.busFree + 29'000;  // 4 us to wake up, 25 to convert
  sensor.temperature(40, done - 1);
  sensor.temperature(50, done);
  EXPECT_EQ(after(29'000), 0x2800);
  EXPECT_EQ(master.fetch(0x4A, 1, 1), Bytes{0xC0});
  sensor.temperature(10, master.now);
  master.send(0x4A, 1, 0x40);
  EXPECT_EQ(after(30'000), 0x0A00);

  master.send(0x4A, 2, 30), master.send(0x4A, 3, 0xF6);  // the limits: 30 and -10 degrees
  const std::pair<double, int> rows[] = {{-5, 0xFB00},  {0.25, 0x0040},   {-0.3, 0xFFC0},
                                         {30, 0x1E00},  {30.25, 0x1E70},  {127, 0x7F30},
                                         {-10, 0xF600}, {-10.25, 0xF5E8}, {-60, 0xC928}};
  for (const auto& [celsius, value] : rows) {
    sensor.temperature(celsius, master.now);
    EXPECT_EQ(after(headend::kSecond), value) << celsius;
  }
  sensor.temperature(20, master.now + 2'000'000);
  EXPECT_EQ(after(headend::kSecond), 0x1428) << "a flag is kept until it is read";

  // The other faults of a bus are in the modulator's table of faults.
  master.bus.inject(headend::OpenDrainBus::Fault::kStretch, true, master.now);
  EXPECT_EQ(after(0), 0x1400);
  master.begin(0x4A, true);
  constexpr auto kClock = headend::OpenDrainBus::kClock;
  EXPECT_FALSE(master.bus.level(kClock, master.now));
  master.bus.drive(kClock, true, master.now + 1300);
  EXPECT_FALSE(master.bus.level(kClock, master.now + 99'999));
  master.bus.drive(kClock, false, master.now + 104'000);  // not called: the clock has been high since 100'000
  EXPECT_EQ(kinds(violations), "");
}

// ---- Synthesizer ----

// 13 MHz / 52 = 250 kHz; B 317, A 8 behind a prescaler of 16: 5080 * 250 kHz = 1270 MHz.
constexpr u32 kInReset = 0x400086, kR = 0x0000D0, kN = 0x013D21, kRun = 0x400082;

TEST(Devices, TheSynthesizerLocksWhereItsLatchesSay) {
  const std::tuple<const char*, std::vector<u32>, double, const char*> rows[] = {
      {"pump currents, lock detect on the output", {0x5F8096, kR, kN, 0x5F8092}, 1270, ""},
      {"counters alone, afterwards", {kInReset, kR, kN, kRun, 0x013D25}, 1270.25, ""},
      {"prescaler 8", {0x000086, kR, kN, 0x000082}, 636, ""},
      {"prescaler 64, A 40", {0xC00086, 0x000104, 0x00FAA1, 0xC00082}, 3208, ""},
      {"prescaler 32, R 8320, B 8000", {0x800086, 0x008200, 0x1F4001, 0x800082}, 400, ""},
      {"no reset", {kR, kN, kRun}, 0, "not programmed"},
      {"no counters", {kInReset, kR, kRun}, 0, "not programmed"},
      {"no reference counter", {kInReset, kN, kRun}, 0, "not programmed"},
      {"R 0", {kInReset, 0, kN, kRun}, 0, "the reference counter divides by 0"},
      {"A 8, B 7", {kInReset, 0x000004, 0x000721, kRun}, 0, "A is 8"},
      {"A 8, B 8", {kInReset, 0x000004, 0x000821, kRun}, 1768, ""},
      {"RF too high", {kInReset, kR, 0x03E801, kRun}, 0, "4000.000 MHz, outside"},
      {"RF too low", {kInReset, kR, 0x003121, kRun}, 0, "198.000 MHz, outside"},
      {"prescaler too fast", {0x000086, kR, 0x051401, 0x000082}, 0, "the prescaler puts out 325.0 MHz"},
  };
  for (const auto& [name, words, MHz, why] : rows) {
    SCOPED_TRACE(name);
    Violations violations;
    headend::Synthesizer part("lo", 13e6, true, violations);
    ThreeLines<headend::Synthesizer> lines{part};
    for (const u32 word : words) lines.send(word);
    const Nanos locks = lines.now - lines.width - lines.high - lines.low + 10'000;  // after the last latch
    EXPECT_EQ(part.output(locks - 1).hz, std::nullopt);
    expectOutput(part.output(locks), MHz, why, violations);
  }
}

}  // namespace
}  // namespace test
