// A running card, its settings changed as the chassis changes them, judged at the RF connector.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "card/QamCardPara.h"
#include "card/QamFpga.h"
#include "card/qamVar.h"
#include "headend/hardware/faults.h"
#include "hw/adf4113.h"
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
    headend().kernel().delay(1);  // the clock settles
    return result;
  }
  static u32 get(u32 id) { return QamGetVar(0, 0, id, nullptr); }
  static QamCardPara& record() { return *GetQamCardParaFromList(0); }
};

void expectOnAir(const RfOutput& output, double frequency_kHz, double level_dBuV) {
  EXPECT_EQ(output.verdict, RfOutput::Verdict::kOnAir) << output.why;
  EXPECT_NEAR(output.frequency_kHz.value_or(0), frequency_kHz, 6.25);
  EXPECT_EQ(output.level_dBuV, level_dBuV);
}

// Just above a band's edge the second oscillator rounds down to the edge, whose band has another gain than
// the one the setting corrects for: there the level is off by the difference, as on the card.
TEST(Modulator, FollowsEveryFrequency) {
  const std::array<double, 11> gain_dB = {3, 3, 4, 3, 3, 2, 1, 0, 0, 0, 0};  // upper edge: index * 100 MHz
  std::vector<u32> frequencies = {52000, 1000000};
  for (u32 edge = 100000; edge <= 900000; edge += 100000)
    for (const int above : {-7, -1, 0, 1, 6, 7, 13}) frequencies.push_back(edge + static_cast<u32>(above));
  for (u32 frequency = 52001; frequency <= 1000000; frequency += 17919) frequencies.push_back(frequency);
  Powered powered;
  powered.drive([&] {
    for (const u32 frequency : frequencies) {
      SCOPED_TRACE(frequency);
      ASSERT_EQ(powered.set(kVarFrequency, frequency), 0);
      const std::size_t band = (frequency + 99999) / 100000;
      const u32 above = frequency % 100000;
      const bool roundedToEdge = above >= 1 && above <= 6;
      const double level = 100 + (roundedToEdge ? gain_dB[band - 1] - gain_dB[band] : 0);
      expectOnAir(powered.rf(0), frequency, level);
      expectOnAir(powered.rf(1), frequency + 8000, level);
    }
  });
}

TEST(Modulator, FollowsLevelConstellationAndSwitches) {
  Powered powered;
  powered.drive([&] {
    for (const u32 frequency : {150000U, 858000U}) {
      powered.set(kVarFrequency, frequency);
      for (u32 level = 950; level <= 1150; level += 5) {
        SCOPED_TRACE(fmt::format("{} kHz, level {}", frequency, level));
        powered.set(kVarLevel, level);
        expectOnAir(powered.rf(), frequency, level / 10.0);
      }
    }
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
    set_pll(1, 2, 0, 1648006250, 0);  // half way between two steps: the upper one
    EXPECT_DOUBLE_EQ(powered.rf().frequency_kHz.value_or(0), 554012.5);
    powered.set(kVarFrequency, 1600000);  // beyond the menus: the upper band of the oscillator
    EXPECT_EQ(powered.rf().verdict, RfOutput::Verdict::kOnAir) << powered.rf().why;
    QamFpgaIf[0]->q1_12v_ctrl = 1;
    EXPECT_EQ(powered.rf().verdict, RfOutput::Verdict::kFaulty);
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
      EXPECT_NEAR(output.clock_kBd.value_or(0) / rate, 1, 1e-6);
    }
    powered.set(kVarSymbolRate, 6900);  // no row: the clock stays behind
    EXPECT_EQ(powered.rf().verdict, RfOutput::Verdict::kFaulty);
    EXPECT_EQ(powered.rf().symbolRate_kBd, 6900U);
    EXPECT_NEAR(powered.rf().clock_kBd.value_or(0), 7000, 0.01);

    // A row of the record's own, for a rate that the factory's table does not have.
    cdce925_para& row = Powered::record().Cd925_para[3];
    row = Powered::record().Cd925_para[8];
    row.freq = 6001;
    powered.set(kVarSymbolRate, 6001);
    EXPECT_NEAR(powered.rf().clock_kBd.value_or(0), 6000, 0.01);
  });
}

