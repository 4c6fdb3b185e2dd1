// The bus of the clock generator (CDCE925, address 0x64, with its pin S0 in addition to the bus) and access
// to its registers. Called by hw/Qam_set at start-up and when the symbol rate changes; tasks only. No call
// reports an error: a value that the device did not accept is visible only in its clock.
#pragma once

#include "platform/types.h"

extern "C" {

// Registers 0x00 to 0x7F, one at a time.
void CdceRegWrite(u8 slotNo, u16 addr, u8 data);
u8 CdceRegRead(u8 slotNo, u16 addr, u8 size);  // one byte, whatever the size

// The steps of the bus. CdceWack(1) checks the slave's acknowledge, CdceWack(0) does not; CdceAck(1) sends
// the master's acknowledge, CdceAck(0) does not.
void CdceStart(u8 slotNo);
void CdceStop(u8 slotNo);
void CdceSendA(u8 slotNo, u8 WDevice, u8 Address);
void CdceSend(u8 slotNo, u8 data);
void CdceWack(u8 slotNo, u8 i);
u8 CdceReceive(u8 slotNo);
void CdceAck(u8 slotNo, u8 i);
void WsclCdce(u8 slotNo, u8 i);
void WsdaCdce(u8 slotNo, u8 i);
u8 RsclCdce(u8 slotNo);
u8 RsdaCdce(u8 slotNo);

// The pause of the card's slower serial lines: a loop of 1000 turns and a watchdog kick.
void delay();
}
