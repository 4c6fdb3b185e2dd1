// The parameter record of one card, which is also the content of its parameter file, byte for byte; its
// loading, its defaults, and the lookup. Called at start-up (creation) and by any task (lookup).
#pragma once

#include <bit>
#include <cstddef>

#include "card/PsiType.h"

inline constexpr u8 QAM_CARD_TYPE = 27;  // tag of this card in its descriptor and its record

inline constexpr std::size_t kClockRows = 17;

struct QamParaS {
  u16 reserve0;
  u8 reserve1;
  u8 QamVersion;   // a character, '0' by default
  u32 lo1freq;     // Hz; stored only
  u32 rflevel;     // 0.1 dBuV
  u32 rfreq;       // kHz, channel 1; channel 2 runs 8000 kHz above
  u32 symbolrate;  // kBd
  u8 qammode;      // constellation code
  u8 modencode;
  u8 status;
  u8 iqinv;
  u8 modswitch;
  u8 rfswitch;  // 0 on, 1 off
  u16 ts_id;
  u8 power;  // 15 on, 0 off
  u8 qamen;
  u8 reserved[2];
};

// One row of the clock generator's table: the registers (decimal 20 to 27) for one symbol rate.
struct cdce925_para {
  u16 freq;  // kBd
  u16 h20, h22, h23, h24, h25, h26, h27;
};

struct pidmap_t {
  u16 src_pid;
  u8 src_port;
  u8 src_slotNo;
  u16 dst_pid;
  u8 type;
  u8 reserved;
  u16 src_progNo;
  u16 dst_progNo;
};

struct outPsiPkt_t {
  u16 pid;
  u8 psiType;
  u8 counter;
  u8 psiData[kTsPacketSize];
};

// The record's layout, in its field `version`.
inline constexpr u8 kRecordVersion = 'd';

struct QamCardPara {
  u8 cardType;
  u8 slotNo;
  u8 version;
  u8 reserved;
  QamParaS qam_para;
  cdce925_para Cd925_para[kClockRows];
  u16 Interval[MAX_QAM_OUT_NUM][PSINUM];  // ticks of the auxiliary clock
  u16 pktNum[MAX_QAM_OUT_NUM][PSINUM];
  u32 pidMapNum[MAX_QAM_OUT_NUM];
  pidmap_t pidMap[MAX_QAM_OUT_NUM][kPidMapSize];
  outPsiPkt_t psiPkt[MAX_QAM_OUT_NUM][kPsiStoreSize];
};

static_assert(std::endian::native == std::endian::little, "the record is stored as it is in memory");
static_assert(sizeof(QamParaS) == 32);
static_assert(offsetof(QamParaS, QamVersion) == 3 && offsetof(QamParaS, lo1freq) == 4);
static_assert(offsetof(QamParaS, rflevel) == 8 && offsetof(QamParaS, rfreq) == 12);
static_assert(offsetof(QamParaS, symbolrate) == 16 && offsetof(QamParaS, qammode) == 20);
static_assert(offsetof(QamParaS, modencode) == 21 && offsetof(QamParaS, status) == 22);
static_assert(offsetof(QamParaS, iqinv) == 23 && offsetof(QamParaS, modswitch) == 24);
static_assert(offsetof(QamParaS, rfswitch) == 25 && offsetof(QamParaS, ts_id) == 26);
static_assert(offsetof(QamParaS, power) == 28 && offsetof(QamParaS, qamen) == 29);
static_assert(sizeof(cdce925_para) == 16);
static_assert(offsetof(cdce925_para, h20) == 2 && offsetof(cdce925_para, h22) == 4);
static_assert(offsetof(cdce925_para, h23) == 6 && offsetof(cdce925_para, h24) == 8);
static_assert(offsetof(cdce925_para, h25) == 10 && offsetof(cdce925_para, h26) == 12);
static_assert(offsetof(cdce925_para, h27) == 14);
static_assert(sizeof(pidmap_t) == 12);
static_assert(offsetof(pidmap_t, src_port) == 2 && offsetof(pidmap_t, src_slotNo) == 3);
static_assert(offsetof(pidmap_t, dst_pid) == 4 && offsetof(pidmap_t, type) == 6);
static_assert(offsetof(pidmap_t, src_progNo) == 8 && offsetof(pidmap_t, dst_progNo) == 10);
static_assert(sizeof(outPsiPkt_t) == 192);
static_assert(offsetof(outPsiPkt_t, psiType) == 2 && offsetof(outPsiPkt_t, counter) == 3);
static_assert(offsetof(outPsiPkt_t, psiData) == 4);
static_assert(sizeof(QamCardPara) == 203132);
static_assert(offsetof(QamCardPara, slotNo) == 1 && offsetof(QamCardPara, version) == 2);
static_assert(offsetof(QamCardPara, qam_para) == 4 && offsetof(QamCardPara, Cd925_para) == 36);
static_assert(offsetof(QamCardPara, Interval) == 308 && offsetof(QamCardPara, pktNum) == 340);
static_assert(offsetof(QamCardPara, pidMapNum) == 372 && offsetof(QamCardPara, pidMap) == 380);
static_assert(offsetof(QamCardPara, psiPkt) == 6524);

// Register values of the clock generator for each symbol rate: the table of a new record.
extern const cdce925_para TmpData[kClockRows];

extern "C" {

// The slot's new record, loaded from its file or with defaults; null if the heap is exhausted. Start-up only.
QamCardPara* Qam_create_para(u8 slotNo);

// Fills the record from "/tffs0/para/card<slot + 1>.dat", or with defaults if that is not a record of this
// card type. If a file of this card type is truncated, the record's tail stays as allocated. Start-up only.
int qam_load_para(u8 slotNo, QamCardPara* pVar);

// Sets defaults in every field and saves at once; returns the result of the save.
int qam_load_default(u8 slotNo, QamCardPara* pVar);

// Clear a channel's PID map, or its stored PSI packets: all bytes 0xFF.
void qam_set_default_pidmap(u8 slotNo, u8 port, QamCardPara* ptr);
void qam_set_default_psipkt(u8 slotNo, u8 port, QamCardPara* ptr);

// The record of the card in the slot; null if no card of this kind is inserted. Tasks and interrupts.
QamCardPara* GetQamCardParaFromList(u8 slotNo);
}
