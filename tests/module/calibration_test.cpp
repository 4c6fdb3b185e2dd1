// The calibration EEPROM and the DAC behind their lines, and the service that writes both.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <numeric>

#include "card/QamFpga.h"
#include "hw/Qam_set.h"
#include "hw/X24cxx.h"
#include "hw/ad9775.h"
#include "hw/ad9775_ctrl.h"
#include "tests/module/chassis.h"

namespace test {
namespace {

class Calibration : public DeviceTest {
 protected:
  using Image = headend::Eeprom::Image;

  Calibration() { fake.start(1); }
  Bytes stored(int from, int count) {
    const Image& image = board.eeprom.image(fake.now);
    return {image.begin() + from, image.begin() + from + count};
  }
  Bytes dacRegisters() {
    Bytes all;
    for (u8 n = 0; n < 13; ++n) all.push_back(board.dac.reg(n));
    return all;
  }
  auto count(const char* step) const { return std::count(fake.steps.begin(), fake.steps.end(), step); }
};

TEST_F(Calibration, WhatIsWrittenStandsInTheEepromAndIsReadBackWhereverItLies) {
  const auto trip = [&](const char* name, u16 address, u16 count, u16 fits) {
    SCOPED_TRACE(name);
    Bytes data(count);
    std::iota(data.begin(), data.end(), u8{1});
    Image expected;
    expected.fill(0xEE);
    board.eeprom.load(expected);
    std::copy_n(data.begin(), fits, expected.begin() + std::min<int>(address, 0x7FF));
    at24cxx_wr_nbytes(address, data.data(), count, 1);
    EXPECT_EQ(board.eeprom.image(fake.now), expected);
    EXPECT_FALSE(board.eeprom.busy(fake.now)) << "a write ends with its cycle";
    Bytes read(count, 0xDD);
    std::fill(data.begin() + fits, data.end(), address < 0x800 ? u8{0xDD} : u8{0xFF});
    at24cxx_rd_nbytes(address, read.data(), count, 1);
    EXPECT_EQ(read, data);
  };
  trip("in one page", 0x33, 13, 13);
  trip("three pages in part", 0x0E, 20, 20);
  trip("two whole pages", 0x40, 32, 32);
  trip("a block and more", 0x6F8, 264, 264);
  trip("cut at the end", 0x7F8, 32, 8);
  trip("beyond the end", 0x800, 4, 0);
}

TEST_F(Calibration, BytesAndPagesBeyondTheEndAreRefused) {
  const Bytes page{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  board.eeprom.writeCycle(10'000'000);
  at24cxx_wr_page(0x7F, page.data(), 1);
  EXPECT_EQ(stored(0x7F0, 16), page);
  board.eeprom.writeCycle(0);
  fake.forget();
  at24cxx_wr_byte(0x7FF, 0x12, 1);
  EXPECT_EQ(count("dog"), 1) << "it answers when it is asked first";
  fake.forget();
  EXPECT_EQ(at24cxx_rd_byte(0x7FF, 1), 0x12);
  EXPECT_EQ((Lines{fake.steps.end() - 6, fake.steps.end()}),
            (Lines{"X24C16SCL=1", "5us", "X24C16SCL?", "5us", "X24C16SDA=1", "5us"}))
      << "a stop frees the bus";
  fake.forget();
  at24cxx_wr_byte(0x800, 0x34, 1);
  at24cxx_wr_page(0x80, page.data(), 1);
  EXPECT_EQ(at24cxx_rd_byte(0x800, 1), 0xFF);
  EXPECT_EQ(fake.steps, Lines{});
}

TEST_F(Calibration, AnEepromThatDoesNotAnswerIsAskedAHundredTimesAndReadsOnes) {
  board.eepromBus.inject(headend::OpenDrainBus::Fault::kAbsent, true, fake.now);
  fake.forget();
  EXPECT_EQ(at24cxx_rd_byte(3, 1), 0xFF);
  // An acknowledge costs 200 reads of the line.
  EXPECT_EQ(count("X24C16SDA?"), 3 * 200 + 8);
  fake.forget();
  at24cxx_wr_byte(3, 0x55, 1);
  EXPECT_EQ(count("X24C16SDA?"), 2 * 200 + 100);
  EXPECT_EQ(count("dog"), 100);
  EXPECT_EQ(fake.log, Lines{}) << "no sleep";
}

TEST_F(Calibration, TheDacsPortWaitsBetweenItsEdges) {
  EXPECT_EQ(fake.stepsOf([] { ad9775_init(1); }),
            (Lines{"ad9775_1_rst=0", "100 turns", "ad9775_1_rst=1", "100 turns", "dog", "100 turns",
                   "ad9775_1_rst=0", "ad9775_1_cs=1", "ad9775_1_clk=1"}));
  fake.forget();
  const u8 data = 0xA5;
  ad9775_reg_write(1, 0x0C, &data, 1);
  EXPECT_EQ(board.dac.reg(0x0C), 0xA5);
  EXPECT_EQ(count("100 turns"), 2 * 8 * 3);
  fake.forget();
  EXPECT_EQ(ad9775_reg_read(1, 0x0C), 0xA5);
  EXPECT_EQ(count("100 turns"), 8 * 3 + 1 + 8 * 2);
  fake.hasDevices = false;  // the DAC takes one byte of a frame
  const Bytes two{1, 2};
  ad9775_reg_write(1, 5, two.data(), 2);
  EXPECT_EQ(count("ad9775_1_clk=1"), (2 + 3) * 8);
}

// ---- The service ----

TEST_F(Calibration, TheServiceStartsOnSocketZeroWhateverFails) {
  const std::string spawned = "spawn tAd9775Ctrl2 235 0 5000 (0 0 00000000)";
  const std::string asked = "socket 2 2 0", bound = "bind 3 family 2 port 49156 address 0 length 16 16";
  EXPECT_EQ(fake.stepsOf([] { Ad9775Ctrl_Init(2); }), Lines{"dog"});
  EXPECT_EQ(fake.log, (Lines{asked, bound, spawned}));
  EXPECT_EQ(mysock[2], 3);
  fake.portsToBeHad = fake.socketsToBeHad = false;
  EXPECT_EQ(fake.stepsOf([] { Ad9775Ctrl_Init(2); }), (Lines{"1000 ticks", "1000 ticks", "dog"}));
  EXPECT_EQ(fake.log[3], "close socket -1");
  EXPECT_EQ(fake.log.back(), spawned);
  EXPECT_EQ(fake.stepsOf([] { Ad9775Ctrl_Init(6); }), Lines{});
  EXPECT_EQ(fake.log, Lines{}) << "nothing is started for no slot";
}

TEST_F(Calibration, TheServiceAnswersTenTimesASecondAndOutlivesWhatComes) {
  Ad9775Ctrl_Init(0);
  fake.forget();
  Bytes values(13);
  std::iota(values.begin(), values.end(), u8{0x31});
  fake.datagrams = {Bytes{2, 1} + values, Bytes{1, 1}, std::nullopt, Bytes(2000, 1), Bytes{}, Bytes{9, 1}};
  EXPECT_FALSE(fake.runs(fake.tasks.back()));
  const std::string answer = fmt::format("send 3 to 7 length 16: 1 1 {}", fmt::join(values, " "));
  EXPECT_EQ(fake.log, (Lines{"delay 100", answer, "delay 100", "delay 10", answer, "delay 100", "delay 100",
                             "delay 100"}));
  EXPECT_EQ(stored(0, 14), values + Bytes{0xFF});
  EXPECT_EQ(dacRegisters(), values);

  ad9775_init(1);
  fake.forget();
  Ad9775Init(1);
  EXPECT_EQ(dacRegisters(), values) << "as the next start-up loads them";
  EXPECT_EQ(count("dog"), 1 + 1 + 3) << "in the reset, after it, and after each group of registers";
}

TEST_F(Calibration, WhatIsNoRequestTouchesNothing) {
  int length = 100;
  for (const auto& [command, slot] : {std::pair<u8, u8>{0, 1}, {3, 1}, {1, 0}, {2, 5}, {1, 6}, {2, 255}}) {
    u8 request[100] = {command, slot};
    EXPECT_EQ(AdPackHandle(1, request, 15, nullptr, &length), -1) << int{command} << " " << int{slot};
  }
  EXPECT_TRUE(fake.steps.empty());
  EXPECT_EQ(length, 100);
}

}  // namespace
}  // namespace test
