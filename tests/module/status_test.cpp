// A status pass: what it makes of the lock register, the sensor and the main board's overflow bits; and the
// watchdog's task.
#include "card/QamFpga.h"
#include "card/QamInit.h"
#include "tests/module/chassis.h"
#include "ui/qamStatus.h"

namespace test {
namespace {

const std::string kLost1 = "raise 2 0 769 卡3|频点一错误|Card3|Ch.1 Error|无输入|No Input";
const std::string kLost2 = "raise 2 0 769 卡3|频点二错误|Card3|Ch.2 Error|无输入|No Input";
const std::string kBack1 = "end 2 0 769 QAM卡3频点一输入恢复正常|qam card 3 ch.1 input OK!";
const std::string kBack2 = "end 2 0 769 QAM卡3频点二输入恢复正常|qam card 3 ch.2 input OK!";
const std::string kHot =
    "raise 2 0 770 调制卡3|温度过高|QAM Card3|High Temperature|温度过高|High Temperature";
const std::string kCooled = "end 2 0 770 调制卡3温度恢复正常|qam card 3 normal temperature";
const std::string kOver1 =
    "raise 2 0 771 卡3端口1|码率溢出|Card3Port1|rate overflow|"
    "调制卡3端口1码率溢出|QAM Card3 port1 rate overflow";
const std::string kOver2 =
    "raise 2 1 771 卡3端口2|码率溢出|Card3Port2|rate overflow|"
    "调制卡3端口2码率溢出|QAM Card3 port2 rate overflow";
const std::string kKept1 = "end 2 0 771 调制卡3端口1码率恢复|QAM Card3 port1 rate resume";
const std::string kKept2 = "end 2 1 771 调制卡3端口2码率恢复|QAM Card3 port2 rate resume";
constexpr u16 kOut1 = 1 << 11, kOut2 = 1 << 10;  // the outputs' bits on the main board

using Status = DeviceTest;

TEST_F(Status, PassesTellTheAlarmListWhatHasChanged) {
  struct Pass {
    const char* finds;
    u16 lost;  // the lock register
    double degrees;
    u16 overflow;  // the main board's register
    Lines calls;
  };
  const Pass passes[] = {
      {"an alarm of the saved record ended", 0, 20, 0, {kBack1}},
      {"both inputs lost", 3, 20, 0, {kLost1, kLost2}},
      {"no news", 3, 20, 0, {}},
      {"input 1 back", 2, 20, 0, {kBack1}},
      {"the inputs change places", 1, 20, 0, {kLost1, kBack2}},
      {"other bits than the inputs'", 0xFFFC, 20, 0, {kBack1}},
      {"input 2 lost", 2, 20, 0, {kLost2}},
      {"almost hot", 2, 69.75, 0, {}},
      {"hot", 2, 70, 0, {kHot}},
      {"at the sensor's end", 2, 127, 0, {}},
      {"cooler", 2, 69, 0, {kCooled}},
      {"below zero, which reads as 255", 2, -1, 0, {kHot}},
      {"zero", 2, 0, 0, {kCooled}},
      {"others overflow", 2, 20, static_cast<u16>(~(kOut1 | kOut2)), {}},
      {"output 1 overflows", 2, 20, kOut1, {kOver1}},
      {"output 2 waits for output 1", 2, 20, kOut1 | kOut2, {}},
      {"output 1 is done", 2, 20, kOut2, {kKept1, kOver2}},
      {"output 1 again", 2, 20, kOut1 | kOut2, {kOver1}},
      {"none", 2, 20, 0, {kKept1, kKept2}},
  };
  QamCardPara* record = fake.start(2);
  record->qam_para.status = 0xA1;
  for (const Pass& pass : passes) {
    SCOPED_TRACE(pass.finds);
    QamFpgaIf[2]->tslock = pass.lost;
    chassis::pbbFpgaIf->rate_overflow = pass.overflow;
    board.sensor(2).temperature(pass.degrees, fake.now);
    fake.forget();
    chassis::head->statusCheck(2);
    EXPECT_EQ(fake.log, pass.calls);
  }
  EXPECT_EQ(record->qam_para.status, 0xA2);
}

TEST_F(Status, ASlotWithoutARecordHasNone) {
  qamStatusCheck(4);
  EXPECT_TRUE(fake.log.empty() && fake.steps.empty() && fake.checks.empty());
  EXPECT_EQ(qam_create_status(4), 0);
}

TEST_F(Status, TheWatchdogsTaskKicksFiveTimesASecond) {
  taskDQam();
  EXPECT_EQ(fake.log, (Lines{"spawn tDQamSysCheck 232 0 4096 (0 0 00000000)"}));
  fake.tickHz = 60;
  int delays = 0;
  fake.onCall = [&](std::string_view call) {
    if (call == "delay" && ++delays == 3) fake.leave();
  };
  EXPECT_FALSE(fake.runs([&] { fake.tasks.at(0).entry(0, 0, 0, 0, 0, 0, 0, 0, 0, 0); }));
  EXPECT_EQ(fake.steps, (Lines{"60 ticks", "dog", "dog", "dog", "dog", "dog",  //
                               "60 ticks", "dog", "dog", "dog", "dog", "dog"}));
}

}  // namespace
}  // namespace test
