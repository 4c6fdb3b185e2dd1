// The PSI carousel of a card: selects the stored packets due at each tick and sends them to the card's FPGA.
// The chassis's auxiliary clock drives it (`qamIntr`); one task per channel sends (`QamTaskPsiSend`).
#pragma once

#include "card/QamCardPara.h"
#include "platform/chassis.h"
#include "platform/kernel.h"

// Each channel's send queue: messages of four bytes, the store index of the packet to write.
extern os::MSG_Q_ID g_qam_PsiSendQ_ID[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];

// Not 0 while a channel's store or send lists are being replaced: the tick routine then skips the channel.
// Volatile: a task writes it and an interrupt routine reads it.
extern volatile u8 qam_is_setting_psi[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];

extern "C" {

// Stops the channel's carousel (`hold` not 0) or lets it continue. A compiler moves no access to store or
// lists across it. Tasks only.
void qam_hold_psi(u8 slotNo, u8 port, u8 hold);

// Rebuilds the channel's send lists from its store, and restarts the countdowns. Tasks only, while the
// carousel is held.
void QamSetPsiInterval(u8 slotNo, u8 port);

// One tick of the auxiliary clock for the slot. Interrupt context: never waits, does not allocate, accesses
// no register.
void qamIntr(u8 slotNo);

// Body of a channel's send task. -1 if the slot has no record; otherwise it does not return.
int QamTaskPsiSend(u8 slotNo, u8 port);

// Writes one packet of 188 bytes to the channel's PSI port, with the PID's next continuity counter. Send task
// only.
void qamWritePsi(u8 slotNo, const u8* pkt, u8 port);
}
