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

// A bus, and a session that takes each of its single steps on slot 0.
struct Bus {
  const char* name;
  std::string data, clock;
  bool anyLevelIsHigh, slowFall, pacedSend;
  void (*session)();
};

template <auto start, auto stop, auto sendAddress, auto send, auto takeAcknowledge, auto receive,
          auto giveAcknowledge, auto setClock, auto setData, auto clock, auto data, u8... place>
void session() {
  start(0, place...);
  start(0, place...);
  stop(0, place...);
  send(0, 0x4D, place...);
  sendAddress(0, 0x94, 0x31, place...);
  takeAcknowledge(0, 1, place...);
  takeAcknowledge(0, 0, place...);
  EXPECT_EQ(receive(0, place...), 0xB2);
  giveAcknowledge(0, 1, place...);
  giveAcknowledge(0, 0, place...);
  setClock(0, 0, place...);
  setClock(0, 1, place...);
  setData(0, 0, place...);
  setData(0, 1, place...);
  EXPECT_TRUE(data(0, place...) == 1 && data(0, place...) == 0 && clock(0, place...) == 1);
  takeAcknowledge(0, 1, place...);
}

template <u8 place>
constexpr auto kSensorSession =
    session<ad7414_start, ad7414_stop, ad7414_sendA, ad7414_send, ad7414_wack, ad7414_receive, ad7414_ack,
            WSCL_AD7414, WSDA_AD7414, RSCL_AD7414, RSDA_AD7414, place>;

const Bus kBuses[] = {
    {"sensor 1", "ad7414_sda", "ad7414_scl", false, false, false, kSensorSession<1>},
    {"sensor 2", "ext_ad7414_sda", "ext_ad7414_scl", false, false, false, kSensorSession<2>},
    {"clock generator", "cdce925_sda", "cdce925_scl", false, true, true,
     session<CdceStart, CdceStop, CdceSendA, CdceSend, CdceWack, CdceReceive, CdceAck, WsclCdce, WsdaCdce,
             RsclCdce, RsdaCdce>},
    {"EEPROM", "X24C16SDA", "X24C16SCL", true, false, false,
     session<x24c16_start, x24c16_stop, x24c16_sendA, x24c16_send, x24c16_wack, x24c16_receive, x24c16_ack,
             WSCL_X24C16, WSDA_X24C16, RSCL_X24C16, RSDA_X24C16>}};

Lines repeated(int times, const Lines& steps) {
  return times == 0 ? Lines{} : steps + repeated(times - 1, steps);
}

TEST_F(Devices, BusesTakeTheStepsOfTheirProtocol) {
  for (const Bus& bus : kBuses) {
    // The slave's line levels, read by read; high lines after that. It holds the first clock low, at levels
    // of which only one bus takes the second for a high one.
    std::deque<u16> clock{0, 0x80, 1};
    std::deque<u16> data{1, 0, 1, 1, 0, 1, 0, 1, 1, 0, 0, 1, 0, 1, 0};
    fake.onRead = [&](u32 address) -> std::optional<u16> {
      std::deque<u16>& line = headend::cardRegister(address & 0x1FF).name == bus.data ? data : clock;
      if (line.empty()) return {};
      const u16 level = line.front();
      line.pop_front();
      return level;
    };
    // A change of a line is between two waits; a rise of the clock is read back.
    const auto change = [](const std::string& step) { return Lines{"5us", step, "5us"}; };
    const Lines low = change(bus.data + "=0") + Lines(bus.slowFall ? 1 : 0, "5us"),
                high = change(bus.data + "=1");
    const Lines fall = change(bus.clock + "=0"), unwatched = change(bus.clock + "=1");
    const Lines look{bus.data + "?"}, watch{bus.clock + "?"};
    const Lines rise = unwatched + watch, pulse = rise + fall, read = rise + look + fall;
    const Lines pause{"5us'", "dog"}, paced = pause + unwatched + Lines{"5us'"} + fall + pause;
    const Lines start = high + rise + low + fall, stop = low + fall + rise + high;
    const auto sent = [&](u8 byte) {
      Lines steps;
      for (int bit = 7; bit >= 0; --bit)
        steps = steps + ((byte >> bit & 1) != 0 ? high : low) + (bus.pacedSend ? paced : pulse);
      return steps + high;
    };
    const Lines expected = high + rise + repeated(bus.anyLevelIsHigh ? 1 : 2, watch) + low + fall + start +
                           stop + sent(0x4D) + start + sent(0x94) + repeated(2, look) + pulse + sent(0x31) +
                           repeated(3, look) + pulse + Lines{"20 turns"} + pulse + high + repeated(8, read) +
                           low + pulse + high + high + pulse + high + fall + unwatched + low + high +
                           repeated(2, look) + watch + repeated(200, look) + pulse;
    EXPECT_EQ(fmt::format("{}", fmt::join(fake.stepsOf(bus.session), "\n")),
              fmt::format("{}", fmt::join(expected, "\n")))
        << bus.name;
  }
}

