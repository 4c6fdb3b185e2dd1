// What a driver can do wrong, and what the device counts; an empty text where nothing is wrong.
#include <gtest/gtest.h>

#include "headend/hardware/clock_generator.h"
#include "headend/hardware/synthesizer.h"
#include "headend/hardware/temperature_sensor.h"
#include "tests/headend/hardware/drivers.h"

namespace test {
namespace {

template <typename Lines>
struct Row {
  const char* counted;
  void (*drive)(Lines&);
};

template <typename Part, std::size_t count, typename Lines, typename... Arguments>
void check(const Row<Lines> (&rows)[count], const Arguments&... arguments) {
  for (const Row<Lines>& row : rows) {
    Violations violations;
    Part part(arguments..., violations);
    Lines lines{part};
    row.drive(lines);
    EXPECT_EQ(kinds(violations), row.counted) << "row " << &row - rows;
  }
}

const Bytes kFourSent = {0xA5, 0xFF, 0x00, 0xA5};

TEST(DriverFaults, OnI2c) {
  const Row<I2cLines> rows[] = {
      {"", [](auto& m) { EXPECT_EQ(m.fetch(0x50, 4, 1, 2), kFourSent); }},
      {"", [](auto& m) { EXPECT_FALSE(m.send(0x51, 0xEE, 0xEE)); }},
      {"", [](auto& m) { EXPECT_FALSE(m.send(0x50, 0xEE)); }},
      {"slave_start_in_byte", [](auto& m) { m.start(), m.bits(3), m.prepareRestart(), m.send(0x50); }},
      {"slave_stop_in_byte", [](auto& m) { m.start(), m.bits(1), m.stop(); }},
      {"slave_stop_in_byte", [](auto& m) { m.start(), m.bits(8), m.stop(); }},
      {"slave_empty_transfer", [](auto& m) { m.start(), m.stop(); }},
      {"slave_write_after_nack", [](auto& m) { m.send(0x50, 0xEE, 0xEE); }},
      {"slave_read_after_nack", [](auto& m) { m.begin(0x50, true), m.read(false), m.read(false), m.stop(); }},
      {"slave_read_ended_without_nack", [](auto& m) { m.begin(0x50, true), m.read(true), m.stop(); }},
      {"slave_data_held_low_while_sending", [](auto& m) { m.begin(0x50, true), m.write(0x25), m.stop(); }},
      {"slave_clock_low_short", [](auto& m) { --m.low, m.send(0x50, 1); }},
      {"slave_clock_high_short", [](auto& m) { --m.high, m.send(0x50, 1); }},
      {"slave_data_setup_short", [](auto& m) { --m.dataSetup, m.send(0x50, 1); }},
      {"slave_start_setup_short", [](auto& m) { --m.startSetup, m.fetch(0x50, 1, 1); }},
      {"slave_start_hold_short", [](auto& m) { --m.startHold, m.send(0x50, 1); }},
      {"slave_stop_setup_short", [](auto& m) { --m.stopSetup, m.send(0x50, 1); }},
      {"slave_bus_free_short", [](auto& m) { --m.busFree, m.send(0x50, 1), m.send(0x50, 1); }},
  };
  check<Slave>(rows);
}

TEST(DriverFaults, AtTheClockGenerator) {
  constexpr u8 kByteAccess = 0x80;
  const Row<I2cLines> rows[] = {
      {"clock_generator_no_such_register", [](auto& m) { m.send(0x64, kByteAccess | 0x30, 0); }},
      {"clock_generator_no_such_register", [](auto& m) { m.fetch(0x64, 1, kByteAccess | 0x30); }},
      {"clock_generator_write_to_read_only", [](auto& m) { m.send(0x64, kByteAccess | 0x00, 0); }},
      {"clock_generator_reserved_bits", [](auto& m) { m.send(0x64, kByteAccess | 0x09, 1); }},
      {"clock_generator_reserved_bits", [](auto& m) { m.send(0x64, kByteAccess | 0x05, 1); }},
      {"clock_generator_eeprom_write_under_clock", [](auto& m) { m.send(0x64, kByteAccess | 0x06, 0x61); }},
      {"clock_generator_bus_given_up", [](auto& m) { m.send(0x64, kByteAccess | 0x02, 0xF4); }},
      {"clock_generator_write_past_end", [](auto& m) { m.send(0x64, kByteAccess | 0x16, 1, 2); }},
      {"clock_generator_read_past_end", [](auto& m) { m.fetch(0x64, 2, kByteAccess | 0x16); }},
      {"clock_generator_block_read_unfinished", [](auto& m) { m.fetch(0x64, 48, 0x00); }},
      {"clock_generator_read_without_command", [](auto& m) { m.fetch(0x64, 1); }},
  };
  check<headend::ClockGenerator>(rows, 55e6);
}

TEST(DriverFaults, AtTheTemperatureSensor) {
  const Row<I2cLines> rows[] = {
      {"sensor_no_such_register", [](auto& m) { m.send(0x4A, 4); }},
      {"sensor_write_to_read_only", [](auto& m) { m.send(0x4A, 0, 1); }},
      {"sensor_write_past_end", [](auto& m) { m.send(0x4A, 2, 1, 1); }},
      {"sensor_test_mode", [](auto& m) { m.send(0x4A, 1, 0x41); }},
      {"sensor_read_past_end", [](auto& m) { m.fetch(0x4A, 3, 0); }},
      {"sensor_read_past_end", [](auto& m) { m.fetch(0x4A, 2, 3); }},
  };
  check<headend::TemperatureSensor>(rows, u8{0x4A}, "sensor");
}

TEST(DriverFaults, OnThreeLines) {
  constexpr u32 kReference = 0x0000D0, kTestMode = 0x040000;  // words
  const Row<ThreeLines<headend::Synthesizer>> rows[] = {
      {"", [](auto& l) { l.send(kReference), l.send(kReference); }},
      {"lo_data_setup_short", [](auto& l) { --l.setup, l.send(kReference); }},
      {"lo_data_hold_short", [](auto& l) { --l.hold, l.send(kReference); }},
      {"lo_clock_high_short", [](auto& l) { --l.high, l.send(kReference); }},
      {"lo_clock_low_short", [](auto& l) { --l.low, l.send(kReference); }},
      {"lo_latch_setup_short", [](auto& l) { --l.toLatch, l.send(kReference); }},
      {"lo_latch_short", [](auto& l) { --l.width, l.send(kReference); }},
      {"lo_wrong_number_of_clocks", [](auto& l) { l.send(kReference, 23); }},
      {"lo_wrong_number_of_clocks", [](auto& l) { l.send(kReference, 25); }},
      {"lo_test_mode", [](auto& l) { l.send(kTestMode); }},
      {"lo_clock_under_latch lo_wrong_number_of_clocks",
       [](auto& l) { l.part.latchEnable(true, 0), l.part.clock(true, 100); }},
  };
  check<headend::Synthesizer>(rows, "lo", 13e6, true);
}

TEST(DriverFaults, AtTheConverter) {
  constexpr unsigned kRead = 0x80, kTwoBytes = 0x20, kFourBytes = 0x60;  // of its instruction
  const Row<DacLines> rows[] = {
      {"", [](auto& d) { d.frame(kFourBytes | 11, 1, 2, 3, 4), d.returns(4, kRead | kTwoBytes | 9, 0, 0); }},
      {"", [](auto& d) { d.frame(12, 0x1B), d.returns(0x1B, kRead | kTwoBytes | 13, 0, 0); }},
      {"", [](auto& d) { d.frame(5, 0x3C), d.bytes(5, 0x77), d.holds(5, 0x3C); }},
      {"", [](auto& d) { d.frame(1, 0x3C), d.reset(), d.holds(1, 4); }},
      {"dac_frame_cut_short", [](auto& d) { d.begin(), d.bit(true), d.frame(5, 0x3C), d.holds(5, 0x3C); }},
      {"dac_frame_cut_short", [](auto& d) { d.frame(5); }},
      {"dac_frame_cut_short", [](auto& d) { d.begin(), d.bytes(5), d.bit(true), d.frame(kRead | 5, 0); }},
      {"dac_frame_cut_short", [](auto& d) { d.frame(kTwoBytes | 5, 0x3C), d.holds(5, 0x3C); }},
      {"dac_second_instruction", [](auto& d) { d.frame(4, 0x11, 5, 0x22), d.holds(5, 0x22); }},
      {"dac_reset_in_frame", [](auto& d) { d.begin(), d.bytes(5), d.reset(), d.bytes(5, 9), d.holds(5, 9); }},
      {"dac_clock_in_reset", [](auto& d) { d.part.reset(true, d.now), d.frame(5, 0x3C), d.holds(5, 0); }},
      {"dac_reset_short", [](auto& d) { --d.width, d.reset(); }},
      {"dac_no_such_register", [](auto& d) { d.frame(13, 1); }},
      {"dac_no_such_register", [](auto& d) { d.frame(kRead | kTwoBytes | 0, 0, 0); }},
      {"dac_data_setup_short", [](auto& d) { d.begin(), d.bytes(5), d.shortenSetup(), d.bytes(0x3C); }},
      {"", [](auto& d) { d.begin(), d.bytes(kRead | 5), d.shortenSetup(), d.bytes(0x3C); }},
      {"dac_select_setup_short", [](auto& d) { --d.select, d.frame(kRead, 0); }},
      {"dac_clock_high_short dac_clock_period_short", [](auto& d) { --d.high, d.frame(kRead, 0); }},
      {"dac_clock_period_short", [](auto& d) { --d.low, d.frame(kRead, 0); }},
      {"dac_clock_low_short dac_clock_period_short", [](auto& d) { d.low -= 8, d.frame(kRead, 0); }},
  };
  check<headend::Dac>(rows, "dac");
}

}  // namespace
}  // namespace test
