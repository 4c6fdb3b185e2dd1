// What a driver can do wrong, and what the device counts; an empty text where nothing is wrong.
#include <gtest/gtest.h>

#include "headend/hardware/ad7414.h"
#include "headend/hardware/adf4113.h"
#include "headend/hardware/at24c16.h"
#include "headend/hardware/cdce925.h"
#include "headend/hardware/three_wire.h"
#include "tests/headend/hardware/drivers.h"

namespace test {
namespace {

template <typename Lines>
struct Row {
  const char* counted;
  void (*drive)(Lines&);
  const char* name = "";  // if the count does not give it
};

template <typename Part, std::size_t count, typename Lines, typename... Arguments>
void check(const Row<Lines> (&rows)[count], const Arguments&... arguments) {
  for (const Row<Lines>& row : rows) {
    SCOPED_TRACE(testing::Message() << row.counted << ' ' << row.name);
    Violations violations;
    Part part(arguments..., violations);
    Lines lines{part};
    row.drive(lines);
    EXPECT_EQ(kinds(violations), row.counted);
  }
}

// The rules of the bus, at any slave, and those of the sensor.
TEST(DriverFaults, OnI2cAtTheTemperatureSensor) {
  const Row<I2cLines> rows[] = {
      {"", [](auto& m) { expect(m.fetch(0x4A, 2, 0)[0] == 0x19); }, "a read"},
      {"", [](auto& m) { expect(!m.send(0x51, 0, 1, 1)); }, "others are meant"},
      {"sensor_start_in_byte", [](auto& m) { m.start(), m.bit(true), m.prepareRestart(), m.send(0x4A); }},
      {"sensor_stop_in_byte", [](auto& m) { m.start(), m.bit(true), m.stop(); }},
      {"sensor_empty_transfer", [](auto& m) { m.start(), m.stop(); }},
      {"sensor_read_after_nack", [](auto& m) { m.begin(0x4A, true), m.read(false), m.read(false); }},
      {"sensor_read_ended_without_nack sensor_read_past_end",
       [](auto& m) { m.begin(0x4A, true), m.read(true), m.read(true), m.stop(); }},
      {"sensor_data_held_low_while_sending", [](auto& m) { m.begin(0x4A, true), m.write(0x11), m.stop(); }},
      {"sensor_clock_low_short", [](auto& m) { --m.low, m.send(0x4A, 1); }},
      {"sensor_clock_high_short", [](auto& m) { --m.high, m.send(0x4A, 1); }},
      {"sensor_data_setup_short", [](auto& m) { --m.dataSetup, m.send(0x4A, 1); }},
      {"sensor_start_setup_short", [](auto& m) { --m.startSetup, m.fetch(0x4A, 1, 1); }},
      {"sensor_start_hold_short", [](auto& m) { --m.startHold, m.send(0x4A, 1); }},
      {"sensor_stop_setup_short", [](auto& m) { --m.stopSetup, m.send(0x4A, 1); }},
      {"sensor_bus_free_short", [](auto& m) { --m.busFree, m.send(0x4A, 1), m.send(0x4A, 1); }},
      {"sensor_no_such_register", [](auto& m) { m.send(0x4A, 4); }},
      {"sensor_write_to_read_only", [](auto& m) { expect(!m.send(0x4A, 0, 1)); }},
      {"sensor_write_after_nack sensor_write_to_read_only", [](auto& m) { m.send(0x4A, 0, 1, 1); }},
      {"sensor_write_past_end", [](auto& m) { m.send(0x4A, 2, 1, 1); }},
      {"sensor_test_mode", [](auto& m) { m.send(0x4A, 1, 0x41); }},
      {"sensor_read_past_end", [](auto& m) { m.fetch(0x4A, 3, 0); }, "of the temperature"},
      {"sensor_read_past_end", [](auto& m) { m.fetch(0x4A, 2, 3); }, "of a byte"},
  };
  check<headend::TemperatureSensor>(rows, u8{0x4A}, "sensor");
}

TEST(DriverFaults, AtTheClockGenerator) {
  static constexpr u8 kByte = 0x80;  // access to a byte, not a block
  const Row<I2cLines> rows[] = {
      {"", [](auto& m) { m.send(0x64, kByte | 1, 1), expect(!m.send(0x64) && m.send(0x65, 0)); }, "moved"},
      {"", [](auto& m) { expect(m.fetch(0x64, 49, 0x00)[0x15] == 0xED); }, "a block is read"},
      {"", [](auto& m) { expect(m.send(0x64, 0x16, 2, 7, 9) && m.fetch(0x64, 1, kByte | 0x17)[0] == 9); },
       "block"},
      {"clock_generator_no_such_register", [](auto& m) { m.send(0x64, kByte | 0x30, 0); }, "written"},
      {"clock_generator_no_such_register", [](auto& m) { m.fetch(0x64, 1, kByte | 0x30); }, "read"},
      {"clock_generator_write_to_read_only",
       [](auto& m) { m.send(0x64, kByte, 0), expect(m.fetch(0x64, 1, kByte) == Bytes{0x81}); }},
      {"clock_generator_reserved_bits", [](auto& m) { m.send(0x64, kByte | 0x09, 1); }, "a whole register"},
      {"clock_generator_reserved_bits", [](auto& m) { m.send(0x64, kByte | 0x05, 1); }, "low bits"},
      {"clock_generator_eeprom_write_under_clock", [](auto& m) { m.send(0x64, kByte | 0x06, 0x61); }},
      {"clock_generator_bus_given_up",
       [](auto& m) { m.send(0x64, kByte | 0x02, 0xF4), expect(!m.send(0x64, kByte | 1)); }},
      {"clock_generator_write_past_end", [](auto& m) { m.send(0x64, kByte | 0x16, 1, 2); }},
      {"clock_generator_read_past_end", [](auto& m) { m.fetch(0x64, 2, kByte | 0x16); }},
      {"clock_generator_block_read_unfinished", [](auto& m) { m.fetch(0x64, 48, 0x00); }},
      {"clock_generator_read_without_command", [](auto& m) { m.fetch(0x64, 1); }},
  };
  check<headend::ClockGenerator>(rows, 55e6);
}

// An EEPROM in which each byte depends on its place.
u8 old(unsigned place) {
  return static_cast<u8>(place * 7 + place / 256 * 31);
}
struct Memory {
  headend::Eeprom part;
  explicit Memory(Violations& violations) : part(violations, 1) {
    headend::Eeprom::Image image;
    for (unsigned i = 0; i < image.size(); ++i) image[i] = old(i);
    part.load(image);
  }
  // NOLINTNEXTLINE(google-explicit-constructor): a driver takes it for its part
  operator headend::I2cSlave&() { return part; }
};
void writeHalf(I2cLines& m) {
  m.begin(0x53), m.write(0x45), m.write(1);
}
void finds(I2cLines& m, unsigned place, u8 value) {
  EXPECT_EQ(m.fetch(0x50 | place >> 8, 1, place)[0], value);
}

TEST(DriverFaults, AtTheEeprom) {
  static constexpr Nanos kReady = 5'000'000 - 1'300 - 15'800;  // except the bus, and the time of an address
  const Row<I2cLines> rows[] = {
      {"", [](auto& m) { expect(!m.send(0x48)); }, "another device"},
      {"", [](auto& m) { expect(m.fetch(0x51, 1)[0] == old(0x100)); }, "at power-up"},
      {"", [](auto& m) { expect(m.fetch(0x57, 2, 0xFF)[1] == old(0)); }, "over the end"},
      {"eeprom_read_in_another_block",
       [](auto& m) { m.fetch(0x51, 1), expect(m.fetch(0x52, 1)[0] == old(0x201)); }},
      {"", [](auto& m) { m.send(0x53, 0x45), expect(m.send(0x53)); }, "nothing to write"},
      {"", [](auto& m) { m.send(0x53, 0x45, 1), m.now += kReady - 1, expect(!m.send(0x53)); }, "busy"},
      {"", [](auto& m) { m.send(0x53, 0x45, 1), m.now += kReady, finds(m, 0x345, 1); }, "written in time"},
      {"", [](auto& m) { m.send(0x57, 0xF0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16); }},
      {"eeprom_page_wrapped",
       [](auto& m) { m.send(0x50, 0xFE, 1, 2, 3), m.now += kReady, finds(m, 0xF0, 3); }},
      {"eeprom_write_abandoned",
       [](auto& m) { writeHalf(m), m.prepareRestart(), finds(m, 0x345, old(0x345)); }},
      {"eeprom_stop_in_byte",
       [](auto& m) { writeHalf(m), m.bit(true), m.stop(), finds(m, 0x345, old(0x345)); }},
  };
  check<Memory>(rows);
}

TEST(DriverFaults, OnThreeLines) {
  static constexpr u32 kReference = 0x0000D0, kTestMode = 0x040000;  // words
  const Row<ThreeLines<headend::Synthesizer>> rows[] = {
      {"", [](auto& l) { l.send(kReference), l.send(kReference); }, "the least times"},
      {"lo_data_setup_short", [](auto& l) { --l.setup, l.send(kReference); }},
      {"lo_data_hold_short", [](auto& l) { --l.hold, l.send(kReference); }},
      {"lo_clock_high_short", [](auto& l) { --l.high, l.send(kReference); }},
      {"lo_clock_low_short", [](auto& l) { --l.low, l.send(kReference); }},
      {"lo_latch_setup_short", [](auto& l) { --l.toLatch, l.send(kReference); }},
      {"lo_latch_short", [](auto& l) { --l.width, l.send(kReference); }},
      {"lo_wrong_number_of_clocks", [](auto& l) { l.send(kReference, 23); }},
      {"lo_test_mode", [](auto& l) { l.send(kTestMode); }},
      {"lo_clock_under_latch lo_wrong_number_of_clocks",
       [](auto& l) { l.part.latchEnable(true, 0), l.part.clock(true, 100); }},
  };
  check<headend::Synthesizer>(rows, "lo", 13e6, true);
  const Row<ThreeLines<headend::Attenuator>> ofTheAttenuator[] = {
      {"attenuator_wrong_number_of_clocks",
       [](auto& l) { l.high = l.low = l.width = 30, l.send(0b1110011, 7), expect(l.part.dB() == 25.5); }}};
  check<headend::Attenuator>(ofTheAttenuator, "attenuator");
}

TEST(DriverFaults, AtTheConverter) {
  static constexpr u8 kRead = 0x80, kTwoBytes = 0x20, kFourBytes = 0x60;  // of its instruction
  const Row<DacLines> rows[] = {
      {"", [](auto& d) { d.frame(kFourBytes | 11, 1, 2, 3, 4), d.holds(11, 1), d.holds(8, 4); }, "down"},
      {"", [](auto& d) { d.frame(8, 4), expect(d.frame(kRead | kTwoBytes | 9, 0, 0) == 4); }, "read"},
      {"", [](auto& d) { d.frame(12, 0x1B), expect(d.frame(kRead | kTwoBytes | 13, 0, 0) == 0x1B); }},
      {"", [](auto& d) { expect(d.frame(5, 0x3C) == 0), d.bytes(5, 0x77), d.holds(5, 0x3C); }, "deselected"},
      {"", [](auto& d) { d.frame(1, 0x3C), d.reset(), d.holds(1, 4); }, "reset"},
      {"", [](auto& d) { d.frame(0, 0x1F), expect(!d.part.portAtRisk()); }},
      {"", [](auto& d) { d.frame(0, 0x20), expect(d.part.portAtRisk()); }},
      {"dac_frame_cut_short", [](auto& d) { d.begin(), d.bit(true), d.frame(5, 0x3C), d.holds(5, 0x3C); }},
      {"dac_frame_cut_short", [](auto& d) { d.frame(kTwoBytes | 5, 0x3C), d.holds(5, 0x3C); }, "half"},
      {"dac_second_instruction", [](auto& d) { d.frame(4, 0x11, 5, 0x22), d.holds(5, 0x22); }},
      {"dac_reset_in_frame", [](auto& d) { d.begin(), d.bytes(5), d.reset(), d.bytes(5, 9), d.holds(5, 9); }},
      {"dac_clock_in_reset", [](auto& d) { d.part.reset(true, d.now), d.frame(5, 0x3C), d.holds(5, 0); }},
      {"dac_reset_short", [](auto& d) { --d.width, d.reset(); }},
      {"dac_no_such_register", [](auto& d) { d.frame(13, 1); }, "written"},
      {"dac_no_such_register", [](auto& d) { d.frame(kRead | kTwoBytes | 0, 0, 0); }, "read"},
      {"dac_data_setup_short", [](auto& d) { d.begin(), d.bytes(5), --d.setup, ++d.now, d.bytes(0x3C); }},
      {"", [](auto& d) { d.begin(), d.bytes(kRead | 5), --d.setup, ++d.now, d.bytes(0x3C); }, "read"},
      {"dac_select_setup_short", [](auto& d) { --d.select, d.frame(kRead, 0); }},
      {"dac_clock_high_short dac_clock_period_short", [](auto& d) { --d.high, d.frame(kRead, 0); }},
      {"dac_clock_period_short", [](auto& d) { --d.low, d.frame(kRead, 0); }},
      {"dac_clock_low_short dac_clock_period_short", [](auto& d) { d.low -= 8, d.frame(kRead, 0); }},
  };
  check<headend::Dac>(rows, "dac");
}

}  // namespace
}  // namespace test
