#include "card/QamInit.h"

#include <cstdio>
#include <cstring>

#include "card/QamCardPara.h"
#include "card/QamFpga.h"
#include "card/qamVar.h"
#include "hw/Qam_fpga_init.h"
#include "hw/Qam_set.h"
#include "hw/ad7414.h"
#include "platform/chassis.h"
#include "platform/check.h"
#include "platform/kernel.h"
#include "platform/memory.h"
#include "ts/qamBack.h"
#include "ts/qamIntr.h"
#include "ts/qamPidMap.h"
#include "ui/qamMenu.h"
#include "ui/qamSnmp.h"
#include "ui/qamStatus.h"

namespace {

constexpr const char* kUnit = "QamInit";
constexpr int kSlotCardType = 3002;  // the chassis's code for this kind of card; 27 is the drivers' code
constexpr int kSendTaskPriority = 212;
constexpr int kSendTaskStack = 4096;
constexpr int kSendQueueLength = 256;

u32 windowAddress(u8 slotNo) {
  constexpr u32 kFirstWindow = 0x60000000;
  return slotNo == 0 ? kFirstWindow : kFirstWindow + (0x200U << (slotNo - 1));
}

void setLast(chassis::Label& label, char character) {
  label.text[std::strlen(label.text) - 1] = character;
}

void nameMenuFor(u8 slotNo) {
  const char number = static_cast<char>('1' + slotNo);
  qamMenuInit.val = slotNo;
  for (const chassis::Language each : chassis::kLanguages) setLast(chassis::label(qamMenuInit, each), number);
}

int psiSendEntry(int slotNo, int port, int, int, int, int, int, int, int, int) {
  return QamTaskPsiSend(static_cast<u8>(slotNo), static_cast<u8>(port));
}

void startChannel(u8 slotNo, u8 port, QamCardPara* record) {
  os::MSG_Q_ID& queue = g_qam_PsiSendQ_ID[slotNo][port];
  queue = os::msgQCreate(kSendQueueLength, sizeof(u32), os::MSG_Q_PRIORITY);
  os::check(queue != nullptr, "g_qam_PsiSendQ_ID[slotNo][i]", kUnit, 99);

  qam_hold_psi(slotNo, port, 1);
  QamSetPsiInterval(slotNo, port);
  qam_hold_psi(slotNo, port, 0);

  char name[20];
  std::snprintf(name, sizeof name, "qam%dPSISend%d", slotNo, port);
  os::taskSpawn(name, kSendTaskPriority, 0, kSendTaskStack, psiSendEntry, slotNo, port, 0, 0, 0, 0, 0, 0, 0,
                0);
  QamSetPidMap(slotNo, port, record);
}

}  // namespace

void Qam_Init(u8 slotNo) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit, 120);

  auto* descriptor = static_cast<chassis::card*>(os::malloc(sizeof(chassis::card)));
  if (descriptor == nullptr) return;
  *descriptor = {};
  std::snprintf(descriptor->cardName, sizeof descriptor->cardName, "Qam Card %d", slotNo);
  descriptor->slotNo = slotNo;
  descriptor->cardType = QAM_CARD_TYPE;
  descriptor->in_port_num = 0;
  descriptor->out_port_num = MAX_QAM_OUT_NUM;
  descriptor->menu = &qamMenuInit;
  nameMenuFor(slotNo);
  descriptor->getVar = QamGetVar;
  descriptor->setVar = QamSetVar;
  descriptor->statusCheck = qamStatusCheck;
  descriptor->backInit = qamBackInit;
  descriptor->mibRegister = qamMibRegister;
  descriptor->init = QamInit;
  descriptor->auxClkIntRoutine = qamIntr;
  descriptor->varPtr = Qam_create_para(slotNo);
  descriptor->varSize = sizeof(QamCardPara);

  chassis::cardInsert(descriptor);
  chassis::menuRegister(descriptor->menu);
  chassis::configOneSlotBus(slotNo, 1, 255);
  chassis::setCardType(slotNo, kSlotCardType);
  qam_create_status(slotNo);
  descriptor->backInit(slotNo);
}

void QamInit(u8 slotNo) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit, 50);
  QamCardPara* record = GetQamCardParaFromList(slotNo);
  if (record == nullptr) return;

  if (QamfpgaInit(slotNo) == -1) {
    chassis::lcdPrintf(0, chassis::kPanelWholeLine, 0, 0, "Loading Card%d", slotNo);
    chassis::lcdPrintf(3, chassis::kPanelWholeLine, 0, 0, "Config Error");
    return;
  }
  QamFpgaIf[slotNo] = static_cast<Qam_fpga_if*>(os::busAddress(windowAddress(slotNo)));
  os::sleepMilliseconds(10);

  Qam_ResetAll(slotNo);
  cdce925_init(slotNo);
  Ad9775Init(slotNo);
  ad7414_init(slotNo, 1);
  ad7414_init(slotNo, 2);
  Qam_para_set(slotNo, record);
  for (u8 port = 0; port < MAX_QAM_OUT_NUM; ++port) startChannel(slotNo, port, record);
}
