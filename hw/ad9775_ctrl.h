// The calibration service: a factory or service tool reads the DAC's thirteen registers over UDP, port 49156,
// and writes new values to DAC and EEPROM. It has no authentication: any client can calibrate. One task
// serves all slots, because a packet gives its slot; started with `Ad9775Ctrl_Init(0)`.
#pragma once

#include "platform/chassis.h"
#include "platform/types.h"
#include "qamcard/qamcard.h"

// Same format for request and reply. docs/calibration.md describes them for authors of tools.
struct AdIpPacket {
  u8 idx;      // 1 read, 2 write and save
  u8 Channel;  // slot, from 0
  u8 CommonReg[5];
  u8 I_Para[4];
  u8 Q_Para[4];
};
static_assert(sizeof(AdIpPacket) == 15 && alignof(AdIpPacket) == 1);

extern int mysock[MAX_BOARD_NUM];  // the task serves only the first

extern "C" {

// The task: about ten requests per second, never returns.
void Ad9775Ctrl(u8 slotNo);

// One request. 1: a reply of *OutLen bytes is in Out; 0: done, no reply; -1: no request, nothing done. `Src`
// must have 15 bytes, whatever the value of `Len`.
int AdPackHandle(u8 slotNo, u8* Src, int Len, u8* Out, int* OutLen);
}
