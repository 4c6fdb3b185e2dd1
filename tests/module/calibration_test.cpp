// The calibration EEPROM, the DAC's serial port, and the service that writes both, on their lines.
#include <fmt/format.h>

#include <algorithm>

#include "card/QamFpga.h"
#include "headend/hardware/card_registers.h"
#include "hw/Qam_set.h"
#include "hw/X24cxx.h"
#include "hw/ad9775.h"
#include "hw/ad9775_ctrl.h"
#include "tests/module/chassis.h"

namespace test {

struct Access16 {
  const char* name;
  std::function<void(u8* data)> routine;
  Lines transfers;
};

namespace {

// The EEPROM's bus and the DAC's port as they come by: transfers as "A0 0E 11 22", with 'r' before what was
// read; frames of the DAC as "dac 8C 00". What is read is 1s while `level` says so.
class Listener {
 public:
  void hear(const std::string& step) {
    if (step == "X24C16SDA=1" || step == "X24C16SDA=0") {
      const bool level = step.back() == '1';
      if (clock_ && level != data_) (level ? stop() : start());
      data_ = level;
    } else if (step == "X24C16SCL=1") {
      clock_ = true;
      take(data_);
    } else if (step == "X24C16SCL=0") {
      clock_ = false;
    } else if (step == "ad9775_1_cs=0") {
      frame_ = "dac";
      bits_ = 0;
    } else if (step == "ad9775_1_cs=1" && !frame_.empty()) {
      heard.push_back(std::exchange(frame_, {}));
    } else if (step == "ad9775_1_sdio=1" || step == "ad9775_1_sdio=0") {
      dacData_ = step.back() == '1';
    } else if (step == "ad9775_1_clk=1" && !frame_.empty()) {
      byte_ = static_cast<u8>(byte_ << 1 | (dacData_ ? 1 : 0));
      if (++bits_ % 8 == 0) frame_ += fmt::format(" {:02X}", byte_);
    }
  }
  Lines heard;

 private:
  void start() { bits_ = 0; }
  void stop() {
    if (!transfer_.empty()) heard.push_back(std::exchange(transfer_, {}));
  }
  void take(bool bit) {
    if (++bits_ % 9 == 0) {
      transfer_ += fmt::format("{}{:02X}", transfer_.empty() ? "" : " ", byte_);
    } else {
      byte_ = static_cast<u8>(byte_ << 1 | (bit ? 1 : 0));
    }
  }

