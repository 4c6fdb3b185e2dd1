// What a driver can do wrong, and what finds it; an empty text where nothing is wrong. At a card, the card's
// own driver with a mistake; at a device, the rules that this driver keeps by far.
#include <gtest/gtest.h>

#include "card/QamFpga.h"
#include "card/qamVar.h"
#include "headend/hardware/ad7414.h"
#include "headend/hardware/adf4113.h"
#include "headend/hardware/at24c16.h"
#include "headend/hardware/cdce925.h"
#include "headend/hardware/three_wire.h"
#include "hw/Cdce925.h"
#include "hw/Qam_set.h"
#include "hw/X24cxx.h"
#include "hw/ad7414.h"
#include "hw/ad9775.h"
#include "hw/adf4113.h"
#include "tests/headend/hardware/drivers.h"
#include "tests/headend/headend_run.h"

namespace test {
namespace {

template <typename Lines>
struct Row {
  const char* found;  // violations, or the RF verdict; if it is right, nothing
  void (*drive)(Lines&);
  const char* name = "";                     // if `found` does not give it
  enum Models { kOld, kNew } models = kOld;  // kNew: those of revision 3cbcf61 did not find it
};

// ---- At a card ----

void work(int waits) {  // of 5 us
  for (; waits > 0; --waits) chassis::Delay5us();
}

// A card that its driver has started.
struct StartedCard : Driven {
  u8 slot = 0;
  std::string effect;  // that the models do not show

  Qam_fpga_if& window() { return *QamFpgaIf[slot]; }
  void setRate(u32 kBd) { expect(QamSetVar(slot, 0, kVarSymbolRate, kBd) == 0); }
  void clock(u8 index, u8 value) { CdceRegWrite(slot, index, value); }
  void pll(u32 n, u32 r, u32 q, u32 p, u32 range) {  // of PLL1, which the default rate does not use
    setRate(6250);
    const u32 word = n << 20 | r << 11 | q << 5 | p << 2 | range;
    for (u8 i = 0; i < 4; ++i) clock(0x18 + i, static_cast<u8>(word >> (24 - 8 * i)));
  }
  void latch(u32 synthesizer, u32 word) { latch_write(slot, synthesizer, word, 24); }
  void dac(u8 index, u8 value) { ad9775_reg_write(slot, index, &value, 1); }

  void writeTwice(int waits) {
    board().eeprom.writeCycle(kSecond / 100);
    for (const u8 address : {u8{0x40}, u8{0x50}}) i2c_wr(0xA0, address, Bytes(4).data(), 4, 0), work(waits);
    if (board().eeprom.image(now())[0x53] != 0) effect = "the second write is lost";
  }

