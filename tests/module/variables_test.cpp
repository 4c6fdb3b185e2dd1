// The card's variables: what a read gives, what a setting does to hardware and record, who keeps the
// semaphore.
#include <fmt/format.h>

#include <algorithm>

#include "card/QamFpga.h"
#include "card/qamVar.h"
#include "platform/address_word.h"
#include "tests/module/chassis.h"

namespace test {

struct Setting {
  const char* name;
  u32 id, value;
  u32 stored;     // what the field then holds
  Lines touched;  // first of each register written, in order
  bool resets;    // of the modulator, in QamSetVar; the older setter does so for the symbol rate only
};

namespace {

class Variables : public ModuleTest {
 public:
  Variables() { semQamVar = reinterpret_cast<os::SEM_ID>(&semaphore_); }
  ~Variables() override { semQamVar = nullptr; }

 protected:
  static u32 get(u32 id) { return QamGetVar(2, 0, id, nullptr); }
  static std::string text(u32 id) { return os::wordAddress<const char>(get(id)); }

  // Registers written, but for the modulator's reset: of runs on one device the first.
  Lines touched() const {
    Lines all;
    for (const std::string& step : fake.steps) {
      if (step.find('=') == std::string::npos || step.starts_with("nrst")) continue;
      const std::string device = step.substr(0, step.find('_') + 1);
      const bool isDevices = device == "lo2_" || device == "att_" || device == "cdce925_" || device == "rf_";
      if (!isDevices)
        all.push_back(step);
      else if (all.empty() || all.back() != device)
        all.push_back(device);
    }
    return all;
  }
  bool resets() const {
    return std::find(fake.steps.begin(), fake.steps.end(), "nrst=2") != fake.steps.end();
  }

 private:
  int semaphore_ = 0;
};

TEST_F(Variables, ReadsAreTheRecordsTheCountersAndTheVersions) {
  QamCardPara* record = fake.start(2);
  record->qam_para.rfreq = 554000;
  record->qam_para.rflevel = 1012;
  record->qam_para.symbolrate = 6875;
  record->qam_para.qammode = 6;
  record->qam_para.rfswitch = 1;
  record->qam_para.power = 15;
  u32 id = 30;
  for (const u32 value : {554000U, 1012U, 6875U, 6U, 1U, 15U}) {
    EXPECT_EQ(get(id), value) << id;
    EXPECT_EQ(get(id + 8), value + (id == 30 ? 8000 : 0)) << id + 8;
    ++id;
  }
  for (const u32 none : {29U, 46U, 51U, 53U}) EXPECT_EQ(get(none), 0U) << none;
  EXPECT_EQ(text(49), "V2.1.05A");
  EXPECT_EQ(text(52), "V1.0");
  QamFpgaIf[2]->version = 0x01FF;
  EXPECT_EQ(text(50), "V2.1.55");
  QamFpgaIf[2]->version = 0x07;
  EXPECT_EQ(text(50), "V2.1.07");
  // 2375999 bytes and 1000 null packets in half a second; the other channel had none
  QamFpgaIf[2]->Valid_0_rateH = 2375999 >> 16;
  QamFpgaIf[2]->Valid_0_rateM = 2375999 >> 8 & 0xFF;
  QamFpgaIf[2]->Valid_0_rateL = 2375999 & 0xFF;
  QamFpgaIf[2]->Sys_0_rateH = 1000 >> 8;
  QamFpgaIf[2]->Sys_0_rateL = 1000 & 0xFF;
  EXPECT_EQ(text(36), "38015Kb/s");
  EXPECT_EQ(text(37), "35007Kb/s");
  EXPECT_EQ(text(44), "0Kb/s");
  EXPECT_EQ(text(45), "0Kb/s");
  EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "take"),
            std::count(fake.log.begin(), fake.log.end(), "give"));
}

TEST(AddressWord, FindsObjectsAndRoutinesOfTheImageAgain) {
  static int variable;
  static const int constant = 7;
  const auto routine = reinterpret_cast<const void*>(&QamGetVar);  // code lies on the other side of the data
  for (const void* address :
       {static_cast<const void*>(&variable), static_cast<const void*>(&constant), routine}) {
    EXPECT_EQ(os::wordAddress<const void>(os::addressWord(address)), address);
  }
  EXPECT_EQ(os::wordAddress<const void>(0), nullptr);
}

