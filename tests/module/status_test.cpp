// A status pass: what it makes of the lock register, the sensor and the main board's overflow bits; and the
// watchdog's task.
#include <fmt/format.h>

#include <algorithm>

#include "card/QamInit.h"
#include "tests/module/chassis.h"
#include "ui/qamStatus.h"

namespace test {

// What a pass finds, and the calls it makes of the alarm list.
struct Pass {
  u16 lost;      // the lock register
  u8 degrees;    // as the sensor has them
  u16 overflow;  // the main board's register
  Lines calls;
};

struct Passes {
  const char* name;
  u8 saved;  // `status` of the record when it was loaded
  std::vector<Pass> passes;
  u8 kept;
};

namespace {

constexpr u32 kWindow = kWindows + 0x400;  // slot 2

// The lines of a card that is cool and keeps its rates.
const Lines kCool{"raised? 2 0 770"};
const Lines kKeepsRates{"raised? 2 0 771", "raised? 2 1 771"};

Lines operator+(Lines a, const Lines& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Lines inputs(const Lines& calls) {
  return calls + kCool + kKeepsRates;
}
Lines heat(const Lines& calls) {
  return kCool + calls + kKeepsRates;
}

const std::string kLost1 = "raise 2 0 769 卡3|频点一错误|Card3|Ch.1 Error|无输入|No Input";
const std::string kLost2 = "raise 2 0 769 卡3|频点二错误|Card3|Ch.2 Error|无输入|No Input";
const std::string kBack1 = "end 2 0 769 QAM卡3频点一输入恢复正常|qam card 3 ch.1 input OK!";
const std::string kBack2 = "end 2 0 769 QAM卡3频点二输入恢复正常|qam card 3 ch.2 input OK!";
const std::string kHot =
    "raise 2 0 770 调制卡3|温度过高|QAM Card3|High Temperature|温度过高|High Temperature";
const std::string kCooled = "end 2 0 770 调制卡3温度恢复正常|qam card 3 normal temperature";
const std::string kOver1 =
    "raise 2 0 771 卡3端口1|码率溢出|Card3Port1|rate overflow|调制卡3端口1码率溢出|QAM Card3 port1 rate "
    "overflow";
const std::string kOver2 =
    "raise 2 1 771 卡3端口2|码率溢出|Card3Port2|rate overflow|调制卡3端口2码率溢出|QAM Card3 port2 rate "
    "overflow";
const std::string kKept1 = "end 2 0 771 调制卡3端口1码率恢复|QAM Card3 port1 rate resume";
const std::string kKept2 = "end 2 1 771 调制卡3端口2码率恢复|QAM Card3 port2 rate resume";
constexpr u16 kFirst = 1 << 11;  // the outputs' bits
constexpr u16 kSecond = 1 << 10;

class Status : public ModuleTest, public ::testing::WithParamInterface<Passes> {
 protected:
  // The sensor acknowledges at once, so each conversation looks at its data line as often; the last sixteen
  // looks are the temperature.
  void find(const Pass& pass) {
    constexpr u32 kLock = kWindow + 110;
    constexpr u32 kData = kWindow + 134;
    constexpr u32 kClock = kWindow + 136;
    constexpr u32 kOverflow = kMainBoard + 376;
    fake.onRead = [this, pass, looks = 0](u32 address) mutable -> u16 {
      if (address == kLock) return pass.lost;
      if (address == kOverflow) return pass.overflow;
      if (address == kClock) return 1;
      if (address != kData) return 0;
      const int bit = looksInAll_ - ++looks;
      return 0 <= bit && bit < 16 ? static_cast<u16>(pass.degrees << 8 >> bit & 1) : u16{0};
    };
    fake.log.clear();
    fake.accesses.clear();
    qamStatusCheck(2);
    if (looksInAll_ == 0) {
      looksInAll_ =
          static_cast<int>(std::count(fake.accesses.begin(), fake.accesses.end(), Access{'r', kData, 0}));
    }
  }

 private:
  int looksInAll_ = 0;
};

INSTANTIATE_TEST_SUITE_P(
    Each, Status,
    ::testing::Values(
        Passes{"Inputs",
               0xA0,
               {{3, 20, 0, inputs({kLost1, kLost2})},
                {3, 20, 0, inputs({})},
                {2, 20, 0, inputs({kBack1})},
                {1, 20, 0, inputs({kLost1, kBack2})},
                {0xFFFC, 20, 0, inputs({kBack1})},
                {2, 20, 0, inputs({kLost2})}},
               0xA2},
        Passes{"SavedStatus", 0x03, {{1, 20, 0, inputs({kBack2})}, {0, 20, 0, inputs({kBack1})}}, 0},
        Passes{"Heat",
               0,
               {{0, 69, 0, heat({})},
                {0, 70, 0, heat({kHot})},
                {0, 127, 0, heat({})},
                {0, 69, 0, heat({kCooled})},
                {0, 192, 0, heat({kHot})},  // -64 degrees
                {0, 255, 0, heat({})},
                {0, 0, 0, heat({kCooled})}},
               0},
        Passes{"Rates",
               0,
               {{0, 20, static_cast<u16>(~(kFirst | kSecond)), kCool + kKeepsRates},
                {0, 20, kFirst, kCool + Lines{"raised? 2 0 771", kOver1, "raised? 2 1 771"}},
                {0, 20, kFirst | kSecond, kCool + Lines{"raised? 2 0 771"}},
                {0, 20, kSecond, kCool + Lines{"raised? 2 0 771", kKept1, "raised? 2 1 771", kOver2}},
                {0, 20, kFirst | kSecond, kCool + Lines{"raised? 2 0 771", kOver1, "raised? 2 1 771"}},
                {0, 20, 0, kCool + Lines{"raised? 2 0 771", kKept1, "raised? 2 1 771", kKept2}}},
               0}),
    kRowName);

TEST_P(Status, PassesTellTheAlarmListWhatHasChanged) {
  QamCardPara* record = fake.start(2);
  find({0, 0, 0, {}});  // counts the looks
  record->qam_para.status = GetParam().saved;
  fake.alarms.clear();
  for (const Pass& pass : GetParam().passes) {
    find(pass);
    EXPECT_EQ(fake.log, pass.calls);
  }
  EXPECT_EQ(record->qam_para.status, GetParam().kept);
}

TEST_F(ModuleTest, ASlotWithoutARecordHasNoStatus) {
  qamStatusCheck(4);
  EXPECT_TRUE(fake.log.empty() && fake.accesses.empty() && fake.checks.empty());
  qamStatusCheck(6);
  ASSERT_EQ(fake.checks.size(), 1U);
  EXPECT_EQ(fake.checks[0].text, "slotNo<MAX_BOARD_NUM");
  EXPECT_EQ(fake.checks[0].unit, "qamStatus");
  EXPECT_EQ(fake.checks[0].line, 23);
  EXPECT_EQ(qam_create_status(4), 0);
}

TEST_F(ModuleTest, TheWatchdogsTaskKicksFiveTimesASecond) {
  taskDQam();
  EXPECT_EQ(fake.log, (Lines{"spawn tDQamSysCheck 232 0 4096 (0 0 0 0 0 0 0 0 0 0)"}));
  fake.tickHz = 60;
  int delays = 0;
  fake.onCall = [&](std::string_view call) {
    if (call == "delay" && ++delays == 3) fake.leave();
  };
  EXPECT_FALSE(fake.runs([&] { fake.tasks.at(0).entry(0, 0, 0, 0, 0, 0, 0, 0, 0, 0); }));
  const Lines second{"60 ticks", "dog", "dog", "dog", "dog", "dog"};
  EXPECT_EQ(fake.steps, second + second);
}

}  // namespace
}  // namespace test
