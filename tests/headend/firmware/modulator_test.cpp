// A running card, its settings changed as the chassis changes them, judged at the RF connector.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "card/QamCardPara.h"
#include "card/qamVar.h"
#include "headend/hardware/faults.h"
#include "platform/address_word.h"
#include "tests/headend/headend_run.h"
#include "tests/headend/packets.h"

namespace test {
namespace {

using headend::RfOutput;

class Powered : public Driven {
 public:
  using Driven::Driven;
  RfOutput rf(std::size_t channel = 0) { return card().rf(channel, now()); }
  int set(u32 id, u32 value) {
    const int result = QamSetVar(0, 0, id, value);
    headend().kernel.delay(1);  // the clock settles
    return result;
  }
};

void expectOnAir(const RfOutput& output, double frequency_kHz, double level_dBuV) {
  EXPECT_EQ(output.verdict, RfOutput::Verdict::kOnAir) << output.why;
  EXPECT_NEAR(output.frequency_kHz.value_or(0), frequency_kHz, 6.25);
  EXPECT_EQ(output.level_dBuV, level_dBuV);
}

// Just above a band's edge the second oscillator rounds down to the edge, whose band has another gain than
// the one the setting corrects for: there the level is off by the difference, as on the card.
TEST(Modulator, FollowsEveryFrequencyAndLevel) {
  const std::array<double, 11> gain_dB = {3, 3, 4, 3, 3, 2, 1, 0, 0, 0, 0};  // upper edge: index * 100 MHz
  std::vector<u32> frequencies = {52000, 1000000};
  for (u32 edge = 100000; edge <= 900000; edge += 100000)
    for (const int above : {-7, -1, 0, 1, 6, 7, 13}) frequencies.push_back(edge + static_cast<u32>(above));
  for (u32 frequency = 52001; frequency <= 1000000; frequency += 17919) frequencies.push_back(frequency);
  Powered powered;
  powered.drive([&] {
    u32 setting = 950;  // of the level, each in turn
    for (const u32 frequency : frequencies) {
      SCOPED_TRACE(fmt::format("{} kHz, level {}", frequency, setting));
      powered.set(kVarLevel, setting);
      ASSERT_EQ(powered.set(kVarFrequency, frequency), 0);
      const std::size_t band = (frequency + 99999) / 100000;
      const u32 above = frequency % 100000;
      const bool roundedToEdge = above >= 1 && above <= 6;
      const double level = setting / 10.0 + (roundedToEdge ? gain_dB[band - 1] - gain_dB[band] : 0);
      expectOnAir(powered.rf(0), frequency, level);
      expectOnAir(powered.rf(1), frequency + 8000, level);
      setting = setting == 1150 ? 950 : setting + 5;
    }
  });
}

TEST(Modulator, FollowsConstellationAndSwitches) {
  Powered powered;
  powered.drive([&] {
    for (const auto& [code, points] : {std::pair{7U, 256U}, {6U, 128U}, {5U, 64U}}) {
      powered.set(kVarConstellation, code);
      EXPECT_EQ(powered.rf().constellation, points);
      EXPECT_EQ(powered.rf().verdict, RfOutput::Verdict::kOnAir);
      EXPECT_DOUBLE_EQ(powered.rf().bitRate, 6875e3 * std::log2(points) * 188 / 204);
    }
    powered.set(kVarQamSwitch, 1);
    EXPECT_EQ(powered.rf().verdict, RfOutput::Verdict::kOff);
    powered.set(kVarQamSwitch, 0);
    powered.set(kVarPower, 0);
    EXPECT_EQ(powered.rf(1).verdict, RfOutput::Verdict::kOff);
    powered.set(kVarPower, 15);
    EXPECT_EQ(powered.rf().verdict, RfOutput::Verdict::kOnAir);
    powered.set(kVarFrequency, 1600000);  // above the menus' range: the upper band of the oscillator
    EXPECT_EQ(powered.rf().verdict, RfOutput::Verdict::kOnAir) << powered.rf().why;
  });
}

TEST(Modulator, RunsOnAClockForEveryRateOfItsTable) {
  Powered powered;
  powered.drive([&] {
    for (u32 rate = 5000; rate <= 7000; rate += 125) {
      SCOPED_TRACE(rate);
      powered.set(kVarSymbolRate, rate);
      const RfOutput output = powered.rf();
      EXPECT_EQ(output.verdict, RfOutput::Verdict::kOnAir) << output.why;
      EXPECT_EQ(output.symbolRate_kBd, rate);
      EXPECT_NEAR(output.clock_kBd.value_or(0) / rate, 1, 2e-8);
    }
    powered.set(kVarSymbolRate, 6900);  // no row: the clock does not follow
    EXPECT_EQ(powered.rf().verdict, RfOutput::Verdict::kFaulty);
    EXPECT_EQ(powered.rf().symbolRate_kBd, 6900U);
    EXPECT_NEAR(powered.rf().clock_kBd.value_or(0), 7000, 0.01);

    // A row in the record, for a rate that is not in the factory's table.
    cdce925_para* const table = GetQamCardParaFromList(0)->Cd925_para;
    table[3] = table[8];
    table[3].freq = 6001;
    powered.set(kVarSymbolRate, 6001);
    EXPECT_NEAR(powered.rf().clock_kBd.value_or(0), 6000, 0.01);
  });
}

// The texts against the packets behind the output, from the access that opens the gate to that which reads.
TEST(Modulator, MeasuresTheRatesThatLeave) {
  Powered powered([](headend::Options& options) {
    std::string load = "psi load 1.1 " QAM_SAMPLES "/psi-full.ts";
    for (const auto table : mpeg::kAllTables)
      load += fmt::format(" --interval {}=20", mpeg::tableName(table));
    options.jobs.push_back(headend::jobOf(load));
  });
  std::array<PacketKeeper, 2> sinks;
  for (const std::size_t channel : {0U, 1U}) powered.card().output(channel).setSink(&sinks[channel]);
  powered.drive([&] {
    powered.headend().kernel.delay(500);
    for (const u32 id : {36U, 37U, 44U, 45U}) {
      SCOPED_TRACE(id);
      const std::size_t channel = id < 40 ? 0 : 1;
      const u32 readFirst =
          channel == 0 ? headend::offsetOf("Valid_0_rateM") : headend::offsetOf("Valid_1_rateM");
      std::pair<u64, u64> begin, end;  // packets without null packets, and all
      Nanos opened = 0, readAt = 0;
      powered.card().onRegister([&](u32 offset, u16 value, Nanos now) {
        powered.card().advanceOutputs(now);
        const std::pair<u64, u64> left{sinks[channel].kept.size(), sinks[channel].places};
        if (offset == headend::offsetOf("rate_ctrl_rst") && value == 1) begin = left, opened = now;
        if (offset == readFirst) end = left, readAt = now;
      });
      const std::string text = os::wordAddress<const char>(QamGetVar(0, 0, id, nullptr));
      powered.card().onRegister(nullptr);
      const u64 payload = end.first - begin.first, total = end.second - begin.second;
      EXPECT_EQ(text, fmt::format("{}Kb/s", (id % 4 == 0 ? total : payload) * 2 * 1504 / 1000));
      EXPECT_EQ(payload > 0, channel == 0);
      // A status check may hold the processor when the gate must close.
      EXPECT_TRUE(readAt - opened >= 489'900'000 && readAt - opened <= 506'000'000) << readAt - opened;
    }
  });
}

// ---- Faults ----

headend::Options optionsWith(const std::string& fault, const Scratch& scratch,
                             const std::vector<int>& slots) {
  headend::initFlash(scratch.path / "flash");
  writeFile(scratch.path / "flash" / "eeprom" / "card1.bin", Bytes(2048, 0x25));
  auto options = fastOptions(scratch.path, 4 * kSecond, slots);
  if (!fault.empty()) options.faults.push_back({.place = {0, {}, fault}});
  // A rate different from the clock generator's at power-up.
  options.jobs.push_back(headend::jobOf("var set 1 symbolrate 6250"));
  return options;
}

using Temperatures = std::pair<u32, u32>;

// `why` is a part of what the RF output says; empty: on air. The EEPROM holds 0x25 throughout.
void judge(const std::string& fault, const std::string& why, const Temperatures& expected, int dac) {
  const Scratch scratch;
  Headend headend(optionsWith(fault, scratch, {0}));
  Temperatures temperatures{};
  headend.kernel.at(3 * kSecond, [&] {
    headend.kernel.spawn("tTest", 150, [&] {
      temperatures = {QamGetVar(0, 0, kVarTemperature1, nullptr), QamGetVar(0, 0, kVarTemperature2, nullptr)};
    });
  });
  EXPECT_EQ(run(headend), headend::kExitDone);
  const Nanos now = headend.kernel.now();
  // A stretched clock costs more reads: 286 accesses without, about 1300 without an acknowledge.
  for (const auto& phase : headend.chassis.startup(0)) {
    const bool isStretched = fault == fmt::format("sensor{}-stretch", phase.name.back());
    if (!phase.name.starts_with("temperature")) continue;
    EXPECT_EQ(phase.busAccesses > 3000, isStretched) << phase.name << ": " << phase.busAccesses;
  }
  const RfOutput output = headend.card(0).rf(0, now);
  EXPECT_EQ(output.verdict, why.empty() ? RfOutput::Verdict::kOnAir : RfOutput::Verdict::kFaulty);
  EXPECT_NE(output.why.find(why), std::string::npos) << output.why;
  EXPECT_EQ(output.level_dBuV < 90, fault == "attenuator-no-latch") << output.level_dBuV;
  for (u8 n = 0; n < 13; ++n) EXPECT_EQ(headend.card(0).board().dac.reg(n), dac) << n;
  EXPECT_EQ(temperatures, expected);
}

TEST(Faults, ChangeWhatTheyShould) {
  std::size_t judged = 0;
  const auto expectChange = [&](const std::string& fault, const std::string& why = "",
                                const Temperatures& expected = {25, 25}, int dac = 0x25) {
    EXPECT_EQ(inChild([&] { return judge(fault, why, expected, dac), fault; }), fault);
    judged += fault.empty() ? 0 : 1;
  };
  expectChange("");
  expectChange("attenuator-no-latch");
  expectChange("config-lost");  // before the FPGA is loaded
  using Row = std::tuple<std::string, u32, int>;
  // The value that a sensor then reads, and the DAC's registers.
  const Row onAnyBus[] = {{"absent", 255, 0xFF}, {"no-ack", 255, 0xFF},   {"scl-high", 255, 0xFF},
                          {"sda-low", 0, 0},     {"sda-high", 255, 0xFF}, {"stretch", 25, 0x25}};
  for (const auto& [fault, reads, dac] : onAnyBus) {
    if (fault != "absent") expectChange("clock-" + fault, "clock");
    expectChange("sensor1-" + fault, "", {reads, 25});
    expectChange("sensor2-" + fault, "", {25, reads});
    expectChange("eeprom-" + fault, dac == 0xFF ? "the DAC is asleep" : "", {25, 25}, dac);
  }
  for (const std::string fault : {"no-latch", "no-reference"}) {
    expectChange("lo1-" + fault, "first oscillator");
    expectChange("lo2-" + fault, "second oscillator");
  }
  const std::pair<std::string, const char*> heldLow[] = {{"clock", "cdce925_scl"},
                                                         {"sensor1", "ad7414_scl"},
                                                         {"sensor2", "ext_ad7414_scl"},
                                                         {"eeprom", "X24C16SCL"}};
  for (const auto& [bus, reg] : heldLow) {  // the card hangs at this register, and no other card
    const std::string end = inChild([&bus = bus] {
      const Scratch scratch;
      Headend headend(optionsWith(bus + "-scl-low", scratch, {0, 1}));
      EXPECT_EQ(run(headend), headend::kExitFailed);
      EXPECT_EQ(headend.card(1).rf(0, headend.kernel.now()).verdict, RfOutput::Verdict::kOnAir);
      EXPECT_EQ(headend.state(0), protocol::CardState::kHung);
      EXPECT_EQ(headend.observation.parkedTasks().size(), 1U);
      return headend.observation.parkedTasks().at(0).reg;
    });
    EXPECT_EQ(end, std::string("slot 1 ") + reg);
    ++judged;
  }
  EXPECT_EQ(judged, headend::faultKinds().size()) << "all are judged";
}

}  // namespace
}  // namespace test
