// Every entry point names what it does not take: with the text, and the unit, that field engineers search
// for.
#include "card/QamInit.h"
#include "card/qamVar.h"
#include "hw/Qam_fpga_init.h"
#include "hw/ad9775_ctrl.h"
#include "tests/module/chassis.h"
#include "ts/qamBack.h"
#include "ts/qamIntr.h"
#include "ts/qamPidMap.h"
#include "ts/qamPsi.h"
#include "ui/qamStatus.h"

namespace test {
namespace {

using Checks = ModuleTest;

TEST_F(Checks, BadArgumentsFailTheirChecks) {
  // The call, its check, and the line where that is fixed.
  using Row = std::tuple<void (*)(), const char*, std::optional<int>>;
  static QamCardPara para;
  static const set_psi_pkt chunk{};
  static const set_pid_map_t map{};
  static const u8 packet[188] = {};
  const Row rows[] = {
      {[] { Qam_create_para(2); }, "qamVar: slotNo<MAX_QAM_OUT_NUM", 196},
      {[] { qam_load_para(6, &para); }, "qamVar: slotNo<MAX_BOARD_NUM", 145},
      {[] { qam_load_para(0, nullptr); }, "qamVar: pVar", 146},
      {[] { Qam_Init(6); }, "QamInit: slotNo<MAX_BOARD_NUM", 120},
      {[] { QamInit(6); }, "QamInit: slotNo<MAX_BOARD_NUM", 50},
      {[] { QamInit(0); }, "QamInit: g_qam_PsiSendQ_ID[slotNo][i]", 99},
      {[] { QamSetVar(6, 0, 30, 474000); }, "qamVar: slotNo<MAX_BOARD_NUM", 478},
      {[] { Ad9775Ctrl_Init(6); }, "ad9775_ctrl: slotNo<MAX_BOARD_NUM", {}},
      {[] { qamStatusCheck(6); }, "qamStatus: slotNo<MAX_BOARD_NUM", 23},
      {[] { cfg_qam_fpga(6, packet, 1); }, "Qam_fpga_init: slotNo<MAX_BOARD_NUM", {}},
      {[] { cfg_qam_fpga(0, nullptr, 1); }, "Qam_fpga_init: point", {}},
      {[] { cfg_qam_fpga(0, packet, 0); }, "Qam_fpga_init: dataSize>0", {}},
      {[] { cfg_qam_fpga(0, packet, -1); }, "Qam_fpga_init: dataSize>0", {}},
      {[] { QamSetPsiInterval(6, 0); }, "qamIntr: slotNo<MAX_BOARD_NUM", {}},
      {[] { QamSetPsiInterval(0, 2); }, "qamIntr: port < MAX_QAM_OUT_NUM", {}},
      {[] { qamIntr(6); }, "qamIntr: slotNo<MAX_BOARD_NUM", {}},
      {[] { QamTaskPsiSend(6, 0); }, "qamIntr: slotNo<MAX_BOARD_NUM", {}},
      {[] { QamTaskPsiSend(0, 2); }, "qamIntr: port < MAX_QAM_OUT_NUM", {}},
      {[] { qamWritePsi(6, packet, 0); }, "qamIntr: slotNo < MAX_BOARD_NUM", {}},
      {[] { qamWritePsi(0, packet, 2); }, "qamIntr: port < MAX_QAM_OUT_NUM", {}},
      {[] { qamWritePsi(0, nullptr, 0); }, "qamIntr: pkt != NULL", {}},
      {[] { QamPsiSetLock(6, 0, &para, 1); }, "qamBack: slotNo < MAX_BOARD_NUM", {}},
      {[] { QamPsiSetLock(0, 2, &para, 1); }, "qamBack: port < MAX_QAM_OUT_NUM", {}},
      {[] { QamSavePsiPkt(2, &para, &chunk); }, "qamBack: port < MAX_QAM_OUT_NUM", {}},
      {[] { QamPidMapSetLock(6, 0, &para, 1); }, "qamBack: slotNo < MAX_BOARD_NUM", {}},
      {[] { QamPidMapSetLock(0, 2, &para, 1); }, "qamBack: port < MAX_QAM_OUT_NUM", {}},
      {[] { QamSavePidMap(2, &para, &map); }, "qamBack: port < MAX_QAM_OUT_NUM", {}},
      {[] { qamSetTSPID(6, 0, 0, 0, 1); }, "qamBack: slotNo<MAX_BOARD_NUM", {}},
      {[] { qamSetTSPID(0, 2, 0, 0, 1); }, "qamBack: port<MAX_QAM_OUT_NUM", {}},
      {[] { qamBackInit(6); }, "qamBack: slotNo < MAX_BOARD_NUM", {}},
  };
  Qam_Init(0);
  fake.queuesToBeHad = false;
  fake.stopsAtChecks = true;
  for (const auto& [call, check, line] : rows) {
    fake.forget();
    EXPECT_FALSE(fake.runs(call));
    EXPECT_EQ(fake.checks, Lines{check});
    EXPECT_EQ(fake.checkedLine, line.value_or(fake.checkedLine)) << check;
  }
}

}  // namespace
}  // namespace test