  // What is seen once the output stage has its supply again: violations, why the output is off the air, and
  // the lock indication if all else is right.
  std::string seen() {
    if (!effect.empty()) return effect;
    window().power = 0;
    window().power = 15;
    headend().kernel.delay(2);
    const std::string why = card().rf(0, now()).why, counted = kinds(headend().violations);
    const std::string all = counted + (counted.empty() || why.empty() ? "" : "; ") + why;
    return all.empty() && window().plllock != 3 ? "plllock " + std::to_string(window().plllock) : all;
  }
};

// The other five of the driver's start-up writes are left out.
void startClockInThreeWrites(StartedCard& c) {
  c.board().clockGenerator.powerUp();
  c.clock(0x01, 0x08), c.clock(0x02, 0x14), c.clock(0x24, 0xE5);
  c.setRate(6250);
}

constexpr auto kNew = Row<StartedCard>::kNew;
const Row<StartedCard> kCardRows[] = {
    {"", [](auto&) {}, "the driver as it is"},
    // Clock generator. Writes without an effect are guarded by the order of all, in e2e/calibration.py.
    {"", [](auto& c) { c.setRate(6000); }, "R is 51"},
    {"", [](auto& c) { c.setRate(5750); }, "a VCO at 230 MHz"},
    {"clock_generator_input_not_as_clock", [](auto& c) { c.clock(0x01, 0x00); }, "0x01 as at power-up", kNew},
    {"clock_generator_y1_on", [](auto& c) { c.clock(0x02, 0xB4); }, "0x02 as at power-up", kNew},
    {"clock_generator_y4_y5_on", [](auto& c) { c.clock(0x24, 0xED); }, "0x24 as at power-up", kNew},
    {"", startClockInThreeWrites, "0x15 and 0x1C to 0x1F as at power-up"},
    {"", [](auto& c) { c.setRate(6250), c.clock(0x16, 1); }, "Pdiv2, which nothing uses"},
    {"clock_generator_input_not_as_clock", [](auto& c) { c.clock(0x01, 0x04); }, "a VCXO's crystal", kNew},
    {"clock_generator_eeprom_locked", [](auto& c) { c.clock(0x01, 0x28); }, "", kNew},
    {"clock_generator_y4_y5_on", [](auto& c) { c.clock(0x25, 0), c.clock(0x24, 0xE7); }, "in state 0", kNew},
    {"clock generator: the clock generator is powered", [](auto& c) { c.clock(0x01, 0x18); }},
    {"clock generator: Y3 is disabled", [](auto& c) { c.window().cdce925_s0 = 0; }},
    {"the clock gives 6875.000 kBd", [](auto&) { symbolrateinfpga(6250, 0); }, "without its row"},
    {"clock generator: the spread spectrum", [](auto& c) { c.setRate(6250), c.clock(0x12, 8); }, "", kNew},
    {"clock generator: R of PLL1 is 54", [](auto& c) { c.pll(180, 54, 21, 3, 2), c.clock(23, 3); }, "", kNew},
    {"clock generator: P of PLL1 is 4", [](auto& c) { c.pll(40, 2, 58, 4, 3); }, "", kNew},
    {"clock generator: P of PLL1 is 5", [](auto& c) { c.pll(16, 2, 51, 5, 3); }},
    {"clock generator: Q of PLL1 is 9", [](auto& c) { c.pll(16, 3, 9, 3, 3); }},
    {"clock generator: N of PLL1 is 0", [](auto& c) { c.pll(0, 0, 16, 4, 3); }},
    {"clock generator: M of PLL1 is not whole", [](auto& c) { c.pll(16, 4, 25, 3, 3); }},
    {"clock generator: R of PLL1 is 8, not less", [](auto& c) { c.pll(16, 8, 24, 3, 3); }},
    {"clock generator: VCO at 235.0 MHz", [](auto& c) { c.pll(47, 1, 17, 2, 3); }},
    {"clock generator: VCO at 73.3 MHz", [](auto& c) { c.pll(16, 4, 21, 4, 0); }},
    {"clock generator: VCO at 200.0 MHz", [](auto& c) { c.pll(40, 1, 29, 3, 2); }, "the range bits"},
    {"clock generator: Pdiv3 is 0", [](auto& c) { c.pll(40, 1, 29, 3, 3), c.clock(0x17, 0); }},
    {"clock generator: Y3's multiplexer", [](auto& c) { c.clock(0x14, 0x7D); }},
    // Synthesizers: function latches with a wrong field.
    {"", [](auto& c) { c.latch(0, 0xBF8092), c.latch(1, 0xBF8012); }, "PD2 alone"},
    {"plllock 2", [](auto& c) { c.latch(0, 0x9F80A2); }, "the N counter at MUXOUT", kNew},
    {"plllock 1", [](auto& c) { c.latch(1, 0x9F8072); }, "ground at MUXOUT", kNew},
    {"first oscillator: powered down", [](auto& c) { c.latch(0, 0x9F809A); }, "PD1"},
    {"second oscillator: powered down", [](auto& c) { c.latch(1, 0xBF801A); }, "PD1 and PD2"},
    {"first oscillator: not locked yet",
     [](auto& c) { c.board().firstOscillator.lockTime(kSecond), SetLO1Freq(0); }, "no wait", kNew},
    {"second oscillator: not locked yet",
     [](auto& c) { c.board().secondOscillator.lockTime(kSecond), SetFreq(0, 554000); }, "no wait", kNew},
    {"first oscillator: the charge pump", [](auto& c) { c.latch(0, 0x9F8192); }},
    {"second oscillator: the loop runs away", [](auto&) { set_pll(1, 2, 1, 1648000000, 0); }},
    {"second oscillator: the counters", [](auto& c) { c.latch(1, 0x9F8016); }},
    {"second oscillator: not programmed", [](auto& c) { c.latch(1, 0x9F8013); }, "another method"},
    {"second oscillator: B is 2", [](auto& c) { c.latch(1, 0x000201); }},
    {"the second oscillator does not reach", [](auto& c) { c.window().q1_12v_ctrl = 0; }},
    // DAC.
    {"dac_write_before_reset", [](auto& c) { c.board().dac.powerUp(), Ad9775Set(0); }, "", kNew},
    {"dac_not_loaded; the DAC was never reset", [](auto& c) { c.board().dac.powerUp(); }, "", kNew},
    {"dac_not_loaded", [](auto&) { ad9775_init(0); }, "no register", kNew},
    {"dac_not_loaded", [](auto& c) { ad9775_init(0), c.dac(0, 0); }, "one register", kNew},
    {"dac_not_loaded; the DAC is held in reset", [](auto& c) { c.window().ad9775_1_rst = 1; }, "", kNew},
    {"the DAC is asleep (bit 4", [](auto& c) { c.dac(0, 0x10); }, "", kNew},
    {"the DAC is powered down (bit 3", [](auto& c) { c.dac(0, 0x08); }, "", kNew},
    {"", [](auto& c) { c.dac(0, 0xE4), c.dac(3, 0x80); }, "the port's bits are not acted on"},
    // Sensor, EEPROM, watchdog.
    {"", [](auto&) { get_temper(0, 1); }, "a temperature"},
    {"sensor1_one_shot_without_power_down", [](auto& c) { c.board().sensor1.powerUp(), get_temper(0, 1); },
     "", kNew},
    {"the second write is lost", [](auto& c) { c.writeTwice(1000); }, "a wait of 5 ms"},
    {"", [](auto& c) { c.writeTwice(2000); }, "a wait of 10 ms"},
    {"watchdog_not_kicked (tTest, slot 1 cdce925_s", [](auto& c) { c.clock(0x16, 1), work(110'000); },
     "550 ms", kNew},
    {"", [](auto&) { work(90'000), chassis::Dog(), work(90'000); }, "twice 450 ms"},
    // Modulator.
    {"the modulator is held in reset", [](auto& c) { c.window().nrst = 2; }},
    {"the constellation code is unknown", [](auto& c) { c.window().qam_mode = 4, Qam_ResetAll(0); }},
    {"packet length code 0", [](auto& c) { c.window().pkt_len0 = 0; }},
    {"fed by the multiplexer's port 1", [](auto& c) { c.window().oport_num0 = 1; }},
};

TEST(DriverFaults, OfTheCardAreSeen) {
  StartedCard card;
  card.drive([&] {
    for (const auto& row : kCardRows) {
      const std::string seen = inChild([&] { return row.drive(card), card.seen(); });
      const bool isRight = *row.found == '\0';
      EXPECT_EQ(isRight ? seen : seen.substr(0, std::string_view(row.found).size()), row.found) << row.name;
    }
  });
}

// ---- At a device ----

template <typename Part, std::size_t count, typename Lines, typename... Arguments>
void check(const Row<Lines> (&rows)[count], const Arguments&... arguments) {
  for (const Row<Lines>& row : rows) {
    SCOPED_TRACE(testing::Message() << row.found << ' ' << row.name);
    Violations violations;
    Part part(arguments..., violations);
    Lines lines{part};
    row.drive(lines);
    EXPECT_EQ(kinds(violations), row.found);
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
      {"sensor_data_held_low_at_acknowledge",
       [](auto& m) { m.start(), m.exchange(0x94), m.bit(false), m.stop(); }, "", Row<I2cLines>::kNew},
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
  static constexpr Nanos kReady = 5'000'000 - 4'700 - 73'600;  // except the bus, and the time of an address
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
      {"", [](auto& d) { d.frame(3, 0x80), expect(d.part.portAtRisk()); }},
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
