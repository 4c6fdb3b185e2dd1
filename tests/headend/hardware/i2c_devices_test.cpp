#include <gtest/gtest.h>

#include <functional>

#include "headend/hardware/clock_generator.h"
#include "headend/hardware/temperature_sensor.h"
#include "tests/headend/hardware/i2c_lines.h"

namespace test {
namespace {

using Fault = headend::OpenDrainBus::Fault;

// Takes all but 0xEE, sends 0xA5 0xFF 0x00 ... in turn.
struct Recorder final : headend::I2cSlave {
  explicit Recorder(headend::Violations& violations) : I2cSlave("slave", violations) {}
  bool addressed(u8 byte, Nanos /*now*/) override { return byte >> 1 == 0x50; }
  bool received(u8 byte, Nanos /*now*/) override {
    bytes.push_back(byte);
    return byte != 0xEE;
  }
  u8 next(Nanos /*now*/) override { return Bytes{0xA5, 0xFF, 0x00}[sent++ % 3]; }
  Bytes bytes;
  unsigned sent = 0;
};

TEST(I2cSlave, TellsWhatAMasterDoesWrong) {
  struct Row {
    const char* kinds;
    std::function<void(I2cLines&)> acts;
  };
  const auto bits = [](I2cLines& m, int count) {
    for (int i = 0; i < count; ++i) m.bit(true);
  };
  const Row rows[] = {
      {"",
       [](auto& m) {
         EXPECT_EQ(m.fetch(0x50, Bytes(2), 4), (Bytes{0xA5, 0xFF, 0x00, 0xA5}));
       }},
      {"", [](auto& m) { EXPECT_FALSE(m.send(0x51, Bytes(2, 0xEE))); }},
      {"", [](auto& m) { EXPECT_FALSE(m.send(0x50, {0xEE})); }},
      {"slave_start_in_byte", [&](auto& m) { m.start(), bits(m, 3), m.restart(), m.write(0xA0), m.stop(); }},
      {"slave_stop_in_byte", [&](auto& m) { m.start(), bits(m, 1), m.stop(); }},
      {"slave_stop_in_byte", [&](auto& m) { m.start(), bits(m, 8), m.stop(); }},
      {"slave_empty_transfer", [](auto& m) { m.start(), m.stop(); }},
      {"slave_write_after_nack", [](auto& m) { m.send(0x50, Bytes(2, 0xEE)); }},
      {"slave_read_after_nack", [](auto& m) { m.begin(0xA1), m.read(false), m.read(false), m.stop(); }},
      {"slave_read_ended_without_nack", [](auto& m) { m.begin(0xA1), m.read(true), m.stop(); }},
      {"slave_data_held_low_while_sending", [](auto& m) { m.begin(0xA1), m.write(0x25), m.stop(); }},
      {"slave_clock_low_short", [](auto& m) { --m.low, m.send(0x50, {1}); }},
      {"slave_clock_high_short", [](auto& m) { --m.high, m.send(0x50, {1}); }},
      {"slave_data_setup_short", [](auto& m) { --m.dataSetup, m.send(0x50, {1}); }},
      {"slave_start_setup_short", [](auto& m) { --m.startSetup, m.fetch(0x50, {1}, 1); }},
      {"slave_start_hold_short", [](auto& m) { --m.startHold, m.send(0x50, {1}); }},
      {"slave_stop_setup_short", [](auto& m) { --m.stopSetup, m.send(0x50, {1}); }},
      {"slave_bus_free_short", [](auto& m) { --m.busFree, m.send(0x50, {1}), m.send(0x50, {1}); }},
  };
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    SCOPED_TRACE(testing::Message() << "row " << i);
    headend::Violations violations;
    Recorder slave(violations);
    I2cLines master(&slave, i % 2 == 0);
    rows[i].acts(master);
    EXPECT_EQ(kinds(violations), rows[i].kinds);
  }
}

TEST(OpenDrainBus, EachFaultIsSeenByMasterAndSlave) {
  struct Row {
    Fault fault;
    bool waits, acknowledged;
    bool clock, data;  // what the master sees when it lets both lines go
    Bytes taken;
  };
  const Row rows[] = {
      {Fault::kAbsent, false, false, true, true, {}},
      {Fault::kNoAcknowledge, false, false, true, true, {}},
      {Fault::kClockLow, false, false, false, true, {}},
      {Fault::kClockHigh, false, false, true, true, {}},
      {Fault::kDataLow, false, true, true, false, {}},
      {Fault::kDataHigh, false, false, true, true, {}},
      {Fault::kStretch, false, false, true, true, {}},
      {Fault::kStretch, true, true, true, true, {0x12, 0x34}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "row " << &row - rows);
    headend::Violations violations;
    Recorder slave(violations);
    I2cLines master(&slave);
    master.waits = row.waits;
    master.bus.inject(row.fault, master.now);
    EXPECT_EQ(master.send(0x50, {0x12, 0x34}), row.acknowledged);
    master.now += 1'000'000;
    EXPECT_EQ(master.bus.clock(master.now), row.clock);
    EXPECT_EQ(master.bus.data(master.now), row.data);
    EXPECT_EQ(slave.bytes, row.taken);
    master.begin(0xA1);
    EXPECT_EQ(master.bus.clock(master.now), row.fault == Fault::kClockHigh);
    if (!row.waits) continue;
    master.bus.driveClock(true, master.now + 1300);
    EXPECT_FALSE(master.bus.clock(master.now + 99'999));
    master.bus.driveClock(false, master.now + 100'600);  // unseen, the clock has been high since 100'000
    EXPECT_EQ(kinds(violations), "");
  }
}

struct Clock {
  headend::Violations violations;
  headend::ClockGenerator part;
  I2cLines master{&part};

  explicit Clock(double input_hz = 55e6) : part(input_hz, violations) {}
  void write(u8 index, u8 value) { master.send(0x64, {static_cast<u8>(0x80 | index), value}); }
  headend::ClockGenerator::Output settled() { return part.y3(master.now + 5'000'000); }
};

// At 55 MHz: N 16, M 5, P 3, so Q = 128 / 5 = 25 and R = 3: 176 MHz. At 27 MHz, the data sheet's examples.
TEST(ClockGenerator, Y3FollowsFromTheRegisters) {
  using Registers = std::vector<std::pair<u8, u8>>;
  const Registers run = {{0x14, 0x6D}, {0x17, 0x04}, {0x18, 0x01}, {0x19, 0x00}, {0x1A, 0x1B}, {0x1B, 0x2F}};
  struct Row {
    const char* name;
    Registers registers;  // after those of `run`
    double MHz;           // 0: none
    const char* why;
    bool s0 = true;
    double input_MHz = 55;
  };
  const Row rows[] = {
      {"hand-made", {}, 44, ""},
      {"N 4, M 1", {{0x17, 2}, {0x18, 0}, {0x19, 0x40}, {0x1A, 2}, {0x1B, 8}}, 54, "", true, 27},
      {"N 11, M 2", {{0x17, 2}, {0x18, 0}, {0x19, 0xB0}, {0x1A, 2}, {0x1B, 0xC9}}, 74.25, "", true, 27},
      {"N 355, M 100, R 40", {{0x17, 5}, {0x18, 0x16}, {0x19, 0x31}, {0x1A, 0x43}, {0x1B, 0x8F}}, 39.05, ""},
      {"set 1", {{0x13, 2}, {0x1C, 0x16}, {0x1D, 0x31}, {0x1E, 0x43}, {0x1F, 0x8F}}, 48.8125, ""},
      {"Pdiv1 from the PLL", {{0x02, 0xB5}, {0x03, 0x60}, {0x14, 0x4D}}, 0.5, ""},
      {"Pdiv1 from the input", {{0x02, 0x34}, {0x03, 5}, {0x14, 0x4D}}, 11, ""},
      {"Pdiv2", {{0x16, 0x80 | 22}, {0x14, 0x5D}}, 8, ""},
      {"no divider", {{0x14, 0x7D}}, 0, "multiplexer"},
      {"bypass", {{0x14, 0xED}}, 13.75, ""},
      {"divider 0", {{0x17, 0}}, 0, "Pdiv3 is 0"},
      {"M not whole", {{0x1A, 0x23}}, 0, "not whole: (128 - 4) / 25"},
      {"range bits", {{0x1B, 0x2E}}, 0, "VCO at 176.0 MHz, outside of the range that its bits 10 name"},
      {"fast", {{0x18, 6}, {0x19, 0x40}, {0x1A, 5}, {0x1B, 0x0F}}, 0, "VCO at 275.0 MHz, outside of 80"},
      {"slow: M 12, P 4", {{0x1A, 0x22}, {0x1B, 0xB0}}, 0, "VCO at 73.3 MHz, outside of 80"},
      {"R not less than M", {{0x1A, 0x43}, {0x1B, 0x0F}}, 0, "R of PLL1 is 8"},
      {"Q too small", {{0x1A, 0x19}}, 0, "Q of PLL1 is 9"},
      {"state 1 off", {{0x14, 0x6B}}, 0, "disabled"},
      {"S0 low, state 0 off", {}, 0, "disabled", false},
      {"S0 low, state 0 on", {{0x14, 0x67}}, 44, "", false},
      {"S0 low, told state 1", {{0x15, 0x01}}, 44, "", false},
      {"powered down", {{0x01, 0x10}}, 0, "powered down"},
      {"powered down by Y1's state", {{0x02, 0x84}}, 0, "powered down"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Clock clock(row.input_MHz * 1e6);
    clock.part.selectS0(row.s0, clock.master.now);
    for (const auto& [index, value] : run) clock.write(index, value);
    for (const auto& [index, value] : row.registers) clock.write(index, value);
    const auto output = clock.settled();
    EXPECT_NEAR(output.hz.value_or(0), row.MHz * 1e6, 1e-3);
    EXPECT_NE(output.why.find(row.why), std::string::npos) << output.why;
    EXPECT_EQ(output.why.empty(), output.hz.has_value());
    EXPECT_EQ(kinds(clock.violations), "");
  }
}

TEST(ClockGenerator, SettlesForFiveMilliseconds) {
  Clock clock;
  EXPECT_EQ(clock.part.y3(0).hz, 55e6);  // the power-up values
  const auto settles = [&] {
    const Nanos now = clock.master.now;
    const bool unsettled = !clock.part.y3(now + 4'900'000).hz;
    return clock.part.y3(now + 5'000'000).hz.has_value() && unsettled;
  };
  const auto pause = [&] { clock.master.now += 6'000'000; };
  clock.write(0x14, 0xED);  // what it was, but a write
  EXPECT_TRUE(settles());
  pause(), clock.write(0x1B, 0x0B);
  EXPECT_TRUE(settles());
  pause(), clock.write(0x16, 1), pause(), clock.write(0x10, 0);
  EXPECT_FALSE(settles());  // not of the PLL
  clock.write(0x14, 0x6C), pause();
  EXPECT_EQ(clock.part.y3(clock.master.now).hz, 220e6);
  clock.write(0x01, 0x10), clock.write(0x01, 0x00);
  EXPECT_TRUE(settles());
  pause(), clock.part.selectS0(false, clock.master.now);  // state 0 powers the PLL down
  clock.part.selectS0(true, clock.master.now);
  EXPECT_TRUE(settles());
}

TEST(ClockGenerator, ByteAndBlockAccess) {
  Clock clock;
  I2cLines& master = clock.master;
  EXPECT_EQ(master.fetch(0x64, {0x94}, 1), Bytes{0xED});
  const Bytes all = master.fetch(0x64, {0x00}, 49);
  EXPECT_EQ(all[0], 48);
  for (u8 i = 0; i < 48; ++i) EXPECT_EQ(all[1U + i], clock.part.reg(i)) << int{i};
  EXPECT_TRUE(master.send(0x64, {0x16, 2, 0x07, 0x09}));
  EXPECT_EQ(clock.part.reg(0x16) << 8 | clock.part.reg(0x17), 0x0709);
  clock.write(0x01, 0x01);  // another address
  EXPECT_FALSE(master.send(0x64, {0x81, 0}));
  EXPECT_TRUE(master.send(0x65, {0x81, 0}));
  EXPECT_EQ(kinds(clock.violations), "");
  clock.write(0x00, 0);
  EXPECT_EQ(clock.part.reg(0), 0x81);
  clock.write(0x02, 0xF4);  // the bus's lines become control pins
  EXPECT_FALSE(master.send(0x64, {0x81, 0}));
  EXPECT_EQ(kinds(clock.violations), "clock_generator_bus_given_up clock_generator_write_to_read_only");
}

struct Sensor {
  headend::Violations violations;
  headend::TemperatureSensor part{0x4A, "sensor", violations};
  I2cLines master{&part};

  int temperature() {
    const Bytes bytes = master.fetch(0x4A, {0}, 2);
    return bytes[0] << 8 | bytes[1];
  }
  void pass(Nanos time) { master.now += time; }
};

TEST(TemperatureSensor, ReportsTenBitsAndFlags) {
  const std::pair<double, int> rows[] = {{25, 0x1900},     {-5, 0xFB00},    {0.25, 0x0040}, {-0.3, 0xFFC0},
                                         {30, 0x1E00},     {30.25, 0x1E70}, {127, 0x7F30},  {-10, 0xF600},
                                         {-10.25, 0xF5E8}, {-60, 0xC928}};
  for (const auto& [celsius, value] : rows) {  // the limits: 30 and -10 degrees
    Sensor sensor;
    EXPECT_TRUE(sensor.master.send(0x4A, {2, 30}) && sensor.master.send(0x4A, {3, 0xF6}));
    sensor.part.temperature(celsius, sensor.master.now);
    sensor.pass(headend::kSecond);
    EXPECT_EQ(sensor.temperature(), value) << celsius;
    EXPECT_EQ(kinds(sensor.violations), "");
  }
}

TEST(TemperatureSensor, ConvertsEvery800MillisecondsOrOnDemand) {
  Sensor sensor;
  EXPECT_EQ(sensor.master.fetch(0x4A, {1}, 1), Bytes{0x40});
  sensor.part.temperature(30, sensor.master.now);
  sensor.pass(599'000'000);
  EXPECT_EQ(sensor.temperature(), 0x1900);  // conversions end at 0.8 s and 1.6 s
  sensor.pass(2'000'000);
  EXPECT_EQ(sensor.temperature(), 0x1E00);

  sensor.master.send(0x4A, {1, 0xC0});
  sensor.part.temperature(-5, sensor.master.now);
  sensor.pass(2 * headend::kSecond);
  EXPECT_EQ(sensor.temperature(), 0x1E00);  // powered down
  sensor.master.send(0x4A, {1, 0xC4});
  EXPECT_EQ(sensor.temperature(), 0x1E00);  // the conversion ended in this transfer, and is lost
  sensor.master.send(0x4A, {1, 0xC4});
  const Nanos done = sensor.master.now - sensor.master.busFree + 29'000;  // 4 us to wake up, 25 to convert
  sensor.part.temperature(40, done - 1);
  sensor.part.temperature(50, done);
  sensor.pass(29'000);
  EXPECT_EQ(sensor.temperature(), 0x2800);
  EXPECT_EQ(sensor.master.fetch(0x4A, {1}, 1), Bytes{0xC0});

  sensor.part.temperature(10, sensor.master.now);
  sensor.master.send(0x4A, {1, 0x40});
  sensor.pass(30'000);
  EXPECT_EQ(sensor.temperature(), 0x0A00);
  EXPECT_EQ(kinds(sensor.violations), "");
}

TEST(I2cDevices, TellAccessesThatTheyDoNotHave) {
  struct Row {
    const char* kinds;
    Bytes sent;
    int fetched = 0;
  };
  const auto check = [](auto&& device, u8 address, const Row& row) {
    row.fetched != 0 ? void(device.master.fetch(address, row.sent, row.fetched))
                     : void(device.master.send(address, row.sent));
    EXPECT_EQ(kinds(device.violations), row.kinds);
  };
  const Row clockRows[] = {
      {"clock_generator_no_such_register", {0xB0, 0}},
      {"clock_generator_no_such_register", {0xB0}, 1},
      {"clock_generator_reserved_bits", {0x89, 1}},
      {"clock_generator_eeprom_write_under_clock", {0x86, 0x61}},
      {"clock_generator_write_past_end", {0x96, 1, 2}},
      {"clock_generator_read_past_end", {0x96}, 2},
      {"clock_generator_block_read_unfinished", {0x00}, 48},
      {"clock_generator_read_without_command", {}, 1},
  };
  const Row sensorRows[] = {
      {"sensor_no_such_register", {4}},     {"sensor_write_to_read_only", {0, 1}},
      {"sensor_write_past_end", {2, 1, 1}}, {"sensor_test_mode", {1, 0x41}},
      {"sensor_read_past_end", {0}, 3},     {"sensor_read_past_end", {3}, 2},
  };
  for (const Row& row : clockRows) check(Clock(), 0x64, row);
  for (const Row& row : sensorRows) check(Sensor(), 0x4A, row);
}

}  // namespace
}  // namespace test