// The texts against the packets behind the output, from the access that opens the gate to that which reads.
TEST(Modulator, MeasuresTheRatesThatLeave) {
  Powered powered([](headend::Options& options) {
    options.psi.push_back({.channel = {0, 0}, .file = QAM_SAMPLES "/psi-full.ts", .at = 0});
    for (const auto table : client::kAllTables) options.intervals[{0, 0}][table] = 20;
  });
  std::array<PacketKeeper, 2> sinks;
  for (const std::size_t channel : {0U, 1U}) powered.card().output(channel).setSink(&sinks[channel]);
  powered.drive([&] {
    powered.headend().kernel().delay(500);
    for (const u32 id : {36U, 37U, 44U, 45U}) {
      SCOPED_TRACE(id);
      const std::size_t channel = id < 40 ? 0 : 1;
      const u32 readFirst =
          channel == 0 ? headend::offsetOf("Valid_0_rateM") : headend::offsetOf("Valid_1_rateM");
      std::pair<std::size_t, u64> begin, end;  // packets but for null packets, and all
      Nanos opened = 0;
      Nanos readAt = 0;
      powered.card().onRegister([&](u32 offset, u16 value, Nanos now) {
        powered.card().advanceOutputs(now);
        const std::pair left{sinks[channel].kept.size(), sinks[channel].places};
        if (offset == headend::offsetOf("rate_ctrl_rst") && value == 1) begin = left, opened = now;
        if (offset == readFirst) end = left, readAt = now;
      });
      const std::string text = os::wordAddress<const char>(Powered::get(id));
      powered.card().onRegister(nullptr);
      const u64 payload = end.first - begin.first;
      const u64 total = end.second - begin.second;
      const bool isTotal = id == 36 || id == 44;
      EXPECT_EQ(text, fmt::format("{}Kb/s", (isTotal ? total : payload) * 2 * 1504 / 1000));
      EXPECT_EQ(payload > 0, channel == 0);
      // A status pass may hold the processor when the gate is to close.
      EXPECT_TRUE(readAt - opened >= 489'900'000 && readAt - opened <= 506'000'000) << readAt - opened;
    }
  });
}

// ---- Faults ----

struct FaultRow {
  const char* name;
  std::string_view fault;  // empty: none
  const char* why;         // of the RF output: a part of it; empty: on air
  int temperature1, temperature2;
  const char* hangsAt;  // register; null: does not hang
  int dac = 0x5A;       // its registers: what the EEPROM holds
};

void PrintTo(const FaultRow& row, std::ostream* out) {
  *out << row.name;
}

const FaultRow kFaultRows[] = {
    FaultRow{"None", "", "", 25, 25, nullptr},
    FaultRow{"ClockNoAck", "clock-no-ack", "clock", 25, 25, nullptr},
    FaultRow{"ClockSclLow", "clock-scl-low", nullptr, 0, 0, "cdce925_scl"},
    FaultRow{"ClockSclHigh", "clock-scl-high", "clock", 25, 25, nullptr},
    FaultRow{"ClockSdaLow", "clock-sda-low", "clock", 25, 25, nullptr},
    FaultRow{"ClockSdaHigh", "clock-sda-high", "clock", 25, 25, nullptr},
    FaultRow{"ClockStretch", "clock-stretch", "clock", 25, 25, nullptr},
    FaultRow{"Sensor1Absent", "sensor1-absent", "", 255, 25, nullptr},
    FaultRow{"Sensor1NoAck", "sensor1-no-ack", "", 255, 25, nullptr},
    FaultRow{"Sensor1SclLow", "sensor1-scl-low", nullptr, 0, 0, "ad7414_scl"},
    FaultRow{"Sensor1SclHigh", "sensor1-scl-high", "", 255, 25, nullptr},
    FaultRow{"Sensor1SdaLow", "sensor1-sda-low", "", 0, 25, nullptr},
    FaultRow{"Sensor1SdaHigh", "sensor1-sda-high", "", 255, 25, nullptr},
    FaultRow{"Sensor1Stretch", "sensor1-stretch", "", 25, 25, nullptr},
    FaultRow{"Sensor2Absent", "sensor2-absent", "", 25, 255, nullptr},
    FaultRow{"Sensor2NoAck", "sensor2-no-ack", "", 25, 255, nullptr},
    FaultRow{"Sensor2SclLow", "sensor2-scl-low", nullptr, 0, 0, "ext_ad7414_scl"},
    FaultRow{"Sensor2SclHigh", "sensor2-scl-high", "", 25, 255, nullptr},
    FaultRow{"Sensor2SdaLow", "sensor2-sda-low", "", 25, 0, nullptr},
    FaultRow{"Sensor2SdaHigh", "sensor2-sda-high", "", 25, 255, nullptr},
    FaultRow{"Sensor2Stretch", "sensor2-stretch", "", 25, 25, nullptr},
    FaultRow{"EepromAbsent", "eeprom-absent", "", 25, 25, nullptr, 0xFF},
    FaultRow{"EepromNoAck", "eeprom-no-ack", "", 25, 25, nullptr, 0xFF},
    FaultRow{"EepromSclLow", "eeprom-scl-low", nullptr, 0, 0, "X24C16SCL"},
    FaultRow{"EepromSclHigh", "eeprom-scl-high", "", 25, 25, nullptr, 0xFF},
    FaultRow{"EepromSdaLow", "eeprom-sda-low", "", 25, 25, nullptr, 0x00},
    FaultRow{"EepromSdaHigh", "eeprom-sda-high", "", 25, 25, nullptr, 0xFF},
    FaultRow{"EepromStretch", "eeprom-stretch", "", 25, 25, nullptr, 0x5A},
    FaultRow{"Lo1NoLatch", "lo1-no-latch", "first oscillator", 25, 25, nullptr},
    FaultRow{"Lo2NoLatch", "lo2-no-latch", "second oscillator", 25, 25, nullptr},
    FaultRow{"AttenuatorNoLatch", "attenuator-no-latch", "", 25, 25, nullptr},
    FaultRow{"Lo1NoReference", "lo1-no-reference", "first oscillator", 25, 25, nullptr},
    FaultRow{"Lo2NoReference", "lo2-no-reference", "second oscillator", 25, 25, nullptr}};