class Settings : public Variables, public ::testing::WithParamInterface<Setting> {};

INSTANTIATE_TEST_SUITE_P(
    Each, Settings,
    ::testing::Values(
        Setting{"Frequency", 30, 474000, 474000, {"q1_12v_ctrl=1", "lo2_", "att_"}, false},
        Setting{"Level", 31, 1100, 1100, {"att_"}, false},
        Setting{"SymbolRate", 32, 6250, 6250, {"cdce925_", "rf_"}, true},
        Setting{"SymbolRateWithoutARow", 32, 6900, 6900, {"rf_"}, true},
        Setting{"Constellation", 33, 6, 6, {"qam_mode=6"}, true},
        Setting{"WideConstellation", 33, 261, 5, {"qam_mode=261"}, true},  // differs from the 5 stored
        Setting{"QamSwitch", 34, 1, 1, {"rf0_en=1"}, false},
        Setting{"Power", 35, 0x10000, 0, {"power=0"}, false}),
    kRowName);

TEST_P(Settings, GoToTheHardwareAndAreSavedOnce) {
  const Setting& row = GetParam();
  fake.start(2);
  fake.onCall = [&](std::string_view what) {
    EXPECT_FALSE(what == "save" && fake.steps.empty()) << "saved when the hardware has it";
  };
  EXPECT_EQ(QamSetVar(2, 0, row.id, row.value), 0);
  EXPECT_EQ(get(row.id), row.stored);
  EXPECT_EQ(touched(), row.touched);
  EXPECT_EQ(resets(), row.resets);
  EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "save 2"), 1);
  fake.steps.clear();
  fake.log.clear();
  EXPECT_EQ(QamSetVar(2, 0, row.id, row.stored), 0);
  EXPECT_EQ(fake.log, (Lines{"take", "give"})) << "as it was: nothing to do";
  EXPECT_TRUE(fake.steps.empty());
}

TEST_P(Settings, OfTheOlderSetterDifferInClockTableAndReset) {
  const Setting& row = GetParam();
  fake.start(2);
  QamSetVar1(2, 0, row.id, row.value);
  EXPECT_EQ(get(row.id), row.stored);
  Lines expected = row.touched;
  if (row.id == 32) expected = {"rf_"};  // the global record's clock table is empty
  EXPECT_EQ(touched(), expected);
  EXPECT_EQ(resets(), row.id == 32);
  EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "save 2"), 1);
}

TEST_F(Variables, WhatCannotBeSetIsRefusedAndSomeCallsKeepTheSemaphore) {
  const QamCardPara* record = fake.start(2);
  const std::vector<u8> before(reinterpret_cast<const u8*>(record), reinterpret_cast<const u8*>(record + 1));
  for (u32 id = 0; id < 60; ++id) {
    if (id >= 30 && id <= 35) continue;
    fake.log.clear();
    const int result = QamSetVar(2, 0, id, 7);
    if (id == 51) {
      EXPECT_NE(result, 0);
    } else {
      EXPECT_EQ(result, id == 43 ? 0 : -2) << id;
    }
    EXPECT_EQ(fake.log, id == 51 ? Lines{"take"} : (Lines{"take", "give"})) << id;
    fake.log.clear();
    QamSetVar1(2, 0, id, 7);
    EXPECT_EQ(fake.log, (Lines{"take", "give"})) << id;
  }
  EXPECT_TRUE(fake.steps.empty());
  EXPECT_TRUE(std::equal(before.begin(), before.end(), reinterpret_cast<const u8*>(record)));

  fake.log.clear();
  EXPECT_EQ(QamGetVar(3, 0, 30, nullptr), 0U);
  EXPECT_EQ(QamSetVar(3, 0, 30, 474000), -1);
  QamSetVar1(3, 0, 30, 474000);
  EXPECT_EQ(fake.log, (Lines{"take", "take", "take"}));
}

TEST_F(Variables, RunUnlockedWhereTheChassisMadeNoSemaphore) {
  fake.start(2);
  semQamVar = nullptr;
  EXPECT_EQ(get(33), 5U);
  EXPECT_EQ(QamSetVar(2, 0, 33, 7), 0);
  EXPECT_EQ(get(33), 7U);
}

}  // namespace
}  // namespace test
