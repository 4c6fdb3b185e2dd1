// What the routines of the card's devices do to their lines, step by step: levels, looks, waits, kicks.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <limits>

#include "card/QamFpga.h"
#include "headend/hardware/card_registers.h"
#include "hw/Cdce925.h"
#include "hw/Qam_set.h"
#include "hw/X24cxx.h"
#include "hw/ad7414.h"
#include "hw/adf4113.h"
#include "tests/module/chassis.h"

namespace test {
namespace {

class Devices : public ModuleTest {
 protected:
  QamCardPara* record = fake.start(0);
};

// ---- The I2C buses ----

// The single steps of a bus, on any slot.
struct Bus {
  const char* name;
  std::string data, clock;
  bool anyLevelIsHigh, slowFall, pacedSend;
  void (*start)(u8);
  void (*stop)(u8);
  void (*sendAddress)(u8, u8 device, u8 address);
  void (*send)(u8, u8);
  void (*takeAcknowledge)(u8, u8 waits);
  u8 (*receive)(u8);
  void (*giveAcknowledge)(u8, u8);
  void (*setClock)(u8, u8);
  void (*setData)(u8, u8);
  u8 (*clockLevel)(u8);
  u8 (*dataLevel)(u8);
};

template <u8 kPlace>
Bus sensorBus(const char* name, const std::string& prefix) {
  return {name,
          prefix + "_sda",
          prefix + "_scl",
          false,
          false,
          false,
          [](u8 slot) { ad7414_start(slot, kPlace); },
          [](u8 slot) { ad7414_stop(slot, kPlace); },
          [](u8 slot, u8 device, u8 address) { ad7414_sendA(slot, device, address, kPlace); },
          [](u8 slot, u8 byte) { ad7414_send(slot, byte, kPlace); },
          [](u8 slot, u8 waits) { ad7414_wack(slot, waits, kPlace); },
          [](u8 slot) { return ad7414_receive(slot, kPlace); },
          [](u8 slot, u8 gives) { ad7414_ack(slot, gives, kPlace); },
          [](u8 slot, u8 level) { WSCL_AD7414(slot, level, kPlace); },
          [](u8 slot, u8 level) { WSDA_AD7414(slot, level, kPlace); },
          [](u8 slot) { return RSCL_AD7414(slot, kPlace); },
          [](u8 slot) { return RSDA_AD7414(slot, kPlace); }};
}

const Bus kBuses[] = {
    sensorBus<1>("sensor 1", "ad7414"),
    sensorBus<2>("sensor 2", "ext_ad7414"),
    {"clock generator", "cdce925_sda", "cdce925_scl", false, true, true, CdceStart, CdceStop, CdceSendA,
     CdceSend, CdceWack, CdceReceive, CdceAck, WsclCdce, WsdaCdce, RsclCdce, RsdaCdce},
    {"EEPROM", "X24C16SDA", "X24C16SCL", true, false, false, x24c16_start, x24c16_stop, x24c16_sendA,
     x24c16_send, x24c16_wack, x24c16_receive, x24c16_ack, WSCL_X24C16, WSDA_X24C16, RSCL_X24C16,
     RSDA_X24C16}};

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

// The steps in words. A change of a line stands between two waits of 5 us, a rise of the clock is looked at;
// whatever is not as drawn stays a step among the words.
std::string inWords(const Bus& bus, const Lines& steps) {
  std::string text = fmt::format("{}", fmt::join(steps, " "));
  const std::pair<std::string, std::string> words[] = {
      {"5us " + bus.data + (bus.slowFall ? "=0 5us 5us" : "=0 5us"), "low"},
      {"5us " + bus.data + "=1 5us", "high"},
      {"5us " + bus.clock + "=0 5us", "fall"},
      {"5us " + bus.clock + "=1 5us " + bus.clock + "?", "rise"},
      {"5us " + bus.clock + "=1 5us", "unwatched"},
      {bus.data + "?", "look"},
      {"5us' dog unwatched 5us' fall 5us' dog", "paced pulse"},
      {"rise fall", "pulse"},
      {"high rise low fall", "start"},
      {"low fall rise high", "stop"},
      {"rise look fall", "read"},
      {"low pulse", "0"},
      {"high pulse", "1"}};
  for (const auto& [drawn, word] : words) replaceAll(text, drawn, word);
  return text;
}

// A byte on its way to the slave.
std::string sent(const Bus& bus, u8 byte) {
  std::string text;
  for (int bit = 7; bit >= 0; --bit) {
    const bool one = (byte >> bit & 1) != 0;
    text += bus.pacedSend ? (one ? "high paced pulse " : "low paced pulse ") : (one ? "1 " : "0 ");
  }
  return text + "high";
}

TEST_F(Devices, BusesTakeTheStepsOfTheirProtocol) {
  for (const Bus& bus : kBuses) {
    SCOPED_TRACE(bus.name);
    // What the slave has on its data line, look by look; a high line after that.
    std::string slave;
    fake.onRead = [&](u32 address) -> std::optional<u16> {
      if (headend::cardRegister(address & 0x1FF).name != bus.data || slave.empty()) return {};
      const u16 level = slave.front() == '1' ? 1 : 0;
      slave.erase(0, 1);
      return level;
    };
    const auto stepsOf = [&](const std::string& answers, const std::function<void()>& step) {
      slave = answers;
      return inWords(bus, fake.stepsOf(step));
    };
    EXPECT_EQ(stepsOf("", [&] { bus.start(0); }), "start");
    EXPECT_EQ(stepsOf("", [&] { bus.stop(0); }), "stop");
    EXPECT_EQ(stepsOf("", [&] { bus.send(0, 0x4D); }), sent(bus, 0x4D));
    EXPECT_EQ(stepsOf("10", [&] { bus.sendAddress(0, 0x94, 0x31); }),
              "start " + sent(bus, 0x94) + " look look pulse " + sent(bus, 0x31));
    EXPECT_EQ(stepsOf("110", [&] { bus.takeAcknowledge(0, 1); }), "look look look pulse");
    EXPECT_EQ(stepsOf("", [&] { bus.takeAcknowledge(0, 0); }), "20 turns pulse");
    EXPECT_EQ(stepsOf("10110010", [&] { EXPECT_EQ(bus.receive(0), 0xB2); }),
              "high read read read read read read read read");
    EXPECT_EQ(stepsOf("", [&] { bus.giveAcknowledge(0, 1); }), "0 high");
    EXPECT_EQ(stepsOf("", [&] { bus.giveAcknowledge(0, 0); }), "1 high");
    EXPECT_EQ(stepsOf("", [&] { bus.setClock(0, 0), bus.setClock(0, 1); }), "fall unwatched");
    EXPECT_EQ(stepsOf("", [&] { bus.setData(0, 0), bus.setData(0, 1); }), "low high");
    EXPECT_EQ(stepsOf("10",
                      [&] {
                        EXPECT_EQ(bus.dataLevel(0), 1);
                        EXPECT_EQ(bus.dataLevel(0), 0);
                        EXPECT_EQ(bus.clockLevel(0), 1);
                      }),
              "look look " + bus.clock + "?");

    std::string unanswered;
    for (int i = 0; i < 200; ++i) unanswered += "look ";
    EXPECT_EQ(stepsOf("", [&] { bus.takeAcknowledge(0, 1); }), unanswered + "pulse");

    // A clock that is held low is looked at for ever. Which other value is a high one differs.
    int looks = 0;
    fake.onRead = [&](u32) { return ++looks == 1000 ? u16{1} : looks % 2 != 0 ? u16{0} : u16{0x80}; };
    bus.stop(0);
    EXPECT_EQ(looks, bus.anyLevelIsHigh ? 2 : 1000);
  }
}

TEST_F(Devices, TheClockGeneratorsSetUpBeginsOnAnIdleBus) {
  const std::string told = inWords(kBuses[2], fake.stepsOf([] { cdce925_init(0); }));
  EXPECT_TRUE(told.starts_with("high unwatched cdce925_s0=1 start")) << told;
}

TEST_F(Devices, ASensorThatThereIsNotIsAnIdleBus) {
  const Bus none = sensorBus<3>("none", "none");
  EXPECT_EQ(fake.stepsOf([&] { none.start(0); }), Lines(8, "5us"));
  EXPECT_EQ(none.dataLevel(0), 1);
}

// The conversion takes 29 us; a kick of the watchdog stands in each of a hundred waits for it.
TEST_F(Devices, AReadingOrdersAConversionWaitsAndFetchesWithTasksHeldOff) {
  const Lines steps = fake.stepsOf([] { get_temper(0, 2); });
  EXPECT_EQ(steps, Lines{"lock"} + fake.stepsOf([] {
    u8 read[2] = {};
    ad7414_reg_read(0, read, 1, 1, 2);
    ad7414_reg_write(0, 1, 0xFF, 2);
    for (int i = 0; i < 100; ++i) chassis::Dog(), delay();
    ad7414_reg_read(0, read, 0, 2, 2);
  }) + Lines{"unlock"});
}

// ---- Synthesizers and attenuator ----

const Lines kDelay{"1000 turns", "dog"};

// A word on its way into a latch, most significant bit first, with a pause after each change of a line.
Lines latched(const std::string& device, int bits, u32 word, const Lines& pause) {
  Lines steps;
  for (int bit = bits - 1; bit >= 0; --bit) {
    // The attenuator's line takes bit 0 of what is written.
    const u32 level = device == "att_q1" ? word >> bit : word >> bit & 1;
    steps = steps + Lines{device + "_clk=0"} + pause + Lines{fmt::format("{}_dat={}", device, level)} +
            pause + Lines{device + "_clk=1"} + pause;
  }
  for (const char* level : {"0", "1", "0"}) steps = steps + Lines{device + "_le=" + level} + pause;
  return steps;
}

TEST_F(Devices, SynthesizersGetTheirLatches) {
  struct Row {
    const char* name;
    std::function<void()> routine;
    const char* device;
    std::vector<u32> words;
    Lines band;
  };
  const Lines lower{"q1_12v_ctrl=1"}, upper{"q1_12v_ctrl=0"};
  constexpr u32 kFunction = 0x9F8012;
  const auto latches = [](u32 b, u32 a, u32 function) {
    return std::vector<u32>{function | 4, 0x001040, b << 8 | a << 2 | 1, function};
  };
  const Row rows[] = {
      {"first oscillator", [] { SetLO1Freq(0); }, "lo1", latches(2725, 0, kFunction | 0x80), {}},
      {"474 MHz", [] { SetFreq(0, 474000); }, "lo2_q1", latches(3920, 0, kFunction), lower},
      // 2.6 GHz to the Hz, and a kHz above
      {"end of lower band", [] { SetFreq(0, 1506000); }, "lo2_q1", latches(6500, 0, kFunction), lower},
      {"start of upper band", [] { SetFreq(0, 1506001); }, "lo2_q1", latches(6500, 0, kFunction), upper},
      {"half a step up", [] { set_pll(1, 2, 0, 1568006250, 0); }, "lo2_q1", latches(3920, 1, kFunction), {}},
      {"prescaler 8", [] { set_pll(0, 0, 0, 100000000, 0); }, "lo1", latches(1000, 0, 0x1F8012), {}},
      {"no such synthesizer", [] { set_pll(2, 2, 0, 1568000000, 0); }, "none", {}, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Lines expected = row.band;
    for (const u32 word : row.words) expected = expected + latched(row.device, 24, word, {});
    EXPECT_EQ(fake.stepsOf(row.routine), expected);
  }
  for (const int length : {0, 1, 32, 33}) {
    const bool fits = length == 1 || length == 32;
    EXPECT_EQ(fake.stepsOf([&] { latch_write(0, 0, 0xA5A5A5A5, length); }),
              fits ? latched("lo1", length, 0xA5A5A5A5, {}) : Lines{})
        << length << " bits";
  }
}

TEST_F(Devices, TheOutputLevelIsCorrectedByFrequencyAndShiftedIntoTheAttenuator) {
  struct Row {
    u16 level;
    u32 rf_kHz, word;
  };
  SetRfLevel(1, 1000);
  EXPECT_EQ(fake.steps, Lines{}) << "a slot without a record";
  for (const Row& row : {Row{1000, 474000, 34},
                         {1000, 50000, 36},
                         {1000, 100000, 36},
                         {1000, 100001, 38},
                         {1000, 900000, 30},
                         {1000, 900001, 30},
                         {835, 800000, 63},
                         {1150, 474000, 4},
                         {1160, 800000, 13105},
                         {800, 800000, 70}}) {
    record->qam_para.rfreq = row.rf_kHz;
    EXPECT_EQ(fake.stepsOf([&] { SetRfLevel(0, row.level); }),
              kDelay + latched("att_q1", 6, row.word, kDelay))
        << row.level << " at " << row.rf_kHz << " kHz";
  }
}

// ---- The modulator ----

TEST_F(Devices, ASymbolRateGoesOutInFourBytesBeforeAReset) {
  Lines resets;
  for (const char* line : {"nrst=2", "nrst=1"})
    resets = resets + Lines{"nrst=3"} + kDelay + Lines{line, "1 ticks", "nrst=3"} + kDelay;
  for (const auto& [kBd, word] : {std::pair{5000, 0x00CCCCCCU},
                                  {6875, 0x0094F209U},
                                  // 67108864000 over it, to the low 32 bits
                                  {1, 0xA0000000U},
                                  {-1, 0x60000000U},
                                  {std::numeric_limits<i32>::min(), 0xFFFFFFE1U}}) {
    const Lines bytes{fmt::format("rf_off_hh={}", word >> 24), fmt::format("rf_off_hl={}", word >> 16 & 0xFF),
                      fmt::format("rf_off_lh={}", word >> 8 & 0xFF),
                      fmt::format("rf_off_ll={}", word & 0xFF)};
    const i32 rate = kBd;
    EXPECT_EQ(fake.stepsOf([&] { symbolrateinfpga(rate, 0); }), bytes + resets) << kBd;
  }
  EXPECT_EQ(fake.stepsOf([] { symbolrateinfpga(0, 0); }), Lines{});
  ASSERT_EQ(fake.log.size(), 1U);
  EXPECT_TRUE(fake.log[0].starts_with("debug "));
  // Nor is there a clock without a row, such as one of which the low half is a row's.
  for (const u32 unknown : {6900U, 65536U + 5000})
    EXPECT_EQ(fake.stepsOf([&] { cdce925set(0, unknown, record->Cd925_para); }), Lines{"1 ticks"});
}

TEST_F(Devices, ARecordIsAppliedInOrderWithTasksHeldOff) {
  record->qam_para.qammode = 7;
  record->qam_para.power = 0;
  record->qam_para.rfswitch = 1;
  record->qam_para.rflevel = 65536 + 1150;  // the low half counts
  Qam_para_set(0, record);
  EXPECT_EQ(fake.landmarks(),
            (Lines{"lock", "qam_mode=7", "cdce925", "rf_off", "nrst", "pkt_len0=1", "pkt_len1=1",
                   "oport_num0=0", "oport_num1=1", "nrst", "power=0", "rf0_en=1", "lo1", "q1_12v_ctrl=1",
                   "lo2", "X24C16SDA=1", "X24C16SCL=1", "att", "unlock"}));
  EXPECT_EQ(std::count(fake.steps.begin(), fake.steps.end(), "att_q1_dat=2"), 1) << "1 dB for the frequency";
}

TEST_F(Devices, RatesAreCountedForHalfASecondAndReadInOrder) {
  fake.tickHz = 60;  // 10 ms are no tick, 500 ms are 30
  u32 total = 1, valid = 2;
  const Lines counted{"rate_ctrl_rst=0", "0 ticks", "rate_ctrl_rst=1", "30 ticks"};
  EXPECT_EQ(fake.stepsOf([&] { FpgaGetRate(0, 2, &total, &valid); }), counted);
  EXPECT_TRUE(total == 1 && valid == 2);
  for (const u8 port : {u8{0}, u8{1}}) {
    fake.onRead = [next = u16{0x10}](u32) mutable { return next++; };
    Lines reads;
    for (const char* part :
         {"Valid_{}_rateM?", "Valid_{}_rateH?", "Valid_{}_rateL?", "Sys_{}_rateL?", "Sys_{}_rateH?"})
      reads.push_back(fmt::format(fmt::runtime(part), port));
    EXPECT_EQ(fake.stepsOf([&] { FpgaGetRate(0, port, &total, &valid); }), counted + reads);
    EXPECT_EQ(total, 0x111012U * 16);
    EXPECT_EQ(valid, total - 0x1413U * 3008);  // more null packets than bytes: it wraps
  }
  EXPECT_EQ(RateConvert(3, 7), 0U);
}

// ---- The window itself ----

TEST_F(Devices, PidFiltersAreSetByAStrobeEach) {
  EXPECT_EQ(
      fake.stepsOf([] { qamPidSetFilter(0, 1, 0x1FFF, 1); }),
      (Lines{"qampidfilter1_filter_pid_l=8191", "qampidfilter1_filter_pid_h=31",
             "qampidfilter1_filter_onoff=1", "qampidfilter1_filter_we=1", "qampidfilter1_filter_we=0"}));
  for (const bool pass : {false, true}) {
    fake.forget();
    pass ? qamFpgaWFilter(0, 0, nullptr) : qamPidFilterAllSet(0, 0, 0);
    ASSERT_EQ(fake.accesses.size(), 8192U * 5);
    for (u32 pid = 0; pid < 8192; ++pid) {
      ASSERT_EQ(fake.accesses[pid * 5].value, pid);
      ASSERT_EQ(fake.accesses[pid * 5 + 2].value, pass);
    }
  }
}

TEST_F(Devices, BenchTestsWriteScratchRegistersAndToggleTheClockLine) {
  fake.onRead = [&](u32 address) { return address == kWindows + 204 ? u16{7} : u16{0x1234}; };
  QamFpgaIfTest(0, 0x1234);
  EXPECT_EQ(fake.steps.front(), "Test0=4660");
  ASSERT_EQ(fake.log.size(), 28U) << "all but the first register are wrong";
  EXPECT_EQ((Lines{fake.log.begin() + 2, fake.log.begin() + 4}),
            (Lines{"debug Reg3 Value Err:", "debug Set Value:1238; Get Value:7\n"}));
  Lines toggles;
  for (int i = 0; i < 5; ++i)
    toggles = toggles + Lines{"cdce925_scl=0", "1 ticks", "cdce925_scl=1", "1 ticks"};
  EXPECT_EQ(fake.stepsOf([] { QamFpgaTest(0); }), toggles);
}

}  // namespace
}  // namespace test
