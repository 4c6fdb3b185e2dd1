// The calibration EEPROM and the DAC behind their lines, and the service that writes both.
#include <fmt/format.h>

#include <algorithm>
#include <numeric>

#include "card/QamFpga.h"
#include "hw/Qam_set.h"
#include "hw/X24cxx.h"
#include "hw/ad9775.h"
#include "hw/ad9775_ctrl.h"
#include "tests/module/card_devices.h"

namespace test {
namespace {

class Calibration : public DeviceTest {
 protected:
  using Image = headend::Eeprom::Image;

  Calibration() { fake.start(1); }
  Bytes stored(int from, int count) {
    const Image& image = board.eeprom().image(fake.now);
    return {image.begin() + from, image.begin() + from + count};
  }
  Bytes dacRegisters() {
    Bytes all;
    for (u8 n = 0; n < 13; ++n) all.push_back(board.dac().reg(n));
    return all;
  }
  auto count(const char* step) const { return std::count(fake.steps.begin(), fake.steps.end(), step); }
};

TEST_F(Calibration, WhatIsWrittenStandsInTheEepromAndIsReadBackWhereverItLies) {
  struct Row {
    const char* name;
    u16 address, count, fits;
  };
  const Row rows[] = {{"in one page", 0x33, 13, 13},         {"three pages in part", 0x0E, 20, 20},
                      {"two whole pages", 0x40, 32, 32},     {"across a block", 0xFE, 5, 5},
                      {"a block and more", 0x6F8, 264, 264}, {"cut at the end", 0x7F8, 32, 8},
                      {"beyond the end", 0x800, 4, 0},       {"nothing", 0x10, 0, 0}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Bytes data(row.count);
    std::iota(data.begin(), data.end(), u8{1});
    Image expected;
    expected.fill(0xEE);
    board.eeprom().load(expected);
    std::copy_n(data.begin(), row.fits, expected.begin() + std::min<int>(row.address, 0x7FF));
    at24cxx_wr_nbytes(row.address, data.data(), row.count, 1);
    EXPECT_EQ(board.eeprom().image(fake.now), expected);
    EXPECT_FALSE(board.eeprom().busy(fake.now)) << "a write ends with its cycle";

    Bytes read(row.count, 0xDD);
    std::fill(data.begin() + row.fits, data.end(), u8{0xDD});
    at24cxx_rd_nbytes(row.address, read.data(), row.count, 1);
    EXPECT_EQ(read, data);
  }
}

TEST_F(Calibration, BytesAndPagesBeyondTheEndAreRefused) {
  Bytes page(16);
  std::iota(page.begin(), page.end(), u8{1});
  at24cxx_wr_page(0x7F, page.data(), 1);
  EXPECT_EQ(stored(0x7F0, 16), page);
  at24cxx_wr_byte(0x7FF, 0x12, 1);
  EXPECT_EQ(at24cxx_rd_byte(0x7FF, 1), 0x12);
  fake.steps.clear();
  at24cxx_wr_byte(0x800, 0x34, 1);
  at24cxx_wr_page(0x80, page.data(), 1);
  EXPECT_EQ(at24cxx_rd_byte(0x800, 1), 0xFF);
  EXPECT_EQ(fake.steps, Lines{});
}

TEST_F(Calibration, AnEepromThatDoesNotAnswerIsAskedAHundredTimesAndReadsOnes) {
  board.eepromBus().inject(headend::OpenDrainBus::Fault::kAbsent, fake.now);
  fake.forget();
  EXPECT_EQ(at24cxx_rd_byte(3, 1), 0xFF);
  // An acknowledge costs 200 looks.
  EXPECT_EQ(count("X24C16SDA?"), 3 * 200 + 8);
  fake.forget();
  at24cxx_wr_byte(3, 0x55, 1);
  EXPECT_EQ(count("X24C16SDA?"), 2 * 200 + 100);
  EXPECT_EQ(fake.log, Lines{}) << "nobody sleeps";
}

TEST_F(Calibration, StartUpLoadsTheDacFromTheEeprom) {
  Image image;
  std::iota(image.begin(), image.end(), u8{0x20});
  board.eeprom().load(image);
  fake.forget();
  Ad9775Init(1);
  EXPECT_EQ(dacRegisters(), stored(0, 13));
  EXPECT_EQ(count("dog"), 1 + 1 + 3) << "in the reset, after it, and after each group of registers";
}

TEST_F(Calibration, TheDacsPortWaitsBetweenItsEdges) {
  EXPECT_EQ(fake.stepsOf([] { ad9775_init(1); }),
            (Lines{"ad9775_1_rst=0", "100 turns", "ad9775_1_rst=1", "100 turns", "dog", "100 turns",
                   "ad9775_1_rst=0", "ad9775_1_cs=1", "ad9775_1_clk=1"}));
  fake.steps.clear();
  const u8 data = 0xA5;
  ad9775_reg_write(1, 0x0C, &data, 1);
  EXPECT_EQ(board.dac().reg(0x0C), 0xA5);
  EXPECT_EQ(count("100 turns"), 2 * 8 * 3);
  EXPECT_EQ(fake.steps.back(), "ad9775_1_cs=1");
  fake.steps.clear();
  EXPECT_EQ(ad9775_reg_read(1, 0x0C), 0xA5);
  EXPECT_EQ(count("100 turns"), 8 * 3 + 1 + 8 * 2);
  EXPECT_EQ(fake.steps.back(), "ad9775_1_cs=1");
}

// ---- The service ----

TEST_F(Calibration, ARequestReadsOrWritesTheSlotThatItNames) {
  u8 request[100] = {2, 1};
  std::iota(request + 2, request + 15, u8{0x31});
  const Bytes values(request + 2, request + 15);
  u8 reply[100] = {};
  int length = sizeof reply;
  EXPECT_EQ(AdPackHandle(0, request, 15, reply, &length), 0);
  EXPECT_EQ(dacRegisters(), values);
  EXPECT_EQ(stored(0, 13), values);
  EXPECT_EQ(stored(13, 1), Bytes{0xFF});

  request[0] = 1;
  EXPECT_EQ(AdPackHandle(0, request, 2, reply, &length), 1);
  EXPECT_EQ(length, 15);
  EXPECT_EQ(Bytes(reply, reply + 2), (Bytes{1, 1}));
  EXPECT_EQ(Bytes(reply + 2, reply + 15), values);
}

TEST_F(Calibration, WhatIsNoRequestTouchesNothing) {
  u8 reply[100] = {};
  int length = sizeof reply;
  for (const auto& [command, slot] : {std::pair{0, 1}, {3, 1}, {255, 1}, {1, 0}, {2, 5}, {1, 6}, {2, 255}}) {
    u8 request[100] = {static_cast<u8>(command), static_cast<u8>(slot)};
    EXPECT_EQ(AdPackHandle(1, request, 15, reply, &length), -1) << command << " " << slot;
  }
  EXPECT_TRUE(fake.steps.empty());
  EXPECT_EQ(length, 100);
}

TEST_F(Calibration, TheServiceStartsOnSocketZeroWhateverFails) {
  const std::string spawned = "spawn tAd9775Ctrl2 235 0 5000 (0 0 0 0 0 0 0 0 0 0)";
  const std::string asked = "socket 2 2 0", bound = "bind 3 family 2 port 49156 address 0 length 16 16";
  Ad9775Ctrl_Init(2);
  EXPECT_EQ(fake.log, (Lines{asked, bound, spawned}));
  EXPECT_EQ(fake.steps, Lines{"dog"});
  EXPECT_EQ(mysock[2], 3);
  fake.portsToBeHad = false;
  EXPECT_EQ(fake.logOf([] { Ad9775Ctrl_Init(2); }),
            (Lines{asked, bound, "close socket 3", "delay 100", spawned}));
  fake.socketsToBeHad = false;
  const Lines log = fake.logOf([] { Ad9775Ctrl_Init(2); });
  EXPECT_EQ(log[1], "delay 100");
  EXPECT_EQ(log.back(), spawned);
}

TEST_F(Calibration, TheServiceAnswersTenTimesASecondAndOutlivesWhatComes) {
  mysock[0] = 3;
  fake.datagrams = {Bytes{1, 1}, std::nullopt, Bytes(2000, 1), Bytes{}, Bytes{9, 1}};
  EXPECT_FALSE(fake.runs([] { Ad9775Ctrl(0); }));
  std::string answer = "send 3 to c0000201:7 length 16: 01 01";  // and a blank EEPROM's bytes
  for (int i = 0; i < 13; ++i) answer += " ff";
  EXPECT_EQ(fake.log, (Lines{answer, "delay 10", "delay 1", answer, "delay 10", "delay 10", "delay 10"}));
}

}  // namespace
}  // namespace test
