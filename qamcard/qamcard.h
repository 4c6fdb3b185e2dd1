// The module's entry points. A chassis calls `Qam_Init` for each slot with a card of this kind; everything
// else of a card is called through its descriptor. docs/porting.md has the order of calls.
#pragma once

#include "qamcard/kernel.h"
#include "qamcard/types.h"

#ifdef __cplusplus
extern "C" {
#endif

// Registers the card of the slot (0..5): descriptor, parameter record, back-end variables. Start-up only.
// Reports nothing if the heap has no room for a descriptor.
void Qam_Init(u8 slotNo);

// The chassis's mutex for `getVar` and `setVar`, which its owner may lock again; null: callers do not wait
// for each other. To be set before the first call.
extern QAM_NAME(os, SEM_ID) semQamVar;

// Starts the calibration service for all slots: creates the socket and starts the task, once, for slot 0. A
// slot that does not exist fails a check, and nothing is started. Other failures are not reported; the task
// then waits on a socket that never receives. Start-up, or a debug shell.
void Ad9775Ctrl_Init(u8 slotNo);

// Starts a task that kicks the watchdog each second. The module does not call this; a chassis or a debug
// shell may.
void taskDQam(void);

// ---- The search for packets of a PID ----

// Queues of captured packets, one per slot: messages of four bytes, the packet's address as a number. The
// chassis creates and fills them while `isSearch` is 1; null until then.
extern QAM_NAME(os, MSG_Q_ID) qamTsReadQID[QAM_SLOTS];

struct qamSearchPSI_t {
  u8 isSearch;
  u8 tableId;
  u16 pid;
};
QAM_LAYOUT(sizeof(struct qamSearchPSI_t) == 4);
extern struct qamSearchPSI_t qamSearchPSI[QAM_SLOTS];

// Starts (`isSearch` not 0) or stops the slot's search for packets of a PID and table. Another PID or table
// drops the captured packets; the same one again changes nothing. Always 0.
int qamSetTSPID(u8 slotNo, u8 port, u16 pid, u8 tableId, u8 isSearch);

// Copies the next captured packet to `pkt_buf`, 188 bytes; -1 if there is none. Never waits. There is one
// search per slot, for all ports.
int qamGetTsPidResult(u8 slotNo, u8 port, u8* pkt_buf);

#ifdef __cplusplus
}
#endif