  bool clock_ = false, data_ = false, dacData_ = false;
  unsigned bits_ = 0;
  u8 byte_ = 0;
  std::string transfer_, frame_;
};

class Calibration : public ModuleTest {
 protected:
  Lines heard(const std::function<void()>& routine) {
    fake.start(1);
    // The EEPROM acknowledges, and answers with zeros: whoever looks at the line sees it low.
    fake.onRead = [this](u32 address) {
      const u32 offset = address & 0x1FF;
      return offset == headend::offsetOf("X24C16SDA") ? u16{0} : dac ? dac(offset) : u16{1};
    };
    routine();
    Listener listener;
    for (const std::string& step : fake.steps) listener.hear(step);
    // Of the polls for the end of a write cycle one is enough here.
    Lines all;
    for (const std::string& line : listener.heard) {
      const bool isPoll = line.size() == 2;
      if (!isPoll) all.push_back(line);
      polls += isPoll ? 1 : 0;
    }
    return all;
  }
  std::function<u16(u32)> dac;
  int polls = 0;
};

class Eeprom : public Calibration, public ::testing::WithParamInterface<Access16> {};

std::string bytes(int first, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += fmt::format(" {:02X}", first + i);
  return text;
}
std::string read(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += " FF";  // the master's side of the line, let go
  return text;
}

INSTANTIATE_TEST_SUITE_P(
    Access, Eeprom,
    ::testing::Values(
        Access16{"LastByte", [](u8*) { at24cxx_wr_byte(0x7FF, 0x12, 1); }, {"AE FF 12"}},
        Access16{"SecondBlock", [](u8*) { at24cxx_wr_byte(0x100, 0x12, 1); }, {"A2 00 12"}},
        Access16{
            "BeyondTheEnd", [](u8* d) { at24cxx_wr_byte(0x800, 0, 1), at24cxx_wr_page(0x80, d, 1); }, {}},
        Access16{"Page", [](u8* d) { at24cxx_wr_page(0x7F, d, 1); }, {"AE F0" + bytes(0, 16)}},
        Access16{"ThreeParts",
                 [](u8* d) { at24cxx_wr_nbytes(0x0E, d, 20, 1); },
                 {"A0 0E" + bytes(0, 2), "A0 10" + bytes(2, 16), "A0 20" + bytes(18, 2)}},
        Access16{"InOnePage", [](u8* d) { at24cxx_wr_nbytes(0x33, d, 13, 1); }, {"A0 33" + bytes(0, 13)}},
        Access16{"Aligned",
                 [](u8* d) { at24cxx_wr_nbytes(0x40, d, 32, 1); },
                 {"A0 40" + bytes(0, 16), "A0 50" + bytes(16, 16)}},
        Access16{"CutAtTheEnd", [](u8* d) { at24cxx_wr_nbytes(0x7F8, d, 32, 1); }, {"AE F8" + bytes(0, 8)}},
        Access16{"Nothing",
                 [](u8* d) { at24cxx_wr_nbytes(0x10, d, 0, 1), at24cxx_rd_nbytes(0x100, d, 0, 1); },
                 {}},
        Access16{"ReadAcrossABlock",
                 [](u8* d) { at24cxx_rd_nbytes(0xFE, d, 5, 1); },
                 {"A0 FE A1" + read(2), "A2 00 A3" + read(3)}},
        Access16{
            "ReadWholeBlock", [](u8* d) { at24cxx_rd_nbytes(0x700, d, 300, 1); }, {"AE 00 AF" + read(256)}},
        Access16{"ReadAByte", [](u8*) { EXPECT_EQ(at24cxx_rd_byte(0x345, 1), 0); }, {"A6 45 A7 FF"}}),
    kRowName);

TEST_P(Eeprom, IsSplitAtPagesAndBlocks) {
  u8 data[300];
  for (std::size_t i = 0; i < sizeof data; ++i) data[i] = static_cast<u8>(i);
  EXPECT_EQ(heard([&] { GetParam().routine(data); }), GetParam().transfers);
  const bool isRead = std::string_view(GetParam().name).starts_with("Read");
  EXPECT_EQ(polls, isRead ? 0 : static_cast<int>(GetParam().transfers.size()))
      << "a write ends in a poll, at once";
}

TEST_F(Calibration, AnEepromThatDoesNotAnswerIsAskedAHundredTimesAndReadsOnes) {
  fake.start(1);
  fake.onRead = [](u32) { return u16{1}; };
  at24cxx_wr_byte(3, 0x55, 1);
  Listener listener;
  for (const std::string& step : fake.steps) listener.hear(step);
  EXPECT_EQ(std::count(listener.heard.begin(), listener.heard.end(), "A0"), 100);
  EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "delay 1"), 0);
  EXPECT_EQ(at24cxx_rd_byte(3, 1), 0xFF);
  fake.steps.clear();
  EXPECT_EQ(at24cxx_rd_byte(0x800, 1), 0xFF);
  EXPECT_TRUE(fake.steps.empty());
  // A clock line that reads anything but 0 is high.
  fake.onRead = [](u32) { return u16{0x80}; };
  x24c16_stop(1);
}

Lines clocked(const std::string& line, int byte) {
  Lines steps;
  for (int bit = 7; bit >= 0; --bit) {
    steps.insert(steps.end(), {"ad9775_1_clk=0", "100 turns", fmt::format("{}={}", line, byte >> bit & 1),
                               "100 turns", "ad9775_1_clk=1", "100 turns"});
  }
  return steps;
}

