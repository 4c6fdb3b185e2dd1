// A card's registration with the chassis, and the start-up of its slot.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "card/QamFpga.h"
#include "card/QamInit.h"
#include "card/qamVar.h"
#include "tests/module/chassis.h"
#include "ts/qamBack.h"
#include "ts/qamIntr.h"
#include "ui/qamSnmp.h"
#include "ui/qamStatus.h"

namespace test {

struct SlotRow {
  const char* name;
  u8 slot;
  u32 window;
  int tickHz, delay;
};

namespace {

constexpr const char* kBitstream = "/tffs0/K717_QAM/qam.bin";

TEST_F(ModuleTest, RegistrationFillsTheDescriptorAndCallsTheChassisInOrder) {
  Qam_Init(2);
  EXPECT_EQ(fake.log, (Lines{"open /tffs0/para/card3.dat rb+", "debug slot 2 's para file is not exist\r\n",
                             "save 2", "insert 2", "menu 2 QAM card3", "configure bus 2 1 255",
                             "card type 2 3002", "variables 02000000 02010000 OutVars of Slot2 port0\n",
                             "variables 02010000 02020000 OutVars of Slot2 port1\n"}));
  const chassis::card* card = chassis::head;
  ASSERT_NE(card, nullptr);
  const char name[20] = "Qam Card 2";
  EXPECT_EQ(std::memcmp(card->cardName, name, sizeof name), 0);
  EXPECT_EQ(card->slotNo, 2);
  EXPECT_EQ(card->cardType, 27);
  EXPECT_EQ(card->in_port_num, 0);
  EXPECT_EQ(card->out_port_num, 2);
  EXPECT_EQ(card->next, nullptr);
  EXPECT_EQ(card->init, &QamInit);
  EXPECT_EQ(card->getVar, &QamGetVar);
  EXPECT_EQ(card->setVar, &QamSetVar);
  EXPECT_EQ(card->statusCheck, &qamStatusCheck);
  EXPECT_EQ(card->auxClkIntRoutine, &qamIntr);
  EXPECT_EQ(card->backInit, &qamBackInit);
  EXPECT_EQ(card->mibRegister, &qamMibRegister);
  EXPECT_TRUE(card->trapRoutine == nullptr && card->Irq0Routine == nullptr && card->Irq4Routine == nullptr &&
              card->Irq5Routine == nullptr);
  EXPECT_EQ(card->varPtr, GetQamCardParaFromList(2));
  EXPECT_NE(card->varPtr, nullptr);
  EXPECT_EQ(card->varSize, 203132U);
  EXPECT_TRUE(fake.accesses.empty()) << "registration leaves the hardware alone";
}

class StartUp : public ModuleTest, public ::testing::WithParamInterface<SlotRow> {};

INSTANTIATE_TEST_SUITE_P(
    Each, StartUp,
    ::testing::Values(SlotRow{"Slot0", 0, 0x60000000, 100, 1}, SlotRow{"Slot1", 1, 0x60000200, 60, 0},
                      SlotRow{"Slot2", 2, 0x60000400, 99, 0}, SlotRow{"Slot3", 3, 0x60000800, 1000, 10},
                      SlotRow{"Slot4", 4, 0x60001000, 199, 1}, SlotRow{"Slot5", 5, 0x60002000, 200, 2}),
    kRowName);

TEST_P(StartUp, SetsTheWindowAndStartsBothChannels) {
  const auto [name, slot, window, tickHz, delay] = GetParam();
  fake.tickHz = tickHz;
  Qam_Init(slot);
  fake.log.clear();
  QamInit(slot);
  Lines expected{fmt::format("open {} rb+", kBitstream),
                 fmt::format("debug qam fpga can not open {} file!\r\n", kBitstream)};
  // Settling; two waits for each of three resets, one before the clock generator's row.
  expected.insert(expected.end(), 8, fmt::format("delay {}", delay));
  for (int port = 0; port < 2; ++port) {
    expected.emplace_back("queue 256 4 1");
    expected.push_back(
        fmt::format("spawn qam{0}PSISend{1} 212 0 4096 ({0} {1} 0 0 0 0 0 0 0 0)", slot, port));
    expected.push_back(fmt::format("route {} {}", slot, port));
  }
  EXPECT_EQ(fake.log, expected);
  EXPECT_EQ(fake.addressOf(QamFpgaIf[slot]), window);
  ASSERT_EQ(fake.queues.size(), 2U);
  EXPECT_EQ(g_qam_PsiSendQ_ID[slot][0], fake.queues[0]->handle());
  EXPECT_EQ(g_qam_PsiSendQ_ID[slot][1], fake.queues[1]->handle());
}

TEST_F(ModuleTest, StartUpBuildsTheSendListsOfARecordWithItsChannelHalted) {
  Qam_Init(0);
  QamCardPara* para = GetQamCardParaFromList(0);
  for (int port = 0; port < 2; ++port) {
    para->psiPkt[port][0] = {.pid = 0, .psiType = PAT, .counter = 0, .psiData = {0x47, 0x40}};
    para->pktNum[port][PAT] = 1;
  }
  Lines flags;
  fake.onCall = [&](std::string_view call) {
    if (call != "malloc") return;
    flags.push_back(fmt::format("{} {}", qam_is_setting_psi[0][0], qam_is_setting_psi[0][1]));
  };
  QamInit(0);
  EXPECT_EQ(flags, (Lines{"1 0", "0 1"}));
  EXPECT_EQ(qam_is_setting_psi[0][1], 0);
  qamIntr(0);
  EXPECT_EQ(fake.queues[0]->messages, std::vector<u32>{0});
}

TEST_F(ModuleTest, AnFpgaThatDoesNotStartLeavesTheSlotIdle) {
  fake.files[kBitstream] = {0x12};
  Qam_Init(4);
  fake.log.clear();
  QamInit(4);
  ASSERT_GE(fake.log.size(), 2U);
  EXPECT_EQ((Lines{fake.log.end() - 2, fake.log.end()}),
            (Lines{"lcd 0 whole 0 0 Loading Card4", "lcd 3 whole 0 0 Config Error"}));
  EXPECT_EQ(QamFpgaIf[4], nullptr);
  EXPECT_TRUE(fake.queues.empty());
  EXPECT_TRUE(fake.tasks.empty());
}

}  // namespace
}  // namespace test
