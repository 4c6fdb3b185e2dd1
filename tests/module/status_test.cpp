// A status pass: what it makes of the lock register, the sensor and the main board's overflow bits; and the
// watchdog's task.
#include "card/QamFpga.h"
#include "card/QamInit.h"
#include "tests/module/chassis.h"
#include "ts/qamIntr.h"
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
  QamCardPara* record = fake.start(2);
  // The reports of a check, with these bits of the lock register and of the main board's.
  const auto told = [&](u16 lost, double degrees, u16 overflow) {
    QamFpgaIf[2]->tslock = lost;
    chassis::pbbFpgaIf->rate_overflow = overflow;
    board.sensor(2).temperature(degrees, fake.now);
    fake.forget();
    chassis::head->statusCheck(2);
    return fake.log;
  };
  record->qam_para.status = 0xA1;
  EXPECT_EQ(told(0, 20, 0), Lines{kBack1}) << "an alarm of the saved record has ended";
  EXPECT_EQ(told(3, 20, 0), (Lines{kLost1, kLost2}));
  EXPECT_EQ(told(3, 20, 0), Lines{}) << "no news";
  EXPECT_EQ(told(2, 20, 0), Lines{kBack1});
  EXPECT_EQ(told(1, 20, 0), (Lines{kLost1, kBack2}));
  EXPECT_EQ(told(0xFFFC, 20, 0), Lines{kBack1}) << "other bits than the inputs'";
  EXPECT_EQ(told(2, 69.75, 0), Lines{kLost2});
  EXPECT_EQ(record->qam_para.status, 0xA2);
  EXPECT_EQ(told(2, 70, 0), Lines{kHot});
  EXPECT_EQ(told(2, 127, 0), Lines{}) << "no news";
  EXPECT_EQ(told(2, 69, 0), Lines{kCooled});
  EXPECT_EQ(told(2, -1, 0), Lines{kHot}) << "reads as 255";
  EXPECT_EQ(told(2, 0, static_cast<u16>(~(kOut1 | kOut2))), Lines{kCooled});
  EXPECT_EQ(told(2, 20, kOut1), Lines{kOver1});
  EXPECT_EQ(told(2, 20, kOut1 | kOut2), Lines{}) << "output 2 waits for output 1";
  EXPECT_EQ(told(2, 20, kOut2), (Lines{kKept1, kOver2}));
  EXPECT_EQ(told(2, 20, kOut1 | kOut2), Lines{kOver1});
  EXPECT_EQ(told(2, 20, 0), (Lines{kKept1, kKept2}));
  fake.firstOutput += 32;
  EXPECT_EQ(told(2, 20, 0xFFFF), Lines{}) << "no bit for such an output";
}

TEST_F(Status, ASlotWithoutARecordIsLeftAlone) {
  for (const auto routine : {qamStatusCheck, QamInit, qamIntr}) routine(4);
  QamSetPsiInterval(4, 0);
  EXPECT_TRUE(fake.log.empty() && fake.steps.empty() && fake.checks.empty());
  EXPECT_EQ(qam_create_status(4), 0);
}

TEST_F(Status, TheWatchdogsTaskKicksFiveTimesASecond) {
  taskDQam();
  EXPECT_EQ(fake.log, (Lines{"spawn tDQamSysCheck 232 0 4096 (0 0 00000000)"}));
  fake.onCall = [&, delays = 0](std::string_view) mutable {
    if (++delays == 3) fake.leave();
  };
  EXPECT_FALSE(fake.runs(fake.tasks.at(0)));
  EXPECT_EQ(fake.steps, (Lines{"1000 ticks", "dog", "dog", "dog", "dog", "dog",  //
                               "1000 ticks", "dog", "dog", "dog", "dog", "dog"}));
}

}  // namespace
}  // namespace test
