// The card's variables: what a read gives, what a setting does to hardware and record, who keeps the
// semaphore.
#include <fmt/format.h>

#include "card/QamFpga.h"
#include "card/qamVar.h"
#include "headend/hardware/card_registers.h"
#include "platform/address_word.h"
#include "tests/module/chassis.h"

namespace test {
namespace {

class Variables : public DeviceTest {
 protected:
  static u32 get(u32 id) { return chassis::head->getVar(2, 0, id, nullptr); }
  static std::string text(u32 id) { return os::wordAddress<const char>(get(id)); }

  QamCardPara* record = fake.start(2);
};

TEST_F(Variables, ReadsAreTheSensorsTheRatesAndTheVersions) {
  for (const u32 none : {29U, 46U, 51U, 53U}) EXPECT_EQ(get(none), 0U) << none;
  board.sensor(1).temperature(41.75, fake.now);
  board.sensor(2).temperature(-2, fake.now);
  QamFpgaIf[2]->version = 0x01FF;
  EXPECT_TRUE(get(47) == 41 && get(48) == 254) << "the sign is not extended";
  EXPECT_EQ(text(50), "V2.1.55");
  QamFpgaIf[2]->version = 7;
  EXPECT_EQ(text(50), "V2.1.07");
  EXPECT_EQ(text(49) + ' ' + text(52), "V2.1.05A V1.0");
  // Bytes and null packets in half a second.
  const std::map<std::string_view, u16> counts{
      {"Valid_0_rateM", 240}, {"Sys_0_rateL", 1}, {"Valid_1_rateH", 16}, {"Sys_1_rateL", 2}};
  fake.onRead = [&](u32 address) {
    const auto found = counts.find(headend::cardRegister(address & 0x1FF).name);
    return found == counts.end() ? u16{0} : found->second;
  };
  EXPECT_EQ(text(36) + ' ' + text(37), "983Kb/s 980Kb/s");
  EXPECT_EQ(text(44) + ' ' + text(45), "16777Kb/s 16771Kb/s");
  fake.onRead = {};
  EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "take"),
            std::count(fake.log.begin(), fake.log.end(), "give"));
}

TEST_F(Variables, SettingsGoToTheHardwareAndAreSavedOnce) {
  fake.onCall = [&](std::string_view call) {
    EXPECT_FALSE(call == "save" && fake.steps.empty()) << "saved when the hardware has it";
  };
  // The hardware steps of the setter and of the older one, whose clock table is empty.
  const auto expectDone = [&](u32 id, u32 value, u32 stored, const Lines& expected, const Lines& olderOne) {
    SCOPED_TRACE(fmt::format("{} to {}", id, value));
    for (const bool older : {true, false}) {
      fake.steps = {"the record's defaults"};
      qam_load_default(2, record);
      fake.forget();
      EXPECT_EQ(older ? (QamSetVar1(2, 0, id, value), 0) : chassis::head->setVar(2, 0, id, value), 0);
      EXPECT_EQ(fake.landmarks(), older ? olderOne : expected);
      EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "save 2"), 1);
      EXPECT_EQ(get(id), stored);
      EXPECT_EQ(get(id + 8), id == 30 ? stored + 8000 : stored) << "of channel 2";
    }
    fake.forget();
    EXPECT_EQ(QamSetVar(2, 0, id, stored), 0);
    EXPECT_EQ(fake.log + fake.steps, (Lines{"take", "give"})) << "as it was: nothing to do";
  };
  const Lines tuned{"q1_12v_ctrl=1", "lo2", "att"};
  expectDone(30, 474000, 474000, tuned, tuned);
  expectDone(31, 1100, 1100, {"att"}, {"att"});
  expectDone(32, 6250, 6250, {"cdce925", "rf_off", "nrst"}, {"rf_off", "nrst"});
  expectDone(32, 6900, 6900, {"rf_off", "nrst"}, {"rf_off", "nrst"});  // no row
  expectDone(33, 261, 5, {"qam_mode=261", "nrst"}, {"qam_mode=261"});  // compared before truncation
  expectDone(34, 1, 1, {"rf0_en=1"}, {"rf0_en=1"});
  expectDone(35, 0x10000, 0, {"power=0"}, {"power=0"});
}

TEST_F(Variables, WhatCannotBeSetIsRefusedAndSomeCallsKeepTheSemaphore) {
  const Bytes before(reinterpret_cast<const u8*>(record), reinterpret_cast<const u8*>(record + 1));
  const Lines lets{"take", "give"};
  for (u32 id = 0; id < 60; ++id) {
    if (id >= 30 && id <= 35) continue;
    fake.forget();
    EXPECT_EQ(QamSetVar(2, 0, id, 7), id == 51 ? 1 : id == 43 ? 0 : -2) << id;
    EXPECT_EQ(fake.log + fake.steps, id == 51 ? Lines{"take"} : lets) << id;
    fake.forget();
    QamSetVar1(2, 0, id, 7);
    EXPECT_EQ(fake.log + fake.steps, lets) << id;
  }
  EXPECT_TRUE(std::equal(before.begin(), before.end(), reinterpret_cast<const u8*>(record)));

  fake.forget();
  EXPECT_EQ(QamGetVar(3, 0, 30, nullptr), 0U);
  EXPECT_EQ(QamSetVar(3, 0, 30, 474000), -1);
  QamSetVar1(3, 0, 30, 474000);
  EXPECT_EQ(fake.log, (Lines{"take", "take", "take"}));
}

}  // namespace
}  // namespace test