TEST_F(Calibration, TheDacsPortMovesAsItsDataSheetDraws) {
  fake.start(1);
  ad9775_init(1);
  EXPECT_EQ(fake.steps, (Lines{"ad9775_1_rst=0", "100 turns", "ad9775_1_rst=1", "100 turns", "dog",
                               "100 turns", "ad9775_1_rst=0", "ad9775_1_cs=1", "ad9775_1_clk=1"}));
  fake.steps.clear();
  const u8 data[] = {0xA5, 0x0F};
  ad9775_reg_write(1, 0x0C, data, 2);
  Lines expected{"ad9775_1_cs=0"};
  for (const int byte : {0x0C, 0xA5, 0x0F}) {
    const Lines steps = clocked("ad9775_1_sdio", byte);
    expected.insert(expected.end(), steps.begin(), steps.end());
  }
  expected.emplace_back("ad9775_1_cs=1");
  EXPECT_EQ(fake.steps, expected);

  fake.steps.clear();
  int reads = 0;
  fake.onRead = [&](u32) { return static_cast<u16>(0xB4 >> (7 - reads++) & 1); };
  EXPECT_EQ(ad9775_reg_read(1, 0x0C), 0xB4);
  expected = clocked("ad9775_1_sdio", 0x8C);
  expected.insert(expected.begin(), "ad9775_1_cs=0");
  expected.insert(expected.end(), {"ad9775_1_clk=0", "100 turns"});
  for (int bit = 0; bit < 8; ++bit) {
    expected.insert(expected.end(),
                    {"ad9775_1_clk=1", "100 turns", "ad9775_1_sdo?", "ad9775_1_clk=0", "100 turns"});
  }
  expected.emplace_back("ad9775_1_cs=1");
  EXPECT_EQ(fake.steps, expected);
}

// ---- The service ----

TEST_F(Calibration, ARequestReadsOrWritesTheSlotThatItNames) {
  u8 request[100] = {1, 1};
  u8 reply[100] = {};
  int length = sizeof reply;
  dac = [](u32) { return u16{1}; };
  const Lines frames = heard([&] { EXPECT_EQ(AdPackHandle(0, request, 2, reply, &length), 1); });
  ASSERT_EQ(frames.size(), 13U);
  for (int n = 0; n < 13; ++n)
    EXPECT_EQ(frames[static_cast<std::size_t>(n)].substr(0, 6), fmt::format("dac {:02X}", 0x80 | n));
  EXPECT_EQ(length, 15);
  EXPECT_EQ(Bytes(reply, reply + 2), (Bytes{1, 1}));
  EXPECT_EQ(Bytes(reply + 2, reply + 15), Bytes(13, 0xFF));

  request[0] = 2;
  for (u8 n = 0; n < 13; ++n) request[2 + n] = static_cast<u8>(0x20 + n);
  Lines order;
  for (int n = 0; n < 13; ++n) {
    order.insert(order.end(),
                 {fmt::format("dac {:02X} {:02X}", n, 0x20 + n), fmt::format("A0 {:02X} {:02X}", n, 0x20 + n),
                  fmt::format("A0 {:02X} A1 FF", n)});
  }
  fake.steps.clear();
  EXPECT_EQ(AdPackHandle(0, request, 15, reply, &length), 0);
  Listener listener;
  for (const std::string& step : fake.steps) listener.hear(step);
  std::erase_if(listener.heard, [](const std::string& line) { return line.size() == 2; });
  EXPECT_EQ(listener.heard, order);
}

TEST_F(Calibration, WhatIsNoRequestTouchesNothing) {
  fake.start(1);
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
  const std::string bound = "bind 3 family 2 port 49156 address 0 length 16 16";
  Ad9775Ctrl_Init(2);
  EXPECT_EQ(fake.log, (Lines{"socket 2 2 0", bound, spawned}));
  EXPECT_EQ(fake.steps, Lines{"dog"});
  EXPECT_EQ(mysock[2], 3);
  fake.log.clear();
  fake.portsToBeHad = false;
  Ad9775Ctrl_Init(2);
  EXPECT_EQ(fake.log, (Lines{"socket 2 2 0", bound, "close socket 3", "delay 100", spawned}));
  fake.log.clear();
  fake.socketsToBeHad = false;
  Ad9775Ctrl_Init(2);
  EXPECT_EQ(fake.log[1], "delay 100");
  EXPECT_EQ(fake.log.back(), spawned);
}

TEST_F(Calibration, TheServiceAnswersTenTimesASecondAndOutlivesWhatComes) {
  fake.start(1);
  fake.onRead = [](u32) { return u16{0}; };
  mysock[0] = 3;
  fake.datagrams = {Bytes{1, 1}, std::nullopt, Bytes(2000, 1), Bytes{}, Bytes{9, 1}};
  EXPECT_FALSE(fake.runs([] { Ad9775Ctrl(0); }));
  const std::string answer = "send 3 to c0000201:7 length 16: 01 01" + [] {
    std::string zeros;
    for (int i = 0; i < 13; ++i) zeros += " 00";
    return zeros;
  }();
  EXPECT_EQ(fake.log, (Lines{answer, "delay 10", "delay 1", answer, "delay 10", "delay 10", "delay 10"}));
}

}  // namespace
}  // namespace test
