// What the routines of the card's devices do to their lines, step by step: levels, looks, waits, kicks.
#include <fmt/format.h>

#include <limits>

#include "card/QamFpga.h"
#include "hw/Cdce925.h"
#include "hw/Qam_set.h"
#include "hw/ad7414.h"
#include "hw/adf4113.h"
#include "tests/module/chassis.h"

namespace test {

struct BusStep {
  const char* name;
  std::function<void()> routine;
  std::string steps;
};

struct Words {
  const char* name;
  std::function<void()> routine;
  const char* lines;  // prefix of the synthesizer's registers
  std::vector<u32> words;
  int band;  // q1_12v_ctrl, -1 where it is left alone
};

struct SymbolRate {
  const char* name;
  i32 kBd;
  u32 word;
};

struct Level {
  const char* name;
  u32 level, rf_kHz, word;
};

namespace {

// D and C are a bus's data and clock line, 5 and ' the two waits of 5 us, k a kick of the watchdog.
std::string brief(const Lines& steps) {
  const std::map<std::string, std::string> names{{"5us", "5"},
                                                 {"5us'", "'"},
                                                 {"dog", "k"},
                                                 {"cdce925_sda?", "d?"},
                                                 {"cdce925_scl?", "c?"},
                                                 {"cdce925_sda=0", "D0"},
                                                 {"cdce925_sda=1", "D1"},
                                                 {"cdce925_scl=0", "C0"},
                                                 {"cdce925_scl=1", "C1"},
                                                 {"ext_ad7414_sda?", "d?"},
                                                 {"ext_ad7414_scl?", "c?"},
                                                 {"ext_ad7414_sda=0", "D0"},
                                                 {"ext_ad7414_sda=1", "D1"},
                                                 {"ext_ad7414_scl=0", "C0"},
                                                 {"ext_ad7414_scl=1", "C1"}};
  std::string text;
  for (const std::string& step : steps) {
    const auto found = names.find(step);
    text += (text.empty() ? "" : " ") + (found == names.end() ? step : found->second);
  }
  return text;
}

std::string times(int count, const std::string& text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

const std::string kClock = "5 C1 5 c? 5 C0 5";
const std::string kPacedClock = " ' k 5 C1 5 ' 5 C0 5 ' k ";

class Bus : public ModuleTest, public ::testing::WithParamInterface<BusStep> {};

INSTANTIATE_TEST_SUITE_P(
    ClockGenerator, Bus,
    ::testing::Values(BusStep{"Start", [] { CdceStart(0); }, "5 D1 5 5 C1 5 c? 5 D0 5 5 5 C0 5"},
                      BusStep{"Stop", [] { CdceStop(0); }, "5 D0 5 5 5 C0 5 5 C1 5 c? 5 D1 5"},
                      BusStep{"Send", [] { CdceSend(0, 0x40); },
                              "5 D0 5 5" + kPacedClock + "5 D1 5" + kPacedClock +
                                  times(6, "5 D0 5 5" + kPacedClock) + "5 D1 5"},
                      BusStep{"WaitForAcknowledge", [] { WsdaCdce(0, 0), CdceWack(0, 1); },
                              "5 D0 5 5 d? " + kClock},
                      BusStep{"ClockAcknowledge", [] { CdceWack(0, 0); }, "20 turns " + kClock},
                      BusStep{"Receive", [] { EXPECT_EQ(CdceReceive(0), 0xFF); },
                              "5 D1 5" + times(8, " 5 C1 5 c? d? 5 C0 5")},
                      BusStep{"Acknowledge", [] { CdceAck(0, 1); }, "5 D0 5 5 " + kClock + " 5 D1 5"},
                      BusStep{"WithholdAcknowledge", [] { CdceAck(0, 0); }, "5 D1 5 " + kClock + " 5 D1 5"}),
    kRowName);

INSTANTIATE_TEST_SUITE_P(
    Sensor, Bus,
    ::testing::Values(BusStep{"Start", [] { ad7414_start(0, 2); }, "5 D1 5 5 C1 5 c? 5 D0 5 5 C0 5"},
                      BusStep{"Send", [] { ad7414_send(0, 0x40, 2); },
                              "5 D0 5 " + kClock + " 5 D1 5 " + kClock + times(6, " 5 D0 5 " + kClock) +
                                  " 5 D1 5"},
                      BusStep{"Acknowledge", [] { ad7414_ack(0, 1, 2); }, "5 D0 5 " + kClock + " 5 D1 5"},
                      BusStep{"ThatIsNone",
                              [] {
                                ad7414_start(0, 3);
                                EXPECT_EQ(RSDA_AD7414(0, 3), 1);
                              },
                              "5 5 5 5 5 5 5 5"}),
    kRowName);

TEST_P(Bus, TakesItsSteps) {
  fake.start(0);
  GetParam().routine();
  EXPECT_EQ(brief(fake.steps), GetParam().steps);
}

TEST_F(ModuleTest, BusesLookForAnAcknowledgeTwoHundredTimesAndForAHighClockForEver) {
  fake.start(0);
  WsdaCdce(0, 1);
  fake.steps.clear();
  CdceWack(0, 1);
  EXPECT_EQ(brief(fake.steps), times(200, "d? ") + kClock);

  // A register that is not the line's reads all ones: neither that nor 0 is a high clock.
  int looks = 0;
  fake.onRead = [&](u32) { return ++looks == 1000 ? u16{1} : looks % 2 != 0 ? u16{0} : u16{0xFFFF}; };
  CdceStop(0);
  EXPECT_EQ(looks, 1000);
}

// The conversion takes 29 us; a kick of the watchdog stands in each of a hundred waits for it.
TEST_F(ModuleTest, AReadingOrdersAConversionWaitsAndFetchesWithTasksHeldOff) {
  fake.start(0);
  const auto stepsOf = [&](const std::function<void()>& routine) {
    fake.steps.clear();
    routine();
    return brief(fake.steps);
  };
  u8 read[2] = {};
  EXPECT_EQ(stepsOf([] { get_temper(0, 2); }), stepsOf([&] {
              os::taskLock();
              ad7414_reg_read(0, read, 1, 1, 2), ad7414_reg_write(0, 1, 0xFF, 2);
              for (int i = 0; i < 100; ++i) chassis::Dog(), delay();
              ad7414_reg_read(0, read, 0, 2, 2);
              os::taskUnlock();
            }));
}

// ---- Synthesizers ----

class Synthesizer : public ModuleTest, public ::testing::WithParamInterface<Words> {};

INSTANTIATE_TEST_SUITE_P(
    Word, Synthesizer,
    ::testing::Values(
        Words{"FirstOscillator", [] { SetLO1Freq(0); }, "lo1_", {0x9F8096, 0x001040, 0x0AA501, 0x9F8092}, -1},
        Words{"Rf474", [] { SetFreq(0, 474000); }, "lo2_q1_", {0x9F8016, 0x001040, 0x0F5001, 0x9F8012}, 1},
        // n = 208000, 2.6 GHz to the Hz: the lower band's last
        Words{"LastOfTheLowerBand",
              [] { SetFreq(0, 1506000); },
              "lo2_q1_",
              {0x9F8016, 0x001040, 6500 << 8 | 1, 0x9F8012},
              1},
        Words{"FirstOfTheUpperBand",
              [] { SetFreq(0, 1506001); },
              "lo2_q1_",
              {0x9F8016, 0x001040, 6500 << 8 | 1, 0x9F8012},
              0},
        // 1568006250 Hz lies between two steps: n = 125441
        Words{"HalfAStepGoesUp",
              [] { set_pll(1, 2, 0, 1568006250, 0); },
              "lo2_q1_",
              {0x9F8016, 0x001040, 3920 << 8 | 1 << 2 | 1, 0x9F8012},
              -1},
        Words{"Prescaler8",
              [] { set_pll(0, 0, 0, 100000000, 0); },
              "lo1_",
              {0x1F8016, 0x001040, 1000 << 8 | 1, 0x1F8012},
              -1},
        Words{"NoSuchSynthesizer", [] { set_pll(2, 2, 0, 1568000000, 0); }, "none", {}, -1}),
    kRowName);

TEST_P(Synthesizer, GetsItsLatchesMostSignificantBitFirst) {
  fake.start(0);
  GetParam().routine();
  const std::string lines = GetParam().lines;
  Lines expected;
  if (GetParam().band >= 0) expected.push_back(fmt::format("q1_12v_ctrl={}", GetParam().band));
  for (const u32 word : GetParam().words) {
    for (int bit = 23; bit >= 0; --bit) {
      expected.insert(expected.end(),
                      {lines + "clk=0", fmt::format("{}dat={}", lines, word >> bit & 1), lines + "clk=1"});
    }
    expected.insert(expected.end(), {lines + "le=0", lines + "le=1", lines + "le=0"});
  }
  EXPECT_EQ(fake.steps, expected);
}

// ---- Settings ----

const Lines kDelay{"1000 turns", "dog"};

Lines join(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const Lines kResets = join({{"nrst=3"},
                            kDelay,
                            {"nrst=2", "1 ticks", "nrst=3"},
                            kDelay,
                            {"nrst=3"},
                            kDelay,
                            {"nrst=1", "1 ticks", "nrst=3"},
                            kDelay});

class ModulatorRate : public ModuleTest, public ::testing::WithParamInterface<SymbolRate> {};

INSTANTIATE_TEST_SUITE_P(
    kBd, ModulatorRate,
    ::testing::Values(SymbolRate{"5000", 5000, 0x00CCCCCC}, SymbolRate{"6000", 6000, 0x00AAAAAA},
                      SymbolRate{"6875", 6875, 0x0094F209}, SymbolRate{"7000", 7000, 0x00924924},
                      // 67108864000 and its halves, to the low 32 bits
                      SymbolRate{"1", 1, 0xA0000000}, SymbolRate{"2", 2, 0xD0000000},
                      SymbolRate{"Minus1", -1, 0x60000000}, SymbolRate{"3000000", 3000000, 22369},
                      SymbolRate{"Lowest", std::numeric_limits<i32>::min(), 0xFFFFFFE1}),
    kRowName);

TEST_P(ModulatorRate, GoesOutInFourBytesBeforeAReset) {
  fake.start(0);
  symbolrateinfpga(GetParam().kBd, 0);
  const u32 word = GetParam().word;
  EXPECT_EQ(fake.steps,
            join({{fmt::format("rf_off_hh={}", word >> 24), fmt::format("rf_off_hl={}", word >> 16 & 0xFF),
                   fmt::format("rf_off_lh={}", word >> 8 & 0xFF), fmt::format("rf_off_ll={}", word & 0xFF)},
                  kResets}));
}

TEST_F(ModuleTest, ASymbolRateOfZeroLeavesTheModulatorAlone) {
  fake.start(0);
  symbolrateinfpga(0, 0);
  EXPECT_TRUE(fake.steps.empty());
  ASSERT_EQ(fake.log.size(), 1U);
  EXPECT_TRUE(fake.log[0].starts_with("debug "));
}

class OutputLevel : public ModuleTest, public ::testing::WithParamInterface<Level> {};

INSTANTIATE_TEST_SUITE_P(
    Level, OutputLevel,
    ::testing::Values(Level{"At474", 1000, 474000, 34}, Level{"At50", 1000, 50000, 36},
                      Level{"At100", 1000, 100000, 36}, Level{"Above100", 1000, 100001, 38},
                      Level{"At900", 1000, 900000, 30}, Level{"Above900", 1000, 900001, 30},
                      Level{"Lowest", 835, 800000, 63}, Level{"Highest", 1150, 474000, 4},
                      Level{"TooHigh", 1160, 800000, 13105}, Level{"TooLow", 800, 800000, 70}),
    kRowName);

TEST_P(OutputLevel, IsShiftedIntoTheAttenuatorUnmasked) {
  fake.start(0)->qam_para.rfreq = GetParam().rf_kHz;
  SetRfLevel(0, static_cast<u16>(GetParam().level));
  Lines expected = kDelay;
  for (int bit = 5; bit >= 0; --bit) {
    expected = join({expected,
                     {"att_q1_clk=0"},
                     kDelay,
                     {fmt::format("att_q1_dat={}", GetParam().word >> bit)},
                     kDelay,
                     {"att_q1_clk=1"},
                     kDelay});
  }
  expected = join({expected, {"att_q1_le=0"}, kDelay, {"att_q1_le=1"}, kDelay, {"att_q1_le=0"}, kDelay});
  EXPECT_EQ(fake.steps, expected);
}

TEST_F(ModuleTest, WithoutARecordOrAClockRowNothingIsTouched) {
  QamCardPara* record = fake.start(0);
  SetRfLevel(1, 1000);
  EXPECT_TRUE(fake.steps.empty());
  cdce925set(0, 6900, record->Cd925_para);
  cdce925set(0, 65536 + 5000, record->Cd925_para);  // the low half of which is a row's
  EXPECT_EQ(fake.steps, (Lines{"1 ticks", "1 ticks"}));
}

TEST_F(ModuleTest, ARecordIsAppliedInOrderWithTasksHeldOff) {
  QamCardPara* record = fake.start(3);
  record->qam_para.qammode = 7;
  record->qam_para.power = 0;
  record->qam_para.rfswitch = 1;
  record->qam_para.rflevel = 65536 + 1100;  // the low half counts
  Qam_para_set(3, record);
  Lines landmarks;  // of each device its first line, of each register its writes
  for (const std::string& step : fake.steps) {
    const std::string reg = step.substr(0, step.find_first_of("=?"));
    const bool isDevices = reg.starts_with("cdce") || reg.starts_with("lo") || reg.starts_with("att");
    if (step.find('=') == std::string::npos && !step.ends_with("lock")) continue;
    if (!isDevices) landmarks.push_back(step);
    if (isDevices && (landmarks.empty() || landmarks.back() != reg.substr(0, 4)))
      landmarks.push_back(reg.substr(0, 4));
  }
  const Lines resets{"nrst=3", "nrst=2", "nrst=3", "nrst=3", "nrst=1", "nrst=3"};
  EXPECT_EQ(
      landmarks,
      join({{"lock", "qam_mode=7", "cdce", "rf_off_hh=0", "rf_off_hl=148", "rf_off_lh=242", "rf_off_ll=9"},
            resets,
            {"pkt_len0=1", "pkt_len1=1", "oport_num0=0", "oport_num1=1"},
            resets,
            {"power=0", "rf0_en=1", "lo1_", "q1_12v_ctrl=1", "lo2_", "X24C16SDA=1", "X24C16SCL=1", "att_",
             "unlock"}}));
}

TEST_F(ModuleTest, RatesAreCountedForHalfASecondAndReadInOrder) {
  fake.start(0);
  fake.tickHz = 60;  // 10 ms are no tick, 500 ms are 30
  u16 next = 0x10;
  fake.onRead = [&](u32) { return next++; };
  u32 total = 1, valid = 2;
  FpgaGetRate(0, 2, &total, &valid);
  EXPECT_EQ(fake.steps, (Lines{"rate_ctrl_rst=0", "0 ticks", "rate_ctrl_rst=1", "30 ticks"}));
  EXPECT_TRUE(total == 1 && valid == 2);
  for (const int port : {0, 1}) {
    next = 0x10;
    fake.steps.clear();
    FpgaGetRate(0, static_cast<u8>(port), &total, &valid);
    EXPECT_EQ((Lines{fake.steps.begin() + 4, fake.steps.end()}),
              (Lines{fmt::format("Valid_{}_rateM?", port), fmt::format("Valid_{}_rateH?", port),
                     fmt::format("Valid_{}_rateL?", port), fmt::format("Sys_{}_rateL?", port),
                     fmt::format("Sys_{}_rateH?", port)}));
    EXPECT_EQ(total, 0x111012U * 16);
    EXPECT_EQ(valid, total - 0x1413U * 3008);  // more null packets than bytes: it wraps
  }
  EXPECT_EQ(RateConvert(3, 7), 0U);
}

// ---- The window itself ----

TEST_F(ModuleTest, PidFiltersAreSetByAStrobeEach) {
  fake.start(0);
  qamPidSetFilter(0, 1, 0x1FFF, 1);
  EXPECT_EQ(fake.steps, (Lines{"qampidfilter1_filter_pid_l=8191", "qampidfilter1_filter_pid_h=31",
                               "qampidfilter1_filter_onoff=1", "qampidfilter1_filter_we=1",
                               "qampidfilter1_filter_we=0"}));
  for (const bool pass : {false, true}) {
    fake.accesses.clear();
    pass ? qamFpgaWFilter(0, 0, nullptr) : qamPidFilterAllSet(0, 0, 0);
    ASSERT_EQ(fake.accesses.size(), 8192U * 5);
    for (u32 pid = 0; pid < 8192; ++pid) {
      ASSERT_EQ(fake.accesses[pid * 5].value, pid);
      ASSERT_EQ(fake.accesses[pid * 5 + 2].value, pass);
    }
  }
}

TEST_F(ModuleTest, BenchTestsWriteScratchRegistersAndToggleTheClockLine) {
  fake.start(0);
  fake.onRead = [&](u32 address) { return address == kWindows + 204 ? u16{7} : u16{0x1234}; };
  QamFpgaIfTest(0, 0x1234);
  EXPECT_EQ(fake.steps.front(), "Test0=4660");
  ASSERT_EQ(fake.log.size(), 28U) << "all but the first register are wrong";
  EXPECT_EQ((Lines{fake.log.begin() + 2, fake.log.begin() + 4}),
            (Lines{"debug Reg3 Value Err:", "debug Set Value:1238; Get Value:7\n"}));
  fake.steps.clear();
  QamFpgaTest(0);
  Lines expected;
  for (int i = 0; i < 5; ++i)
    expected = join({expected, {"cdce925_scl=0", "1 ticks", "cdce925_scl=1", "1 ticks"}});
  EXPECT_EQ(fake.steps, expected);
}

}  // namespace
}  // namespace test