TEST_F(Devices, SetUpsBeginOnAnIdleBus) {
  Lines steps = fake.stepsOf([] { cdce925_init(0); });
  steps.resize(7);
  EXPECT_EQ(steps, (Lines{"5us", "cdce925_sda=1", "5us", "5us", "cdce925_scl=1", "5us", "cdce925_s0=1"}));
  steps = fake.stepsOf([] { ad7414_init(0, 1); });
  steps.resize(5);
  EXPECT_EQ(steps, (Lines{"5us", "ad7414_sda=1", "5us", "5us", "ad7414_scl=1"}));
}

TEST_F(Devices, ASensorThatThereIsNotIsAnIdleBus) {
  EXPECT_EQ(fake.stepsOf([] { ad7414_start(0, 3); }), Lines(8, "5us"));
  EXPECT_EQ(RSDA_AD7414(0, 3), 1);
  u8 read = 0;
  ad7414_reg_read(0, &read, 0, 1, 3);
  EXPECT_EQ(read, 0xFF);
}

// The conversion takes 29 us; each of a hundred waits for it has a kick of the watchdog.
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
    // The attenuator's line uses bit 0 of the written value.
    const u32 level = device == "att_q1" ? word >> bit : word >> bit & 1;
    steps = steps + Lines{device + "_clk=0"} + pause + Lines{fmt::format("{}_dat={}", device, level)} +
            pause + Lines{device + "_clk=1"} + pause;
  }
  for (const char* level : {"0", "1", "0"}) steps = steps + Lines{device + "_le=" + level} + pause;
  return steps;
}

TEST_F(Devices, SynthesizersGetTheirLatches) {
  // The routine, its device, the function and the counters; the steps before that.
  const std::tuple<void (*)(), const char*, u32, u32, Lines> rows[] = {
      {[] { SetLO1Freq(0); }, "lo1", 0x9F8092, 2725 << 8 | 1, {}},
      // 2.6 GHz to the Hz, and a kHz above
      {[] { SetFreq(0, 1506000); }, "lo2_q1", 0x9F8012, 6500 << 8 | 1, {"q1_12v_ctrl=1"}},
      {[] { SetFreq(0, 1506001); }, "lo2_q1", 0x9F8012, 6500 << 8 | 1, {"q1_12v_ctrl=0"}},
      {[] { set_pll(1, 0, 0, 100000000, 0); }, "lo2_q1", 0x1F8012, 1000 << 8 | 1, {}},   // prescaler 8
      {[] { set_pll(1, 2, 0, 1568006250, 0); }, "lo2_q1", 0x9F8012, 3920 << 8 | 5, {}},  // half a step up
  };
  for (const auto& [routine, device, function, counters, band] : rows) {
    Lines expected = band;
    for (const u32 word : {function | 4, 0x001040U, counters, function})
      expected = expected + latched(device, 24, word, {});
    EXPECT_EQ(fake.stepsOf(routine), expected) << device << ' ' << counters;
  }
  EXPECT_EQ(fake.stepsOf([] { set_pll(2, 2, 0, 1568000000, 0); }), Lines{}) << "no such synthesizer";
  for (const int length : {0, 1, 32, 33}) {
    EXPECT_EQ(fake.stepsOf([&] { latch_write(0, 0, 0xA5A5A5A5, length); }),
              length % 33 == 0 ? Lines{} : latched("lo1", length, 0xA5A5A5A5, {}));
  }
}

TEST_F(Devices, TheOutputLevelIsCorrectedByFrequencyAndShiftedIntoTheAttenuator) {
  EXPECT_EQ(fake.stepsOf([] { SetRfLevel(1, 1000); }), Lines{}) << "a slot without a record";
  const auto expectWord = [&](u16 level, u32 rf_kHz, u32 word) {
    record->qam_para.rfreq = rf_kHz;
    EXPECT_EQ(fake.stepsOf([&] { SetRfLevel(0, level); }), kDelay + latched("att_q1", 6, word, kDelay));
  };
  expectWord(1000, 100000, 36);
  expectWord(1160, 800000, 13105);
  expectWord(1146, 900001, 0);  // above the table, a step too little
}

// ---- The modulator ----

