// The PSI carousel of a card: which stored packet is due at which tick, and its way into the card's FPGA. The
// chassis's auxiliary clock drives it (`qamIntr`), one task a channel sends (`QamTaskPsiSend`).
#pragma once

#include "card/QamCardPara.h"
#include "platform/chassis.h"
#include "platform/kernel.h"

// Each channel's send queue: messages of four bytes, the store index of the packet to write.
extern os::MSG_Q_ID g_qam_PsiSendQ_ID[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];

// Not 0 while a channel's store or send lists are being replaced: the tick routine leaves the channel alone.
// Volatile: an interrupt routine reads what a task writes.
extern volatile u8 qam_is_setting_psi[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];

// Builds the channel's send lists again from its store, and starts the countdowns anew. Tasks only, with
// `qam_is_setting_psi` of the channel set around the call.
void QamSetPsiInterval(u8 slotNo, u8 port);

// One tick of the auxiliary clock for the slot. Interrupt context: never waits, allocates nothing, touches no
// register.
extern "C" void qamIntr(u8 slotNo);

// Body of a channel's send task. -1 when the slot has no record; otherwise it does not return.
int QamTaskPsiSend(u8 slotNo, u8 port);

// Writes one packet of 188 bytes to the channel's PSI port, with the PID's next continuity counter. Send task
// only.
void qamWritePsi(u8 slotNo, const u8* pkt, u8 port);
