// The chassis's alarm list, one for all slots. The chassis stores the records; drivers provide parts of them.
// Chinese texts are GBK, English ones ASCII. Tasks only.
#pragma once

#include "qamcard/types.h"

QAM_BEGIN(chassis)

struct alarm_t {
  u16 RstTimes;
  u16 Type;
  u32 HappenTime;     // seconds since 1970-01-01 UTC
  u32 DisappearTime;  // same unit, once cleared
  u8 Stat;
  u8 IsDisappeared;
  u8 Slot;
  u8 Port;
  u16 Program;
  u8 Reserved2[2];
  char StrZhTitle[18];
  char StrZhCont[18];
  char StrEnTitle[18];
  char StrEnCont[18];
  char StrZhTrap[64];
  char StrEnTrap[164];
};
QAM_LAYOUT(offsetof(struct alarm_t, HappenTime) == 4 && offsetof(struct alarm_t, Stat) == 12);
QAM_LAYOUT(offsetof(struct alarm_t, Program) == 16 && offsetof(struct alarm_t, StrZhTitle) == 20);
QAM_LAYOUT(offsetof(struct alarm_t, StrZhTrap) == 92 && offsetof(struct alarm_t, StrEnTrap) == 156);
QAM_LAYOUT(sizeof(struct alarm_t) == 320);

// Slots and ports count from 0. Texts longer than their fields are cut.
void AddAnAlarm(u8 slotNo, u8 port, u16 type, const char* zhTitle, const char* zhContent, const char* enTitle,
                const char* enContent, const char* zhTrap, const char* enTrap);
void DelAnAlarm(u8 slotNo, u8 port, u16 type, const char* zhTrap, const char* enTrap);
// Not 0 while the list has such an alarm. The last argument is for the chassis; pass 0.
int IsAlarmExist(u8 slotNo, u8 port, u16 type, int arg4);

// The main board's number of a card's output: its bit in the board's registers.
u8 out_port_to_mbrd_out(u8 slotNo, u8 port);

QAM_END