class Faults : public ::testing::TestWithParam<FaultRow> {};

INSTANTIATE_TEST_SUITE_P(Named, Faults, ::testing::ValuesIn(kFaultRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(Faults, ChangeWhatTheyShould) {
  const FaultRow& row = GetParam();
  const Scratch scratch;
  headend::initFlash(scratch.path / "flash");
  const bool hangs = row.hangsAt != nullptr;
  auto options = fastOptions(scratch.path, 4 * kSecond, hangs ? std::vector{0, 1} : std::vector{0});
  writeFile(scratch.path / "flash" / "eeprom" / "card1.bin", Bytes(2048, 0x5A));
  if (!row.fault.empty()) options.faults.push_back({.slot = 0, .name = std::string(row.fault), .at = 0});
  // Another rate than the one that the clock generator gives at power-up.
  options.settings.push_back(
      {.slot = 0, .id = kVarSymbolRate, .name = "symbolrate", .value = 6250, .warning = {}, .at = 0});
  Headend headend(options);
  std::array<u32, 2> temperatures{};
  headend.kernel().at(3 * kSecond, [&] {
    if (hangs) return;
    headend.kernel().spawn("tTest", 150, [&] {
      temperatures = {QamGetVar(0, 0, kVarTemperature1, nullptr), QamGetVar(0, 0, kVarTemperature2, nullptr)};
    });
  });
  EXPECT_EQ(run(headend), hangs ? headend::kExitFailed : headend::kExitDone);
  const Nanos now = headend.kernel().now();
  if (hangs) {
    EXPECT_EQ(headend.card(1).rf(0, now).verdict, RfOutput::Verdict::kOnAir) << "the other card is well";
    EXPECT_EQ(headend.state(1), Headend::CardState::kRunning);
    EXPECT_EQ(headend.state(0), Headend::CardState::kHung);
    ASSERT_EQ(headend.parkedTasks().size(), 1U);
    EXPECT_EQ(headend.parkedTasks()[0].reg, fmt::format("slot 1 {}", row.hangsAt));
    return;
  }
  // A clock that is stretched costs looks at it: 286 accesses without, some 1300 without an acknowledge.
  for (const auto& phase : headend.chassis().timeline(0).phases(now, 0)) {
    const bool isStretched = row.fault.ends_with("-stretch") && phase.name.ends_with(row.fault.substr(6, 1));
    if (phase.name.starts_with("temperature sensor")) {
      EXPECT_EQ(phase.busAccesses > 3000, isStretched) << phase.name << ": " << phase.busAccesses;
    }
  }
  const RfOutput output = headend.card(0).rf(0, now);
  const bool isWell = std::string_view(row.why).empty();
  EXPECT_EQ(output.verdict, isWell ? RfOutput::Verdict::kOnAir : RfOutput::Verdict::kFaulty);
  EXPECT_NE(output.why.find(row.why), std::string::npos) << output.why;
  const bool unlatched = row.fault == "attenuator-no-latch";
  EXPECT_EQ(output.level_dBuV < 90, unlatched) << output.level_dBuV;
  for (u8 n = 0; n < 13; ++n) EXPECT_EQ(headend.card(0).board().dac().reg(n), row.dac) << n;
  EXPECT_EQ(temperatures[0], static_cast<u32>(row.temperature1));
  EXPECT_EQ(temperatures[1], static_cast<u32>(row.temperature2));
}

TEST(FaultNames, AreAllTested) {
  for (const headend::FaultKind& kind : headend::faultKinds()) {
    EXPECT_TRUE(std::any_of(std::begin(kFaultRows), std::end(kFaultRows), [&](const FaultRow& row) {
      return row.fault == kind.name;
    })) << kind.name;
  }
}

}  // namespace
}  // namespace test