TEST_F(Devices, ASymbolRateGoesOutInFourBytesBeforeAReset) {
  Lines resets;
  for (const char* line : {"nrst=2", "nrst=1"})
    resets = resets + Lines{"nrst=3"} + kDelay + Lines{line, "10 ticks", "nrst=3"} + kDelay;
  const auto expectWord = [&](i32 kBd, u32 word) {
    const Lines bytes{fmt::format("rf_off_hh={}", word >> 24), fmt::format("rf_off_hl={}", word >> 16 & 0xFF),
                      fmt::format("rf_off_lh={}", word >> 8 & 0xFF),
                      fmt::format("rf_off_ll={}", word & 0xFF)};
    EXPECT_EQ(fake.stepsOf([&] { symbolrateinfpga(kBd, 0); }), bytes + resets) << kBd;
  };
  expectWord(6875, 0x0094F209);  // 67108864000 over the rate, to the low 32 bits
  expectWord(1, 0xA0000000);
  expectWord(-1, 0x60000000);
  EXPECT_EQ(fake.stepsOf([] { symbolrateinfpga(0, 0); }), Lines{});
  EXPECT_EQ(fake.log.size(), 1U) << "it says so";
  // There is also no clock without a row, for example if only the low half matches a row.
  EXPECT_EQ(fake.stepsOf([&] { cdce925set(0, 65536 + 5000, record->Cd925_para); }), Lines{"10 ticks"});
}

TEST_F(Devices, ARecordIsAppliedInOrderWithTasksHeldOff) {
  record->qam_para.qammode = 7;
  record->qam_para.power = 0;
  record->qam_para.rfswitch = 1;
  record->qam_para.rflevel = 65536 + 1150;  // only the low half is used
  Qam_para_set(0, record);
  EXPECT_EQ(fake.landmarks(),
            (Lines{"lock", "qam_mode=7", "cdce925", "rf_off", "nrst", "pkt_len0=1", "pkt_len1=1",
                   "oport_num0=0", "oport_num1=1", "nrst", "power=0", "rf0_en=1", "lo1", "q1_12v_ctrl=1",
                   "lo2", "X24C16SDA=1", "X24C16SCL=1", "att", "unlock"}));
  EXPECT_EQ(std::count(fake.steps.begin(), fake.steps.end(), "att_q1_dat=2"), 1) << "1 dB for the frequency";
}

TEST_F(Devices, RatesAreCountedForHalfASecondAndOfNoThirdOutput) {
  const Lines gate{"rate_ctrl_rst=0", "10 ticks", "rate_ctrl_rst=1", "500 ticks"};
  u32 total = 1, valid = 2;
  EXPECT_EQ(fake.stepsOf([&] { FpgaGetRate(0, 2, &total, &valid); }), gate);
  EXPECT_TRUE(total == 1 && valid == 2 && RateConvert(3, 7) == 0);
  for (const u8 port : {u8{0}, u8{1}}) {
    std::deque<u16> counts{0x56, 0x34, 0xF2, 0xE1, 0x8C};  // of bytes and of null packets
    Lines reads;
    for (const char* reg :
         {"Valid_{}_rateM?", "Valid_{}_rateH?", "Valid_{}_rateL?", "Sys_{}_rateL?", "Sys_{}_rateH?"})
      reads.push_back(fmt::format(fmt::runtime(reg), port));
    fake.onRead = [&](u32) {
      const u16 count = counts.front();
      counts.pop_front();
      return count;
    };
    EXPECT_EQ(fake.stepsOf([&] { FpgaGetRate(0, port, &total, &valid); }), gate + reads);
    EXPECT_TRUE(total == 0x3456F2 * 16 && total - valid == 0x8CE1 * 188 * 16) << total << ' ' << valid;
  }
}

// ---- The window itself ----

TEST_F(Devices, PidFiltersAreSetByAStrobeEach) {
  const auto strobes = [](int pass) {
    Lines all;
    for (u32 pid = 0; pid < 8192; ++pid) {
      for (const std::string& step :
           {fmt::format("pid_l={}", pid), fmt::format("pid_h={}", pid >> 8), fmt::format("onoff={}", pass),
            std::string("we=1"), std::string("we=0")})
        all.push_back("qampidfilter1_filter_" + step);
    }
    return all;
  };
  EXPECT_TRUE(fake.stepsOf([] { qamPidFilterAllSet(0, 1, 0); }) == strobes(0));
  EXPECT_TRUE(fake.stepsOf([] { qamFpgaWFilter(0, 1, nullptr); }) == strobes(1));
}

TEST_F(Devices, BenchTestsWriteScratchRegistersAndToggleTheClockLine) {
  fake.onRead = [&](u32 address) { return address == kWindows + 204 ? u16{7} : u16{0x1234}; };
  QamFpgaIfTest(0, 0x1234);
  EXPECT_EQ(fake.steps.front(), "Test0=4660");
  ASSERT_EQ(fake.log.size(), 28U) << "all but the first register are wrong";
  EXPECT_EQ((Lines{fake.log.begin() + 2, fake.log.begin() + 4}),
            (Lines{"debug Reg3 Value Err:", "debug Set Value:1238; Get Value:7\n"}));
  EXPECT_EQ(fake.stepsOf([] { QamFpgaTest(0); }),
            repeated(5, {"cdce925_scl=0", "10 ticks", "cdce925_scl=1", "10 ticks"}));
}

}  // namespace
}  // namespace test
