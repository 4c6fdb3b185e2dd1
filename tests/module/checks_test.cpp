// Every entry point names what it does not take: with the text, and the unit, that field engineers search
// for.
#include "card/QamInit.h"
#include "card/qamVar.h"
#include "hw/Qam_fpga_init.h"
#include "tests/module/chassis.h"
#include "ts/qamBack.h"
#include "ts/qamIntr.h"
#include "ui/qamStatus.h"

namespace test {
namespace {

using Checks = ModuleTest;

constexpr const char* kSlot = "slotNo<MAX_BOARD_NUM";
constexpr const char* kSpacedSlot = "slotNo < MAX_BOARD_NUM";
constexpr const char* kPort = "port < MAX_QAM_OUT_NUM";

TEST_F(Checks, BadArgumentsFailTheirChecks) {
  struct Row {
    const char* call;
    void (*entry)();
    const char *text, *unit;
    int line = 0;  // 0: not fixed
  };
  static QamCardPara para;
  static const set_psi_pkt chunk{};
  static const set_pid_map_t map{};
  static const u8 packet[188] = {};
  const Row rows[] = {
      {"Qam_create_para(2)", [] { Qam_create_para(2); }, "slotNo<MAX_QAM_OUT_NUM", "qamVar", 196},
      {"qam_load_para(6, p)", [] { qam_load_para(6, &para); }, kSlot, "qamVar", 145},
      {"qam_load_para(0, null)", [] { qam_load_para(0, nullptr); }, "pVar", "qamVar", 146},
      {"Qam_Init(6)", [] { Qam_Init(6); }, kSlot, "QamInit", 120},
      {"QamInit(6)", [] { QamInit(6); }, kSlot, "QamInit", 50},
      {"QamSetVar(6)", [] { QamSetVar(6, 0, 30, 474000); }, kSlot, "qamVar", 478},
      {"qamStatusCheck(6)", [] { qamStatusCheck(6); }, kSlot, "qamStatus", 23},
      {"cfg_qam_fpga(6)", [] { cfg_qam_fpga(6, packet, 1); }, kSlot, "Qam_fpga_init"},
      {"cfg_qam_fpga(null)", [] { cfg_qam_fpga(0, nullptr, 1); }, "point", "Qam_fpga_init"},
      {"cfg_qam_fpga(size 0)", [] { cfg_qam_fpga(0, packet, 0); }, "dataSize>0", "Qam_fpga_init"},
      {"cfg_qam_fpga(size -1)", [] { cfg_qam_fpga(0, packet, -1); }, "dataSize>0", "Qam_fpga_init"},
      {"QamSetPsiInterval(6, 0)", [] { QamSetPsiInterval(6, 0); }, kSlot, "qamIntr"},
      {"QamSetPsiInterval(0, 2)", [] { QamSetPsiInterval(0, 2); }, kPort, "qamIntr"},
      {"qamIntr(6)", [] { qamIntr(6); }, kSlot, "qamIntr"},
      {"QamTaskPsiSend(6, 0)", [] { QamTaskPsiSend(6, 0); }, kSlot, "qamIntr"},
      {"QamTaskPsiSend(0, 2)", [] { QamTaskPsiSend(0, 2); }, kPort, "qamIntr"},
      {"qamWritePsi(6)", [] { qamWritePsi(6, packet, 0); }, kSpacedSlot, "qamIntr"},
      {"qamWritePsi(port 2)", [] { qamWritePsi(0, packet, 2); }, kPort, "qamIntr"},
      {"qamWritePsi(null)", [] { qamWritePsi(0, nullptr, 0); }, "pkt != NULL", "qamIntr"},
      {"QamPsiSetLock(6, 0)", [] { QamPsiSetLock(6, 0, &para, 1); }, kSpacedSlot, "qamBack"},
      {"QamPsiSetLock(0, 2)", [] { QamPsiSetLock(0, 2, &para, 1); }, kPort, "qamBack"},
      {"QamSavePsiPkt(2)", [] { QamSavePsiPkt(2, &para, &chunk); }, kPort, "qamBack"},
      {"QamPidMapSetLock(6, 0)", [] { QamPidMapSetLock(6, 0, &para, 1); }, kSpacedSlot, "qamBack"},
      {"QamPidMapSetLock(0, 2)", [] { QamPidMapSetLock(0, 2, &para, 1); }, kPort, "qamBack"},
      {"QamSavePidMap(2)", [] { QamSavePidMap(2, &para, &map); }, kPort, "qamBack"},
      {"qamSetTSPID(6, 0)", [] { qamSetTSPID(6, 0, 0, 0, 1); }, kSlot, "qamBack"},
      {"qamSetTSPID(0, 2)", [] { qamSetTSPID(0, 2, 0, 0, 1); }, "port<MAX_QAM_OUT_NUM", "qamBack"},
      {"qamBackInit(6)", [] { qamBackInit(6); }, kSpacedSlot, "qamBack"},
  };
  fake.stopsAtChecks = true;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.call);
    fake.checks.clear();
    EXPECT_FALSE(fake.runs(row.entry));
    ASSERT_EQ(fake.checks.size(), 1U);
    EXPECT_EQ(fake.checks[0].text, row.text);
    EXPECT_EQ(fake.checks[0].unit, row.unit);
    EXPECT_TRUE(row.line == 0 || fake.checks[0].line == row.line) << fake.checks[0].line;
  }
  EXPECT_TRUE(fake.accesses.empty());
}

}  // namespace
}  // namespace test
