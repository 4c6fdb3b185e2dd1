#include "card/QamFpga.h"

#include "platform/kernel.h"

Qam_fpga_if* QamFpgaIf[MAX_BOARD_NUM];

void qamPidSetFilter(u8 slotNo, u8 portNo, u16 pid, u8 pass) {
  __qampidfilter& filter = QamFpgaIf[slotNo]->qampidfilter[portNo];
  filter.filter_pid_l = pid;  // the whole value: the register keeps the low byte
  filter.filter_pid_h = pid >> 8;
  filter.filter_onoff = pass;
  filter.filter_we = 1;
  filter.filter_we = 0;
}

void qamPidFilterAllSet(u8 slotNo, u8 Port, u8 pass) {
  for (u16 pid = 0; pid < kPids; ++pid) qamPidSetFilter(slotNo, Port, pid, pass);
}

void qamFpgaWFilter(u8 slotNo, u8 port, QamCardPara* /*ptr*/) {
  qamPidFilterAllSet(slotNo, port, 1);
}

void QamFpgaIfTest(u8 slotNo, u16 Value) {
  int number = 0;
  for (Reg16& reg : QamFpgaIf[slotNo]->Test) {
    const auto value = static_cast<u16>(Value + 2 * number++);
    reg = value;
    if (reg == value) continue;
    chassis::DebugPrint("Reg%d Value Err:", number);
    chassis::DebugPrint("Set Value:%x; Get Value:%x\n", value, static_cast<u16>(reg));
  }
}

void QamFpgaTest(u8 slotNo) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  for (int i = 0; i < 5; ++i) {
    window->cdce925_scl = 0;
    os::sleepMilliseconds(10);
    window->cdce925_scl = 1;
    os::sleepMilliseconds(10);
  }
}

void qamTsPro(u8 /*slotNo*/, QamCardPara* /*pEnc*/) {}
void setAencOnePortTsPid(u8 /*slotNo*/, u8 /*portNo*/, u16 /*pid*/) {}
void setSlotPortNo2FPGA(u8 /*slotNo*/) {}
